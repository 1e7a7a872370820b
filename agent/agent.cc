#include "agent.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <algorithm>

#include <google/protobuf/stubs/logging.h>
#include <systemd/sd-daemon.h>

#include "corosync_bus.h"
#include "gs_types.h"
#include "loopback_bus.h"

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59
#endif

namespace velt {
namespace agent {

namespace {

// The client library hands the time limit to its callback in 16 bits.
constexpr uint32_t kMaxPingLimitSeconds = 65535;
constexpr uint32_t kMaxPingIntervalSeconds = 0x7fffffff;

constexpr size_t kMaxGroupNameBytes = ReplicaLimits().maxGroupNameBytes;
constexpr int kListenBacklog = 128;
constexpr int kAcceptsPerTurn = 64;
// Refused connections that may wait at once for their client to read the
// answer and go.
constexpr size_t kMaxRefusedWaiting = 64;
// Log lines about refused connections per second; the rest are counted.
constexpr size_t kRefusalsLoggedPerSecond = 10;
// Descriptors the agent needs besides one per client.
constexpr rlim_t kSpareDescriptors = 64;
// After the process ran out of descriptors, accepting waits this long.
constexpr auto kAcceptRetry = std::chrono::milliseconds(200);
constexpr auto kGoneRetry = std::chrono::milliseconds(100);
constexpr auto kTimeoutRetry = std::chrono::seconds(1);
constexpr auto kReplicaRetry = std::chrono::milliseconds(100);
// Largest supplementary group list read from a peer (the kernel's
// NGROUPS_MAX).
constexpr size_t kMaxPeerGroups = 65536;

std::string errnoText(int err) {
  char buf[128];
  return strerror_r(err, buf, sizeof buf);
}

// Creates dir and its missing parents with the given mode (not narrowed by
// the umask). Returns 0 or an errno value.
int makeDirectories(const std::string& dir, mode_t mode) {
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i != dir.size() && dir[i] != '/') continue;
    std::string part = dir.substr(0, i);
    if (mkdir(part.c_str(), mode) == 0) {
      if (chmod(part.c_str(), mode) != 0) return errno;
    } else if (errno != EEXIST) {
      return errno;
    }
  }
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

std::string directoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

proto::AgentFrame replyFrame(uint64_t id, int rc, const std::string& text) {
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::Reply* r = f.mutable_reply();
  r->set_id(id);
  r->set_rc(rc);
  if (!text.empty()) r->set_text(text);
  return f;
}

// Checks a client's responsiveness settings. Returns 0 or a return code
// with *why.
int checkResponsiveness(const proto::Responsiveness& r, std::string* why) {
  switch (r.type()) {
    case TK_GS_NO_RESPONSIVENESS:
      return TK_GS_OK;
    case TK_GS_PING_RESPONSIVENESS:
      if (r.interval() < 1 || r.interval() > kMaxPingIntervalSeconds) {
        *why = "ping responsiveness needs an interval of 1 to " +
               std::to_string(kMaxPingIntervalSeconds) + " seconds, not " +
               std::to_string(r.interval());
        return TK_GS_BAD_PARAMETER;
      }
      if (r.response_time_limit() < 1 || r.response_time_limit() > kMaxPingLimitSeconds) {
        *why = "ping responsiveness needs a response time limit of 1 to " +
               std::to_string(kMaxPingLimitSeconds) + " seconds, not " +
               std::to_string(r.response_time_limit());
        return TK_GS_BAD_PARAMETER;
      }
      return TK_GS_OK;
    case TK_GS_COUNTER_RESPONSIVENESS:
      *why = "counter responsiveness is not supported by this agent; ask for ping responsiveness";
      return TK_GS_NOT_SUPPORTED;
    default:
      *why = "unknown responsiveness type " + std::to_string(r.type());
      return TK_GS_BAD_PARAMETER;
  }
}

}  // namespace

Agent::Agent(AgentOptions options)
    : options_(std::move(options)),
      io_(1),
      subscriptions_(options_.maxSubscriptionsPerClient, options_.maxSubscriptions),
      acceptRetry_(io_),
      signals_(io_),
      goneRetry_(io_),
      replicaRetry_(io_) {
  sessionLimits_.maxMessageBytes = options_.maxMessageBytes;
  sessionLimits_.maxUnsentBytes = options_.maxUnsentBytes;
  sessionLimits_.partialBytes = std::make_shared<size_t>(0);
  sessionLimits_.maxPartialBytes = options_.maxPartialBytes;
}

Agent::~Agent() {
  // The bus's descriptor belongs to the bus: stop watching it without
  // closing it.
  if (busWatch_) busWatch_->release();
  // Sessions still referenced by handlers in the loop are dropped with it.
  sessions_.clear();
  refused_.clear();
}

int Agent::run() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  // A client's frame that does not parse is reported once, by its session,
  // when it closes the connection; the parser's own complaint on standard
  // error would let any client fill the agent's log.
  google::protobuf::SetLogHandler(nullptr);
  int status = start();
  if (status != 0) {
    removeSocket();
    return status;
  }
  io_.run();
  removeSocket();
  return exitStatus_;
}

