#include "agent.h"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include <google/protobuf/stubs/logging.h>
#include <systemd/sd-daemon.h>

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "corosync_bus.h"
#include "gs_types.h"
#include "interface_attributes.h"
#include "kor_store.h"
#include "loopback_bus.h"
#include "node_identity.h"
#include "vx_cu.h"

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59
#endif

namespace velt {
namespace agent {

namespace {

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
// Largest supplementary group list read from a peer (the kernel's
// NGROUPS_MAX).
constexpr size_t kMaxPeerGroups = 65536;
// Connection slots only root and the agent's own user may take, so that
// their tools get in when others hold every other slot.
constexpr size_t kReservedSlots = 8;
// Client frames given back since the last trim that make another one worth
// it, and how long after the last of them the trim waits (a burst's end).
constexpr size_t kTrimAfterBytes = 4u * 1024 * 1024;
constexpr auto kTrimDelay = std::chrono::milliseconds(200);

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

// One of the core's timers on the loop's steady clock. A wait that was
// cancelled or replaced may already sit in the loop's queue: the
// generation it was started in tells it apart, so it does nothing.
class LoopTimer : public Timer {
 public:
  explicit LoopTimer(asio::io_context& io)
      : timer_(io), generation_(std::make_shared<uint64_t>(0)) {}
  ~LoopTimer() override { ++*generation_; }

  void start(std::chrono::milliseconds after, std::function<void()> fired) override {
    uint64_t generation = ++*generation_;
    timer_.expires_after(after);
    // The handler holds its own copy of fired, so that fired may destroy
    // this timer.
    timer_.async_wait([current = generation_, generation, fired = std::move(fired)](
                          const std::error_code& ec) {
      if (ec || *current != generation) return;
      fired();
    });
  }

  void cancel() override {
    ++*generation_;
    timer_.cancel();
  }

 private:
  asio::steady_timer timer_;
  std::shared_ptr<uint64_t> generation_;
};

class LoopTimers : public TimerSource {
 public:
  explicit LoopTimers(asio::io_context& io) : io_(io) {}
  std::unique_ptr<Timer> newTimer() override { return std::make_unique<LoopTimer>(io_); }

 private:
  asio::io_context& io_;
};

// The topology watch as the core sees it.
class WatchedTopology : public NodeTopology {
 public:
  explicit WatchedTopology(TopologyWatch* watch) : watch_(watch) {}
  bool ready() const override { return watch_->ready(); }
  std::vector<proto::AdapterUpdate> updatesFrom(
      const std::map<uint32_t, proto::AdapterImage>& known) const override {
    return watch_->tracker().updatesFrom(known);
  }
  void setView(uint32_t self, const std::vector<uint32_t>& members) override {
    watch_->setView(self, members);
  }
  // Every adapter's interface with the attributes sysfs gives it; the
  // address's prefix length comes from the kernel's address list.
  std::vector<proto::InterfaceResource> interfaces() const override {
    std::map<std::pair<std::string, std::string>, unsigned> prefixes;
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) == 0) {
      for (struct ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || a->ifa_netmask == nullptr || a->ifa_name == nullptr ||
            a->ifa_addr->sa_family != AF_INET) {
          continue;
        }
        const auto* ip = reinterpret_cast<const struct sockaddr_in*>(a->ifa_addr);
        const auto* mask = reinterpret_cast<const struct sockaddr_in*>(a->ifa_netmask);
        std::string bytes(reinterpret_cast<const char*>(&ip->sin_addr), 4);
        prefixes[{a->ifa_name, bytes}] =
            static_cast<unsigned>(__builtin_popcount(ntohl(mask->sin_addr.s_addr)));
      }
      freeifaddrs(list);
    }
    std::vector<proto::InterfaceResource> out;
    for (const auto& e : watch_->tracker().adapters()) {
      const proto::AdapterInfo& a = e.second.adapter();
      auto p = prefixes.find({a.interface_name(), a.ip()});
      proto::InterfaceResource r;
      if (reader_.read(a.interface_name(), a.ip(), p != prefixes.end() ? p->second : 32, a.node(),
                       &r) == 0) {
        out.push_back(std::move(r));
      }
    }
    return out;
  }

 private:
  TopologyWatch* watch_;
  InterfaceAttributeReader reader_;
};

}  // namespace

Agent::Agent(AgentOptions options)
    : options_(std::move(options)),
      io_(1),
      timers_(std::make_unique<LoopTimers>(io_)),
      acceptRetry_(io_),
      signals_(io_),
      trimTimer_(io_) {
  sessionLimits_.maxMessageBytes = options_.maxMessageBytes;
  sessionLimits_.maxUnsentBytes = options_.maxUnsentBytes;
  sessionLimits_.sendBudget = std::make_shared<SendBudget>(options_.maxUnsentTotal);
  sessionLimits_.sendBudget->onReleased(kTrimAfterBytes, [this] { scheduleTrim(); });
  sessionLimits_.partialBytes = std::make_shared<size_t>(0);
  sessionLimits_.maxPartialBytes = options_.maxPartialBytes;
}

