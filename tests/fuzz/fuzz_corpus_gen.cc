// Writes the seed corpora of the fuzz targets whose seeds are made from
// messages rather than by hand: a simulated cluster of three agents (real
// replicas on the simulated bus) lives through joins, state values,
// adapter and KOR reports, a crash and a heal, and what it carried becomes
// the seeds: the frames the agents sent their clients (gscl_frame_fuzz)
// and the clients' requests with the hello libvx_gscl sends
// (agent_frame_fuzz). Three replicas fed as veltd's bus feeds them live
// through the same (cpgSeeds): what one of them received makes cpg_fuzz's
// seeds. The node-id file, the nodelist and the settings get what an
// operator or a start writes.
//
//   fuzz_corpus_gen DIR     writes DIR/<target>/<seed> (DIR is usually
//                           tests/fuzz/corpus), replacing seeds of the same
//                           names and leaving other files alone
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "adapter_updates.h"
#include "agent_test_util.h"
#include "cpg_node.h"
#include "frame_io.h"
#include "node_identity.h"
#include "velt.pb.h"

namespace {

using namespace velt::agent;
using namespace velt::agent::testing;

std::string corpusDir;

void writeSeed(const std::string& target, const std::string& name, const std::string& bytes) {
  const std::string dir = corpusDir + "/" + target;
  mkdir(dir.c_str(), 0755);
  const std::string path = dir + "/" + name;
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || fclose(f) != 0) {
    fprintf(stderr, "fuzz_corpus_gen: cannot write %s\n", path.c_str());
    exit(1);
  }
}

std::string len16(const std::string& bytes) {
  std::string out;
  out.push_back(static_cast<char>(bytes.size() & 0xff));
  out.push_back(static_cast<char>((bytes.size() >> 8) & 0xff));
  return out + bytes;
}

// The packets of one message as the socket framing cuts it, each behind
// its length.
std::string packets(const std::string& message, char kind = -1) {
  std::string out;
  for (const std::string& p : velt::wire::splitMessage(message)) {
    if (kind >= 0) out.push_back(kind);
    out += len16(p);
  }
  return out;
}

// KOR facts as the agents report them: one node's view of the nodelist,
// and another's id and one of its interfaces.
void reportKorFacts(Replica& nodelistOf, Replica& interfaceOf) {
  velt::proto::NodeEntry a, b, c;
  a.set_node(1), a.set_name("alpha");
  b.set_node(2), b.set_name("beta");
  c.set_node(3), c.set_name("10.0.0.3");
  nodelistOf.reportNodeList({a, b, c});
  interfaceOf.announceNodeId(0x1122334455667788ull);
  velt::proto::InterfaceUpdate iu;
  velt::proto::InterfaceResource* r = iu.mutable_resource();
  r->set_name("sxn0"), r->set_device_name("sxn0"), r->set_ip_address("10.0.0.2");
  r->set_device_sub_type(32), r->set_logical_id(1), r->set_network_id(7), r->set_network_id64(7);
  r->set_port_id(1), r->set_hardware_address("02:00:00:00:00:02"), r->set_device_path_name("/dev/sxn0");
  iu.set_generation(1);
  interfaceOf.reportInterface(iu);
}

// Three agents' replicas as veltd's bus feeds them (CpgNode), in one total
// order per side of the cluster; what node 1 receives is written as
// cpg_fuzz's steps, so that its replica, fed the same, takes the others'
// snapshots for its views and applies their messages.
class CpgCluster {
 public:
  CpgCluster() {
    for (uint32_t n = 1; n <= 3; ++n) restart(n);
  }
  velt_fuzz::CpgNode& node(uint32_t n) { return *nodes_.at(n); }
  // A crashed node's agent starts again, with nothing of its old state.
  void restart(uint32_t n) { nodes_[n] = std::make_unique<velt_fuzz::CpgNode>(n); }

