// The cluster configuration monitor: the KOR attribute parser, the event
// session with its registrations and callbacks, and the monitor thread.
#include "AMCfgMonitor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include "AMController.h"
#include "TraceStream.h"
#include "brel_signal.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "vx_cu.h"

const char* const NI_RetResAttrs[kNINumRetResAttrs] = {
    "Name",      "NodeIDs",   "DeviceName", "IPAddress",       "DeviceSubType", "LogicalID",
    "NetworkID", "NetworkID64", "PortID",   "HardwareAddress", "DevicePathName",
};

namespace {

// Copies a KOR text into a field of width bytes, cut to fit, NUL forced.
void copyText(char* dst, const char* src, size_t width) {
  size_t n = strnlen(src, width - 1);
  memcpy(dst, src, n);
  memset(dst + n, 0, width - n);
}

bool isNamed(const mc_attribute_t& attr, const char* name) {
  return attr.name != nullptr && strcmp(attr.name, name) == 0;
}

bool hasText(const mc_attribute_t& attr) { return attr.type == VX_CHAR_PTR && attr.value.string != nullptr; }

bool exiting() {
  AMController* ctl = amController();
  return ctl != nullptr && ctl->AmIExiting();
}

}  // namespace

std::string korErrorText() {
  char text[600];
  snprintf(text, sizeof text, "%d: %s", cu_get_error(), cu_get_errmsg());
  return text;
}

// ---------------------------------------------------------------- parser

