// A local client's session: its init answer, the whole table, then every
// published batch of changes; reading and writing its socket.
#include "NAMClient.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "NAMServer.h"
#include "TraceStream.h"
#include "brel_signal.h"
#include "ha_assert.h"
#include "sw_NAM_calls.h"
#include "vx_cu.h"

std::mutex event_queue_mutex;

namespace {

// An update body of this length or less carries no network: 8 bytes of
// counts and the 4 trailing zero bytes.
constexpr int kEmptyUpdateLength = 12;
// The program name is kept to this many characters.
constexpr size_t kProgramNameKept = 40;
// How long a client of a cluster too old for the interface keeps its
// connection after the init answer, so that it can read the answer.
constexpr int kUnsupportedCloseDelayMs = 3000;

// Milliseconds left until deadline (0 when it has passed); -1 when there is
// no deadline.
int msecsLeft(bool limited, std::chrono::steady_clock::time_point deadline) {
  if (!limited) return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

std::string versionText(const tk_gs_velt_version_t& v) {
  char text[64];
  snprintf(text, sizeof text, "%u.%u.%u.%u (0x%08x)", v.gs_version, v.gs_release, v.gs_modification, v.gs_fix,
           v.quick_version);
  return text;
}

// Appends every record of net whose status is (or, with others, is none of
// UP and DOWN) at out; returns the new end.
char* packRecords(const veltnamNetAdaptInfo& net, int status, bool others, char* out) {
  for (const velt_nam_connect* rec : net.veltnamConnectList) {
    bool isOther = rec->status != VELT_NAM_CONNECT_UP && rec->status != VELT_NAM_CONNECT_DOWN;
    if (others ? !isOther : rec->status != status) continue;
    memcpy(out, rec, sizeof *rec);
    out += sizeof *rec;
  }
  return out;
}

void traceUpdateCounts(size_t networks, size_t adapters) {
  AMtracef(TRACE_FYI, "in packMsg(), _update_msg->num_networks = %u, _update_msg->num_adapter_info= %u\n",
           static_cast<unsigned>(networks), static_cast<unsigned>(adapters));
}

void traceNetworkCounts(const velt_nam_connect_net_info& info) {
  AMtracef(TRACE_FYI, "in packMsg(), network_id = %llx, num_connect = %u,num_up = %u, num_down = %u\n",
           static_cast<unsigned long long>(info.network_id), info.num_connect, info.num_up, info.num_down);
}

// A record keeps this many characters of an interface name.
constexpr size_t kNameKept = sizeof(velt_nam_connect::interface_name) - 1;

// The place of a record within its network: UP, DOWN, the others.
int groupOf(uint8_t status) {
  return status == VELT_NAM_CONNECT_UP ? 0 : status == VELT_NAM_CONNECT_DOWN ? 1 : 2;
}

// One row of a node, with the network it is listed under.
struct NodeRow {
  const AMAdapterItem* row;
  uint64_t network;
};

bool nodeRowLess(const NodeRow& a, const NodeRow& b) {
  if (a.network != b.network) return a.network < b.network;
  return strncmp(a.row->interfacename, b.row->interfacename, kNameKept) < 0;
}

// Calls visit(row, network) for every adapter a copy of the table made with
// add_velt_nam_conn_item would hold, node by node and, within a node, by
// network and name; of rows with the same node, network and name only the
// last (the one whose record a copy keeps). False, before visiting
// anything of it, as soon as a node comes after a higher one: the rows'
// order then is not the records' order.
template <typename Visit>
bool forEachRecordedRow(AdapterItemCollection& rows, Visit visit) {
  std::vector<NodeRow> node;
  node.reserve(MaxAdaptersOnNode);
  auto flush = [&]() {
    std::stable_sort(node.begin(), node.end(), nodeRowLess);
    for (size_t i = 0; i < node.size(); ++i) {
      if (i + 1 < node.size() && !nodeRowLess(node[i], node[i + 1])) continue;  // a later row replaces it
      visit(*node[i].row, node[i].network);
    }
    node.clear();
  };
  uint32_t current = 0;
  for (auto& entry : rows) {
    const AMAdapterItem* row = entry.second;
    const uint32_t number = static_cast<uint32_t>(row->nodenumber);
    if (!node.empty() && number != current) {
      if (number < current) return false;
      flush();
    }
    current = number;
    node.push_back({row, row->networkId64});
  }
  flush();
  return true;
}

}  // namespace

bool MappedBody::allocate(size_t length) {
  release();
  if (length == 0) return true;
  void* base = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return false;
  base_ = base;
  length_ = length;
  return true;
}

void MappedBody::release() {
  if (base_ != nullptr) munmap(base_, length_);
  base_ = nullptr;
  length_ = 0;
}

namespace {

// The whole table as last packed for a new client, sent again to each
// next new client for as long as the adapter table is not written (its
// write generation unchanged): the processes of a parallel job that start
// together on a node then cost one packing of a large cluster's table, not
// one each. Read under the table's read hold, it is exactly what packing
// the rows again would make.
std::mutex packedTableMutex;
std::shared_ptr<const PackedTable> lastPackedTable;  // guarded by packedTableMutex

}  // namespace

std::shared_ptr<const PackedTable> packedWholeTable(AMGlobalAdapterTable* table) {
  GSReadGuard hold(*table);
  const uint64_t generation = table->writeGeneration();
  {
    std::lock_guard<std::mutex> lk(packedTableMutex);
    if (lastPackedTable != nullptr && lastPackedTable->table == table && lastPackedTable->generation == generation) {
      return lastPackedTable;
    }
  }
  auto packed = std::make_shared<PackedTable>();
  if (NAMClient::packAdapterTable(table, &packed->hdr, &packed->body) < 0) return nullptr;
  packed->table = table;
  packed->generation = generation;
  std::lock_guard<std::mutex> lk(packedTableMutex);
  lastPackedTable = packed;
  return packed;
}

NAMClient::NAMClient() = default;

NAMClient::NAMClient(int sock, NAMServer* server) : fd_(sock), server_(server) {
  // Every wait on the socket is a poll, so that no read or write can block
  // the thread where it cannot be woken.
  int flags = fcntl(sock, F_GETFL, 0);
  if (flags >= 0) fcntl(sock, F_SETFL, flags | O_NONBLOCK);
  sock_fd = sock;
  if (AMController* ctl = amController()) ctl->insertNamClient(this);
}

NAMClient::~NAMClient() {
  if (AMController* ctl = amController()) ctl->removeNamClient(this);
  {
    std::lock_guard<std::mutex> hold(event_queue_mutex);
    emptyEventListWithoutLock();
  }
  if (fd_ >= 0) close(fd_);
}

void* NAMClient::run(void*) {
  TraceClient tracing(TraceStream::traceMarket, 0);
  block_thread_allsig_except_syncsig();
  AM_TRACE(TRACE_FYI) << " NAMClient run thread started." << endl;
  while (!isClientExiting()) {
    AM_TRACE(TRACE_DEBUG) << " wait for NAM data update event." << endl;
    int event = VELT_NAM_NO_EVENT;
    if (waitSyncEvent(&event, -1) == -1) break;  // the thread was asked to stop
    AM_TRACE(TRACE_DEBUG) << " Got NAM Client event " << event << endl;
    if (event == VELT_NAM_DISCONNECT_EVENT) {
      AM_TRACE(TRACE_FYI) << " Received DISCONNECT request" << endl;
      setClientExiting(1);
      break;
    }
    // Closed by the server or cut off for not reading: nothing is left to
    // send, and the session ends.
    if (sock_fd.load() < 0) break;
    if (event == VELT_NAM_SEND_INIT_MSG_EVENT && !sendInitialMessages()) break;
    if (isInitMsgReceived() && hasSentInitialTable() && !sendQueuedEvents()) break;
  }
  AM_TRACE(TRACE_FYI) << " - Prepare to client exit" << endl;
  closeSocket();
  setClientExiting(1);
  // The server deletes the session once it has ended: nothing of it may be
  // touched after ended_ is set.
  NAMServer* server = server_;
  ended_.store(true);
  if (server) server->wakeup();
  return nullptr;
}

bool NAMClient::sendInitialMessages() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "NAMClient::sendInitialMessages()");
  const tk_gs_velt_version_t version = getVeltActiveVersion();
  velt_nam_msg_hdr hdr = {VELT_NAM_DAEMON_INIT_MSG, static_cast<int32_t>(sizeof(velt_nam_init_daemon_msg))};
  velt_nam_init_daemon_msg answer;
  memset(&answer, 0, sizeof answer);
  answer.velt_active_version.gs_version = version.gs_version;
  answer.velt_active_version.gs_release = version.gs_release;
  answer.velt_active_version.gs_modification = version.gs_modification;
  answer.velt_active_version.gs_fix = version.gs_fix;
  answer.velt_active_version.quick_version = version.quick_version;
  answer.velt_nam_max_adapter_info = MaxNodesInDomain * MaxAdaptersOnNode;
  answer.velt_nam_max_networks = VELT_NAM_MAX_NETWORKS;
  answer.node_number = myNodeNumber;
  AM_TRACE(TRACE_FYI) << "daemonMsgHdr.msg_type = " << hdr.msg_type << ", daemonMsgHdr.msg_length = "
                      << hdr.msg_length << ", veltActiveVersion: " << versionText(version) << endl;
  int errCode = 0;
  int rc = writeSock(hdr, reinterpret_cast<const char*>(&answer), errCode);
  if (rc == 0 && errCode == EPIPE) AM_TRACE(TRACE_FYI) << "got rc=0 and errCode=EPIPE" << endl;
  if (rc <= 0) {
    AM_TRACE(TRACE_FYI) << "errCode = " << errCode << " and so close the socket." << endl;
    closeSocket();
    return false;
  }

  if (!isVELTNAMInterfaceSupported()) {
    AM_TRACE(TRACE_FYI) << "VELTNAMInterface is not supported on Qen for this veltActiveVersion: "
                        << versionText(version) << endl;
    // The client is given the time to read the answer; a disconnect or a
    // stop ends the wait early.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kUnsupportedCloseDelayMs);
    for (int left = msecsLeft(true, deadline); left > 0; left = msecsLeft(true, deadline)) {
      int event = VELT_NAM_NO_EVENT;
      int waited = waitSyncEvent(&event, left / 1000, (left % 1000) * 1000);
      if (waited == -1 || (waited == 0 && event == VELT_NAM_DISCONNECT_EVENT)) break;
    }
    closeSocket();
    return false;
  }

  // The whole table is read after the queue is emptied, so that it already
  // holds every change queued so far and no older record follows it.
  checkAndEmptyEventList();
  AM_TRACE(TRACE_FYI) << "packMsg() to send to the lib the initial  adapter table." << endl;
  velt_nam_msg_hdr updateHdr = {0, 0};
  char* updateMsgBody = nullptr;
  AMGlobalAdapterTable* adapters = AMController::pGAdapterCfgTbl;
  std::shared_ptr<const PackedTable> packed;
  if (adapters != nullptr) packed = packedWholeTable(adapters);
  if (packed != nullptr) {
    updateHdr = packed->hdr;
  } else {
    veltnamNetInfoList table;
    AMController* ctl = amController();
    if (ctl) ctl->obtainAdapterInfoFromGlobalTable(table, 0);
    packMsg(&updateHdr, &updateMsgBody, table);
    clear_net_adapter_table(table);
  }
  rc = writeSock(updateHdr, updateMsgBody != nullptr ? updateMsgBody : packed->body.data(), errCode);
  AM_TRACE(TRACE_DEBUG) << "delete[] updateMsgBody" << endl;
  delete[] updateMsgBody;
  packed.reset();
  if (rc <= 0) {
    AM_TRACE(TRACE_FYI) << "errCode = " << errCode << " and so close the socket." << endl;
    closeSocket();
    return false;
  }
  sentInitialGlobalAdaptTable.store(true);
  setClientReady(true);
  return true;
}

