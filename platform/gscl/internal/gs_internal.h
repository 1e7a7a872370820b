// Pieces shared by the library's own sources (and its tests): the fatal
// path for broken lock invariants and the parser of the debug level's
// environment text. No other library includes this header.
#ifndef VELT_PLATFORM_GSCL_INTERNAL_GS_INTERNAL_H_
#define VELT_PLATFORM_GSCL_INTERNAL_GS_INTERNAL_H_

namespace velt_gscl_V1 {
namespace internal {

// Ends the process: a lock or thread primitive failed, or a caller broke
// a locking rule. Continuing would corrupt shared state.
[[noreturn]] void gsFatal(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Ends the process through gsFatal when a pthread call returned an error.
inline void gsCheck(int rc, const char* what) {
  if (rc != 0) gsFatal("%s failed with error %d", what, rc);
}

// trclvl bit that routes a GSDebugPrintf text to the debug routine; without
// it the text goes to the trace routine.
constexpr int kGsclDebugRoute = 0x10000000;

// The library's detailed reports (each frame, each wake-up) are made only
// when the low 28 bits of the debug level are not all clear; the high bits
// are flags for the application's routines.
inline bool gsDetailWanted(int debugLevel) { return (debugLevel & 0x0fffffff) != 0; }

// Parses the debug level's text (strtol base 0: decimal, 0x hex, 0 octal).
// Values up to 0xffffffff are taken as the bit pattern of the level, so
// that flag bits such as 0x80000000 can be given. Returns 0 and stores the
// level, or -1 for empty, malformed or out-of-range text (out untouched).
int gsParseDebugLevel(const char* text, int* out);

}  // namespace internal
}  // namespace velt_gscl_V1

#endif  // VELT_PLATFORM_GSCL_INTERNAL_GS_INTERNAL_H_
