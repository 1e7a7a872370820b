// srcctl: the operator's side of a subsystem's SRC request socket. Sends one
// request (status, stop, trace, refresh or one of the daemon's own codes)
// and prints the reply: the daemon's inform text on stdout, its error text
// on stderr, both exactly as received.
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "src_client.h"
#include "velt_version.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: srcctl -s NAME [--timeout SECONDS] COMMAND\n"
    "commands:\n"
    "  status [-l]                 short status; -l: the daemon's long status\n"
    "  stop [-f|-c]                normal stop; -f: forced; -c: cancel\n"
    "  trace on [-l]               start tracing; -l: long trace\n"
    "  trace off                   stop tracing\n"
    "  refresh                     re-read the configuration\n"
    "  request CODE [PARM3] [--parm1 N] [--parm2 N]\n"
    "                              the daemon's own request CODE (decimal)\n"
    "options:\n"
    "  -s NAME                     the subsystem (its socket is $VELT_SRC_DIR/NAME)\n"
    "  --timeout SECONDS           wait at most this long for each reply piece (default 30)\n"
    "  -h, --help                  show this text\n"
    "  --version                   show the version (the only argument)\n"
    "put -- before a CODE or PARM3 that starts with '-'.\n"
    "replies are taken only from root, this user or the owner of the socket's directory\n"
    "(when nobody else can write there); others are ignored with a warning.\n"
    "exit status: 0 when the reply's code is 0 and no error text came, 1 otherwise,\n"
    "2 for usage errors.\n";

// Everything the command line asked for, checked.
struct Invocation {
  std::string subsystem;
  int timeoutSeconds = 30;
  velt_src::Request request;
};

int usageError(const std::string& why) {
  fprintf(stderr, "srcctl: %s\n%s", why.c_str(), kUsage);
  return kExitUsage;
}

