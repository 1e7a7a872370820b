#include "client_session.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <vector>

namespace velt {
namespace agent {

namespace {

// Packets read from one connection before the loop serves others.
constexpr int kPacketsPerTurn = 64;
// Whole messages handled from one connection before the loop serves the
// others (and the bus delivers): a client that pipelines requests is
// served a few at a time, in turn with everyone else.
constexpr int kMessagesPerTurn = 4;

// One receive buffer for every connection: the loop reads one packet at a
// time and the reassembler copies it out at once. One byte more than a
// packet may hold, so that an oversized packet shows as truncated.
std::vector<char>& receiveBuffer() {
  static std::vector<char> buf(wire::kMaxPacket + 1);
  return buf;
}

std::string errnoText(int err) {
  char buf[128];
  return strerror_r(err, buf, sizeof buf);
}

}  // namespace

ClientSession::ClientSession(asio::io_context& io, int fd, uint64_t id, const Peer& peer,
                             const Limits& limits, Owner* owner)
    : io_(io),
      socket_(io, fd),
      id_(id),
      peer_(peer),
      limits_(limits),
      owner_(owner),
      reassembler_(limits.maxMessageBytes),
      lingerTimer_(io),
      pingTimer_(io),
      answerTimer_(io) {}

ClientSession::~ClientSession() {
  out_ = wire::PacketQueue();
  countUnsent();
}

void ClientSession::start() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (state_ != State::kNew) return;
  state_ = State::kAwaitingHello;
  // A connection that never says hello must not hold its place forever.
  lingerTimer_.expires_after(limits_.helloTimeout);
  lingerTimer_.async_wait([self = shared_from_this()](const std::error_code& ec) {
    if (ec || self->state_ != State::kAwaitingHello) return;
    long long ms = self->limits_.helloTimeout.count();
    self->close("no hello within " +
                (ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms"));
  });
  waitReadable();
}

void ClientSession::waitReadable() {
  socket_.async_wait(asio::posix::stream_descriptor::wait_read,
                     [self = shared_from_this()](const std::error_code& ec) {
                       if (ec || self->closed()) return;
                       self->readPackets();
                     });
}

void ClientSession::readPackets() {
  std::vector<char>& buf = receiveBuffer();
  int messages = 0;
  for (int i = 0; i < kPacketsPerTurn && messages < kMessagesPerTurn; ++i) {
    if (state_ != State::kAwaitingHello && state_ != State::kAccepted) return;
    struct iovec iov;
    iov.iov_base = buf.data();
    iov.iov_len = buf.size();
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    ssize_t n = recvmsg(socket_.native_handle(), &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        waitReadable();
        return;
      }
      close("receive failed: " + errnoText(errno));
      return;
    }
    if (n == 0) {
      close("the client closed the connection");
      return;
    }
    if (msg.msg_flags & MSG_TRUNC) {
      close("malformed frame: a packet larger than " + std::to_string(wire::kMaxPacket) +
            " bytes");
      return;
    }
    std::string message;
    std::string why;
    int rc = reassembler_.feed(buf.data(), static_cast<size_t>(n), &message, &why);
    if (rc < 0) {
      close("malformed frame: " + why);
      return;
    }
    if (rc == 0) {
      // Part of a message: it counts against what all clients together may
      // leave unfinished, so that many large half-sent messages cannot add
      // up to more than the agent can hold.
      size_t payload = static_cast<size_t>(n) - wire::kHeaderBytes;
      partial_ += payload;
      if (limits_.partialBytes) {
        *limits_.partialBytes += payload;
        if (*limits_.partialBytes > limits_.maxPartialBytes) {
          close("the clients' unfinished messages would pass " +
                std::to_string(limits_.maxPartialBytes) + " bytes");
          return;
        }
      }
      continue;
    }
    forgetPartial();
    ++messages;
    if (!handleMessage(message)) return;
  }
  // More may be waiting: carry on once the rest of the loop had its turn.
  // (The descriptor is watched edge-triggered, so waiting for readability
  // now could wait for the client's next packet.)
  asio::post(io_, [self = shared_from_this()] {
    if (!self->closed()) self->readPackets();
  });
}

bool parseClientFrame(const std::string& bytes, proto::ClientFrame* frame, std::string* why) {
  if (!frame->ParseFromString(bytes)) {
    *why = "malformed frame: " + std::to_string(bytes.size()) + " bytes that are no client frame";
    return false;
  }
  if (frame->version() != proto::WIRE_VERSION_1) {
    *why = "malformed frame: wire version " + std::to_string(frame->version()) +
           " is not supported (this agent speaks " + std::to_string(proto::WIRE_VERSION_1) + ")";
    return false;
  }
  if (frame->body_case() == proto::ClientFrame::BODY_NOT_SET) {
    *why = "malformed frame: a client frame without a body";
    return false;
  }
  return true;
}

bool ClientSession::handleMessage(const std::string& bytes) {
  proto::ClientFrame frame;
  std::string why;
  if (!parseClientFrame(bytes, &frame, &why)) {
    close(why);
    return false;
  }
  switch (frame.body_case()) {
    case proto::ClientFrame::kHello:
      if (state_ != State::kAwaitingHello) {
        close("protocol error: a second hello");
        return false;
      }
      owner_->onHello(*this, frame.hello());
      return state_ == State::kAccepted;
    case proto::ClientFrame::kRequest:
      if (state_ != State::kAccepted) {
        close("protocol error: a request before the hello");
        return false;
      }
      owner_->onRequest(*this, frame.request());
      return !closed();
    case proto::ClientFrame::kPingReply:
      if (state_ != State::kAccepted) {
        close("protocol error: a ping reply before the hello");
        return false;
      }
      onPingReply(frame.ping_reply().seq());
      return true;
    case proto::ClientFrame::BODY_NOT_SET:
      break;
  }
  return false;  // parseClientFrame refused frames without a body
}

void ClientSession::accept(const proto::AgentFrame& helloReply) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (state_ != State::kAwaitingHello) return;
  state_ = State::kAccepted;
  lingerTimer_.cancel();
  send(helloReply);
}

void ClientSession::refuse(const proto::AgentFrame& frame, const std::string& why) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (state_ == State::kClosed || state_ == State::kRefused) return;
  std::string bytes;
  frame.SerializeToString(&bytes);
  out_.push(bytes);
  state_ = State::kRefused;
  refuseWhy_ = why;
  ++pingGeneration_;
  pingTimer_.cancel();
  answerTimer_.cancel();
  // Everything that follows, sending the answer and waiting for the client
  // to go, is bounded by the linger time.
  lingerTimer_.expires_after(limits_.refuseLinger);
  lingerTimer_.async_wait([self = shared_from_this()](const std::error_code& ec) {
    if (ec || self->closed()) return;
    self->close(self->refuseWhy_);
  });
  flush();
  if (state_ == State::kRefused && out_.empty()) finishRefusal();
}

