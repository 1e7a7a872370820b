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

// The version of the tools' JSON output, the first key of every object they
// print with --json.
constexpr int kJsonSchemaVersion = 1;

// True when --json is among the arguments (also where they are wrong
// otherwise, so that a usage error can be said as JSON too).
bool jsonAsked(int argc, char** argv);
// A string as a JSON string literal (quotes, backslashes and control
// characters escaped; other bytes as they are).
std::string jsonQuoted(const std::string& text);
// An error as JSON on standard output, one line:
// {"schema_version":1,"error":{"exit_status":N,"kind":KIND,"message":TEXT}}.
void printJsonError(int exitStatus, const char* kind, const std::string& message);

// Reads argv into *out. The socket is --socket's, else that of the
// environment variable socketEnv when it is set and not empty, else
// defaultSocket; it must fit a UNIX socket address. Returns "" or what is
// wrong, for the tool's usage message.
std::string parseToolOptions(int argc, char** argv, const char* socketEnv, const char* defaultSocket,
                             ToolOptions* out);

}  // namespace tools
}  // namespace velt

#endif  // VELT_TOOLS_COMMON_TOOL_OPTIONS_H_
