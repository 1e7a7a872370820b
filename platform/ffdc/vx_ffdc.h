// libvx_ffdc: first-failure data capture. Serious events become error-log
// entries: a line in the system log (LOG_DAEMON, with the template label and
// detail number) and a JSON object on one line of the error log file. Every
// entry gets a unique identifier of 42 printable characters, which later
// entries may name as their reference so that entries chain.
// Thread-safe.
#ifndef VELT_PLATFORM_FFDC_VX_FFDC_H_
#define VELT_PLATFORM_FFDC_VX_FFDC_H_

#include <stddef.h>

#define FC_ID_LEN 42           // printable characters of an identifier
typedef char fc_eid_t[FC_ID_LEN + 1];  // 43 bytes, NUL-terminated

// Return codes.
#define FC_SUCCESS 0
#define FC_ALREADY_INITIALIZED 1   // fc_init_1 called twice: harmless
#define FC_INVALID_ARGUMENT 2
#define FC_LOG_OPEN_FAILED 3       // the error log file could not be written
#define FC_NO_ENVIRONMENT 15       // no error log file configured: syslog only

// One row of a component's error template table.
struct fc_errtbl_entry {
  unsigned long word0;      // always 0 in our tables
  const char* label;        // e.g. "GS_VASK_START_ST"
  int class_code;           // 5
  unsigned int detail;      // detail number
  const char* description;
  int count;                // 1
  const char* extra;        // ""
};

// Prepares the process for logging. The error log file is
// $VELT_FFDC_LOG when set, else the file named by fc_set_log_file, else
// none (entries then go to syslog only and the result is FC_NO_ENVIRONMENT).
// component: the name written into every entry.
int fc_init_1(const char* component);

// Names the JSON-lines error log file explicitly (the daemon puts it beside
// its trace log). Returns FC_SUCCESS or FC_INVALID_ARGUMENT.
int fc_set_log_file(const char* path);

// Builds the system-log form of an entry's text: "LABEL[detail]: text" cut
// to fit buf (always NUL-terminated). Returns the length written.
int fc_mk_syslog_msg(const struct fc_errtbl_entry* tmpl, const char* text,
                     char* buf, size_t buflen);

// Writes one entry. new_id receives the entry's identifier; ref_id (may be
// null or empty) names an earlier entry. type: 0 emergency, 1 error,
// 2 informational, 4 warning. Returns FC_SUCCESS, or an error code (the
// entry still reached syslog when only the file failed).
int fc_log_error(fc_eid_t new_id, const char* ref_id, const char* program,
                 const char* component, const char* file, const char* version,
                 int line, int type, unsigned long tmpl_word0,
                 const struct fc_errtbl_entry* tmpl, const char* detail,
                 size_t detail_len, const char* syslog_msg);

// True when id is null or its first 4 bytes are all zero.
int fc_is_id_empty(const char* id);

#endif  // VELT_PLATFORM_FFDC_VX_FFDC_H_
