// The client server: the listening socket, accepting clients, their init
// messages and hang-ups, and the end of ended sessions.
#include "NAMServer.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <memory>

#include "AMController.h"
#include "NAMClient.h"
#include "TraceStream.h"
#include "brel_signal.h"

namespace {

constexpr const char* kSocketEnv = "TOLKVASK_SERVER_SOCKET";
constexpr int kListenBacklog = 5;
constexpr int kSocketBufferBytes = 65535;
// While accepting fails for want of descriptors or memory, the listening
// socket is looked at again after this long rather than at once.
constexpr int kAcceptRetryMs = 1000;

bool exiting() {
  AMController* ctl = amController();
  return ctl != nullptr && ctl->AmIExiting();
}

// Fills addr for path; its length as bind and connect take it, or 0 when
// the path does not fit.
socklen_t socketAddress(const char* path, struct sockaddr_un* addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  size_t len = strlen(path);
  if (len >= sizeof addr->sun_path) return 0;
  memcpy(addr->sun_path, path, len);
  return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + len);
}

// Raises one buffer size of sock to kSocketBufferBytes when it is smaller.
void raiseBuffer(int sock, int option, const char* getFailure, const char* setFailure) {
  int size = 0;
  socklen_t len = sizeof size;
  if (getsockopt(sock, SOL_SOCKET, option, &size, &len) != 0) {
    AM_TRACE(TRACE_WARNING) << getFailure << sock << ", errno = " << errno << endl;
    return;
  }
  if (size >= kSocketBufferBytes) return;
  size = kSocketBufferBytes;
  if (setsockopt(sock, SOL_SOCKET, option, &size, sizeof size) != 0) {
    AM_TRACE(TRACE_WARNING) << setFailure << sock << ", errno = " << errno << endl;
  }
}

}  // namespace

NAMServer::NAMServer() {
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

NAMServer::~NAMServer() {
  if (wakeFd_ >= 0) close(wakeFd_);
}

void NAMServer::wakeup() {
  uint64_t one = 1;
  if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof one) < 0) {
    // EAGAIN: the counter is full, so the server is woken anyway.
  }
}

void NAMServer::requestStop() {
  stopAsked_.store(true);
  stop();
  wakeup();
}

int NAMServer::pollArraySizeForTesting() {
  std::lock_guard<std::mutex> hold(_mutex);
  return pollArraySize_;
}

int NAMServer::sessionsForTesting() {
  std::lock_guard<std::mutex> hold(_mutex);
  return static_cast<int>(sessions_.size());
}

void* NAMServer::run(void*) {
  TraceClient tracing(TraceStream::traceMarket, 0);
  block_thread_allsig_except_syncsig();
  AM_TRACE(TRACE_FYI) << " NAMServer run thread started." << endl;
  AMController* ctl = amController();
  if (ctl == nullptr || wakeFd_ < 0 || !setUpListeningSocket()) {
    AM_TRACE(TRACE_FYI) << " - Prepare to exit" << endl;
    return nullptr;
  }

  bool acceptPaused = false;
  {
    std::lock_guard<std::mutex> hold(_mutex);
    pollArraySize_ = kInitialPollClients + 1;
  }
  fdList.assign(kInitialPollClients + 2, pollfd());
  while (!exiting() && !stopAsked()) {
    reapSessions(false);
    int clients = ctl->getNumberOfClients();
    int size;
    {
      std::lock_guard<std::mutex> hold(_mutex);
      if (clients > pollArraySize_ - 1) pollArraySize_ = clients + 10;
      size = pollArraySize_;
    }
    // Entry 0 is the listening socket, then the clients, and last the
    // wake-up descriptor that ends the wait for an exit or an ended session.
    if (static_cast<int>(fdList.size()) < size + 1) fdList.resize(size + 1);
    fdList[0] = {acceptPaused ? -1 : sock_fd, POLLIN, 0};
    int n = ctl->collectAndBuildPollFDs(&fdList[1], size - 1);
    fdList[1 + n] = {wakeFd_, POLLIN, 0};
    int nfds = n + 1;
    AM_TRACE(TRACE_DEBUG) << "Waiting for the incoming events with nfds=" << nfds << endl;
    int rc = poll(fdList.data(), static_cast<nfds_t>(nfds + 1), acceptPaused ? kAcceptRetryMs : -1);
    if (rc < 0) {
      if (errno == EINTR) continue;
      AM_TRACE(TRACE_ERROR) << " poll() failed in NAMServer::run(). errno = " << errno << endl;
      break;
    }
    if (fdList[1 + n].revents != 0) {
      uint64_t count;
      if (read(wakeFd_, &count, sizeof count) < 0) {
        // EAGAIN: another reader took it; nothing is lost.
      }
    }
    // The clients' entries first: their descriptors are those polled, and
    // an accept below must not be mistaken for one of them.
    for (int i = 1; i <= n; ++i) {
      if (fdList[i].revents != 0) handleClientEvents(fdList[i], i);
    }
    // A paused accept is tried again after one wait without the listening
    // socket.
    acceptPaused = false;
    if (fdList[0].revents & POLLIN) acceptPaused = !acceptClient();
  }

  AM_TRACE(TRACE_FYI) << " - Prepare to exit" << endl;
  endAllSessions();
  closeListeningSocket();
  if (stopAsked() || !exiting()) return nullptr;

  AM_TRACE(TRACE_FYI) << "NAMServer is going to stop stop" << endl;
  // The exit in progress is expected to end the process meanwhile; only a
  // stop of this thread ends the wait early.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kExitGraceSecs);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    int ignored;
    if (waitSyncEvent(&ignored, static_cast<int>(left.count() / 1000), static_cast<int>(left.count() % 1000) * 1000) ==
        -1)
      return nullptr;
  }
  AM_TRACE(TRACE_FYI) << "NAMServer can not stop" << endl;
  ExitTheProcess(8, "NAMServer can not stop");
}

