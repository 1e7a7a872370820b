// What `veltctl health` and `veltctl links` judge, from what the agent
// answers: corosync's nodelist (the Zel.PeerNode resources), the view, every
// interface the nodes' agents publish (Zel.NetworkInterface) against the
// adapters alive in the raw group, and this node's knet links as corosync
// reports them. Pure: the answers in, the report out.
#ifndef VELT_TOOLS_VELTCTL_HEALTH_H_
#define VELT_TOOLS_VELTCTL_HEALTH_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "velt.pb.h"

namespace velt {
namespace tools {

// One knet link of this node: whether it reaches another node.
struct KnetLink {
  uint32_t link = 0;
  std::string address;  // dotted, or "" when unknown
  bool connected = false;
};

// One knet link of this node towards one other node of the view, with the
// network its local address is on (this node's interface of that address,
// "" when none is published).
struct PeerLink {
  uint32_t peer = 0;
  uint32_t link = 0;
  std::string address;
  std::string network;
  bool connected = false;
};

// One published interface and whether its adapter is alive.
struct AdapterHealth {
  uint32_t node = 0;
  std::string interface;
  std::string address;
  bool up = false;
  bool nodeInView = false;
};

struct HealthReport {
  uint32_t self = 0;
  std::vector<uint32_t> nodelist;   // ascending
  std::vector<uint32_t> view;       // ascending
  std::vector<AdapterHealth> adapters;  // by node, then interface
  bool linksKnown = false;          // corosync answered for this node's links
  std::string linksWhy;             // why not, when not
  std::vector<KnetLink> links;
  std::vector<PeerLink> peerLinks;  // by peer, then link
  // One line per problem ("node 3 is not in the view", "node 2 adapter
  // sxn1 (10.11.0.2) is DOWN", "knet link 1 (10.10.0.1) of this node
  // reaches no other node"); empty when healthy.
  std::vector<std::string> problems;
};

// status: the agent's status answer; raw: the raw adapter group's members
// with their adapters; peers, interfaces: the resources of the two KOR
// classes (attributes named); links: this node's knet links, or null with
// linksWhy when corosync could not be asked (a standalone agent has none).
// peerLinks: this node's links towards each other node of the view (their
// network is filled in here); a link that does not reach a node of the view
// is a problem.
HealthReport assessHealth(const proto::QueryAnswer& status, const proto::GroupSummary& raw,
                          const std::vector<proto::KorResource>& peers,
                          const std::vector<proto::KorResource>& interfaces, const std::vector<KnetLink>* links,
                          const std::string& linksWhy, const std::vector<PeerLink>& peerLinks = {});

}  // namespace tools
}  // namespace velt

#endif  // VELT_TOOLS_VELTCTL_HEALTH_H_