void Agent::fail(const std::string& text) {
  log_.line("%s", text.c_str());
  // A start-up failure also goes to standard error when the log is a file,
  // so that whoever started the agent sees it.
  if (!options_.logPath.empty()) fprintf(stderr, "veltd: %s\n", text.c_str());
}

int Agent::start() {
  // Every send uses MSG_NOSIGNAL; this covers a log on a closed pipe.
  signal(SIGPIPE, SIG_IGN);
  int rc = log_.open(options_.logPath);
  if (rc != 0) {
    fprintf(stderr, "veltd: cannot open the log %s: %s\n", options_.logPath.c_str(),
            errnoText(rc).c_str());
    return 1;
  }
  int status = 0;
  bus_ = makeBus(&status);
  if (!bus_) return status;
  if (prepareStateDir() != 0) return 1;
  raiseDescriptorLimit();

  replica_ = std::make_unique<Replica>(bus_.get(), this, options_.agentVersion);
  bus_->setHandler(replica_.get());
  if (startTopology() != 0) return 1;

  if (openSocket() != 0) return 1;

  signals_.add(SIGTERM);
  signals_.add(SIGINT);
  signals_.async_wait([this](const std::error_code& ec, int signo) {
    if (ec) return;
    stop(0, std::string("stopping on ") + (signo == SIGTERM ? "SIGTERM" : "SIGINT"));
  });

  rc = bus_->join();
  if (rc != 0) {
    fail("cannot join the cluster's bus: " + errnoText(rc));
    return 1;
  }
  if (bus_->fd() >= 0) {
    busWatch_ = std::make_unique<asio::posix::stream_descriptor>(io_, bus_->fd());
    watchBus();
  }
  waitAcceptable();
  std::string claim;
  if (options_.agentVersion != kAgentVersion) {
    claim = " claiming " + formatVersion(options_.agentVersion);
  }
  std::string node = bus_->selfNode() != 0 ? "node " + std::to_string(bus_->selfNode())
                                            : "a node corosync has not named yet";
  log_.line("veltd %s%s on %s serving %s (%s)", formatVersion(kAgentVersion).c_str(),
            claim.c_str(), node.c_str(), options_.socketPath.c_str(),
            options_.standalone ? "standalone" : "cluster");
  notifyService();
  return 0;
}

void Agent::notifyService() {
  std::string status;
  if (corosync_ != nullptr) {
    status = corosync_->linkText();
    if (corosync_->link() == CorosyncBus::Link::kJoined && replica_ && !replica_->isSynced()) {
      status += "; taking the cluster's state";
    }
  } else {
    status = "standalone, node " + std::to_string(bus_ ? bus_->selfNode() : options_.node);
  }
  bool ready = !readyNotified_ && replica_ && replica_->isSynced();
  if (!ready && status == notifiedStatus_) return;
  notifiedStatus_ = status;
  std::string text = (ready ? "READY=1\n" : "") + std::string("STATUS=") + status;
  // Without $NOTIFY_SOCKET this does nothing; a failure only costs the
  // service manager's view of us, never the agent's work.
  sd_notify(0, text.c_str());
  if (ready) readyNotified_ = true;
}

std::unique_ptr<Bus> Agent::makeBus(int* exitStatus) {
  if (!options_.standalone) {
    auto bus = std::make_unique<CorosyncBus>(
        CorosyncBusOptions(), [this](const std::string& line) { log_.line("%s", line.c_str()); });
    std::string why;
    int rc = bus->open(&why);
    if (rc != 0) {
      fail(why);
      *exitStatus = 1;
      return nullptr;
    }
    corosync_ = bus.get();
    bus->setLinkCallback([this] { notifyService(); });
    return bus;
  }
  auto bus = std::make_unique<LoopbackBus>(options_.node);
  int rc = bus->open();
  if (rc != 0) {
    fail("cannot set up the loopback bus: " + errnoText(rc));
    *exitStatus = 1;
    return nullptr;
  }
  return bus;
}

