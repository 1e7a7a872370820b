// The global adapter table and the node-id map.
#include "AMNetIf.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "AMCfgMonitor.h"
#include "AMController.h"
#include "AMUtils.h"
#include "TraceStream.h"
#include "ha_assert.h"
#include "sw_NAM_calls.h"
#include "sw_adapter_info.h"

namespace {

constexpr const char* kNamDevice = "/dev/nampd0";
// Node numbers above this are refused by the node-id map.
constexpr int kMaxMappedNode = 32000;
// The map grows this far beyond the node that needs a slot.
constexpr int kNodeIdMapHeadroom = 100;

// A character field as updateWith stores it: up to its NUL, never beyond
// its width, the last byte forced to NUL when the source fills the width.
size_t storedLength(const char* src, size_t width) {
  size_t n = strnlen(src, width);
  return n < width ? n : width - 1;
}

void copyField(char* dst, const char* src, size_t width) {
  size_t n = storedLength(src, width);
  memcpy(dst, src, n);
  memset(dst + n, 0, width - n);
}

// True when dst holds what copyField(dst, src, width) would store.
bool sameField(const char* dst, const char* src, size_t width) {
  size_t n = storedLength(src, width);
  return memcmp(dst, src, n) == 0 && dst[n] == '\0';
}

// A terminated copy of a reported name, for lookups and traces.
struct FieldText {
  char text[kAMHardwareAddressLength + 1];
  FieldText(const char* src, size_t width) {
    size_t n = storedLength(src, width);
    memcpy(text, src, n);
    text[n] = '\0';
  }
};

struct IpText {
  char text[16];
  explicit IpText(vx_uint32_t ipaddr) {
    struct in_addr addr;
    addr.s_addr = ipaddr;
    if (inet_ntop(AF_INET, &addr, text, sizeof text) == nullptr) text[0] = '\0';
  }
};

int64_t usecsOf(const struct timeval& tv) {
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

struct timeval timevalOf(int64_t usecs) {
  struct timeval tv;
  tv.tv_sec = static_cast<time_t>(usecs / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(usecs % 1000000);
  return tv;
}

const char* netStateName(const AMAdapterItem& row) {
  if (row.isUp) return "UP";
  return row.isPending ? "DELAY_DOWN" : "DOWN";
}

const char* expiredStateName(const AMAdapterItem& row) {
  if (row.isUp) return "UP";
  return row.isNodeStopped ? "STOPPED" : "DOWN";
}

// flags are AMtracef's; the line is only formatted when it will be written.
void traceUpdLine(int flags, const AMAdapterItem& row, int isUpdated) {
  if (!TRACEABLE((flags & TRACE_FYI) ? TRACE_FYI : TRACE_DEBUG)) return;
  IpText ip(row.ipaddr);
  FieldText name(row.interfacename, sizeof row.interfacename);
  AMtracef(flags,
           "OPS UPD NetIfCfg node=%d, ifrName=%s, device=%s, IP=%s, LID=%d, netid=%d, cfged=%d, isUp=%d upd=%d\n",
           row.nodenumber, name.text, row.devicename.c_str(), ip.text, row.LID, row.networkid,
           static_cast<int>(row.isConfiged), static_cast<int>(row.isUp), isUpdated);
}

// The propagator re-times its delayed-down wait; nothing while it is absent.
void wakePropagatorForDelayedDowns() {
  if (AMController::propagator) AMController::propagator->postDelayedDownEvent();
}

// Node-id map. nodemap_lock guards all three: see the lock order in
// AMNetIf.h. A non-zero id is held by one node at most (setNodeIdMap takes
// it from any other first), so the map back from ids to nodes is exact;
// it spares a walk over every node for each id a harvest resolves.
std::mutex nodemap_lock;
uint64_t* pNodeIdMaps = nullptr;  // GUARDED_BY(nodemap_lock)
int num_NodeIds = 0;              // GUARDED_BY(nodemap_lock)
std::unordered_map<uint64_t, int>& nodeOfId() {  // GUARDED_BY(nodemap_lock)
  static auto* byId = new std::unordered_map<uint64_t, int>;
  return *byId;
}

void undefineNodeAdapters(int node) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (table) table->setAllAdapterUndefinedOnNodeWithLock(node);
}

}  // namespace

// ------------------------------------------------------------ AMAdapterItem

void AMAdapterItem::clear() {
  memset(interfacename, 0, sizeof interfacename);
  devicename = "";
  ipaddr = 0;
  nodenumber = -1;
  networkid = 0;
  LID = -1;
  isConfiged = 0;
  isUp = 0;
  isNodeStopped = 0;
  isPending = 0;
  when_happen.tv_sec = 0;
  when_happen.tv_usec = 0;
  networkId64 = 0;
  adapterType = 0;
  spigot_id = 0;
  memset(hardwareAddress, 0, sizeof hardwareAddress);
  memset(devicePathName, 0, sizeof devicePathName);
}

void AMAdapterItem::updateWith(const AMNetInterface& obj) {
  copyField(interfacename, obj.ifrName, sizeof interfacename);
  devicename = FieldText(obj.deviceName, sizeof obj.deviceName).text;
  ipaddr = obj.ipaddr;
  nodenumber = obj.nodeNumber;
  LID = obj.adapterLID;
  networkid = static_cast<int>(obj.adapterNetworkID);
  networkId64 = obj.networkId64;
  adapterType = obj.adapterType;
  spigot_id = obj.spigot_id;
  copyField(hardwareAddress, obj.hardwareAddress, sizeof hardwareAddress);
  copyField(devicePathName, obj.devicePathName, sizeof devicePathName);
}

// ----------------------------------------------------- AMGlobalAdapterTable

AMGlobalAdapterTable::AMGlobalAdapterTable()
    : GSLockableObject(),
      hasSwitchOnTheNode(false),
      n_pending_downs(0),
      earliest_down_event_time(0),
      is_ever_harvested(0),
      pDevNums(nullptr) {
  if (!already_NAM_registered()) {
    int fd = register_NAM();
    if (fd < 0) {
      AM_TRACE(TRACE_FYI) << kNamDevice << " is not opened or found" << endl;
    } else {
      AM_TRACE(TRACE_FYI) << kNamDevice << " is opened with fd=" << fd << endl;
    }
  }
}

AMGlobalAdapterTable::~AMGlobalAdapterTable() { clear_pAdapterItemList(); }

void AMGlobalAdapterTable::clear_pAdapterItemList() {
  for (auto& entry : pAdapterItemList) delete entry.second;
  pAdapterItemList.clear();
  rowBlocks_.clear();
  switchRowsByNetwork_.clear();
}

namespace {

bool isCountedSwitchRow(const AMAdapterItem& row) { return row.isConfiged && isSwitchAdapter(row.interfacename); }

}  // namespace

void AMGlobalAdapterTable::forgetSwitchRowWithoutLock(const AMAdapterItem& row) {
  if (!isCountedSwitchRow(row)) return;
  auto counted = switchRowsByNetwork_.find(row.networkid);
  if (counted != switchRowsByNetwork_.end() && --counted->second == 0) switchRowsByNetwork_.erase(counted);
}

void AMGlobalAdapterTable::countSwitchRowWithoutLock(const AMAdapterItem& row) {
  if (isCountedSwitchRow(row)) ++switchRowsByNetwork_[row.networkid];
}

void AMGlobalAdapterTable::setRowNetworkForTesting(AMAdapterItem* row, int networkid) {
  forgetSwitchRowWithoutLock(*row);
  row->networkid = networkid;
  countSwitchRowWithoutLock(*row);
}

AMAdapterItem* AMGlobalAdapterTable::locateAdapterItem(int node, int intf_idx) {
  return locateAdapterItemByIndex(offsetOfAdapterItem(node, intf_idx));
}

AMAdapterItem* AMGlobalAdapterTable::locateAdapterItemByIndex(int ofs) {
  const uint32_t key = static_cast<uint32_t>(ofs);
  if (key < kIndexedRowKeys) {
    const size_t block = key / MaxAdaptersOnNode;
    return block < rowBlocks_.size() && rowBlocks_[block] ? rowBlocks_[block][key % MaxAdaptersOnNode] : nullptr;
  }
  auto found = pAdapterItemList.find(key);
  return found == pAdapterItemList.end() ? nullptr : found->second;
}

AMAdapterItem* AMGlobalAdapterTable::getOrNewAdapterItem(int node, int intf_idx) {
  const int ofs = offsetOfAdapterItem(node, intf_idx);
  AMAdapterItem* held = locateAdapterItemByIndex(ofs);
  if (held != nullptr) return held;
  const uint32_t key = static_cast<uint32_t>(ofs);
  AMAdapterItem* row = new AMAdapterItem();
  row->nodenumber = node;
  // A harvest defines rows in ascending key order: the end is then the
  // place, found without a search (any other key is searched for).
  pAdapterItemList.emplace_hint(pAdapterItemList.end(), key, row);
  if (key < kIndexedRowKeys) {
    const size_t block = key / MaxAdaptersOnNode;
    if (block >= rowBlocks_.size()) rowBlocks_.resize(block + 1);
    if (!rowBlocks_[block]) rowBlocks_[block].reset(new AMAdapterItem*[MaxAdaptersOnNode]());
    rowBlocks_[block][key % MaxAdaptersOnNode] = row;
  }
  return row;
}

int AMGlobalAdapterTable::getSXNDeviceNum(const char* /*name*/) { return -1; }

int AMGlobalAdapterTable::AdapterConfiguredOnNetwork(int network, uint64_t network64) {
  // The read lock nests under any hold the caller may already have.
  GSReadGuard hold(*this);
  const bool ib = isIBenv.load();
  for (auto& entry : pAdapterItemList) {
    const AMAdapterItem* row = entry.second;
    if (ib) {
      AMtracef(AM_TRACEF_DEBUG, "pTmp->isConfiged: %d", static_cast<int>(row->isConfiged));
      if (row->isConfiged && row->networkId64 == network64) return gkTRUE;
    } else if (row->isConfiged && row->networkid == network) {
      return gkTRUE;
    }
  }
  return gkFALSE;
}

int AMGlobalAdapterTable::highestSwitchNetworkWithLock() {
  GSReadGuard hold(*this);
  // A network numbered below 0 is never the answer: -1 says "none".
  return switchRowsByNetwork_.empty() ? -1 : std::max(-1, switchRowsByNetwork_.rbegin()->first);
}

int AMGlobalAdapterTable::adapterAttributeChanged(const AMNetInterface& obj, AMAdapterItem* item) {
  if (item == nullptr || !item->isConfiged) return gkTRUE;
  FieldText device(obj.deviceName, sizeof obj.deviceName);
  bool same = obj.nodeNumber == item->nodenumber && obj.ipaddr == item->ipaddr && obj.adapterLID == item->LID &&
              sameField(item->interfacename, obj.ifrName, sizeof obj.ifrName) &&
              strcmp(item->devicename.c_str(), device.text) == 0 &&
              obj.adapterNetworkID == static_cast<vx_uint32_t>(item->networkid) &&
              obj.networkId64 == item->networkId64 && obj.adapterType == item->adapterType &&
              obj.spigot_id == item->spigot_id &&
              sameField(item->hardwareAddress, obj.hardwareAddress, sizeof obj.hardwareAddress) &&
              sameField(item->devicePathName, obj.devicePathName, sizeof obj.devicePathName);
  return same ? gkFALSE : gkTRUE;
}

int AMGlobalAdapterTable::setAdapterDefinedWithoutLock(const AMNetInterface& obj) {
  FieldText name(obj.ifrName, sizeof obj.ifrName);
  FieldText device(obj.deviceName, sizeof obj.deviceName);
  int intf_idx = _idxFromInterfaceName(name.text);
  AMAdapterItem* row = getOrNewAdapterItem(obj.nodeNumber, intf_idx);
  int isUpdated = 0;

  if (TRACEABLE(TRACE_FYI)) {
    AMtracef(TRACE_FYI,
             "setAdapterDefinedWithoutLock: Input: ifr=%s dev=%s ipaddr=%x node=%d type=%d LID=%d NetID=%u "
             "PrevNetId=%u\n netId64=%llx, adapterType=%d,spigot_id=%d, hardwareAddress=%s, devicePathName=%s\n",
             name.text, device.text, obj.ipaddr, obj.nodeNumber, static_cast<int>(obj.adapterType), obj.adapterLID,
             obj.adapterNetworkID, static_cast<unsigned>(row->networkid),
             static_cast<unsigned long long>(obj.networkId64), static_cast<int>(obj.adapterType),
             static_cast<int>(obj.spigot_id), FieldText(obj.hardwareAddress, sizeof obj.hardwareAddress).text,
             FieldText(obj.devicePathName, sizeof obj.devicePathName).text);
  }

  if (adapterAttributeChanged(obj, row)) {
    int prevNetwork = row->networkid;
    AMtracef(AM_TRACEF_DEBUG, "isUpdated=1 ");
    isUpdated = 1;
    forgetSwitchRowWithoutLock(*row);
    row->updateWith(obj);

    const bool localSwitch = isSwitchAdapter(name.text) && row->nodenumber == static_cast<int>(myNodeNumber);
    if (localSwitch && prevNetwork != row->networkid) {
      if (strncmp(name.text, "sxn", 3) != 0) {
        swnet_adapter_info_t info;
        if (get_switch_adapter_info(device.text, &info) == 0) {
          row->LID = info.lid;
          row->networkid = static_cast<int>(info.network);
        }
      } else {
        row->networkid = static_cast<int>(obj.adapterNetworkID);
      }
      if (obj.adapterNetworkID != static_cast<vx_uint32_t>(row->networkid)) {
        AMtracef(AM_TRACEF_DEBUG, "Interface=%s, Reported netid=%d,  Actual netid=%d. The actual id will be used",
                 name.text, static_cast<int>(obj.adapterNetworkID), row->networkid);
      }
    }
    // Counted as the row now stands (still with its old definition flag):
    // the mediators below ask for the highest switch network.
    countSwitchRowWithoutLock(*row);
    if (localSwitch) {
      // The local node follows its adapter into the new network's cooked
      // group.
      AMController* ctl = amController();
      if (prevNetwork != row->networkid && ctl != nullptr) {
        for (int i = 0; i < ctl->mediators.count(); ++i) {
          AMMediator* mediator = ctl->mediators[i];
          if (mediator == nullptr) continue;
          AMCookedProvider* provider = mediator->getCookedProvider(name.text);
          if (provider && provider->getAttachedNetworkNum() != row->networkid) {
            mediator->changeAttachedNetwork(provider, row->networkid);
          }
        }
      }
    }

    forgetSwitchRowWithoutLock(*row);
    row->isConfiged = 1;
    countSwitchRowWithoutLock(*row);
    row->isPending = 0;
    accumulate_NAM_change(row);
    traceUpdLine(AM_TRACEF_DEBUG, *row, isUpdated);
    AMtracef(AM_TRACEF_DEBUG, "In setAdapterDefinedWithoutLock(), Call accumulate_NAM_changes()\n");
  }
  // Definition and membership are separate facts: isUp is never touched.
  traceUpdLine(AM_TRACEF_DEBUG, *row, isUpdated);
  return isUpdated;
}

int AMGlobalAdapterTable::setAdapterDefinedWithLock(const AMNetInterface& obj) {
  AMtracef(AM_TRACEF_DEBUG, "In setAdapterDefinedWithLock(), Call setAdapterDefinedWithoutLock()\n");
  int changed;
  {
    GSWriteGuard hold(*this);
    changed = setAdapterDefinedWithoutLock(obj);
  }
  AMtracef(AM_TRACEF_DEBUG, "In setAdapterDefinedWithLock(),  after Call setAdapterDefinedWithoutLock()\n");
  return changed;
}

int AMGlobalAdapterTable::setAdapterUndefinedWithoutLock(int nodenum, const char* ifname) {
  if (ifname == nullptr) return 0;
  FieldText name(ifname, kAMIfNameLength);
  AMAdapterItem* row = getOrNewAdapterItem(nodenum, _idxFromInterfaceName(name.text));
  if (!row->isConfiged) return 0;
  forgetSwitchRowWithoutLock(*row);
  row->isConfiged = 0;
  row->isPending = 0;
  accumulate_NAM_change(row);
  AMtracef(AM_TRACEF_DEBUG, "In setAdapterUndefinedWithoutLock(), Call accumulate_NAM_changes()\n");
  if (!TRACEABLE(TRACE_FYI)) return 1;
  IpText ip(row->ipaddr);
  AMtracef(TRACE_FYI,
           "UNDEF NetIfCfg node=%d ifrName=%s, device=%s, IP=%s, LID=%d, netid=%d,\n netid64 = %llx,adapterType = "
           "%d, spigot_id = %d, hardwareAddress = %s, devicePathName = %s \n",
           row->nodenumber, FieldText(row->interfacename, sizeof row->interfacename).text,
           row->devicename.c_str(), ip.text, row->LID, row->networkid,
           static_cast<unsigned long long>(row->networkId64), static_cast<int>(row->adapterType),
           static_cast<int>(row->spigot_id), FieldText(row->hardwareAddress, sizeof row->hardwareAddress).text,
           FieldText(row->devicePathName, sizeof row->devicePathName).text);
  return 1;
}

int AMGlobalAdapterTable::setAllAdapterUndefinedOrDownOnNodeWithoutLock(int nodenum, int is_undef) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "setAllAdapterUndefinedOrDownOnNodeWithoutLock");
  int matched = 0;
  for (auto& entry : pAdapterItemList) {
    AMAdapterItem* row = entry.second;
    if (row->nodenumber != nodenum || !row->isConfiged) continue;
    matched = 1;
    row->isNodeStopped = 1;
    if (is_undef) {
      forgetSwitchRowWithoutLock(*row);
      row->isConfiged = 0;
    }
    row->isPending = 0;
    accumulate_NAM_change(row);
    AMtracef(AM_TRACEF_DEBUG, "In setAllAdapterUndefinedOrDownOnNodeWithoutLock(), Call accumulate_NAM_changes()\n");
    if (!TRACEABLE(TRACE_FYI)) continue;
    IpText ip(row->ipaddr);
    AMtracef(TRACE_FYI,
             "OPS %s NetIfCfg node=%d ifrName=%s, device=%s, IP=%s, LID=%d, netid=%d\n netid64 = %llx, adapterType "
             "= %d, spigot_id =%d, hardwareAddress = %s, devicePathName = %s\n",
             is_undef ? "UNDEF" : "STOPPED", row->nodenumber,
             FieldText(row->interfacename, sizeof row->interfacename).text, row->devicename.c_str(), ip.text,
             row->LID, row->networkid, static_cast<unsigned long long>(row->networkId64),
             static_cast<int>(row->adapterType), static_cast<int>(row->spigot_id),
             FieldText(row->hardwareAddress, sizeof row->hardwareAddress).text,
             FieldText(row->devicePathName, sizeof row->devicePathName).text);
  }
  return matched;
}

