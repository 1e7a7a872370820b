// An adapter report as a node's agent makes it, for the tests of the raw
// adapter group and of the adapter table.
#ifndef VELT_TESTS_AGENT_ADAPTER_UPDATES_H_
#define VELT_TESTS_AGENT_ADAPTER_UPDATES_H_

#include <string>

#include "velt.pb.h"

namespace velt {
namespace agent {
namespace testing {

// The address of adapter sxnINDEX of a node: 10.INDEX.0.NODE.
inline std::string ipOf(uint32_t node, uint32_t index) {
  return std::string{10, static_cast<char>(index), 0, static_cast<char>(node)};
}

// Node's report of adapter sxnINDEX (network sxnINDEX, instance INDEX).
inline proto::AdapterUpdate update(uint32_t node, uint32_t index, bool alive, bool removed = false,
                                   const std::string& ip = "") {
  proto::AdapterUpdate u;
  proto::AdapterInfo* a = u.mutable_adapter();
  a->set_ip(ip.empty() ? ipOf(node, index) : ip);
  a->set_interface_name("sxn" + std::to_string(index));
  a->set_node(node);
  a->set_network_name("sxn" + std::to_string(index));
  a->set_network_type("switch");
  a->set_instance(index);
  u.set_alive(alive);
  u.set_removed(removed);
  return u;
}

}  // namespace testing
}  // namespace agent
}  // namespace velt

#endif  // VELT_TESTS_AGENT_ADAPTER_UPDATES_H_
