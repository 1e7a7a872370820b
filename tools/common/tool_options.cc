#include "tool_options.h"

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/un.h>

namespace velt {
namespace tools {

bool jsonAsked(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--json") == 0) return true;
  }
  return false;
}

std::string jsonQuoted(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

void printJsonError(int exitStatus, const char* kind, const std::string& message) {
  printf("{\"schema_version\":%d,\"error\":{\"exit_status\":%d,\"kind\":%s,\"message\":%s}}\n", kJsonSchemaVersion,
         exitStatus, jsonQuoted(kind).c_str(), jsonQuoted(message).c_str());
  fflush(stdout);
}

std::string parseToolOptions(int argc, char** argv, const char* socketEnv, const char* defaultSocket,
                             ToolOptions* out) {
  enum { kOptSocket = 256, kOptJson, kOptTimeout };
  static const struct option kLong[] = {
      {"socket", required_argument, nullptr, kOptSocket},
      {"json", no_argument, nullptr, kOptJson},
      {"timeout", required_argument, nullptr, kOptTimeout},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  const char* env = getenv(socketEnv);
  out->socketPath = env != nullptr && env[0] != '\0' ? env : defaultSocket;
  opterr = 0;
  optind = 1;
  int c;
  while ((c = getopt_long(argc, argv, ":h", kLong, nullptr)) != -1) {
    switch (c) {
      case 'h':
        out->help = true;
        return "";
      case kOptSocket:
        out->socketPath = optarg;
        break;
      case kOptJson:
        out->json = true;
        break;
      case kOptTimeout: {
        char* end = nullptr;
        errno = 0;
        long v = strtol(optarg, &end, 10);
        if (errno != 0 || end == optarg || *end != '\0' || v < 1 || v > 3600) {
          return std::string("--timeout: \"") + optarg + "\" is not a number of seconds (1..3600)";
        }
        out->timeoutSeconds = static_cast<int>(v);
        break;
      }
      case ':':
        return std::string("option ") + argv[optind - 1] + " needs a value";
      default:
        return std::string("unknown option ") + argv[optind - 1];
    }
  }
  if (out->socketPath.empty()) return "the socket path is empty";
  if (out->socketPath.size() >= sizeof(sockaddr_un{}.sun_path)) {
    return "the socket path is " + std::to_string(out->socketPath.size()) + " characters long, at most " +
           std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " fit";
  }
  out->words.assign(argv + optind, argv + argc);
  return "";
}

}  // namespace tools
}  // namespace velt
