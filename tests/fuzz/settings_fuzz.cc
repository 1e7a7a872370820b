// Feeds arbitrary text to the readers of what an operator writes: veltd's
// command line (VELTD_OPTIONS in veltd.env, split at NULs as the words of
// argv), the daemon's refresh time limit (SW_HERDLET_REFRESH_TIMEOUT_SECS),
// libvx_gscl's debug level (VELT_GSCL_DEBUG_LEVEL) and versions as veltd
// takes them. Each either takes a value within its bounds or refuses with
// a reason; none crashes.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "AMPropagate.h"
#include "agent_options.h"
#include "internal/gs_internal.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  fprintf(stderr, "settings_fuzz: %s\n", what.c_str());
  abort();
}

void commandLine(const std::string& text) {
  std::vector<std::string> words{"veltd"};
  size_t from = 0;
  while (from <= text.size() && words.size() < 64) {
    size_t nul = text.find('\0', from);
    if (nul == std::string::npos) nul = text.size();
    words.push_back(text.substr(from, nul - from));
    from = nul + 1;
  }
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  velt::agent::AgentOptions options;
  std::string error;
  switch (velt::agent::parseAgentOptions(static_cast<int>(words.size()), argv.data(), &options, &error)) {
    case velt::agent::ParseOutcome::kUsageError:
      if (error.empty()) fail("a usage error without a reason");
      break;
    case velt::agent::ParseOutcome::kRun:
      if (options.maxClients == 0 || options.maxMessageBytes == 0) fail("a bound of 0 taken");
      break;
    case velt::agent::ParseOutcome::kHelp:
      break;
  }
}

void refreshTimeout(const std::string& text) {
  setenv("SW_HERDLET_REFRESH_TIMEOUT_SECS", text.c_str(), 1);
  int secs = AMPropagator::refreshTimeoutSecs();
  if (secs < 1 || secs > AMPropagator::kMaxRefreshTimeoutSecs) fail("a time limit out of bounds");
  bool digits = !text.empty() && text.size() < 12;
  for (char c : text) digits = digits && c >= '0' && c <= '9';
  long long want = digits ? atoll(text.c_str()) : 0;
  if (digits && want >= 1 && want <= AMPropagator::kMaxRefreshTimeoutSecs && secs != want) {
    fail("a good time limit not taken: " + text);
  }
}

void debugLevel(const std::string& text) {
  int level = 12345;
  if (velt_gscl_V1::internal::gsParseDebugLevel(text.c_str(), &level) != 0 && level != 12345) {
    fail("a refused debug level changed the level");
  }
}

void version(const std::string& text) {
  uint32_t packed = 0;
  if (velt::agent::parseVersion(text, &packed)) {
    // What is taken prints as a version that reads back the same.
    uint32_t again = 0;
    if (!velt::agent::parseVersion(velt::agent::formatVersion(packed), &again) || again != packed) {
      fail("a version that does not read back: " + text);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0:
      commandLine(text);
      break;
    case 1:
      refreshTimeout(text.substr(0, text.find('\0')));
      break;
    case 2:
      debugLevel(text.substr(0, text.find('\0')));
      break;
    default:
      version(text);
      break;
  }
  return 0;
}
