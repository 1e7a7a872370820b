// GSController: the process's connection to the node agent, and the
// library's debug hooks.
#include "gs_controller.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "agent_connect.h"
#include "frame_io.h"
#include "internal/gs_internal.h"
#include "internal/gs_link.h"
#include "velt.pb.h"
#include "velt_mutex.h"
#include "vx_ffdc.h"

namespace velt_gscl_V1 {

// ---- debug hooks ----

namespace internal {

int gsParseDebugLevel(const char* text, int* out) {
  if (text == nullptr || *text == '\0') return -1;
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return -1;
  if (v < INT32_MIN || v > static_cast<long long>(UINT32_MAX)) return -1;
  // 0x80000000 and up are bit patterns, not numbers too large for an int.
  *out = static_cast<int>(static_cast<uint32_t>(v));
  return 0;
}

}  // namespace internal

namespace {

std::atomic<int>& debugLevel() {
  // Read from the environment on first use, so that it does not depend on
  // the order in which static objects are built.
  static std::atomic<int> level([] {
    int v = 0;
    if (internal::gsParseDebugLevel(getenv("VELT_GSCL_DEBUG_LEVEL"), &v) != 0) v = 0;
    return v;
  }());
  return level;
}

std::atomic<GSDebugRoutine> debugRtn{nullptr};
std::atomic<GSDebugRoutine> traceRtn{nullptr};

// Longest text handed to a routine; longer texts are cut.
constexpr size_t kMaxDebugText = 1024;

}  // namespace

int GSDebugLevel() { return debugLevel().load(); }
void GSSetDebugLevel(int level) { debugLevel().store(level); }
void GSSetDebugRtn(GSDebugRoutine fn) { debugRtn.store(fn); }
void GSSetTraceRtn(GSDebugRoutine fn) { traceRtn.store(fn); }
const char* GSTraceDebugName() { return "gscl"; }

void GSDebugPrintf(int trclvl, const char* fmt, ...) {
  GSDebugRoutine fn = (trclvl & internal::kGsclDebugRoute) != 0 ? debugRtn.load() : traceRtn.load();
  if (fn == nullptr) return;
  char text[kMaxDebugText];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  if (n < 0) return;
  fn(trclvl, text);
}

// ---- GSController ----

namespace {

namespace proto = velt::proto;

constexpr uint32_t kWireVersion = proto::WIRE_VERSION_1;

// Bounds of the waits for the agent: the hello answer, and a request's
// answer (the agent answers a provider request when the cluster applied
// it, which takes one multicast round).
constexpr std::chrono::milliseconds kDefaultHandshakeBound{10000};
constexpr std::chrono::milliseconds kDefaultRequestBound{60000};
// A send that the agent does not take within this time fails: a stuck
// agent must not hold up the caller's thread for ever.
constexpr int kSendTimeoutSecs = 10;
// Notifications read and not yet dispatched. Past either bound the
// dispatch thread is not keeping up; the connection is then given up (the
// agent would soon count us as unresponsive anyway).
constexpr size_t kMaxQueuedNotifications = 1u << 20;
constexpr size_t kMaxQueuedBytes = 512u * 1024 * 1024;
// Adapters of the cluster the library keeps information about: every
// adapter of the largest cluster.
constexpr size_t kMaxAdapters = 2049 * 48;

// The error-log template of a lost agent connection.
const struct fc_errtbl_entry kAgentLostTemplate = {
    0, "GS_GSCL_AGENT_LOST_ER", 5, 0x51,
    "The group services client lost its connection to the node agent", 1, ""};

bool validResponsiveness(const tk_gs_responsiveness_t& r) {
  switch (static_cast<int>(r.gs_responsiveness_type)) {
    case TK_GS_NO_RESPONSIVENESS:
    case TK_GS_PING_RESPONSIVENESS:
      break;
    case TK_GS_COUNTER_RESPONSIVENESS:
      // The agent reads the counter the client keeps incrementing.
      if (r.gs_counter_location == nullptr || r.gs_counter_length <= 0) return false;
      break;
    default:
      return false;
  }
  return r.gs_responsiveness_interval >= 0 && r.gs_responsiveness_response_time_limit >= 0;
}

bool knownSocketOption(int option) { return option == TK_GS_ENABLE_ADAPTER_INFO; }

void fillResponsiveness(const tk_gs_responsiveness_t& r, proto::Responsiveness* out) {
  out->set_type(static_cast<uint32_t>(r.gs_responsiveness_type));
  out->set_interval(static_cast<uint32_t>(r.gs_responsiveness_interval));
  out->set_response_time_limit(static_cast<uint32_t>(r.gs_responsiveness_response_time_limit));
}

tk_gs_velt_version_t unpackVersion(uint32_t packed) {
  tk_gs_velt_version_t v;
  v.gs_version = static_cast<uint16_t>(packed >> 24);
  v.gs_release = static_cast<uint16_t>((packed >> 16) & 0xff);
  v.gs_modification = static_cast<uint16_t>((packed >> 8) & 0xff);
  v.gs_fix = static_cast<uint16_t>(packed & 0xff);
  v.quick_version = packed;
  return v;
}

// A return code the agent sent, as one of ours; codes we do not know
// become TK_GS_NOT_OK (the caller traces the number).
tk_gs_rc_t agentRc(int32_t rc) {
  if (rc >= TK_GS_OK && rc <= TK_GS_BACKLEVEL_PROVIDERS) return static_cast<tk_gs_rc_t>(rc);
  return TK_GS_NOT_OK;
}

std::string ipKey(const std::string& ip) {
  if (ip.size() == 16) return ip;
  // IPv4 as the IPv4-mapped IPv6 address.
  std::string key(10, '\0');
  key.append("\xff\xff", 2);
  key.append(ip);
  return key;
}

bool validProvider(const proto::ProviderId& p) { return p.instance() <= 0xffff && p.node() <= 0xffff; }

// Checks what the rest of the library relies on in a frame from the agent.
// Returns false with *why set for a frame that breaks the protocol.
bool validFrame(const proto::AgentFrame& f, std::string* why) {
  if (f.version() != kWireVersion) {
    *why = "frame of wire version " + std::to_string(f.version()) + ", we speak " + std::to_string(kWireVersion);
    return false;
  }
  switch (f.body_case()) {
    case proto::AgentFrame::kReply:
    case proto::AgentFrame::kPing:
    case proto::AgentFrame::kDomainControl:
      return true;
    case proto::AgentFrame::kHelloReply:
      *why = "a second hello answer";
      return false;
    case proto::AgentFrame::BODY_NOT_SET:
      *why = "frame without a body";
      return false;
    case proto::AgentFrame::kKorEvent:
      // KOR events go to KOR sessions; this connection registered none.
      *why = "a KOR event on a group services connection";
      return false;
    case proto::AgentFrame::kNotification:
      break;
  }
  const proto::Notification& n = f.notification();
  if (n.group().empty() || n.group().size() > TK_GS_MAX_GROUP_NAME_LENGTH) {
    *why = "notification with a group name of " + std::to_string(n.group().size()) + " bytes";
    return false;
  }
  if (n.instance() > 0xffff) {
    *why = "notification for instance " + std::to_string(n.instance());
    return false;
  }
  for (uint32_t instance : n.more_instances()) {
    if (instance > 0xffff) {
      *why = "notification for instance " + std::to_string(instance);
      return false;
    }
  }
  for (const proto::ProviderId& p : n.current()) {
    if (!validProvider(p)) {
      *why = "provider id out of range in a notification";
      return false;
    }
  }
  for (const proto::ProviderId& p : n.changing()) {
    if (!validProvider(p)) {
      *why = "provider id out of range in a notification";
      return false;
    }
  }
  if (n.current_state_value().size() > TK_GS_MAX_STATE_VALUE_LENGTH ||
      n.proposed_state_value().size() > TK_GS_MAX_STATE_VALUE_LENGTH ||
      n.message().size() > TK_GS_MAX_PROVIDER_MESSAGE_LENGTH) {
    *why = "state value or provider message larger than allowed in a notification";
    return false;
  }
  for (const auto* list : {&n.full_ip(), &n.changing_ip()}) {
    for (const proto::AdapterInfo& a : *list) {
      if (a.ip().size() != 4 && a.ip().size() != 16) {
        *why = "adapter address of " + std::to_string(a.ip().size()) + " bytes";
        return false;
      }
      if (a.interface_name().size() > TK_GS_MAX_INTERFACE_NAME_LENGTH ||
          a.network_name().size() > TK_GS_MAX_NETWORK_NAME_LENGTH ||
          a.network_type().size() > TK_GS_MAX_NETWORK_TYPE_LENGTH || a.node() > 0xffff ||
          a.instance() > 0xffff) {
        *why = "adapter information out of range";
        return false;
      }
    }
  }
  return true;
}

// Copies text into a fixed field (the caller checked that it fits).
template <size_t N>
void copyField(char (&field)[N], const std::string& text) {
  size_t n = std::min(text.size(), N - 1);
  memcpy(field, text.data(), n);
  field[n] = '\0';
}

std::atomic<GSController*> theController{nullptr};

}  // namespace

// One answer awaited: filled by the reader thread (or by quit and the
// loss of the connection), read by the waiting caller. Guarded by the
// controller's mu, which is not annotated here: the analysis cannot name
// a mutex of the controller from this struct.
struct PendingCall {
  bool done = false;
  bool detached = false;    // nobody waits: the answer is only traced
  tk_gs_rc_t rc = TK_GS_NOT_OK;
  int32_t agentRc = 0;
  uint64_t seq = 0;
  std::string text;
  std::string what;
};

// A notification, ping or domain control waiting for dispatch, or the news
// that the connection is lost. Queued by the reader thread under the
// controller's mu, then owned by the dispatching thread.
struct QueuedItem {
  bool death = false;
  uint64_t seq = 0;
  size_t bytes = 0;
  proto::AgentFrame frame;
};

// The controller's connection, its reader thread and its queues.
// Thread-safe: its state is guarded by mu (sends by sendMu); the reader
// thread, the dispatching thread and requesting threads all use it.
struct GSController::Impl {
  GSController* self = nullptr;
  std::string traceId;