// Parses a decimal number within [lo, hi]; false for anything else.
bool parseNumber(const char* text, long lo, long hi, long* out) {
  if (text == nullptr || text[0] == '\0') return false;
  char* end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// Returns kExitOk and fills *inv, or prints the usage error and returns
// kExitUsage; *helpOnly is set for -h.
int parseArguments(int argc, char** argv, Invocation* inv, bool* helpOnly) {
  enum { kOptTimeout = 256, kOptParm1, kOptParm2 };
  static const struct option kLong[] = {
      {"help", no_argument, nullptr, 'h'},
      {"timeout", required_argument, nullptr, kOptTimeout},
      {"parm1", required_argument, nullptr, kOptParm1},
      {"parm2", required_argument, nullptr, kOptParm2},
      {nullptr, 0, nullptr, 0},
  };
  bool longFlag = false, forced = false, cancel = false;
  bool hasParm1 = false, hasParm2 = false;
  long parm1 = 0, parm2 = 0;
  opterr = 0;
  optind = 1;
  int c;
  while ((c = getopt_long(argc, argv, ":s:lfch", kLong, nullptr)) != -1) {
    long v;
    switch (c) {
      case 'h':
        *helpOnly = true;
        return kExitOk;
      case 's':
        inv->subsystem = optarg;
        break;
      case 'l':
        longFlag = true;
        break;
      case 'f':
        forced = true;
        break;
      case 'c':
        cancel = true;
        break;
      case kOptTimeout:
        if (!parseNumber(optarg, 1, 86400, &v)) {
          return usageError(std::string("--timeout needs a number of seconds from 1 to 86400, not \"") +
                            optarg + "\"");
        }
        inv->timeoutSeconds = static_cast<int>(v);
        break;
      case kOptParm1:
      case kOptParm2:
        if (!parseNumber(optarg, -32768, 32767, &v)) {
          return usageError(std::string(c == kOptParm1 ? "--parm1" : "--parm2") +
                            " needs a decimal number from -32768 to 32767, not \"" + optarg + "\"");
        }
        (c == kOptParm1 ? parm1 : parm2) = v;
        (c == kOptParm1 ? hasParm1 : hasParm2) = true;
        break;
      case ':':
        return usageError(std::string("option ") + argv[optind - 1] + " needs a value");
      default:
        return usageError(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  std::vector<std::string> words(argv + optind, argv + argc);
  if (inv->subsystem.empty()) return usageError("no subsystem given (-s NAME)");
  if (words.empty()) return usageError("no command given");

  const std::string& cmd = words[0];
  velt_src::Request& req = inv->request;
  auto refuseFlags = [&](bool allowLong, bool allowStop) -> bool {
    return (longFlag && !allowLong) || ((forced || cancel) && !allowStop) ||
           ((hasParm1 || hasParm2) && cmd != "request");
  };
  if (cmd == "status") {
    if (words.size() != 1 || refuseFlags(true, false)) return usageError("usage of status: status [-l]");
    req.action = velt_src::ACT_STATUS;
    req.flags = longFlag ? 1 : 0;
  } else if (cmd == "stop") {
    if (words.size() != 1 || refuseFlags(false, true) || (forced && cancel)) {
      return usageError("usage of stop: stop [-f|-c]");
    }
    req.action = velt_src::ACT_STOP;
    req.flags = forced ? 2 : cancel ? 3 : 1;
  } else if (cmd == "trace") {
    if (words.size() != 2 || refuseFlags(words[1] == "on", false) ||
        (words[1] != "on" && words[1] != "off")) {
      return usageError("usage of trace: trace on [-l] | trace off");
    }
    if (words[1] == "on") {
      req.action = velt_src::ACT_TRACE_ON;
      req.flags = longFlag ? 1 : 0;
    } else {
      req.action = velt_src::ACT_TRACE_OFF;
    }
  } else if (cmd == "refresh") {
    if (words.size() != 1 || refuseFlags(false, false)) return usageError("usage of refresh: refresh");
    req.action = velt_src::ACT_REFRESH;
  } else if (cmd == "request") {
    long code;
    if (words.size() < 2 || words.size() > 3 || refuseFlags(false, false)) {
      return usageError("usage of request: request CODE [PARM3] [--parm1 N] [--parm2 N]");
    }
    if (!parseNumber(words[1].c_str(), -32768, 32767, &code)) {
      return usageError("CODE must be a decimal number from -32768 to 32767, not \"" + words[1] +
                        "\"");
    }
    req.action = velt_src::ACT_OTHER;
    req.dae_request = static_cast<short>(code);
    req.parm1 = static_cast<short>(parm1);
    req.parm2 = static_cast<short>(parm2);
    if (words.size() == 3) {
      if (words[2].size() > velt_src::kMaxParm3) {
        return usageError("PARM3 is " + std::to_string(words[2].size()) +
                          " bytes long; the limit is " + std::to_string(velt_src::kMaxParm3));
      }
      req.hasParm3 = true;
      req.parm3 = words[2];
    }
  } else {
    return usageError("unknown command \"" + cmd + "\"");
  }
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  if (velt_print_version_when_asked(argc, argv, "srcctl")) return 0;
  Invocation inv;
  bool helpOnly = false;
  int rc = parseArguments(argc, argv, &inv, &helpOnly);
  if (rc != kExitOk) return rc;
  if (helpOnly) {
    fputs(kUsage, stdout);
    return kExitOk;
  }
  bool sawError = false;
  std::string err;
  // A flood of forged datagrams must not flood the terminal: the first few
  // are named, the rest only counted.
  constexpr long kIgnoredNamed = 5;
  long ignored = 0;
  int code = velt_src::sendRequest(
      inv.subsystem.c_str(), inv.request, inv.timeoutSeconds * 1000,
      [&](bool isError, const std::string& text) {
        FILE* to = isError ? stderr : stdout;
        fwrite(text.data(), 1, text.size(), to);
        fflush(to);
        sawError = sawError || isError;
      },
      &err, nullptr, [&](const std::string& warning) {
        if (++ignored <= kIgnoredNamed) fprintf(stderr, "srcctl: warning: %s\n", warning.c_str());
      });
  if (ignored > kIgnoredNamed) {
    fprintf(stderr, "srcctl: warning: %ld reply datagrams from untrusted senders ignored in all\n",
            ignored);
  }
  if (code == -1 && !err.empty()) {
    fprintf(stderr, "srcctl: %s\n", err.c_str());
    return kExitFailed;
  }
  return code == 0 && !sawError ? kExitOk : kExitFailed;
}
