// Random histories: joins, leaves, goodbyes, value changes, messages, votes,
// time-outs, departed clients, adapter reports, node crashes and restarts,
// partitions and merges, all at random on 3 to 6 agents delivering at their
// own pace. After each history (and at quiet points within it):
//  * every member of every view holds an identical state (digest);
//  * the raw adapter group is never dissolved, and at the end every node's
//    adapters are exactly what that node's agent reported last;
//  * every request a live agent took got exactly one reply;
//  * every dissolution happened where the group had members on two sides of
//    a merge (evidence recorded at each view change, see Evidence);
//  * once votes and time-outs are allowed to finish, no protocol or request
//    is left waiting.
// Set VELT_HISTORY_SEED to replay one history; failures print their seed.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "agent_test_util.h"
#include "gs_types.h"
#include "sanitized.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

const char* const kGroups[] = {"alpha", "beta", "gamma"};
constexpr int kSlots = 2;  // client connections per agent
constexpr int kSteps = 250;

class History {
 public:
  explicit History(uint64_t seed) : rng_(seed) {
    size_t n = 3 + rng_() % 4;
    for (uint32_t i = 1; i <= n; ++i) ids_.push_back(i);
    cluster_ = std::make_unique<SimCluster>(ids_, seed * 31 + 7);
    cluster_->beforeDeliverForTesting = [this](uint32_t node, const SimCluster::Event& e) {
      if (e.isView) recordView(node, e.view);
    };
    for (uint32_t i : ids_) {
      uint32_t version = rng_() % 5 == 0 ? kOldVersion : kDefaultVersion;
      nodes_[i] = std::make_unique<TestNode>(cluster_.get(), i, version);
      gens_[i] = std::vector<int>(kSlots, 0);
      cohort_[i] = {i};
      syncsSeen_[i] = 0;
    }
  }

  void run();
  // Failures, one line each.
  std::vector<std::string> failures;
  // What the history went through, so that the test can tell it covered
  // something.
  struct Stats {
    size_t dissolutions = 0;
    size_t merges = 0;  // views joining members of two sides
    size_t replies = 0;
    size_t approvals = 0;
    size_t rejections = 0;
    size_t timeouts = 0;  // approvals and rejections after a time limit
    size_t failureLeaves = 0;
    size_t restartedSyncs = 0;  // view changes reaching a member before it synced
    size_t adapterReports = 0;
    size_t adaptersAtEnd = 0;   // live and dead adapters the healed cluster holds
  };
  Stats stats;

 private:
  struct Sub {
    uint32_t node;
    int life;
    uint64_t client;
    uint64_t id;
  };
  struct Vote {
    uint64_t protocol;
    uint32_t phase;
  };
  // What a member had when a view change reached it: the nodes it shared
  // its state with (its side), and each group's providers on that side.
  struct Evidence {
    std::set<uint32_t> side;
    std::map<std::string, size_t> membersOnSide;
    std::map<std::string, std::string> members;  // all of them, "i/n ..."
    std::map<std::string, bool> exists;          // whether it knew the group
  };

  uint32_t pick(const std::vector<uint32_t>& v) { return v[rng_() % v.size()]; }
  bool chance(int percent) { return static_cast<int>(rng_() % 100) < percent; }
  std::vector<uint32_t> live() const {
    std::vector<uint32_t> out;
    for (uint32_t n : ids_) {
      if (cluster_->alive(n)) out.push_back(n);
    }
    return out;
  }
  uint64_t clientOf(uint32_t node, int slot) const {
    return node * 1000 + static_cast<uint64_t>(slot) * 100 +
           static_cast<uint64_t>(gens_.at(node)[slot]);
  }

  void start(uint32_t node);
  void step();
  void request(uint32_t node, int slot, proto::Request r);
  void randomRequest();
  void adapterReport();
  void checkAdapters();
  void vote(bool everyone);
  void afterDelivery();
  void checkpoint(const char* where);
  void finish();
  void recordView(uint32_t node, const View& v);
  void collectNotes(uint32_t node);

