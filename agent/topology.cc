#include "topology.h"

#include <fnmatch.h>
#include <net/if.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "utf8_text.h"

namespace velt {
namespace agent {

namespace {

// An interface's addresses that are kept; an interface with more is not
// what an adapter looks like, and the rest are ignored.
constexpr size_t kMaxAddressesPerInterface = 64;

bool sameImage(const proto::AdapterImage& a, const proto::AdapterImage& b) {
  return a.SerializeAsString() == b.SerializeAsString();
}

bool isUpAndRunning(unsigned flags) {
  return (flags & (IFF_UP | IFF_RUNNING)) == (IFF_UP | IFF_RUNNING);
}

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

}  // namespace

// ------------------------------------------------------------ InterfaceFilter

bool InterfaceFilter::parse(const std::string& text, InterfaceFilter* out, std::string* error) {
  InterfaceFilter f;
  if (text.empty()) {
    *out = f;
    return true;
  }
  if (text == "none") {
    f.all_ = false;
    *out = f;
    return true;
  }
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    std::string entry = text.substr(start, comma - start);
    if (entry.empty()) {
      *error = "an empty entry in the interface list \"" + text + "\"";
      return false;
    }
    if (entry.size() > kMaxEntryBytes) {
      *error = "the interface entry \"" + entry.substr(0, kMaxEntryBytes) + "...\" has more than " +
               std::to_string(kMaxEntryBytes) + " characters";
      return false;
    }
    for (char c : entry) {
      if (c <= ' ' || c > '~' || c == '/') {
        *error = "the interface entry \"" + entry +
                 "\" has a character no interface name has (space, control, '/' or non-ASCII)";
        return false;
      }
    }
    if (f.patterns_.size() >= kMaxEntries) {
      *error = "the interface list has more than " + std::to_string(kMaxEntries) + " entries";
      return false;
    }
    f.patterns_.push_back(entry);
    start = comma + 1;
  }
  f.all_ = false;
  *out = std::move(f);
  return true;
}

bool InterfaceFilter::matches(const std::string& name) const {
  // The kernel takes any bytes in a name, but an adapter's name travels in
  // a string field that no agent could read if it were not UTF-8: such an
  // interface is never an adapter.
  if (!wire::isValidUtf8(name)) return false;
  if (all_) return true;
  for (const std::string& p : patterns_) {
    if (fnmatch(p.c_str(), name.c_str(), 0) == 0) return true;
  }
  return false;
}

std::string InterfaceFilter::describe() const {
  if (all_) return "every interface";
  if (patterns_.empty()) return "no interface";
  std::string out;
  for (const std::string& p : patterns_) out += (out.empty() ? "" : ",") + p;
  return out;
}

// ------------------------------------------------------------ the rule

std::string networkTypeOf(const std::string& interfaceName) {
  if (startsWith(interfaceName, "sxn")) return "switch";
  if (startsWith(interfaceName, "ib")) return "ib";
  return "ethernet";
}

bool isAdapterAlive(const AdapterFacts& f) {
  if (!f.up || !f.running) return false;
  if (!f.carriesLink || f.aloneInView) return true;
  return f.linkConnected;
}

// ------------------------------------------------------------ AdapterTracker

AdapterTracker::AdapterTracker(uint32_t node, InterfaceFilter filter, size_t maxInterfaces,
                               size_t maxAdapters)
    : node_(node),
      filter_(std::move(filter)),
      maxInterfaces_(maxInterfaces),
      maxAdapters_(maxAdapters) {}

void AdapterTracker::linkChanged(int ifindex, const std::string& name, unsigned flags) {
  auto it = interfaces_.find(ifindex);
  if (it == interfaces_.end()) {
    if (interfaces_.size() >= maxInterfaces_) {
      ++droppedInterfaces_;
      return;
    }
    it = interfaces_.emplace(ifindex, Interface()).first;
  } else if (!isUpAndRunning(it->second.flags) && isUpAndRunning(flags)) {
    it->second.awaitingLinkPoll = true;
  }
  it->second.name = name;
  it->second.flags = flags;
  it->second.seen = true;
  refresh();
}

void AdapterTracker::linkRemoved(int ifindex) {
  if (interfaces_.erase(ifindex) != 0) refresh();
}

void AdapterTracker::addressAdded(int ifindex, const std::string& address, bool secondary) {
  auto it = interfaces_.find(ifindex);
  // The kernel announces an interface before its addresses, and links are
  // dumped before addresses: an unknown interface is one we do not keep.
  if (it == interfaces_.end() || address.size() != 4) return;
  std::vector<Address>& list = it->second.addresses;
  auto a =
      std::find_if(list.begin(), list.end(), [&](const Address& x) { return x.ip == address; });
  if (a == list.end()) {
    if (list.size() >= kMaxAddressesPerInterface) return;
    list.push_back(Address{address, secondary, true});
    it->second.awaitingLinkPoll = true;
  } else {
    a->secondary = secondary;
    a->seen = true;
  }
  refresh();
}

void AdapterTracker::addressRemoved(int ifindex, const std::string& address) {
  auto it = interfaces_.find(ifindex);
  if (it == interfaces_.end()) return;
  std::vector<Address>& list = it->second.addresses;
  size_t before = list.size();
  list.erase(
      std::remove_if(list.begin(), list.end(), [&](const Address& x) { return x.ip == address; }),
      list.end());
  if (list.size() != before) refresh();
}

void AdapterTracker::beginLinkDump() {
  for (auto& e : interfaces_) e.second.seen = false;
}

void AdapterTracker::endLinkDump() {
  for (auto it = interfaces_.begin(); it != interfaces_.end();) {
    it = it->second.seen ? std::next(it) : interfaces_.erase(it);
  }
  refresh();
}

void AdapterTracker::beginAddressDump() {
  for (auto& e : interfaces_) {
    for (Address& a : e.second.addresses) a.seen = false;
  }
}

void AdapterTracker::endAddressDump() {
  for (auto& e : interfaces_) {
    std::vector<Address>& list = e.second.addresses;
    list.erase(std::remove_if(list.begin(), list.end(), [](const Address& a) { return !a.seen; }),
               list.end());
  }
  refresh();
}

void AdapterTracker::setNode(uint32_t node) {
  if (node == node_) return;
  node_ = node;
  refresh();
}

void AdapterTracker::setLinks(const std::vector<LinkState>& links) {
  links_ = links;
  for (auto& e : interfaces_) e.second.awaitingLinkPoll = false;
  refresh();
}

void AdapterTracker::setAlone(bool alone) {
  alone_ = alone;
  refresh();
}

bool AdapterTracker::indexFor(const std::string& name, const std::set<std::string>& present,
                              uint32_t* index) {
  auto it = indexByName_.find(name);
  if (it != indexByName_.end()) {
    *index = it->second;
    return true;
  }
  if (indexByName_.size() >= maxAdapters_) {
    // Every index is given: take one back from a name that is no adapter
    // now (an interface that went away for good).
    auto spare = std::find_if(indexByName_.begin(), indexByName_.end(),
                              [&](const std::pair<const std::string, uint32_t>& e) {
                                return present.count(e.first) == 0;
                              });
    if (spare == indexByName_.end()) return false;
    uint32_t freed = spare->second;
    indexByName_.erase(spare);
    indexByName_[name] = freed;
    *index = freed;
    return true;
  }
  std::set<uint32_t> used;
  for (const auto& e : indexByName_) used.insert(e.second);
  uint32_t next = 0;
  while (used.count(next) != 0) ++next;
  indexByName_[name] = next;
  *index = next;
  return true;
}

void AdapterTracker::refresh() {
  // An adapter is an interface we watch that has an IPv4 address; it is
  // known by its primary address (the first that is not secondary).
  struct Candidate {
    const Interface* itf;
    const Address* primary;
  };
  std::vector<Candidate> candidates;
  std::set<std::string> present;
  for (const auto& e : interfaces_) {
    const Interface& itf = e.second;
    if ((itf.flags & IFF_LOOPBACK) != 0 || itf.addresses.empty() || !filter_.matches(itf.name)) {
      continue;
    }
    const Address* primary = &itf.addresses.front();
    for (const Address& a : itf.addresses) {
      if (!a.secondary) {
        primary = &a;
        break;
      }
    }
    candidates.push_back(Candidate{&itf, primary});
    present.insert(itf.name);
  }
  std::map<uint32_t, proto::AdapterImage> next;
  unindexed_.clear();
  for (const Candidate& c : candidates) {
    uint32_t index;
    if (!indexFor(c.itf->name, present, &index)) {
      unindexed_.insert(c.itf->name);
      continue;
    }
    AdapterFacts facts;
    facts.up = (c.itf->flags & IFF_UP) != 0;
    facts.running = (c.itf->flags & IFF_RUNNING) != 0;
    facts.aloneInView = alone_;
    for (const LinkState& l : links_) {
      if (l.localAddress != c.primary->ip) continue;
      facts.carriesLink = true;
      facts.linkConnected = facts.linkConnected || l.connected;
    }
    if (c.itf->awaitingLinkPoll) facts.linkConnected = false;
    proto::AdapterImage img;
    proto::AdapterInfo* info = img.mutable_adapter();
    info->set_ip(c.primary->ip);
    info->set_interface_name(c.itf->name);
    info->set_node(node_);
    info->set_network_name(c.itf->name);
    info->set_network_type(networkTypeOf(c.itf->name));
    info->set_instance(index);
    img.set_alive(isAdapterAlive(facts));
    next[index] = std::move(img);
  }
  bool same = next.size() == adapters_.size() &&
              std::equal(next.begin(), next.end(), adapters_.begin(),
                         [](const std::pair<const uint32_t, proto::AdapterImage>& a,
                            const std::pair<const uint32_t, proto::AdapterImage>& b) {
                           return a.first == b.first && sameImage(a.second, b.second);
                         });
  if (!same) {
    adapters_ = std::move(next);
    changed_ = true;
  }
}

std::vector<proto::AdapterUpdate> AdapterTracker::updatesFrom(
    const std::map<uint32_t, proto::AdapterImage>& known) const {
  std::vector<proto::AdapterUpdate> out;
  for (const auto& e : known) {
    if (adapters_.count(e.first) != 0) continue;
    proto::AdapterUpdate u;
    *u.mutable_adapter() = e.second.adapter();
    u.set_removed(true);
    out.push_back(std::move(u));
  }
  for (const auto& e : adapters_) {
    auto k = known.find(e.first);
    if (k != known.end() && sameImage(k->second, e.second)) continue;
    proto::AdapterUpdate u;
    *u.mutable_adapter() = e.second.adapter();
    u.set_alive(e.second.alive());
    out.push_back(std::move(u));
  }
  return out;
}

bool AdapterTracker::takeChanged() {
  bool c = changed_;
  changed_ = false;
  return c;
}

}  // namespace agent
}  // namespace velt
