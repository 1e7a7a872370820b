// veltctl: what this node's agent (veltd) knows: its status, the groups, a
// group's members and the KOR resources. It speaks the agent socket's protocol itself (hello,
// one query, the answer) and prints text, or JSON for scripts.
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "frame_io.h"
#include "health.h"
#include "kor_types.h"
#include "topology_knet.h"
#include "tool_options.h"
#include "velt.pb.h"
#include "velt_version.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr int kRcPermissionDenied = 8;   // TK_GS_PERMISSION_DENIED
constexpr uint64_t kQueryId = 1;
// A resources answer comes in pages of about 4 MiB; more than this many
// is not an answer this tool prints.
constexpr size_t kMaxAnswerPages = 64;
constexpr size_t kMaxGroupNameBytes = 64;
// Bytes of a state value shown in the text output.
constexpr size_t kStateValuePreview = 64;

const char kDefaultSocket[] = "/run/velt/agent.sock";

const char kUsage[] =
    "usage: veltctl [--socket PATH] [--json] [--timeout SECONDS] COMMAND\n"
    "commands:\n"
    "  status            this node's agent: node, versions, view, number of groups\n"
    "  groups            every group: providers, subscribers on this node, protocol\n"
    "  members GROUP     one group's providers and state value\n"
    "  resources [CLASS] the KOR resources of CLASS (Zel.PeerNode, Zel.NetworkInterface;\n"
    "                    default both) with every attribute\n"
    "  health            0 when every node of corosync's nodelist is in the view and every\n"
    "                    published adapter and this node's knet links are up; 1 and what is\n"
    "                    not when degraded; 3 when the agent is not running\n"
    "  links             per node every published adapter, UP or DOWN, and this node's knet\n"
    "                    links\n"
    "  metrics           the same and the groups, the view and the agent's bus traffic in\n"
    "                    the Prometheus text format (for node_exporter's textfile collector)\n"
    "options:\n"
    "  --socket PATH     the agent socket (default $VELT_AGENT_SOCKET, else /run/velt/agent.sock)\n"
    "  --json            print JSON (one object) instead of text\n"
    "  --timeout SECONDS wait at most this long for the agent (default 10)\n"
    "  -h, --help        show this text\n"
    "  --version         show the version (the only argument)\n"
    "exit status: 0 on success, 1 when the agent cannot answer (not running, permission,\n"
    "unknown group, ...), 2 for usage errors.\n";

// The common options (socket, json, timeout, words) and the request.
struct Invocation : velt::tools::ToolOptions {
  velt::proto::Query query;
  // resources: one KOR query per class, in order.
  std::vector<std::string> korClasses;
  bool health = false;  // health, links or metrics
  bool links = false;
  bool metrics = false;
};

// Exit status of health when no agent listens at the socket.
constexpr int kExitNoAgent = 3;
// Set by the connection when nobody listens at the socket.
bool agentMissing = false;

// Set from the arguments first thing: errors are then said as JSON on
// standard output as well.
bool jsonOutput = false;

int usageError(const std::string& why) {
  if (jsonOutput) velt::tools::printJsonError(kExitUsage, "usage", why);
  fprintf(stderr, "veltctl: %s\n%s", why.c_str(), kUsage);
  return kExitUsage;
}

int fail(const std::string& why) {
  if (jsonOutput) velt::tools::printJsonError(kExitFailed, "failed", why);
  fprintf(stderr, "veltctl: %s\n", why.c_str());
  return kExitFailed;
}

std::string errnoText(int err) {
  char buf[128];
  return strerror_r(err, buf, sizeof buf);
}

int parseArguments(int argc, char** argv, Invocation* inv, bool* helpOnly) {
  std::string wrong = velt::tools::parseToolOptions(argc, argv, "VELT_AGENT_SOCKET", kDefaultSocket, inv);
  if (!wrong.empty()) return usageError(wrong);
  *helpOnly = inv->help;
  if (inv->help) return kExitOk;
  const std::vector<std::string>& words = inv->words;
  if (words.empty()) return usageError("no command");
  const std::string& cmd = words[0];
  if (cmd == "status" || cmd == "groups") {
    if (words.size() != 1) return usageError(cmd + " takes no arguments");
    inv->query.set_kind(cmd == "status" ? velt::proto::Query::STATUS
                                        : velt::proto::Query::GROUPS);
  } else if (cmd == "members") {
    if (words.size() != 2) return usageError("members takes one GROUP");
    if (words[1].empty() || words[1].size() > kMaxGroupNameBytes) {
      return usageError("a group name has 1 to " + std::to_string(kMaxGroupNameBytes) +
                        " bytes");
    }
    inv->query.set_kind(velt::proto::Query::MEMBERS);
    inv->query.set_group(words[1]);
  } else if (cmd == "health" || cmd == "links" || cmd == "metrics") {
    if (words.size() != 1) return usageError(cmd + " takes no arguments");
    if (cmd == "metrics" && inv->json) return usageError("metrics has no JSON form: it is the Prometheus text format");
    inv->health = true;
    inv->links = cmd == "links";
    inv->metrics = cmd == "metrics";
  } else if (cmd == "resources") {
    if (words.size() > 2) return usageError("resources takes at most one CLASS");
    if (words.size() == 2) {
      if (words[1] != KOR_CLASS_PEER_NODE && words[1] != KOR_CLASS_NETWORK_INTERFACE) {
        return usageError("\"" + words[1] + "\" is not a resource class (" KOR_CLASS_PEER_NODE
                          ", " KOR_CLASS_NETWORK_INTERFACE ")");
      }
      inv->korClasses.push_back(words[1]);
    } else {
      inv->korClasses = {KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE};
    }
  } else {
    return usageError("unknown command \"" + cmd + "\"");
  }
  return kExitOk;
}

