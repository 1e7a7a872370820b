// The local node's IPv4 interfaces and the naming rules the adapter code
// shares: the interface scan, the classes of interface names, the stable
// adapter index of a name and the group names of InfiniBand networks.
//
// These are process-wide functions. The index map and the InfiniBand names
// carry locks of their own, so any thread may call them; a name's index and
// an InfiniBand group name, once given, never change for the life of the
// process.
#ifndef VELT_GLOBALAM_SW_ADAPTER_INFO_H_
#define VELT_GLOBALAM_SW_ADAPTER_INFO_H_

#include <stdint.h>

#include <atomic>

struct AMNetInterface;
struct AMNetInterfaceList;
struct ifconf;

// What the switch driver tells of one device.
typedef struct {
  unsigned devtype;
  int lid;
  unsigned network;
} swnet_adapter_info_t;

// Size of the buffer that holds one InfiniBand group name.
constexpr int kIBGroupNameLength = 50;

// InfiniBand group names made so far.
extern std::atomic<int> currentNumbersOfNetworks;
// Set by the KOR attribute parser when it meets an InfiniBand adapter.
extern std::atomic<bool> isIBenv;
// Set by the KOR attribute parser when the local node has an ml0 adapter.
extern std::atomic<bool> hasML0OnTheNode;

// Name classes (0/1): a switch adapter's name begins with "sn" or "sxn", an
// aggregate adapter's with "ml0"; an InfiniBand adapter's name contains
// "ib" anywhere.
int isSwitchAdapter(const char* name);
int isML0Adapter(const char* name);
int isIBAdapter(const char* name);
// ml0 over InfiniBand is switched off: always 0 (outside tests that switch
// it on to reach the InfiniBand rules of the aggregator).
int isML0ForIBSupported();
void setML0ForIBSupportedForTesting(bool supported);

// The adapter index of an interface name: 0, 1, 2, ... in the order names
// are first seen by the process, whatever their digits. -1 for null.
int _idxFromInterfaceName(const char* name);
// The network number of a switch interface: for a name beginning with
// "sxn", the decimal number at its first digit; otherwise, or without a
// digit, -1.
int getNetworkFromSwitchInterfaceName(const char* name);

// Makes the group name "IBNet.<id in hex>" of the interface's 64-bit
// network, once per network, when the cluster has InfiniBand adapters.
void createIBGroupName(const AMNetInterface& intf);
// The group name made for a network, or null. The text lives until the
// process ends.
const char* getIBGroupName(uint64_t networkId64);
// The network whose group name is exactly this (the lowest such id), or 0.
uint64_t getNetworkId64FromGroupName(const char* groupName);

// The switch driver's query does not exist on this platform: fills devtype
// 0, lid -1, network 0 and returns -1, so callers keep what they have.
int get_switch_adapter_info(const char* devname, swnet_adapter_info_t* info);

// Lists the local IPv4 interfaces, one record per interface (alias
// addresses fold into their interface), with up_running filled when
// get_flags is non-zero. 0 on success; -1 with the list left empty.
int getLocalNetInterfaceList(AMNetInterfaceList* list, int get_flags);
// Releases the records of a list and leaves it empty.
void freeNetInterfaceList(AMNetInterfaceList* list);
// The interface's flags (SIOCGIFFLAGS): 0, or -1 (flags 0 when the query
// itself failed).
int getLocalNetIfFlags(const char* ifname, int* flags);
// 1 in state when the interface is both up and running, else 0; returns
// what getLocalNetIfFlags returned.
int getLocalNetIfOpState(const char* ifname, int* state);

// The interface configuration query (SIOCGIFCONF on the given socket), so
// that tests can feed answers the kernel would not give; null restores the
// kernel's. Returns 0, or -1 with errno set.
typedef int (*NetIfConfQueryFn)(int sock, struct ifconf* ifc);
void setNetIfConfQueryForTesting(NetIfConfQueryFn query);
// Forget every index and InfiniBand group name, as in a new process.
void resetInterfaceIndexMapForTesting();
void resetIBGroupNamesForTesting();

#endif  // VELT_GLOBALAM_SW_ADAPTER_INFO_H_
