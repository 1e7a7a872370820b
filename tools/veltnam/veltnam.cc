// veltnam: the adapter table that tolkvaskd serves to local programs, seen
// through libveltnam as any such program sees it. "show" prints the table
// once; "watch" prints one line (or one JSON object) per adapter that
// appears or changes, until it is stopped or the daemon goes away.
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tool_options.h"
#include "velt_nam_api.h"
#include "velt_version.h"
#include "vx_cu.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoDaemon = 3;

const char kUsage[] =
    "usage: veltnam [--socket PATH] [--json] [--timeout SECONDS] COMMAND\n"
    "commands:\n"
    "  show     the adapter table: per network its adapters (node, interface, address,\n"
    "           status) and how many are up, down and otherwise\n"
    "  watch    the table's changes as they come, one line per adapter that appears\n"
    "           or changes (the first table's adapters as \"initial\"), each with the\n"
    "           time (UTC); ends on SIGINT or SIGTERM\n"
    "options:\n"
    "  --socket PATH      the daemon's client socket (default $" VELT_NAM_SOCKET_ENV
    ", else\n"
    "                     " VELT_NAM_DEFAULT_SOCKET ")\n"
    "  --json             JSON instead of text: show prints one object, watch one\n"
    "                     object per line\n"
    "  --timeout SECONDS  wait at most this long for the daemon's answer and its\n"
    "                     first table (default 10)\n"
    "  -h, --help         show this text\n"
    "  --version          show the version (the only argument)\n"
    "exit status: 0 on success (watch: when stopped by a signal), 1 on errors (such as\n"
    "permission: the socket admits root only), 2 for usage errors, 3 when the daemon\n"
    "is not running or goes away.\n";

// The common options (socket, json, timeout, words) and the command.
struct Invocation : velt::tools::ToolOptions {
  bool watch = false;
};

// Set from the arguments first thing: errors are then said as JSON on
// standard output as well.
bool jsonOutput = false;

int usageError(const std::string& why) {
  if (jsonOutput) velt::tools::printJsonError(kExitUsage, "usage", why);
  fprintf(stderr, "veltnam: %s\n%s", why.c_str(), kUsage);
  return kExitUsage;
}

int fail(int code, const std::string& why) {
  if (jsonOutput) velt::tools::printJsonError(code, code == kExitNoDaemon ? "no_daemon" : "failed", why);
  fprintf(stderr, "veltnam: %s\n", why.c_str());
  return code;
}

int parseArguments(int argc, char** argv, Invocation* inv, bool* helpOnly) {
  std::string wrong =
      velt::tools::parseToolOptions(argc, argv, VELT_NAM_SOCKET_ENV, VELT_NAM_DEFAULT_SOCKET, inv);
  if (!wrong.empty()) return usageError(wrong);
  *helpOnly = inv->help;
  if (inv->help) return kExitOk;
  if (inv->words.empty()) return usageError("no command");
  const std::string& cmd = inv->words[0];
  if (cmd != "show" && cmd != "watch") return usageError("unknown command \"" + cmd + "\"");
  if (inv->words.size() > 1) return usageError(cmd + " takes no arguments");
  inv->watch = cmd == "watch";
  return kExitOk;
}

// ------------------------------------------------------------- the text

// A name from the daemon, made safe to print: JSON escapes for --json,
// \xNN for anything unprintable otherwise. Bytes above 0x7f are escaped
// too, so the output is ASCII whatever the daemon sent.
std::string quoted(const char* text, bool json) {
  std::string out = json ? "\"" : "";
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
    char esc[8];
    if (*p == '"' || *p == '\\') {
      if (json) out += '\\';
      out += static_cast<char>(*p);
    } else if (*p >= 0x20 && *p < 0x7f) {
      out += static_cast<char>(*p);
    } else {
      snprintf(esc, sizeof esc, json ? "\\u%04x" : "\\x%02x", *p);
      out += esc;
    }
  }
  if (json) out += '"';
  return out;
}

std::string networkText(uint64_t id) {
  char buf[24];
  snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(id));
  return buf;
}