int AMGlobalAdapterTable::setAllAdapterUndefinedOnNodeWithLock(int nodenum) {
  GSWriteGuard hold(*this);
  return setAllAdapterUndefinedOrDownOnNodeWithoutLock(nodenum, 1);
}

int AMGlobalAdapterTable::setAllAdapterStoppedOnNodeWithLock(int nodenum) {
  GSWriteGuard hold(*this);
  return setAllAdapterUndefinedOrDownOnNodeWithoutLock(nodenum, 0);
}

int AMGlobalAdapterTable::resetIsNodeStoppedBit(int nodenum) {
  // The write lock nests under a caller's own write hold.
  GSWriteGuard hold(*this);
  for (auto& entry : pAdapterItemList) {
    AMAdapterItem* row = entry.second;
    if (row->nodenumber != nodenum || !row->isNodeStopped) continue;
    row->isNodeStopped = 0;
    if (row->isConfiged) accumulate_NAM_change(row);
  }
  return 0;
}

int AMGlobalAdapterTable::updateAdapterStateWithLock(int isUp, const tk_gs_membership_t* members, int reflect) {
  if (members == nullptr || members->gs_count == 0) return 0;
  if (members->gs_providers == nullptr) return 0;
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "updateAdapterStateWithLock");
  struct timeval now;
  MONO_GETTIMEOFDAY_IN_HALFSECS(&now);
  const bool traceAllNodes = AMController::domainType == kCLUSTER;
  {
    GSWriteGuard hold(*this);
    for (unsigned i = 0; i < members->gs_count; ++i) {
      const tk_gs_provider_t& prov = members->gs_providers[i];
      const int node = prov.gs_provider_fields.gs_node_number;
      const int instance = prov.gs_provider_fields.gs_instance_number;
      AMtracef(AM_TRACEF_DEBUG,
               "In setAdapterDefinedWithLock(),  prov->gs_node_number=%d, prov->gs_instance_number=%d)\n", node,
               instance);
      AMAdapterItem* row = getOrNewAdapterItem(node, instance);
      if (!row->isUp || isUp) {
        row->isPending = 0;
        row->isUp = isUp ? 1 : 0;
        if (isUp) row->isNodeStopped = 0;
        row->when_happen = now;
        accumulate_NAM_change(row);
        AMtracef(AM_TRACEF_DEBUG, "In updateAdapterStateWithLock(),Call accumulate_NAM_changes()\n");
      } else if (row->isNodeStopped) {
        // The node-stop path has already announced "STOPPED".
        row->isPending = 0;
        row->isUp = 0;
        row->when_happen = now;
      } else {
        // Held back: clients keep seeing the adapter up until the delay
        // runs out, so that a short flap never reaches them.
        if (!row->isPending) {
          heldDownRows_.emplace_back(static_cast<uint32_t>(offsetOfAdapterItem(node, instance)), row);
        }
        row->isPending = 1;
        row->isUp = 0;
        row->when_happen = now;
        postDelalyedDownEventAt(&now);
      }
      if ((traceAllNodes || row->nodenumber == static_cast<int>(myNodeNumber)) && TRACEABLE(TRACE_FYI)) {
        IpText ip(row->ipaddr);
        AMtracef(TRACE_FYI,
                 "updateAdapterStateWithLock(): OPS %s NetState node=%d ifrName=%s, device=%s, IP=%s, LID=%d, "
                 "netid=%d, netId64 = %llx, cfged=%d, Stopped=%d\n",
                 netStateName(*row), row->nodenumber, FieldText(row->interfacename, sizeof row->interfacename).text,
                 row->devicename.c_str(), ip.text, row->LID, row->networkid,
                 static_cast<unsigned long long>(row->networkId64), static_cast<int>(row->isConfiged),
                 static_cast<int>(row->isNodeStopped));
      }
    }
  }
  if (reflect) reflect_NAM_changes();
  return 1;
}