int Agent::prepareStateDir() {
  int rc = makeDirectories(options_.stateDir, 0755);
  if (rc != 0) {
    fail("cannot use the state directory " + options_.stateDir + ": " + errnoText(rc));
    return -1;
  }
  if (access(options_.stateDir.c_str(), W_OK | X_OK) != 0) {
    fail("cannot write in the state directory " + options_.stateDir + ": " + errnoText(errno));
    return -1;
  }
  return 0;
}

void Agent::raiseDescriptorLimit() {
  // One descriptor per client and some for ourselves; the usual soft limit
  // of 1024 would refuse clients well before the connection limit.
  rlim_t want = static_cast<rlim_t>(options_.maxClients) + kSpareDescriptors;
  struct rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur >= want) return;
  rlim_t soft = std::min(want, rl.rlim_max);
  if (soft > rl.rlim_cur) {
    rl.rlim_cur = soft;
    setrlimit(RLIMIT_NOFILE, &rl);
  }
  if (soft < want) {
    log_.line("only %llu descriptors may be open: fewer than %zu clients will be able to connect",
              static_cast<unsigned long long>(soft), options_.maxClients);
  }
}

int Agent::openSocket() {
  const std::string& path = options_.socketPath;
  std::string dir = directoryOf(path);
  if (!dir.empty()) {
    int rc = makeDirectories(dir, 0755);
    if (rc != 0) {
      fail("cannot create the socket's directory " + dir + ": " + errnoText(rc));
      return -1;
    }
  }
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.data(), path.size());   // length checked with the options

  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      fail(path + " exists and is not a socket; the agent does not replace it");
      return -1;
    }
    // A socket file nobody listens on is what a killed agent leaves behind.
    int probe = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (probe < 0) {
      fail("cannot create a socket: " + errnoText(errno));
      return -1;
    }
    int rc = connect(probe, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    int err = errno;
    ::close(probe);
    if (rc == 0 || err == EAGAIN) {
      fail("another agent is serving " + path);
      return -1;
    }
    if (err != ECONNREFUSED && err != ENOENT) {
      fail("cannot tell whether " + path + " is in use: " + errnoText(err));
      return -1;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      fail("cannot remove the stale socket " + path + ": " + errnoText(errno));
      return -1;
    }
    log_.line("replaced the stale socket %s", path.c_str());
  }

  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    fail("cannot create a socket: " + errnoText(errno));
    return -1;
  }
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    fail("cannot bind " + path + ": " + errnoText(errno));
    ::close(fd);
    return -1;
  }
  socketBound_ = true;
  if (stat(path.c_str(), &st) == 0) {
    socketDev_ = st.st_dev;
    socketIno_ = st.st_ino;
  }
  // Everyone may connect; who may stay is decided from the peer's
  // credentials at accept.
  if (chmod(path.c_str(), 0666) != 0) {
    fail("cannot set the mode of " + path + ": " + errnoText(errno));
    ::close(fd);
    return -1;
  }
  if (listen(fd, kListenBacklog) != 0) {
    fail("cannot listen on " + path + ": " + errnoText(errno));
    ::close(fd);
    return -1;
  }
  listener_ = std::make_unique<asio::posix::stream_descriptor>(io_, fd);
  return 0;
}

void Agent::removeSocket() {
  if (!socketBound_) return;
  socketBound_ = false;
  // Only our own file: a newer agent may have replaced it meanwhile.
  struct stat st;
  if (stat(options_.socketPath.c_str(), &st) == 0 && st.st_dev == socketDev_ &&
      st.st_ino == socketIno_) {
    unlink(options_.socketPath.c_str());
  }
}

void Agent::stop(int exitStatus, const std::string& why) {
  if (stopping_) return;
  stopping_ = true;
  exitStatus_ = exitStatus;
  log_.line("%s", why.c_str());
  if (listener_) {
    std::error_code ignored;
    listener_->close(ignored);
  }
  removeSocket();
  for (auto& entry : sessions_) entry.second->close("the agent is stopping");
  for (auto& entry : refused_) entry.second->close("the agent is stopping");
  io_.stop();
}

// ---------------------------------------------------------------- the bus

void Agent::watchBus() {
  busWatch_->async_wait(asio::posix::stream_descriptor::wait_read,
                        [this](const std::error_code& ec) {
                          if (ec || stopping_) return;
                          dispatchBus();
                        });
}

