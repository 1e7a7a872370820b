#include "kor_resources.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include "wire_bytes.h"

namespace velt {
namespace agent {
namespace {

constexpr uint32_t kUndefinedFlags = MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF;

const std::vector<std::string>& peerNodeAttributes() {
  static const std::vector<std::string> names = {kKorAttrNodeList, kKorAttrNodeIds, kKorAttrName};
  return names;
}

const std::vector<std::string>& interfaceAttributes() {
  static const std::vector<std::string> names = {
      kKorAttrName,          kKorAttrNodeIds,         kKorAttrDeviceName,    kKorAttrIpAddress,
      kKorAttrDeviceSubType, kKorAttrLogicalId,       kKorAttrNetworkId,     kKorAttrNetworkId64,
      kKorAttrPortId,        kKorAttrHardwareAddress, kKorAttrDevicePathName};
  return names;
}

// The places of the attributes in the lists above.
enum PeerNodePlace { kPnNodeList, kPnNodeIds, kPnName, kPeerNodePlaces };
enum InterfacePlace {
  kIfName, kIfNodeIds, kIfDeviceName, kIfIpAddress, kIfDeviceSubType, kIfLogicalId,
  kIfNetworkId, kIfNetworkId64, kIfPortId, kIfHardwareAddress, kIfDevicePathName, kInterfacePlaces
};

// The places in a class's attribute list of the names asked for, in the
// order asked, once each, unknown names left out; every place in order
// when none is named (as selectAttributes picks them).
std::vector<int> placesOf(const std::vector<std::string>& classAttributes,
                          const std::vector<std::string>& named) {
  std::vector<int> places;
  if (named.empty()) {
    for (size_t i = 0; i < classAttributes.size(); ++i) places.push_back(static_cast<int>(i));
    return places;
  }
  std::vector<bool> taken(classAttributes.size(), false);
  for (const std::string& wanted : named) {
    auto it = std::find(classAttributes.begin(), classAttributes.end(), wanted);
    if (it == classAttributes.end()) continue;
    const size_t i = static_cast<size_t>(it - classAttributes.begin());
    if (taken[i]) continue;
    taken[i] = true;
    places.push_back(static_cast<int>(i));
  }
  return places;
}

const std::vector<int>& allPeerNodePlaces() {
  static const std::vector<int> places = placesOf(peerNodeAttributes(), {});
  return places;
}

const std::vector<int>& allInterfacePlaces() {
  static const std::vector<int> places = placesOf(interfaceAttributes(), {});
  return places;
}

// "node/N" and "node/N/NAME", without a temporary per piece.
void setHandle(proto::KorResource* r, uint32_t node, const std::string* name) {
  char text[16 + kKorMaxInterfaceNameBytes + 1];
  int n = snprintf(text, sizeof text, "node/%u", node);
  std::string* handle = r->mutable_handle();
  handle->assign(text, static_cast<size_t>(n));
  if (name != nullptr) {
    handle->push_back('/');
    handle->append(*name);
  }
}

void setWhy(std::string* why, std::string text) {
  if (why != nullptr) *why = std::move(text);
}

// UTF-8 without NUL: texts reach C clients as char*, and the wire format
// refuses strings that are not UTF-8, so nothing else may enter the state.
bool isPlainText(const std::string& s, size_t maxBytes) {
  if (s.size() > maxBytes) return false;
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == 0) return false;
    size_t extra;
    uint32_t cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= s.size()) return false;  // cut short
    for (size_t k = 1; k <= extra; ++k) {
      const unsigned char d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (d & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode.
    static const uint32_t kMinByLength[4] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMinByLength[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

bool isDottedIpv4(const std::string& s) {
  if (s.empty() || s.size() > 15) return false;
  in_addr a;
  return inet_pton(AF_INET, s.c_str(), &a) == 1;
}

bool sameFacts(const proto::InterfaceResource& a, const proto::InterfaceResource& b) {
  return a.node() == b.node() && a.name() == b.name() && a.device_name() == b.device_name() &&
         a.ip_address() == b.ip_address() && a.device_sub_type() == b.device_sub_type() &&
         a.logical_id() == b.logical_id() && a.network_id() == b.network_id() &&
         a.network_id64() == b.network_id64() && a.port_id() == b.port_id() &&
         a.hardware_address() == b.hardware_address() &&
         a.device_path_name() == b.device_path_name();
}

// Writes the attributes of one resource, in order, over what the resource
// held: one that held a resource of the same query before (the same
// attributes, so the same fields) keeps the storage of its attributes and
// values, and nothing is allocated again.
class AttributeWriter {
 public:
  explicit AttributeWriter(proto::KorResource* r) : r_(r) {}
  ~AttributeWriter() {
    while (r_->attributes_size() > used_) r_->mutable_attributes()->RemoveLast();
  }
  AttributeWriter(const AttributeWriter&) = delete;
  AttributeWriter& operator=(const AttributeWriter&) = delete;

  void begin(const char* className, uint32_t node, const std::string* name) {
    r_->set_class_name(className);
    setHandle(r_, node, name);
  }
  void text(const char* name, const std::string& text) { add(name, VX_CHAR_PTR)->set_text(text); }
  void unsignedValue(const char* name, vx_data_type_t type, uint64_t value) {
    add(name, type)->set_uint_value(value);
  }
  void signedValue(const char* name, vx_data_type_t type, int64_t value) {
    add(name, type)->set_int_value(value);
  }
  // An array of one value, or an empty one when value is 0 and
  // zeroIsNone.
  void unsignedArray(const char* name, vx_data_type_t type, uint64_t value, bool zeroIsNone) {
    proto::KorValue* v = add(name, type);
    if (value != 0 || !zeroIsNone) v->add_uint_array(value);
  }

 private:
  proto::KorValue* add(const char* name, vx_data_type_t type) {
    proto::KorAttribute* a =
        used_ < r_->attributes_size() ? r_->mutable_attributes(used_) : r_->add_attributes();
    ++used_;
    a->set_name(name);
    proto::KorValue* v = a->mutable_value();
    v->Clear();  // keeps the text's and the arrays' storage
    v->set_type(type);
    return v;
  }

  proto::KorResource* r_;
  int used_ = 0;
};

// The same attributes appended as wire bytes: a KorResource's fields, or a
// KorRow's (the handle, then each value without its type). Every size is
// known before its bytes are written, so nothing is written twice.
class WireWriter {
 public:
  WireWriter(std::string* out, bool asRow) : out_(out), asRow_(asRow) {}

  void begin(const char* className, uint32_t node, const std::string* name) {
    if (!asRow_) wirebytes::putStringField(out_, 1, className, strlen(className));
    char text[16];
    const size_t n = static_cast<size_t>(snprintf(text, sizeof text, "node/%u", node));
    const size_t size = n + (name != nullptr ? 1 + name->size() : 0);
    wirebytes::putLengthPrefix(out_, asRow_ ? 1 : 2, size);
    out_->append(text, n);
    if (name != nullptr) {
      out_->push_back('/');
      out_->append(*name);
    }
  }
  void text(const char* name, const std::string& text) {
    const size_t payload = text.empty() ? 0 : 1 + wirebytes::varintSize(text.size()) + text.size();
    open(name, VX_CHAR_PTR, payload);
    wirebytes::putStringField(out_, 4, text);
  }
  void unsignedValue(const char* name, vx_data_type_t type, uint64_t value) {
    open(name, type, value == 0 ? 0 : 1 + wirebytes::varintSize(value));
    wirebytes::putVarintField(out_, 3, value);
  }
  void signedValue(const char* name, vx_data_type_t type, int64_t value) {
    const uint64_t bits = static_cast<uint64_t>(value);
    open(name, type, bits == 0 ? 0 : 1 + wirebytes::varintSize(bits));
    wirebytes::putVarintField(out_, 2, bits);
  }
  void unsignedArray(const char* name, vx_data_type_t type, uint64_t value, bool zeroIsNone) {
    if (value == 0 && zeroIsNone) {
      open(name, type, 0);
      return;
    }
    const size_t packed = wirebytes::varintSize(value);
    open(name, type, 1 + wirebytes::varintSize(packed) + packed);
    wirebytes::putLengthPrefix(out_, 6, packed);
    wirebytes::putVarint(out_, value);
  }

 private:
  // Writes what comes before a value's payload of payload bytes.
  void open(const char* name, vx_data_type_t type, size_t payload) {
    if (asRow_) {
      wirebytes::putLengthPrefix(out_, 2, payload);
      return;
    }
    const size_t value = 1 + wirebytes::varintSize(type) + payload;
    const size_t nameLen = strlen(name);
    const size_t attribute =
        1 + wirebytes::varintSize(nameLen) + nameLen + 1 + wirebytes::varintSize(value) + value;
    wirebytes::putLengthPrefix(out_, 3, attribute);
    wirebytes::putStringField(out_, 1, name, nameLen);
    wirebytes::putLengthPrefix(out_, 2, value);
    wirebytes::putVarintField(out_, 1, type);
  }

  std::string* out_;
  bool asRow_;
};

// The type of each attribute, by place.
constexpr vx_data_type_t kPeerNodeTypes[kPeerNodePlaces] = {VX_UINT32_ARRAY, VX_UINT64_ARRAY,
                                                             VX_CHAR_PTR};
constexpr vx_data_type_t kInterfaceTypes[kInterfacePlaces] = {
    VX_CHAR_PTR, VX_UINT64_ARRAY, VX_CHAR_PTR, VX_CHAR_PTR, VX_UINT32, VX_INT32,
    VX_UINT32,   VX_UINT64,       VX_UINT32,   VX_CHAR_PTR, VX_CHAR_PTR};

// A "Zel.PeerNode" with the attributes at places, in that order, through
// writer w (an AttributeWriter or a WireWriter).
template <typename Writer>
void fillPeerNode(uint32_t node, const std::string& name, uint64_t nodeId,
                  const std::vector<int>& places, Writer& w) {
  w.begin(KOR_CLASS_PEER_NODE, node, nullptr);
  for (int place : places) {
    switch (place) {
      case kPnNodeList:
        w.unsignedArray(kKorAttrNodeList, kPeerNodeTypes[kPnNodeList], node, false);
        break;
      case kPnNodeIds:
        w.unsignedArray(kKorAttrNodeIds, kPeerNodeTypes[kPnNodeIds], nodeId, true);
        break;
      case kPnName:
        w.text(kKorAttrName, name);
        break;
    }
  }
}

// A "Zel.NetworkInterface" with the attributes at places, in that order,
// through writer w.
template <typename Writer>
void fillInterface(const proto::InterfaceResource& facts, uint64_t nodeId,
                   const std::vector<int>& places, Writer& w) {
  w.begin(KOR_CLASS_NETWORK_INTERFACE, facts.node(), &facts.name());
  for (int place : places) {
    const vx_data_type_t type = kInterfaceTypes[place];
    switch (place) {
      case kIfName:
        w.text(kKorAttrName, facts.name());
        break;
      case kIfNodeIds:
        w.unsignedArray(kKorAttrNodeIds, type, nodeId, true);
        break;
      case kIfDeviceName:
        w.text(kKorAttrDeviceName, facts.device_name());
        break;
      case kIfIpAddress:
        w.text(kKorAttrIpAddress, facts.ip_address());
        break;
      case kIfDeviceSubType:
        w.unsignedValue(kKorAttrDeviceSubType, type, facts.device_sub_type());
        break;
      case kIfLogicalId:
        w.signedValue(kKorAttrLogicalId, type, facts.logical_id());
        break;
      case kIfNetworkId:
        w.unsignedValue(kKorAttrNetworkId, type, facts.network_id());
        break;
      case kIfNetworkId64:
        w.unsignedValue(kKorAttrNetworkId64, type, facts.network_id64());
        break;
      case kIfPortId:
        w.unsignedValue(kKorAttrPortId, type, facts.port_id());
        break;
      case kIfHardwareAddress:
        w.text(kKorAttrHardwareAddress, facts.hardware_address());
        break;
      case kIfDevicePathName:
        w.text(kKorAttrDevicePathName, facts.device_path_name());
        break;
    }
  }
}

void fillPeerNode(uint32_t node, const std::string& name, uint64_t nodeId,
                  const std::vector<int>& places, proto::KorResource* r) {
  AttributeWriter w(r);
  fillPeerNode(node, name, nodeId, places, w);
}

void fillInterface(const proto::InterfaceResource& facts, uint64_t nodeId,
                   const std::vector<int>& places, proto::KorResource* r) {
  AttributeWriter w(r);
  fillInterface(facts, nodeId, places, w);
}

}  // namespace

const KorResources::InterfaceMap& KorResources::Interfaces::empty() {
  static const InterfaceMap none;
  return none;
}

KorResources::InterfaceMap& KorResources::Interfaces::edit() {
  if (!map_) {
    map_ = std::make_shared<InterfaceMap>();
  } else if (map_.use_count() > 1) {
    // An answer being sent holds these: it keeps them as they are.
    map_ = std::make_shared<InterfaceMap>(*map_);
  }
  return *map_;
}

bool KorResources::Node::operator==(const Node& o) const {
  if (name != o.name || id != o.id || generation != o.generation ||
      interfaces.size() != o.interfaces.size()) {
    return false;
  }
  auto a = interfaces.begin();
  auto b = o.interfaces.begin();
  for (; a != interfaces.end(); ++a, ++b) {
    if (a->first != b->first || !sameFacts(a->second, b->second)) return false;
  }
  return true;
}

// ------------------------------------------------------------ resources

std::string KorResources::peerNodeHandle(uint32_t node) { return "node/" + std::to_string(node); }

std::string KorResources::interfaceHandle(uint32_t node, const std::string& name) {
  return peerNodeHandle(node) + "/" + name;
}

proto::KorResource KorResources::peerNodeResource(uint32_t node, const std::string& name,
                                                  uint64_t nodeId) {
  proto::KorResource r;
  fillPeerNode(node, name, nodeId, allPeerNodePlaces(), &r);
  return r;
}

proto::KorResource KorResources::interfaceResource(const proto::InterfaceResource& facts,
                                                   uint64_t nodeId) {
  proto::KorResource r;
  fillInterface(facts, nodeId, allInterfacePlaces(), &r);
  return r;
}

proto::KorResource KorResources::selectAttributes(const proto::KorResource& resource,
                                                  const std::vector<std::string>& attributeNames) {
  if (attributeNames.empty()) return resource;
  proto::KorResource r;
  r.set_class_name(resource.class_name());
  r.set_handle(resource.handle());
  std::set<std::string> taken;
  for (const std::string& wanted : attributeNames) {
    if (!taken.insert(wanted).second) continue;
    for (const proto::KorAttribute& a : resource.attributes()) {
      if (a.name() == wanted) {
        *r.add_attributes() = a;
        break;
      }
    }
  }
  return r;
}

bool KorResources::knownClass(const std::string& className) {
  return attributeNamesOf(className) != nullptr;
}

const std::vector<std::string>* KorResources::attributeNamesOf(const std::string& className) {
  if (className == KOR_CLASS_PEER_NODE) return &peerNodeAttributes();
  if (className == KOR_CLASS_NETWORK_INTERFACE) return &interfaceAttributes();
  return nullptr;
}

bool KorResources::validInterface(const proto::InterfaceResource& f, std::string* why) {
  const std::string& n = f.name();
  if (n.empty() || !isPlainText(n, kKorMaxInterfaceNameBytes) ||
      n.find('/') != std::string::npos) {
    setWhy(why, "interface name is empty, longer than 15 bytes, or not a plain name");
    return false;
  }
  if (!isPlainText(f.device_name(), kKorMaxDeviceNameBytes)) {
    setWhy(why, "device name of " + n + " is longer than 64 bytes or not plain text");
    return false;
  }
  if (!isPlainText(f.device_path_name(), kKorMaxDevicePathBytes)) {
    setWhy(why, "device path of " + n + " is longer than 255 bytes or not plain text");
    return false;
  }
  if (!isPlainText(f.hardware_address(), kKorMaxHardwareAddressBytes)) {
    setWhy(why, "hardware address of " + n + " is longer than 59 bytes or not plain text");
    return false;
  }
  if (!isDottedIpv4(f.ip_address())) {
    setWhy(why, "IP address of " + n + " is not a dotted IPv4 address");
    return false;
  }
  return true;
}

// ------------------------------------------------------------ events

void KorResources::emit(const char* className, const char* event, uint32_t flags,
                        proto::KorResource resource) {
  KorChange c;
  c.className = className;
  c.event = event;
  c.flags = flags;
  c.resource = std::move(resource);
  sink_->korEvent(c);
}

void KorResources::emitNodeChanges(uint32_t number, const Node* before, const Node* after) {
  if (sink_ == nullptr || (before == nullptr && after == nullptr)) return;
  const char* kNode = KOR_CLASS_PEER_NODE;
  const char* kIf = KOR_CLASS_NETWORK_INTERFACE;
  if (after == nullptr) {
    for (const auto& e : before->interfaces) {
      emit(kIf, KOR_EVENT_UNDEFINED, 0, interfaceResource(e.second, before->id));
      emit(kIf, KOR_CONDITION_CONFIG_CHANGED, kUndefinedFlags,
           interfaceResource(e.second, before->id));
    }
    emit(kNode, KOR_EVENT_UNDEFINED, 0,
         peerNodeResource(number, before->name, before->id));
    return;
  }
  if (before == nullptr) {
    emit(kNode, KOR_EVENT_DEFINED, 0,
         peerNodeResource(number, after->name, after->id));
    for (const auto& e : after->interfaces) {
      emit(kIf, KOR_EVENT_DEFINED, 0, interfaceResource(e.second, after->id));
      emit(kIf, KOR_CONDITION_CONFIG_CHANGED, 0, interfaceResource(e.second, after->id));
    }
    return;
  }
  if (before->name != after->name || before->id != after->id) {
    emit(kNode, KOR_CONDITION_CONFIG_CHANGED, 0,
         peerNodeResource(number, after->name, after->id));
  }
  // Both interface maps by name, side by side.
  auto b = before->interfaces.begin();
  auto a = after->interfaces.begin();
  while (b != before->interfaces.end() || a != after->interfaces.end()) {
    if (a == after->interfaces.end() ||
        (b != before->interfaces.end() && b->first < a->first)) {
      emit(kIf, KOR_EVENT_UNDEFINED, 0, interfaceResource(b->second, before->id));
      emit(kIf, KOR_CONDITION_CONFIG_CHANGED, kUndefinedFlags,
           interfaceResource(b->second, before->id));
      ++b;
    } else if (b == before->interfaces.end() || a->first < b->first) {
      emit(kIf, KOR_EVENT_DEFINED, 0, interfaceResource(a->second, after->id));
      emit(kIf, KOR_CONDITION_CONFIG_CHANGED, 0, interfaceResource(a->second, after->id));
      ++a;
    } else {
      if (before->id != after->id || !sameFacts(b->second, a->second)) {
        emit(kIf, KOR_CONDITION_CONFIG_CHANGED, 0, interfaceResource(a->second, after->id));
      }
      ++a;
      ++b;
    }
  }
}

// ------------------------------------------------------------ the stream

int KorResources::applyNodeList(uint32_t origin, const proto::NodeListUpdate& update,
                                std::string* why) {
  if (static_cast<size_t>(update.nodes_size()) > kKorMaxNodes) {
    setWhy(why, "nodelist from node " + std::to_string(origin) + " has " +
                    std::to_string(update.nodes_size()) + " nodes, more than " +
                    std::to_string(kKorMaxNodes));
    return -1;
  }
  std::map<uint32_t, const std::string*> listed;
  for (const proto::NodeEntry& e : update.nodes()) {
    if (e.node() == 0) {
      setWhy(why, "nodelist from node " + std::to_string(origin) + " holds node number 0");
      return -1;
    }
    if (!isPlainText(e.name(), kKorMaxNodeNameBytes)) {
      setWhy(why, "nodelist from node " + std::to_string(origin) + ": the name of node " +
                      std::to_string(e.node()) + " is longer than 255 bytes or not plain text");
      return -1;
    }
    if (!listed.emplace(e.node(), &e.name()).second) {
      setWhy(why, "nodelist from node " + std::to_string(origin) + " holds node " +
                      std::to_string(e.node()) + " twice");
      return -1;
    }
  }
  hasNodeList_ = true;
  // Every node that was or is listed, ascending.
  std::set<uint32_t> numbers;
  for (const auto& e : nodes_) numbers.insert(e.first);
  for (const auto& e : listed) numbers.insert(e.first);
  for (uint32_t n : numbers) {
    auto held = nodes_.find(n);
    auto wanted = listed.find(n);
    if (wanted == listed.end()) {
      emitNodeChanges(n, &held->second, nullptr);
      nodes_.erase(held);
    } else if (held == nodes_.end()) {
      Node& node = nodes_[n];
      node.name = *wanted->second;
      emitNodeChanges(n, nullptr, &node);
    } else if (held->second.name != *wanted->second) {
      held->second.name = *wanted->second;
      if (sink_ != nullptr) {
        emit(KOR_CLASS_PEER_NODE, KOR_CONDITION_CONFIG_CHANGED, 0,
             peerNodeResource(n, held->second.name, held->second.id));
      }
    }
  }
  return 0;
}

KorResources::Node* KorResources::usableNode(uint32_t number, std::string* why) {
  auto it = nodes_.find(number);
  if (it != nodes_.end()) return &it->second;
  if (hasNodeList_) {
    setWhy(why, "node " + std::to_string(number) + " is not in the nodelist");
    return nullptr;
  }
  if (number == 0) {
    setWhy(why, "node number 0");
    return nullptr;
  }
  if (nodes_.size() >= kKorMaxNodes) {
    setWhy(why, "already " + std::to_string(kKorMaxNodes) + " nodes");
    return nullptr;
  }
  return &nodes_[number];
}

int KorResources::applyNodeId(uint32_t node, uint64_t id, std::string* why) {
  if (id == 0) {
    setWhy(why, "node " + std::to_string(node) + " announced no id");
    return -1;
  }
  const bool known = hasNode(node);
  Node* n = usableNode(node, why);
  if (n == nullptr) return -1;
  if (known && n->id == id) return 0;
  Node before;
  if (known && sink_ != nullptr) before = *n;
  n->id = id;
  emitNodeChanges(node, known ? &before : nullptr, n);
  return 0;
}

int KorResources::applyInterfaceUpdate(uint32_t origin, const proto::InterfaceUpdate& update,
                                       std::string* why) {
  const proto::InterfaceResource& facts = update.resource();
  if (facts.node() != origin) {
    setWhy(why, "node " + std::to_string(origin) + " reported an interface of node " +
                    std::to_string(facts.node()));
    return -1;
  }
  if (update.removed()) {
    const std::string& n = facts.name();
    if (n.empty() || !isPlainText(n, kKorMaxInterfaceNameBytes) ||
        n.find('/') != std::string::npos) {
      setWhy(why, "interface name is empty, longer than 15 bytes, or not a plain name");
      return -1;
    }
  } else if (!validInterface(facts, why)) {
    return -1;
  }
  const bool known = hasNode(origin);
  if (!known && update.removed()) {
    // Nothing to withdraw: no node is made known for it.
    setWhy(why, "node " + std::to_string(origin) + " is not known");
    return -1;
  }
  Node* n = usableNode(origin, why);
  if (n == nullptr) return -1;
  const bool held = n->interfaces.find(facts.name()) != n->interfaces.end();
  if (!update.removed() && !held && n->interfaces.size() >= kKorMaxInterfacesPerNode) {
    setWhy(why, "node " + std::to_string(origin) + " already publishes " +
                    std::to_string(kKorMaxInterfacesPerNode) + " interfaces");
    if (!known) nodes_.erase(origin);
    return -1;
  }
  Node before;
  if (known && sink_ != nullptr) before = *n;
  if (update.removed()) {
    if (held) n->interfaces.edit().erase(facts.name());
  } else {
    n->interfaces.edit()[facts.name()] = facts;
  }
  n->generation = std::max(n->generation, update.generation());
  emitNodeChanges(origin, known ? &before : nullptr, n);
  return 0;
}

// ------------------------------------------------------------ images

proto::KorImage KorResources::image() const {
  proto::KorImage img;
  img.set_has_node_list(hasNodeList_);
  for (const auto& e : nodes_) {
    proto::KorNodeImage* n = img.add_nodes();
    n->set_node(e.first);
    n->set_name(e.second.name);
    n->set_node_id(e.second.id);
    n->set_generation(e.second.generation);
    for (const auto& i : e.second.interfaces) *img.add_interfaces() = i.second;
  }
  return img;
}

bool KorResources::validImage(const proto::KorImage& image, std::string* why) {
  if (static_cast<size_t>(image.nodes_size()) > kKorMaxNodes) {
    setWhy(why, std::to_string(image.nodes_size()) + " nodes, more than " +
                    std::to_string(kKorMaxNodes));
    return false;
  }
  if (static_cast<size_t>(image.interfaces_size()) > kKorMaxNodes * kKorMaxInterfacesPerNode) {
    setWhy(why, std::to_string(image.interfaces_size()) + " interfaces, more than the nodes hold");
    return false;
  }
  uint32_t last = 0;
  for (const proto::KorNodeImage& n : image.nodes()) {
    if (n.node() == 0 || n.node() <= last) {
      setWhy(why, "node " + std::to_string(n.node()) + " is 0 or out of order");
      return false;
    }
    last = n.node();
    if (!isPlainText(n.name(), kKorMaxNodeNameBytes)) {
      setWhy(why, "the name of node " + std::to_string(n.node()) +
                      " is longer than 255 bytes or not plain text");
      return false;
    }
  }
  int node = 0;  // index into nodes: the node of the interfaces seen
  size_t perNode = 0;
  const proto::InterfaceResource* previous = nullptr;
  for (const proto::InterfaceResource& i : image.interfaces()) {
    if (!validInterface(i, why)) return false;
    if (previous != nullptr &&
        (i.node() < previous->node() ||
         (i.node() == previous->node() && i.name() <= previous->name()))) {
      setWhy(why, "interface " + interfaceHandle(i.node(), i.name()) + " is out of order");
      return false;
    }
    if (previous == nullptr || i.node() != previous->node()) perNode = 0;
    while (node < image.nodes_size() && image.nodes(node).node() < i.node()) ++node;
    if (node == image.nodes_size() || image.nodes(node).node() != i.node()) {
      setWhy(why, "interface " + interfaceHandle(i.node(), i.name()) + " of a node not held");
      return false;
    }
    if (++perNode > kKorMaxInterfacesPerNode) {
      setWhy(why, "node " + std::to_string(i.node()) + " has more than " +
                      std::to_string(kKorMaxInterfacesPerNode) + " interfaces");
      return false;
    }
    previous = &i;
  }
  return true;
}

void KorResources::fromImage(proto::KorImage* image, NodeMap* nodes, bool* hasNodeList) {
  nodes->clear();
  *hasNodeList = image->has_node_list();
  for (const proto::KorNodeImage& n : image->nodes()) {
    Node& node = (*nodes)[n.node()];
    node.name = n.name();
    node.id = n.node_id();
    node.generation = n.generation();
  }
  // The interfaces are taken out of the image one at a time, the last
  // first, so that an image of the largest cluster and the state made
  // from it are never held whole side by side.
  google::protobuf::RepeatedPtrField<proto::InterfaceResource>* interfaces = image->mutable_interfaces();
  while (!interfaces->empty()) {
    std::unique_ptr<proto::InterfaceResource> i(interfaces->ReleaseLast());
    auto it = nodes->find(i->node());
    if (it == nodes->end()) continue;
    std::string name = i->name();
    it->second.interfaces.edit()[name] = std::move(*i);
  }
}

proto::KorImage KorResources::merge(const std::vector<proto::KorImage*>& images,
                                    size_t* leftOut, std::string* why) {
  std::vector<proto::KorImage*> valid;
  size_t refused = 0;
  for (proto::KorImage* img : images) {
    std::string reason;
    if (img != nullptr && validImage(*img, &reason)) {
      valid.push_back(img);
      continue;
    }
    if (refused++ == 0) setWhy(why, img == nullptr ? "no image" : reason);
  }
  if (leftOut != nullptr) *leftOut = refused;

  bool anyNodeList = false;
  for (const proto::KorImage* img : valid) anyNodeList |= img->has_node_list();

  // Per node: where its name comes from (the first listing image), and the
  // image its interfaces and generation come from.
  struct Choice {
    const proto::KorNodeImage* named = nullptr;
    const proto::KorNodeImage* newest = nullptr;
    size_t newestImage = 0;
    uint64_t id = 0;
    uint64_t idGeneration = 0;
  };
  std::map<uint32_t, Choice> chosen;
  for (const proto::KorImage* img : valid) {
    if (anyNodeList && !img->has_node_list()) continue;
    for (const proto::KorNodeImage& n : img->nodes()) {
      Choice& c = chosen[n.node()];
      if (c.named == nullptr) c.named = &n;
    }
  }
  for (size_t k = 0; k < valid.size(); ++k) {
    for (const proto::KorNodeImage& n : valid[k]->nodes()) {
      auto it = chosen.find(n.node());
      if (it == chosen.end()) continue;
      Choice& c = it->second;
      if (c.newest == nullptr || n.generation() > c.newest->generation()) {
        c.newest = &n;
        c.newestImage = k;
      }
      if (n.node_id() != 0 && (c.id == 0 || n.generation() > c.idGeneration)) {
        c.id = n.node_id();
        c.idGeneration = n.generation();
      }
    }
  }

  proto::KorImage out;
  out.set_has_node_list(anyNodeList);
  for (const auto& e : chosen) {
    proto::KorNodeImage* n = out.add_nodes();
    n->set_node(e.first);
    n->set_name(e.second.named->name());
    n->set_node_id(e.second.id);
    n->set_generation(e.second.newest->generation());
  }
  // Interfaces: both the output's nodes and each image's interfaces are
  // ascending, so one pass per image in node order keeps canonical order.
  std::vector<int> cursor(valid.size(), 0);
  for (const auto& e : chosen) {
    for (size_t k = 0; k < valid.size(); ++k) {
      proto::KorImage& img = *valid[k];
      int& i = cursor[k];
      while (i < img.interfaces_size() && img.interfaces(i).node() < e.first) ++i;
      while (i < img.interfaces_size() && img.interfaces(i).node() == e.first) {
        if (k == e.second.newestImage) out.add_interfaces()->Swap(img.mutable_interfaces(i));
        ++i;
      }
    }
  }
  return out;
}

size_t KorResources::adopt(const std::vector<const proto::KorImage*>& images, std::string* why) {
  std::vector<proto::KorImage> copies(images.size());
  std::vector<proto::KorImage*> taken;
  for (size_t k = 0; k < images.size(); ++k) {
    if (images[k] != nullptr) copies[k] = *images[k];
    taken.push_back(images[k] != nullptr ? &copies[k] : nullptr);
  }
  return take(taken, why);
}

size_t KorResources::take(const std::vector<proto::KorImage*>& images, std::string* why) {
  size_t leftOut = 0;
  proto::KorImage merged = merge(images, &leftOut, why);
  NodeMap after;
  bool hasNodeList = false;
  fromImage(&merged, &after, &hasNodeList);
  std::set<uint32_t> numbers;
  for (const auto& e : nodes_) numbers.insert(e.first);
  for (const auto& e : after) numbers.insert(e.first);
  for (uint32_t n : numbers) {
    auto b = nodes_.find(n);
    auto a = after.find(n);
    emitNodeChanges(n, b == nodes_.end() ? nullptr : &b->second,
                    a == after.end() ? nullptr : &a->second);
  }
  nodes_ = std::move(after);
  hasNodeList_ = hasNodeList;
  return leftOut;
}

// ------------------------------------------------------------ queries

std::vector<proto::KorResource> KorResources::query(
    const std::string& className, const std::vector<std::string>& attributeNames) const {
  std::vector<proto::KorResource> out;
  out.reserve(className == KOR_CLASS_PEER_NODE ? nodes_.size() : 0);
  queryInto(className, attributeNames, [&out] {
    out.emplace_back();
    return &out.back();
  });
  return out;
}

size_t KorResources::queryInto(const std::string& className,
                               const std::vector<std::string>& attributeNames,
                               const std::function<proto::KorResource*()>& next) const {
  const std::vector<std::string>* classAttributes = attributeNamesOf(className);
  if (classAttributes == nullptr) return 0;
  // Only the attributes asked for are made: no resource is built whole to
  // be cut down afterwards.
  const std::vector<int> places = placesOf(*classAttributes, attributeNames);
  size_t filled = 0;
  if (className == KOR_CLASS_PEER_NODE) {
    for (const auto& e : nodes_) {
      proto::KorResource* r = next();
      if (r == nullptr) return filled;
      fillPeerNode(e.first, e.second.name, e.second.id, places, r);
      ++filled;
    }
    return filled;
  }
  for (const auto& e : nodes_) {
    for (const auto& i : e.second.interfaces) {
      proto::KorResource* r = next();
      if (r == nullptr) return filled;
      fillInterface(i.second, e.second.id, places, r);
      ++filled;
    }
  }
  return filled;
}

KorResources::Answer KorResources::answer(const std::string& className,
                                          const std::vector<std::string>& attributeNames) const {
  Answer a;
  const std::vector<std::string>* classAttributes = attributeNamesOf(className);
  if (classAttributes == nullptr) return a;
  a.className_ = className;
  a.places_ = placesOf(*classAttributes, attributeNames);
  a.interfaces_ = className == KOR_CLASS_NETWORK_INTERFACE;
  for (int place : a.places_) {
    a.columns_.push_back(Answer::Column{(*classAttributes)[static_cast<size_t>(place)],
                                        a.interfaces_ ? kInterfaceTypes[place] : kPeerNodeTypes[place]});
  }
  a.nodes_.reserve(nodes_.size());
  for (const auto& e : nodes_) {
    Answer::NodeFacts n;
    n.number = e.first;
    n.id = e.second.id;
    if (a.interfaces_) {
      if (e.second.interfaces.size() == 0) continue;
      n.interfaces = e.second.interfaces.share();
      a.size_ += n.interfaces->size();
    } else {
      n.name = e.second.name;
      ++a.size_;
    }
    a.nodes_.push_back(std::move(n));
  }
  if (a.interfaces_ && !a.nodes_.empty()) a.next_ = a.nodes_.front().interfaces->begin();
  return a;
}

void KorResources::Answer::settle() {
  while (node_ < nodes_.size() && next_ == nodes_[node_].interfaces->end()) {
    nodes_[node_].interfaces.reset();  // written: the answer lets go of it
    if (++node_ < nodes_.size()) next_ = nodes_[node_].interfaces->begin();
  }
}

size_t KorResources::Answer::writeNext(bool asRow, std::string* out) {
  const size_t before = out->size();
  WireWriter w(out, asRow);
  if (interfaces_) {
    fillInterface(next_->second, nodes_[node_].id, places_, w);
    ++next_;
    settle();
  } else {
    const NodeFacts& n = nodes_[node_++];
    fillPeerNode(n.number, n.name, n.id, places_, w);
  }
  ++written_;
  return out->size() - before;
}

int KorResources::resource(const std::string& handle, proto::KorResource* out) const {
  static const std::string kPrefix = "node/";
  if (handle.compare(0, kPrefix.size(), kPrefix) != 0) return -1;
  size_t end = kPrefix.size();
  uint64_t number = 0;
  while (end < handle.size() && end - kPrefix.size() < 10 && handle[end] >= '0' &&
         handle[end] <= '9') {
    number = number * 10 + static_cast<uint64_t>(handle[end] - '0');
    ++end;
  }
  if (end == kPrefix.size() || number > UINT32_MAX) return -1;
  auto node = nodes_.find(static_cast<uint32_t>(number));
  if (node == nodes_.end()) return -1;
  // Only the canonical spelling names a resource ("node/01" does not).
  if (end == handle.size()) {
    if (handle != peerNodeHandle(node->first)) return -1;
    *out = peerNodeResource(node->first, node->second.name, node->second.id);
    return 0;
  }
  if (handle[end] != '/') return -1;
  auto i = node->second.interfaces.find(handle.substr(end + 1));
  if (i == node->second.interfaces.end() || handle != interfaceHandle(node->first, i->first)) {
    return -1;
  }
  *out = interfaceResource(i->second, node->second.id);
  return 0;
}

size_t KorResources::interfaceCount() const {
  size_t n = 0;
  for (const auto& e : nodes_) n += e.second.interfaces.size();
  return n;
}

uint64_t KorResources::nodeIdOf(uint32_t node) const {
  auto it = nodes_.find(node);
  return it == nodes_.end() ? 0 : it->second.id;
}

uint64_t KorResources::generationOf(uint32_t node) const {
  auto it = nodes_.find(node);
  return it == nodes_.end() ? 0 : it->second.generation;
}

std::vector<proto::InterfaceResource> KorResources::interfacesOf(uint32_t node) const {
  std::vector<proto::InterfaceResource> out;
  auto it = nodes_.find(node);
  if (it == nodes_.end()) return out;
  for (const auto& e : it->second.interfaces) out.push_back(e.second);
  return out;
}

std::vector<proto::NodeEntry> KorResources::nodeEntries() const {
  std::vector<proto::NodeEntry> out;
  for (const auto& e : nodes_) {
    proto::NodeEntry n;
    n.set_node(e.first);
    n.set_name(e.second.name);
    out.push_back(std::move(n));
  }
  return out;
}

uint64_t KorResources::digest() const {
  std::string bytes;
  {
    google::protobuf::io::StringOutputStream stream(&bytes);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    image().SerializeToCodedStream(&coded);
  }
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : bytes) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

bool KorResources::operator==(const KorResources& other) const {
  return hasNodeList_ == other.hasNodeList_ && nodes_ == other.nodes_;
}

}  // namespace agent
}  // namespace velt
