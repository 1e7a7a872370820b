// NAMClient: the session of one local client program on the daemon's client
// socket. Its thread answers the client's init message with the daemon's
// init message and the whole adapter table, then sends every published batch
// of adapter changes as one update message. The change publisher only queues
// batches here and wakes the thread; a client that stops reading is cut off
// at the queue limit so that it cannot hold the others back.
//
// Thread-safe: the server thread (which creates, reads the init message,
// ends and deletes sessions), the publisher (queueEvent, wakeup) and the
// session's own thread all use it. Only the server deletes a session, and
// only after its thread has ended.
#ifndef VELT_GLOBALAM_NAMCLIENT_H_
#define VELT_GLOBALAM_NAMCLIENT_H_

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>

#include "common.h"
#include "velt_nam.h"
#include "veltnam_utils.h"

class AMGlobalAdapterTable;
class NAMServer;

// A message body in an anonymous mapping of its own, zero-filled. A whole
// cluster's table is megabytes held only while one session writes it; a
// mapping goes back to the system when the write is done instead of staying
// in the session thread's malloc arena. Thread-compatible.
class MappedBody {
 public:
  MappedBody() = default;
  ~MappedBody() { release(); }
  MappedBody(const MappedBody&) = delete;
  MappedBody& operator=(const MappedBody&) = delete;

  // False when no memory could be mapped.
  bool allocate(size_t length);
  void release();
  char* data() const { return static_cast<char*>(base_); }
  size_t size() const { return length_; }

 private:
  void* base_ = nullptr;
  size_t length_ = 0;
};

// The update a new client is sent: every row of the adapter table, packed
// at write generation `generation` of `table`.
struct PackedTable {
  const AMGlobalAdapterTable* table = nullptr;
  uint64_t generation = 0;
  velt_nam_msg_hdr hdr{0, 0};
  MappedBody body;
};

// The whole table for a new client: the one packed last when the table has
// not been written since, else packed now (and kept for the next client).
// Null when the rows cannot be packed straight (see
// NAMClient::packAdapterTable). Takes the table's read lock. Thread-safe.
std::shared_ptr<const PackedTable> packedWholeTable(AMGlobalAdapterTable* table);

// Records queued for one client at most; the one after them finds the client
// not reading, and the client is cut off.
constexpr int MAX_QUEUED_EVENTS = 10;

// One message queued for a client: a header and its body of msg_length bytes
// (owned).
struct EventRecord {
  EventRecord() : hdr{0, 0}, body(nullptr) {}
  ~EventRecord() { delete[] body; }
  EventRecord(const EventRecord&) = delete;
  EventRecord& operator=(const EventRecord&) = delete;

  velt_nam_msg_hdr hdr;
  char* body;
};

// Guards the eventList of every session (one for the process). Taken last:
// after veltnamSyncLock and the controller's namClientLock_.
extern std::mutex event_queue_mutex;

class NAMClient : public GSThread {
 public:
  // The largest message body a client may send us: its init message is 20
  // bytes, and nothing a client says needs more.
  static constexpr int kMaxLibMsgLength = 4096;

  // A session on the accepted socket sock (owned from now on), registered
  // with the controller. server (may be null) is told when the thread ends.
  NAMClient(int sock, NAMServer* server);
  // Removes the session from the controller and closes its socket.
  ~NAMClient() override;

  void* run(void* arg) override;

  // Wakes the session with a velt_nam_event code.
  virtual void wakeup(int event);
  // Queues one update packed from the delta table. Called with
  // veltnamSyncLock held. -1 when the session is closed or was just cut off
  // for not reading, else 0.
  virtual int queueEvent();
  // Takes the oldest queued record into out (header and body); -1 when
  // none is queued.
  int dequeueEvent(EventRecord* out);
  // Drops every queued record.
  void checkAndEmptyEventList();
  int queuedEvents();