void Agent::dispatchBus() {
  int rc = bus_->dispatch();
  if (rc != 0) {
    // The cluster's bus rides out corosync's absence by itself; what it
    // reports here is what the agent cannot go on with (its log line says
    // what).
    stop(1, "the bus failed: " + errnoText(rc));
    return;
  }
  flushReplica();
  // The descriptor is watched edge-triggered: whatever dispatch() left to
  // read is taken on the next turn of the loop rather than waited for.
  struct pollfd p;
  p.fd = bus_->fd();
  p.events = POLLIN;
  p.revents = 0;
  if (poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0) {
    asio::post(io_, [this] {
      if (!stopping_) dispatchBus();
    });
    return;
  }
  watchBus();
}

// ----------------------------------------------------------- the listener

void Agent::waitAcceptable() {
  listener_->async_wait(asio::posix::stream_descriptor::wait_read,
                        [this](const std::error_code& ec) {
                          if (ec || stopping_) return;
                          acceptClients();
                        });
}

void Agent::acceptClients() {
  for (int i = 0; i < kAcceptsPerTurn; ++i) {
    int fd = accept4(listener_->native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      int err = errno;
      if (err == EINTR || err == ECONNABORTED || err == EPROTO) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) {
        waitAcceptable();
        return;
      }
      // Out of descriptors or memory: the pending connections stay in the
      // backlog and are tried again a little later, not in a tight loop.
      if (!acceptPaused_) log_.line("cannot accept clients for now: %s", errnoText(err).c_str());
      acceptPaused_ = true;
      acceptRetry_.expires_after(kAcceptRetry);
      acceptRetry_.async_wait([this](const std::error_code& ec) {
        if (ec || stopping_) return;
        acceptClients();
      });
      return;
    }
    if (acceptPaused_) {
      acceptPaused_ = false;
      log_.line("accepting clients again");
    }
    struct ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
      log_.line("a client connection without credentials (%s) is closed", errnoText(errno).c_str());
      ::close(fd);
      continue;
    }
    ClientSession::Peer peer;
    peer.pid = cred.pid;
    peer.uid = cred.uid;
    peer.gid = cred.gid;

    uint64_t id = nextClient_++;
    proto::AgentFrame refusal;
    refusal.set_version(proto::WIRE_VERSION_1);
    proto::HelloReply* hr = refusal.mutable_hello_reply();
    hr->set_node(bus_->selfNode());
    hr->set_agent_version(options_.agentVersion);
    hr->set_active_version(activeVersion());
    std::string why;
    if (!mayConnect(fd, peer)) {
      hr->set_rc(TK_GS_PERMISSION_DENIED);
      hr->set_text("uid " + std::to_string(peer.uid) +
                   " may not use this agent: it serves root, its own user (uid " +
                   std::to_string(geteuid()) + ") and the users and groups it was told to allow");
      why = "refused: uid " + std::to_string(peer.uid) + " is not allowed";
    } else if (sessions_.size() >= options_.maxClients) {
      hr->set_rc(TK_GS_LIMIT_EXCEEDED);
      hr->set_text("the agent already serves " + std::to_string(options_.maxClients) +
                   " client connections, the most it takes");
      why = "refused: the connection limit is reached";
    }
    if (why.empty()) {
      auto session = std::make_shared<ClientSession>(io_, fd, id, peer, sessionLimits_, this);
      sessions_[id] = session;
      session->start();
      continue;
    }
    // Refused connections wait apart, so that they never take a client's
    // place; under a flood of them the newest are cut off without an answer.
    if (refused_.size() >= kMaxRefusedWaiting) {
      ::close(fd);
      if (mayLogRefusal()) {
        log_.line("client %llu (pid %d, uid %u) cut off unanswered: %s, and %zu refused "
                  "connections are waiting already",
                  static_cast<unsigned long long>(id), static_cast<int>(peer.pid), peer.uid,
                  why.c_str(), refused_.size());
      }
      continue;
    }
    auto session = std::make_shared<ClientSession>(io_, fd, id, peer, sessionLimits_, this);
    refused_[id] = session;
    session->refuse(refusal, why);
  }
  // More may be waiting: carry on after the rest of the loop had its turn.
  asio::post(io_, [this] {
    if (!stopping_) acceptClients();
  });
}