int parseNetInterfaceAttrs(const mc_attribute_t* attrs, uint32_t count, AMNetInterface& out) {
  memset(&out, 0, sizeof out);
  // Empty until told: no node, no logical id.
  out.nodeNumber = -1;
  out.adapterLID = -1;
  bool hasName = false;
  bool hasDevice = false;
  bool hasNode = false;
  bool hasIp = false;
  bool hasLID = false;
  bool hasNetId = false;
  bool switchName = false;
  bool ml0Name = false;
  bool nodeUnresolved = false;
  const char* pathName = nullptr;

  for (uint32_t i = 0; attrs != nullptr && i < count; ++i) {
    const mc_attribute_t& a = attrs[i];
    if (isNamed(a, "Name")) {
      if (!hasText(a)) continue;
      copyText(out.ifrName, a.value.string, sizeof out.ifrName);
      hasName = true;
      switchName = isSwitchAdapter(out.ifrName) != 0;
      ml0Name = isML0Adapter(out.ifrName) != 0;
    } else if (isNamed(a, "DeviceName")) {
      if (!hasText(a)) continue;
      copyText(out.deviceName, a.value.string, sizeof out.deviceName);
      hasDevice = true;
    } else if (isNamed(a, "NodeIDs")) {
      if (a.type != VX_UINT64_ARRAY || a.value.array == nullptr || a.value.array->count == 0 ||
          a.value.array->elements.uint64s == nullptr)
        continue;
      const uint64_t nodeId = a.value.array->elements.uint64s[0];
      int node = getNodeNumFromNodeId(nodeId);
      if (node < 0 && AMController::pGAdapterCfgTbl != nullptr) {
        // A node may publish its interfaces before we heard of the node.
        AMController::pGAdapterCfgTbl->harvestGblPeerNodes(0);
        node = getNodeNumFromNodeId(nodeId);
      }
      if (node < 0) {
        AMtracef(TRACE_FYI, "Failed to convert nodeId=%llx (okay if the node is being removed)\n",
                 static_cast<unsigned long long>(nodeId));
        nodeUnresolved = true;
      }
      out.nodeNumber = node;
      hasNode = true;
    } else if (isNamed(a, "IPAddress")) {
      if (!hasText(a)) continue;
      out.ipaddr = inet_addr(a.value.string);
      hasIp = true;
    } else if (isNamed(a, "DeviceSubType")) {
      if (a.type != VX_UINT32) continue;
      out.adapterType = a.value.uint32;
      if (out.adapterType == kKorIBDeviceSubType && isML0ForIBSupported()) {
        isIBenv.store(true);
        AM_TRACE(TRACE_FYI) << "item.adapterType = " << out.adapterType << ".This adapter is an IB." << endl;
      }
    } else if (isNamed(a, "LogicalID")) {
      if (a.type != VX_INT32) continue;
      out.adapterLID = a.value.int32;
      hasLID = true;
    } else if (isNamed(a, "NetworkID")) {
      if (a.type != VX_UINT32) continue;
      out.adapterNetworkID = a.value.uint32;
      hasNetId = true;
    } else if (isNamed(a, "NetworkID64")) {
      if (a.type != VX_UINT64) continue;
      out.networkId64 = a.value.uint64;
    } else if (isNamed(a, "PortID")) {
      if (a.type != VX_UINT32) continue;
      out.spigot_id = static_cast<uint8_t>(a.value.uint32 & 0xff);
    } else if (isNamed(a, "HardwareAddress")) {
      if (!hasText(a)) continue;
      copyText(out.hardwareAddress, a.value.string, sizeof out.hardwareAddress);
    } else if (isNamed(a, "DevicePathName")) {
      if (!hasText(a)) continue;
      pathName = a.value.string;
    }
  }

  // The device path depends on the subtype and the device name, wherever
  // they stood among the attributes.
  if (pathName != nullptr) {
    if (out.adapterType == kKorIBDeviceSubType || pathName[0] == '\0') {
      copyText(out.devicePathName, out.deviceName, sizeof out.devicePathName);
    } else {
      copyText(out.devicePathName, pathName, sizeof out.devicePathName);
    }
  }

  // A switch interface's network is the stable index of its name.
  if (hasName && hasNode && hasIp && strncmp(out.ifrName, "sxn", 3) == 0) {
    out.adapterNetworkID = static_cast<vx_uint32_t>(_idxFromInterfaceName(out.ifrName));
  }

  if (!(switchName && hasDevice && hasNode && hasIp && hasLID && hasNetId) && TRACEABLE(TRACE_DEBUG)) {
    char ip[16];
    struct in_addr addr;
    addr.s_addr = out.ipaddr;
    if (inet_ntop(AF_INET, &addr, ip, sizeof ip) == nullptr) ip[0] = '\0';
    AM_TRACE(TRACE_DEBUG) << "Non-switch adapter: NetworkEvent device=" << out.deviceName << " intf=" << out.ifrName
                          << ", nodenum=" << out.nodeNumber << ", IpAddr=" << ip << ", LID=" << out.adapterLID
                          << ", NetId=" << out.adapterNetworkID << ", DeviceSubType=" << out.adapterType
                          << ", NetId64=" << static_cast<unsigned long long>(out.networkId64)
                          << ", PortId=" << static_cast<int>(out.spigot_id)
                          << ", hardwareAddress = " << out.hardwareAddress
                          << ", devicePathName = " << out.devicePathName << endl;
  }

  if (ml0Name && out.nodeNumber == static_cast<int>(myNodeNumber)) hasML0OnTheNode.store(true);
  // The record of an unknown node is still handed back; the propagator
  // checks the configuration again a little later.
  if (nodeUnresolved && AMController::propagator != nullptr)
    AMController::propagator->postSyncEvent(PEVT_HARVEST_DELAY_REQ_EVENT);
  return 0;
}

// --------------------------------------------------------------- monitor

AMCfgMonitor::AMCfgMonitor()
    : session_handle(0),
      regid_PN_ClsDefAttr(MC_REG_ID_NONE),
      regid_PN_ClsUndefAttr(MC_REG_ID_NONE),
      regid_NI_ClsDefAttr(MC_REG_ID_NONE),
      regid_NI_ClsUndefAttr(MC_REG_ID_NONE),
      regid_NI_ResAttr(MC_REG_ID_NONE),
      peernode_is_ready(0) {}

AMCfgMonitor::~AMCfgMonitor() = default;