  std::mt19937_64 rng_;
  std::vector<uint32_t> ids_;
  std::unique_ptr<SimCluster> cluster_;
  std::map<uint32_t, std::unique_ptr<TestNode>> nodes_;
  std::map<uint32_t, std::vector<int>> gens_;
  std::map<uint32_t, int> life_;
  std::set<uint32_t> crashed_;
  std::vector<Sub> subs_;
  // Votes each client owes: (client, group, instance) -> the phase.
  std::map<std::tuple<uint64_t, std::string, uint32_t>, Vote> owed_;
  std::map<uint32_t, size_t> seenFrames_;
  std::map<uint32_t, size_t> seenChanges_;
  // Side tracking for the evidence, from what each member delivered.
  std::map<uint32_t, std::set<uint32_t>> cohort_;
  std::map<uint32_t, int> syncsSeen_;
  std::map<std::pair<uint32_t, uint64_t>, Evidence> evidence_;
  struct Dissolution {
    uint32_t node;
    uint64_t view;
    std::string group;
  };
  std::vector<Dissolution> dissolutions_;
  // What each node's current agent reported last, by adapter index:
  // "ip-byte alive" or absent when removed.
  std::map<uint32_t, std::map<uint32_t, std::string>> reported_;
};

void History::recordView(uint32_t node, const View& v) {
  // The state the member holds now is what it brings into the view: the
  // state of the last view it completed a sync in, shared with those that
  // moved along with it since. A sync completes in the member's current
  // view, so a sync since the last view change means: that view.
  TestNode& t = *nodes_[node];
  std::set<uint32_t>& side = cohort_[node];
  if (t.syncs() > syncsSeen_[node]) {
    syncsSeen_[node] = t.syncs();
    side = std::set<uint32_t>(t.replica().view().members.begin(), t.replica().view().members.end());
  } else if (t.replica().view().id != 0) {
    ++stats.restartedSyncs;
  }
  std::set<uint32_t> next;
  for (uint32_t m : side) {
    if (std::find(v.members.begin(), v.members.end(), m) != v.members.end()) next.insert(m);
  }
  side = next;
  Evidence e;
  e.side = side;
  for (const char* g : kGroups) {
    size_t count = 0;
    for (const proto::ProviderId& p : nodes_[node]->replica().members(g)) {
      if (side.count(p.node()) != 0) ++count;
    }
    e.membersOnSide[g] = count;
    e.members[g] = ids(nodes_[node]->replica().members(g));
    e.exists[g] = nodes_[node]->replica().groupExists(g);
  }
  evidence_[{node, v.id}] = e;
}

void History::collectNotes(uint32_t node) {
  TestNode& t = *nodes_[node];
  const std::vector<TestNode::Frame>& frames = t.frames();
  for (size_t i = seenFrames_[node]; i < frames.size(); ++i) {
    const TestNode::Frame& f = frames[i];
    if (f.client / 1000 != node) {
      failures.push_back("node " + std::to_string(node) + " sent a frame to client " +
                         std::to_string(f.client) + " of another node");
    }
    if (f.frame.has_reply()) ++stats.replies;
    if (!f.frame.has_notification()) continue;
    const proto::Notification& n = f.frame.notification();
    if (n.kind() == proto::Notification::APPROVED) ++stats.approvals;
    if (n.kind() == proto::Notification::REJECTED) ++stats.rejections;
    if ((n.kind() == proto::Notification::APPROVED || n.kind() == proto::Notification::REJECTED) &&
        (n.summary_code() & TK_GS_TIME_LIMIT_EXCEEDED) != 0) {
      ++stats.timeouts;
    }
    if (n.kind() == proto::Notification::APPROVED && n.protocol_type() == TK_GS_FAILURE_LEAVE) {
      ++stats.failureLeaves;
    }
    auto key = std::make_tuple(f.client, n.group(), n.instance());
    if (n.kind() == proto::Notification::N_PHASE) {
      owed_[key] = Vote{n.protocol(), n.phase()};
    } else if (n.kind() == proto::Notification::APPROVED ||
               n.kind() == proto::Notification::REJECTED ||
               n.kind() == proto::Notification::ANNOUNCEMENT) {
      auto it = owed_.find(key);
      if (it != owed_.end() &&
          (n.kind() == proto::Notification::ANNOUNCEMENT || it->second.protocol == n.protocol())) {
        owed_.erase(it);
      }
    }
  }
  seenFrames_[node] = frames.size();
  const std::vector<GroupChange>& changes = t.changes();
  for (size_t i = seenChanges_[node]; i < changes.size(); ++i) {
    if (changes[i].group == kRawAdapterGroup &&
        (changes[i].kind == GroupChange::DISSOLVED || changes[i].kind == GroupChange::GONE)) {
      failures.push_back("node " + std::to_string(node) + " ended the raw adapter group");
    }
    if (changes[i].kind == GroupChange::DISSOLVED) {
      dissolutions_.push_back(Dissolution{node, t.changeView(i), changes[i].group});
    }
  }
  seenChanges_[node] = changes.size();
}