bool NAMServer::setUpListeningSocket() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "NAMServer::setUpListeningSocket()");
  sock_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (sock_fd < 0) {
    AM_TRACE(TRACE_ERROR) << " socket creation failure in NAMServer::run(). errno = " << errno << endl;
    return false;
  }
  set_socket_options();

  const char* path = getenv(kSocketEnv);
  if (path == nullptr || path[0] == '\0') {
    AM_TRACE(TRACE_ERROR) << "TOLKVASK_SOCK not specified." << endl;
    closeListeningSocket();
    return false;
  }
  struct sockaddr_un addr;
  socklen_t addrLen = socketAddress(path, &addr);
  if (addrLen == 0) {
    AM_TRACE(TRACE_ERROR) << " socket bind() failed. errno = " << ENAMETOOLONG << endl;
    closeListeningSocket();
    return false;
  }
  if (!removeStaleSocketFile(path)) {
    closeListeningSocket();
    return false;
  }
  if (bind(sock_fd, reinterpret_cast<struct sockaddr*>(&addr), addrLen) != 0) {
    AM_TRACE(TRACE_ERROR) << " socket bind() failed. errno = " << errno << endl;
    closeListeningSocket();
    return false;
  }
  socketPath_ = path;
  struct stat bound;
  if (lstat(path, &bound) == 0) {
    boundDev_ = bound.st_dev;
    boundIno_ = bound.st_ino;
  }
  // Only the owner may connect. The socket does not listen yet, so nobody
  // can connect before the mode is set.
  AM_TRACE(TRACE_FYI) << "Changing the socket permission to " << "0700" << endl;
  if (chmod(path, S_IRWXU) != 0) {
    AM_TRACE(TRACE_WARNING) << " VELT_NAM_SERVER_SOCKET_PERM set is failed. errno=" << errno << endl;
  }
  if (listen(sock_fd, kListenBacklog) != 0) {
    AM_TRACE(TRACE_ERROR) << " socket listen() failed. errno = " << errno << endl;
    closeListeningSocket();
    return false;
  }
  listening_.store(true);
  return true;
}