  // Lock order: sendMu before mu. mu is never held while a system call
  // could block (except the short shutdown in quit), nor while a callback
  // or a registered debug routine runs.
  velt::Mutex sendMu;   // one message at a time on the socket
  mutable velt::Mutex mu;
  velt::CondVar queueCv;   // a queued item, the death, the socket free to read, or quit
  velt::CondVar replyCv;   // an answer came, or quit
  velt::CondVar tokenCv;   // the socket is free for the reader thread, or quit

  int fd GUARDED_BY(mu) = -1;
  bool dead GUARDED_BY(mu) = false;       // the connection is lost (its death is queued)
  bool losing GUARDED_BY(mu) = false;     // a reader is reporting the loss (both readers may see it)
  bool quitting GUARDED_BY(mu) = false;   // quit() is taking the connection down
  std::thread reader GUARDED_BY(mu);      // started by initialize, joined by quit
  std::string socketPath GUARDED_BY(mu);
  tk_gs_responsiveness_t responsiveness GUARDED_BY(mu){};
  unsigned int socketOptions GUARDED_BY(mu) = 0;
  tk_gs_velt_version_t activeVersion GUARDED_BY(mu){};
  bool haveActiveVersion GUARDED_BY(mu) = false;
  int node GUARDED_BY(mu) = -1;
  uint32_t agentVersion GUARDED_BY(mu) = 0;
  char ffdcId[FC_ID_LEN + 1] GUARDED_BY(mu) = {0};
  std::map<uint64_t, std::shared_ptr<PendingCall>> pending GUARDED_BY(mu);
  uint64_t nextRequestId GUARDED_BY(mu) = 1;
  uint64_t frameSeq GUARDED_BY(mu) = 0;   // frames read, all connections
  std::deque<QueuedItem> queue GUARDED_BY(mu);
  size_t queuedBytes GUARDED_BY(mu) = 0;
  int waitingDispatchers GUARDED_BY(mu) = 0;
  // One thread at a time reads the socket: the reader thread, or a
  // dispatcher that would otherwise only wait for the reader thread to pass
  // it the next notification (the way of every notification then has one
  // thread wake-up less). A waiting dispatcher asks the reader thread to
  // hand over through wakeFd, an eventfd in the reader's poll.
  bool reading GUARDED_BY(mu) = false;
  bool dispatcherWantsToRead GUARDED_BY(mu) = false;
  int wakeFd GUARDED_BY(mu) = -1;
  // The packets read so far of a frame under way, and the packet buffer
  // (one byte more than a packet may have, so that a larger one shows):
  // used only by the thread that reads.
  velt::wire::Reassembler reassembler{velt::wire::kDefaultMaxMessage};
  std::vector<char> readBuf = std::vector<char>(velt::wire::kMaxPacket + 1);
  bool havePing GUARDED_BY(mu) = false;   // a ping is being dispatched
  uint64_t pingSeq GUARDED_BY(mu) = 0;
  std::map<std::string, tk_gs_adapter_info_t> adapters GUARDED_BY(mu);   // by 16-byte address
  bool adapterBoundReported GUARDED_BY(mu) = false;
  std::chrono::milliseconds handshakeBound GUARDED_BY(mu) = kDefaultHandshakeBound;
  std::chrono::milliseconds requestBound GUARDED_BY(mu) = kDefaultRequestBound;