  // The members of one side form a new ring and get a view of that side,
  // then deliver what they multicast until they are quiet.
  void view(const std::set<uint32_t>& side) {
    ++ring_;
    for (uint32_t n : side) node(n).changeView(side, ring_);
    if (side.count(1)) {
      uint8_t mask = 0;
      for (uint32_t n : side) {
        if (n >= 2) mask |= static_cast<uint8_t>(1u << (n - 2));
      }
      steps_ += std::string{0, static_cast<char>(mask), static_cast<char>(ring_)};
    }
    deliver(side);
  }
  void deliver(const std::set<uint32_t>& side) {
    for (bool more = true; more;) {
      more = false;
      for (uint32_t from : side) {
        while (!node(from).outbox().empty()) {
          std::string m = std::move(node(from).outbox().front());
          node(from).outbox().pop_front();
          more = true;
          // As cpg_fuzz cuts them: its own in one fragment, the others' in
          // fragments of 1 + 20 * 61 bytes.
          const size_t payload = from == 1 ? 60 * 1024 : 1 + 20 * 61;
          for (uint32_t to : side) node(to).send(from, m, payload);
          if (side.count(1) == 0) continue;
          if (from == 1) {
            steps_ += std::string{3};
          } else if (m.size() <= 0xffff) {
            steps_ += std::string{2, static_cast<char>(from - 1), 20} + len16(m);
          }
        }
      }
      for (uint32_t n : side) node(n).replica().flushPending();
    }
  }
  // Everything node 1 received so far.
  const std::string& steps() const { return steps_; }

 private:
  std::map<uint32_t, std::unique_ptr<velt_fuzz::CpgNode>> nodes_;
  uint8_t ring_ = 0;
  std::string steps_;
};

void cpgSeeds() {
  CpgCluster c;
  const std::set<uint32_t> all{1, 2, 3};
  c.view(all);
  writeSeed("cpg_fuzz", "views_and_snapshots.bin", c.steps());

  uint64_t id = 100;
  auto submit = [&](uint32_t n, uint64_t client, velt::proto::Request r) {
    r.set_id(++id);
    c.node(n).replica().submit(client, r);
  };
  submit(1, 11, joinReq("sxnMembership", 1, attrs(1, 1, 30)));
  submit(2, 21, joinReq("sxnMembership", 2, attrs(1, 1, 30)));
  submit(3, 31, joinReq("tolkvask_cfg", 3, attrs()));
  c.deliver(all);
  submit(2, 21, valueReq("sxnMembership", 2, "state of node 2"));
  submit(3, 31, messageReq("tolkvask_cfg", 3, "refresh"));
  c.deliver(all);
  writeSeed("cpg_fuzz", "requests_and_protocols.bin", c.steps());

  c.node(2).replica().reportAdapter(update(2, 0, true));
  c.node(3).replica().reportAdapter(update(3, 0, true));
  c.node(3).replica().reportAdapter(update(3, 1, false));
  reportKorFacts(c.node(2).replica(), c.node(2).replica());
  c.deliver(all);
  writeSeed("cpg_fuzz", "adapters_and_kor.bin", c.steps());

  // Node 3 crashes; then 1 and 2 lose each other; then all heal, node 3
  // with a restarted agent.
  c.node(3).outbox().clear();
  c.view({1, 2});
  writeSeed("cpg_fuzz", "a_node_crashes.bin", c.steps());
  submit(2, 21, leaveReq("sxnMembership", 2));
  c.view({1});
  c.view({2});
  writeSeed("cpg_fuzz", "partition.bin", c.steps());
  c.restart(3);
  c.view(all);
  writeSeed("cpg_fuzz", "heal_merges_snapshots.bin", c.steps());
}

velt::proto::ClientFrame clientFrame(const velt::proto::Request& request) {
  velt::proto::ClientFrame f;
  f.set_version(velt::proto::WIRE_VERSION_1);
  *f.mutable_request() = request;
  return f;
}

// The hello as libvx_gscl sends it (libvx_mc's differs in the interface
// word and responsiveness).
velt::proto::ClientFrame helloFrame(bool groupServices) {
  velt::proto::ClientFrame f;
  f.set_version(velt::proto::WIRE_VERSION_1);
  velt::proto::Hello* h = f.mutable_hello();
  h->set_interface_word(groupServices ? 0x30014 : 0);
  h->set_pid(4242);
  h->set_program(groupServices ? "tolkvaskd" : "veltctl");
  if (groupServices) {
    h->mutable_responsiveness()->set_type(1);
    h->mutable_responsiveness()->set_interval(10);
    h->mutable_responsiveness()->set_response_time_limit(5);
    h->set_grouped_notifications(true);
  }
  return f;
}