bool Agent::mayConnect(int fd, const ClientSession::Peer& peer) const {
  if (peer.uid == 0 || peer.uid == geteuid()) return true;
  const auto& uids = options_.allowUids;
  if (std::find(uids.begin(), uids.end(), peer.uid) != uids.end()) return true;
  const auto& gids = options_.allowGids;
  if (gids.empty()) return false;
  if (std::find(gids.begin(), gids.end(), peer.gid) != gids.end()) return true;
  // The peer's supplementary groups count too.
  std::vector<gid_t> groups(64);
  for (int attempt = 0; attempt < 2; ++attempt) {
    socklen_t len = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) == 0) {
      groups.resize(len / sizeof(gid_t));
      for (gid_t g : groups) {
        if (std::find(gids.begin(), gids.end(), g) != gids.end()) return true;
      }
      return false;
    }
    if (errno != ERANGE) return false;
    size_t need = len / sizeof(gid_t);
    if (need <= groups.size() || need > kMaxPeerGroups) return false;
    groups.resize(need);
  }
  return false;
}

// ----------------------------------------------------------- the clients

std::string Agent::describeClient(const ClientSession& session) const {
  const ClientSession::Peer& p = session.peer();
  std::string text = "client " + std::to_string(session.id()) + " (pid " +
                     std::to_string(p.pid) + ", uid " + std::to_string(p.uid);
  if (!session.program().empty()) text += ", " + printable(session.program(), 64);
  return text + ")";
}

uint32_t Agent::activeVersion() const {
  uint32_t v = replica_ ? replica_->activeVersion() : 0;
  // Before the replica has heard from any agent it knows only itself.
  return v != 0 ? v : options_.agentVersion;
}

proto::AgentFrame Agent::domainControl(uint32_t version) const {
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  f.mutable_domain_control()->set_event(TK_GS_DOMAIN_VERSION);
  f.mutable_domain_control()->set_active_version(version);
  return f;
}

void Agent::onHello(ClientSession& session, const proto::Hello& hello) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  session.setProgram(hello.program());
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::HelloReply* hr = f.mutable_hello_reply();
  hr->set_node(bus_->selfNode());
  hr->set_agent_version(options_.agentVersion);
  hr->set_active_version(activeVersion());
  std::string why;
  int rc = checkResponsiveness(hello.responsiveness(), &why);
  if (rc != TK_GS_OK) {
    hr->set_rc(rc);
    hr->set_text(why);
    session.refuse(f, "refused: " + why);
    return;
  }
  const proto::Responsiveness& r = hello.responsiveness();
  if (r.type() == TK_GS_PING_RESPONSIVENESS) {
    session.setResponsiveness(r.interval(), r.response_time_limit());
  }
  hr->set_rc(TK_GS_OK);
  session.accept(f);
  session.send(domainControl(activeVersion()));
  if (session.closed()) return;
  if (r.type() == TK_GS_PING_RESPONSIVENESS) {
    log_.line("%s connected; pings every %u s, to be answered within %u s",
              describeClient(session).c_str(), r.interval(), r.response_time_limit());
  } else {
    log_.line("%s connected", describeClient(session).c_str());
  }
}

void Agent::reply(ClientSession& session, uint64_t id, int rc, const std::string& text) {
  session.send(replyFrame(id, rc, text));
}

void Agent::onRequest(ClientSession& session, const proto::Request& request) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  switch (request.op_case()) {
    case proto::Request::kJoin:
    case proto::Request::kLeave:
    case proto::Request::kGoodbye:
    case proto::Request::kChangeStateValue:
    case proto::Request::kSendMessage:
    case proto::Request::kVote:
    case proto::Request::kSetAttributes:
    case proto::Request::kExpel:
      submitToReplica(session, request);
      return;
    case proto::Request::kSubscribe:
      subscribe(session, request);
      return;
    case proto::Request::kUnsubscribe:
      unsubscribe(session, request);
      return;
    case proto::Request::kQuery:
      answerQuery(session, request);
      return;
    case proto::Request::kChangeResponsiveness:
      changeResponsiveness(session, request);
      return;
    case proto::Request::OP_NOT_SET:
      break;
  }
  reply(session, request.id(), TK_GS_BAD_PARAMETER, "a request without an operation");
}

void Agent::flushReplica() {
  if (replicaRetryArmed_ || replica_->flushPending() == 0) return;
  // The bus refused something the replica still has to send (flow
  // control); a quiet cluster would not make it try again, so we do.
  replicaRetryArmed_ = true;
  replicaRetry_.expires_after(kReplicaRetry);
  replicaRetry_.async_wait([this](const std::error_code& ec) {
    replicaRetryArmed_ = false;
    if (ec || stopping_) return;
    flushReplica();
  });
}

