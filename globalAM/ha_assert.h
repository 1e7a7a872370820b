// Error-log entries, the assertion failure handler and the printf-style
// trace helper of the daemon.
//
// A failed assertion stops the trace market, writes one "Failed assertion"
// line (only the first time), drains every log and aborts; so the last thing
// in the log is why the process ended.
#ifndef VELT_GLOBALAM_HA_ASSERT_H_
#define VELT_GLOBALAM_HA_ASSERT_H_

#include "TraceStream.h"

// Ends the process: logs (first call only), drains and aborts. Any thread.
[[noreturn]] void ha_assert(const char* expression, const char* file, int line,
                            const char* date, const char* version);

// Evaluates expr once; when false, fails with its text.
#define HA_ASSERT(expr)                                 \
  ((expr) ? static_cast<void>(0)                        \
          : ha_assert(#expr, __FILE__, __LINE__, __DATE__, VELT_SOURCE_VERSION))

// Fails unconditionally with the given text.
#define HA_ASSERT_FAIL(text) ha_assert((text), __FILE__, __LINE__, __DATE__, VELT_SOURCE_VERSION)

// Flags of AMtracef: library-level lines trace at TRACE_GSCL, debug lines
// at TRACE_DEBUG; bit 0x10 alone asks for TRACE_FYI.
constexpr int AM_TRACEF_DEBUG = 0x10000000;
constexpr int AM_TRACEF_GSCL = 0x20000000;

// Traces one printf-formatted line (at most 2047 characters) for the calling
// thread, trailing newlines removed. Any thread with a TraceClient.
void AMtracef(int flags, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Makes one error-log entry from row tmpl_label_in of the template table.
// event: 0 emergency, 1 error, 2 informational, 4 warning. fcid receives the
// new entry's identifier (43 bytes); assoc_fid names an earlier entry (used
// only when not empty). Texts of 101 characters or more are cut to 94 and
// "....."; failures other than 34 and 38 are reported on the log stream.
// Returns the FFDC library's result. Any thread.
int tolk_ffdclog(int event, unsigned tmpl_label_in, char fcid[43], const char* assoc_fid,
                 const char* source_name, const char* sidlevel, int lineno,
                 const char* detail_data, int detail_len);

#endif  // VELT_GLOBALAM_HA_ASSERT_H_
