#include "internal/mc_session.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <google/protobuf/arena.h>

#include "agent_connect.h"
#include "internal/mc_wire.h"
#include "vx_cu.h"

namespace velt {
namespace mc {
namespace internal {

namespace {

constexpr uint32_t kWireVersion = proto::WIRE_VERSION_1;

// The agent answers KOR requests from its own copy of the cluster's state,
// so these are generous; past them the agent is stuck and the session is
// given up.
constexpr std::chrono::milliseconds kHelloBound{10000};
constexpr std::chrono::milliseconds kDefaultRequestBound{60000};
// A send the agent does not take within this time fails.
constexpr int kSendTimeoutSecs = 10;
// Packets read in one go before the caller's own work (the awaited answer,
// the queued events) gets a turn.
constexpr size_t kPacketsPerRound = 256;
// The largest block of the arena a frame is parsed into.
constexpr size_t kMaxArenaBlock = 1024 * 1024;

std::atomic<int64_t> requestBoundMs{kDefaultRequestBound.count()};
std::atomic<size_t> maxQueuedEvents{kMaxQueuedEvents};
std::atomic<size_t> maxQueuedBytes{kMaxQueuedBytes};

std::string errnoText(int err) {
  char buf[128];
  return cu_strerror(err, buf, sizeof buf);
}

void closeIfOpen(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

}  // namespace

int recordError(int code, const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  if (n < 0) text[0] = '\0';
  cu_set_error(code, "%s", text);
  return code;
}

// ---- opening ----

Session::Session(int mode, int fd, int epollFd, int eventFd)
    : mode_(mode), fd_(fd), epollFd_(epollFd), eventFd_(eventFd), packet_(velt::wire::kMaxPacket + 1) {}

Session::~Session() { end(); }

int Session::open(int mode, std::shared_ptr<Session>* out) {
  const char* path = velt::wire::agentSocketPath();
  velt::wire::AgentConnection conn = velt::wire::connectToAgent(path, kSendTimeoutSecs);
  switch (conn.step) {
    case velt::wire::ConnectStep::kConnected:
      break;
    case velt::wire::ConnectStep::kEmptyPath:
      return recordError(MC_ENOAGENT, "no agent to connect to: VELT_AGENT_SOCKET is set but empty");
    case velt::wire::ConnectStep::kPathTooLong:
      return recordError(MC_ENOAGENT, "no agent to connect to: the agent socket path is %zu characters long, "
                         "at most %zu fit: %.200s",
                         strlen(path), velt::wire::maxAgentSocketPathLength(), path);
    case velt::wire::ConnectStep::kSocket: {
      int code = MC_ENOAGENT;
      if (conn.err == EMFILE || conn.err == ENFILE) code = MC_ELIMIT;
      if (conn.err == ENOMEM || conn.err == ENOBUFS) code = MC_ENOMEM;
      return recordError(code, "cannot create a socket for the agent: %s", errnoText(conn.err).c_str());
    }
    case velt::wire::ConnectStep::kConnect:
      if (conn.err == EACCES || conn.err == EPERM) {
        return recordError(MC_EPERM, "may not connect to the agent at %s: %s", path, errnoText(conn.err).c_str());
      }
      return recordError(MC_ENOAGENT, "no agent at %s: %s", path, errnoText(conn.err).c_str());
    case velt::wire::ConnectStep::kPeerCredentials:
      return recordError(MC_ENOAGENT, "cannot read the credentials of the agent at %s: %s", path,
                         errnoText(conn.err).c_str());
    case velt::wire::ConnectStep::kForeignPeer:
      return recordError(MC_ENOAGENT, "the agent socket %s is served by uid %u (pid %d), neither root nor us; "
                         "not an agent to trust",
                         path, static_cast<unsigned>(conn.peerUid), static_cast<int>(conn.peerPid));
    case velt::wire::ConnectStep::kSetup:
      return recordError(MC_ENOAGENT, "cannot set up the agent connection: %s", errnoText(conn.err).c_str());
  }

  proto::ClientFrame hello;
  hello.set_version(kWireVersion);
  proto::Hello* h = hello.mutable_hello();
  h->set_interface_word(0);
  h->set_pid(static_cast<uint32_t>(getpid()));
  h->set_program(program_invocation_short_name);
  // No responsiveness pings wanted: a session is used when the program
  // needs it, not on a schedule. Pings that come are answered anyway.
  h->mutable_responsiveness()->set_type(0);
  std::string helloBytes;
  hello.SerializeToString(&helloBytes);
  proto::AgentFrame answer;
  velt::wire::HelloOutcome outcome = velt::wire::exchangeHello(conn.fd, helloBytes, kHelloBound, &answer);
  int code = MC_OK;
  std::string why = outcome.why;
  switch (outcome.step) {
    case velt::wire::HelloStep::kAnswered:
      if (answer.hello_reply().rc() != kAgentOk) {
        code = codeOfAgentRc(answer.hello_reply().rc());
        if (code == MC_ENOCLASS || code == MC_EINVAL) code = MC_EPROTO;   // not answers to a hello
        why = "the agent refused the session (rc " + std::to_string(answer.hello_reply().rc()) +
              "): " + answer.hello_reply().text();
      }
      break;
    case velt::wire::HelloStep::kSendFailed:
      code = MC_ENOAGENT;
      why = "cannot say hello: " + errnoText(outcome.err);
      break;
    case velt::wire::HelloStep::kReadFailed:
      code = MC_ENOAGENT;
      why += ": " + errnoText(outcome.err);
      break;
    case velt::wire::HelloStep::kTimedOut:
    case velt::wire::HelloStep::kHungUp:
      code = MC_ENOAGENT;
      break;
    case velt::wire::HelloStep::kBadFrame:
    case velt::wire::HelloStep::kWrongVersion:
      code = MC_EPROTO;
      break;
  }
  if (code != MC_OK) {
    close(conn.fd);
    return recordError(code, "handshake with the agent at %s failed: %s", path, why.c_str());
  }

  // The descriptor handed to the program: readable when the connection is,
  // and while events read during other calls wait for dispatch.
  int epollFd = epoll_create1(EPOLL_CLOEXEC);
  int eventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  struct epoll_event onConn = {};
  onConn.events = EPOLLIN;
  onConn.data.fd = conn.fd;
  struct epoll_event onQueue = {};
  onQueue.events = EPOLLIN;
  onQueue.data.fd = eventFd;
  if (epollFd < 0 || eventFd < 0 || epoll_ctl(epollFd, EPOLL_CTL_ADD, conn.fd, &onConn) != 0 ||
      epoll_ctl(epollFd, EPOLL_CTL_ADD, eventFd, &onQueue) != 0) {
    int err = errno;
    close(conn.fd);
    if (epollFd >= 0) close(epollFd);
    if (eventFd >= 0) close(eventFd);
    int failCode = err == EMFILE || err == ENFILE ? MC_ELIMIT : err == ENOMEM ? MC_ENOMEM : MC_ENOAGENT;
    return recordError(failCode, "cannot set up the session's descriptor: %s", errnoText(err).c_str());
  }
  out->reset(new Session(mode, conn.fd, epollFd, eventFd));
  return MC_OK;
}

void Session::end() {
  ended_ = true;
  closeIfOpen(&fd_);
  closeIfOpen(&epollFd_);
  closeIfOpen(&eventFd_);
  queue_.clear();
  queuedBytes_ = 0;
  registrations_.clear();
  byAgentId_.clear();
}

// ---- failures ----

int Session::fail(int code, const std::string& why) {
  if (failure_ == MC_OK) {
    failure_ = code;
    failureWhy_ = why;
    failureReported_ = true;
    // The descriptor stays open until the session ends, so that its number
    // is not reused under a program that still polls it; shut down, it
    // shows readable and the next dispatch reports the loss.
    if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
  }
  return recordError(code, "session %llu: %s; the connection to the agent is closed",
                     static_cast<unsigned long long>(handle_), why.c_str());
}

int Session::failedCall() {
  if (!failureReported_) {
    failureReported_ = true;
    return recordError(failure_, "session %llu: %s; the connection to the agent is closed",
                       static_cast<unsigned long long>(handle_), failureWhy_.c_str());
  }
  return recordError(MC_ECONNLOST, "session %llu lost its connection to the agent earlier (%s); end it",
                     static_cast<unsigned long long>(handle_), failureWhy_.c_str());
}

// ---- reading ----

void Session::waitReadable(int timeoutMs) {
  struct pollfd p = {fd_, POLLIN | POLLRDHUP, 0};
  int n;
  do {
    n = poll(&p, 1, timeoutMs);
    // A signal ends the wait early; the callers check their deadlines.
  } while (n < 0 && errno == EINTR && timeoutMs < 0);
}

int Session::readAvailable(size_t maxPackets) {
  for (size_t i = 0; i < maxPackets; ++i) {
    if (failure_ != MC_OK) return failure_;
    ssize_t len = recv(fd_, packet_.data(), packet_.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (len < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return MC_OK;
      if (errno == EINTR) continue;
      return fail(MC_ECONNLOST, "reading from the agent failed: " + errnoText(errno));
    }
    if (len == 0) return fail(MC_ECONNLOST, "the agent closed the connection");
    if (static_cast<size_t>(len) > velt::wire::kMaxPacket) {
      return fail(MC_EPROTO, "malformed frame from the agent: packet of " + std::to_string(len) + " bytes");
    }
    std::string why;
    int r = reassembler_.feed(packet_.data(), static_cast<size_t>(len), &message_, &why);
    if (r < 0) return fail(MC_EPROTO, "malformed frame from the agent: " + why);
    if (r == 0) continue;
    std::string message;
    message.swap(message_);
    int rc = handleMessage(message);
    if (rc != MC_OK) return rc;
    // The caller's answer is there: the rest can wait for dispatch.
    if (awaiting_ && replyReady_) return MC_OK;
  }
  return MC_OK;
}

int Session::handleMessage(const std::string& message) {
  // A page of the awaited query's answer, as agents write it, goes into
  // the response straight from its bytes; any other frame, or a page
  // written otherwise, takes the general path below.
  if (answer_ != nullptr && awaiting_ && !replyReady_ &&
      (replyPages_ == 0 || (convertPages_ && answerRc_ == MC_OK))) {
    QueryAnswerBuilder::PageHeader header;
    switch (answer_->readPage(message, awaitedId_, &header)) {
      case QueryAnswerBuilder::PageRead::kRead:
        if (replyPages_ == 0) convertPages_ = true;
        endQueryPage(awaitedId_, kAgentOk, header.text, header.more);
        return MC_OK;
      case QueryAnswerBuilder::PageRead::kNoMemory:
        // The general path reads the page without converting it.
        if (replyPages_ == 0) convertPages_ = true;
        answerRc_ = MC_ENOMEM;
        break;
      case QueryAnswerBuilder::PageRead::kNotRead:
        break;
    }
  }
  // Parsed into an arena of its own: a page of a large answer is a million
  // small messages and strings, taken and given back together.
  google::protobuf::ArenaOptions options;
  options.max_block_size = kMaxArenaBlock;
  google::protobuf::Arena arena(options);
  proto::AgentFrame& f = *google::protobuf::Arena::CreateMessage<proto::AgentFrame>(&arena);
  if (!f.ParseFromString(message)) {
    return fail(MC_EPROTO, "malformed frame from the agent: it does not parse (" + std::to_string(message.size()) +
                               " bytes)");
  }
  if (f.version() != kWireVersion) {
    return fail(MC_EPROTO, "frame of wire version " + std::to_string(f.version()) + " from the agent, we speak " +
                               std::to_string(kWireVersion));
  }
  switch (f.body_case()) {
    case proto::AgentFrame::kReply: {
      if (!awaiting_ || replyReady_ || f.reply().id() != awaitedId_) {
        return fail(MC_EPROTO, "the agent answered request " + std::to_string(f.reply().id()) +
                                   ", which is not the one asked");
      }
      if (answer_ != nullptr) return takeQueryPage(f.mutable_reply());
      // A large answer comes in pages with the same id; they are joined
      // here, within the bound on one answer.
      if (f.reply().kor().more() || replyPages_ > 0) {
        if (replyPages_ == 0) {
          reply_ = std::move(*f.mutable_reply());
        } else {
          proto::KorAnswer* all = reply_.mutable_kor();
          if (static_cast<size_t>(all->resources_size()) +
                  static_cast<size_t>(f.reply().kor().resources_size()) > kMaxResources) {
            return fail(MC_EPROTO, "the agent's answer has more than " + std::to_string(kMaxResources) +
                                       " resources");
          }
          for (proto::KorResource& r : *f.mutable_reply()->mutable_kor()->mutable_resources()) {
            *all->add_resources() = std::move(r);
          }
          all->set_more(f.reply().kor().more());
        }
        ++replyPages_;
        if (reply_.kor().more()) return MC_OK;
        replyPages_ = 0;
      } else {
        reply_ = std::move(*f.mutable_reply());
      }
      replyReady_ = true;
      return MC_OK;
    }
    case proto::AgentFrame::kKorEvent: {
      const proto::KorEvent& e = f.kor_event();
      size_t cost = 0;
      std::string why;
      if (checkEvent(e, &cost, &why) != MC_OK) return fail(MC_EPROTO, "the agent sent " + why);
      auto it = byAgentId_.find(e.registration());
      if (it == byAgentId_.end()) return MC_OK;   // a registration this session no longer holds
      cost += message.size();
      if (queue_.size() >= maxQueuedEvents.load() || queuedBytes_ + cost > maxQueuedBytes.load()) {
        return fail(MC_ELIMIT, "more than " + std::to_string(queue_.size()) + " events (" +
                                   std::to_string(queuedBytes_) +
                                   " bytes) wait for mc_dispatch, the most a session keeps");
      }
      QueuedEvent q;
      q.regId = it->second;
      q.cost = cost;
      q.event = std::move(*f.mutable_kor_event());
      queue_.push_back(std::move(q));
      queuedBytes_ += cost;
      updateQueueSignal();
      return MC_OK;
    }
    case proto::AgentFrame::kPing: {
      proto::ClientFrame answer;
      answer.set_version(kWireVersion);
      answer.mutable_ping_reply()->set_seq(f.ping().seq());
      return sendFrame(answer, "the answer to a ping");
    }
    case proto::AgentFrame::kNotification:
    case proto::AgentFrame::kDomainControl:
      // For group services clients; a KOR session has no use for them.
      return MC_OK;
    case proto::AgentFrame::kHelloReply:
      return fail(MC_EPROTO, "malformed frame from the agent: a second hello answer");
    case proto::AgentFrame::BODY_NOT_SET:
      break;
  }
  return fail(MC_EPROTO, "malformed frame from the agent: a frame without a body");
}

int Session::takeQueryPage(proto::Reply* page) {
  // The rc and text are the first page's; each page's resources become
  // entries of the response at once, so that no page is kept.
  if (replyPages_ == 0 && answerRc_ == MC_OK) convertPages_ = page->rc() == kAgentOk;
  if (convertPages_ && answerRc_ == MC_OK) {
    std::string why;
    int rc = answer_->addPage(page->kor(), &why);
    if (rc == MC_EPROTO) return fail(MC_EPROTO, "the agent answered a query with " + why);
    answerRc_ = rc;
  }
  endQueryPage(page->id(), page->rc(), page->text(), page->kor().more());
  return MC_OK;
}

void Session::endQueryPage(uint64_t id, int32_t rc, const std::string& text, bool more) {
  if (replyPages_ == 0) {
    reply_.Clear();
    reply_.set_id(id);
    reply_.set_rc(rc);
    reply_.set_text(text);
  }
  if (more) {
    ++replyPages_;
    return;
  }
  replyPages_ = 0;
  replyReady_ = true;
}

// ---- requests ----

int Session::sendFrame(const proto::ClientFrame& frame, const char* what) {
  std::string bytes;
  if (!frame.SerializeToString(&bytes)) return recordError(MC_EINVAL, "cannot encode %s", what);
  if (bytes.size() > velt::wire::kDefaultMaxMessage) {
    return recordError(MC_ELIMIT, "%s takes %zu bytes, more than the agent reads in one message", what,
                       bytes.size());
  }
  int err = velt::wire::sendMessage(fd_, bytes);
  if (err != 0) return fail(MC_ECONNLOST, std::string("cannot send ") + what + " to the agent: " + errnoText(err));
  return MC_OK;
}

int Session::call(proto::Request* request, const char* what, proto::Reply* reply) {
  if (failure_ != MC_OK) return failedCall();
  uint64_t id = nextRequestId_++;
  request->set_id(id);
  proto::ClientFrame frame;
  frame.set_version(kWireVersion);
  frame.mutable_request()->Swap(request);
  int rc = sendFrame(frame, what);
  frame.mutable_request()->Swap(request);
  if (rc != MC_OK) return rc;

  const std::chrono::milliseconds bound(requestBoundMs.load());
  auto deadline = std::chrono::steady_clock::now() + bound;
  awaiting_ = true;
  awaitedId_ = id;
  replyReady_ = false;
  replyPages_ = 0;
  while (true) {
    rc = readAvailable(kPacketsPerRound);
    if (rc != MC_OK || replyReady_) break;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      rc = fail(MC_ECONNLOST, std::string("the agent did not answer ") + what + " within " +
                                  std::to_string(bound.count()) + " ms");
      break;
    }
    waitReadable(static_cast<int>(left.count()));
  }
  awaiting_ = false;
  if (rc != MC_OK) return rc;
  reply->Swap(&reply_);
  reply_.Clear();
  replyReady_ = false;
  return MC_OK;
}

int Session::query(const std::string& className, const std::vector<std::string>& attributes,
                   mc_query_rsp_t** responses, uint32_t* count) {
  proto::Request request;
  proto::KorQuery* q = request.mutable_kor_query();
  q->set_class_name(className);
  for (const std::string& a : attributes) q->add_attributes(a);
  q->set_rows(true);   // names once per page, not once per resource
  proto::Reply reply;
  QueryAnswerBuilder answer(attributes);
  answer_ = &answer;
  answerRc_ = MC_OK;
  int rc = call(&request, "a query", &reply);
  answer_ = nullptr;
  if (rc != MC_OK) return rc;
  if (reply.rc() != kAgentOk) {
    int code = codeOfAgentRc(reply.rc());
    return recordError(code, "the agent refused the query of class \"%.200s\" (rc %d, %s): %s", className.c_str(),
                       reply.rc(), codeName(code), reply.text().c_str());
  }
  rc = answerRc_;
  if (rc == MC_OK) rc = answer.finish(responses, count);
  if (rc != MC_OK) {
    return recordError(rc, "no memory for the %zu resources of class \"%.200s\"", answer.count(),
                       className.c_str());
  }
  uint32_t lacking = 0;
  for (uint32_t i = 0; i < *count; ++i) {
    if ((*responses)[i].mc_errnum != MC_OK) ++lacking;
  }
  if (lacking > 0) {
    recordError(MC_ENOATTR, "%u of %u resources of class \"%.200s\" lack an attribute asked for%s%s", lacking,
                *count, className.c_str(), reply.text().empty() ? "" : ": ", reply.text().c_str());
  }
  return MC_OK;
}

int Session::registerClassEvent(const std::string& className, const std::string& eventName,
                                mc_class_event_cb_t* callback, void* arg, mc_reg_rsp_t** response) {
  Registration reg;
  reg.kind = Kind::kClassEvent;
  reg.className = className;
  reg.eventName = eventName;
  reg.classCallback = callback;
  reg.arg = arg;
  proto::Request request;
  proto::KorRegister* r = request.mutable_kor_register();
  r->set_kind(proto::KorRegister::CLASS_EVENT);
  r->set_class_name(className);
  r->set_event(eventName);
  return registerEvent(std::move(reg), &request, response);
}

int Session::registerResourceEvent(const std::string& className, const std::string& condition,
                                   const std::vector<std::string>& attributes, mc_event_cb_t* callback, void* arg,
                                   mc_reg_rsp_t** response) {
  Registration reg;
  reg.kind = Kind::kResourceEvent;
  reg.className = className;
  reg.eventName = condition;
  reg.eventCallback = callback;
  reg.arg = arg;
  proto::Request request;
  proto::KorRegister* r = request.mutable_kor_register();
  r->set_kind(proto::KorRegister::RESOURCE_EVENT);
  r->set_class_name(className);
  r->set_event(condition);
  for (const std::string& a : attributes) r->add_attributes(a);
  return registerEvent(std::move(reg), &request, response);
}

int Session::registerEvent(Registration reg, proto::Request* request, mc_reg_rsp_t** response) {
  if (failure_ != MC_OK) return failedCall();
  if (nextRegId_ == INT32_MAX) {
    return recordError(MC_ELIMIT, "session %llu has used up its registration ids; start another",
                       static_cast<unsigned long long>(handle_));
  }
  mc_reg_rsp_t* rsp = allocRegResponse();
  if (rsp == nullptr) return recordError(MC_ENOMEM, "no memory for a registration's response");
  proto::Reply reply;
  int rc = call(request, "a registration", &reply);
  if (rc != MC_OK) {
    freeResponse(rsp);
    return rc;
  }
  rsp->reg_id = MC_REG_ID_NONE;
  if (reply.rc() != kAgentOk) {
    int code = codeOfAgentRc(reply.rc());
    recordError(code, "the agent refused the registration for \"%.200s\" of class \"%.200s\" (rc %d, %s): %s",
                reg.eventName.c_str(), reg.className.c_str(), reply.rc(), codeName(code), reply.text().c_str());
    if (code == MC_ENOTSUP || code == MC_EPROTO) {
      freeResponse(rsp);
      return code;
    }
    rsp->mc_errnum = static_cast<uint32_t>(code);
    *response = rsp;
    return MC_OK;
  }
  uint64_t agentId = reply.kor().registration();
  if (agentId == 0) {
    recordError(MC_ENOATTR, "the agent refused the registration for \"%.200s\" of class \"%.200s\": %s",
                reg.eventName.c_str(), reg.className.c_str(),
                reply.text().empty() ? "an attribute named is not one of the class" : reply.text().c_str());
    rsp->mc_errnum = MC_ENOATTR;
    *response = rsp;
    return MC_OK;
  }
  if (byAgentId_.count(agentId) != 0) {
    freeResponse(rsp);
    return fail(MC_EPROTO, "the agent gave registration id " + std::to_string(agentId) + " a second time");
  }
  mc_reg_id_t id = nextRegId_++;
  reg.agentId = agentId;
  registrations_.emplace(id, std::move(reg));
  byAgentId_.emplace(agentId, id);
  rsp->mc_errnum = MC_OK;
  rsp->reg_id = id;
  *response = rsp;
  return MC_OK;
}

int Session::unregister(mc_reg_id_t regId, mc_reg_rsp_t** response) {
  if (failure_ != MC_OK) return failedCall();
  auto it = registrations_.find(regId);
  if (it == registrations_.end()) {
    return recordError(MC_ENOREG, "session %llu holds no registration %d", static_cast<unsigned long long>(handle_),
                       static_cast<int>(regId));
  }
  mc_reg_rsp_t* rsp = allocRegResponse();
  if (rsp == nullptr) return recordError(MC_ENOMEM, "no memory for an unregistration's response");
  // Forgotten here first: events of it that were read already, or come
  // before the agent has taken the request, are dropped.
  uint64_t agentId = it->second.agentId;
  registrations_.erase(it);
  byAgentId_.erase(agentId);
  dropQueuedEvents(regId);

  proto::Request request;
  request.mutable_kor_unregister()->set_registration(agentId);
  proto::Reply reply;
  int rc = call(&request, "an unregistration", &reply);
  if (rc != MC_OK) {
    freeResponse(rsp);
    return rc;
  }
  rsp->reg_id = regId;
  if (reply.rc() != kAgentOk) {
    int code = codeOfAgentRc(reply.rc());
    recordError(code, "the agent refused to end registration %d (rc %d, %s): %s", static_cast<int>(regId),
                reply.rc(), codeName(code), reply.text().c_str());
    if (code == MC_ENOTSUP || code == MC_EPROTO) {
      freeResponse(rsp);
      return code;
    }
    rsp->mc_errnum = static_cast<uint32_t>(code);
    *response = rsp;
    return MC_OK;
  }
  rsp->mc_errnum = MC_OK;
  *response = rsp;
  return MC_OK;
}

int Session::descriptor(int* fd) {
  if (failure_ != MC_OK) return failedCall();
  *fd = epollFd_;
  return MC_OK;
}

// ---- dispatch ----

void Session::dropQueuedEvents(mc_reg_id_t regId) {
  for (auto it = queue_.begin(); it != queue_.end();) {
    if (it->regId == regId) {
      queuedBytes_ -= it->cost;
      it = queue_.erase(it);
    } else {
      ++it;
    }
  }
  updateQueueSignal();
}

void Session::updateQueueSignal() {
  if (eventFd_ < 0) return;
  bool want = !queue_.empty();
  if (want == signalled_) return;
  if (want) {
    uint64_t one = 1;
    if (write(eventFd_, &one, sizeof one) == static_cast<ssize_t>(sizeof one)) signalled_ = true;
  } else {
    uint64_t value;
    if (read(eventFd_, &value, sizeof value) == static_cast<ssize_t>(sizeof value) || errno == EAGAIN) {
      signalled_ = false;
    }
  }
}

int Session::runQueued(int* rc) {
  *rc = MC_OK;
  int handled = 0;
  // Only the events there now: those that callbacks cause to be read wait
  // for the next dispatch, so that one call always ends.
  size_t n = queue_.size();
  while (n-- > 0 && !queue_.empty() && !ended_) {
    QueuedEvent q = std::move(queue_.front());
    queue_.pop_front();
    queuedBytes_ -= q.cost;
    updateQueueSignal();
    auto it = registrations_.find(q.regId);
    if (it == registrations_.end()) continue;   // ended since it was read
    // A copy: the callback may end its own registration.
    const Registration reg = it->second;
    EventView view;
    if (reg.kind == Kind::kClassEvent) {
      view.buildClassEvent(q.event, q.regId, reg.className, reg.eventName);
      reg.classCallback(handle_, &view.classEvent(), reg.arg);
    } else {
      if (view.buildResourceEvent(q.event, q.regId, reg.className) != MC_OK) {
        queuedBytes_ += q.cost;
        queue_.push_front(std::move(q));
        updateQueueSignal();
        *rc = recordError(MC_ENOMEM, "no memory for the attributes of an event; it stays first in the queue");
        return handled;
      }
      reg.eventCallback(handle_, &view.resourceEvent(), reg.arg);
    }
    ++handled;
  }
  return handled;
}

int Session::dispatch(int options) {
  while (true) {
    int readRc = MC_OK;
    if (failure_ == MC_OK) readRc = readAvailable(kPacketsPerRound);
    int rc = MC_OK;
    int handled = runQueued(&rc);
    if (ended_) return MC_OK;
    if (rc != MC_OK || handled > 0) {
      // Events read before the connection failed are handled first; the
      // failure itself is the answer of the next call.
      if (readRc != MC_OK) failureReported_ = false;
      return rc;
    }
    if (readRc != MC_OK) return readRc;
    if (failure_ != MC_OK) return failedCall();
    if (options == MC_DISPATCH_OPTS_NO_WAIT) return MC_OK;
    // Waits without a time limit by design: the program asked to wait for
    // an event, and a lost connection ends the wait too.
    ++waitingDispatchers_;
    waitReadable(-1);
    --waitingDispatchers_;
  }
}

// ---- test hooks ----

void setRequestBoundForTesting(std::chrono::milliseconds bound) { requestBoundMs.store(bound.count()); }

void setQueueLimitsForTesting(size_t events, size_t bytes) {
  maxQueuedEvents.store(events);
  maxQueuedBytes.store(bytes);
}

void resetLimitsForTesting() {
  requestBoundMs.store(kDefaultRequestBound.count());
  maxQueuedEvents.store(kMaxQueuedEvents);
  maxQueuedBytes.store(kMaxQueuedBytes);
}

}  // namespace internal
}  // namespace mc
}  // namespace velt
