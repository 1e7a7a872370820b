#include "health.h"

#include <stdlib.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace velt {
namespace tools {
namespace {

// "node/N" or "node/N/NAME": the node and the name ("" for a node's own
// handle); false for anything else.
bool parseHandle(const std::string& handle, uint32_t* node, std::string* name) {
  if (handle.compare(0, 5, "node/") != 0) return false;
  const char* digits = handle.c_str() + 5;
  char* end = nullptr;
  unsigned long n = strtoul(digits, &end, 10);
  if (end == digits || n == 0 || n > 0xffffffffUL) return false;
  *node = static_cast<uint32_t>(n);
  if (*end == '\0') {
    name->clear();
    return true;
  }
  if (*end != '/' || end[1] == '\0') return false;
  *name = end + 1;
  return true;
}

std::string attributeText(const proto::KorResource& r, const char* attribute) {
  for (const proto::KorAttribute& a : r.attributes()) {
    if (a.name() == attribute) return a.value().text();
  }
  return "";
}

}  // namespace

HealthReport assessHealth(const proto::QueryAnswer& status, const proto::GroupSummary& raw,
                          const std::vector<proto::KorResource>& peers,
                          const std::vector<proto::KorResource>& interfaces, const std::vector<KnetLink>* links,
                          const std::string& linksWhy, const std::vector<PeerLink>& peerLinks) {
  HealthReport h;
  h.self = status.node();
  std::set<uint32_t> view(status.view().begin(), status.view().end());
  h.view.assign(view.begin(), view.end());

  std::set<uint32_t> nodelist;
  for (const proto::KorResource& r : peers) {
    uint32_t node = 0;
    std::string name;
    if (parseHandle(r.handle(), &node, &name) && name.empty()) nodelist.insert(node);
  }
  // A standalone agent (no corosync) publishes no nodelist: it is its own.
  if (nodelist.empty()) nodelist.insert(h.self);
  h.nodelist.assign(nodelist.begin(), nodelist.end());
  for (uint32_t n : h.nodelist) {
    if (view.count(n) == 0) h.problems.push_back("node " + std::to_string(n) + " is not in the view");
  }

  // The adapters alive: the raw group's members, by node and interface.
  std::set<std::pair<uint32_t, std::string>> alive;
  for (const proto::AdapterInfo& a : raw.adapters()) alive.emplace(a.node(), a.interface_name());
  for (const proto::KorResource& r : interfaces) {
    AdapterHealth a;
    if (!parseHandle(r.handle(), &a.node, &a.interface) || a.interface.empty()) continue;
    a.address = attributeText(r, "IPAddress");
    a.up = alive.count({a.node, a.interface}) != 0;
    a.nodeInView = view.count(a.node) != 0;
    h.adapters.push_back(std::move(a));
  }
  std::sort(h.adapters.begin(), h.adapters.end(), [](const AdapterHealth& x, const AdapterHealth& y) {
    return x.node != y.node ? x.node < y.node : x.interface < y.interface;
  });
  for (const AdapterHealth& a : h.adapters) {
    // A node outside the view is one problem, said above, not one per
    // adapter.
    if (a.up || !a.nodeInView) continue;
    std::string where = a.address.empty() ? "" : " (" + a.address + ")";
    h.problems.push_back("node " + std::to_string(a.node) + " adapter " + a.interface + where + " is DOWN");
  }

  // This node's interface of each local address names a link's network.
  std::map<std::string, std::string> networkOfAddress;
  for (const AdapterHealth& a : h.adapters) {
    if (a.node == h.self && !a.address.empty()) networkOfAddress[a.address] = a.interface;
  }
  h.peerLinks = peerLinks;
  for (PeerLink& l : h.peerLinks) {
    auto it = networkOfAddress.find(l.address);
    l.network = it != networkOfAddress.end() ? it->second : "";
  }
  std::sort(h.peerLinks.begin(), h.peerLinks.end(), [](const PeerLink& x, const PeerLink& y) {
    return x.peer != y.peer ? x.peer < y.peer : x.link < y.link;
  });
  for (const PeerLink& l : h.peerLinks) {
    if (l.connected || view.count(l.peer) == 0) continue;
    std::string what = l.network.empty() ? l.address : l.network + (l.address.empty() ? "" : ", " + l.address);
    h.problems.push_back("knet link " + std::to_string(l.link) + (what.empty() ? "" : " (" + what + ")") +
                         " to node " + std::to_string(l.peer) + " is DOWN");
  }

  h.linksKnown = links != nullptr;
  h.linksWhy = linksWhy;
  if (links != nullptr) {
    h.links = *links;
    std::sort(h.links.begin(), h.links.end(), [](const KnetLink& x, const KnetLink& y) { return x.link < y.link; });
    // A node alone has no link to reach anybody with.
    if (h.view.size() > 1) {
      for (const KnetLink& l : h.links) {
        if (l.connected) continue;
        std::string where = l.address.empty() ? "" : " (" + l.address + ")";
        h.problems.push_back("knet link " + std::to_string(l.link) + where + " of this node reaches no other node");
      }
    }
  }
  return h;
}

}  // namespace tools
}  // namespace velt