void Agent::submitToReplica(ClientSession& session, const proto::Request& request) {
  int rc = replica_->submit(session.id(), request);
  flushReplica();
  if (rc != 0) {
    // The replica answers what it refuses itself; a bus that does not take
    // the request leaves the answer to us.
    reply(session, request.id(), TK_GS_NOT_OK,
          "the cluster's bus did not take the request (" + errnoText(rc) + "); try again");
  }
}

void Agent::subscribe(ClientSession& session, const proto::Request& request) {
  const proto::Subscribe& s = request.subscribe();
  LocalSubscriptions::GroupNow now;
  bool exists = s.group().size() <= kMaxGroupNameBytes && replica_->groupExists(s.group());
  if (exists) {
    now.members = replica_->members(s.group());
    now.attributes = replica_->attributes(s.group());
    if (s.group() == kRawAdapterGroup) now.adapters = replica_->liveAdapters();
  }
  std::vector<LocalSubscriptions::Outgoing> out;
  std::string why;
  int rc = subscriptions_.subscribe(session.id(), request.id(), s, exists ? &now : nullptr, &out,
                                    &why);
  reply(session, request.id(), rc, why);
  sendSubscriptionNotes(out);
}

void Agent::unsubscribe(ClientSession& session, const proto::Request& request) {
  std::string why;
  int rc = subscriptions_.unsubscribe(session.id(), request.unsubscribe(), &why);
  reply(session, request.id(), rc, why);
}

void Agent::changeResponsiveness(ClientSession& session, const proto::Request& request) {
  const proto::Responsiveness& r = request.change_responsiveness().responsiveness();
  std::string why;
  int rc = checkResponsiveness(r, &why);
  if (rc == TK_GS_OK) {
    if (r.type() == TK_GS_PING_RESPONSIVENESS) {
      session.setResponsiveness(r.interval(), r.response_time_limit());
      log_.line("%s: pings every %u s now, to be answered within %u s",
                describeClient(session).c_str(), r.interval(), r.response_time_limit());
    } else {
      session.setResponsiveness(0, 0);
      log_.line("%s: no pings now", describeClient(session).c_str());
    }
  }
  reply(session, request.id(), rc, why);
}

void Agent::answerQuery(ClientSession& session, const proto::Request& request) {
  const proto::Query& q = request.query();
  if (q.kind() != proto::Query::STATUS && q.kind() != proto::Query::GROUPS &&
      q.kind() != proto::Query::MEMBERS) {
    reply(session, request.id(), TK_GS_BAD_PARAMETER,
          "unknown query kind " + std::to_string(static_cast<int>(q.kind())));
    return;
  }
  if (q.kind() == proto::Query::MEMBERS && q.group().empty()) {
    reply(session, request.id(), TK_GS_BAD_PARAMETER, "the query names no group");
    return;
  }
  if (q.kind() == proto::Query::MEMBERS && q.group().size() > kMaxGroupNameBytes) {
    reply(session, request.id(), TK_GS_LIMIT_EXCEEDED,
          "the group name has " + std::to_string(q.group().size()) + " bytes, at most " +
              std::to_string(kMaxGroupNameBytes) + " are allowed");
    return;
  }
  proto::AgentFrame f = replyFrame(request.id(), TK_GS_OK, "");
  proto::QueryAnswer* a = f.mutable_reply()->mutable_answer();
  *a = replica_->describe();
  a->set_node(bus_->selfNode());
  a->set_agent_version(options_.agentVersion);
  a->set_active_version(activeVersion());
  auto* groups = a->mutable_groups();
  if (q.kind() == proto::Query::MEMBERS) {
    auto it = std::find_if(groups->begin(), groups->end(),
                           [&](const proto::GroupSummary& g) { return g.name() == q.group(); });
    if (it == groups->end() && q.group() == kRawAdapterGroup) {
      // The raw group exists even while no adapter is alive.
      groups->Add()->set_name(kRawAdapterGroup);
      it = groups->end() - 1;
    }
    if (it == groups->end()) {
      reply(session, request.id(), TK_GS_UNKNOWN_GROUP,
            "there is no group \"" + printable(q.group(), kMaxGroupNameBytes) + "\"");
      return;
    }
    proto::GroupSummary only = std::move(*it);
    groups->Clear();
    *groups->Add() = std::move(only);
  }
  for (proto::GroupSummary& g : *groups) {
    g.set_subscribers_here(subscriptions_.countFor(g.name()));
    // The overviews leave out what can be large; members shows it all.
    if (q.kind() != proto::Query::MEMBERS) g.clear_state_value();
    if (q.kind() == proto::Query::STATUS) g.clear_providers();
    if (q.kind() != proto::Query::MEMBERS) g.clear_adapters();
  }
  size_t size = f.ByteSizeLong();
  if (size > options_.maxMessageBytes) {
    reply(session, request.id(), TK_GS_LIMIT_EXCEEDED,
          "the answer would be " + std::to_string(size) + " bytes, more than the " +
              std::to_string(options_.maxMessageBytes) +
              " the socket carries; ask for one group's members");
    return;
  }
  session.send(f);
}

