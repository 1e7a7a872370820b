// AdapterTable: the adapters of the cluster's nodes as the replicated state
// holds them, by node then index, each with its information and whether it
// is alive. The live ones are the providers of the raw group
// "allAdapterMembership", in the table's order. Each node reports its own
// adapters; a merge takes each node's adapters from the snapshot that
// speaks for that node, so the raw group is never dissolved. The table
// decides what enters it (what a peer could not have sent is dropped) and
// what the raw group's subscribers must hear when it changes; ClusterState
// owns it and tells the sink.
// Thread-compatible (the ClusterState that owns it serialises every call).
#ifndef VELT_AGENT_ADAPTER_TABLE_H_
#define VELT_AGENT_ADAPTER_TABLE_H_

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <set>
#include <vector>

#include "replica.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

// Provider ids carry instance and node in 16 bits each.
constexpr uint32_t kMaxProviderField = 0xffff;

class AdapterTable {
 public:
  // At most maxPerNode adapters of one node are kept.
  explicit AdapterTable(size_t maxPerNode);

  // Whether an adapter of node is one a peer could have sent: its own
  // node, fields the client library can hold.
  static bool valid(const proto::AdapterInfo& adapter, uint32_t node);
  // The raw group's attributes (it is a one-phase group that approves).
  static proto::GroupAttributes rawGroupAttributes();

  // An adapter of origin appeared, changed or disappeared. A report about
  // another node's adapter, an adapter that is not valid(), a new adapter
  // beyond the limit per node and the removal of an unknown one change
  // nothing. When changes is not null, it gets what the raw group's
  // subscribers must hear (nothing when the report repeats what is held).
  void apply(uint32_t origin, const proto::AdapterUpdate& update,
             std::vector<GroupChange>* changes);

  // ---- state transfer

  // Appends every adapter, in the table's order, to image.
  void toImage(proto::ClusterStateImage* image) const;
  // Takes the adapters of nodes from one snapshot's image (a merge calls
  // this once per snapshot, each node named by exactly one of them).
  // Adapters that are not valid(), those beyond the limit per node and
  // repeats (the first counts) are dropped.
  void takeFromImage(const proto::ClusterStateImage& image, const std::set<uint32_t>& nodes);
  // What the raw group's subscribers must hear about the change from
  // before to this table: the live adapters that left (or changed, with
  // their old information), then those that joined (or changed, with the
  // new), each as one change.
  std::vector<GroupChange> changesSince(const AdapterTable& before) const;

  // ---- reading

  // The adapters of one node, live or not, by index.
  std::vector<proto::AdapterImage> adaptersOf(uint32_t node) const;
  // The live adapters, in the raw group's member order.
  std::vector<proto::AdapterInfo> liveAdapters() const;
  // The raw group's members (one provider per live adapter).
  std::vector<proto::ProviderId> liveMembers() const;
  size_t size() const { return adapters_.size(); }

 private:
  // By node, then index: the raw group's member order.
  struct Key {
    uint32_t node = 0;
    uint32_t instance = 0;
    bool operator<(const Key& o) const {
      return node != o.node ? node < o.node : instance < o.instance;
    }
    bool operator==(const Key& o) const { return node == o.node && instance == o.instance; }
  };
  struct Adapter {
    proto::AdapterInfo info;
    bool alive = false;
  };
  using AdapterMap = std::map<Key, Adapter>;

  size_t countOf(uint32_t node) const;

  size_t maxPerNode_;
  AdapterMap adapters_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_ADAPTER_TABLE_H_