bool NAMClient::sendQueuedEvents() {
  if (queuedEvents() > MAX_QUEUED_EVENTS) {
    AM_TRACE(TRACE_WARNING) << "eventList.size() > MAX_QUEUED_EVENTS. stop the client thread and check why the "
                               "clients cannot consume the data fast enough. "
                            << endl;
    return false;
  }
  EventRecord record;
  while (!isClientExiting() && sock_fd.load() >= 0 && dequeueEvent(&record) == 0) {
    if (record.hdr.msg_length <= kEmptyUpdateLength) {
      AM_TRACE(TRACE_DEBUG) << "veltnam table is empty and so don't need to send the veltnam table to the lib."
                            << endl;
      continue;
    }
    AM_TRACE(TRACE_DEBUG) << "package updated veltnam table to send to the lib." << endl;
    int errCode = 0;
    int rc = writeSock(record.hdr, record.body, errCode);
    if (rc <= 0) {
      AM_TRACE(TRACE_FYI) << "rc from writeSock() = " << rc << ", errCode = " << errCode << ", stop this thread."
                          << ", sock_fd = " << fd_ << endl;
      return false;
    }
  }
  return true;
}

void NAMClient::wakeup(int event) { postSyncEvent(event); }

int NAMClient::queueEvent() {
  {
    std::lock_guard<std::mutex> hold(event_queue_mutex);
    if (sock_fd.load() < 0) return -1;
    if (static_cast<int>(eventList.size()) >= MAX_QUEUED_EVENTS) {
      AM_TRACE(TRACE_WARNING) << "eventList.size() > MAX_QUEUED_EVENTS. Wake up the thread and exit." << endl;
      closeSocket();
    }
  }
  if (sock_fd.load() < 0) {
    wakeup(VELT_NAM_UPDATE_EVENT);
    return -1;
  }
  AMtracef(AM_TRACEF_DEBUG, "copy the delta table to the client event queue.\n");
  std::unique_ptr<EventRecord> record(new EventRecord);
  packMsg(&record->hdr, &record->body, veltnamNetInfoListDelta);
  std::lock_guard<std::mutex> hold(event_queue_mutex);
  eventList.push_back(record.release());
  return 0;
}

