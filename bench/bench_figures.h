// What the benchmarks share in taking and printing their figures: the
// spread of a series of rounds, the verdict beside a target, their number
// options, the machine's load and a process's memory from /proc.
#ifndef VELT_BENCH_BENCH_FIGURES_H_
#define VELT_BENCH_BENCH_FIGURES_H_

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

namespace bench {

struct Spread {
  double min = 0, median = 0, max = 0;
};

inline Spread spreadOf(std::vector<double> ms) {
  Spread s;
  if (ms.empty()) return s;
  std::sort(ms.begin(), ms.end());
  s.min = ms.front();
  s.max = ms.back();
  size_t n = ms.size();
  s.median = n % 2 ? ms[n / 2] : (ms[n / 2 - 1] + ms[n / 2]) / 2;
  return s;
}

inline const char* verdict(bool met) { return met ? "met" : "MISSED"; }

// One timed step of a single-round benchmark: its time, its target beside
// it with the verdict (none when targetMs is 0), and what the step did.
inline void printStep(const char* step, double ms, double targetMs, const char* what) {
  if (targetMs > 0) {
    printf("%-8s %9.1f ms  target %4.0f ms: %-6s  %s\n", step, ms, targetMs, verdict(ms < targetMs), what);
  } else {
    printf("%-8s %9.1f ms  %-22s  %s\n", step, ms, "", what);
  }
}

// A whole decimal number from lo to hi; false for anything else.
inline bool numberArg(const char* text, int lo, int hi, int* out) {
  char* end = nullptr;
  long v = strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = static_cast<int>(v);
  return true;
}

// The machine's three load averages ("0.12 0.34 0.56"), "unknown" when
// /proc/loadavg cannot be read.
inline std::string loadAverages() {
  FILE* f = fopen("/proc/loadavg", "r");
  if (f == nullptr) return "unknown";
  double one = 0, five = 0, fifteen = 0;
  const bool read = fscanf(f, "%lf %lf %lf", &one, &five, &fifteen) == 3;
  fclose(f);
  if (!read) return "unknown";
  char text[64];
  snprintf(text, sizeof text, "%.2f %.2f %.2f", one, five, fifteen);
  return text;
}

// A line of /proc/<pid>/status ("VmHWM") in KiB, pid a number or "self";
// -1 when unreadable.
inline long statusFieldKiB(const std::string& pid, const char* field) {
  std::string path = "/proc/" + pid + "/status";
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) return -1;
  char line[256];
  long kib = -1;
  const size_t len = strlen(field);
  while (fgets(line, sizeof line, f) != nullptr) {
    if (strncmp(line, field, len) == 0 && line[len] == ':') {
      kib = strtol(line + len + 1, nullptr, 10);
      break;
    }
  }
  fclose(f);
  return kib;
}

}  // namespace bench

#endif  // VELT_BENCH_BENCH_FIGURES_H_