void AMGlobalAdapterTable::forgetHarvestForTesting() {
  GSWriteGuard hold(*this);
  is_ever_harvested = 0;
}

int AMGlobalAdapterTable::repopulateAllNAMInfoWithLock() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "repopulateAllNAMInfoWithLock");
  int announced = 0;
  {
    GSWriteGuard hold(*this);
    for (auto& entry : pAdapterItemList) {
      AMAdapterItem* row = entry.second;
      if (!row->isConfiged || row->isNodeStopped) continue;
      row->isPending = 0;
      accumulate_NAM_change(row);
      AMtracef(AM_TRACEF_DEBUG, "In repopulateAllNAMInfoWithLock(), Call accumulate_NAM_changes()\n");
      announced = 1;
    }
  }
  reflect_NAM_changes();
  return announced;
}

int AMGlobalAdapterTable::refreshLocalTable(int auto_reflect) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "refreshLocalTable");
  AMtracef(AM_TRACEF_DEBUG, "Collecting the local adapters\n");
  AMNetInterfaceList list;
  getLocalNetInterfaceList(&list, 0);  // on failure the list stays empty
  int namcnt = 0;
  {
    GSWriteGuard hold(*this);
    for (int i = 0; i < list.count; ++i) {
      AMNetInterface& intf = list.ifList[i];
      intf.nodeNumber = myNodeNumber;
      if (!isSwitchAdapter(FieldText(intf.ifrName, sizeof intf.ifrName).text)) continue;
      hasSwitchOnTheNode = true;
      AMtracef(AM_TRACEF_DEBUG, "In refreshLocalTable(), Call setAdapterDefinedWithoutLock()\n");
      if (setAdapterDefinedWithoutLock(intf) == 1) namcnt++;
    }
    // A local interface that vanished keeps its configured row: a rescan
    // only adds and updates, and KOR alone undefines an adapter.
  }
  freeNetInterfaceList(&list);
  if (auto_reflect) {
    reflect_NAM_changes();
    AMtracef(AM_TRACEF_DEBUG, "In refreshLocalTable(),Call reflect_NAM_changes()\n");
  }
  AMtracef(AM_TRACEF_DEBUG, "Finish collecting the local adapters, namChgCnt=%d\n", namcnt);
  return namcnt;
}