// ------------------------------------------------------------ the agent

// One connection to the agent, with a deadline for everything it waits on.
class AgentConnection {
 public:
  AgentConnection(std::string path, int timeoutSeconds)
      : path_(std::move(path)), timeoutMs_(timeoutSeconds * 1000) {
    clock_gettime(CLOCK_MONOTONIC, &start_);
  }
  ~AgentConnection() {
    if (fd_ >= 0) close(fd_);
  }

  // Returns 0, or prints why and returns kExitFailed.
  int open() {
    fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return fail("cannot create a socket: " + errnoText(errno));
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path_.data(), path_.size());
    if (connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
      int err = errno;
      if (err == ENOENT || err == ECONNREFUSED || err == ENOTDIR) {
        agentMissing = true;
        return fail("no agent is running at " + path_ + " (" + errnoText(err) + ")");
      }
      if (err == EACCES || err == EPERM) {
        return fail("no permission to connect to the agent at " + path_ + " (" +
                    errnoText(err) + ")");
      }
      return fail("cannot connect to the agent at " + path_ + ": " + errnoText(err));
    }
    return 0;
  }

  int send(const velt::proto::ClientFrame& frame) {
    std::string bytes;
    frame.SerializeToString(&bytes);
    int rc = velt::wire::sendMessage(fd_, bytes);
    if (rc != 0) return fail("cannot send to the agent at " + path_ + ": " + errnoText(rc));
    return 0;
  }

  // Reads the next frame. Returns 0, or prints why and returns kExitFailed.
  int receive(velt::proto::AgentFrame* frame) {
    std::vector<char> buf(velt::wire::kMaxPacket + 1);
    for (;;) {
      int left = timeoutMs_ - elapsedMs();
      if (left <= 0) {
        return fail("the agent at " + path_ + " did not answer within " +
                    std::to_string(timeoutMs_ / 1000) + " s");
      }
      struct pollfd p;
      p.fd = fd_;
      p.events = POLLIN;
      p.revents = 0;
      int n = poll(&p, 1, left);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return fail("waiting for the agent failed: " + errnoText(errno));
      if (n == 0) continue;   // the deadline is checked at the top
      ssize_t len = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
      if (len < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (len < 0) return fail("lost the connection to the agent: " + errnoText(errno));
      if (len == 0) return fail("the agent at " + path_ + " closed the connection");
      if (static_cast<size_t>(len) > velt::wire::kMaxPacket) {
        return fail("the agent sent a packet larger than the protocol allows");
      }
      std::string message, why;
      int rc = reassembler_.feed(buf.data(), static_cast<size_t>(len), &message, &why);
      if (rc < 0) return fail("the agent sent a malformed frame: " + why);
      if (rc == 0) continue;
      if (!frame->ParseFromString(message) || frame->version() != velt::proto::WIRE_VERSION_1) {
        return fail("the agent sent a frame this veltctl does not understand");
      }
      return 0;
    }
  }

 private:
  int elapsedMs() const {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int>((now.tv_sec - start_.tv_sec) * 1000 +
                            (now.tv_nsec - start_.tv_nsec) / 1000000);
  }

  std::string path_;
  int timeoutMs_;
  struct timespec start_;
  int fd_ = -1;
  velt::wire::Reassembler reassembler_;
};