void ClientSession::finishRefusal() {
  if (state_ != State::kRefused) return;
  // The client reads our answer, then end-of-file. It may still be sending
  // its hello (the refusal can come first), so we keep reading and dropping
  // what it sends until it closes: closing with unread data would reset
  // its side and could hide our answer from it.
  shutdown(socket_.native_handle(), SHUT_WR);
  drainRefused();
}

void ClientSession::drainRefused() {
  int fd = socket_.native_handle();
  std::vector<char>& buf = receiveBuffer();
  for (int i = 0; i < kPacketsPerTurn; ++i) {
    if (state_ != State::kRefused) return;
    ssize_t n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n > 0 || (n < 0 && errno == EINTR)) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      socket_.async_wait(asio::posix::stream_descriptor::wait_read,
                         [self = shared_from_this()](const std::error_code& ec) {
                           if (ec || self->closed()) return;
                           self->drainRefused();
                         });
      return;
    }
    close(refuseWhy_);   // the client has gone
    return;
  }
  asio::post(io_, [self = shared_from_this()] {
    if (!self->closed()) self->drainRefused();
  });
}

void ClientSession::send(const proto::AgentFrame& frame) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (state_ == State::kClosed || state_ == State::kRefused) return;
  std::string bytes;
  if (!frame.SerializeToString(&bytes)) {
    close("internal error: a frame for this client could not be serialised");
    return;
  }
  if (!later_.empty()) {
    // Behind a source still making its frames: it goes out after them.
    if (bytes.size() > limits_.maxMessageBytes ||
        unsentBytes() + bytes.size() > limits_.maxUnsentBytes) {
      queueFrame(std::move(bytes), 0);   // refused there, with the reason
      return;
    }
    laterBytes_ += bytes.size();
    later_.push_back(Later{nullptr, std::move(bytes)});
    return;
  }
  if (queueFrame(std::move(bytes), 0)) flush();
}