int AMGlobalAdapterTable::checkRawDevices() {
  GSReadGuard hold(*this);
  for (int i = 0; i < MaxAdaptersOnNode; ++i) {
    AMAdapterItem* row = locateAdapterItem(myNodeNumber, i);
    if (row && row->isConfiged) return 0;
    if (TRACEABLE(TRACE_FYI)) {
      if (row == nullptr) {
        AM_TRACE(TRACE_FYI) << "In AMGlobalAdapterTable::checkRawDevice(): i = " << i << ", pTmp = 0." << endl;
      } else {
        AM_TRACE(TRACE_FYI) << "In AMGlobalAdapterTable::checkRawDevice(): i = " << i
                            << ", pTmp->isConfigred = " << static_cast<int>(row->isConfiged) << endl;
      }
    }
  }
  return 2;
}

// ------------------------------------------------------------ KOR harvests

namespace {

const char* kPeerNodeAttrs[] = {"NodeIDs", "NodeList"};

// The attribute of a query entry with this name and type, or null.
const mc_attribute_t* findAttr(const mc_query_rsp_t& entry, const char* name, vx_data_type_t type) {
  for (uint32_t i = 0; entry.attrs != nullptr && i < entry.attr_count; ++i) {
    const mc_attribute_t& a = entry.attrs[i];
    if (a.name != nullptr && a.type == type && strcmp(a.name, name) == 0) return &a;
  }
  return nullptr;
}

// An array attribute that holds at least one element.
bool hasElements(const mc_attribute_t* attr) {
  return attr != nullptr && attr->value.array != nullptr && attr->value.array->count > 0;
}

}  // namespace

