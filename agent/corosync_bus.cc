#include "corosync_bus.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include <corosync/corotypes.h>
#include <corosync/cpg.h>

namespace velt {
namespace agent {

namespace {

// Largest node number the cluster's state can carry.
constexpr uint32_t kMaxNodeNumber = 65535;
// Fragment payload when corosync does not say what it carries at once.
constexpr size_t kFallbackAtomicBytes = 64 * 1024;
// Smallest atomic size we believe; anything less is taken as unknown.
constexpr size_t kMinAtomicBytes = FragmentHeader::kSize + 64;
// While corosync stays away, one line per this many attempts.
constexpr uint64_t kAttemptsPerLogLine = 60;

const char* csName(int rc) {
  switch (rc) {
    case CS_OK: return "CS_OK";
    case CS_ERR_LIBRARY: return "CS_ERR_LIBRARY";
    case CS_ERR_VERSION: return "CS_ERR_VERSION";
    case CS_ERR_INIT: return "CS_ERR_INIT";
    case CS_ERR_TIMEOUT: return "CS_ERR_TIMEOUT";
    case CS_ERR_TRY_AGAIN: return "CS_ERR_TRY_AGAIN";
    case CS_ERR_INVALID_PARAM: return "CS_ERR_INVALID_PARAM";
    case CS_ERR_NO_MEMORY: return "CS_ERR_NO_MEMORY";
    case CS_ERR_BAD_HANDLE: return "CS_ERR_BAD_HANDLE";
    case CS_ERR_BUSY: return "CS_ERR_BUSY";
    case CS_ERR_ACCESS: return "CS_ERR_ACCESS";
    case CS_ERR_NOT_EXIST: return "CS_ERR_NOT_EXIST";
    case CS_ERR_EXIST: return "CS_ERR_EXIST";
    case CS_ERR_NO_SPACE: return "CS_ERR_NO_SPACE";
    case CS_ERR_INTERRUPT: return "CS_ERR_INTERRUPT";
    case CS_ERR_NO_RESOURCES: return "CS_ERR_NO_RESOURCES";
    case CS_ERR_NOT_SUPPORTED: return "CS_ERR_NOT_SUPPORTED";
    case CS_ERR_MESSAGE_ERROR: return "CS_ERR_MESSAGE_ERROR";
    case CS_ERR_TOO_BIG: return "CS_ERR_TOO_BIG";
    case CS_ERR_SECURITY: return "CS_ERR_SECURITY";
    default: return "CS error";
  }
}

std::string csText(const char* call, int rc) {
  return std::string(call) + ": " + csName(rc) + " (" + std::to_string(rc) + ")";
}

std::string nodeList(const std::vector<uint32_t>& nodes) {
  std::string out;
  for (uint32_t n : nodes) out += (out.empty() ? "" : " ") + std::to_string(n);
  return out.empty() ? "none" : out;
}

std::vector<CpgMember> members(const struct cpg_address* list, size_t n) {
  std::vector<CpgMember> out;
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) out.push_back(CpgMember{list[i].nodeid, list[i].pid, list[i].reason});
  return out;
}

}  // namespace

// libcpg calls plain functions; they find their bus through the handle's
// context and run on the bus's thread, inside cpg_dispatch().
struct CorosyncBus::Callbacks {
  static CorosyncBus* busOf(cpg_handle_t handle) {
    void* context = nullptr;
    if (cpg_context_get(handle, &context) != CS_OK) return nullptr;
    return static_cast<CorosyncBus*>(context);
  }
  static void deliver(cpg_handle_t handle, const struct cpg_name*, uint32_t nodeid, uint32_t pid,
                      void* msg, size_t len) {
    CorosyncBus* bus = busOf(handle);
    if (bus != nullptr) bus->onDeliver(nodeid, pid, static_cast<const char*>(msg), len);
  }
  static void confchg(cpg_handle_t handle, const struct cpg_name*,
                      const struct cpg_address* memberList, size_t memberCount,
                      const struct cpg_address* leftList, size_t leftCount,
                      const struct cpg_address* joinedList, size_t joinedCount) {
    CorosyncBus* bus = busOf(handle);
    if (bus == nullptr) return;
    bus->onConfchg(members(memberList, memberCount), members(leftList, leftCount),
                   members(joinedList, joinedCount));
  }
  static void totem(cpg_handle_t handle, struct cpg_ring_id ringId, uint32_t, const uint32_t*) {
    CorosyncBus* bus = busOf(handle);
    if (bus != nullptr) bus->onRing(ringId.seq);
  }
};

CorosyncBus::CorosyncBus(CorosyncBusOptions options, LogFn log)
    : options_(std::move(options)),
      log_(std::move(log)),
      pid_(getpid()),
      views_(0, static_cast<uint32_t>(getpid())),
      sendQueue_(options_.maxQueuedBytes, options_.maxMessageBytes),
      reassembler_(options_.maxMessageBytes) {}

CorosyncBus::~CorosyncBus() {
  closeHandle();
  for (int fd : {timerFd_, wakeFd_, epollFd_}) {
    if (fd >= 0) ::close(fd);
  }
}

int CorosyncBus::open(std::string* why) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (epollFd_ >= 0) return 0;
  if (options_.group.empty() || options_.group.size() > CPG_MAX_NAME_LENGTH) {
    *why = "the group name \"" + options_.group + "\" cannot be a CPG group";
    return EINVAL;
  }
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  if (epollFd_ < 0 || wakeFd_ < 0 || timerFd_ < 0) {
    int err = errno;
    *why = std::string("cannot set up the bus's descriptors: ") + strerror(err);
    return err;
  }
  for (int fd : {wakeFd_, timerFd_}) {
    struct epoll_event ev;
    memset(&ev, 0, sizeof ev);
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      int err = errno;
      *why = std::string("cannot set up the bus's descriptors: ") + strerror(err);
      return err;
    }
  }
  std::string text;
  int rc = connect(&text);
  if (rc == EINVAL) {
    *why = text;
    return rc;
  }
  if (rc != 0) {
    attempts_ = 1;
    log_("waiting for corosync (" + text + "); asking every " +
         std::to_string(options_.reconnectInterval.count()) + " ms");
  }
  reconnectDue_ = Clock::now() + options_.reconnectInterval;
  return 0;
}

