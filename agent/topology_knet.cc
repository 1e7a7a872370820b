#include "topology_knet.h"

#include <arpa/inet.h>
#include <corosync/cfg.h>
#include <corosync/cmap.h>
#include <corosync/corotypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace velt {
namespace agent {

namespace {

static_assert(KnetLinkMonitor::kMaxLinks == CFG_MAX_LINKS, "corosync's link count changed");

// Nodelist entries looked at for this node's own (corosync numbers them
// from 0 without gaps).
constexpr uint32_t kMaxNodelistEntries = 65536;

// A numeric IPv4 address as 4 bytes; empty for anything else (a host name,
// an IPv6 address, text without its terminator).
std::string ipv4Of(const char* text, size_t max) {
  if (strnlen(text, max) >= max) return "";
  struct in_addr a;
  if (inet_pton(AF_INET, text, &a) != 1) return "";
  return std::string(reinterpret_cast<const char*>(&a), 4);
}

std::string csText(cs_error_t rc) {
  return "corosync error " + std::to_string(static_cast<int>(rc));
}

bool everyLinkReaches(const std::vector<AdapterTracker::LinkState>& links) {
  for (const AdapterTracker::LinkState& l : links) {
    if (!l.connected) return false;
  }
  return true;
}

}  // namespace

std::vector<AdapterTracker::LinkState> combineLinkStatus(
    const std::array<std::string, kMaxKnetLinks>& nodelist, const std::vector<PeerLinks>& peers) {
  std::vector<AdapterTracker::LinkState> out;
  for (uint32_t link = 0; link < kMaxKnetLinks; ++link) {
    AdapterTracker::LinkState l;
    l.link = link;
    l.localAddress = nodelist[link];
    for (const PeerLinks& p : peers) {
      const PeerLinkStatus& s = p[link];
      if (!s.enabled) continue;
      if (l.localAddress.empty()) l.localAddress = s.localAddress;
      l.connected = l.connected || s.connected;
    }
    if (!l.localAddress.empty()) out.push_back(std::move(l));
  }
  return out;
}

KnetLinkMonitor::~KnetLinkMonitor() { disconnect(); }

void KnetLinkMonitor::disconnect() {
  if (!connected_) return;
  corosync_cfg_finalize(cfg_);
  cmap_finalize(cmap_);
  connected_ = false;
}

int KnetLinkMonitor::connect(uint32_t self, std::string* why) {
  corosync_cfg_handle_t cfg;
  cs_error_t rc = corosync_cfg_initialize(&cfg, nullptr);
  if (rc != CS_OK) {
    *why = "cannot reach corosync's cfg service: " + csText(rc);
    return -1;
  }
  cmap_handle_t cmap;
  rc = cmap_initialize(&cmap);
  if (rc != CS_OK) {
    corosync_cfg_finalize(cfg);
    *why = "cannot reach corosync's cmap service: " + csText(rc);
    return -1;
  }
  cfg_ = cfg;
  cmap_ = cmap;
  connected_ = true;
  readNodelist(self);
  return 0;
}

void KnetLinkMonitor::readNodelist(uint32_t self) {
  for (std::string& a : ringAddress_) a.clear();
  char key[CMAP_KEYNAME_MAXLEN];
  for (uint32_t i = 0; i < kMaxNodelistEntries; ++i) {
    uint32_t nodeid = 0;
    snprintf(key, sizeof key, "nodelist.node.%u.nodeid", i);
    // knet needs a node id on every entry: the first entry without one is
    // past the last.
    if (cmap_get_uint32(cmap_, key, &nodeid) != CS_OK) return;
    if (nodeid != self) continue;
    for (uint32_t link = 0; link < kMaxLinks; ++link) {
      snprintf(key, sizeof key, "nodelist.node.%u.ring%u_addr", i, link);
      char* text = nullptr;
      if (cmap_get_string(cmap_, key, &text) != CS_OK || text == nullptr) continue;
      ringAddress_[link] = ipv4Of(text, CMAP_KEYNAME_MAXLEN);
      free(text);
    }
    return;
  }
}

int KnetLinkMonitor::peerLinks(uint32_t self, uint32_t peer, PeerLinks* out, std::string* why) {
  if (!connected_ && connect(self, why) != 0) return -1;
  struct corosync_cfg_node_status_v1 status;
  memset(&status, 0, sizeof status);
  cs_error_t rc = corosync_cfg_node_status_get(cfg_, peer, CFG_NODE_STATUS_V1, &status);
  if (rc == CS_ERR_LIBRARY || rc == CS_ERR_BAD_HANDLE) {
    disconnect();
    *why = "lost corosync's cfg service: " + csText(rc);
    return -1;
  }
  if (rc != CS_OK) return 1;
  for (uint32_t link = 0; link < kMaxLinks; ++link) {
    const corosync_knet_link_status_v1& ls = status.link_status[link];
    (*out)[link].enabled = ls.enabled != 0;
    (*out)[link].connected = ls.connected != 0;
    (*out)[link].localAddress = ipv4Of(ls.src_ipaddr, sizeof ls.src_ipaddr);
  }
  return 0;
}

int KnetLinkMonitor::poll(uint32_t self, const std::vector<uint32_t>& others,
                          std::vector<AdapterTracker::LinkState>* out, std::string* why) {
  out->clear();
  if (!connected_ && connect(self, why) != 0) return -1;
  std::vector<PeerLinks> peers;
  for (uint32_t node : others) {
    if (node == self) continue;
    PeerLinks p;
    int rc = peerLinks(self, node, &p, why);
    if (rc < 0) return -1;
    // A node knet does not know (yet) reaches nothing.
    if (rc > 0) continue;
    peers.push_back(std::move(p));
    // Usually the first peer already shows every link connected: the rest
    // need not be asked.
    *out = combineLinkStatus(ringAddress_, peers);
    if (everyLinkReaches(*out)) return 0;
  }
  *out = combineLinkStatus(ringAddress_, peers);
  return 0;
}

}  // namespace agent
}  // namespace velt