int AMGlobalAdapterTable::harvestGblPeerNodes(int tracing) {
  if (AMController::domainType != kCLUSTER) return 0;
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "harvestGblPeerNodes");
  if (tracing) AMtracef(TRACE_FYI, "harvestGblPeers begins\n");

  mc_sess_hndl_t session = 0;
  if (mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &session) != MC_OK) {
    AMtracef(TRACE_FYI, "harvestGblPeers: mc_start_session fails (%s)\n", korErrorText().c_str());
    return -1;
  }
  mc_query_rsp_t* nodes = nullptr;
  uint32_t count = 0;
  if (mc_query_p_select_bp(session, &nodes, &count, KOR_CLASS_PEER_NODE, nullptr, kPeerNodeAttrs, 2) != MC_OK) {
    AMtracef(TRACE_FYI, "harvestGblPeers: mc_query_p_select_bp fails (%s)\n", korErrorText().c_str());
    mc_end_session(session);
    return -1;
  }

  int nchanges = 0;
  std::vector<char> seen;
  int highest = -1;
  for (uint32_t i = 0; nodes != nullptr && i < count; ++i) {
    const mc_query_rsp_t& entry = nodes[i];
    if (entry.mc_errnum != MC_OK) continue;  // an empty entry: nothing to learn
    const mc_attribute_t* ids = findAttr(entry, "NodeIDs", VX_UINT64_ARRAY);
    const mc_attribute_t* list = findAttr(entry, "NodeList", VX_UINT32_ARRAY);
    uint64_t nodeId = 0;
    if (hasElements(ids) && ids->value.array->elements.uint64s) nodeId = ids->value.array->elements.uint64s[0];
    int number = -1;
    if (hasElements(list) && list->value.array->elements.uint32s) {
      uint32_t reported = list->value.array->elements.uint32s[0];
      if (reported <= static_cast<uint32_t>(INT32_MAX)) number = static_cast<int>(reported);
    }
    nchanges += setNodeIdMap(number, nodeId);
    // The map refuses numbers above its limit; they are not counted as seen.
    if (number >= 0 && number <= kMaxMappedNode && nodeId != 0) {
      if (number >= static_cast<int>(seen.size())) seen.resize(number + 1, 0);
      seen[number] = 1;
      highest = std::max(highest, number);
    }
  }
  // A node number KOR no longer reports has left the cluster.
  for (int number = 0; number < highest; ++number) {
    if (!seen[number]) nchanges += resetNodeIdMap(number);
  }

  mc_free_response(nodes);
  mc_end_session(session);
  if (tracing || nchanges > 0) AMtracef(TRACE_FYI, "harvestGblPeers finished with nchanges=%d\n", nchanges);
  return nchanges;
}

