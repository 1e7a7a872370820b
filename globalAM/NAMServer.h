// NAMServer: the daemon's server for local client programs. It owns the
// listening UNIX-domain socket named by "TOLKVASK_SERVER_SOCKET", accepts
// connections (one NAMClient session thread each), watches every client
// socket for its init message or its hang-up, and deletes sessions whose
// thread has ended. Started by start-up in the cluster domain type only.
//
// Owned by the server thread; wakeup() and requestStop() may be called from
// any thread, the ...ForTesting accessors too.
#ifndef VELT_GLOBALAM_NAMSERVER_H_
#define VELT_GLOBALAM_NAMSERVER_H_

#include <poll.h>
#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "common.h"

class NAMClient;

class NAMServer : public GSThread {
 public:
  // The poll array starts with room for this many clients and the
  // listening socket; it grows to the number of clients + 10 entries.
  static constexpr int kInitialPollClients = 9;
  // How long the init message of a client that announced it may take to
  // arrive whole: a client that sends half a message must not stall the
  // server for everyone else.
  static constexpr int kInitMsgReadTimeoutMs = 5000;
  // How long an exiting server waits for the exit in progress to end the
  // process before it ends it itself.
  static constexpr int kExitGraceSecs = 3;

  NAMServer();
  ~NAMServer() override;

  void* run(void* arg) override;

  // Makes the server's poll return, so that it looks at the exit state and
  // at sessions that ended. Any thread.
  void wakeup();
  // Asks the server to end: its sessions are ended, the socket file is
  // removed and run() returns. Any thread.
  void requestStop();

  // Reads the first message of a client that has not yet sent its init
  // message and acts on it. Returns 0 when it was processed (or the client
  // disconnected and was ended), else the failure: the read's error code,
  // or VELT_NAM_INTERNAL_ERROR for a message that is not an init message
  // or does not fit one.
  int getInitMsg(int& errCode, struct pollfd* pfd, NAMClient* client);
  // Reads a message of a client after its init message: an end message or
  // the end of the stream ends the session; anything else is dropped.
  // Returns 0 while the session goes on, else the reason it was ended.
  int getLibMsg(int& errCode, NAMClient* client);

  void Lock() { _mutex.lock(); }
  void Unlock() { _mutex.unlock(); }

  // The listening socket; -1 when there is none.
  int sock_fd = -1;

  int pollArraySizeForTesting();
  int sessionsForTesting();
  bool isListeningForTesting() const { return listening_.load(); }

 private:
  // Socket, options, the stale file check, bind, chmod and listen; false
  // when the server cannot serve (traced).
  bool setUpListeningSocket();
  bool set_socket_options();
  // Removes the socket file left by an earlier run; false when another
  // daemon still serves on it, or the path is not a socket.
  bool removeStaleSocketFile(const char* path);
  // Accepts one client and starts its session; false when accepting must
  // wait (out of descriptors or memory).
  bool acceptClient();
  // Acts on the events of poll entry index (a client's socket).
  void handleClientEvents(const struct pollfd& entry, int index);
  // Deletes every session whose thread has ended (all with everything).
  void reapSessions(bool everything);
  void endAllSessions();
  void closeListeningSocket();
  bool stopAsked() const { return stopAsked_.load(); }

  std::mutex _mutex;
  std::vector<NAMClient*> sessions_;   // GUARDED_BY(_mutex); written by the server thread only
  std::vector<struct pollfd> fdList;   // owned by the server thread
  int pollArraySize_ = 0;              // GUARDED_BY(_mutex)
  int wakeFd_ = -1;                    // eventfd that ends a poll
  std::string socketPath_;             // the path bound, empty when none
  dev_t boundDev_ = 0;                 // the socket file bound, so that only it is removed
  ino_t boundIno_ = 0;
  std::atomic<bool> stopAsked_{false};
  std::atomic<bool> listening_{false};
};

#endif  // VELT_GLOBALAM_NAMSERVER_H_