Agent::~Agent() {
  // The bus's descriptor belongs to the bus: stop watching it without
  // closing it.
  if (busWatch_) busWatch_->release();
  // The core goes first: it holds the bus, the topology, the timers and
  // the sessions (as its clients).
  core_.reset();
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

void Agent::waitForSignal() {
  signals_.async_wait([this](const std::error_code& ec, int signo) {
    if (ec) return;
    if (signo == SIGHUP) {
      int rc = log_.reopen();
      if (rc != 0) {
        log_.lineAt(LogLevel::kError, "cannot open the log %s again: %s", options_.logPath.c_str(),
                    errnoText(rc).c_str());
      } else {
        log_.line("the log is opened again (SIGHUP)");
      }
      waitForSignal();
      return;
    }
    stop(0, std::string("stopping on ") + (signo == SIGTERM ? "SIGTERM" : "SIGINT"));
  });
}

void Agent::fail(const std::string& text) {
  log_.lineAt(LogLevel::kError, "%s", text.c_str());
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
  // Taken first, so that a stop asked for while the agent starts (its
  // socket may already answer) ends it cleanly once its loop runs, instead
  // of killing it.
  signals_.add(SIGTERM);
  signals_.add(SIGINT);
  // SIGHUP opens the log file again, for logrotate.
  signals_.add(SIGHUP);
  waitForSignal();

  int status = 0;
  bus_ = makeBus(&status);
  if (!bus_) return status;
  if (prepareStateDir() != 0) return 1;
  raiseDescriptorLimit();

  AgentCore::Settings settings;
  settings.agentVersion = options_.agentVersion;
  settings.maxMessageBytes = options_.maxMessageBytes;
  settings.maxSubscriptionsPerClient = options_.maxSubscriptionsPerClient;
  settings.maxSubscriptions = options_.maxSubscriptions;
  core_ = std::make_unique<AgentCore>(
      bus_.get(), timers_.get(), settings,
      [this](const std::string& line) { log_.line("%s", line.c_str()); });
  core_->setSyncedCallback([this] { notifyService(); });
  if (startKor() != 0) return 1;
  if (startTopology() != 0) return 1;

  if (openSocket() != 0) return 1;

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
    if (corosync_->link() == CorosyncBus::Link::kJoined && core_ && !core_->replica().isSynced()) {
      status += "; taking the cluster's state";
    }
  } else {
    status = "standalone, node " + std::to_string(bus_ ? bus_->selfNode() : options_.node);
  }
  bool ready = !readyNotified_ && core_ && core_->replica().isSynced();
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
    log_.lineAt(LogLevel::kWarning, "only %llu descriptors may be open: fewer than %zu clients will be able to connect",
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
    // Whoever may write in the directory could replace the socket and
    // answer clients in the agent's name.
    char why[512];
    if (cu_check_private_dir(dir.c_str(), geteuid(), why, sizeof why) != 0) {
      fail(std::string("the socket's directory is not safe: ") + why);
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
  if (core_) {
    core_->stop();
    // What KOR holds now is what the next start offers the cluster.
    saveKor(core_->replica().kor().image());
  }
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
  core_->busDispatched();
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
      if (!acceptPaused_) log_.lineAt(LogLevel::kWarning, "cannot accept clients for now: %s", errnoText(err).c_str());
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
      log_.lineAt(LogLevel::kWarning, "a client connection without credentials (%s) is closed", errnoText(errno).c_str());
      ::close(fd);
      continue;
    }
    ClientSession::Peer peer;
    peer.pid = cred.pid;
    peer.uid = cred.uid;
    peer.gid = cred.gid;

    uint64_t id = nextClient_++;
    proto::AgentFrame refusal;
    std::string why;
    if (!mayConnect(fd, peer)) {
      refusal = core_->helloReply(
          TK_GS_PERMISSION_DENIED,
          "uid " + std::to_string(peer.uid) +
              " may not use this agent: it serves root, its own user (uid " +
              std::to_string(geteuid()) + ") and the users and groups it was told to allow");
      why = "refused: uid " + std::to_string(peer.uid) + " is not allowed";
    } else if (!takeSlot(peer)) {
      refusal = core_->helloReply(TK_GS_LIMIT_EXCEEDED,
                                  "the agent already serves " +
                                      std::to_string(openSessions()) +
                                      " client connections, the most it takes" +
                                      (openSessions() < options_.maxClients
                                           ? " (the others are kept for root and uid " +
                                                 std::to_string(geteuid()) + ")"
                                           : std::string()));
      why = "refused: the connection limit is reached";
    }
    if (why.empty()) {
      auto session = std::make_shared<ClientSession>(io_, fd, id, peer, sessionLimits_, this);
      sessions_[id] = session;
      awaitingHello_.insert(id);
      core_->clientConnected(session.get());
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

bool Agent::takeSlot(const ClientSession::Peer& peer) {
  bool privileged = peer.uid == 0 || peer.uid == geteuid();
  size_t reserved = std::min(kReservedSlots, options_.maxClients / 2);
  size_t slots = privileged ? options_.maxClients : options_.maxClients - reserved;
  if (openSessions() < slots) return true;
  if (awaitingHello_.empty()) return false;
  uint64_t oldest = *awaitingHello_.begin();
  awaitingHello_.erase(awaitingHello_.begin());
  auto it = sessions_.find(oldest);
  if (it == sessions_.end()) return false;
  evicted_.insert(oldest);
  it->second->close("no hello yet, and its place is needed for a new connection (" +
                    std::to_string(options_.maxClients) + " at most)");
  return openSessions() < slots;
}

void Agent::scheduleTrim() {
  if (trimArmed_ || stopping_) return;
  trimArmed_ = true;
  trimTimer_.expires_after(kTrimDelay);
  trimTimer_.async_wait([this](const std::error_code& ec) {
    trimArmed_ = false;
    if (ec || stopping_) return;
    sessionLimits_.sendBudget->takeReleased();
    malloc_trim(0);
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

void Agent::onHello(ClientSession& session, const proto::Hello& hello) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  awaitingHello_.erase(session.id());
  core_->hello(session, hello);
}

void Agent::onRequest(ClientSession& session, const proto::Request& request) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  core_->request(session, request);
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
  // A connection refused at accept never reached the core.
  if (!wasRefused) core_->clientClosed(session, why, wasAccepted);
  sessions_.erase(id);
  awaitingHello_.erase(id);
  evicted_.erase(id);
}

// ------------------------------------------------------------ the topology

int Agent::startKor() {
  uint64_t id = 0;
  std::string why;
  if (loadOrCreateNodeId(options_.stateDir, options_.nodeId, &id, &why) != 0) {
    if (id == 0) {
      fail("cannot have a stable node id: " + why);
      return -1;
    }
    // The file's form ends in a newline; a log line takes the digits only.
    log_.lineAt(LogLevel::kWarning, "KOR: node id %s is used, but cannot be kept: %s",
              formatNodeId(id).substr(0, 16).c_str(), why.c_str());
  } else if (!why.empty()) {
    log_.line("KOR: %s", why.c_str());
  }
  log_.line("KOR: this node's id is %s", formatNodeId(id).substr(0, 16).c_str());
  core_->setNodeId(id);

  proto::KorImage image;
  why.clear();
  switch (KorStore::load(options_.stateDir, &image, &why)) {
    case KorStore::Load::kLoaded:
      log_.line("KOR: %d nodes and %d interfaces kept from the last run", image.nodes_size(),
                image.interfaces_size());
      core_->seedKor(std::move(image));
      break;
    case KorStore::Load::kAbsent:
      break;
    case KorStore::Load::kSetAside:
      log_.lineAt(LogLevel::kWarning, "KOR: the kept resources were set aside and the cluster's are taken: %s",
                why.c_str());
      break;
    case KorStore::Load::kUnreadable:
      log_.lineAt(LogLevel::kWarning, "KOR: the kept resources cannot be read, the cluster's are taken: %s",
                why.c_str());
      break;
  }
  core_->setKorSaver([this](const proto::KorImage& img) { saveKor(img); });

  if (!options_.standalone) {
    nodelist_ = std::make_unique<NodelistWatch>(
        io_, [this](const std::string& line) { log_.line("%s", line.c_str()); },
        [this](const std::vector<proto::NodeEntry>& nodes) {
          if (!stopping_) core_->setNodeList(nodes);
        });
    nodelist_->start();
  }
  return 0;
}

void Agent::saveKor(const proto::KorImage& image) {
  std::string why;
  if (KorStore::save(options_.stateDir, image, &why) == 0) {
    if (!korSaveTrouble_.empty()) log_.line("KOR: the resources are kept again");
    korSaveTrouble_.clear();
    return;
  }
  if (why != korSaveTrouble_) log_.lineAt(LogLevel::kError, "KOR: cannot keep the resources: %s", why.c_str());
  korSaveTrouble_ = why;
}

int Agent::startTopology() {
  TopologyWatch::Settings ts;
  ts.node = bus_->selfNode();
  ts.filter = options_.interfaces;
  ts.watchLinks = !options_.standalone;
  ts.linkPoll = std::chrono::milliseconds(options_.linkPollMs);
  ts.maxAdapters = ReplicaLimits().maxAdaptersPerNode;
  topology_ = std::make_unique<TopologyWatch>(
      io_, ts, [this](const std::string& line) { log_.line("%s", line.c_str()); },
      [this] {
        if (!stopping_) core_->topologyChanged();
      });
  int rc = topology_->start();
  if (rc != 0) {
    fail("cannot watch this node's interfaces (rtnetlink): " + errnoText(rc));
    return -1;
  }
  nodeTopology_ = std::make_unique<WatchedTopology>(topology_.get());
  core_->setTopology(nodeTopology_.get());
  log_.line("reporting the adapters of %s%s", options_.interfaces.describe().c_str(),
            options_.standalone ? "" : ", with knet's link status");
  return 0;
}

}  // namespace agent
}  // namespace velt
