// The options the operator tools take alike: --socket PATH, --json,
// --timeout SECONDS and -h/--help, anywhere among the command's words.
#ifndef VELT_TOOLS_COMMON_TOOL_OPTIONS_H_
#define VELT_TOOLS_COMMON_TOOL_OPTIONS_H_

#include <string>
#include <vector>

namespace velt {
namespace tools {

struct ToolOptions {
  std::string socketPath;
  bool json = false;
  int timeoutSeconds = 10;  // 1 to 3600
  bool help = false;        // -h or --help: nothing after it was read
  std::vector<std::string> words;  // the command and its arguments
};

// Reads argv into *out. The socket is --socket's, else that of the
// environment variable socketEnv when it is set and not empty, else
// defaultSocket; it must fit a UNIX socket address. Returns "" or what is
// wrong, for the tool's usage message.
std::string parseToolOptions(int argc, char** argv, const char* socketEnv, const char* defaultSocket,
                             ToolOptions* out);

}  // namespace tools
}  // namespace velt

#endif  // VELT_TOOLS_COMMON_TOOL_OPTIONS_H_