std::string addressText(const velt_nam_ip_addr_t& ip) {
  char buf[INET6_ADDRSTRLEN];
  if (ip.type == VELT_NAM_IPV4 && inet_ntop(AF_INET, &ip.address.ipv4, buf, sizeof buf) != nullptr) return buf;
  if (ip.type == VELT_NAM_IPV6 && inet_ntop(AF_INET6, &ip.address.ipv6, buf, sizeof buf) != nullptr) return buf;
  return "-";
}

std::string gidText(const velt_nam_connect& rec) {
  std::string out;
  size_t n = rec.valid_length_in_gid < sizeof rec.gid ? rec.valid_length_in_gid : sizeof rec.gid;
  for (size_t i = 0; i < n; ++i) {
    char byte[4];
    snprintf(byte, sizeof byte, i == 0 ? "%02x" : ":%02x", rec.gid[i]);
    out += byte;
  }
  return out;
}

const char* statusText(int status) {
  switch (status) {
    case VELT_NAM_CONNECT_UP: return "up";
    case VELT_NAM_CONNECT_DOWN: return "down";
    default: return "unconfigured";
  }
}

std::string versionText(uint32_t v) {
  char buf[32];
  snprintf(buf, sizeof buf, "%u.%u.%u.%u", v >> 24, (v >> 16) & 0xff, (v >> 8) & 0xff, v & 0xff);
  return buf;
}

// One adapter's fields as JSON members (without braces).
std::string adapterJson(const velt_nam_connect& rec) {
  return "\"node\":" + std::to_string(rec.node_number) + ",\"interface\":" + quoted(rec.interface_name, true) +
         ",\"device\":" + quoted(rec.device_name, true) + ",\"address\":\"" + addressText(rec.ip_address) +
         "\",\"status\":\"" + statusText(rec.status) + "\",\"lid\":" + std::to_string(rec.LID) +
         ",\"adapter_type\":" + std::to_string(rec.adapter_type) + ",\"gid\":\"" + gidText(rec) +
         "\",\"spigot_id\":" + std::to_string(rec.spigot_id);
}

// ------------------------------------------------------------- the table

// A session and the waits around it. Owned by main's thread.
class Viewer {
 public:
  explicit Viewer(const Invocation& inv) : inv_(inv) {}
  ~Viewer() {
    velt_nam_free_node_adap_info(table_);
    if (handle_ != 0) velt_nam_term(handle_);
  }
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  // Opens the session and waits for the first table. 0, or an exit code
  // after saying why.
  int start() {
    int rc = velt_nam_init(inv_.socketPath.c_str(), inv_.timeoutSeconds * 1000, &handle_);
    if (rc != VELT_NAM_OK) {
      int err = errno;
      handle_ = 0;
      if (rc == VELT_NAM_SOCKET_CONNECT_FAILED && (err == ENOENT || err == ECONNREFUSED || err == ENOTDIR)) {
        return fail(kExitNoDaemon, "no daemon is running at " + inv_.socketPath + " (" + strerror(err) + ")");
      }
      if (rc == VELT_NAM_DAEMON_DISCONNECTED) return fail(kExitNoDaemon, velt_nam_last_error());
      return fail(kExitFailed, velt_nam_last_error());
    }
    velt_nam_get_fd(handle_, &fd_);
    timespec t0;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    int64_t deadlineMs = t0.tv_sec * 1000LL + t0.tv_nsec / 1000000 + inv_.timeoutSeconds * 1000LL;
    while (true) {
      int code = apply();
      if (code != kExitOk) return code;
      if (table_ != nullptr && table_->mod_seq_num > 0) return kExitOk;
      timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      int64_t left = deadlineMs - (now.tv_sec * 1000LL + now.tv_nsec / 1000000);
      struct pollfd p = {fd_, POLLIN, 0};
      int n = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
      if (n < 0 && errno != EINTR) return fail(kExitFailed, std::string("cannot wait for the daemon: ") + strerror(errno));
      if (n == 0) {
        return fail(kExitFailed, "the daemon sent no adapter table within " + std::to_string(inv_.timeoutSeconds) + " s");
      }
    }
  }