int CorosyncBus::connect(std::string* why) {
  cpg_model_v1_data_t model;
  memset(&model, 0, sizeof model);
  model.model = CPG_MODEL_V1;
  model.cpg_deliver_fn = &Callbacks::deliver;
  model.cpg_confchg_fn = &Callbacks::confchg;
  model.cpg_totem_confchg_fn = &Callbacks::totem;
  // The ring of our first view comes right after it.
  model.flags = CPG_MODEL_V1_DELIVER_INITIAL_TOTEM_CONF;
  cpg_handle_t handle = 0;
  cs_error_t rc = cpg_model_initialize(&handle, CPG_MODEL_V1,
                                       reinterpret_cast<cpg_model_data_t*>(&model), this);
  if (rc != CS_OK) {
    *why = csText("cpg_model_initialize", rc);
    return -1;
  }
  unsigned int id = 0;
  rc = cpg_local_get(handle, &id);
  if (rc != CS_OK) {
    cpg_finalize(handle);
    *why = csText("cpg_local_get", rc);
    return -1;
  }
  if (id == 0 || id > kMaxNodeNumber) {
    cpg_finalize(handle);
    *why = "corosync gives this node the id " + std::to_string(id) +
           ", which cannot be a 16-bit node number (1.." + std::to_string(kMaxNodeNumber) +
           "): give each node a nodeid of 1.." + std::to_string(kMaxNodeNumber) +
           " in corosync.conf's nodelist";
    return EINVAL;
  }
  if (node_ != 0 && id != node_) {
    cpg_finalize(handle);
    *why = "corosync now gives this node the id " + std::to_string(id) + ", not " +
           std::to_string(node_) + " as before; the agent stops so that it starts again as node " +
           std::to_string(id);
    return EINVAL;
  }
  uint32_t atomic = 0;
  size_t payload = kFallbackAtomicBytes - FragmentHeader::kSize;
  if (cpg_max_atomic_msgsize_get(handle, &atomic) == CS_OK && atomic >= kMinAtomicBytes) {
    payload = atomic - FragmentHeader::kSize;
  }
  if (options_.fragmentPayloadForTesting != 0) {
    payload = std::min(payload, options_.fragmentPayloadForTesting);
  }
  int fd = -1;
  rc = cpg_fd_get(handle, &fd);
  struct epoll_event ev;
  memset(&ev, 0, sizeof ev);
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  if (rc != CS_OK || epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
    cpg_finalize(handle);
    *why = rc != CS_OK ? csText("cpg_fd_get", rc)
                       : std::string("cannot watch corosync's descriptor: ") + strerror(errno);
    return -1;
  }
  handle_ = handle;
  haveHandle_ = true;
  cpgFd_ = fd;
  groupJoined_ = false;
  node_ = id;
  views_.setSelf(node_, static_cast<uint32_t>(pid_));
  views_.disconnected();
  reassembler_.clear();
  sendQueue_.setFragmentPayload(payload);
  if (attempts_ > 0) {
    log_("corosync answers after " + std::to_string(attempts_) + (attempts_ == 1 ? " attempt" : " attempts") +
         ": this is node " + std::to_string(node_));
  } else {
    log_("corosync answers: this is node " + std::to_string(node_));
  }
  attempts_ = 0;
  return 0;
}