// Says hello, sends each request in turn and returns their answers in
// *replies, in the same order.
int ask(const Invocation& inv, const std::vector<velt::proto::Request>& requests,
        std::vector<velt::proto::Reply>* replies) {
  AgentConnection conn(inv.socketPath, inv.timeoutSeconds);
  int rc = conn.open();
  if (rc != 0) return rc;
  velt::proto::ClientFrame hello;
  hello.set_version(velt::proto::WIRE_VERSION_1);
  hello.mutable_hello()->set_pid(static_cast<uint32_t>(getpid()));
  hello.mutable_hello()->set_program("veltctl");
  if ((rc = conn.send(hello)) != 0) return rc;
  velt::proto::AgentFrame frame;
  if ((rc = conn.receive(&frame)) != 0) return rc;
  if (!frame.has_hello_reply()) return fail("the agent did not answer the hello");
  const velt::proto::HelloReply& hr = frame.hello_reply();
  if (hr.rc() == kRcPermissionDenied) {
    return fail("the agent at " + inv.socketPath + " refused this user: " + hr.text());
  }
  if (hr.rc() != 0) {
    return fail("the agent at " + inv.socketPath + " refused the connection (rc " +
                std::to_string(hr.rc()) + "): " + hr.text());
  }
  uint64_t id = kQueryId;
  for (const velt::proto::Request& r : requests) {
    velt::proto::ClientFrame request;
    request.set_version(velt::proto::WIRE_VERSION_1);
    *request.mutable_request() = r;
    request.mutable_request()->set_id(id);
    if ((rc = conn.send(request)) != 0) return rc;
    // Domain control and other notifications may come first.
    for (;;) {
      if ((rc = conn.receive(&frame)) != 0) return rc;
      if (frame.has_reply() && frame.reply().id() == id) break;
    }
    const velt::proto::Reply& reply = frame.reply();
    if (reply.rc() != 0) {
      return fail(reply.text().empty() ? "the agent refused the query (rc " +
                                             std::to_string(reply.rc()) + ")"
                                       : reply.text());
    }
    replies->push_back(reply);
    // A large resources answer goes on in further replies with the same id.
    for (size_t pages = 1; replies->back().kor().more(); ++pages) {
      if (pages == kMaxAnswerPages) {
        return fail("the agent's answer runs to more than " + std::to_string(kMaxAnswerPages) +
                    " pages");
      }
      do {
        if ((rc = conn.receive(&frame)) != 0) return rc;
      } while (!frame.has_reply() || frame.reply().id() != id);
      if (frame.reply().rc() != 0) {
        return fail("the agent broke off its answer (rc " + std::to_string(frame.reply().rc()) +
                    "): " + frame.reply().text());
      }
      replies->push_back(frame.reply());
    }
    ++id;
  }
  return kExitOk;
}

// -------------------------------------------------------------- output

std::string version(uint32_t packed) {
  return std::to_string(packed >> 24) + "." + std::to_string((packed >> 16) & 0xff) + "." +
         std::to_string((packed >> 8) & 0xff) + "." + std::to_string(packed & 0xff);
}

// Text for a terminal: control characters and backslashes escaped.
std::string printable(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c < 0x20 || c == 0x7f) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t utf8Length(const std::string& s, size_t i) {
  unsigned char c = static_cast<unsigned char>(s[i]);
  size_t n;
  uint32_t cp;
  if (c < 0x80) return 1;
  if ((c & 0xe0) == 0xc0) {
    n = 2;
    cp = c & 0x1f;
  } else if ((c & 0xf0) == 0xe0) {
    n = 3;
    cp = c & 0x0f;
  } else if ((c & 0xf8) == 0xf0) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    unsigned char d = static_cast<unsigned char>(s[i + k]);
    if ((d & 0xc0) != 0x80) return 0;
    cp = (cp << 6) | (d & 0x3f);
  }
  static const uint32_t kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMin[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
  return n;
}

// A JSON string; bytes that are not UTF-8 become U+FFFD.
std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
      ++i;
    } else if (c < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
      ++i;
    } else {
      size_t n = utf8Length(s, i);
      if (n == 0) {
        out += "\\ufffd";
        ++i;
      } else {
        out.append(s, i, n);
        i += n;
      }
    }
  }
  return out + "\"";
}

std::string hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xf]);
  }
  return out;
}

std::string jsonBool(bool b) { return b ? "true" : "false"; }

void printStatus(const velt::proto::QueryAnswer& a, bool json) {
  if (json) {
    std::string view;
    for (uint32_t n : a.view()) view += (view.empty() ? "" : ",") + std::to_string(n);
    printf("{\"schema_version\":%d,\"node\":%u,\"agent_version\":\"%s\",\"active_version\":\"%s\",\"view_id\":%llu,"
           "\"view\":[%s],\"groups\":%d}\n",
           velt::tools::kJsonSchemaVersion, a.node(), version(a.agent_version()).c_str(), version(a.active_version()).c_str(),
           static_cast<unsigned long long>(a.view_id()), view.c_str(), a.groups_size());
    return;
  }
  std::string nodes;
  for (uint32_t n : a.view()) nodes += (nodes.empty() ? "" : " ") + std::to_string(n);
  printf("node:           %u\n", a.node());
  printf("agent version:  %s\n", version(a.agent_version()).c_str());
  printf("active version: %s\n", version(a.active_version()).c_str());
  printf("view:           id %llu, nodes %s\n", static_cast<unsigned long long>(a.view_id()),
         nodes.empty() ? "(none)" : nodes.c_str());
  printf("groups:         %d\n", a.groups_size());
}