void Agent::sendSubscriptionNotes(const std::vector<LocalSubscriptions::Outgoing>& out) {
  for (const LocalSubscriptions::Outgoing& o : out) {
    auto it = sessions_.find(o.client);
    if (it == sessions_.end()) continue;
    proto::AgentFrame f;
    f.set_version(proto::WIRE_VERSION_1);
    *f.mutable_notification() = o.notification;
    it->second->send(f);
  }
}

bool Agent::mayLogRefusal() {
  auto now = std::chrono::steady_clock::now();
  if (now - refusalWindow_ >= std::chrono::seconds(1)) {
    if (refusalsUnlogged_ > 0) {
      log_.line("%zu more refused connections were not logged", refusalsUnlogged_);
    }
    refusalWindow_ = now;
    refusalsLogged_ = 0;
    refusalsUnlogged_ = 0;
  }
  if (refusalsLogged_ < kRefusalsLoggedPerSecond) {
    ++refusalsLogged_;
    return true;
  }
  ++refusalsUnlogged_;
  return false;
}

void Agent::onClosed(ClientSession& session, const std::string& why, bool wasAccepted) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  uint64_t id = session.id();
  // Whoever is refused can come back at once: those lines are rationed.
  bool wasRefused = refused_.erase(id) != 0;
  if (!wasRefused || mayLogRefusal()) {
    log_.line("%s closed: %s", describeClient(session).c_str(), why.c_str());
  }
  sessions_.erase(id);
  subscriptions_.dropClient(id);
  // Only an accepted client can hold providers.
  if (wasAccepted && !stopping_) tellGone(id, why);
}

void Agent::tellGone(uint64_t client, const std::string& why) {
  flushReplica();
  if (goneBacklog_.empty() && replica_->clientGone(client, why) == 0) return;
  goneBacklog_.emplace_back(client, why);
  if (goneBacklog_.size() == 1) retryGone();
}

void Agent::retryGone() {
  goneRetry_.expires_after(kGoneRetry);
  goneRetry_.async_wait([this](const std::error_code& ec) {
    if (ec || stopping_) return;
    while (!goneBacklog_.empty()) {
      const auto& g = goneBacklog_.front();
      if (replica_->clientGone(g.first, g.second) != 0) break;
      goneBacklog_.pop_front();
    }
    if (!goneBacklog_.empty()) retryGone();
  });
}

// ------------------------------------------------------------ the replica

void Agent::toClient(uint64_t client, const proto::AgentFrame& frame) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  auto it = sessions_.find(client);
  if (it == sessions_.end()) return;   // gone meanwhile; its departure is on its way
  if (frame.version() == proto::WIRE_VERSION_1) {
    it->second->send(frame);
    return;
  }
  proto::AgentFrame copy = frame;
  copy.set_version(proto::WIRE_VERSION_1);
  it->second->send(copy);
}

void Agent::groupChanged(const GroupChange& change) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  std::vector<LocalSubscriptions::Outgoing> out;
  subscriptions_.groupChanged(change, &out);
  sendSubscriptionNotes(out);
}

void Agent::activeVersionChanged(uint32_t version) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  log_.line("the cluster's active version is %s", formatVersion(version).c_str());
  proto::AgentFrame f = domainControl(version);
  for (auto& entry : sessions_) {
    if (entry.second->accepted()) entry.second->send(f);
  }
}

void Agent::synced() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  const View& v = replica_->view();
  std::string nodes;
  for (uint32_t n : v.members) nodes += (nodes.empty() ? "" : " ") + std::to_string(n);
  log_.line("in step with the cluster: view %llu, nodes %s",
            static_cast<unsigned long long>(v.id), nodes.c_str());
  notifyService();
  // The cluster's idea of our adapters is what the merged state says now;
  // the topology may know better (a fresh agent, a report lost with a
  // restarted sync, links that count differently in the new view).
  topology_->setView(replica_->selfNode(), v.members);
  reportedAdapters_.clear();
  for (const proto::AdapterImage& a : replica_->adaptersOf(replica_->selfNode())) {
    reportedAdapters_[a.adapter().instance()] = a;
  }
  reportAdapters();
}