int CorosyncBus::joinGroup() {
  struct cpg_name name;
  memset(&name, 0, sizeof name);
  name.length = static_cast<uint32_t>(options_.group.size());
  memcpy(name.value, options_.group.data(), options_.group.size());
  cs_error_t rc = cpg_join(static_cast<cpg_handle_t>(handle_), &name);
  if (rc == CS_OK) {
    groupJoined_ = true;
    setLink(Link::kJoining);
    flush();
    return 0;
  }
  if (rc == CS_ERR_TRY_AGAIN) {
    // corosync is still busy (synchronising); asked again shortly.
    reconnectDue_ = Clock::now() + options_.retryInterval;
    return 0;
  }
  std::string why = csText("cpg_join", rc);
  if (inCpgDispatch_) {
    brokenWhy_ = why;
  } else {
    lose(why);
  }
  return -1;
}

void CorosyncBus::closeHandle() {
  if (!haveHandle_) return;
  if (cpgFd_ >= 0 && epollFd_ >= 0) epoll_ctl(epollFd_, EPOLL_CTL_DEL, cpgFd_, nullptr);
  cpg_finalize(static_cast<cpg_handle_t>(handle_));
  haveHandle_ = false;
  groupJoined_ = false;
  cpgFd_ = -1;
}

void CorosyncBus::lose(const std::string& why) {
  closeHandle();
  views_.disconnected();
  reassembler_.clear();
  retryArmed_ = false;
  reconnectDue_ = Clock::now() + options_.reconnectInterval;
  log_("lost corosync (" + why + "); " +
       (views_.hasView() ? "this node is alone until it is back; " : "") + "asking every " +
       std::to_string(options_.reconnectInterval.count()) + " ms");
  if (views_.hasView()) {
    goAlone();
  } else {
    sendQueue_.takeUndelivered();
    setLink(Link::kWaiting);
  }
  wake();
  armTimer();
}

void CorosyncBus::goAlone() {
  // The others are seen as failed: a view of this node alone (unless the
  // last view is already that: corosync went away again before the group's
  // view came). What this node sent and has not seen come back is
  // delivered here, after that view, in order: every message the bus
  // accepted is delivered to its sender once.
  if (link_ == Link::kJoined) {
    Local l;
    l.isView = true;
    l.view.id = views_.nextLocalId();
    l.view.members = {node_};
    for (uint32_t n : views_.lastView().members) {
      if (n != node_) l.view.left.push_back(n);
    }
    views_.setLocalView(l.view);
    local_.push_back(std::move(l));
  }
  for (std::string& bytes : sendQueue_.takeUndelivered()) {
    Local l;
    localBytes_ += bytes.size();
    l.bytes = std::move(bytes);
    local_.push_back(std::move(l));
  }
  setLink(Link::kAlone);
}

void CorosyncBus::setLink(Link link) {
  link_ = link;
  if (linkCallback_) linkCallback_();
}

std::string CorosyncBus::linkText() const {
  switch (link_) {
    case Link::kWaiting:
      return "waiting for corosync";
    case Link::kJoining:
      return "node " + std::to_string(node_) + ": joining the cluster's group";
    case Link::kJoined: {
      size_t n = views_.lastView().members.size();
      return "node " + std::to_string(node_) + ": joined, " + std::to_string(n) +
             (n == 1 ? " node" : " nodes") + " in view";
    }
    case Link::kAlone:
      return "node " + std::to_string(node_) + ": lost corosync, alone; reconnecting";
  }
  return "";
}

int CorosyncBus::join() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (epollFd_ < 0) return EBADF;
  if (joinWanted_) return EALREADY;
  joinWanted_ = true;
  if (haveHandle_) {
    joinGroup();
  } else {
    reconnectDue_ = Clock::now() + options_.reconnectInterval;
  }
  armTimer();
  return fatal_;
}

int CorosyncBus::multicast(const std::string& bytes) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (fatal_ != 0) return fatal_;
  if (!views_.hasView()) return ENOTCONN;
  if (haveHandle_ && groupJoined_) {
    int rc = sendQueue_.push(bytes);
    if (rc != 0) return rc;
    flush();
    return 0;
  }
  // Alone: back to this node, through the loop, as a cluster of one does.
  if (bytes.size() > options_.maxMessageBytes) return EMSGSIZE;
  if (!local_.empty() && localBytes_ + bytes.size() > options_.maxQueuedBytes) return EAGAIN;
  Local l;
  l.bytes = bytes;
  localBytes_ += bytes.size();
  local_.push_back(std::move(l));
  wake();
  return 0;
}