void printGroups(const velt::proto::QueryAnswer& a, bool json) {
  if (json) {
    std::string out = "{\"schema_version\":" + std::to_string(velt::tools::kJsonSchemaVersion) + ",\"groups\":[";
    bool first = true;
    for (const velt::proto::GroupSummary& g : a.groups()) {
      if (!first) out += ",";
      first = false;
      out += "{\"name\":" + jsonString(g.name()) +
             ",\"providers\":" + std::to_string(g.providers_size()) +
             ",\"subscribers_here\":" + std::to_string(g.subscribers_here()) +
             ",\"protocol_in_flight\":" + jsonBool(g.protocol_in_flight()) + "}";
    }
    printf("%s]}\n", out.c_str());
    return;
  }
  if (a.groups_size() == 0) {
    printf("no groups\n");
    return;
  }
  size_t width = 5;   // "GROUP"
  for (const velt::proto::GroupSummary& g : a.groups()) {
    width = std::max(width, printable(g.name()).size());
  }
  int w = static_cast<int>(width);
  printf("%-*s  %9s  %11s  %s\n", w, "GROUP", "PROVIDERS", "SUBSCRIBERS", "PROTOCOL");
  for (const velt::proto::GroupSummary& g : a.groups()) {
    printf("%-*s  %9d  %11u  %s\n", w, printable(g.name()).c_str(), g.providers_size(),
           g.subscribers_here(), g.protocol_in_flight() ? "in flight" : "idle");
  }
}

// An adapter's address as text ("?" for what is no address).
std::string addressText(const std::string& ip) {
  char text[INET6_ADDRSTRLEN] = "?";
  if (ip.size() == 4) inet_ntop(AF_INET, ip.data(), text, sizeof text);
  if (ip.size() == 16) inet_ntop(AF_INET6, ip.data(), text, sizeof text);
  return text;
}

void printMembers(const velt::proto::QueryAnswer& a, bool json) {
  // The agent answers an unknown group with an error, so one is here.
  const velt::proto::GroupSummary& g = a.groups(0);
  // The raw adapter group says which adapter each provider is.
  bool adapters = g.adapters_size() > 0 && g.adapters_size() == g.providers_size();
  if (json) {
    std::string providers;
    for (const velt::proto::ProviderId& p : g.providers()) {
      if (!providers.empty()) providers += ",";
      providers += "{\"instance\":" + std::to_string(p.instance()) +
                   ",\"node\":" + std::to_string(p.node()) + "}";
    }
    // The adapters go in a list of their own, so that the providers' list
    // reads the same for every group.
    std::string adapterList;
    for (int i = 0; adapters && i < g.adapters_size(); ++i) {
      const velt::proto::AdapterInfo& ad = g.adapters(i);
      if (!adapterList.empty()) adapterList += ",";
      adapterList += "{\"address\":" + jsonString(addressText(ad.ip())) +
                     ",\"interface\":" + jsonString(ad.interface_name()) +
                     ",\"network\":" + jsonString(ad.network_name()) +
                     ",\"network_type\":" + jsonString(ad.network_type()) +
                     ",\"instance\":" + std::to_string(ad.instance()) +
                     ",\"node\":" + std::to_string(ad.node()) + "}";
    }
    std::string adapterField = adapters ? ",\"adapters\":[" + adapterList + "]" : "";
    printf("{\"schema_version\":%d,\"group\":%s,\"providers\":[%s]%s,\"state_value_bytes\":%zu,"
           "\"state_value_hex\":\"%s\",\"protocol_in_flight\":%s,\"subscribers_here\":%u}\n",
           velt::tools::kJsonSchemaVersion, jsonString(g.name()).c_str(), providers.c_str(), adapterField.c_str(),
           g.state_value().size(),
           hex(g.state_value()).c_str(), jsonBool(g.protocol_in_flight()).c_str(),
           g.subscribers_here());
    return;
  }
  const std::string& value = g.state_value();
  std::string shown = printable(value.substr(0, kStateValuePreview));
  if (value.size() > kStateValuePreview) shown += "...";
  printf("group:        %s\n", printable(g.name()).c_str());
  printf("providers:    %d\n", g.providers_size());
  printf("state value:  %zu bytes \"%s\"\n", value.size(), shown.c_str());
  printf("protocol:     %s\n", g.protocol_in_flight() ? "in flight" : "idle");
  printf("subscribers:  %u on this node\n", g.subscribers_here());
  if (g.providers_size() > 0 && adapters) {
    printf("%8s  %5s  %-15s  %-15s  %s\n", "INSTANCE", "NODE", "ADDRESS", "INTERFACE", "TYPE");
    for (int i = 0; i < g.providers_size(); ++i) {
      const velt::proto::ProviderId& p = g.providers(i);
      const velt::proto::AdapterInfo& ad = g.adapters(i);
      printf("%8u  %5u  %-15s  %-15s  %s\n", p.instance(), p.node(), addressText(ad.ip()).c_str(),
             printable(ad.interface_name()).c_str(), printable(ad.network_type()).c_str());
    }
  } else if (g.providers_size() > 0) {
    printf("%8s  %5s\n", "INSTANCE", "NODE");
    for (const velt::proto::ProviderId& p : g.providers()) {
      printf("%8u  %5u\n", p.instance(), p.node());
    }
  }
}