  // Applies what arrived and takes a new copy when anything did. 0, or an
  // exit code after saying why.
  int apply() {
    int rc = velt_nam_update(handle_);
    if (rc == VELT_NAM_NO_NEW_DATA && table_ != nullptr) return kExitOk;
    if (rc == VELT_NAM_DAEMON_DISCONNECTED) {
      return fail(kExitNoDaemon, "the daemon at " + inv_.socketPath + " closed the connection");
    }
    if (rc != VELT_NAM_OK && rc != VELT_NAM_NO_NEW_DATA) return fail(kExitFailed, velt_nam_last_error());
    velt_nam_node_adap_info* copy = nullptr;
    if (velt_nam_get_node_adap_info(handle_, VELT_NAM_ALL_NODES, &copy) != VELT_NAM_OK) {
      return fail(kExitFailed, velt_nam_last_error());
    }
    previous_ = std::move(current_);
    current_ = byAdapter(copy);
    velt_nam_free_node_adap_info(table_);
    table_ = copy;
    return kExitOk;
  }

  int show() const {
    velt_nam_config config;
    velt_nam_get_config(handle_, &config);
    const velt_nam_net_info& nets = *table_->net_info;
    const velt_nam_connect* rec = table_->adap_info;
    if (inv_.json) {
      std::string out = "{\"schema_version\":" + std::to_string(velt::tools::kJsonSchemaVersion) +
                        ",\"node_number\":" + std::to_string(config.node_number) + ",\"active_version\":\"" +
                        versionText(static_cast<uint32_t>(config.supported_lib_version)) +
                        "\",\"mod_seq_num\":" + std::to_string(table_->mod_seq_num) + ",\"networks\":[";
      for (int n = 0; n < nets.num_networks; ++n) {
        const velt_nam_connect_net_info& net = nets.connect_info[n];
        out += std::string(n == 0 ? "" : ",") + "{\"network_id\":\"" + networkText(net.network_id) +
               "\",\"num_connect\":" + std::to_string(net.num_connect) + ",\"num_up\":" + std::to_string(net.num_up) +
               ",\"num_down\":" + std::to_string(net.num_down) +
               ",\"num_other\":" + std::to_string(net.num_connect - net.num_up - net.num_down) + ",\"adapters\":[";
        for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) out += std::string(i == 0 ? "{" : ",{") + adapterJson(*rec) + "}";
        out += "]}";
      }
      printf("%s]}\n", out.c_str());
      return kExitOk;
    }
    printf("node %d, active version %s, table update %d\n", config.node_number,
           versionText(static_cast<uint32_t>(config.supported_lib_version)).c_str(), table_->mod_seq_num);
    if (nets.num_networks == 0) printf("no adapters\n");
    for (int n = 0; n < nets.num_networks; ++n) {
      const velt_nam_connect_net_info& net = nets.connect_info[n];
      printf("network %s: %u adapters, %u up, %u down, %u other\n", networkText(net.network_id).c_str(),
             net.num_connect, net.num_up, net.num_down, net.num_connect - net.num_up - net.num_down);
      printf("  %-6s %-16s %-16s %s\n", "NODE", "INTERFACE", "ADDRESS", "STATUS");
      for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
        printf("  %-6u %-16s %-16s %s\n", rec->node_number, quoted(rec->interface_name, false).c_str(),
               addressText(rec->ip_address).c_str(), statusText(rec->status));
      }
    }
    return kExitOk;
  }

  // Follows the table until a signal (0) or a failure (its exit code).
  int watch() {
    printChanges("initial");
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, nullptr);
    int sigFd = signalfd(-1, &stops, SFD_CLOEXEC);
    if (sigFd < 0) return fail(kExitFailed, std::string("cannot watch for signals: ") + strerror(errno));
    int code = kExitOk;
    while (true) {
      struct pollfd p[2] = {{fd_, POLLIN, 0}, {sigFd, POLLIN, 0}};
      if (poll(p, 2, -1) < 0) {
        if (errno == EINTR) continue;
        code = fail(kExitFailed, std::string("cannot wait for the daemon: ") + strerror(errno));
        break;
      }
      if (p[1].revents != 0) break;
      int seen = table_->mod_seq_num;
      code = apply();
      if (code != kExitOk) break;
      if (table_->mod_seq_num != seen) printChanges(nullptr);
    }
    close(sigFd);
    return code;
  }

 private:
  typedef std::tuple<uint32_t, std::string> AdapterKey;  // node, interface
  struct Held {
    uint64_t network;
    velt_nam_connect record;
  };

  static std::map<AdapterKey, Held> byAdapter(const velt_nam_node_adap_info* copy) {
    std::map<AdapterKey, Held> out;
    const velt_nam_connect* rec = copy->adap_info;
    for (int n = 0; n < copy->net_info->num_networks; ++n) {
      const velt_nam_connect_net_info& net = copy->net_info->connect_info[n];
      for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
        out[AdapterKey(rec->node_number, rec->interface_name)] = Held{net.network_id, *rec};
      }
    }
    return out;
  }

  // One line per adapter that differs between the last two copies, in
  // the table's order; with event given, every adapter of the current
  // copy under that name.
  void printChanges(const char* event) {
    std::string now = timestamp();
    const velt_nam_connect* rec = table_->adap_info;
    for (int n = 0; n < table_->net_info->num_networks; ++n) {
      const velt_nam_connect_net_info& net = table_->net_info->connect_info[n];
      for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
        const Held& cur = current_.at(AdapterKey(rec->node_number, rec->interface_name));
        auto was = previous_.find(AdapterKey(rec->node_number, rec->interface_name));
        if (event != nullptr) {
          printLine(now, event, cur, nullptr);
        } else if (was == previous_.end()) {
          printLine(now, "added", cur, nullptr);
        } else if (was->second.network != cur.network ||
                   memcmp(&was->second.record, &cur.record, sizeof cur.record) != 0) {
          printLine(now, "changed", cur, &was->second);
        }
      }
    }
    if (event != nullptr) return;
    for (const auto& old : previous_) {
      if (current_.count(old.first) == 0) printLine(now, "removed", old.second, nullptr);
    }
  }

  void printLine(const std::string& now, const char* what, const Held& held, const Held* before) const {
    const velt_nam_connect& rec = held.record;
    bool statusChanged = before != nullptr && before->record.status != rec.status;
    bool moved = before != nullptr && before->network != held.network;
    if (inv_.json) {
      std::string out = "{\"schema_version\":" + std::to_string(velt::tools::kJsonSchemaVersion) +
                        ",\"time\":\"" + now + "\",\"event\":\"" + what + "\",\"network_id\":\"" +
                        networkText(held.network) + "\"," + adapterJson(rec);
      if (statusChanged) out += ",\"previous_status\":\"" + std::string(statusText(before->record.status)) + "\"";
      if (moved) out += ",\"previous_network_id\":\"" + networkText(before->network) + "\"";
      printf("%s}\n", out.c_str());
    } else {
      std::string extra;
      if (statusChanged) extra += std::string(" (was ") + statusText(before->record.status) + ")";
      if (moved) extra += " (from network " + networkText(before->network) + ")";
      printf("%s %s network %s node %u %s %s %s%s\n", now.c_str(), what, networkText(held.network).c_str(),
             rec.node_number, quoted(rec.interface_name, false).c_str(), addressText(rec.ip_address).c_str(),
             statusText(rec.status), extra.c_str());
    }
    fflush(stdout);
  }

  // The time stamp form of every velt log and tool (UTC, microseconds).
  static std::string timestamp() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    char buf[32];
    return cu_format_timestamp(&now, buf, sizeof buf);
  }

  const Invocation& inv_;
  velt_nam_handle_t handle_ = 0;
  int fd_ = -1;
  velt_nam_node_adap_info* table_ = nullptr;
  std::map<AdapterKey, Held> current_;
  std::map<AdapterKey, Held> previous_;
};

}  // namespace

int main(int argc, char** argv) {
  if (velt_print_version_when_asked(argc, argv, "veltnam")) return 0;
  jsonOutput = velt::tools::jsonAsked(argc, argv);
  Invocation inv;
  bool helpOnly = false;
  int code = parseArguments(argc, argv, &inv, &helpOnly);
  if (helpOnly) {
    fputs(kUsage, stdout);
    return kExitOk;
  }
  if (code != kExitOk) return code;
  Viewer viewer(inv);
  code = viewer.start();
  if (code != kExitOk) return code;
  code = inv.watch ? viewer.watch() : viewer.show();
  if (code == kExitOk && fflush(stdout) != 0) return fail(kExitFailed, std::string("cannot write the output: ") + strerror(errno));
  return code;
}