void CorosyncBus::flush() {
  if (!haveHandle_ || !groupJoined_ || !sendQueue_.hasUnsent()) return;
  std::string failure;
  SendQueue::SendResult r = sendQueue_.flush(
      [&](const char* header, size_t headerLen, const char* payload, size_t payloadLen) {
        struct iovec iov[2];
        iov[0].iov_base = const_cast<char*>(header);
        iov[0].iov_len = headerLen;
        iov[1].iov_base = const_cast<char*>(payload);
        iov[1].iov_len = payloadLen;
        cs_error_t rc = cpg_mcast_joined(static_cast<cpg_handle_t>(handle_), CPG_TYPE_AGREED, iov,
                                         payloadLen == 0 ? 1 : 2);
        if (rc == CS_OK) return SendQueue::SendResult::kSent;
        if (rc == CS_ERR_TRY_AGAIN) {
          ++tryAgains_;
          return SendQueue::SendResult::kTryAgain;
        }
        failure = csText("cpg_mcast_joined", rc);
        return SendQueue::SendResult::kFailed;
      });
  switch (r) {
    case SendQueue::SendResult::kSent:
      retryArmed_ = false;
      break;
    case SendQueue::SendResult::kTryAgain:
      // corosync's flow control: the rest goes out shortly, in order.
      if (!retryArmed_) {
        retryArmed_ = true;
        retryDue_ = Clock::now() + options_.retryInterval;
        armTimer();
      }
      break;
    case SendQueue::SendResult::kFailed:
      if (inCpgDispatch_) {
        if (brokenWhy_.empty()) brokenWhy_ = failure;
      } else {
        lose(failure);
      }
      break;
  }
}

int CorosyncBus::wake() {
  uint64_t one = 1;
  ssize_t rc;
  do {
    rc = ::write(wakeFd_, &one, sizeof one);
  } while (rc < 0 && errno == EINTR);
  // EAGAIN: the counter is full, the loop is woken anyway.
  return rc < 0 && errno != EAGAIN ? errno : 0;
}

void CorosyncBus::armTimer() {
  if (timerFd_ < 0) return;
  bool any = false;
  Clock::time_point due = Clock::time_point::max();
  if (joinWanted_ && fatal_ == 0 && (!haveHandle_ || !groupJoined_)) {
    due = std::min(due, reconnectDue_);
    any = true;
  }
  if (retryArmed_) {
    due = std::min(due, retryDue_);
    any = true;
  }
  if (views_.pending()) {
    due = std::min(due, ringDue_);
    any = true;
  }
  struct itimerspec spec;
  memset(&spec, 0, sizeof spec);
  if (any) {
    // steady_clock is CLOCK_MONOTONIC on Linux; a time already passed
    // fires at once (a zero time would disarm instead).
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(due.time_since_epoch()).count();
    if (ns <= 0) ns = 1;
    spec.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
    spec.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
  }
  timerfd_settime(timerFd_, any ? TFD_TIMER_ABSTIME : 0, &spec, nullptr);
}

void CorosyncBus::logRationed(uint64_t* counter, const std::string& line) {
  // The first of a kind, then the 10th, 100th, ...: a peer that keeps
  // sending what we refuse cannot fill the log.
  uint64_t n = ++*counter;
  uint64_t p = 1;
  while (p < n && p <= UINT64_MAX / 10) p *= 10;
  if (p == n) log_(line + (n > 1 ? " (" + std::to_string(n) + " so far)" : ""));
}