// One attribute's value as text (JSON when json): 64-bit numbers in
// hexadecimal (as strings in JSON, which cannot carry them exactly), arrays
// in brackets.
std::string korValueText(const velt::proto::KorValue& v, bool json) {
  auto hex64 = [json](uint64_t x) {
    char buf[24];
    snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(x));
    return json ? "\"" + std::string(buf) + "\"" : std::string(buf);
  };
  auto text = [json](const std::string& t) { return json ? jsonString(t) : printable(t); };
  std::string out;
  switch (v.type()) {
    case VX_INT32:
    case VX_INT64:
      return std::to_string(v.int_value());
    case VX_UINT32:
      return std::to_string(v.uint_value());
    case VX_UINT64:
      return hex64(v.uint_value());
    case VX_CHAR_PTR:
      return text(v.text());
    case VX_INT32_ARRAY:
    case VX_INT64_ARRAY:
      for (int64_t x : v.int_array()) out += (out.empty() ? "" : ",") + std::to_string(x);
      return "[" + out + "]";
    case VX_UINT32_ARRAY:
      for (uint64_t x : v.uint_array()) out += (out.empty() ? "" : ",") + std::to_string(x);
      return "[" + out + "]";
    case VX_UINT64_ARRAY:
      for (uint64_t x : v.uint_array()) out += (out.empty() ? "" : ",") + hex64(x);
      return "[" + out + "]";
    case VX_CHAR_PTR_ARRAY:
      for (const std::string& t : v.text_array()) out += (out.empty() ? "" : ",") + text(t);
      return "[" + out + "]";
    default:
      return json ? "null" : "(type " + std::to_string(v.type()) + ")";
  }
}

// Calls visit with each resource of the answer's pages in order, whether a
// page holds resources or rows (a row becomes the resource its page's
// columns make; values past the columns are left out).
template <typename Visit>
void forEachResource(const std::vector<velt::proto::Reply>& replies, const Visit& visit) {
  velt::proto::KorResource fromRow;
  for (const velt::proto::Reply& r : replies) {
    const velt::proto::KorAnswer& k = r.kor();
    for (const velt::proto::KorResource& res : k.resources()) visit(res);
    for (const velt::proto::KorRow& row : k.rows()) {
      fromRow.Clear();
      fromRow.set_class_name(k.class_name());
      fromRow.set_handle(row.handle());
      for (int i = 0; i < row.values_size() && i < k.columns_size(); ++i) {
        velt::proto::KorAttribute* a = fromRow.add_attributes();
        a->set_name(k.columns(i).name());
        *a->mutable_value() = row.values(i);
        a->mutable_value()->set_type(k.columns(i).type());
      }
      visit(fromRow);
    }
  }
}

void printResources(const std::vector<velt::proto::Reply>& replies, bool json) {
  if (json) {
    std::string list;
    forEachResource(replies, [&list](const velt::proto::KorResource& res) {
      std::string attrs;
      for (const velt::proto::KorAttribute& a : res.attributes()) {
        attrs += (attrs.empty() ? "" : ",") + jsonString(a.name()) + ":" +
                 korValueText(a.value(), true);
      }
      list += (list.empty() ? "" : ",") + std::string("{\"class\":") +
              jsonString(res.class_name()) + ",\"handle\":" + jsonString(res.handle()) +
              ",\"attributes\":{" + attrs + "}}";
    });
    printf("{\"schema_version\":%d,\"resources\":[%s]}\n", velt::tools::kJsonSchemaVersion, list.c_str());
    return;
  }
  bool first = true;
  forEachResource(replies, [&first](const velt::proto::KorResource& res) {
    if (!first) printf("\n");
    first = false;
    printf("%s %s\n", printable(res.class_name()).c_str(), printable(res.handle()).c_str());
    for (const velt::proto::KorAttribute& a : res.attributes()) {
      printf("  %-16s %s\n", printable(a.name()).c_str(), korValueText(a.value(), false).c_str());
    }
  });
  if (first) printf("no resources\n");
}

// ------------------------------------------------------------ health

std::string nodeListText(const std::vector<uint32_t>& nodes, bool json) {
  std::string out;
  for (uint32_t n : nodes) out += (out.empty() ? "" : json ? "," : " ") + std::to_string(n);
  return json ? "[" + out + "]" : (out.empty() ? "(none)" : out);
}

// This node's knet links as its corosync reports them; false (with *why)
// when corosync cannot be asked, as beside a standalone agent.
bool askKnetLinks(uint32_t self, const std::vector<uint32_t>& view, std::vector<velt::tools::KnetLink>* out,
                  std::vector<velt::tools::PeerLink>* perPeer, std::string* why) {
  std::vector<uint32_t> others;
  for (uint32_t n : view) {
    if (n != self) others.push_back(n);
  }
  velt::agent::KnetLinkMonitor monitor;
  std::vector<velt::agent::AdapterTracker::LinkState> states;
  if (monitor.poll(self, others, &states, why) != 0) return false;
  for (const velt::agent::AdapterTracker::LinkState& st : states) {
    velt::tools::KnetLink l;
    l.link = st.link;
    l.address = st.localAddress.size() == 4 ? addressText(st.localAddress) : "";
    l.connected = st.connected;
    out->push_back(l);
  }
  // And each link towards each other node of the view.
  for (uint32_t peer : others) {
    velt::agent::PeerLinks links;
    int rc = monitor.peerLinks(self, peer, &links, why);
    if (rc < 0) return false;
    for (uint32_t link = 0; rc == 0 && link < velt::agent::kMaxKnetLinks; ++link) {
      if (!links[link].enabled) continue;
      velt::tools::PeerLink l;
      l.peer = peer;
      l.link = link;
      l.address = links[link].localAddress.size() == 4 ? addressText(links[link].localAddress) : "";
      l.connected = links[link].connected;
      perPeer->push_back(l);
    }
  }
  return true;
}