int AMGlobalAdapterTable::harvestGblNetworkInterfaces(int tracing) {
  if (AMController::domainType != kCLUSTER) {
    GSWriteGuard hold(*this);
    is_ever_harvested = 1;
    return 0;
  }
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "harvestGblNetworkInterfaces");
  if (tracing) AMtracef(TRACE_FYI, "harvestGblNetworkInterfaces begins\n");

  int nchanges = 0;
  // Our own adapters first, when none of them is known yet.
  if (checkRawDevices() == 2) nchanges += refreshLocalTable(0);

  mc_sess_hndl_t session = 0;
  if (mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &session) != MC_OK) {
    AMtracef(TRACE_FYI, "harvestGblNI: mc_start_session fails (%s)\n", korErrorText().c_str());
    return -1;
  }
  mc_query_rsp_t* interfaces = nullptr;
  uint32_t count = 0;
  if (mc_query_p_select_bp(session, &interfaces, &count, KOR_CLASS_NETWORK_INTERFACE, nullptr,
                           const_cast<const char**>(NI_RetResAttrs), kNINumRetResAttrs) != MC_OK) {
    AMtracef(TRACE_FYI, "harvestGblNI: mc_query_p_select_bp fails (%s)\n", korErrorText().c_str());
    mc_end_session(session);
    return -1;
  }

  // Parsed before the table lock is taken: a node id not known yet makes
  // the parser harvest the peer nodes, and the node-id map's lock comes
  // before the table's.
  std::vector<AMNetInterface> reported;
  reported.reserve(count);
  for (uint32_t i = 0; interfaces != nullptr && i < count; ++i) {
    const mc_query_rsp_t& entry = interfaces[i];
    if (entry.mc_errnum != MC_OK) continue;  // an empty entry: nothing to define
    AMNetInterface item;
    if (parseNetInterfaceAttrs(entry.attrs, entry.attr_count, item) == 0) reported.push_back(item);
  }

  {
    GSWriteGuard hold(*this);
    // Rows are looked at by their position 0..count-1 as keys.
    const int rows = getAdapterItemCount();
    std::vector<char> wasConfiged(rows, 0);
    std::vector<char> isReported(rows, 0);
    for (int i = 0; i < rows; ++i) {
      AMAdapterItem* row = locateAdapterItemByIndex(i);
      if (row == nullptr || !row->isConfiged) continue;
      wasConfiged[i] = 1;
      AMtracef(AM_TRACEF_DEBUG, "In harvestGblNetworkInterface(), i =%d set isConfiged \n", i);
    }
    for (const AMNetInterface& item : reported) {
      const int ofs = offsetOfAdapterItem(item.nodeNumber, _idxFromInterfaceName(item.ifrName));
      AMtracef(AM_TRACEF_DEBUG, "In harvestGblNetworkInterface(), Call setAdapterDefinedWithoutLock(), ofs=%d\n", ofs);
      nchanges += setAdapterDefinedWithoutLock(item);
      if (ofs >= 0 && ofs < rows) isReported[ofs] = 1;
    }
    for (int i = 0; i < rows; ++i) {
      if (!wasConfiged[i] || isReported[i]) continue;
      AMAdapterItem* row = locateAdapterItemByIndex(i);
      if (row != nullptr) nchanges += setAdapterUndefinedWithoutLock(row->nodenumber, row->interfacename);
    }
  }
  reflect_NAM_changes();
  if (tracing || nchanges > 0) AMtracef(TRACE_FYI, "harvestGblNetworkInterfaces() leaving nchanges=%d\n", nchanges);

  mc_free_response(interfaces);
  mc_end_session(session);
  {
    GSWriteGuard hold(*this);
    is_ever_harvested = 1;
  }
  AMController* ctl = amController();
  if (ctl != nullptr) {
    ctl->wakeupAllMediators(0);
    ctl->wakeupAllAggregators(0);
    ctl->wakeupPropagator(0);
  }
  return nchanges;
}

