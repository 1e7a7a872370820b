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
// component: the name written into entries that name none themselves (may be
// null). Returns FC_SUCCESS, FC_ALREADY_INITIALIZED on a second call,
// FC_NO_ENVIRONMENT, FC_INVALID_ARGUMENT when $VELT_FFDC_LOG is unusable
// (too long; it is then ignored), or FC_LOG_OPEN_FAILED when the file cannot
// be created (entries still reach syslog and the file is tried again with
// every entry). A relative file name is taken from the working directory of
// the moment it is configured, so that a later chdir does not move the log.
int fc_init_1(const char* component);

// Names the JSON-lines error log file explicitly (the daemon puts it beside
// its trace log). Returns FC_SUCCESS or FC_INVALID_ARGUMENT (null, empty or
// longer than PATH_MAX - 3 bytes, so that NAME.1 still fits).
int fc_set_log_file(const char* path);

// Builds the system-log form of an entry's text: "LABEL[0xDD]: text" cut
// to fit buf (always NUL-terminated when buflen > 0). A null tmpl gives the
// text alone, a null text an empty one. Returns the length written, or -1
// when buf is null or buflen is 0.
int fc_mk_syslog_msg(const struct fc_errtbl_entry* tmpl, const char* text,
                     char* buf, size_t buflen);

// Writes one entry: to syslog (LOG_DAEMON; syslog_msg, or when that is null
// or empty the fc_mk_syslog_msg form of detail, followed by " fcid=ID") and,
// when a file is configured, as one JSON object on one line of that file
// with the fields id, ref, time (UTC, ISO 8601, microseconds), program,
// component, file, version, line, type ("EMERGENCY", "ERROR", "INFO",
// "WARNING"), label, detail (the template's detail number), description
// and text (the detail text). Texts are cut (16 KiB for the detail text,
// 1 KiB for the others); control characters are escaped and bytes that are
// not UTF-8 become U+FFFD, so every line parses. The file is moved to
// NAME.1 (replacing an older one) before a line would take it past
// 4 MiB.
// new_id (may be null) receives the entry's identifier; ref_id (may be null
// or empty) names an earlier entry. detail: detail_len bytes of text, ending
// early at a NUL. type: 0 emergency, 1 error, 2 informational, 4 warning.
// Returns FC_SUCCESS (also when no file is configured), FC_INVALID_ARGUMENT
// for a null tmpl or an unknown type (nothing is written), or
// FC_LOG_OPEN_FAILED when the file could not be written (the entry still
// reached syslog and new_id is still filled).
int fc_log_error(fc_eid_t new_id, const char* ref_id, const char* program,
                 const char* component, const char* file, const char* version,
                 int line, int type, unsigned long tmpl_word0,
                 const struct fc_errtbl_entry* tmpl, const char* detail,
                 size_t detail_len, const char* syslog_msg);

// True when id is null or its first 4 bytes are all zero. id must point to
// at least 4 bytes (an fc_eid_t).
int fc_is_id_empty(const char* id);

// Test hooks, not for production code.
// The size bound of the error log file (default 4 MiB; 0 restores it).
void fc_set_max_log_bytes_ForTesting(size_t max_bytes);
// Receives the system-log lines instead of syslog (null restores syslog).
typedef void (*fc_syslog_fn)(int priority, const char* msg);
void fc_set_syslog_ForTesting(fc_syslog_fn fn);
// Forgets fc_init_1, the configured file, the component and the size bound,
// as if the process had just started.
void fc_reset_ForTesting(void);

#endif  // VELT_PLATFORM_FFDC_VX_FFDC_H_