int NAMClient::dequeueEvent(EventRecord* out) {
  std::lock_guard<std::mutex> hold(event_queue_mutex);
  if (eventList.empty()) return -1;
  EventRecord* oldest = eventList.front();
  eventList.pop_front();
  out->hdr = oldest->hdr;
  // The body changes hands instead of being copied.
  delete[] out->body;
  out->body = oldest->body;
  oldest->body = nullptr;
  delete oldest;
  return 0;
}

void NAMClient::checkAndEmptyEventList() {
  std::lock_guard<std::mutex> hold(event_queue_mutex);
  if (!eventList.empty()) AM_TRACE(TRACE_DEBUG) << "Inside checkAndEmptyEventList(), queue is not empty." << endl;
  emptyEventListWithoutLock();
}

void NAMClient::emptyEventListWithoutLock() {
  for (EventRecord* record : eventList) delete record;
  eventList.clear();
}

int NAMClient::queuedEvents() {
  std::lock_guard<std::mutex> hold(event_queue_mutex);
  return static_cast<int>(eventList.size());
}

// ------------------------------------------------------------ socket I/O

int NAMClient::readSockData(char* buf, int len, int timeoutMs, int& errCode) {
  const bool limited = timeoutMs >= 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limited ? timeoutMs : 0);
  for (;;) {
    ssize_t n = recv(fd_, buf, static_cast<size_t>(len), 0);
    if (n > 0) return static_cast<int>(n);
    if (n == 0) {
      AM_TRACE(TRACE_DEBUG) << "read_sock_data hits EOF ... leaving" << endl;
      errCode = 0;
      return 0;
    }
    int err = errno;
    if (err == EINTR) continue;
    if (err != EAGAIN && err != EWOULDBLOCK) {
      AM_TRACE(TRACE_FYI) << "read_sock_data: fatal error...leaving" << endl;
      errCode = err;
      return -1;
    }
    int left = msecsLeft(limited, deadline);
    if (left == 0) {
      errCode = ETIMEDOUT;
      return -1;
    }
    AM_TRACE(TRACE_DEBUG) << "start poll with remaining msecs=" << left << endl;
    struct pollfd wait = {fd_, POLLIN, 0};
    int rc = poll(&wait, 1, left);
    if (rc < 0 && errno != EINTR) {
      errCode = errno;
      AM_TRACE(TRACE_FYI) << "read_sock_data: fatal error...leaving" << endl;
      return -1;
    }
  }
}