int AMCfgMonitor::startKORSession() {
  if (session_handle != 0) return 0;
  mc_sess_hndl_t session = 0;
  int rc = mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &session);
  session_handle = session;
  if (rc != MC_OK) {
    finishKORSession();
    session_handle = 0;
  }
  return rc;
}

int AMCfgMonitor::finishKORSession() {
  if (session_handle == 0) return 0;
  int rc = mc_end_session(session_handle);
  AM_TRACE(TRACE_FYI) << " Finishing KOR Session" << endl;
  session_handle = 0;
  return rc;
}

int AMCfgMonitor::register_kor_class_event(std::atomic<mc_reg_id_t>& regid, mc_sess_hndl_t session,
                                           const char* rsrc_class,
                                           const char* event, const char** /*attrs*/, int /*nattrs*/,
                                           mc_class_event_cb_t* callback) {
  AMtracef(TRACE_FYI, "Registering %s ClassAttr(%s)\n", rsrc_class, event);
  if (session == 0) return -1;
  mc_reg_rsp_t* rsp = nullptr;
  int rc = mc_reg_class_event_bp(session, &rsp, rsrc_class, event, callback, this);
  uint32_t errnum = MC_OK;
  if (rc != MC_OK) {
    AMtracef(TRACE_FYI, "Registering %s (%s) error=%s\n", rsrc_class, event, korErrorText().c_str());
  } else if (rsp == nullptr) {
    rc = -1;
  } else {
    regid = rsp->reg_id;
    errnum = rsp->mc_errnum;
    if (errnum != MC_OK) {
      AMtracef(TRACE_FYI, "Registering %s (%s) errnum=%d\n", rsrc_class, event, static_cast<int>(errnum));
      rc = static_cast<int>(errnum);
    } else if (regid == MC_REG_ID_NONE) {
      rc = -1;  // accepted, yet nothing to receive events by
    }
  }
  mc_free_response(rsp);
  if (rc != MC_OK && regid != MC_REG_ID_NONE) {
    mc_reg_rsp_t* undone = nullptr;
    mc_unreg_event_bp(session, &undone, regid);
    mc_free_response(undone);
    regid = MC_REG_ID_NONE;
  }
  if (errnum != MC_OK) {
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", errnum);
    AMtracef(TRACE_FYI, "Registering %s(%s) rc=%d, errnum=%s, regid=%d\n", rsrc_class, event, rc, hex,
             static_cast<int>(regid));
  } else {
    AMtracef(TRACE_FYI, "Registering %s(%s) rc=%d, regid=%d\n", rsrc_class, event, rc, static_cast<int>(regid));
  }
  return rc;
}

int AMCfgMonitor::unregister_kor_event(std::atomic<mc_reg_id_t>& regid, mc_sess_hndl_t session, const char* rsrc_class,
                                       const char* event) {
  AMtracef(TRACE_FYI, "Finishing %s(%s) registration\n", rsrc_class, event);
  int rc = 0;
  if (regid != MC_REG_ID_NONE && session != 0) {
    mc_reg_rsp_t* rsp = nullptr;
    rc = mc_unreg_event_bp(session, &rsp, regid);
    mc_free_response(rsp);
  }
  regid = MC_REG_ID_NONE;
  return rc;
}

int AMCfgMonitor::registerPNNIEvents() {
  if (session_handle == 0) return -1;
  unregisterPNNIEvents();
  int rc = register_kor_class_event(regid_PN_ClsDefAttr, session_handle, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED,
                                    nullptr, 0, &AMCfgMonitor::PNClsEventCB);
  if (rc != 0) return rc;
  rc = register_kor_class_event(regid_PN_ClsUndefAttr, session_handle, KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED,
                                nullptr, 0, &AMCfgMonitor::PNClsEventCB);
  if (rc != 0) return rc;
  rc = register_kor_class_event(regid_NI_ClsDefAttr, session_handle, KOR_CLASS_NETWORK_INTERFACE,
                                KOR_EVENT_DEFINED, nullptr, 0, &AMCfgMonitor::NIClsEventCB);
  if (rc != 0) return rc;
  rc = register_kor_class_event(regid_NI_ClsUndefAttr, session_handle, KOR_CLASS_NETWORK_INTERFACE,
                                KOR_EVENT_UNDEFINED, nullptr, 0, &AMCfgMonitor::NIClsEventCB);
  if (rc != 0) return rc;
  if (regid_NI_ResAttr == MC_REG_ID_NONE) return registerNIResourceEvent();
  return 0;
}