void ClientSession::sendFrames(std::unique_ptr<FrameSource> source) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (state_ == State::kClosed || state_ == State::kRefused || !source) return;
  later_.push_back(Later{std::move(source), std::string()});
  flush();
}

size_t ClientSession::pendingSources() const {
  size_t n = 0;
  for (const Later& l : later_) n += l.source ? 1 : 0;
  return n;
}

bool ClientSession::queueFrame(std::string bytes, size_t from) {
  const size_t size = bytes.size() - from;
  if (size > limits_.maxMessageBytes) {
    close("a frame of " + std::to_string(size) + " bytes is larger than the " +
          std::to_string(limits_.maxMessageBytes) + " the socket carries");
    return false;
  }
  if (unsentBytes() + size > limits_.maxUnsentBytes) {
    close("the client stopped reading: " + std::to_string(unsentBytes()) +
          " bytes are waiting for it, at most " + std::to_string(limits_.maxUnsentBytes) +
          " may");
    return false;
  }
  if (limits_.sendBudget && !limits_.sendBudget->fits(size)) {
    close("the clients together would leave more than " +
          std::to_string(limits_.sendBudget->limit()) + " bytes unread (--max-unsent-total); " +
          std::to_string(out_.queuedBytes()) + " of them wait for this client");
    return false;
  }
  out_.push(std::move(bytes), from);
  countUnsent();
  return true;
}

bool ClientSession::takeLater() {
  while (!later_.empty() && out_.queuedBytes() < limits_.framesAhead) {
    Later& l = later_.front();
    if (!l.source) {
      std::string bytes = std::move(l.frame);
      laterBytes_ -= bytes.size();
      later_.pop_front();
      if (!queueFrame(std::move(bytes), 0)) return false;
      continue;
    }
    std::string bytes;
    size_t from = 0;
    if (!l.source->next(&bytes, &from)) {
      later_.pop_front();
      continue;
    }
    if (!queueFrame(std::move(bytes), from)) return false;
  }
  return true;
}

void ClientSession::countUnsent() {
  if (!limits_.sendBudget) return;
  size_t now = out_.queuedBytes();
  if (now > counted_) {
    limits_.sendBudget->take(now - counted_);
  } else if (now < counted_) {
    limits_.sendBudget->give(counted_ - now);
  }
  counted_ = now;
}

void ClientSession::flush() {
  if (state_ == State::kClosed) return;
  if (!takeLater()) return;
  int rc = out_.flush(socket_.native_handle());
  countUnsent();
  if (rc != 0) {
    close(rc == EPIPE || rc == ECONNRESET ? std::string("the client closed the connection")
                                          : "send failed: " + errnoText(rc));
    return;
  }
  if (out_.empty()) {
    // The client took everything at once: the next frames are made on a
    // later turn of the loop, so that other clients are served between.
    if (!later_.empty() && !takeLaterPosted_) {
      takeLaterPosted_ = true;
      asio::post(io_, [self = shared_from_this()] {
        self->takeLaterPosted_ = false;
        self->flush();
      });
    }
    return;
  }
  if (waitingWritable_) return;
  waitingWritable_ = true;
  socket_.async_wait(asio::posix::stream_descriptor::wait_write,
                     [self = shared_from_this()](const std::error_code& ec) {
                       self->waitingWritable_ = false;
                       if (ec || self->closed()) return;
                       self->flush();
                       if (self->state_ == State::kRefused && self->out_.empty()) {
                         self->finishRefusal();
                       }
                     });
}

