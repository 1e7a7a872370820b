// Error-log entries, the assertion failure handler and AMtracef.

// The assertion path ends through the C library's own failure routine, which
// <assert.h> declares only without NDEBUG; release builds define it.
#undef NDEBUG
#include <assert.h>

#include "ha_assert.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <string>

#include "tk_gs_errtbl.h"
#include "vx_ffdc.h"

namespace {

constexpr const char* kProgramName = "tolkavskd";
constexpr long kLabelAssert = 3;  // "GS_ASSERT_EM"
constexpr size_t kTemplateRows = sizeof(fc_errtbl_tk_gs) / sizeof(fc_errtbl_tk_gs[0]);
constexpr size_t kSyslogMsgLen = 946;
constexpr size_t kDetailKeep = 100;     // longer texts are cut
constexpr size_t kDetailCutTo = 94;
constexpr size_t kTracefBufLen = 2048;

// Every call counts, so that a failure inside the first one (while it
// drains) adds no second "Failed assertion" line.
std::atomic<int> haAssertCalls{0};

bool isNormalFfdcResult(int rc) { return rc == 0 || rc == 34 || rc == 38; }

}  // namespace

int tolk_ffdclog(int event, unsigned tmpl_label_in, char fcid[43], const char* assoc_fid,
                 const char* source_name, const char* sidlevel, int lineno,
                 const char* detail_data, int detail_len) {
  fc_eid_t scratch = {0};
  if (fcid == nullptr) fcid = scratch;
  if (source_name == nullptr) source_name = "";
  if (sidlevel == nullptr) sidlevel = "";

  int rc;
  if (tmpl_label_in >= kTemplateRows) {
    // A label beyond the table has no template; report it like any other
    // failed entry rather than read past the table.
    rc = FC_INVALID_ARGUMENT;
  } else {
    const fc_errtbl_entry* row = &fc_errtbl_tk_gs[tmpl_label_in];
    size_t len = 0;
    if (detail_data != nullptr && detail_len > 0) {
      len = strnlen(detail_data, static_cast<size_t>(detail_len));
    }
    std::string detail(detail_data != nullptr ? detail_data : "", len);
    if (detail.size() > kDetailKeep) {
      detail.resize(kDetailCutTo);
      detail += ".....";
    }
    char syslogMsg[kSyslogMsgLen];
    fc_mk_syslog_msg(row, detail.c_str(), syslogMsg, sizeof syslogMsg);
    const char* reference = is_ffdc_id_empty(assoc_fid) ? nullptr : assoc_fid;
    rc = fc_log_error(fcid, reference, kProgramName, lpp_name, source_name, sidlevel, lineno,
                      event, row->word0, row, detail.c_str(), detail.size(), syslogMsg);
  }
  if (!isNormalFfdcResult(rc)) {
    std::string line = " FFDCLOG: fc_log_error() at file ";
    line += source_name;
    line += ", line ";
    line += std::to_string(lineno);
    line += " returned ";
    line += std::to_string(rc);
    line += "\n";
    writeStraightToLog(line.c_str());
  }
  return rc;
}

void ha_assert(const char* expression, const char* file, int line, const char* /*date*/,
               const char* version) {
  if (expression == nullptr) expression = "";
  if (file == nullptr) file = "";
  const int calls = haAssertCalls.fetch_add(1) + 1;
  TraceMarket* market = TraceStream::traceMarket;
  // Stopped first, so that the writer stops taking lines and the drain below
  // writes the rest, this line included, from this thread.
  if (market != nullptr) market->stopMarket();
  if (calls == 1) {
    _traceStream << LineNumberAndFileName(static_cast<unsigned>(line), file, version)
                 << TraceLevel(TRACE_EMERG) << TraceLabel(kLabelAssert) << "Failed assertion: "
                 << expression << "." << endl;
  }
  if (market != nullptr) market->drainAllLogs();
  __assert_fail(expression, file, static_cast<unsigned>(line),
                "void ha_assert(char*, char*, int, char*, char*)");
}

void AMtracef(int flags, const char* format, ...) {
  unsigned level = TRACE_DEBUG;
  if (flags & AM_TRACEF_GSCL) {
    level = TRACE_GSCL;
  } else if (flags & TRACE_FYI) {
    level = TRACE_FYI;
  }
  if (!TRACEABLE(level) || format == nullptr) return;

  char buf[kTracefBufLen];
  va_list args;
  va_start(args, format);
  vsnprintf(buf, sizeof buf, format, args);
  va_end(args);

  // The length is kept in 8 bits, as it always was: for texts of 256
  // characters or more the walk starts at (length mod 256) - 1.
  const uint8_t len = static_cast<uint8_t>(strlen(buf));
  for (int i = static_cast<int>(len) - 1; i >= 0 && buf[i] == '\n'; --i) buf[i] = '\0';

  _traceStream << TRACE_HERE << TraceLevel(level) << " " << buf << endl;
}