int AMCfgMonitor::registerNIResourceEvent() {
  AM_TRACE(TRACE_FYI) << "Registering Zel.NetworkInterface for DynAttrs" << endl;
  mc_reg_rsp_t* rsp = nullptr;
  // KOR only reads the names.
  int rc = mc_reg_event_bp(session_handle, &rsp, 0, KOR_CLASS_NETWORK_INTERFACE, nullptr,
                           const_cast<const char**>(NI_RetResAttrs), kNINumRetResAttrs, KOR_CONDITION_CONFIG_CHANGED,
                           &AMCfgMonitor::NIResEventCB, this);
  uint32_t errnum = MC_OK;
  if (rc != MC_OK) {
    AMtracef(TRACE_FYI, "Regsitering NI/DynAttrs errors=%s\n", korErrorText().c_str());
  } else if (rsp == nullptr) {
    rc = -1;
  } else {
    regid_NI_ResAttr = rsp->reg_id;
    errnum = rsp->mc_errnum;
    if (errnum != MC_OK) {
      AMtracef(TRACE_FYI, "Regsitering NI/DynAttrs mc_errnum=0x%x\n", errnum);
      rc = static_cast<int>(errnum);
    } else if (regid_NI_ResAttr == MC_REG_ID_NONE) {
      rc = -1;
    }
  }
  mc_free_response(rsp);
  if (rc != MC_OK && regid_NI_ResAttr != MC_REG_ID_NONE) {
    mc_reg_rsp_t* undone = nullptr;
    mc_unreg_event_bp(session_handle, &undone, regid_NI_ResAttr);
    mc_free_response(undone);
    regid_NI_ResAttr = MC_REG_ID_NONE;
  }
  AM_TRACE(TRACE_FYI) << "Zel.NetworkInterface/Resource rc=" << rc << ", errnum=" << errnum
                      << ", regid=" << static_cast<int>(regid_NI_ResAttr)
                      << (regid_NI_ResAttr != MC_REG_ID_NONE ? " registered" : " not registered") << endl;
  return rc;
}

int AMCfgMonitor::unregisterPNNIEvents() {
  unregister_kor_event(regid_PN_ClsDefAttr, session_handle, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED);
  unregister_kor_event(regid_PN_ClsUndefAttr, session_handle, KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED);
  unregister_kor_event(regid_NI_ClsDefAttr, session_handle, KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED);
  unregister_kor_event(regid_NI_ClsUndefAttr, session_handle, KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_UNDEFINED);
  unregister_kor_event(regid_NI_ResAttr, session_handle, KOR_CLASS_NETWORK_INTERFACE, KOR_CONDITION_CONFIG_CHANGED);
  return 0;
}

bool AMCfgMonitor::isRegisteredToAll() const {
  return regid_PN_ClsDefAttr != MC_REG_ID_NONE && regid_PN_ClsUndefAttr != MC_REG_ID_NONE &&
         regid_NI_ClsDefAttr != MC_REG_ID_NONE && regid_NI_ClsUndefAttr != MC_REG_ID_NONE &&
         regid_NI_ResAttr != MC_REG_ID_NONE;
}

// ------------------------------------------------------------- callbacks

void AMCfgMonitor::PNClsEventCB(mc_sess_hndl_t, const mc_class_event_t* event, void* arg) {
  if (arg != nullptr && event != nullptr) static_cast<AMCfgMonitor*>(arg)->PNClsEventCB(event);
}