  // Reads one whole message: hdr, a new body buffer of length bytes (the
  // caller deletes it; null for an empty body). timeoutMs bounds the whole
  // read (-1: none). Returns the bytes read (8 + length), 0 at end of file
  // (errCode 0), -1 on an error in errCode (ETIMEDOUT when time ran out,
  // EMSGSIZE for a length below 0 or above kMaxLibMsgLength).
  int readSock(velt_nam_msg_hdr& hdr, char*& body, int& length, int& errCode, int timeoutMs = -1);
  // One recv of at most len bytes into buf, polling for what is left of
  // timeoutMs while the socket has nothing (-1: no limit). Returns the bytes
  // read, 0 at end of file, -1 on an error in errCode.
  int readSockData(char* buf, int len, int timeoutMs, int& errCode);
  // Writes hdr and its body (hdr.msg_length bytes) in one gather write.
  // Returns the bytes written, 0 when the peer is gone (errCode EPIPE or 0),
  // -1 on another error in errCode.
  int writeSock(const velt_nam_msg_hdr& hdr, const char* body, int& errCode);
  // Writes the vectors completely, going on after partial writes and
  // waiting for room without a time limit.
  int writeSockData(struct iovec* iov, int iovcnt, int& errCode);

  // Takes the values of the client's init message.
  void processInitMsg(const velt_nam_init_lib_msg* msg);

  // Closes the session's side of the connection: the client sees the end of
  // the stream and every wait on the socket ends. The descriptor itself is
  // released when the session is deleted, so that its number is not reused
  // while anyone may still hold it.
  void closeSocket();
  // Closes the socket and has the thread end.
  void terminateSocketAndThread();
  void printClientInfo();

  bool isClientReady() const { return is_client_ready.load(); }
  void setClientReady(bool ready) { is_client_ready.store(ready); }
  int isClientExiting() const { return is_exiting.load(); }
  void setClientExiting(int exiting) { is_exiting.store(exiting); }
  bool isInitMsgReceived() const { return initMsgReceived.load(); }
  void setInitMsgReceived() { initMsgReceived.store(true); }
  int getLibVersion() const { return libVersion.load(); }
  int getCapability() const { return capability.load(); }
  int getClientPid() const { return clientPid.load(); }
  bool hasSentInitialTable() const { return sentInitialGlobalAdaptTable.load(); }
  // The session's thread has finished its work; the server may delete it.
  bool hasEnded() const { return ended_.load(); }
  // For a session whose thread could not be started: it has ended.
  void markEndedWithoutThread() { ended_.store(true); }

  // Packs table into an update message: fills hdr, replaces *body (deleting
  // the previous buffer) with a new zero-filled buffer of the message's
  // length and returns that length.
  static int packMsg(velt_nam_msg_hdr* hdr, char** body, const veltnamNetInfoList& table);
  // Packs every row of the adapter table into the update a new client is
  // sent, byte for byte what packMsg makes of
  // obtainAdapterInfoFromGlobalTable's copy, but straight from the rows
  // into body. Takes the table's read lock. Returns the body's length, or -1
  // when the rows are not in ascending node order (the caller then packs the
  // copy) or memory ran out.
  static int packAdapterTable(AMGlobalAdapterTable* table, velt_nam_msg_hdr* hdr, MappedBody* body);

  // The client's connected socket; -1 once closed. The server and the
  // controller read it to find and watch the session.
  std::atomic<int> sock_fd{-1};

 protected:
  // For stand-ins in tests: no socket, not registered.
  NAMClient();

 private:
  // Answers the init message and sends the whole table; false when the
  // session must end.
  bool sendInitialMessages();
  // Sends what is queued; false when the session must end.
  bool sendQueuedEvents();
  // Requires: event_queue_mutex held.
  void emptyEventListWithoutLock();

  std::atomic<bool> initMsgReceived{false};
  std::atomic<int> libVersion{0};
  std::atomic<int> capability{0};
  std::atomic<int> clientPid{0};
  char clientProgramName[100] = {0};  // written before the session is woken with 101
  std::list<EventRecord*> eventList;   // GUARDED_BY(event_queue_mutex)
  std::atomic<bool> is_client_ready{false};
  std::atomic<int> is_exiting{0};
  std::atomic<bool> sentInitialGlobalAdaptTable{false};

  int fd_ = -1;  // the descriptor, closed by the destructor
  NAMServer* server_ = nullptr;
  std::atomic<bool> ended_{false};
};

#endif  // VELT_GLOBALAM_NAMCLIENT_H_
