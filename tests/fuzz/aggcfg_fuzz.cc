// Feeds arbitrary bytes to the aggregate configuration reader as a file:
// whatever the file holds, the reader must come back without crashing, with
// a count no larger than the number of lines, and with only the devices and
// masks its bounds allow.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "AMAggregate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = memfd_create("aggcfg", 0);
  if (fd < 0) abort();
  size_t done = 0;
  while (done < size) {
    ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) abort();
    done += static_cast<size_t>(n);
  }
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

  AMAggCfgList list;
  int lines = list.ReadConfig(path);
  close(fd);
  if (lines < 0) abort();  // the file exists, so it must be read
  size_t newlines = 0;
  for (size_t i = 0; i < size; ++i) newlines += data[i] == '\n' ? 1 : 0;
  // A line longer than the buffer is read in pieces, so there are at most
  // size / (buffer - 1) + newlines + 1 lines.
  size_t maxLines = newlines + size / (AMAggCfgList::kLineBufferLength - 1) + 1;
  if (static_cast<size_t>(lines) > maxLines) abort();
  if (list.num_cfgs > AMAggCfgList::kMaxAggDevices) abort();
  for (int i = 0; i < list.num_cfgs; ++i) {
    AMAggCfg* cfg = list.cfg_list[i];
    if (cfg == nullptr || cfg->numSlotMasks() > AMAggCfg::kMaxMaskIndex + 3) abort();
  }
  if (static_cast<int>(list.lineErrors().size()) > AMAggCfgList::kMaxKeptLineErrors) abort();

  // A list always equals its own copy.
  AMAggCfgList copy;
  copy.CopyCfgListFrom(list);
  if (!copy.AreTheySame(list) || !list.AreTheySame(copy)) abort();
  return 0;
}