  void readerLoop(int fd, int wfd);
  enum class Read { kNothing, kFrame, kLost };
  // Waits for the next packet on rfd (or for wfd, when not negative, to be
  // signalled: kNothing) and takes the frame it completes. Requires: the
  // caller reads (reading set by it), mu not held.
  Read readOnce(int rfd, int wfd, std::string* why, int* err);
  // Handles one frame from the reader. Returns false (with *why) when the
  // connection has to be given up.
  bool takeFrameLocked(proto::AgentFrame&& f, size_t bytes, std::string* why) REQUIRES(mu);
  void connectionLost(const std::string& why, int err);
  // Sends one frame. Returns 0 or an errno value (ENOTCONN without a
  // connection).
  int sendFrame(const proto::ClientFrame& f);
  internal::CallResult call(proto::Request* request, const char* what, bool detached);
  tk_gs_rc_t processItem(QueuedItem& item);
  void storeAdapters(const proto::Notification& n);
};

// ---- the reader thread ----

void GSController::Impl::readerLoop(int rfd, int wfd) {
  std::string why;
  int err = 0;
  while (true) {
    {
      velt::MutexLock lk(mu);
      while (!quitting && (reading || dispatcherWantsToRead)) tokenCv.wait(mu);
      if (quitting) return;
      reading = true;
    }
    Read r = readOnce(rfd, wfd, &why, &err);
    velt::MutexLock lk(mu);
    reading = false;
    // A dispatcher that waits may read now.
    queueCv.notifyAll();
    if (quitting) return;
    if (r == Read::kLost) break;
  }
  connectionLost(why, err);
}

GSController::Impl::Read GSController::Impl::readOnce(int rfd, int wfd, std::string* why, int* err) {
  // Waits without a time limit on purpose: the agent may stay quiet for
  // hours, and quit() ends this wait by shutting the socket down.
  struct pollfd p[2] = {{rfd, POLLIN | POLLRDHUP, 0}, {wfd, POLLIN, 0}};
  int n = poll(p, wfd >= 0 ? 2 : 1, -1);
  if (n < 0) {
    if (errno == EINTR) return Read::kNothing;
    *err = errno;
    *why = "waiting on the connection failed";
    return Read::kLost;
  }
  if (wfd >= 0 && (p[1].revents & POLLIN) != 0) {
    uint64_t asked;
    while (read(wfd, &asked, sizeof asked) < 0 && errno == EINTR) {
    }
    return Read::kNothing;
  }
  ssize_t len = recv(rfd, readBuf.data(), readBuf.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (len < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return Read::kNothing;
    *err = errno;
    *why = "reading from the agent failed";
    return Read::kLost;
  }
  if (len == 0) {
    *why = "closed by the agent";
    return Read::kLost;
  }
  proto::AgentFrame frame;
  size_t bytes = 0;
  int r = internal::readAgentPacket(&reassembler, readBuf.data(), static_cast<size_t>(len), &frame, &bytes, why);
  if (r < 0) return Read::kLost;
  if (r == 0) return Read::kNothing;
  velt::MutexLock lk(mu);
  if (quitting) return Read::kNothing;
  return takeFrameLocked(std::move(frame), bytes, why) ? Read::kFrame : Read::kLost;
}

bool GSController::Impl::takeFrameLocked(proto::AgentFrame&& f, size_t bytes, std::string* why) {
  uint64_t seq = ++frameSeq;
  if (f.body_case() == proto::AgentFrame::kReply) {
    const proto::Reply& reply = f.reply();
    auto it = pending.find(reply.id());
    if (it == pending.end()) {
      // The caller gave up waiting (time-out) before the answer came.
      GSDebugPrintf(internal::kGsclDebugRoute, "gscl: answer to request %llu, which nobody waits for any more (rc %d)",
                    static_cast<unsigned long long>(reply.id()), reply.rc());
      return true;
    }
    std::shared_ptr<PendingCall> call = it->second;
    call->done = true;
    call->agentRc = reply.rc();
    call->rc = agentRc(reply.rc());
    call->seq = seq;
    call->text = reply.text();
    if (call->detached) {
      // Nobody waits: these are tidy-ups whose refusal changes nothing for
      // us (the agent may have dropped the thing already).
      pending.erase(it);
      if (reply.rc() != 0 && internal::gsDetailWanted(GSDebugLevel())) {
        GSDebugPrintf(internal::kGsclDebugRoute, "gscl: the agent refused %s: %s %s", call->what.c_str(),
                      gscl_rc_name(reply.rc()), reply.text().c_str());
      }
      return true;
    }
    replyCv.notifyAll();
    return true;
  }
  if (queue.size() >= kMaxQueuedNotifications || queuedBytes + bytes > kMaxQueuedBytes) {
    *why = "dispatch is not keeping up: " + std::to_string(queue.size()) + " notifications (" +
           std::to_string(queuedBytes) + " bytes) wait";
    return false;
  }
  QueuedItem item;
  item.seq = seq;
  item.bytes = bytes;
  item.frame = std::move(f);
  queue.push_back(std::move(item));
  queuedBytes += bytes;
  queueCv.notifyAll();
  return true;
}

void GSController::Impl::connectionLost(const std::string& why, int err) {
  std::string path;
  {
    velt::MutexLock lk(mu);
    if (quitting) return;   // quit() took the connection down: no death to announce
    if (dead || losing) return;   // the other reader saw it first
    losing = true;
    path = socketPath;
  }
  // The report and the error-log entry come first, so that whoever hears
  // of the death can already name the entry.
  char etext[128];
  std::string text = "lost the connection to the agent at " + path + ": " + why;
  if (err != 0) text += std::string(" (") + strerror_r(err, etext, sizeof etext) + ")";
  GSDebugPrintf(0, "gscl: %s", text.c_str());
  fc_eid_t id;
  memset(id, 0, sizeof id);
  fc_log_error(id, nullptr, program_invocation_short_name, GSTraceDebugName(), __FILE__, "1", __LINE__, 1, 0,
               &kAgentLostTemplate, text.c_str(), text.size(), nullptr);

  velt::MutexLock lk(mu);
  if (!fc_is_id_empty(id)) memcpy(ffdcId, id, sizeof ffdcId);
  if (quitting) return;
  dead = true;
  for (auto& entry : pending) {
    entry.second->done = true;
    entry.second->rc = TK_GS_GS_HAS_DIED;
  }
  pending.clear();
  QueuedItem death;
  death.death = true;
  death.seq = ++frameSeq;
  queue.push_back(std::move(death));
  replyCv.notifyAll();
  queueCv.notifyAll();
}

// ---- sending and requests ----

int GSController::Impl::sendFrame(const proto::ClientFrame& f) {
  std::string bytes;
  if (!f.SerializeToString(&bytes)) return EINVAL;
  if (bytes.size() > velt::wire::kDefaultMaxMessage) return EMSGSIZE;
  velt::MutexLock sendLock(sendMu);
  int sfd;
  {
    velt::MutexLock lk(mu);
    if (fd < 0 || quitting) return ENOTCONN;
    if (dead) return EPIPE;
    sfd = fd;
  }
  // quit() closes the descriptor only while holding sendMu, so sfd stays
  // ours until this send ends.
  return velt::wire::sendMessage(sfd, bytes);
}

internal::CallResult GSController::Impl::call(proto::Request* request, const char* what, bool detached) {
  internal::CallResult result;
  auto pendingCall = std::make_shared<PendingCall>();
  pendingCall->detached = detached;
  pendingCall->what = what;
  uint64_t id;
  std::chrono::milliseconds bound;
  {
    velt::MutexLock lk(mu);
    if (fd < 0 || quitting) {
      result.rc = TK_GS_NOT_INITIALIZED;
      return result;
    }
    if (dead) {
      result.rc = TK_GS_GS_HAS_DIED;
      return result;
    }
    id = nextRequestId++;
    pending[id] = pendingCall;
    bound = requestBound;
  }
  request->set_id(id);
  proto::ClientFrame frame;
  frame.set_version(kWireVersion);
  *frame.mutable_request() = *request;
  int err = sendFrame(frame);
  if (err != 0) {
    velt::MutexLock lk(mu);
    pending.erase(id);
    char etext[128];
    GSDebugPrintf(0, "gscl: cannot send %s to the agent: %s", what, strerror_r(err, etext, sizeof etext));
    if (err == EMSGSIZE) {
      result.rc = TK_GS_LIMIT_EXCEEDED;
    } else if (err == ENOTCONN) {
      result.rc = TK_GS_NOT_INITIALIZED;
    } else if (err == EAGAIN || err == EWOULDBLOCK) {
      result.rc = TK_GS_TIMEOUT;
    } else {
      result.rc = TK_GS_GS_HAS_DIED;
    }
    return result;
  }
  if (detached) {
    result.rc = TK_GS_OK;
    return result;
  }
  velt::MutexLock lk(mu);
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!pendingCall->done) {
    if (!replyCv.waitUntil(mu, deadline)) break;
  }
  const bool answered = pendingCall->done;
  pending.erase(id);
  if (!answered) {
    lk.unlock();
    GSDebugPrintf(0, "gscl: the agent did not answer %s (request %llu) within %lld ms", what,
                  static_cast<unsigned long long>(id), static_cast<long long>(bound.count()));
    result.rc = TK_GS_TIMEOUT;
    return result;
  }
  result.rc = pendingCall->rc;
  result.seq = pendingCall->seq;
  result.text = pendingCall->text;
  if (pendingCall->agentRc != 0) {
    lk.unlock();
    if (result.rc == TK_GS_NOT_OK && pendingCall->agentRc != TK_GS_NOT_OK) {
      GSDebugPrintf(0, "gscl: the agent answered %s with the unknown code %d: %s", what, pendingCall->agentRc,
                    result.text.c_str());
    } else if (internal::gsDetailWanted(GSDebugLevel())) {
      GSDebugPrintf(internal::kGsclDebugRoute, "gscl: the agent answered %s with %s: %s", what,
                    gscl_rc_name(pendingCall->agentRc), result.text.c_str());
    }
  }
  return result;
}

// ---- dispatch ----

void GSController::Impl::storeAdapters(const proto::Notification& n) {
  velt::MutexLock lk(mu);
  for (const auto* list : {&n.full_ip(), &n.changing_ip()}) {
    for (const proto::AdapterInfo& a : *list) {
      std::string key = ipKey(a.ip());
      auto it = adapters.find(key);
      if (it == adapters.end()) {
        if (adapters.size() >= kMaxAdapters) {
          if (!adapterBoundReported) {
            adapterBoundReported = true;
            GSDebugPrintf(0, "gscl: information about more than %zu adapters came; later addresses are not kept",
                          kMaxAdapters);
          }
          continue;
        }
        it = adapters.emplace(key, tk_gs_adapter_info_t{}).first;
      }
      tk_gs_adapter_info_t& info = it->second;
      memset(&info, 0, sizeof info);
      memcpy(info.gs_ip_addr.gs_bytes, key.data(), sizeof info.gs_ip_addr.gs_bytes);
      copyField(info.gs_interface_name, a.interface_name());
      info.gs_node_number = static_cast<uint16_t>(a.node());
      info.gs_instance_number = static_cast<uint16_t>(a.instance());
      copyField(info.gs_group_name, n.group());
      copyField(info.gs_network_name, a.network_name());
      copyField(info.gs_network_type, a.network_type());
    }
  }
}

tk_gs_rc_t GSController::Impl::processItem(QueuedItem& item) {
  if (item.death) {
    internal::ClientAccess::deliverDeath(item.seq);
    return TK_GS_GS_HAS_DIED;
  }
  const proto::AgentFrame& f = item.frame;
  switch (f.body_case()) {
    case proto::AgentFrame::kPing: {
      {
        velt::MutexLock lk(mu);
        havePing = true;
        pingSeq = f.ping().seq();
      }
      tk_gs_responsiveness_notification_t n;
      memset(&n, 0, sizeof n);
      n.gs_notification_type = TK_GS_RESPONSIVENESS_NOTIFICATION;
      n.gs_time_limit = static_cast<uint16_t>(std::min<uint32_t>(f.ping().time_limit(), 0xffff));
      self->responsivenessCb(&n);
      velt::MutexLock lk(mu);
      havePing = false;
      return TK_GS_OK;
    }
    case proto::AgentFrame::kDomainControl: {
      uint32_t event = f.domain_control().event();
      if (event < TK_GS_DOMAIN_DISSOLVE || event > TK_GS_DOMAIN_VERSION) {
        GSDebugPrintf(0, "gscl: domain control event %u from the agent is not known; ignored", event);
        return TK_GS_OK;
      }
      tk_gs_domain_control_notification_t n;
      memset(&n, 0, sizeof n);
      n.gs_notification_type = TK_GS_DOMAIN_CONTROL_NOTIFICATION;
      n.gs_domain_ctrl_event = static_cast<tk_gs_domain_control_event_t>(event);
      n.gs_velt_version = unpackVersion(f.domain_control().active_version());
      self->domainControlCb(&n);
      return TK_GS_OK;
    }
    case proto::AgentFrame::kNotification: {
      const proto::Notification& n = f.notification();
      if (n.kind() == proto::Notification::SUBSCRIPTION) storeAdapters(n);
      uint16_t node;
      {
        velt::MutexLock lk(mu);
        node = static_cast<uint16_t>(this->node < 0 ? 0 : this->node);
      }
      internal::ClientAccess::deliver(n, item.seq, node);
      // The agent sends one notification for all of our providers it is
      // for: each of them gets it as its own.
      if (n.more_instances_size() > 0) {
        proto::Notification each = n;
        each.clear_more_instances();
        for (uint32_t instance : n.more_instances()) {
          each.set_instance(instance);
          internal::ClientAccess::deliver(each, item.seq, node);
        }
      }
      return TK_GS_OK;
    }
    default:
      // The reader queues nothing else.
      return TK_GS_OK;
  }
}

// ---- GSController ----

GSController::GSController(int interfaceWord) : interfaceWord_(interfaceWord), impl_(new Impl) {
  impl_->self = this;
  impl_->traceId = "GSController[pid=" + std::to_string(getpid()) + "]";
  theController.store(this);
}

GSController::~GSController() {
  quit();
  GSController* me = this;
  theController.compare_exchange_strong(me, nullptr);
}

tk_gs_rc_t GSController::initialize() {
  char etext[128];
  {
    velt::MutexLock lk(impl_->mu);
    if (impl_->fd >= 0) return TK_GS_ALREADY_INITIALIZED;
  }

  const char* path = velt::wire::agentSocketPath();
  velt::wire::AgentConnection conn = velt::wire::connectToAgent(path, kSendTimeoutSecs);
  switch (conn.step) {
    case velt::wire::ConnectStep::kConnected:
      break;
    case velt::wire::ConnectStep::kEmptyPath:
      GSDebugPrintf(0, "gscl: VELT_AGENT_SOCKET is set but empty");
      return TK_GS_BAD_PARAMETER;
    case velt::wire::ConnectStep::kPathTooLong:
      GSDebugPrintf(0, "gscl: agent socket path is %zu characters long, at most %zu fit: %.200s",
                    strlen(path), velt::wire::maxAgentSocketPathLength(), path);
      return TK_GS_BAD_PARAMETER;
    case velt::wire::ConnectStep::kSocket: {
      GSDebugPrintf(0, "gscl: cannot create a socket for the agent: %s",
                    strerror_r(conn.err, etext, sizeof etext));
      bool exhausted = conn.err == EMFILE || conn.err == ENFILE || conn.err == ENOMEM || conn.err == ENOBUFS;
      return exhausted ? TK_GS_NO_MEMORY : TK_GS_NOT_OK;
    }
    case velt::wire::ConnectStep::kConnect:
      GSDebugPrintf(0, "gscl: cannot connect to the agent at %s: %s", path,
                    strerror_r(conn.err, etext, sizeof etext));
      if (conn.err == EACCES || conn.err == EPERM) return TK_GS_PERMISSION_DENIED;
      // ENOENT, ECONNREFUSED, EAGAIN, a stale or foreign file at the path:
      // all mean that no agent serves us there now; the caller retries.
      return TK_GS_NOT_CONNECTED;
    case velt::wire::ConnectStep::kPeerCredentials:
      GSDebugPrintf(0, "gscl: cannot read the credentials of the agent at %s: %s", path,
                    strerror_r(conn.err, etext, sizeof etext));
      return TK_GS_NOT_CONNECTED;
    case velt::wire::ConnectStep::kForeignPeer:
      GSDebugPrintf(0, "gscl: the agent socket %s is served by uid %u (pid %d), neither root nor us",
                    path, static_cast<unsigned>(conn.peerUid), static_cast<int>(conn.peerPid));
      return TK_GS_PERMISSION_DENIED;
    case velt::wire::ConnectStep::kSetup:
      GSDebugPrintf(0, "gscl: cannot set up the agent connection: %s", strerror_r(conn.err, etext, sizeof etext));
      return TK_GS_NOT_OK;
  }
  int fd = conn.fd;

  // Hello: who we are and what we want from the agent.
  proto::ClientFrame hello;
  hello.set_version(kWireVersion);
  std::chrono::milliseconds handshakeBound;
  {
    velt::MutexLock lk(impl_->mu);
    proto::Hello* h = hello.mutable_hello();
    h->set_interface_word(static_cast<uint32_t>(interfaceWord_));
    h->set_pid(static_cast<uint32_t>(getpid()));
    h->set_program(program_invocation_short_name);
    fillResponsiveness(impl_->responsiveness, h->mutable_responsiveness());
    // On the wire each option is its own value as a bit.
    uint32_t wireOptions = 0;
    if ((impl_->socketOptions & (1u << TK_GS_ENABLE_ADAPTER_INFO)) != 0) wireOptions |= TK_GS_ENABLE_ADAPTER_INFO;
    h->set_socket_options(wireOptions);
    h->set_grouped_notifications(true);
    handshakeBound = impl_->handshakeBound;
  }
  std::string helloBytes;
  hello.SerializeToString(&helloBytes);
  // Only the answer is read here: what follows it stays in the socket for
  // the reader thread.
  proto::AgentFrame answer;
  velt::wire::HelloOutcome outcome = velt::wire::exchangeHello(fd, helloBytes, handshakeBound, &answer);
  if (outcome.step == velt::wire::HelloStep::kSendFailed) {
    close(fd);
    GSDebugPrintf(0, "gscl: cannot say hello to the agent at %s: %s", path,
                  strerror_r(outcome.err, etext, sizeof etext));
    return TK_GS_NOT_CONNECTED;
  }
  tk_gs_rc_t failure = TK_GS_OK;
  std::string why = outcome.why;
  switch (outcome.step) {
    case velt::wire::HelloStep::kAnswered:
      if (answer.hello_reply().rc() != 0) {
        failure = agentRc(answer.hello_reply().rc());
        why = std::string("the agent refused us with ") + gscl_rc_name(answer.hello_reply().rc()) + ": " +
              answer.hello_reply().text();
      } else if (answer.hello_reply().node() > 0xffff) {
        failure = TK_GS_BAD_FRAME;
        why = "node number " + std::to_string(answer.hello_reply().node()) + " in the hello answer";
      }
      break;
    case velt::wire::HelloStep::kTimedOut:
      failure = TK_GS_TIMEOUT;
      break;
    case velt::wire::HelloStep::kSendFailed:
    case velt::wire::HelloStep::kHungUp:
    case velt::wire::HelloStep::kReadFailed:
      failure = TK_GS_NOT_CONNECTED;
      break;
    case velt::wire::HelloStep::kBadFrame:
      failure = TK_GS_BAD_FRAME;
      break;
    case velt::wire::HelloStep::kWrongVersion:
      failure = TK_GS_VERSION_MISMATCH;
      break;
  }
  if (failure != TK_GS_OK) {
    close(fd);
    GSDebugPrintf(0, "gscl: handshake with the agent at %s failed: %s", path, why.c_str());
    return failure;
  }
  const proto::HelloReply& reply = answer.hello_reply();

  {
    velt::MutexLock lk(impl_->mu);
    if (impl_->fd >= 0) {
      // Another initialize won the race; ours is not needed.
      close(fd);
      return TK_GS_ALREADY_INITIALIZED;
    }
    impl_->fd = fd;
    impl_->dead = false;
    impl_->losing = false;
    impl_->socketPath = path;
    impl_->node = static_cast<int>(reply.node());
    impl_->agentVersion = reply.agent_version();
    if (reply.active_version() != 0) {
      impl_->activeVersion = unpackVersion(reply.active_version());
      impl_->haveActiveVersion = true;
    }
    impl_->queue.clear();
    impl_->queuedBytes = 0;
    impl_->adapters.clear();
    impl_->adapterBoundReported = false;
    impl_->reassembler = velt::wire::Reassembler(velt::wire::kDefaultMaxMessage);
    // Without an eventfd the reader thread is never asked to hand over:
    // dispatch then waits for it as it always could.
    impl_->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    try {
      impl_->reader = std::thread(&Impl::readerLoop, impl_.get(), fd, impl_->wakeFd);
    } catch (const std::system_error& e) {
      impl_->fd = -1;
      if (impl_->wakeFd >= 0) close(impl_->wakeFd);
      impl_->wakeFd = -1;
      close(fd);
      GSDebugPrintf(0, "gscl: cannot start the agent reader thread: %s", e.what());
      return TK_GS_NO_MEMORY;
    }
  }
  if (internal::gsDetailWanted(GSDebugLevel())) {
    GSDebugPrintf(internal::kGsclDebugRoute,
                  "gscl: connected to the agent at %s (interface word 0x%x): node %u, agent version 0x%08x, "
                  "active version 0x%08x",
                  path, static_cast<unsigned>(interfaceWord_), reply.node(), reply.agent_version(),
                  reply.active_version());
  }
  return TK_GS_OK;
}

void GSController::quit() {
  std::thread reader;
  uint64_t seq;
  {
    velt::MutexLock lk(impl_->mu);
    if (impl_->fd < 0 || impl_->quitting) return;
    impl_->quitting = true;
    // Ends the reader's wait, and tells the agent at once.
    shutdown(impl_->fd, SHUT_RDWR);
    for (auto& entry : impl_->pending) {
      entry.second->done = true;
      entry.second->rc = TK_GS_NOT_INITIALIZED;
    }
    impl_->pending.clear();
    impl_->queue.clear();
    impl_->queuedBytes = 0;
    impl_->replyCv.notifyAll();
    impl_->queueCv.notifyAll();
    impl_->tokenCv.notifyAll();
    reader = std::move(impl_->reader);
    seq = ++impl_->frameSeq;
  }
  if (reader.joinable()) {
    if (reader.get_id() == std::this_thread::get_id()) {
      reader.detach();   // cannot happen: the reader runs no application code
    } else {
      reader.join();
    }
  }
  internal::ClientAccess::resetAll(seq);
  // The descriptor is closed only once no send uses it, so that a number
  // reused by another open never gets written to here. A send in progress
  // ends at once: the socket is shut down.
  velt::MutexLock sendLock(impl_->sendMu);
  velt::MutexLock lk(impl_->mu);
  // Nor while a dispatcher still reads it (it saw the shutdown and is on
  // its way out).
  while (impl_->reading) impl_->tokenCv.wait(impl_->mu);
  close(impl_->fd);
  impl_->fd = -1;
  if (impl_->wakeFd >= 0) close(impl_->wakeFd);
  impl_->wakeFd = -1;
  impl_->dead = false;
  impl_->quitting = false;
}

tk_gs_rc_t GSController::dispatch(tk_gs_dispatch_type_t how) {
  const int howBits = static_cast<int>(how);
  if (howBits != TK_GS_BLOCKING && howBits != TK_GS_NON_BLOCKING) return TK_GS_BAD_PARAMETER;
  velt::MutexLock lk(impl_->mu);
  while (true) {
    if (impl_->fd < 0 || impl_->quitting) return TK_GS_NOT_INITIALIZED;
    if (!impl_->queue.empty()) {
      QueuedItem item = std::move(impl_->queue.front());
      impl_->queue.pop_front();
      impl_->queuedBytes -= item.bytes;
      lk.unlock();
      if (internal::gsDetailWanted(GSDebugLevel()) && !item.death) {
        GSDebugPrintf(internal::kGsclDebugRoute, "gscl: dispatching frame %llu (%zu bytes)",
                      static_cast<unsigned long long>(item.seq), item.bytes);
      }
      return impl_->processItem(item);
    }
    // The death was dispatched already: it stays dead until quit.
    if (impl_->dead) return TK_GS_GS_HAS_DIED;
    if (howBits == TK_GS_NON_BLOCKING) return TK_GS_NO_NOTIFICATION;
    if (!impl_->reading) {
      // Nothing queued and nobody reads: the next frame is read here, so
      // that a notification runs its callback on the thread that read it.
      impl_->reading = true;
      const int rfd = impl_->fd;
      ++impl_->waitingDispatchers;
      lk.unlock();
      std::string why;
      int err = 0;
      Impl::Read r = impl_->readOnce(rfd, -1, &why, &err);
      lk.lock();
      --impl_->waitingDispatchers;
      impl_->reading = false;
      impl_->tokenCv.notifyAll();
      if (r == Impl::Read::kLost) {
        lk.unlock();
        impl_->connectionLost(why, err);
        lk.lock();
      }
      continue;
    }
    // The reader thread reads: it is asked to hand over. Waits without a
    // time limit by design: the dispatch thread has nothing else to do,
    // and quit(), the agent's next frame or the hand-over wakes it.
    impl_->dispatcherWantsToRead = true;
    if (impl_->wakeFd >= 0) {
      const uint64_t one = 1;
      // A counter that is already signalled stays so: the reader wakes
      // either way.
      ssize_t ignored = write(impl_->wakeFd, &one, sizeof one);
      (void)ignored;
    }
    ++impl_->waitingDispatchers;
    impl_->queueCv.wait(impl_->mu);
    --impl_->waitingDispatchers;
    impl_->dispatcherWantsToRead = false;
    impl_->tokenCv.notifyAll();
  }
}

tk_gs_callback_rc_t GSController::responsivenessCb(const tk_gs_responsiveness_notification_t* n) {
  if (n == nullptr) return TK_GS_CALLBACK_NOT_OK;
  uint64_t seq;
  {
    velt::MutexLock lk(impl_->mu);
    if (!impl_->havePing) return TK_GS_CALLBACK_OK;   // not called from dispatch: nothing to answer
    impl_->havePing = false;
    seq = impl_->pingSeq;
  }
  proto::ClientFrame f;
  f.set_version(kWireVersion);
  f.mutable_ping_reply()->set_seq(seq);
  int err = impl_->sendFrame(f);
  if (err != 0) {
    char etext[128];
    GSDebugPrintf(0, "gscl: cannot answer the agent's ping %llu: %s", static_cast<unsigned long long>(seq),
                  strerror_r(err, etext, sizeof etext));
    return TK_GS_CALLBACK_NOT_OK;
  }
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t GSController::queryCb(const tk_gs_query_notification_t* n) {
  if (n == nullptr) return TK_GS_CALLBACK_NOT_OK;
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t GSController::domainControlCb(const tk_gs_domain_control_notification_t* n) {
  if (n == nullptr) return TK_GS_CALLBACK_NOT_OK;
  if (static_cast<int>(n->gs_domain_ctrl_event) == TK_GS_DOMAIN_VERSION) setActiveVersion(n->gs_velt_version);
  return TK_GS_CALLBACK_OK;
}

tk_gs_rc_t GSController::changeResponsiveness(const tk_gs_responsiveness_t* r) {
  if (r == nullptr || !validResponsiveness(*r)) return TK_GS_BAD_PARAMETER;
  bool connected;
  {
    velt::MutexLock lk(impl_->mu);
    impl_->responsiveness = *r;
    connected = impl_->fd >= 0 && !impl_->quitting;
  }
  // Kept for the next connection in any case; a connected agent is told.
  if (!connected) return TK_GS_OK;
  proto::Request request;
  fillResponsiveness(*r, request.mutable_change_responsiveness()->mutable_responsiveness());
  return impl_->call(&request, "changeResponsiveness", false).rc;
}

tk_gs_rc_t GSController::dissolveDomain() {
  // The agents dissolve groups by themselves when partitions merge; a
  // client has no say in it.
  return TK_GS_NOT_SUPPORTED;
}

tk_gs_rc_t GSController::setResponsiveness(const tk_gs_responsiveness_t& r) {
  if (!validResponsiveness(r)) return TK_GS_BAD_PARAMETER;
  velt::MutexLock lk(impl_->mu);
  impl_->responsiveness = r;
  return TK_GS_OK;
}

tk_gs_responsiveness_t GSController::responsiveness() const {
  velt::MutexLock lk(impl_->mu);
  return impl_->responsiveness;
}

tk_gs_rc_t GSController::setSocketOption(int option) {
  if (!knownSocketOption(option)) return TK_GS_BAD_PARAMETER;
  velt::MutexLock lk(impl_->mu);
  impl_->socketOptions |= 1u << option;
  return TK_GS_OK;
}

bool GSController::isSocketOptionSet(int option) const {
  if (!knownSocketOption(option)) return false;
  velt::MutexLock lk(impl_->mu);
  return (impl_->socketOptions & (1u << option)) != 0;
}

const char* GSController::get_ffdc_id() const {
  velt::MutexLock lk(impl_->mu);
  return impl_->ffdcId[0] != '\0' ? impl_->ffdcId : nullptr;
}

tk_gs_rc_t GSController::get_velt_active_version(tk_gs_velt_version_t* out) const {
  if (out == nullptr) return TK_GS_BAD_PARAMETER;
  velt::MutexLock lk(impl_->mu);
  if (!impl_->haveActiveVersion) {
    memset(out, 0, sizeof *out);
    return TK_GS_NOT_OK;
  }
  *out = impl_->activeVersion;
  return TK_GS_OK;
}

tk_gs_rc_t GSController::get_adapter_info(const tk_gs_ip_addr* ip, tk_gs_adapter_info_t* info) const {
  if (ip == nullptr || info == nullptr) return TK_GS_BAD_PARAMETER;
  std::string key(reinterpret_cast<const char*>(ip->gs_bytes), sizeof ip->gs_bytes);
  velt::MutexLock lk(impl_->mu);
  auto it = impl_->adapters.find(key);
  if (it == impl_->adapters.end()) return TK_GS_ADDRESS_UNKNOWN;
  *info = it->second;
  return TK_GS_OK;
}

const char* GSController::getTraceIdStr() const { return impl_->traceId.c_str(); }

void GSController::setActiveVersion(const tk_gs_velt_version_t& v) {
  velt::MutexLock lk(impl_->mu);
  impl_->activeVersion = v;
  impl_->haveActiveVersion = true;
}

bool GSController::isConnected() const {
  velt::MutexLock lk(impl_->mu);
  return impl_->fd >= 0 && !impl_->dead && !impl_->quitting;
}

int GSController::getNodeNumber() const {
  velt::MutexLock lk(impl_->mu);
  return impl_->node;
}

uint32_t GSController::agentVersion() const {
  velt::MutexLock lk(impl_->mu);
  return impl_->agentVersion;
}

int GSController::dispatchersWaitingForTesting() const {
  velt::MutexLock lk(impl_->mu);
  return impl_->waitingDispatchers;
}

void GSController::setHandshakeTimeoutForTesting(std::chrono::milliseconds bound) {
  velt::MutexLock lk(impl_->mu);
  impl_->handshakeBound = bound;
}

void GSController::setRequestTimeoutForTesting(std::chrono::milliseconds bound) {
  velt::MutexLock lk(impl_->mu);
  impl_->requestBound = bound;
}

// ---- what clients need of the controller ----

namespace internal {

GSController* ControllerAccess::current() { return theController.load(); }

CallResult ControllerAccess::call(proto::Request* request, const char* what) {
  GSController* c = current();
  if (c == nullptr) {
    CallResult r;
    r.rc = TK_GS_NOT_INITIALIZED;
    return r;
  }
  return c->impl_->call(request, what, false);
}

void ControllerAccess::sendDetached(proto::Request* request, const char* what) {
  GSController* c = current();
  if (c != nullptr) c->impl_->call(request, what, true);
}

uint64_t ControllerAccess::lastFrameSeq() {
  GSController* c = current();
  if (c == nullptr) return 0;
  velt::MutexLock lk(c->impl_->mu);
  return c->impl_->frameSeq;
}

uint16_t ControllerAccess::nodeNumber() {
  GSController* c = current();
  if (c == nullptr) return 0;
  velt::MutexLock lk(c->impl_->mu);
  return static_cast<uint16_t>(c->impl_->node < 0 ? 0 : c->impl_->node);
}

int readAgentPacket(velt::wire::Reassembler* reassembler, const char* data, size_t len, proto::AgentFrame* frame,
                    size_t* bytes, std::string* why) {
  if (len > velt::wire::kMaxPacket) {
    *why = "malformed frame from the agent: packet of " + std::to_string(len) + " bytes";
    return -1;
  }
  std::string message;
  std::string feedWhy;
  int r = reassembler->feed(data, len, &message, &feedWhy);
  if (r < 0) {
    *why = "malformed frame from the agent: " + feedWhy;
    return -1;
  }
  if (r == 0) return 0;
  if (!frame->ParseFromString(message)) {
    *why = "malformed frame from the agent: it does not parse (" + std::to_string(message.size()) + " bytes)";
    return -1;
  }
  std::string frameWhy;
  if (!validFrame(*frame, &frameWhy)) {
    *why = "malformed frame from the agent: " + frameWhy;
    return -1;
  }
  *bytes = message.size();
  return 1;
}

}  // namespace internal

}  // namespace velt_gscl_V1