// ------------------------------------------------------------ delayed downs

void AMGlobalAdapterTable::postDelalyedDownEventAt(struct timeval* t) {
  {
    // Taken again by a caller that holds the write lock already.
    GSWriteGuard hold(*this);
    if (n_pending_downs.load() == 0) earliest_down_event_time.store(usecsOf(*t));
    n_pending_downs.fetch_add(1);
  }
  wakePropagatorForDelayedDowns();
}

int AMGlobalAdapterTable::computeNextWaitTime(struct timeval* out) {
  if (n_pending_downs.load() == 0) return 0;
  struct timeval now;
  MONO_GETTIMEOFDAY_IN_HALFSECS(&now);
  int64_t wait = static_cast<int64_t>(WAIT_PENDING_DELAYED_DOWN_USECS) -
                 (usecsOf(now) - earliest_down_event_time.load());
  if (wait < 0) wait = 0;
  *out = timevalOf(wait);
  return 1;
}

int AMGlobalAdapterTable::processDelayedDownEvents() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "processDelayedDownEvents");
  struct timeval now;
  MONO_GETTIMEOFDAY_IN_HALFSECS(&now);
  const int64_t nowUs = usecsOf(now);
  GSWriteGuard hold(*this);
  int64_t earliest = nowUs;
  int pending = 0;
  int n_updates = 0;
  // In the table's order, as a walk over every row would meet them.
  std::sort(heldDownRows_.begin(), heldDownRows_.end());
  heldDownRows_.erase(std::unique(heldDownRows_.begin(), heldDownRows_.end()), heldDownRows_.end());
  std::vector<std::pair<uint32_t, AMAdapterItem*>> stillHeld;
  for (auto& entry : heldDownRows_) {
    AMAdapterItem* row = entry.second;
    if (!row->isPending) continue;
    const int64_t happened = usecsOf(row->when_happen);
    if (nowUs - happened < WAIT_PENDING_DELAYED_DOWN_USECS) {
      ++pending;
      if (happened < earliest) earliest = happened;
      stillHeld.push_back(entry);
      continue;
    }
    row->isPending = 0;
    if (!row->isNodeStopped) {
      accumulate_NAM_change(row);
      AMtracef(AM_TRACEF_DEBUG, "processDelayedDownEvents(), Call accumulate_NAM_changes()\n");
      ++n_updates;
    }
    if (TRACEABLE(TRACE_FYI)) {
      IpText ip(row->ipaddr);
      AMtracef(TRACE_FYI,
               "OPS2 %s NetState node=%d ifrName=%s, device=%s, IP=%s, LID=%d, netid=%d, netId64=%llx,cfged=%d, "
               "Stopped=%d\n",
               expiredStateName(*row), row->nodenumber, FieldText(row->interfacename, sizeof row->interfacename).text,
               row->devicename.c_str(), ip.text, row->LID, row->networkid,
               static_cast<unsigned long long>(row->networkId64), static_cast<int>(row->isConfiged),
               static_cast<int>(row->isNodeStopped));
    }
  }
  heldDownRows_.swap(stillHeld);
  earliest_down_event_time.store(earliest);
  n_pending_downs.store(pending);
  // Published under the table lock; reflect_NAM_changes never takes it.
  if (n_updates > 0) reflect_NAM_changes();
  if (pending > 0) wakePropagatorForDelayedDowns();
  return pending;
}

