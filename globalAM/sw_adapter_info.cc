#include "sw_adapter_info.h"

#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "AMNetIf.h"
#include "TraceStream.h"
#include "ha_assert.h"
#include "vx_cu.h"

std::atomic<int> currentNumbersOfNetworks{0};
std::atomic<bool> isIBenv{false};
std::atomic<bool> hasML0OnTheNode{false};

namespace {

// The first answer is asked for with room for 100 classic entries, and
// each retry adds room for 10 more.
constexpr int kIfconfFirstLength = 3200;
constexpr int kIfconfLengthStep = 320;
// No host has this many addresses; an answer that keeps growing past it is
// refused rather than followed without a bound.
constexpr int kIfconfMaxLength = 1024 * 1024;
// Room for records: one per 20 bytes of answer, and 10 more.
constexpr int kIfconfBytesPerRecord = 20;
constexpr int kIfconfExtraRecords = 10;

constexpr size_t kIfNameLength = 16;

std::mutex indexMapMu;
// An interface name's adapter index; an index once given never changes.
// std::less<> finds a name without building a string for it: a harvest of a
// large cluster asks once per adapter.
std::map<std::string, int, std::less<>> interfaceIndexMap;  // GUARDED_BY(indexMapMu)

std::mutex ibNamesMu;
// A 64-bit network id's group name; entries are never removed, so the
// texts handed out stay valid.
std::map<uint64_t, std::unique_ptr<char[]>> globalIBGroupNames;  // GUARDED_BY(ibNamesMu)

int kernelIfconfQuery(int sock, struct ifconf* ifc) { return ioctl(sock, SIOCGIFCONF, ifc); }

std::atomic<NetIfConfQueryFn> ifconfQuery{kernelIfconfQuery};

bool beginsWith(const char* name, const char* prefix) {
  return name != nullptr && strncmp(name, prefix, strlen(prefix)) == 0;
}

// The flags of an interface through an open socket; -1 with errno kept.
int queryFlags(int sock, const char* ifname, int* flags) {
  if (flags == nullptr) {
    errno = EINVAL;
    return -1;
  }
  struct ifreq ifr;
  memset(&ifr, 0, sizeof ifr);
  if (ifname == nullptr || strlen(ifname) >= sizeof ifr.ifr_name) {
    errno = EINVAL;
    return -1;
  }
  memcpy(ifr.ifr_name, ifname, strlen(ifname));
  if (ioctl(sock, SIOCGIFFLAGS, &ifr) < 0) return -1;
  *flags = static_cast<unsigned short>(ifr.ifr_flags);
  return 0;
}

bool isUpAndRunning(int flags) { return (flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0; }

// Asks for the interface configuration until two successive answers have
// the same length, so that an answer cut short by a small buffer is never
// taken for the whole list. The answer's bytes go to answer; 0 or -1.
int readInterfaceConfiguration(int sock, std::vector<char>& answer) {
  int lastLength = 0;
  for (int length = kIfconfFirstLength;; length += kIfconfLengthStep) {
    if (length > kIfconfMaxLength) {
      AM_TRACE(TRACE_ERROR) << "getLocalNetInterfaceList: the interface list does not settle below "
                            << kIfconfMaxLength << " bytes" << endl;
      return -1;
    }
    answer.resize(static_cast<size_t>(length));
    struct ifconf ifc;
    memset(&ifc, 0, sizeof ifc);
    ifc.ifc_len = length;
    ifc.ifc_buf = answer.data();
    if (ifconfQuery.load()(sock, &ifc) < 0) {
      const int err = errno;
      // Some systems refuse a buffer that is too small with EINVAL; only
      // before any answer is that a reason to ask again.
      if (err != EINVAL || lastLength != 0) {
        char text[128];
        AM_TRACE(TRACE_ERROR) << "getLocalNetInterfaceList: SIOCGIFCONF failed: " << cu_strerror(err, text, sizeof text)
                              << endl;
        return -1;
      }
      continue;
    }
    if (ifc.ifc_len < 0 || ifc.ifc_len > length) {
      AM_TRACE(TRACE_ERROR) << "getLocalNetInterfaceList: SIOCGIFCONF answered a length of " << ifc.ifc_len
                            << " for a buffer of " << length << endl;
      return -1;
    }
    if (ifc.ifc_len == lastLength) {
      answer.resize(static_cast<size_t>(ifc.ifc_len));
      return 0;
    }
    lastLength = ifc.ifc_len;
  }
}

}  // namespace

int isSwitchAdapter(const char* name) { return beginsWith(name, "sn") || beginsWith(name, "sxn") ? 1 : 0; }

int isML0Adapter(const char* name) { return beginsWith(name, "ml0") ? 1 : 0; }

int isIBAdapter(const char* name) { return name != nullptr && strstr(name, "ib") != nullptr ? 1 : 0; }

namespace {
std::atomic<bool> ml0ForIBForTesting{false};
}  // namespace

int isML0ForIBSupported() { return ml0ForIBForTesting.load() ? 1 : 0; }

void setML0ForIBSupportedForTesting(bool supported) { ml0ForIBForTesting.store(supported); }

int _idxFromInterfaceName(const char* name) {
  if (name == nullptr) return -1;
  int index;
  {
    std::lock_guard<std::mutex> hold(indexMapMu);
    auto found = interfaceIndexMap.find(name);
    if (found != interfaceIndexMap.end()) {
      index = found->second;
    } else {
      index = static_cast<int>(interfaceIndexMap.size());
      interfaceIndexMap.emplace(name, index);
    }
  }
  AMtracef(AM_TRACEF_DEBUG, "_idxFromInterfacename(%s) returns index=%d", name, index);
  return index;
}

int getNetworkFromSwitchInterfaceName(const char* name) {
  AMtracef(AM_TRACEF_DEBUG, "Enter getNetworkFromSwitchInterfacename(%s)", name ? name : "(null)");
  if (!beginsWith(name, "sxn")) return -1;
  const char* digit = name;
  while (*digit != '\0' && (*digit < '0' || *digit > '9')) ++digit;
  if (*digit == '\0') return -1;
  long network = 0;
  for (; *digit >= '0' && *digit <= '9'; ++digit) {
    network = network * 10 + (*digit - '0');
    if (network > INT_MAX) return -1;
  }
  return static_cast<int>(network);
}

void createIBGroupName(const AMNetInterface& intf) {
  if (!isIBenv.load()) return;
  int count;
  std::string created;
  {
    std::lock_guard<std::mutex> hold(ibNamesMu);
    if (globalIBGroupNames.find(intf.networkId64) == globalIBGroupNames.end()) {
      std::unique_ptr<char[]> name(new char[kIBGroupNameLength]);
      snprintf(name.get(), kIBGroupNameLength, "IBNet.%llx", static_cast<unsigned long long>(intf.networkId64));
      created = name.get();
      globalIBGroupNames.emplace(intf.networkId64, std::move(name));
      currentNumbersOfNetworks.fetch_add(1);
    }
    count = currentNumbersOfNetworks.load();
  }
  if (!created.empty()) {
    AM_TRACE(TRACE_FYI) << "createIBGroupNames() created a new IB group name " << created << endl;
  }
  AM_TRACE(TRACE_DEBUG) << "In createIBGroupName(), currentNumbersOfNetworks: " << count << endl;
}

const char* getIBGroupName(uint64_t networkId64) {
  const char* name = nullptr;
  {
    std::lock_guard<std::mutex> hold(ibNamesMu);
    auto found = globalIBGroupNames.find(networkId64);
    if (found != globalIBGroupNames.end()) name = found->second.get();
  }
  if (name != nullptr) AM_TRACE(TRACE_DEBUG) << "getIBGroupname(): group name = " << name << endl;
  return name;
}

uint64_t getNetworkId64FromGroupName(const char* groupName) {
  if (groupName == nullptr) return 0;
  std::lock_guard<std::mutex> hold(ibNamesMu);
  for (const auto& entry : globalIBGroupNames) {
    if (strcmp(entry.second.get(), groupName) == 0) return entry.first;
  }
  return 0;
}

int get_switch_adapter_info(const char* /*devname*/, swnet_adapter_info_t* info) {
  if (info != nullptr) {
    info->devtype = 0;
    info->lid = -1;
    info->network = 0;
  }
  return -1;
}

int getLocalNetInterfaceList(AMNetInterfaceList* list, int get_flags) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "getLocalNetInterfaceList");
  if (list == nullptr) return -1;
  freeNetInterfaceList(list);

  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) {
    const int err = errno;
    char text[128];
    AM_TRACE(TRACE_ERROR) << "getLocalNetInterfaceList: socket failed: " << cu_strerror(err, text, sizeof text)
                          << endl;
    return -1;
  }
  std::vector<char> answer;
  if (readInterfaceConfiguration(sock, answer) != 0) {
    close(sock);
    return -1;
  }

  const size_t capacity = answer.size() / kIfconfBytesPerRecord + kIfconfExtraRecords;
  AMNetInterface* records = new (std::nothrow) AMNetInterface[capacity]();
  if (records == nullptr) {
    AM_TRACE(TRACE_ERROR) << "getLocalNetInterfaceList: no memory for " << static_cast<unsigned long>(capacity)
                          << " interfaces" << endl;
    close(sock);
    return -1;
  }

  // Each entry is a name and an address, laid out as the platform's
  // struct ifreq (a name, then a union whose first member is the address).
  int count = 0;
  char previous[kIfNameLength + 1] = "";
  for (size_t at = 0; at + sizeof(struct ifreq) <= answer.size() && static_cast<size_t>(count) < capacity;
       at += sizeof(struct ifreq)) {
    struct ifreq entry;
    memcpy(&entry, answer.data() + at, sizeof entry);
    if (entry.ifr_addr.sa_family != AF_INET) continue;

    // Alias addresses (sxn0:1) belong to their interface.
    char name[kIfNameLength + 1];
    memcpy(name, entry.ifr_name, kIfNameLength);
    name[kIfNameLength] = '\0';
    char* colon = strchr(name, ':');
    if (colon != nullptr) *colon = '\0';
    if (strncmp(name, previous, kIfNameLength) == 0) continue;
    memcpy(previous, name, sizeof previous);

    AMNetInterface& record = records[count];
    memset(&record, 0, sizeof record);
    record.adapterLID = -1;
    record.adapterType = 0;
    record.adapterNetworkID = 0;
    memcpy(record.ifrName, name, sizeof record.ifrName);
    record.ifrName[sizeof record.ifrName - 1] = '\0';
    record.family = entry.ifr_addr.sa_family;
    struct sockaddr_in address;
    memcpy(&address, &entry.ifr_addr, sizeof address);
    record.ipaddr = address.sin_addr.s_addr;

    if (get_flags) {
      int flags = 0;
      if (queryFlags(sock, record.ifrName, &flags) == 0 && isUpAndRunning(flags)) record.up_running = 1;
    }

    if (beginsWith(record.ifrName, "sxn")) {
      record.adapterNetworkID = static_cast<unsigned>(strtoul(record.ifrName + 3, nullptr, 10));
    } else if (beginsWith(record.ifrName, "sn")) {
      // The switch driver's device of snN is sniN.
      snprintf(record.deviceName, sizeof record.deviceName, "sni%s", record.ifrName + 2);
      swnet_adapter_info_t info;
      get_switch_adapter_info(record.deviceName, &info);
      record.adapterType = info.devtype;
      record.adapterLID = info.lid;
      record.adapterNetworkID = info.network;
    }
    ++count;
  }

  list->ifList = records;
  list->count = count;
  close(sock);
  return 0;
}

void freeNetInterfaceList(AMNetInterfaceList* list) {
  if (list == nullptr) return;
  delete[] list->ifList;
  list->ifList = nullptr;
  list->count = 0;
}

int getLocalNetIfFlags(const char* ifname, int* flags) {
  if (flags == nullptr) return -1;
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) return -1;
  int rc = queryFlags(sock, ifname, flags);
  if (rc != 0) *flags = 0;
  close(sock);
  return rc;
}

int getLocalNetIfOpState(const char* ifname, int* state) {
  int flags = 0;
  int rc = getLocalNetIfFlags(ifname, &flags);
  if (state != nullptr) *state = isUpAndRunning(flags) ? 1 : 0;
  return rc;
}

void setNetIfConfQueryForTesting(NetIfConfQueryFn query) {
  ifconfQuery.store(query != nullptr ? query : kernelIfconfQuery);
}

void resetInterfaceIndexMapForTesting() {
  std::lock_guard<std::mutex> hold(indexMapMu);
  interfaceIndexMap.clear();
}

void resetIBGroupNamesForTesting() {
  std::lock_guard<std::mutex> hold(ibNamesMu);
  globalIBGroupNames.clear();
  currentNumbersOfNetworks.store(0);
}
