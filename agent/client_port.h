// ClientPort: one client connection as AgentCore sees it: who is on the
// other end, and what may be done with the connection. The agent process
// implements it with ClientSession (a socket on the event loop); the
// core's tests implement it in memory. A port reports its own closing to
// the process layer, which then tells AgentCore (clientClosed), never from
// inside a call of the core.
// Owned by the agent's event loop thread.
#ifndef VELT_AGENT_CLIENT_PORT_H_
#define VELT_AGENT_CLIENT_PORT_H_

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>

#include "velt.pb.h"

namespace velt {
namespace agent {

// The answer to the client's request id: its return code and, for errors,
// why.
inline proto::AgentFrame replyFrame(uint64_t id, int rc, const std::string& text) {
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::Reply* r = f.mutable_reply();
  r->set_id(id);
  r->set_rc(rc);
  if (!text.empty()) r->set_text(text);
  return f;
}

// The frames of one large answer, made one at a time as the client takes
// them, so that the answer is never held whole.
// Owned by the agent's event loop thread, like the port it is given to.
class FrameSource {
 public:
  virtual ~FrameSource() = default;
  // Makes the next frame: a serialised AgentFrame, the bytes of *frame from
  // *from on. False when every frame has been made.
  virtual bool next(std::string* frame, size_t* from) = 0;
};

class ClientPort {
 public:
  // Who is on the other end, as the kernel says (SO_PEERCRED).
  struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
  };

  virtual ~ClientPort() = default;

  virtual uint64_t id() const = 0;
  virtual const Peer& peer() const = 0;
  // The program name the client gave in its hello (only for the log).
  virtual const std::string& program() const = 0;
  virtual void setProgram(const std::string& program) = 0;

  // Answers the hello with helloReply; requests are taken from now on.
  virtual void accept(const proto::AgentFrame& helloReply) = 0;
  // Answers the hello with a refusal, then lets the connection go.
  virtual void refuse(const proto::AgentFrame& frame, const std::string& why) = 0;
  // Queues a frame for the client (a port may close itself instead, when
  // the client does not keep up).
  virtual void send(const proto::AgentFrame& frame) = 0;
  // Queues the frames of source, after what was queued before and before
  // what is queued later; each is made when the client has taken most of
  // what waits for it. A closed port lets the source go unused.
  virtual void sendFrames(std::unique_ptr<FrameSource> source) = 0;
  // Closes at once.
  virtual void close(const std::string& why) = 0;
  // Responsiveness pings: one every intervalSeconds, each to be answered
  // within limitSeconds; an interval of 0 stops them.
  virtual void setResponsiveness(uint32_t intervalSeconds, uint32_t limitSeconds) = 0;

  virtual bool accepted() const = 0;
  virtual bool closed() const = 0;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_CLIENT_PORT_H_