// ------------------------------------------------------------ node-id map

void clearNodeIdMappings() {
  std::lock_guard<std::mutex> hold(nodemap_lock);
  for (int i = 0; i < num_NodeIds; ++i) pNodeIdMaps[i] = 0;
  nodeOfId().clear();
}

int setNodeIdMap(int node, uint64_t nodeid) {
  if (node > kMaxMappedNode) return 0;
  std::lock_guard<std::mutex> hold(nodemap_lock);
  if (node >= 0 && node >= num_NodeIds) {
    int grown = node + kNodeIdMapHeadroom;
    uint64_t* fresh = new uint64_t[grown]();
    for (int i = 0; i < num_NodeIds; ++i) fresh[i] = pNodeIdMaps[i];
    delete[] pNodeIdMaps;
    pNodeIdMaps = fresh;
    num_NodeIds = grown;
  }
  int changed = 0;
  if (nodeid != 0) {
    // A node id that shows up under a new node number leaves its old one:
    // every adapter of the old number is undefined first.
    auto held = nodeOfId().find(nodeid);
    if (held != nodeOfId().end() && held->second != node) {
      const int other = held->second;
      AMtracef(TRACE_FYI, "OPS UNDEF(1) PeerNode node=%d, nodeid=0x%llx\n", other,
               static_cast<unsigned long long>(nodeid));
      undefineNodeAdapters(other);
      pNodeIdMaps[other] = 0;
      nodeOfId().erase(held);
      changed = 1;
    }
  }
  if (node >= 0) {
    uint64_t previous = pNodeIdMaps[node];
    if (previous == nodeid) return changed;
    changed = 1;
    if (nodeid == 0) {
      AMtracef(TRACE_FYI, "OPS UNDEF PeerNode node=%d, previd=0x%llx nodeid=0x%llx\n", node,
               static_cast<unsigned long long>(previous), static_cast<unsigned long long>(nodeid));
      undefineNodeAdapters(node);
    } else {
      AMtracef(TRACE_FYI, "DEF PeerNode node=%d, nodeid=0x%llx\n", node, static_cast<unsigned long long>(nodeid));
    }
    if (previous != 0) nodeOfId().erase(previous);
    pNodeIdMaps[node] = nodeid;
    if (nodeid != 0) nodeOfId()[nodeid] = node;
  }
  return changed;
}

int resetNodeIdMap(int node) { return setNodeIdMap(node, 0); }

int getNodeNumFromNodeId(uint64_t nodeid) {
  if (nodeid == 0) return -1;
  std::lock_guard<std::mutex> hold(nodemap_lock);
  auto held = nodeOfId().find(nodeid);
  return held == nodeOfId().end() ? -1 : held->second;
}

int nodeIdMapCapacityForTesting() {
  std::lock_guard<std::mutex> hold(nodemap_lock);
  return num_NodeIds;
}

void resetNodeIdMapForTesting() {
  std::lock_guard<std::mutex> hold(nodemap_lock);
  delete[] pNodeIdMaps;
  pNodeIdMaps = nullptr;
  num_NodeIds = 0;
  nodeOfId().clear();
}
