// ClientSession: one client connection on the agent socket (one client
// library instance). It reads packets, reassembles and parses frames,
// enforces the order hello-then-requests and the wire version, queues what
// the agent sends with a bound on the bytes a client has not read, and runs
// the client's responsiveness pings. Whatever the client sends that is not
// a well-formed frame closes this connection only. The agent decides what
// a hello or a request means (Owner); AgentCore sees the session as its
// ClientPort.
// Owned by the agent's event loop thread; the loop's handlers keep it alive
// (shared_ptr) until the last of them has run.
#ifndef VELT_AGENT_CLIENT_SESSION_H_
#define VELT_AGENT_CLIENT_SESSION_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#ifndef ASIO_STANDALONE
#define ASIO_STANDALONE
#endif
#ifndef ASIO_NO_DEPRECATED
#define ASIO_NO_DEPRECATED
#endif
#include <asio.hpp>

#include "client_port.h"
#include "frame_io.h"
#include "owner_thread.h"
#include "send_budget.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

// Reads one whole message of a client: a client frame of our wire version
// with a body. Returns false with *why set (for the log line that closes
// the connection) when it is not one.
bool parseClientFrame(const std::string& bytes, proto::ClientFrame* frame, std::string* why);

class ClientSession : public ClientPort, public std::enable_shared_from_this<ClientSession> {
 public:

  struct Limits {
    size_t maxMessageBytes = wire::kDefaultMaxMessage;
    size_t maxUnsentBytes = 64u * 1024 * 1024;
    // The frames of a source are made while fewer bytes than this wait
    // for the client: enough to keep it busy while the next is made, and
    // no more.
    size_t framesAhead = 2u * 1024 * 1024;
    // How long a refused connection may take to read its answer before it
    // is closed anyway.
    std::chrono::milliseconds refuseLinger{5000};
    // How long a new connection may take to say hello.
    std::chrono::milliseconds helloTimeout{30000};
    // Bytes of unfinished messages all connections together may hold (each
    // one alone may hold up to maxMessageBytes), counted in the shared
    // counter; null: no shared budget.
    std::shared_ptr<size_t> partialBytes;
    size_t maxPartialBytes = 256u * 1024 * 1024;
    // Bytes queued for all connections together; null: no bound across
    // connections.
    std::shared_ptr<SendBudget> sendBudget;
  };

  // What the agent does with a connection's frames. Called on the loop
  // thread, never from inside another Owner call of the same session.
  class Owner {
   public:
    virtual ~Owner() = default;
    // The client's first frame. The owner answers with accept() or refuse().
    virtual void onHello(ClientSession& session, const proto::Hello& hello) = 0;
    // A request after the hello; the owner answers it with one Reply.
    virtual void onRequest(ClientSession& session, const proto::Request& request) = 0;
    // The connection is closed (called once, from a handler of its own, so
    // that the owner may forget the session there). wasAccepted: the hello
    // had been accepted, so the client may hold providers.
    virtual void onClosed(ClientSession& session, const std::string& why, bool wasAccepted) = 0;
  };

  // Takes ownership of fd (a connected, non-blocking SOCK_SEQPACKET socket).
  ClientSession(asio::io_context& io, int fd, uint64_t id, const Peer& peer, const Limits& limits,
                Owner* owner);
  ~ClientSession() override;
  ClientSession(const ClientSession&) = delete;
  ClientSession& operator=(const ClientSession&) = delete;

  // Starts reading; the first frame must be a hello.
  void start();

  // Answers the hello with helloReply; requests are taken from now on.
  void accept(const proto::AgentFrame& helloReply) override;
  // Sends the frame (a hello reply with an error), then closes the
  // connection when the client has gone, or after the linger time.
  void refuse(const proto::AgentFrame& frame, const std::string& why) override;
  // Queues a frame. A client that lets more than maxUnsentBytes pile up is
  // cut off as gone.
  void send(const proto::AgentFrame& frame) override;
  // Queues the frames of source, made as the client reads (see
  // Limits::framesAhead).
  void sendFrames(std::unique_ptr<FrameSource> source) override;
  // Closes at once; frames not yet sent are dropped.
  void close(const std::string& why) override;

  // Starts or changes the responsiveness pings: one every intervalSeconds,
  // each to be answered within limitSeconds; an interval of 0 stops them.
  void setResponsiveness(uint32_t intervalSeconds, uint32_t limitSeconds) override;

  uint64_t id() const override { return id_; }
  const Peer& peer() const override { return peer_; }
  bool accepted() const override { return state_ == State::kAccepted; }
  bool closed() const override { return state_ == State::kClosed; }
  // The program name the client gave in its hello, cut short (it is only
  // for the log).
  const std::string& program() const override { return program_; }
  void setProgram(const std::string& program) override { program_ = program.substr(0, 256); }
  // Bytes queued for the client: made frames not yet sent.
  size_t unsentBytes() const { return out_.queuedBytes() + laterBytes_; }
  // Sources whose frames are not all made yet.
  size_t pendingSources() const;

 private:
  enum class State { kNew, kAwaitingHello, kAccepted, kRefused, kClosed };

  void waitReadable();
  void readPackets();
  // Returns false when the connection was closed while handling it.
  bool handleMessage(const std::string& bytes);
  // Queues a serialised frame, or closes the connection when it is too
  // large or the client has let too much pile up. False when closed.
  bool queueFrame(std::string bytes, size_t from);
  // Moves frames from later_ into out_ (making those of sources) while
  // fewer than framesAhead bytes wait there. False when closed.
  bool takeLater();
  void flush();
  void forgetPartial();
  // Brings the send budget in line with the queue after it changed.
  void countUnsent();
  void finishRefusal();
  void drainRefused();
  void schedulePing();
  void sendPing();
  void onPingReply(uint64_t seq);

  OwnerThread ownerThread_;
  asio::io_context& io_;
  asio::posix::stream_descriptor socket_;
  uint64_t id_;
  Peer peer_;
  Limits limits_;
  Owner* owner_;
  State state_ = State::kNew;
  std::string refuseWhy_;
  std::string program_;

  wire::Reassembler reassembler_;
  size_t partial_ = 0;            // bytes of the message being reassembled
  wire::PacketQueue out_;
  size_t counted_ = 0;            // bytes of out_ counted in the send budget
  bool waitingWritable_ = false;
  // What waits behind a source that is still making its frames, in order:
  // sources, and the frames queued after them.
  struct Later {
    std::unique_ptr<FrameSource> source;  // null: frame
    std::string frame;
  };
  std::deque<Later> later_;
  size_t laterBytes_ = 0;         // of the frames in later_
  bool takeLaterPosted_ = false;

  // Bounds the wait for the hello, then for a refused client to read its
  // answer.
  asio::steady_timer lingerTimer_;

  // Responsiveness: at most one ping is outstanding; a ping that falls due
  // while one is unanswered is skipped, so nothing piles up for a stuck
  // client.
  asio::steady_timer pingTimer_;
  asio::steady_timer answerTimer_;
  uint32_t pingInterval_ = 0;
  uint32_t pingLimit_ = 0;
  uint64_t pingSeq_ = 0;
  uint64_t outstandingPing_ = 0;  // 0: none
  uint64_t pingGeneration_ = 0;   // tells timers of an older schedule apart
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_CLIENT_SESSION_H_