void AMCfgMonitor::NIClsEventCB(mc_sess_hndl_t, const mc_class_event_t* event, void* arg) {
  if (arg != nullptr && event != nullptr) static_cast<AMCfgMonitor*>(arg)->NIClsEventCB(event);
}

void AMCfgMonitor::NIResEventCB(mc_sess_hndl_t, const mc_event_t* event, void* arg) {
  if (arg != nullptr && event != nullptr) static_cast<AMCfgMonitor*>(arg)->NIResEventCB(event);
}

// A node came or went: the propagator re-harvests once the burst is over.
void AMCfgMonitor::PNClsEventCB(const mc_class_event_t* event) {
  if (event->mc_errnum != MC_OK) return;
  AMtracef(TRACE_FYI, "PNClsEventCallback\n");
  if (AMController::propagator != nullptr) AMController::propagator->postPeerNodeEventReady();
}

void AMCfgMonitor::NIClsEventCB(const mc_class_event_t* event) {
  if (event->mc_errnum != MC_OK) return;
  AMtracef(TRACE_FYI, "NIClsEventCallback\n");
  if (AMController::propagator != nullptr) AMController::propagator->postNetInterfaceEventReady();
}

// An interface's attributes changed, or it was taken away.
void AMCfgMonitor::NIResEventCB(const mc_event_t* event) {
  if (event->mc_errnum != MC_OK) return;
  AMNetInterface item;
  if (parseNetInterfaceAttrs(event->attrs, event->attr_count, item) != 0) return;
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (table != nullptr) {
    if ((event->mc_event_flags & (MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF)) == 0) {
      table->setAdapterDefinedWithLock(item);
    } else {
      GSWriteGuard hold(*table);
      table->setAdapterUndefinedWithoutLock(item.nodeNumber, item.ifrName);
    }
  }
  if (AMController::propagator != nullptr) AMController::propagator->postNetInterfaceEventReady();
}

// -------------------------------------------------------------- harvests

int AMCfgMonitor::harvestGblPeerNodes(int tracing) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  return table != nullptr ? table->harvestGblPeerNodes(tracing) : -1;
}

int AMCfgMonitor::harvestGblNetworkInterfaces(int tracing) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  return table != nullptr ? table->harvestGblNetworkInterfaces(tracing) : -1;
}

// ------------------------------------------------------------ the thread

int AMCfgMonitor::nextSessionRetrySecs() {
  struct timespec now = {0, 0};
  cu_get_monotonic_time(&now);
  const long nowSecs = static_cast<long>(now.tv_sec);
  if (retryCount_ > 0) {
    retryPeriodLeftSecs_ -= nowSecs - lastRetryAtSecs_;
    // The period is over: this failure is the first of a new one.
    if (retryPeriodLeftSecs_ <= 0) retryCount_ = 0;
  }
  lastRetryAtSecs_ = nowSecs;
  if (retryCount_ == 0) {
    retryPeriodLeftSecs_ = kRetryPeriodSecs;
    retrySecs_ = kRetrySecs;
  } else if (retryCount_ > kRetriesBeforeGrowing) {
    retrySecs_ += kRetrySecs;
  }
  ++retryCount_;
  return retrySecs_;
}

void AMCfgMonitor::resetSessionRetryPeriod() {
  retryCount_ = 0;
  retryPeriodLeftSecs_ = kRetryPeriodSecs;
  retrySecs_ = kRetrySecs;
}

bool AMCfgMonitor::isGroupLeader() const {
  AMPropagator* propagator = AMController::propagator;
  return propagator != nullptr && propagator->isGL();
}