void ClientSession::forgetPartial() {
  if (limits_.partialBytes) *limits_.partialBytes -= partial_;
  partial_ = 0;
}

void ClientSession::close(const std::string& why) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (state_ == State::kClosed) return;
  forgetPartial();
  bool wasAccepted = state_ == State::kAccepted;
  state_ = State::kClosed;
  // Sources not finished stop here; what they hold is let go.
  later_.clear();
  laterBytes_ = 0;
  ++pingGeneration_;
  pingTimer_.cancel();
  answerTimer_.cancel();
  lingerTimer_.cancel();
  std::error_code ignored;
  socket_.close(ignored);
  // What the client never read goes now, not when the last handler lets
  // go of the session.
  out_ = wire::PacketQueue();
  countUnsent();
  // The owner hears of it from a handler of its own: close() may run deep
  // inside the owner's or the replica's work, where forgetting the session
  // (and telling the replica the client is gone) must not happen.
  asio::post(io_, [self = shared_from_this(), why, wasAccepted] {
    self->owner_->onClosed(*self, why, wasAccepted);
  });
}

void ClientSession::setResponsiveness(uint32_t intervalSeconds, uint32_t limitSeconds) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  ++pingGeneration_;
  pingTimer_.cancel();
  answerTimer_.cancel();
  outstandingPing_ = 0;
  pingInterval_ = intervalSeconds;
  pingLimit_ = limitSeconds;
  if (pingInterval_ > 0 && (state_ == State::kAwaitingHello || state_ == State::kAccepted)) {
    schedulePing();
  }
}

void ClientSession::schedulePing() {
  uint64_t generation = pingGeneration_;
  pingTimer_.expires_after(std::chrono::seconds(pingInterval_));
  pingTimer_.async_wait([self = shared_from_this(), generation](const std::error_code& ec) {
    if (ec || self->closed() || generation != self->pingGeneration_) return;
    self->sendPing();
    if (!self->closed()) self->schedulePing();
  });
}

void ClientSession::sendPing() {
  if (state_ != State::kAccepted) return;
  // The unanswered ping keeps its own deadline; another one would only
  // pile up behind it.
  if (outstandingPing_ != 0) return;
  uint64_t seq = ++pingSeq_;
  outstandingPing_ = seq;
  proto::AgentFrame frame;
  frame.set_version(proto::WIRE_VERSION_1);
  frame.mutable_ping()->set_seq(seq);
  frame.mutable_ping()->set_time_limit(pingLimit_);
  send(frame);
  if (closed()) return;
  uint64_t generation = pingGeneration_;
  uint32_t limit = pingLimit_;
  answerTimer_.expires_after(std::chrono::seconds(limit));
  answerTimer_.async_wait(
      [self = shared_from_this(), generation, seq, limit](const std::error_code& ec) {
        if (ec || self->closed() || generation != self->pingGeneration_) return;
        if (self->outstandingPing_ != seq) return;
        self->close("the client did not answer ping " + std::to_string(seq) + " within " +
                    std::to_string(limit) + " s");
      });
}

void ClientSession::onPingReply(uint64_t seq) {
  // An answer to a ping of an earlier schedule, or to none, changes nothing.
  if (seq == 0 || seq != outstandingPing_) return;
  outstandingPing_ = 0;
  answerTimer_.cancel();
}

}  // namespace agent
}  // namespace velt
