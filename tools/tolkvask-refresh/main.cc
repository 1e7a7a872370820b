// tolkvask-refresh: checks an aggregate configuration file with the daemon's
// own reader and reports every faulty line by number.
//   tolkvask-refresh -c refresh      the daemon's refresh command (run as its
//                                    child): checks $SW_HERDLET_AGGIP_CFG;
//   tolkvask-refresh --check FILE    the same for a file, by hand, before it
//                                    is put in place.
// Exit 0 when every line is valid and there is at least one data line; 1
// when the file cannot be read, is not a regular file (a FIFO or a device
// would never end the refresh), has faulty lines (it says how many) or no
// valid data line; 2 for usage. On 1 the daemon keeps the configuration it
// runs; on 0 it reads the file itself afterwards.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "AMAggregate.h"
#include "velt_version.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitBadFile = 1;
constexpr int kExitUsage = 2;

int usage(const char* self, FILE* to, int status) {
  fprintf(to,
          "usage: %s -c refresh        check $SW_HERDLET_AGGIP_CFG (the daemon's refresh)\n"
          "       %s --check FILE      check FILE by hand\n"
          "       %s --version\n"
          "exit status: 0 valid, 1 unreadable or with faulty lines or without a data line, 2 usage\n",
          self, self, self);
  return status;
}

int check(const char* path) {
  AMAggCfgList list;
  int lines = list.ReadConfig(path);
  if (lines < 0) {
    fprintf(stderr, "tolkvask-refresh: cannot read %s: %s\n", path, list.openError().c_str());
    return kExitBadFile;
  }
  for (const AMAggCfgLineError& e : list.lineErrors()) fprintf(stderr, "%s:%d: %s\n", path, e.line, e.what.c_str());
  const int faulty = list.lineErrorCount();
  int unshown = faulty - static_cast<int>(list.lineErrors().size());
  if (unshown > 0) fprintf(stderr, "%s: %d more faulty lines not shown\n", path, unshown);
  if (lines == 0) {
    fprintf(stderr, "tolkvask-refresh: %s has no valid data line\n", path);
    return kExitBadFile;
  }
  if (faulty > 0) {
    fprintf(stderr, "tolkvask-refresh: %s has %d faulty line%s (and %d valid data line%s)\n", path, faulty,
            faulty == 1 ? "" : "s", lines, lines == 1 ? "" : "s");
    return kExitBadFile;
  }
  printf("%s: %d valid data lines, configuration id %s\n", path, lines, list.cfgID.getCfgIdStr().c_str());
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  const char* self = argc > 0 ? argv[0] : "tolkvask-refresh";
  if (velt_print_version_when_asked(argc, argv, "tolkvask-refresh")) return kExitOk;
  if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    return usage(self, stdout, kExitOk);
  }
  if (argc == 3 && strcmp(argv[1], "--check") == 0) {
    if (argv[2][0] == '\0') return usage(self, stderr, kExitUsage);
    return check(argv[2]);
  }
  if (argc != 3 || strcmp(argv[1], "-c") != 0 || strcmp(argv[2], "refresh") != 0) {
    return usage(self, stderr, kExitUsage);
  }
  const char* path = getenv("SW_HERDLET_AGGIP_CFG");
  if (path == nullptr || *path == '\0') {
    fprintf(stderr, "tolkvask-refresh: SW_HERDLET_AGGIP_CFG is not set\n");
    return kExitBadFile;
  }
  return check(path);
}