void* AMCfgMonitor::run(void*) {
  TraceClient client(TraceStream::traceMarket, 0);
  block_thread_allsig_except_syncsig();
  // The initial harvests need nobody to wake us: the first pass runs at
  // once.
  postSyncEvent(0);
  int wait = -1;
  while (!exiting()) {
    waitSecs_.store(wait);
    int event = 0;
    int rc = waitSyncEvent(&event, wait);
    if (rc == -1) return nullptr;  // the thread was asked to stop
    wait = -1;
    waitSecs_.store(wait);
    if (exiting()) break;
    passes_.fetch_add(1);
    wait = onePass();
  }

  AM_TRACE(TRACE_FYI) << " - Prepare to exit" << endl;
  // The exit in progress is expected to end the process meanwhile; only a
  // stop of this thread ends the wait early.
  struct timespec start = {0, 0};
  cu_get_monotonic_time(&start);
  for (;;) {
    struct timespec now = {0, 0};
    cu_get_monotonic_time(&now);
    long long leftMs = kExitGraceSecs * 1000LL -
                       ((now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000);
    if (leftMs <= 0) break;
    int ignored;
    if (waitSyncEvent(&ignored, static_cast<int>(leftMs / 1000), static_cast<int>(leftMs % 1000) * 1000) == -1)
      return nullptr;
  }
  ExitTheProcess(8, "AMCfgMonitor can not stop");
}

int AMCfgMonitor::onePass() {
  if (AMController::domainType != kCLUSTER) return -1;

  if (!peernode_is_ready.load()) {
    AMtracef(TRACE_FYI, "Initial harvest of PeerNodes\n");
    if (harvestGblPeerNodes(1) < 0) return kRetrySecs;
    peernode_is_ready.store(1);
  }
  if (!peerNodesRecheckDone_) {
    AMtracef(TRACE_FYI, "Initial harvest of harvestGblPeerNodes \n");
    int changes = harvestGblPeerNodes(1);
    if (changes < 0) return kRetrySecs;
    AMtracef(TRACE_FYI, "There may be some changes: NodeChanges=%d\n", changes);
    peerNodesRecheckDone_ = true;
  }
  if (!interfacesHarvestDone_) {
    AMtracef(TRACE_FYI, "Initial harvest of NetworkInterfaces\n");
    int changes = harvestGblNetworkInterfaces(1);
    if (changes < 0) return kRetrySecs;
    AMtracef(TRACE_FYI, "There may be some changes: NetChanges =%d\n", changes);
    AMController* ctl = amController();
    if (ctl != nullptr) ctl->wakeupAllMediators(gkTRUE);
    interfacesHarvestDone_ = true;
  }

  if (!isGroupLeader()) {
    AMtracef(AM_TRACEF_DEBUG, "I'm not a GL, ..Sleep again\n");
    return -1;
  }

  if (session_handle == 0) {
    AM_TRACE(TRACE_FYI) << " Starting KOR Session" << endl;
    int rc = startKORSession();
    if (rc != MC_OK) {
      const std::string why = korErrorText();
      const int secs = nextSessionRetrySecs();
      AM_TRACE(TRACE_FYI) << " startKORSession failed. rc=" << rc << ", Retry after " << secs << " secs"
                          << " (" << why.c_str() << ")" << endl;
      finishKORSession();
      return secs;
    }
    AM_TRACE(TRACE_FYI) << " Connected to KOR deamon" << endl;
  }

  if (!isRegisteredToAll()) {
    int rc = registerPNNIEvents();
    if (rc != 0) {
      AM_TRACE(TRACE_FYI) << " not able to register NI events, retry in " << kRetrySecs << " secs"
                          << "  rc=" << rc << endl;
      unregisterPNNIEvents();
      finishKORSession();
      return kRetrySecs;
    }
    AM_TRACE(TRACE_FYI) << " Now registered to NetworkInterface for event handle with KOR deamon" << endl;
  }

  AM_TRACE(TRACE_DEBUG) << "mc_dispatch" << endl;
  int rc = mc_dispatch(session_handle, MC_DISPATCH_OPTS_WAIT);
  if (rc == MC_OK) {
    resetSessionRetryPeriod();
    return 0;
  }
  AM_TRACE(TRACE_FYI) << "returned from mc_dispatch with korapi.rc=" << rc << endl;
  // Start over with a new session on the next pass.
  unregisterPNNIEvents();
  finishKORSession();
  return 0;
}