void History::afterDelivery() {
  for (uint32_t n : ids_) {
    if (!cluster_->alive(n)) continue;
    collectNotes(n);
  }
}

void History::start(uint32_t n) {
  if (crashed_.erase(n) != 0) {
    // A restarted agent: fresh state, and its clients are new connections.
    nodes_[n]->restart();
    for (int& g : gens_[n]) g = std::min(g + 1, 99);
    // A fresh agent knows no adapters until its topology reports them.
    reported_[n].clear();
  }
  ++life_[n];
  cohort_[n] = {n};
  syncsSeen_[n] = nodes_[n]->syncs();
  if (nodes_[n]->join() != 0) failures.push_back("node " + std::to_string(n) + " cannot join");
}

void History::request(uint32_t node, int slot, proto::Request r) {
  uint64_t client = clientOf(node, slot);
  uint64_t id = nodes_[node]->submit(client, r);
  subs_.push_back(Sub{node, life_[node], client, id});
}

void History::randomRequest() {
  std::vector<uint32_t> l = live();
  if (l.empty()) return;
  uint32_t node = pick(l);
  int slot = static_cast<int>(rng_() % kSlots);
  std::string group = kGroups[rng_() % 3];
  uint32_t instance = 1 + rng_() % 3;
  switch (rng_() % 20) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5: {
      proto::GroupAttributes a = attrs(chance(30) ? TK_GS_N_PHASE : TK_GS_1_PHASE,
                                       chance(25) ? TK_GS_VOTE_REJECT : TK_GS_VOTE_APPROVE,
                                       chance(40) ? 0 : 5 + rng_() % 30, rng_() % 4);
      request(node, slot, joinReq(group, instance, a));
      break;
    }
    case 6:
    case 7:
      request(node, slot,
              leaveReq(group, instance, chance(30) ? TK_GS_N_PHASE : TK_GS_1_PHASE,
                       chance(50) ? 0 : 10));
      break;
    case 8:
    case 9:
      request(node, slot, goodbyeReq(group, instance));
      break;
    case 10:
    case 11:
    case 12:
      request(
          node, slot,
          valueReq(group, instance, "v" + std::to_string(rng_() % 1000),
                   chance(75) ? TK_GS_N_PHASE : TK_GS_1_PHASE, chance(30) ? 0 : 5 + rng_() % 20));
      break;
    case 13:
    case 14:
      request(node, slot,
              messageReq(group, instance, "m" + std::to_string(rng_() % 1000),
                         chance(60) ? TK_GS_N_PHASE : TK_GS_1_PHASE, 10));
      break;
    case 15:
      request(node, slot,
              setAttributesReq(group, instance,
                               attrs(1 + rng_() % 2, 1 + rng_() % 2, rng_() % 20, rng_() % 4)));
      break;
    case 16:
      request(node, slot, expelReq(group, instance, {{1 + rng_() % 3, pick(ids_)}}));
      break;
    default: {
      // A client goes away; its slot gets a new connection.
      uint64_t client = clientOf(node, slot);
      if (gens_[node][slot] >= 99) break;
      if (nodes_[node]->replica().clientGone(client, "connection lost") == 0) {
        ++gens_[node][slot];
      }
      break;
    }
  }
}

void History::adapterReport() {
  std::vector<uint32_t> l = live();
  if (l.empty()) return;
  uint32_t node = pick(l);
  uint32_t index = rng_() % 3;
  uint8_t ipByte = static_cast<uint8_t>(1 + rng_() % 2);
  bool alive = chance(60);
  bool removed = chance(15);
  proto::AdapterUpdate u;
  proto::AdapterInfo* a = u.mutable_adapter();
  a->set_ip(std::string{10, static_cast<char>(index), static_cast<char>(node),
                        static_cast<char>(ipByte)});
  a->set_interface_name("sxn" + std::to_string(index));
  a->set_network_name(a->interface_name());
  a->set_network_type("switch");
  a->set_instance(index);
  u.set_alive(alive);
  u.set_removed(removed);
  // Refused (no view yet): not sent, so not reported.
  if (nodes_[node]->replica().reportAdapter(u) != 0) return;
  ++stats.adapterReports;
  if (removed) {
    reported_[node].erase(index);
  } else {
    reported_[node][index] = std::to_string(ipByte) + (alive ? " alive" : " dead");
  }
}

