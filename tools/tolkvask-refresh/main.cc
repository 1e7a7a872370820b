// tolkvask-refresh -c refresh: the refresh command the daemon runs as its
// child. It checks the aggregate configuration file named by
// SW_HERDLET_AGGIP_CFG with the daemon's own reader and reports every faulty
// line by number. Exit 1 when the file cannot be read, is not a regular
// file (a FIFO or a device would never end the refresh) or holds no valid
// data line, 0 otherwise; the daemon reads the file itself afterwards.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "AMAggregate.h"

int main(int argc, char** argv) {
  if (argc != 3 || strcmp(argv[1], "-c") != 0 || strcmp(argv[2], "refresh") != 0) {
    fprintf(stderr, "usage: %s -c refresh\n", argc > 0 ? argv[0] : "tolkvask-refresh");
    return 2;
  }
  const char* path = getenv("SW_HERDLET_AGGIP_CFG");
  if (path == nullptr || *path == '\0') {
    fprintf(stderr, "tolkvask-refresh: SW_HERDLET_AGGIP_CFG is not set\n");
    return 1;
  }
  AMAggCfgList list;
  int lines = list.ReadConfig(path);
  if (lines < 0) {
    fprintf(stderr, "tolkvask-refresh: cannot read %s: %s\n", path, list.openError().c_str());
    return 1;
  }
  for (const AMAggCfgLineError& e : list.lineErrors()) fprintf(stderr, "%s:%d: %s\n", path, e.line, e.what.c_str());
  int unshown = list.lineErrorCount() - static_cast<int>(list.lineErrors().size());
  if (unshown > 0) fprintf(stderr, "%s: %d more faulty lines not shown\n", path, unshown);
  if (lines == 0) {
    fprintf(stderr, "tolkvask-refresh: %s has no valid data line\n", path);
    return 1;
  }
  printf("%s: %d valid data lines, configuration id %s\n", path, lines, list.cfgID.getCfgIdStr().c_str());
  return 0;
}
