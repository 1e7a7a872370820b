#include "agent_options.h"

#include <errno.h>
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/un.h>

#include "node_identity.h"
#include "vx_cu.h"

namespace velt {
namespace agent {

namespace {

const char kUsage[] =
    "usage: veltd --standalone [--socket PATH] [--state-dir DIR] [options]\n"
    "       veltd [--socket PATH] [--state-dir DIR] [options]   (a cluster node, on corosync)\n"
    "options:\n"
    "  --standalone           one node without corosync (the loopback bus); without it the\n"
    "                         agent joins the cluster through corosync, as corosync's node id\n"
    "  --socket PATH          the agent socket (default /run/velt/agent.sock)\n"
    "  --state-dir DIR        where the agent keeps its state (default /var/lib/velt)\n"
    "  --log FILE             the agent's log (default: standard error)\n"
    "  --allow-uid UID        also let this user connect (number or name; repeatable)\n"
    "  --allow-gid GID        also let this group connect (number or name; repeatable)\n"
    "  --claim-version V.R.M.F  claim this (older) software level, for tests\n"
    "  --node N               this node's number in standalone mode (1..65535, default 1)\n"
    "  --node-id HEX          this node's stable 64-bit id as KOR publishes it (1 to 16 hex\n"
    "                         digits, not 0); kept in the state directory. Without it the\n"
    "                         id kept there is used, or a new random one made on first start\n"
    "  --interfaces LIST      the interfaces whose adapters are reported: names or shell\n"
    "                         patterns separated by commas (sxn0,sxn1 or sxn*,ib*), or none\n"
    "                         (default: every interface but loopback)\n"
    "  --link-poll-ms N       how often knet's link status is read on a cluster\n"
    "                         (50..10000, default 200)\n"
    "  --max-clients N        client connections served at once (16..65536, default 1024);\n"
    "                         the last 8 are kept for root and the agent's own user. When\n"
    "                         none is free, the oldest connection that has not said hello\n"
    "                         yet is closed to let a new one in\n"
    "  --max-unsent SIZE      bytes one client may leave unread before it is cut off\n"
    "                         (with K, M or G; default 64M)\n"
    "  --max-unsent-total SIZE  bytes all clients together may leave unread; the client\n"
    "                         whose frame would pass it is cut off (default 256M)\n"
    "  -h, --help             show this text\n"
    "  --version              show the version (the only argument)\n"
    "root and the agent's own user may always connect.\n"
    "exit status: 0 after SIGTERM/SIGINT, 1 when the agent cannot run, 2 for usage errors.\n";

// A decimal number within [lo, hi]; false for anything else.
bool parseNumber(const char* text, unsigned long lo, unsigned long hi, unsigned long* out) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long v = strtoul(text, &end, 10);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// A size in bytes with an optional K, M or G (powers of 1024), within
// [lo, hi]; false for anything else.
bool parseSize(const char* text, size_t lo, size_t hi, size_t* out) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long v = strtoull(text, &end, 10);
  if (errno != 0) return false;
  unsigned shift = 0;
  if (*end == 'K' || *end == 'k') {
    shift = 10;
  } else if (*end == 'M' || *end == 'm') {
    shift = 20;
  } else if (*end == 'G' || *end == 'g') {
    shift = 30;
  }
  if (shift != 0) ++end;
  if (*end != '\0' || v > (hi >> shift)) return false;
  v <<= shift;
  if (v < lo) return false;
  *out = static_cast<size_t>(v);
  return true;
}

// Buffer size for the reentrant user and group lookups; entries larger than
// this are refused rather than chased with ever larger buffers.
constexpr size_t kLookupBuffer = 64 * 1024;

bool lookupUid(const char* text, uid_t* uid, std::string* error) {
  unsigned long v;
  if (parseNumber(text, 0, 0xfffffffeul, &v)) {
    *uid = static_cast<uid_t>(v);
    return true;
  }
  std::vector<char> buf(kLookupBuffer);
  struct passwd pw;
  struct passwd* found = nullptr;
  int rc = getpwnam_r(text, &pw, buf.data(), buf.size(), &found);
  if (rc != 0 || found == nullptr) {
    *error = std::string("--allow-uid: no user \"") + text + "\"";
    return false;
  }
  *uid = found->pw_uid;
  return true;
}

bool lookupGid(const char* text, gid_t* gid, std::string* error) {
  unsigned long v;
  if (parseNumber(text, 0, 0xfffffffeul, &v)) {
    *gid = static_cast<gid_t>(v);
    return true;
  }
  std::vector<char> buf(kLookupBuffer);
  struct group gr;
  struct group* found = nullptr;
  int rc = getgrnam_r(text, &gr, buf.data(), buf.size(), &found);
  if (rc != 0 || found == nullptr) {
    *error = std::string("--allow-gid: no group \"") + text + "\"";
    return false;
  }
  *gid = found->gr_gid;
  return true;
}

}  // namespace

const char* agentUsage() { return kUsage; }

std::string formatVersion(uint32_t packed) {
  return std::to_string(packed >> 24) + "." + std::to_string((packed >> 16) & 0xff) + "." +
         std::to_string((packed >> 8) & 0xff) + "." + std::to_string(packed & 0xff);
}

bool parseVersion(const std::string& text, uint32_t* packed) {
  uint8_t parts[4];
  if (cu_parse_velt_version(text.c_str(), parts) != 0) return false;
  *packed = (uint32_t{parts[0]} << 24) | (uint32_t{parts[1]} << 16) | (uint32_t{parts[2]} << 8) |
            uint32_t{parts[3]};
  return true;
}

ParseOutcome parseAgentOptions(int argc, char** argv, AgentOptions* options,
                               std::string* error) {
  enum {
    kOptStandalone = 256,
    kOptSocket,
    kOptStateDir,
    kOptLog,
    kOptAllowUid,
    kOptAllowGid,
    kOptClaimVersion,
    kOptNode,
    kOptNodeId,
    kOptInterfaces,
    kOptLinkPoll,
    kOptMaxClients,
    kOptMaxUnsent,
    kOptMaxUnsentTotal,
  };
  static const struct option kLong[] = {
      {"standalone", no_argument, nullptr, kOptStandalone},
      {"socket", required_argument, nullptr, kOptSocket},
      {"state-dir", required_argument, nullptr, kOptStateDir},
      {"log", required_argument, nullptr, kOptLog},
      {"allow-uid", required_argument, nullptr, kOptAllowUid},
      {"allow-gid", required_argument, nullptr, kOptAllowGid},
      {"claim-version", required_argument, nullptr, kOptClaimVersion},
      {"node", required_argument, nullptr, kOptNode},
      {"node-id", required_argument, nullptr, kOptNodeId},
      {"interfaces", required_argument, nullptr, kOptInterfaces},
      {"link-poll-ms", required_argument, nullptr, kOptLinkPoll},
      {"max-clients", required_argument, nullptr, kOptMaxClients},
      {"max-unsent", required_argument, nullptr, kOptMaxUnsent},
      {"max-unsent-total", required_argument, nullptr, kOptMaxUnsentTotal},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  AgentOptions o;
  opterr = 0;
  optind = 0;   // 0: glibc starts over completely (the parser may run more than once)
  int c;
  while ((c = getopt_long(argc, argv, "+:h", kLong, nullptr)) != -1) {
    switch (c) {
      case 'h':
        return ParseOutcome::kHelp;
      case kOptStandalone:
        o.standalone = true;
        break;
      case kOptSocket: {
        std::string path = optarg;
        if (path.empty()) {
          *error = "--socket: the path is empty";
          return ParseOutcome::kUsageError;
        }
        if (path.size() >= sizeof(sockaddr_un{}.sun_path)) {
          *error = "--socket: the path is " + std::to_string(path.size()) +
                   " characters long, at most " +
                   std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " fit";
          return ParseOutcome::kUsageError;
        }
        if (path.back() == '/') {
          *error = "--socket: \"" + path + "\" names a directory, not a socket";
          return ParseOutcome::kUsageError;
        }
        o.socketPath = path;
        break;
      }
      case kOptStateDir:
        if (optarg[0] == '\0') {
          *error = "--state-dir: the directory is empty";
          return ParseOutcome::kUsageError;
        }
        o.stateDir = optarg;
        break;
      case kOptLog:
        if (optarg[0] == '\0') {
          *error = "--log: the file name is empty";
          return ParseOutcome::kUsageError;
        }
        o.logPath = optarg;
        break;
      case kOptAllowUid: {
        uid_t uid;
        if (!lookupUid(optarg, &uid, error)) return ParseOutcome::kUsageError;
        o.allowUids.push_back(uid);
        break;
      }
      case kOptAllowGid: {
        gid_t gid;
        if (!lookupGid(optarg, &gid, error)) return ParseOutcome::kUsageError;
        o.allowGids.push_back(gid);
        break;
      }
      case kOptClaimVersion:
        if (!parseVersion(optarg, &o.agentVersion)) {
          *error = std::string("--claim-version: \"") + optarg +
                   "\" is not a version V.R.M.F (each part 0..255)";
          return ParseOutcome::kUsageError;
        }
        break;
      case kOptNode: {
        unsigned long v;
        if (!parseNumber(optarg, 1, 65535, &v)) {
          *error = std::string("--node: \"") + optarg + "\" is not a node number (1..65535)";
          return ParseOutcome::kUsageError;
        }
        o.node = static_cast<uint32_t>(v);
        break;
      }
      case kOptNodeId:
        if (parseNodeIdOption(optarg, &o.nodeId) != 0) {
          *error = std::string("--node-id: \"") + optarg +
                   "\" is not a node id (1 to 16 hexadecimal digits, not 0)";
          return ParseOutcome::kUsageError;
        }
        break;
      case kOptInterfaces: {
        std::string why;
        if (!InterfaceFilter::parse(optarg, &o.interfaces, &why)) {
          *error = "--interfaces: " + why;
          return ParseOutcome::kUsageError;
        }
        break;
      }
      case kOptLinkPoll: {
        unsigned long v;
        if (!parseNumber(optarg, 50, 10000, &v)) {
          *error = std::string("--link-poll-ms: \"") + optarg +
                   "\" is not a number of milliseconds (50..10000)";
          return ParseOutcome::kUsageError;
        }
        o.linkPollMs = static_cast<uint32_t>(v);
        break;
      }
      case kOptMaxClients: {
        unsigned long v;
        if (!parseNumber(optarg, 16, 65536, &v)) {
          *error = std::string("--max-clients: \"") + optarg +
                   "\" is not a number of connections (16..65536)";
          return ParseOutcome::kUsageError;
        }
        o.maxClients = v;
        break;
      }
      case kOptMaxUnsent:
      case kOptMaxUnsentTotal: {
        // At least one largest frame must fit.
        size_t v;
        const char* name = c == kOptMaxUnsent ? "--max-unsent" : "--max-unsent-total";
        if (!parseSize(optarg, o.maxMessageBytes, size_t{1} << 40, &v)) {
          *error = std::string(name) + ": \"" + optarg + "\" is not a size from " +
                   std::to_string(o.maxMessageBytes >> 20) + "M to 1024G (a number of bytes, " +
                   "or with K, M or G)";
          return ParseOutcome::kUsageError;
        }
        (c == kOptMaxUnsent ? o.maxUnsentBytes : o.maxUnsentTotal) = v;
        break;
      }
      case ':':
        *error = std::string("option ") + argv[optind - 1] + " needs a value";
        return ParseOutcome::kUsageError;
      default:
        *error = std::string("unknown option ") + argv[optind - 1];
        return ParseOutcome::kUsageError;
    }
  }
  if (optind < argc) {
    *error = std::string("unexpected argument \"") + argv[optind] + "\"";
    return ParseOutcome::kUsageError;
  }
  *options = std::move(o);
  return ParseOutcome::kRun;
}

}  // namespace agent
}  // namespace velt