void History::checkAdapters() {
  // Each node's adapters are its own agent's latest report, on every node.
  for (uint32_t holder : ids_) {
    for (uint32_t n : ids_) {
      std::map<uint32_t, std::string> held;
      for (const proto::AdapterImage& a : nodes_[holder]->replica().adaptersOf(n)) {
        held[a.adapter().instance()] = std::to_string(static_cast<uint8_t>(a.adapter().ip()[3])) +
                                       (a.alive() ? " alive" : " dead");
      }
      if (held != reported_[n]) {
        failures.push_back("node " + std::to_string(holder) + " holds other adapters of node " +
                           std::to_string(n) + " than it reported last");
      }
      if (holder == ids_.front()) stats.adaptersAtEnd += held.size();
    }
  }
}

void History::vote(bool everyone) {
  std::vector<std::tuple<uint64_t, std::string, uint32_t>> keys;
  for (const auto& e : owed_) keys.push_back(e.first);
  if (keys.empty()) return;
  if (!everyone) {
    auto k = keys[rng_() % keys.size()];
    keys = {k};
  }
  for (const auto& k : keys) {
    uint64_t client = std::get<0>(k);
    uint32_t node = static_cast<uint32_t>(client / 1000);
    int slot = static_cast<int>((client % 1000) / 100);
    Vote v = owed_[k];
    owed_.erase(k);
    // Connections that are gone do not vote.
    if (!cluster_->alive(node) || clientOf(node, slot) != client) continue;
    uint32_t choice = TK_GS_VOTE_APPROVE;
    if (!everyone) {
      int r = static_cast<int>(rng_() % 10);
      choice = r < 6 ? TK_GS_VOTE_APPROVE : r < 8 ? TK_GS_VOTE_REJECT : TK_GS_VOTE_CONTINUE;
    }
    proto::Request req = voteReq(std::get<1>(k), std::get<2>(k), v.protocol, v.phase, choice);
    if (!everyone && chance(20)) {
      req.mutable_vote()->set_has_state_value(true);
      req.mutable_vote()->set_state_value("w" + std::to_string(rng_() % 100));
    }
    request(node, slot, req);
  }
}

void History::step() {
  int r = static_cast<int>(rng_() % 100);
  if (r < 40) {
    int k = 1 + static_cast<int>(rng_() % 6);
    for (int i = 0; i < k && cluster_->deliverRandom(); ++i) afterDelivery();
  } else if (r < 70) {
    if (chance(15)) {
      adapterReport();
    } else {
      randomRequest();
    }
  } else if (r < 79) {
    vote(false);
  } else if (r < 83) {
    // The lowest node of a view fires one of its deadlines.
    std::vector<uint32_t> l = live();
    if (l.empty()) return;
    TestNode& t = *nodes_[pick(l)];
    if (!t.deadlines().empty()) {
      t.replica().fireTimeout(t.deadlines()[rng_() % t.deadlines().size()]);
    }
  } else if (r < 85) {
    std::vector<uint32_t> l = live();
    if (l.size() > 1) {
      uint32_t n = pick(l);
      cluster_->crash(n);
      crashed_.insert(n);
    }
  } else if (r < 88) {
    for (uint32_t n : ids_) {
      if (!cluster_->alive(n)) {
        start(n);
        break;
      }
    }
  } else if (r < 91) {
    std::vector<std::vector<uint32_t>> sides(2 + rng_() % 2);
    for (uint32_t n : ids_) sides[rng_() % sides.size()].push_back(n);
    cluster_->partition(sides);
  } else if (r < 94) {
    cluster_->heal();
  } else {
    cluster_->deliverAll();
    afterDelivery();
    checkpoint("quiet point");
  }
}