bool NAMServer::set_socket_options() {
  int on = 1;
  bool ok = true;
  if (setsockopt(sock_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    AM_TRACE(TRACE_WARNING) << " setsockopt() failure in NAMServer::run(), when setsockopt(sock_fd...). errno = "
                            << errno << endl;
    ok = false;
  }
  raiseBuffer(sock_fd, SO_SNDBUF, "Cannot getsockopt for sock_fd: ", "Cannot setsockopt for SNDBUF sock_fd: ");
  raiseBuffer(sock_fd, SO_RCVBUF, "Cannot getsockopt for RCVBUF sock_fd: ", "Cannot setsockopt for RCVBUF sock_fd: ");
  return ok;
}

bool NAMServer::removeStaleSocketFile(const char* path) {
  struct stat st;
  if (lstat(path, &st) != 0) return true;  // nothing there (bind reports anything else)
  if (!S_ISSOCK(st.st_mode)) {
    AM_TRACE(TRACE_ERROR) << "The client socket path " << path << " is taken by a file that is not a socket; it is "
                          << "left alone and no client is served." << endl;
    return false;
  }
  // A file left by a daemon that ended without removing it refuses the
  // connection; a daemon that still serves there answers (or, with its
  // backlog full, makes us wait), and its socket is not taken from it.
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) {
    AM_TRACE(TRACE_ERROR) << " socket creation failure in NAMServer::run(). errno = " << errno << endl;
    return false;
  }
  struct sockaddr_un addr;
  socklen_t addrLen = socketAddress(path, &addr);
  int rc = connect(probe, reinterpret_cast<struct sockaddr*>(&addr), addrLen);
  int err = errno;
  close(probe);
  if (rc != 0 && err == ECONNREFUSED) {
    if (unlink(path) != 0 && errno != ENOENT) {
      AM_TRACE(TRACE_ERROR) << "Cannot remove the stale client socket " << path << ". errno = " << errno << endl;
      return false;
    }
    AM_TRACE(TRACE_FYI) << "Removed the stale client socket " << path << " left by an earlier run." << endl;
    return true;
  }
  AM_TRACE(TRACE_ERROR) << "Another daemon serves clients on " << path << " (connect rc = " << rc
                        << ", errno = " << (rc == 0 ? 0 : err) << "); no client is served here." << endl;
  return false;
}

void NAMServer::closeListeningSocket() {
  listening_.store(false);
  if (sock_fd >= 0) close(sock_fd);
  sock_fd = -1;
  if (socketPath_.empty()) return;
  // Only the file this server bound is removed, never one that replaced it.
  struct stat st;
  if (lstat(socketPath_.c_str(), &st) == 0 && st.st_dev == boundDev_ && st.st_ino == boundIno_) {
    unlink(socketPath_.c_str());
  }
  socketPath_.clear();
}

bool NAMServer::acceptClient() {
  AM_TRACE(TRACE_DEBUG) << " accept() socket: " << sock_fd << endl;
  int fd = accept4(sock_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    int err = errno;
    AM_TRACE(TRACE_FYI) << " socket accept() failed. errno = " << err << " continue " << endl;
    // Out of descriptors or memory the listening socket stays readable;
    // waiting for it again at once would only spin.
    return !(err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM);
  }
  AM_TRACE(TRACE_FYI) << "accepted socket and the new socket is " << fd << endl;
  AM_TRACE(TRACE_FYI) << " create a client thread to handle the client communication. " << endl;
  NAMClient* client = new NAMClient(fd, this);
  {
    std::lock_guard<std::mutex> hold(_mutex);
    sessions_.push_back(client);
  }
  int rc = client->start(nullptr);
  if (rc != 0) {
    AM_TRACE(TRACE_ERROR) << "Cannot start the thread of a NAM client, rc = " << rc << endl;
    // Reaped with the others at the top of the loop.
    client->terminateSocketAndThread();
    client->markEndedWithoutThread();
  }
  AMController* ctl = amController();
  AM_TRACE(TRACE_FYI) << "amController()->numOfNamClients = " << (ctl ? ctl->getNumberOfClients() : 0) << endl;
  return true;
}

void NAMServer::handleClientEvents(const struct pollfd& entry, int index) {
  AMController* ctl = amController();
  NAMClient* client = ctl ? ctl->findNamClient(entry.fd) : nullptr;
  if (client == nullptr) return;
  AM_TRACE(TRACE_DEBUG) << "revent is received from fd=" << entry.fd << " revent=" << entry.revents << endl;
  if (entry.revents & (POLLHUP | POLLERR | POLLNVAL)) {
    AM_TRACE(TRACE_FYI) << " In NAMServer:: run(), fdList[" << index << "].fd = " << entry.fd << " is disconnected."
                        << endl;
    client->terminateSocketAndThread();
    return;
  }
  if (!(entry.revents & POLLIN)) return;
  int errCode = 0;
  if (client->isInitMsgReceived()) {
    getLibMsg(errCode, client);
    return;
  }
  int rc = getInitMsg(errCode, const_cast<struct pollfd*>(&entry), client);
  if (rc != 0) {
    AM_TRACE(TRACE_FYI) << "retCode from getInitMsg() = " << rc << ", stop this thread." << endl;
    client->terminateSocketAndThread();
  }
}