int NAMClient::readSock(velt_nam_msg_hdr& hdr, char*& body, int& length, int& errCode, int timeoutMs) {
  body = nullptr;
  length = 0;
  errCode = 0;
  const bool limited = timeoutMs >= 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limited ? timeoutMs : 0);
  char* into = reinterpret_cast<char*>(&hdr);
  int got = 0;
  while (got < static_cast<int>(sizeof hdr)) {
    int n = readSockData(into + got, static_cast<int>(sizeof hdr) - got, msecsLeft(limited, deadline), errCode);
    if (n < 0) {
      AM_TRACE(TRACE_FYI) << "Fatal error(or socket disconnection) sock_fd = " << fd_ << ", Len=" << got << endl;
      return -1;
    }
    if (n == 0) {
      AM_TRACE(TRACE_DEBUG) << "got len=0 ecode=0 in reading header." << endl;
      return 0;
    }
    got += n;
  }
  // The length comes from outside: nothing a client says is allowed to
  // make us allocate more than a message of ours can need.
  if (hdr.msg_length < 0 || hdr.msg_length > kMaxLibMsgLength) {
    AM_TRACE(TRACE_WARNING) << "Message of type " << hdr.msg_type << " announces " << hdr.msg_length
                            << " body bytes; at most " << kMaxLibMsgLength << " are accepted, sock_fd = " << fd_
                            << endl;
    errCode = EMSGSIZE;
    return -1;
  }
  length = hdr.msg_length;
  std::unique_ptr<char[]> buffer(length > 0 ? new char[length] : nullptr);
  got = 0;
  while (got < length) {
    int n = readSockData(buffer.get() + got, length - got, msecsLeft(limited, deadline), errCode);
    if (n < 0) {
      AM_TRACE(TRACE_FYI) << "Fatal error(or socket disconnection) sock_fd = " << fd_ << ", Len=" << got << endl;
      length = 0;
      return -1;
    }
    if (n == 0) {
      AM_TRACE(TRACE_DEBUG) << "got len=0 ecode=0 in reading body." << endl;
      length = 0;
      return 0;
    }
    got += n;
  }
  body = buffer.release();
  return static_cast<int>(sizeof hdr) + length;
}