// Asks the agent what health and links judge. Returns kExitOk, or the
// status to end with (kExitNoAgent when nobody listens).
int gatherHealth(const Invocation& inv, velt::tools::HealthReport* report, velt::proto::QueryAnswer* statusAnswer,
                 velt::proto::QueryAnswer* groupsAnswer) {
  velt::proto::Request status;
  status.mutable_query()->set_kind(velt::proto::Query::STATUS);
  velt::proto::Request groups;
  groups.mutable_query()->set_kind(velt::proto::Query::GROUPS);
  std::vector<velt::proto::Reply> first;
  int rc = ask(inv, {status, groups}, &first);
  if (rc != kExitOk) return agentMissing ? kExitNoAgent : rc;
  velt::proto::GroupSummary raw;
  bool haveRaw = false;
  for (const velt::proto::GroupSummary& g : first[1].answer().groups()) haveRaw = haveRaw || g.name() == "allAdapterMembership";
  std::vector<velt::proto::Request> rest;
  for (const char* c : {KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE}) {
    velt::proto::Request r;
    r.mutable_kor_query()->set_class_name(c);
    r.mutable_kor_query()->set_rows(true);
    rest.push_back(r);
  }
  std::vector<velt::proto::Reply> kor;
  if ((rc = ask(inv, rest, &kor)) != kExitOk) return rc;
  if (haveRaw) {
    velt::proto::Request members;
    members.mutable_query()->set_kind(velt::proto::Query::MEMBERS);
    members.mutable_query()->set_group("allAdapterMembership");
    std::vector<velt::proto::Reply> answer;
    if ((rc = ask(inv, {members}, &answer)) != kExitOk) return rc;
    if (answer.front().answer().groups_size() == 1) raw = answer.front().answer().groups(0);
  }
  std::vector<velt::proto::KorResource> peers;
  std::vector<velt::proto::KorResource> interfaces;
  forEachResource(kor, [&](const velt::proto::KorResource& r) {
    (r.class_name() == KOR_CLASS_PEER_NODE ? peers : interfaces).push_back(r);
  });
  const velt::proto::QueryAnswer& st = first[0].answer();
  std::vector<uint32_t> view(st.view().begin(), st.view().end());
  std::vector<velt::tools::KnetLink> links;
  std::vector<velt::tools::PeerLink> perPeer;
  std::string why;
  bool known = askKnetLinks(st.node(), view, &links, &perPeer, &why);
  if (!known) perPeer.clear();
  *report = velt::tools::assessHealth(st, raw, peers, interfaces, known ? &links : nullptr, why, perPeer);
  *statusAnswer = st;
  *groupsAnswer = first[1].answer();
  return kExitOk;
}

std::string adaptersJson(const velt::tools::HealthReport& h) {
  std::string out;
  for (const velt::tools::AdapterHealth& a : h.adapters) {
    out += std::string(out.empty() ? "" : ",") + "{\"node\":" + std::to_string(a.node) +
           ",\"interface\":" + jsonString(a.interface) + ",\"address\":" + jsonString(a.address) +
           ",\"state\":\"" + (a.up ? "UP" : "DOWN") + "\",\"node_in_view\":" + jsonBool(a.nodeInView) + "}";
  }
  return "[" + out + "]";
}

std::string linksJson(const velt::tools::HealthReport& h) {
  if (!h.linksKnown) return "null,\"knet_links_unknown\":" + jsonString(h.linksWhy);
  std::string out;
  for (const velt::tools::KnetLink& l : h.links) {
    out += std::string(out.empty() ? "" : ",") + "{\"link\":" + std::to_string(l.link) +
           ",\"address\":" + jsonString(l.address) + ",\"state\":\"" + (l.connected ? "connected" : "down") +
           "\"}";
  }
  std::string peers;
  for (const velt::tools::PeerLink& l : h.peerLinks) {
    peers += std::string(peers.empty() ? "" : ",") + "{\"peer\":" + std::to_string(l.peer) +
             ",\"link\":" + std::to_string(l.link) + ",\"network\":" + jsonString(l.network) +
             ",\"address\":" + jsonString(l.address) + ",\"state\":\"" + (l.connected ? "connected" : "down") +
             "\"}";
  }
  return "[" + out + "],\"knet_peer_links\":[" + peers + "]";
}