int NAMServer::getInitMsg(int& errCode, struct pollfd* /*pfd*/, NAMClient* client) {
  AM_TRACE(TRACE_DEBUG) << "In NAMSerevr::getInitMsg() call readSock()." << endl;
  velt_nam_msg_hdr libMsgHdr = {0, 0};
  char* body = nullptr;
  int length = 0;
  errCode = 0;
  int rc = client->readSock(libMsgHdr, body, length, errCode, kInitMsgReadTimeoutMs);
  std::unique_ptr<char[]> hold(body);
  if (rc < 0) {
    if (errCode == EPIPE || errCode == EBADF) return errCode;
    AM_TRACE(TRACE_FYI) << "In NAMServer::getInitMsg() readSock() returned with  rc = " << rc
                        << ", errCode = " << errCode << endl;
    // A length out of bounds is a message that cannot be an init message.
    if (errCode == EMSGSIZE) return VELT_NAM_INTERNAL_ERROR;
    return errCode != 0 ? errCode : VELT_NAM_READSOCK_ERROR;
  }
  if (rc == 0) {
    // The client went away before it said anything.
    client->terminateSocketAndThread();
    return 0;
  }
  if (libMsgHdr.msg_type != VELT_NAM_LIB_INIT_MSG) {
    AM_TRACE(TRACE_FYI) << "It is not init lib msg, but got libMsgHdr.msg_type: " << libMsgHdr.msg_type << endl;
    return VELT_NAM_INTERNAL_ERROR;
  }
  if (length < static_cast<int>(sizeof(velt_nam_init_lib_msg))) {
    AM_TRACE(TRACE_FYI) << "The init lib msg is too short: msg_length = " << length << ", "
                        << static_cast<int>(sizeof(velt_nam_init_lib_msg)) << " are needed." << endl;
    return VELT_NAM_INTERNAL_ERROR;
  }
  velt_nam_init_lib_msg initMsg;
  memcpy(&initMsg, hold.get(), sizeof initMsg);
  client->processInitMsg(&initMsg);
  client->setInitMsgReceived();
  client->wakeup(VELT_NAM_SEND_INIT_MSG_EVENT);
  return 0;
}

int NAMServer::getLibMsg(int& errCode, NAMClient* client) {
  velt_nam_msg_hdr libMsgHdr = {0, 0};
  char* body = nullptr;
  int length = 0;
  errCode = 0;
  int rc = client->readSock(libMsgHdr, body, length, errCode, kInitMsgReadTimeoutMs);
  delete[] body;
  if (rc > 0 && libMsgHdr.msg_type != VELT_NAM_LIB_END_MSG) {
    AM_TRACE(TRACE_FYI) << "Unexpected lib msg of type " << libMsgHdr.msg_type << " from fd=" << client->sock_fd.load()
                        << " after the init msg; it is dropped." << endl;
    return 0;
  }
  if (rc > 0) {
    AM_TRACE(TRACE_FYI) << "Got the end msg from fd=" << client->sock_fd.load() << "; the client is disconnected."
                        << endl;
  } else if (rc < 0) {
    AM_TRACE(TRACE_FYI) << "In NAMServer::getLibMsg() readSock() returned with rc = " << rc
                        << ", errCode = " << errCode << "; the client is disconnected." << endl;
  }
  client->terminateSocketAndThread();
  return rc < 0 ? (errCode != 0 ? errCode : VELT_NAM_READSOCK_ERROR) : VELT_NAM_DAEMON_DISCONNECTED;
}

void NAMServer::reapSessions(bool everything) {
  std::vector<NAMClient*> ended;
  {
    std::lock_guard<std::mutex> hold(_mutex);
    std::vector<NAMClient*> kept;
    for (NAMClient* client : sessions_) (everything || client->hasEnded() ? ended : kept).push_back(client);
    sessions_.swap(kept);
  }
  for (NAMClient* client : ended) {
    client->join();
    delete client;  // removes it from the controller and closes its socket
  }
}

void NAMServer::endAllSessions() {
  {
    std::lock_guard<std::mutex> hold(_mutex);
    for (NAMClient* client : sessions_) client->terminateSocketAndThread();
  }
  reapSessions(true);
}