void History::checkpoint(const char* where) {
  for (const std::vector<uint32_t>& view : cluster_->views()) {
    std::string first;
    for (uint32_t n : view) {
      Replica& r = nodes_[n]->replica();
      if (!r.isSynced()) {
        failures.push_back(std::string(where) + ": node " + std::to_string(n) + " not synced");
        continue;
      }
      if (r.view().members != view) {
        failures.push_back(std::string(where) + ": node " + std::to_string(n) +
                           " is in another view than the bus's");
      }
      if (first.empty()) {
        first = r.digest();
      } else if (r.digest() != first) {
        failures.push_back(std::string(where) + ": node " + std::to_string(n) +
                           " differs from node " + std::to_string(view.front()) + " in view " +
                           std::to_string(r.view().id));
      }
    }
  }
}

void History::finish() {
  // Everybody back, everything delivered, every owed vote cast and every
  // deadline fired until nothing waits.
  for (uint32_t n : ids_) {
    if (!cluster_->alive(n)) start(n);
  }
  cluster_->heal();
  for (int round = 0; round < 50; ++round) {
    cluster_->deliverAll();
    afterDelivery();
    vote(true);
    cluster_->deliverAll();
    afterDelivery();
    bool waiting = false;
    for (uint32_t n : ids_) {
      TestNode& t = *nodes_[n];
      for (const Deadline& d : t.deadlines()) {
        t.replica().fireTimeout(d);
        waiting = true;
      }
      proto::QueryAnswer q = t.replica().describe();
      for (const proto::GroupSummary& g : q.groups()) waiting = waiting || g.protocol_in_flight();
    }
    if (!waiting && cluster_->quiet()) break;
  }
  cluster_->deliverAll();
  afterDelivery();
  checkpoint("end");
  if (cluster_->views().size() != 1) failures.push_back("the healed cluster is not one view");
  checkAdapters();

  for (uint32_t n : ids_) {
    proto::QueryAnswer q = nodes_[n]->replica().describe();
    for (const proto::GroupSummary& g : q.groups()) {
      if (g.protocol_in_flight()) {
        failures.push_back("group " + g.name() + " still has a protocol in flight");
      }
      if (g.providers_size() == 0) failures.push_back("group " + g.name() + " has no providers");
    }
  }

  // Exactly one reply for every request of an agent life that lasted.
  for (const Sub& s : subs_) {
    size_t n = nodes_[s.node]->replies(s.client, s.id).size();
    bool lasted = s.life == life_[s.node] && cluster_->alive(s.node);
    if (n > 1 || (lasted && n != 1)) {
      failures.push_back("request " + std::to_string(s.id) + " of client " +
                         std::to_string(s.client) + " got " + std::to_string(n) + " replies");
    }
  }

  std::map<uint64_t, std::set<std::set<uint32_t>>> sidesOfView;
  for (const auto& e : evidence_) sidesOfView[e.first.second].insert(e.second.side);
  for (const auto& v : sidesOfView) stats.merges += v.second.size() > 1 ? 1 : 0;
  stats.dissolutions = dissolutions_.size();

  // A group that two sides brought with different members is dissolved in
  // the first view after the merge that completes its sync.
  std::set<uint64_t> syncedIn;
  for (uint32_t n : ids_) {
    for (uint64_t v : nodes_[n]->syncViews()) syncedIn.insert(v);
  }
  for (uint64_t v : syncedIn) {
    for (const char* g : kGroups) {
      std::map<std::set<uint32_t>, std::string> holders;  // side -> its members
      for (const auto& e : evidence_) {
        if (e.first.second == v && e.second.membersOnSide.at(g) > 0) {
          holders[e.second.side] = e.second.members.at(g);
        }
      }
      std::set<std::string> versions;
      for (const auto& h : holders) versions.insert(h.second);
      if (versions.size() < 2) continue;
      // A dissolution is told to those that knew the group; when every node
      // that completed this sync came without it, nobody is told.
      bool someoneKnew = false;
      for (uint32_t n : ids_) {
        const std::vector<uint64_t>& sv = nodes_[n]->syncViews();
        auto e = evidence_.find({n, v});
        someoneKnew = someoneKnew || (std::find(sv.begin(), sv.end(), v) != sv.end() &&
                                      e != evidence_.end() && e->second.exists.at(g));
      }
      if (!someoneKnew) continue;
      bool dissolved =
          std::any_of(dissolutions_.begin(), dissolutions_.end(),
                      [&](const Dissolution& d) { return d.view == v && d.group == g; });
      if (!dissolved) {
        failures.push_back(std::string("group ") + g + " came into view " + std::to_string(v) +
                           " with different members from two sides and was not dissolved");
      }
    }
  }

  // Dissolutions only where two sides both had members of the group.
  for (const Dissolution& d : dissolutions_) {
    bool justified = false;
    std::vector<const Evidence*> holding;
    for (const auto& e : evidence_) {
      if (e.first.second != d.view) continue;
      auto m = e.second.membersOnSide.find(d.group);
      if (m != e.second.membersOnSide.end() && m->second > 0) holding.push_back(&e.second);
    }
    for (const Evidence* x : holding) {
      for (const Evidence* y : holding) justified = justified || x->side != y->side;
    }
    if (!justified) {
      std::string seen;
      for (const auto& e : evidence_) {
        if (e.first.second != d.view) continue;
        seen += " node " + std::to_string(e.first.first) + " side{";
        for (uint32_t m : e.second.side) seen += std::to_string(m) + ",";
        seen += "} members " + std::to_string(e.second.membersOnSide.at(d.group)) + ";";
      }
      failures.push_back("group " + d.group + " dissolved at node " + std::to_string(d.node) +
                         " in view " + std::to_string(d.view) +
                         " without members on two sides; seen:" + seen);
    }
  }
}