void printHealth(const velt::tools::HealthReport& h, bool json) {
  const bool healthy = h.problems.empty();
  if (json) {
    std::string problems;
    for (const std::string& p : h.problems) problems += (problems.empty() ? "" : ",") + jsonString(p);
    printf("{\"schema_version\":%d,\"healthy\":%s,\"node\":%u,\"nodelist\":%s,\"view\":%s,\"problems\":[%s],"
           "\"adapters\":%s,\"knet_links\":%s}\n",
           velt::tools::kJsonSchemaVersion, jsonBool(healthy).c_str(), h.self, nodeListText(h.nodelist, true).c_str(),
           nodeListText(h.view, true).c_str(), problems.c_str(), adaptersJson(h).c_str(), linksJson(h).c_str());
    return;
  }
  size_t up = 0;
  for (const velt::tools::AdapterHealth& a : h.adapters) up += a.up ? 1 : 0;
  size_t connected = 0;
  for (const velt::tools::KnetLink& l : h.links) connected += l.connected ? 1 : 0;
  printf("node %u; nodelist %s; view %s\n", h.self, nodeListText(h.nodelist, false).c_str(),
         nodeListText(h.view, false).c_str());
  printf("adapters: %zu of %zu up\n", up, h.adapters.size());
  if (h.linksKnown) {
    printf("knet links of this node: %zu of %zu connected\n", connected, h.links.size());
  } else {
    printf("knet links of this node: not known (%s)\n", h.linksWhy.c_str());
  }
  for (const std::string& p : h.problems) printf("problem: %s\n", p.c_str());
  printf("%s\n", healthy ? "healthy" : ("degraded: " + std::to_string(h.problems.size()) +
                                           (h.problems.size() == 1 ? " problem" : " problems")).c_str());
}

void printLinks(const velt::tools::HealthReport& h, bool json) {
  if (json) {
    printf("{\"schema_version\":%d,\"node\":%u,\"adapters\":%s,\"knet_links\":%s}\n",
           velt::tools::kJsonSchemaVersion, h.self, adaptersJson(h).c_str(), linksJson(h).c_str());
    return;
  }
  printf("%5s  %-15s  %-15s  %s\n", "NODE", "INTERFACE", "ADDRESS", "ADAPTER");
  for (const velt::tools::AdapterHealth& a : h.adapters) {
    printf("%5u  %-15s  %-15s  %s%s\n", a.node, printable(a.interface).c_str(), printable(a.address).c_str(),
           a.up ? "UP" : "DOWN", a.nodeInView ? "" : " (node not in the view)");
  }
  if (!h.linksKnown) {
    printf("knet links of node %u: not known (%s)\n", h.self, h.linksWhy.c_str());
    return;
  }
  printf("knet links of node %u:\n%5s  %-15s  %s\n", h.self, "LINK", "ADDRESS", "STATE");
  for (const velt::tools::KnetLink& l : h.links) {
    printf("%5u  %-15s  %s\n", l.link, l.address.empty() ? "-" : l.address.c_str(),
           l.connected ? "connected" : "DOWN");
  }
  if (h.peerLinks.empty()) return;
  printf("knet links of node %u to each node:\n%5s  %5s  %-15s  %-15s  %s\n", h.self, "NODE", "LINK", "NETWORK",
         "ADDRESS", "STATE");
  for (const velt::tools::PeerLink& l : h.peerLinks) {
    printf("%5u  %5u  %-15s  %-15s  %s\n", l.peer, l.link, l.network.empty() ? "-" : printable(l.network).c_str(),
           l.address.empty() ? "-" : l.address.c_str(), l.connected ? "connected" : "DOWN");
  }
}

// ------------------------------------------------------------ metrics

