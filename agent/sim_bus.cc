#include "sim_bus.h"

#include <errno.h>

#include <algorithm>
#include <utility>

namespace velt {
namespace agent {

namespace {

bool has(const std::vector<uint32_t>& v, uint32_t x) {
  return std::find(v.begin(), v.end(), x) != v.end();
}

std::vector<uint32_t> minus(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
  std::vector<uint32_t> out;
  for (uint32_t x : a) {
    if (!has(b, x)) out.push_back(x);
  }
  return out;
}

}  // namespace

int SimBus::join() { return cluster_->join(node_); }

int SimBus::multicast(const std::string& bytes) { return cluster_->multicast(node_, bytes); }

int SimBus::dispatch() {
  while (cluster_->deliverOne(node_)) {
  }
  return 0;
}

SimCluster::SimCluster(const std::vector<uint32_t>& nodes, uint64_t seed)
    : nodes_(nodes), rng_(seed) {
  std::sort(nodes_.begin(), nodes_.end());
  nodes_.erase(std::unique(nodes_.begin(), nodes_.end()), nodes_.end());
  for (uint32_t n : nodes_) members_[n].bus = std::make_unique<SimBus>(this, n);
}

SimCluster::~SimCluster() = default;

SimCluster::Member& SimCluster::member(uint32_t node) { return members_.at(node); }

const SimCluster::Member& SimCluster::member(uint32_t node) const { return members_.at(node); }

SimBus* SimCluster::bus(uint32_t node) { return member(node).bus.get(); }

int SimCluster::join(uint32_t node) {
  Member& m = member(node);
  if (m.crashed) return ENOTCONN;
  if (m.joined) return EALREADY;
  m.joined = true;
  reconfigure();
  return 0;
}

int SimCluster::multicast(uint32_t node, const std::string& bytes) {
  if (failMulticastsForTesting != 0) return failMulticastsForTesting;
  Member& m = member(node);
  if (!m.joined || m.crashed || m.installed == 0) return ENOTCONN;
  ViewLog& v = views_.at(m.installed);
  size_t index = v.log.size();
  v.log.push_back(Message{node, bytes});
  for (uint32_t n : v.members) {
    Member& to = member(n);
    if (to.crashed || to.installed != v.id) continue;
    Event e;
    e.viewId = v.id;
    e.index = index;
    e.from = node;
    e.bytes = bytes;
    to.inbox.push_back(std::move(e));
  }
  return 0;
}

void SimCluster::reconfigure() {
  std::map<int, std::vector<uint32_t>> sides;
  for (uint32_t n : nodes_) {
    const Member& m = member(n);
    if (m.joined && !m.crashed) sides[m.side].push_back(n);
  }
  for (auto& entry : sides) {
    const std::vector<uint32_t>& group = entry.second;
    uint64_t first = member(group.front()).installed;
    bool unchanged = first != 0 && views_.at(first).members == group;
    for (uint32_t n : group) unchanged = unchanged && member(n).installed == first;
    if (unchanged) continue;

    // Close each old view for the part of it that moves here: they deliver
    // what any of them delivered already, every message of their own
    // senders, and of the others' messages whatever the dice say.
    std::map<uint64_t, std::vector<uint32_t>> cohorts;
    for (uint32_t n : group) cohorts[member(n).installed].push_back(n);
    for (const auto& c : cohorts) {
      if (c.first == 0) continue;  // fresh joiners carry nothing
      ViewLog& old = views_.at(c.first);
      const std::vector<uint32_t>& moving = c.second;
      size_t forced = 0;
      for (uint32_t n : moving) forced = std::max(forced, old.delivered[n]);
      std::vector<bool> keep(old.log.size());
      for (size_t i = 0; i < old.log.size(); ++i) {
        keep[i] = i < forced || has(moving, old.log[i].from) || (rng_() & 1) != 0;
      }
      for (uint32_t n : moving) {
        std::deque<Event>& inbox = member(n).inbox;
        inbox.erase(std::remove_if(inbox.begin(), inbox.end(),
                                   [&](const Event& e) {
                                     return !e.isView && e.viewId == old.id && !keep[e.index];
                                   }),
                    inbox.end());
      }
    }

    ViewLog next;
    next.id = nextViewId_++;
    next.members = group;
    for (uint32_t n : group) {
      Member& m = member(n);
      Event e;
      e.isView = true;
      e.view.id = next.id;
      e.view.members = group;
      e.view.left = minus(m.lastMembers, group);
      e.view.joined = minus(group, m.lastMembers);
      m.inbox.push_back(std::move(e));
      m.installed = next.id;
      m.lastMembers = group;
      next.delivered[n] = 0;
    }
    views_[next.id] = std::move(next);
  }
}

bool SimCluster::deliverOne(uint32_t node) {
  Member& m = member(node);
  if (m.crashed || m.inbox.empty()) return false;
  Event e = std::move(m.inbox.front());
  m.inbox.pop_front();
  if (!e.isView) views_.at(e.viewId).delivered[node] = e.index + 1;
  if (beforeDeliverForTesting) beforeDeliverForTesting(node, e);
  BusHandler* h = m.bus->handler();
  if (h != nullptr) {
    if (e.isView) {
      h->onView(e.view);
    } else {
      h->onMessage(e.from, e.bytes);
    }
  }
  return true;
}

bool SimCluster::deliverRandom() {
  std::vector<uint32_t> ready;
  for (uint32_t n : nodes_) {
    const Member& m = member(n);
    if (!m.crashed && !m.inbox.empty()) ready.push_back(n);
  }
  if (ready.empty()) return false;
  return deliverOne(ready[rng_() % ready.size()]);
}

size_t SimCluster::deliverAll(size_t limit) {
  size_t n = 0;
  while (n < limit && deliverRandom()) ++n;
  return n;
}

size_t SimCluster::pending(uint32_t node) const { return member(node).inbox.size(); }

bool SimCluster::quiet() const {
  for (const auto& e : members_) {
    if (!e.second.crashed && !e.second.inbox.empty()) return false;
  }
  return true;
}

void SimCluster::crash(uint32_t node) {
  Member& m = member(node);
  if (m.crashed) return;
  m.crashed = true;
  m.inbox.clear();
  m.installed = 0;
  m.lastMembers.clear();
  reconfigure();
}

void SimCluster::revive(uint32_t node) {
  Member& m = member(node);
  if (!m.crashed) return;
  m.crashed = false;
  m.joined = false;
  m.installed = 0;
  m.lastMembers.clear();
  m.inbox.clear();
  m.bus->setHandler(nullptr);
}

void SimCluster::partition(const std::vector<std::vector<uint32_t>>& sides) {
  for (uint32_t n : nodes_) member(n).side = 0;
  int label = 1;
  for (const std::vector<uint32_t>& side : sides) {
    for (uint32_t n : side) {
      if (members_.count(n) != 0) member(n).side = label;
    }
    ++label;
  }
  reconfigure();
}

void SimCluster::heal() {
  for (uint32_t n : nodes_) member(n).side = 0;
  reconfigure();
}

bool SimCluster::alive(uint32_t node) const {
  const Member& m = member(node);
  return m.joined && !m.crashed;
}

std::vector<uint32_t> SimCluster::installedView(uint32_t node) const {
  const Member& m = member(node);
  if (m.installed == 0) return {};
  return views_.at(m.installed).members;
}

uint64_t SimCluster::installedViewId(uint32_t node) const { return member(node).installed; }

std::vector<std::vector<uint32_t>> SimCluster::views() const {
  std::map<uint64_t, std::vector<uint32_t>> byView;
  for (uint32_t n : nodes_) {
    const Member& m = member(n);
    if (m.joined && !m.crashed && m.installed != 0) byView[m.installed].push_back(n);
  }
  std::vector<std::vector<uint32_t>> out;
  for (auto& e : byView) out.push_back(std::move(e.second));
  return out;
}

}  // namespace agent
}  // namespace velt