void clusterSeeds() {
  SimCluster cluster({1, 2, 3}, 20261123);
  TestNode n1(&cluster, 1), n2(&cluster, 2), n3(&cluster, 3);
  n1.join();
  n2.join();
  n3.join();
  cluster.deliverAll();

  std::vector<velt::proto::Request> requests;
  auto submit = [&](TestNode& n, uint64_t client, velt::proto::Request r) {
    r.set_id(1000 + requests.size());
    requests.push_back(r);
    n.submit(client, r);
  };
  submit(n1, 11, joinReq("sxnMembership", 1, attrs(2, 1, 30)));
  submit(n2, 21, joinReq("sxnMembership", 2, attrs(2, 1, 30)));
  cluster.deliverAll();
  for (TestNode* n : {&n1, &n2}) {
    for (const auto& f : n->frames()) {
      if (f.frame.has_notification() && f.frame.notification().protocol() != 0) {
        submit(*n, f.client, voteReq("sxnMembership", f.frame.notification().instance(),
                                     f.frame.notification().protocol(), f.frame.notification().phase(), 1));
        break;
      }
    }
  }
  submit(n1, 11, valueReq("sxnMembership", 1, "state of node 1"));
  submit(n3, 31, messageReq("tolkvask_cfg", 3, "refresh"));
  submit(n1, 12, leaveReq("sxnMembership", 1));
  cluster.deliverAll();

  n1.replica().reportAdapter(update(1, 0, true));
  n2.replica().reportAdapter(update(2, 0, true));
  n2.replica().reportAdapter(update(2, 1, false));
  reportKorFacts(n1.replica(), n2.replica());
  cluster.deliverAll();
  cluster.crash(3);
  cluster.deliverAll();
  cluster.partition({{1}, {2}});
  cluster.deliverAll();
  cluster.heal();
  cluster.deliverAll();

  // The frames the agents sent their clients, as libvx_gscl reads them.
  std::string frames;
  int seeds = 0;
  for (TestNode* n : {&n1, &n2, &n3}) {
    for (const auto& f : n->frames()) {
      frames += packets(f.frame.SerializeAsString());
      if (frames.size() > 2048) {
        writeSeed("gscl_frame_fuzz", "frames_" + std::to_string(++seeds) + ".bin", frames);
        frames.clear();
      }
    }
  }
  if (!frames.empty()) writeSeed("gscl_frame_fuzz", "frames_" + std::to_string(++seeds) + ".bin", frames);

  // The clients' side: a hello, then the requests one client made.
  std::string session = packets(helloFrame(true).SerializeAsString(), 0);
  for (const auto& req : requests) session += packets(clientFrame(req).SerializeAsString(), 0);
  writeSeed("agent_frame_fuzz", "provider_session.bin", session);
  velt::proto::Request sub;
  sub.set_id(1);
  sub.mutable_subscribe()->set_group("allAdapterMembership");
  sub.mutable_subscribe()->set_subscriber(1);
  sub.mutable_subscribe()->set_type(3);
  velt::proto::Request query;
  query.set_id(2);
  query.mutable_query()->set_kind(velt::proto::Query::GROUPS);
  velt::proto::Request kor;
  kor.set_id(3);
  kor.mutable_kor_query()->set_class_name("Zel.NetworkInterface");
  kor.mutable_kor_query()->set_rows(true);
  // Two clients at once, a tick of the clock, one of them gone and back.
  std::string two = packets(helloFrame(true).SerializeAsString(), 0) +
                    packets(helloFrame(false).SerializeAsString(), 1) +
                    packets(clientFrame(sub).SerializeAsString(), 0) +
                    packets(clientFrame(query).SerializeAsString(), 1) +
                    packets(clientFrame(kor).SerializeAsString(), 1) + std::string{2} +
                    std::string{3, 1} + packets(helloFrame(false).SerializeAsString(), 1);
  writeSeed("agent_frame_fuzz", "subscriber_and_tool.bin", two);
  // A provider message of more than one packet.
  velt::proto::Request big = messageReq("sxnMembership", 1, std::string(64 * 1024, 'm'));
  big.set_id(4);
  writeSeed("agent_frame_fuzz", "large_request.bin",
            packets(helloFrame(true).SerializeAsString(), 0) + packets(clientFrame(big).SerializeAsString(), 0));
}

void nodeIdSeeds() {
  writeSeed("node_id_fuzz", "file.bin", std::string(1, 0) + formatNodeId(0x8a3f00c2d41e7b95ull));
  writeSeed("node_id_fuzz", "file_upper_case.bin", std::string(1, 0) + "8A3F00C2D41E7B95\n");
  writeSeed("node_id_fuzz", "file_without_newline.bin", std::string(1, 0) + "8a3f00c2d41e7b95");
  writeSeed("node_id_fuzz", "file_zero.bin", std::string(1, 0) + formatNodeId(0));
  writeSeed("node_id_fuzz", "option.bin", std::string(1, 1) + "0x8a3f00c2d41e7b95");
  writeSeed("node_id_fuzz", "option_short.bin", std::string(1, 1) + "2a");
}

// nodelist_fuzz's entries: flags, nodeid, the strings present.
std::string nodelistEntry(uint32_t nodeid, const char* name, const char* ring0) {
  std::string out(1, static_cast<char>(1 | (name ? 2 : 0) | (ring0 ? 4 : 0)));
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((nodeid >> (8 * i)) & 0xff));
  if (name) out += len16(name);
  if (ring0) out += len16(ring0);
  return out;
}

void nodelistSeeds() {
  writeSeed("nodelist_fuzz", "three_named_nodes.bin",
            nodelistEntry(1, "alpha", "10.0.0.1") + nodelistEntry(2, "beta", "10.0.0.2") +
                nodelistEntry(3, "gamma", "10.0.0.3"));
  writeSeed("nodelist_fuzz", "ring_addresses_only.bin",
            nodelistEntry(3, nullptr, "fd00::3") + nodelistEntry(1, nullptr, "fd00::1"));
  writeSeed("nodelist_fuzz", "repeated_and_zero_ids.bin",
            nodelistEntry(2, "b", nullptr) + nodelistEntry(0, "zero", nullptr) + nodelistEntry(2, "again", nullptr) +
                nodelistEntry(5, nullptr, nullptr));
  writeSeed("nodelist_fuzz", "long_name.bin", nodelistEntry(9, std::string(300, 'n').c_str(), nullptr));
  writeSeed("nodelist_fuzz", "utf8_name.bin", nodelistEntry(4, "n\xc3\xb6" "de-\xe5\x8c\x97", nullptr));
}

void settingsSeeds() {
  const char* const options[] = {
      "--interfaces\0sxn0,sxn1\0--link-poll-ms\0" "200\0--allow-gid\0velt",
      "--socket\0/run/velt/agent.sock\0--state-dir\0/var/lib/velt\0--standalone",
      "--max-clients\0" "64\0--max-unsent\0" "1048576\0--node-id\0" "0x2a",
      "--help",
  };
  const size_t lengths[] = {sizeof "--interfaces\0sxn0,sxn1\0--link-poll-ms\0" "200\0--allow-gid\0velt" - 1,
                            sizeof "--socket\0/run/velt/agent.sock\0--state-dir\0/var/lib/velt\0--standalone" - 1,
                            sizeof "--max-clients\0" "64\0--max-unsent\0" "1048576\0--node-id\0" "0x2a" - 1,
                            sizeof "--help" - 1};
  for (int i = 0; i < 4; ++i) {
    writeSeed("settings_fuzz", "veltd_options_" + std::to_string(i + 1) + ".bin",
              std::string(1, 0) + std::string(options[i], lengths[i]));
  }
  writeSeed("settings_fuzz", "refresh_timeout.bin", std::string(1, 1) + "600");
  writeSeed("settings_fuzz", "refresh_timeout_bad.bin", std::string(1, 1) + "-5");
  writeSeed("settings_fuzz", "debug_level.bin", std::string(1, 2) + "0x10000001");
  writeSeed("settings_fuzz", "debug_level_octal.bin", std::string(1, 2) + "017");
  writeSeed("settings_fuzz", "version.bin", std::string(1, 3) + "2.5.0.0");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: fuzz_corpus_gen CORPUS_DIR\n");
    return 2;
  }
  corpusDir = argv[1];
  clusterSeeds();
  cpgSeeds();
  nodeIdSeeds();
  nodelistSeeds();
  settingsSeeds();
  return 0;
}