// A label value in the text format: backslash, double quote and newline
// escaped.
std::string labelValue(const std::string& v) {
  std::string out;
  for (char c : v) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

// One metric family: its HELP and TYPE, then its samples.
void family(const char* name, const char* type, const char* help,
            const std::vector<std::pair<std::string, uint64_t>>& samples) {
  printf("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
  for (const auto& s : samples) {
    printf("%s%s %llu\n", name, s.first.c_str(), static_cast<unsigned long long>(s.second));
  }
}

void printMetrics(const velt::tools::HealthReport& h, const velt::proto::QueryAnswer& status,
                  const velt::proto::QueryAnswer& groups) {
  using Samples = std::vector<std::pair<std::string, uint64_t>>;
  const std::string self = std::to_string(h.self);
  family("velt_view_nodes", "gauge", "Nodes in the agent's view of the cluster.", {{"", h.view.size()}});
  family("velt_nodelist_nodes", "gauge", "Nodes of corosync's nodelist.", {{"", h.nodelist.size()}});
  Samples inView;
  for (uint32_t n : h.nodelist) {
    bool in = std::find(h.view.begin(), h.view.end(), n) != h.view.end();
    inView.push_back({"{node=\"" + std::to_string(n) + "\"}", in ? 1 : 0});
  }
  family("velt_node_in_view", "gauge", "1 when the node of the nodelist is in the view.", inView);
  Samples adapters;
  uint64_t up = 0;
  for (const velt::tools::AdapterHealth& a : h.adapters) {
    adapters.push_back({"{node=\"" + std::to_string(a.node) + "\",network=\"" + labelValue(a.interface) +
                            "\",address=\"" + labelValue(a.address) + "\"}",
                        a.up ? 1 : 0});
    up += a.up ? 1 : 0;
  }
  family("velt_adapter_up", "gauge", "1 when the published adapter is alive in the raw adapter group.", adapters);
  family("velt_adapters", "gauge", "Published adapters by state.",
         {{"{state=\"up\"}", up}, {"{state=\"down\"}", h.adapters.size() - up}});
  if (h.linksKnown) {
    Samples links;
    uint64_t connected = 0;
    for (const velt::tools::KnetLink& l : h.links) {
      links.push_back({"{node=\"" + self + "\",link=\"" + std::to_string(l.link) + "\",address=\"" +
                           labelValue(l.address) + "\"}",
                       l.connected ? 1 : 0});
      connected += l.connected ? 1 : 0;
    }
    family("velt_knet_link_up", "gauge", "1 when this node's knet link reaches another node.", links);
    Samples perPeer;
    for (const velt::tools::PeerLink& l : h.peerLinks) {
      perPeer.push_back({"{node=\"" + self + "\",peer=\"" + std::to_string(l.peer) + "\",link=\"" +
                             std::to_string(l.link) + "\",network=\"" + labelValue(l.network) + "\"}",
                         l.connected ? 1 : 0});
    }
    family("velt_knet_peer_link_up", "gauge", "1 when this node's knet link to the peer node is connected.",
           perPeer);
    family("velt_knet_links", "gauge", "This node's knet links by state.",
           {{"{node=\"" + self + "\",state=\"up\"}", connected},
            {"{node=\"" + self + "\",state=\"down\"}", h.links.size() - connected}});
  }
  family("velt_health_problems", "gauge", "What veltctl health counts as problems (0: healthy).",
         {{"", h.problems.size()}});
  family("velt_groups", "gauge", "Groups the agents hold.", {{"", static_cast<uint64_t>(groups.groups_size())}});
  Samples providers;
  for (const velt::proto::GroupSummary& g : groups.groups()) {
    providers.push_back({"{group=\"" + labelValue(g.name()) + "\"}", static_cast<uint64_t>(g.providers_size())});
  }
  family("velt_group_providers", "gauge", "Providers of each group.", providers);
  family("velt_bus_messages_sent_total", "counter", "Messages this agent sent on the cluster bus (CPG).",
         {{"", status.bus_messages_sent()}});
  family("velt_bus_bytes_sent_total", "counter", "Bytes of those messages.", {{"", status.bus_bytes_sent()}});
  family("velt_bus_messages_received_total", "counter",
         "Messages the cluster bus delivered to this agent (its own included).", {{"", status.bus_messages_received()}});
  family("velt_bus_bytes_received_total", "counter", "Bytes of those messages.", {{"", status.bus_bytes_received()}});
  family("velt_agent_client_sessions", "gauge",
         "Client connections the agent serves (the daemon and the tools among them).",
         {{"", status.client_sessions()}});
}

}  // namespace

int main(int argc, char** argv) {
  if (velt_print_version_when_asked(argc, argv, "veltctl")) return 0;
  jsonOutput = velt::tools::jsonAsked(argc, argv);
  Invocation inv;
  bool helpOnly = false;
  int rc = parseArguments(argc, argv, &inv, &helpOnly);
  if (rc != kExitOk) return rc;
  if (helpOnly) {
    fputs(kUsage, stdout);
    return kExitOk;
  }
  if (inv.health) {
    velt::tools::HealthReport report;
    velt::proto::QueryAnswer status;
    velt::proto::QueryAnswer groups;
    rc = gatherHealth(inv, &report, &status, &groups);
    if (rc != kExitOk) return rc;
    if (inv.metrics) {
      printMetrics(report, status, groups);
      if (fflush(stdout) != 0) return fail("cannot write the output: " + errnoText(errno));
      return kExitOk;
    }
    if (inv.links) {
      printLinks(report, inv.json);
    } else {
      printHealth(report, inv.json);
    }
    if (fflush(stdout) != 0) return fail("cannot write the output: " + errnoText(errno));
    return inv.links || report.problems.empty() ? kExitOk : kExitFailed;
  }
  std::vector<velt::proto::Request> requests;
  if (!inv.korClasses.empty()) {
    for (const std::string& c : inv.korClasses) {
      velt::proto::Request r;
      r.mutable_kor_query()->set_class_name(c);
      r.mutable_kor_query()->set_rows(true);
      requests.push_back(r);
    }
  } else {
    velt::proto::Request r;
    *r.mutable_query() = inv.query;
    requests.push_back(r);
  }
  std::vector<velt::proto::Reply> replies;
  rc = ask(inv, requests, &replies);
  if (rc != kExitOk) return rc;
  if (!inv.korClasses.empty()) {
    printResources(replies, inv.json);
    if (fflush(stdout) != 0) return fail("cannot write the output: " + errnoText(errno));
    return kExitOk;
  }
  const velt::proto::Reply& reply = replies.front();
  switch (inv.query.kind()) {
    case velt::proto::Query::STATUS:
      printStatus(reply.answer(), inv.json);
      break;
    case velt::proto::Query::GROUPS:
      printGroups(reply.answer(), inv.json);
      break;
    case velt::proto::Query::MEMBERS:
      if (reply.answer().groups_size() != 1) return fail("the agent's answer lacks the group");
      printMembers(reply.answer(), inv.json);
      break;
    default:
      break;
  }
  if (fflush(stdout) != 0) return fail("cannot write the output: " + errnoText(errno));
  return kExitOk;
}