void History::run() {
  // Most agents start together; the rest come later through the restarts.
  for (uint32_t n : ids_) {
    if (n <= 2 || chance(60)) start(n);
  }
  for (int i = 0; i < kSteps && failures.empty(); ++i) step();
  finish();
}

std::vector<uint64_t> seeds() {
  const char* one = getenv("VELT_HISTORY_SEED");
  if (one != nullptr && *one != '\0') return {strtoull(one, nullptr, 10)};
  // A sanitizer build runs the first 100 (still well past every count the
  // test asks of them), the ordinary build all 500.
  const uint64_t count = velt_test::kSanitized ? 100 : 500;
  std::vector<uint64_t> out;
  for (uint64_t s = 1; s <= count; ++s) out.push_back(s);
  return out;
}

TEST(RandomHistories, EveryViewEndsInOneStateAndDissolvesOnlyWhatDiverged) {
  auto began = std::chrono::steady_clock::now();
  std::vector<uint64_t> all = seeds();
  History::Stats total;
  for (uint64_t seed : all) {
    History h(seed);
    h.run();
    if (!h.failures.empty()) {
      std::ostringstream out;
      for (size_t i = 0; i < h.failures.size() && i < 10; ++i) out << "\n  " << h.failures[i];
      ADD_FAILURE() << "history seed " << seed << " (replay with VELT_HISTORY_SEED=" << seed
                    << "):" << out.str();
    }
    total.dissolutions += h.stats.dissolutions;
    total.merges += h.stats.merges;
    total.replies += h.stats.replies;
    total.approvals += h.stats.approvals;
    total.rejections += h.stats.rejections;
    total.timeouts += h.stats.timeouts;
    total.failureLeaves += h.stats.failureLeaves;
    total.restartedSyncs += h.stats.restartedSyncs;
    total.adapterReports += h.stats.adapterReports;
    total.adaptersAtEnd += h.stats.adaptersAtEnd;
  }
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  printf(
      "%zu histories in %.1f s: %zu merges, %zu dissolutions, %zu restarted syncs, %zu replies,"
      " %zu approvals, %zu rejections, %zu after time-outs, %zu failure leaves, %zu adapter"
      " reports, %zu adapters at the end\n",
      all.size(), secs, total.merges, total.dissolutions, total.restartedSyncs, total.replies,
      total.approvals, total.rejections, total.timeouts, total.failureLeaves,
      total.adapterReports, total.adaptersAtEnd);
  if (all.size() > 1) {
    // The histories must have gone through what they are meant to check.
    EXPECT_GT(total.merges, 50u);
    EXPECT_GT(total.dissolutions, 10u);
    EXPECT_GT(total.restartedSyncs, 10u);
    EXPECT_GT(total.timeouts, 10u);
    EXPECT_GT(total.rejections, 10u);
    EXPECT_GT(total.failureLeaves, 10u);
    EXPECT_GT(total.adapterReports, 1000u);
    EXPECT_GT(total.adaptersAtEnd, 100u);
  }
}

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt
