// Feeds arbitrary bytes to veltd's reading of corosync's nodelist
// (readNodelist), as the keys nodelist.node.N.{nodeid,name,ring0_addr}
// that cmap would hold: whatever corosync.conf says, the list read is
// bounded, ascending by node id without repeats or 0, every name is
// non-empty and within its bound, and the report the agent multicasts of
// it reaches the other agents whole (it parses again as it was sent).
//
// The input is a run of entries, each: a flags byte (1: nodeid, 2: name,
// 4: ring0_addr), the nodeid (4 bytes, little-endian), then per string
// present its length (2 bytes) and its bytes.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <string>

#include <google/protobuf/stubs/logging.h>

#include "fuzz_input.h"
#include "nodelist_watch.h"
#include "velt.pb.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  fprintf(stderr, "nodelist_fuzz: %s\n", what.c_str());
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The complaint about invalid text in a string field is only noise here:
  // the round trip below finds it.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  std::map<std::string, uint32_t> numbers;
  std::map<std::string, std::string> strings;
  velt_fuzz::FuzzInput in(data, size);
  for (unsigned i = 0; !in.done(); ++i) {
    const uint8_t flags = in.byte();
    const uint32_t nodeid = in.u32();
    const std::string prefix = "nodelist.node." + std::to_string(i) + ".";
    if (flags & 1) numbers[prefix + "nodeid"] = nodeid;
    if (flags & 2) strings[prefix + "name"] = in.bytes16();
    if (flags & 4) strings[prefix + "ring0_addr"] = in.bytes16();
  }
  velt::agent::NodelistSource source;
  source.getUint32 = [&](const std::string& key, uint32_t* value) {
    auto it = numbers.find(key);
    if (it == numbers.end()) return false;
    *value = it->second;
    return true;
  };
  source.getString = [&](const std::string& key, std::string* value) {
    auto it = strings.find(key);
    if (it == strings.end()) return false;
    // cmap hands out C strings: the value ends at its first NUL.
    *value = std::string(it->second.c_str());
    return true;
  };
  const std::vector<velt::proto::NodeEntry> nodes = velt::agent::readNodelist(source);

  if (nodes.size() > velt::agent::kMaxNodelistNodes) fail("more nodes than the bound");
  for (size_t k = 0; k < nodes.size(); ++k) {
    if (nodes[k].node() == 0) fail("node id 0");
    if (k > 0 && nodes[k - 1].node() >= nodes[k].node()) fail("not ascending, or a node twice");
    if (nodes[k].name().empty() || nodes[k].name().size() > velt::agent::kMaxNodeNameBytes) {
      fail("a name of " + std::to_string(nodes[k].name().size()) + " bytes");
    }
  }
  // The report as Replica::reportNodeList sends it, read as the others
  // read it.
  velt::proto::BusMessage sent;
  for (const velt::proto::NodeEntry& e : nodes) *sent.mutable_node_list_update()->add_nodes() = e;
  velt::proto::BusMessage heard;
  if (!heard.ParseFromString(sent.SerializeAsString()) ||
      heard.node_list_update().nodes_size() != static_cast<int>(nodes.size())) {
    fail("the nodelist report does not reach the other agents");
  }
  for (size_t k = 0; k < nodes.size(); ++k) {
    if (heard.node_list_update().nodes(static_cast<int>(k)).name() != nodes[k].name()) fail("a name changed");
  }
  return 0;
}