int NAMClient::writeSock(const velt_nam_msg_hdr& hdr, const char* body, int& errCode) {
  struct iovec iov[2];
  iov[0].iov_base = const_cast<velt_nam_msg_hdr*>(&hdr);
  iov[0].iov_len = sizeof hdr;
  iov[1].iov_base = const_cast<char*>(body);
  iov[1].iov_len = body != nullptr && hdr.msg_length > 0 ? static_cast<size_t>(hdr.msg_length) : 0;
  return writeSockData(iov, 2, errCode);
}

int NAMClient::writeSockData(struct iovec* iov, int iovcnt, int& errCode) {
  errCode = 0;
  long written = 0;
  int first = 0;
  while (first < iovcnt && iov[first].iov_len == 0) ++first;
  while (first < iovcnt) {
    // A gather write, as writev, that never raises SIGPIPE when the client
    // has gone.
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = iov + first;
    msg.msg_iovlen = static_cast<size_t>(iovcnt - first);
    errno = 0;
    ssize_t n = sendmsg(fd_, &msg, MSG_NOSIGNAL);
    int err = errno;
    if (n < 0) {
      if (err == 0) {
        AM_TRACE(TRACE_DEBUG) << "write_sock_data, rc=-1 errno=0.  We will trea this as EAGAIN" << endl;
        err = EAGAIN;
      }
      if (err == EINTR) continue;
      if (err == EAGAIN || err == EWOULDBLOCK) {
        AM_TRACE(TRACE_DEBUG) << "_write_sock_data() calls poll on fd= " << fd_ << endl;
        // No time limit: the socket takes data or fails (a session cut off
        // is shut down, which ends this wait).
        struct pollfd wait = {fd_, POLLOUT, 0};
        if (poll(&wait, 1, -1) < 0 && errno != EINTR) {
          errCode = errno;
          return -1;
        }
        continue;
      }
      errCode = err;
      if (err == EPIPE || err == ECONNRESET) {
        errCode = EPIPE;
        return 0;
      }
      return -1;
    }
    if (n == 0) {
      AM_TRACE(TRACE_DEBUG) << "ecode =0,bytesWritten=0,EOF" << endl;
      return 0;
    }
    written += n;
    // Go on from the vector and offset where this write stopped.
    size_t left = static_cast<size_t>(n);
    while (first < iovcnt && left >= iov[first].iov_len) {
      left -= iov[first].iov_len;
      ++first;
    }
    if (first < iovcnt) {
      iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + left;
      iov[first].iov_len -= left;
    }
  }
  return static_cast<int>(written);
}

// ------------------------------------------------------------ the session

void NAMClient::processInitMsg(const velt_nam_init_lib_msg* msg) {
  libVersion.store(msg->lib_version);
  capability.store(msg->capability);
  clientPid.store(msg->pid);
  AM_TRACE(TRACE_FYI) << "got libVersion = " << msg->lib_version << ", capability= " << msg->capability << endl;
  char name[sizeof clientProgramName];
  memset(clientProgramName, 0, sizeof clientProgramName);
  if (msg->pid > 0 && cu_get_proc_name(static_cast<pid_t>(msg->pid), name, sizeof name) == 0) {
    memcpy(clientProgramName, name, strnlen(name, kProgramNameKept));
  }
  printClientInfo();
}

void NAMClient::closeSocket() {
  if (fd_ < 0) return;
  if (sock_fd.exchange(-1) >= 0) shutdown(fd_, SHUT_RDWR);
}

void NAMClient::terminateSocketAndThread() {
  closeSocket();
  setClientExiting(1);
  wakeup(VELT_NAM_DISCONNECT_EVENT);
}

void NAMClient::printClientInfo() {
  AM_TRACE(TRACE_FYI) << "NAM client: sock_fd = " << sock_fd.load() << ", pid = " << clientPid.load()
                      << ", program = " << clientProgramName << ", libVersion = " << libVersion.load()
                      << ", capability = " << capability.load() << endl;
}

// ----------------------------------------------------------------- packing

int NAMClient::packMsg(velt_nam_msg_hdr* hdr, char** body, const veltnamNetInfoList& table) {
  size_t adapters = 0;
  for (const auto& entry : table) adapters += entry.second->veltnamConnectList.size();
  const size_t length = 12 + sizeof(velt_nam_connect_net_info) * table.size() + sizeof(velt_nam_connect) * adapters;
  hdr->msg_type = VELT_NAM_DAEMON_UPDATE_MSG;
  hdr->msg_length = static_cast<int32_t>(length);
  delete[] *body;
  *body = new char[length]();

  velt_nam_daemon_update_msg counts;
  counts.num_networks = static_cast<int32_t>(table.size());
  counts.num_adapter_info = static_cast<int32_t>(adapters);
  memcpy(*body, &counts, sizeof counts);
  traceUpdateCounts(table.size(), adapters);

  char* out = *body + sizeof counts;
  for (const auto& entry : table) {
    const veltnamNetAdaptInfo& net = *entry.second;
    // The counts describe the records that follow, whatever the table's
    // running counts say.
    velt_nam_connect_net_info info;
    memset(&info, 0, sizeof info);
    info.network_id = entry.first;
    info.num_connect = static_cast<uint32_t>(net.veltnamConnectList.size());
    for (const velt_nam_connect* rec : net.veltnamConnectList) {
      if (rec->status == VELT_NAM_CONNECT_UP) info.num_up++;
      if (rec->status == VELT_NAM_CONNECT_DOWN) info.num_down++;
    }
    traceNetworkCounts(info);
    memcpy(out, &info, sizeof info);
    out += sizeof info;
    // Clients read a network's records as UP, then DOWN, then the others.
    out = packRecords(net, VELT_NAM_CONNECT_UP, false, out);
    out = packRecords(net, VELT_NAM_CONNECT_DOWN, false, out);
    out = packRecords(net, 0, true, out);
  }
  return static_cast<int>(length);
}

int NAMClient::packAdapterTable(AMGlobalAdapterTable* table, velt_nam_msg_hdr* hdr, MappedBody* body) {
  GSReadGuard hold(*table);
  AdapterItemCollection& rows = table->getAdapterItemList();
  // One walk over the rows notes every row a client's copy holds, in the
  // order clients read them within a network's UP, DOWN and other records,
  // with its slot (network and group); the records are then built straight
  // into their places in the message. Nothing of the size of the message is
  // written twice: in a large cluster the first touch of that much memory
  // costs as much as the rows themselves.
  std::vector<const AMAdapterItem*> listed;
  std::vector<uint32_t> slots;
  listed.reserve(rows.size());
  slots.reserve(rows.size());
  std::map<uint64_t, uint32_t> networkIndex;  // network id -> index in order of first sight
  bool ordered = forEachRecordedRow(rows, [&](const AMAdapterItem& row, uint64_t network) {
    listed.push_back(&row);
    auto index = networkIndex.try_emplace(network, static_cast<uint32_t>(networkIndex.size())).first->second;
    slots.push_back(index * 3 + static_cast<uint32_t>(groupOf(velt_nam_status_of(row))));
  });
  if (!ordered) return -1;
  std::vector<size_t> counts(networkIndex.size() * 3, 0);
  for (uint32_t slot : slots) ++counts[slot];
  const size_t length =
      12 + sizeof(velt_nam_connect_net_info) * networkIndex.size() + sizeof(velt_nam_connect) * listed.size();
  if (!body->allocate(length)) return -1;
  hdr->msg_type = VELT_NAM_DAEMON_UPDATE_MSG;
  hdr->msg_length = static_cast<int32_t>(length);

  velt_nam_daemon_update_msg header;
  header.num_networks = static_cast<int32_t>(networkIndex.size());
  header.num_adapter_info = static_cast<int32_t>(listed.size());
  memcpy(body->data(), &header, sizeof header);
  traceUpdateCounts(networkIndex.size(), listed.size());
  // Networks in ascending id, each followed by its UP, DOWN and other
  // records.
  std::vector<char*> next(counts.size());
  char* out = body->data() + sizeof header;
  for (const auto& entry : networkIndex) {
    const size_t* count = &counts[entry.second * 3];
    velt_nam_connect_net_info info;
    memset(&info, 0, sizeof info);
    info.network_id = entry.first;
    info.num_up = static_cast<uint32_t>(count[0]);
    info.num_down = static_cast<uint32_t>(count[1]);
    info.num_connect = static_cast<uint32_t>(count[0] + count[1] + count[2]);
    traceNetworkCounts(info);
    memcpy(out, &info, sizeof info);
    out += sizeof info;
    for (int g = 0; g < 3; ++g) {
      next[entry.second * 3 + g] = out;
      out += sizeof(velt_nam_connect) * count[g];
    }
  }
  for (size_t i = 0; i < listed.size(); ++i) {
    velt_nam_connect rec;
    build_velt_nam_conn_item(*listed[i], &rec);
    memcpy(next[slots[i]], &rec, sizeof rec);
    next[slots[i]] += sizeof rec;
  }
  return static_cast<int>(length);
}