// ------------------------------------------------------------ the topology

int Agent::startTopology() {
  TopologyWatch::Settings ts;
  ts.node = bus_->selfNode();
  ts.filter = options_.interfaces;
  ts.watchLinks = !options_.standalone;
  ts.linkPoll = std::chrono::milliseconds(options_.linkPollMs);
  ts.maxAdapters = ReplicaLimits().maxAdaptersPerNode;
  topology_ = std::make_unique<TopologyWatch>(
      io_, ts, [this](const std::string& line) { log_.line("%s", line.c_str()); },
      [this] { reportAdapters(); });
  int rc = topology_->start();
  if (rc != 0) {
    fail("cannot watch this node's interfaces (rtnetlink): " + errnoText(rc));
    return -1;
  }
  log_.line("reporting the adapters of %s%s", options_.interfaces.describe().c_str(),
            options_.standalone ? "" : ", with knet's link status");
  return 0;
}

void Agent::reportAdapters() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (stopping_ || !topology_ || !topology_->ready() || !replica_->isSynced()) return;
  if (adapterRetry_) return;   // the bus refused one; the retry sends the rest
  for (const proto::AdapterUpdate& u : topology_->tracker().updatesFrom(reportedAdapters_)) {
    int rc = replica_->reportAdapter(u);
    if (rc != 0) {
      // Flow control: the reports wait a little; they are taken from the
      // topology afresh then, so nothing older is sent.
      adapterRetry_ = std::make_unique<asio::steady_timer>(io_, kReplicaRetry);
      adapterRetry_->async_wait([this](const std::error_code& ec) {
        if (ec) return;
        adapterRetry_.reset();
        reportAdapters();
      });
      break;
    }
    const proto::AdapterInfo& a = u.adapter();
    char ip[INET6_ADDRSTRLEN] = "?";
    if (a.ip().size() == 4) inet_ntop(AF_INET, a.ip().data(), ip, sizeof ip);
    log_.line("adapter %s (%s, index %u) %s", printable(a.interface_name(), 32).c_str(), ip,
              a.instance(), u.removed() ? "is gone" : u.alive() ? "is alive" : "is dead");
    if (u.removed()) {
      reportedAdapters_.erase(a.instance());
    } else {
      proto::AdapterImage& img = reportedAdapters_[a.instance()];
      *img.mutable_adapter() = a;
      img.set_alive(u.alive());
    }
  }
  flushReplica();
}

void Agent::deadlinesChanged(const std::vector<Deadline>& deadlines) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  std::map<DeadlineKey, DeadlineTimer> next;
  for (const Deadline& d : deadlines) {
    DeadlineKey key(d.group, d.protocol, d.phase);
    auto old = deadlines_.find(key);
    if (old != deadlines_.end()) {
      // Already running: its phase started when we first heard of it.
      next[key] = std::move(old->second);
      deadlines_.erase(old);
      continue;
    }
    DeadlineTimer& entry = next[key];
    entry.deadline = d;
    entry.timer = std::make_unique<asio::steady_timer>(io_);
    armDeadline(key, &entry, std::chrono::seconds(d.seconds));
  }
  // What is left here is no longer watched; its timers go with it.
  deadlines_.swap(next);
}

void Agent::armDeadline(const DeadlineKey& key, DeadlineTimer* entry,
                        std::chrono::seconds after) {
  entry->generation = ++deadlineGeneration_;
  entry->timer->expires_after(after);
  uint64_t generation = entry->generation;
  entry->timer->async_wait([this, key, generation](const std::error_code& ec) {
    if (ec || stopping_) return;
    fireDeadline(key, generation);
  });
}

void Agent::fireDeadline(const DeadlineKey& key, uint64_t generation) {
  auto it = deadlines_.find(key);
  if (it == deadlines_.end() || it->second.generation != generation) return;
  Deadline d = it->second.deadline;
  int rc = replica_->fireTimeout(d);
  flushReplica();
  // The time-out travels the bus; until it comes back and the replica
  // hands out new deadlines, a bus that did not take it is asked again.
  it = deadlines_.find(key);
  if (rc != 0 && it != deadlines_.end()) armDeadline(key, &it->second, kTimeoutRetry);
}

}  // namespace agent
}  // namespace velt