int CorosyncBus::dispatch() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (fatal_ != 0) return fatal_;
  uint64_t count;
  while (::read(wakeFd_, &count, sizeof count) < 0 && errno == EINTR) {
  }
  while (::read(timerFd_, &count, sizeof count) < 0 && errno == EINTR) {
  }
  Clock::time_point now = Clock::now();

  if (joinWanted_ && now >= reconnectDue_) {
    if (!haveHandle_) {
      std::string why;
      int rc = connect(&why);
      if (rc == EINVAL) {
        log_(why);
        fatal_ = EINVAL;
        return fatal_;
      }
      if (rc != 0) {
        if (++attempts_ % kAttemptsPerLogLine == 1) {
          log_(attempts_ == 1 ? "waiting for corosync (" + why + ")"
                              : "still waiting for corosync after " + std::to_string(attempts_) +
                                    " attempts (" + why + ")");
        }
        reconnectDue_ = now + options_.reconnectInterval;
      } else {
        joinGroup();
      }
    } else if (!groupJoined_) {
      joinGroup();
    }
  }
  if (views_.pending() && now >= ringDue_) {
    log_("corosync did not tell the new ring within " + std::to_string(options_.ringWait.count()) +
         " ms; the view goes out without it");
    finishView();
  }
  if (retryArmed_ && now >= retryDue_) {
    retryArmed_ = false;
    flush();
  }

  // Only what was queued before this call is delivered now: what the
  // handler sends meanwhile waits for the next turn of the loop.
  for (size_t n = local_.size(); n > 0 && !local_.empty(); --n) {
    Local l = std::move(local_.front());
    local_.pop_front();
    localBytes_ -= l.bytes.size();
    if (handler_ == nullptr) continue;
    if (l.isView) {
      handler_->onView(l.view);
    } else {
      handler_->onMessage(node_, l.bytes);
    }
    if (fatal_ != 0) return fatal_;
  }

  // CPG's events come after every local delivery that was queued before
  // them.
  if (haveHandle_ && local_.empty()) {
    inCpgDispatch_ = true;
    cs_error_t rc = cpg_dispatch(static_cast<cpg_handle_t>(handle_), CS_DISPATCH_ALL);
    inCpgDispatch_ = false;
    if (fatal_ != 0) return fatal_;
    if (!brokenWhy_.empty()) {
      std::string why;
      why.swap(brokenWhy_);
      lose(why);
    } else if (rc != CS_OK && rc != CS_ERR_TRY_AGAIN) {
      lose(csText("cpg_dispatch", rc));
    } else {
      struct pollfd p = {cpgFd_, POLLIN, 0};
      if (poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR)) != 0) {
        lose("corosync closed the connection");
      } else {
        // Deliveries made room in corosync's queue.
        flush();
      }
    }
  }
  if (!local_.empty()) wake();
  armTimer();
  return fatal_;
}

// ------------------------------------------------------------ CPG events

void CorosyncBus::onConfchg(const std::vector<CpgMember>& members,
                            const std::vector<CpgMember>& left,
                            const std::vector<CpgMember>& joined) {
  if (views_.groupChanged(members, left, joined)) {
    finishView();
  } else {
    ringDue_ = Clock::now() + options_.ringWait;
    armTimer();
  }
}

void CorosyncBus::onRing(uint64_t seq) {
  if (views_.ringChanged(seq)) finishView();
}

void CorosyncBus::finishView() {
  View v;
  std::vector<std::string> notes;
  bool ready = views_.finish(&v, &notes);
  for (const std::string& note : notes) log_(note);
  // Partial messages of senders that left will never be finished.
  reassembler_.keepOnly(views_.countedKeys());
  if (ready) deliverView(v);
}

void CorosyncBus::deliverView(const View& view) {
  if (link_ != Link::kJoined) {
    log_("joined the group \"" + options_.group + "\" as node " + std::to_string(node_) +
         ": view " + std::to_string(view.id) + ", nodes " + nodeList(view.members));
  }
  link_ = Link::kJoined;
  if (linkCallback_) linkCallback_();
  if (handler_ != nullptr) handler_->onView(view);
}

void CorosyncBus::onDeliver(uint32_t node, uint32_t pid, const char* data, size_t len) {
  if (views_.pending()) {
    // Messages never come between a ring change and its ring; if one does,
    // the change it follows is a view now.
    finishView();
  }
  if (!views_.counts(node, pid)) {
    logRationed(&strangers_, "a message from node " + std::to_string(node) + " pid " +
                                 std::to_string(pid) +
                                 ", which is not the agent that counts for its node, is not heard");
    return;
  }
  std::string message;
  uint32_t messageId = 0;
  std::string why;
  uint64_t sender = FragmentReassembler::senderKey(node, pid);
  switch (reassembler_.feed(sender, data, len, &message, &messageId, &why)) {
    case FragmentReassembler::Outcome::kIncomplete:
      return;
    case FragmentReassembler::Outcome::kRefused:
      logRationed(&refusedFragments_, "refused a fragment from node " + std::to_string(node) +
                                          ": " + why);
      return;
    case FragmentReassembler::Outcome::kComplete:
      break;
  }
  if (node == node_ && pid == static_cast<uint32_t>(pid_)) sendQueue_.delivered(messageId);
  if (handler_ != nullptr) handler_->onMessage(node, message);
}

}  // namespace agent
}  // namespace velt
