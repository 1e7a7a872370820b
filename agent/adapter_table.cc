#include "adapter_table.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <algorithm>
#include <string>
#include <utility>

#include "gs_types.h"

namespace velt {
namespace agent {

namespace {

std::string deterministicBytes(const google::protobuf::MessageLite& m) {
  std::string out;
  {
    google::protobuf::io::StringOutputStream sos(&out);
    google::protobuf::io::CodedOutputStream cos(&sos);
    cos.SetSerializationDeterministic(true);
    m.SerializeToCodedStream(&cos);
  }
  return out;
}

}  // namespace

AdapterTable::AdapterTable(size_t maxPerNode) : maxPerNode_(maxPerNode) {}

bool AdapterTable::valid(const proto::AdapterInfo& a, uint32_t node) {
  // The client library refuses a notification with fields it cannot hold,
  // so nothing of that kind may enter the replicated state.
  return a.node() == node && node <= kMaxProviderField && a.instance() <= kMaxProviderField &&
         (a.ip().size() == 4 || a.ip().size() == 16) &&
         a.interface_name().size() <= TK_GS_MAX_INTERFACE_NAME_LENGTH &&
         a.network_name().size() <= TK_GS_MAX_NETWORK_NAME_LENGTH &&
         a.network_type().size() <= TK_GS_MAX_NETWORK_TYPE_LENGTH;
}

proto::GroupAttributes AdapterTable::rawGroupAttributes() {
  proto::GroupAttributes a;
  a.set_group_name(kRawAdapterGroup);
  a.set_num_phases(TK_GS_1_PHASE);
  a.set_default_vote(TK_GS_VOTE_APPROVE);
  return a;
}

size_t AdapterTable::countOf(uint32_t node) const {
  size_t n = 0;
  for (auto e = adapters_.lower_bound(Key{node, 0}); e != adapters_.end() && e->first.node == node;
       ++e) {
    ++n;
  }
  return n;
}

void AdapterTable::apply(uint32_t origin, const proto::AdapterUpdate& u,
                         std::vector<GroupChange>* changes) {
  const proto::AdapterInfo& a = u.adapter();
  if (a.node() != origin || a.instance() > kMaxProviderField) return;
  Key k{origin, a.instance()};
  // What subscribers knew, to tell them the difference (only when somebody
  // listens).
  AdapterTable before(maxPerNode_);
  if (changes != nullptr) before.adapters_ = adapters_;
  if (u.removed()) {
    if (adapters_.erase(k) == 0) return;
  } else {
    if (!valid(a, origin)) return;
    auto it = adapters_.find(k);
    if (it == adapters_.end()) {
      if (countOf(origin) >= maxPerNode_) return;
      it = adapters_.emplace(k, Adapter()).first;
    }
    it->second.info = a;
    it->second.alive = u.alive();
  }
  if (changes != nullptr) {
    std::vector<GroupChange> c = changesSince(before);
    changes->insert(changes->end(), std::make_move_iterator(c.begin()),
                    std::make_move_iterator(c.end()));
  }
}

void AdapterTable::toImage(proto::ClusterStateImage* image) const {
  for (const auto& e : adapters_) {
    proto::AdapterImage* ai = image->add_adapters();
    *ai->mutable_adapter() = e.second.info;
    ai->set_alive(e.second.alive);
  }
}

void AdapterTable::takeFromImage(const proto::ClusterStateImage& image,
                                 const std::set<uint32_t>& nodes) {
  for (const proto::AdapterImage& ai : image.adapters()) {
    uint32_t node = ai.adapter().node();
    if (nodes.count(node) == 0) continue;
    if (!valid(ai.adapter(), node) || countOf(node) >= maxPerNode_) continue;
    // Listed twice: the first counts.
    adapters_.emplace(Key{node, ai.adapter().instance()}, Adapter{ai.adapter(), ai.alive()});
  }
}

std::vector<GroupChange> AdapterTable::changesSince(const AdapterTable& before) const {
  auto live = [](const AdapterMap& m, const Key& k) -> const Adapter* {
    auto it = m.find(k);
    return it != m.end() && it->second.alive ? &it->second : nullptr;
  };
  // An adapter whose information changed while it stayed alive (a new
  // address) leaves with the old and joins with the new, so that
  // subscribers drop the old address.
  std::vector<Key> left, stayed, joined, now;
  for (const auto& e : before.adapters_) {
    const Adapter* after = live(adapters_, e.first);
    if (!e.second.alive) continue;
    if (after == nullptr ||
        deterministicBytes(after->info) != deterministicBytes(e.second.info)) {
      left.push_back(e.first);
    } else {
      stayed.push_back(e.first);
    }
  }
  for (const auto& e : adapters_) {
    if (!e.second.alive) continue;
    now.push_back(e.first);
    if (std::find(stayed.begin(), stayed.end(), e.first) == stayed.end()) {
      joined.push_back(e.first);
    }
  }
  auto fill = [](const AdapterMap& m, const std::vector<Key>& keys,
                 std::vector<proto::ProviderId>* ids, std::vector<proto::AdapterInfo>* infos) {
    for (const Key& k : keys) {
      proto::ProviderId id;
      id.set_instance(k.instance);
      id.set_node(k.node);
      ids->push_back(id);
      infos->push_back(m.at(k).info);
    }
  };
  std::vector<GroupChange> out;
  if (!left.empty()) {
    GroupChange c;
    c.kind = GroupChange::LEFT;
    c.group = kRawAdapterGroup;
    c.attributes = rawGroupAttributes();
    fill(before.adapters_, left, &c.changing, &c.changingAdapters);
    fill(before.adapters_, stayed, &c.current, &c.currentAdapters);
    out.push_back(std::move(c));
  }
  if (!joined.empty()) {
    GroupChange c;
    c.kind = GroupChange::JOINED;
    c.group = kRawAdapterGroup;
    c.attributes = rawGroupAttributes();
    fill(adapters_, joined, &c.changing, &c.changingAdapters);
    fill(adapters_, now, &c.current, &c.currentAdapters);
    out.push_back(std::move(c));
  }
  return out;
}

std::vector<proto::AdapterImage> AdapterTable::adaptersOf(uint32_t node) const {
  std::vector<proto::AdapterImage> out;
  for (auto e = adapters_.lower_bound(Key{node, 0}); e != adapters_.end() && e->first.node == node;
       ++e) {
    proto::AdapterImage img;
    *img.mutable_adapter() = e->second.info;
    img.set_alive(e->second.alive);
    out.push_back(std::move(img));
  }
  return out;
}

std::vector<proto::AdapterInfo> AdapterTable::liveAdapters() const {
  std::vector<proto::AdapterInfo> out;
  for (const auto& e : adapters_) {
    if (e.second.alive) out.push_back(e.second.info);
  }
  return out;
}

std::vector<proto::ProviderId> AdapterTable::liveMembers() const {
  std::vector<proto::ProviderId> out;
  for (const auto& e : adapters_) {
    if (!e.second.alive) continue;
    proto::ProviderId id;
    id.set_instance(e.first.instance);
    id.set_node(e.first.node);
    out.push_back(id);
  }
  return out;
}

}  // namespace agent
}  // namespace velt
