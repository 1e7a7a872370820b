// KorResources: the KOR part of the replicated state. Every agent applies
// the same ordered stream to it (nodelist reports, node id announces,
// interface updates, merged snapshots), so every node holds the same
// "Zel.PeerNode" and "Zel.NetworkInterface" resources and tells its sink the
// same events in the same order. It makes no system calls.
// Thread-compatible (callers serialise; the agent's event loop owns it).
#ifndef VELT_AGENT_KOR_RESOURCES_H_
#define VELT_AGENT_KOR_RESOURCES_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kor_types.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

// Bounds on what the KOR state holds; a report or image past them is
// refused whole.
constexpr size_t kKorMaxNodes = 2049;
constexpr size_t kKorMaxNodeNameBytes = 255;
constexpr size_t kKorMaxInterfacesPerNode = 64;
constexpr size_t kKorMaxInterfaceNameBytes = 15;  // IFNAMSIZ - 1
constexpr size_t kKorMaxHardwareAddressBytes = 59;  // 20 bytes as "xx:" text
constexpr size_t kKorMaxDeviceNameBytes = 64;
constexpr size_t kKorMaxDevicePathBytes = 255;

// Attribute names of the two classes, in the order a query gives them when
// it names none.
constexpr char kKorAttrNodeList[] = "NodeList";
constexpr char kKorAttrNodeIds[] = "NodeIDs";
constexpr char kKorAttrName[] = "Name";
constexpr char kKorAttrDeviceName[] = "DeviceName";
constexpr char kKorAttrIpAddress[] = "IPAddress";
constexpr char kKorAttrDeviceSubType[] = "DeviceSubType";
constexpr char kKorAttrLogicalId[] = "LogicalID";
constexpr char kKorAttrNetworkId[] = "NetworkID";
constexpr char kKorAttrNetworkId64[] = "NetworkID64";
constexpr char kKorAttrPortId[] = "PortID";
constexpr char kKorAttrHardwareAddress[] = "HardwareAddress";
constexpr char kKorAttrDevicePathName[] = "DevicePathName";

// One event, in the order the state changed. class_name/event are the
// KOR_* names; flags are MC_EVENT_* bits (resource events only);
// resource carries every attribute (as it is now, or as it was for an
// undefined resource). The agent picks the registrations it concerns.
struct KorChange {
  std::string className;
  std::string event;
  uint32_t flags = 0;
  proto::KorResource resource;
};

// Where KorResources tells what changed. Called synchronously from the
// apply and adopt methods, on the caller's thread.
class KorSink {
 public:
  virtual ~KorSink() = default;
  virtual void korEvent(const KorChange& change) = 0;
};

// The events of one change, for each resource in turn:
//  * a resource defined: ResourceDefined, then (interfaces only)
//    ConfigChanged with flags 0;
//  * a resource undefined: ResourceUndefined, then (interfaces only)
//    ConfigChanged with MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF;
//  * a resource whose attributes changed: ConfigChanged with flags 0.
// Resources are visited nodes ascending; within a node the PeerNode comes
// first when it is defined or changed and last when it is undefined (its
// interfaces go before it), and its interfaces by name.
//
// Which nodes exist: once any agent reported a nodelist, exactly the nodes
// of the latest report. Before the first report (a standalone agent, or a
// cluster whose agents have not reported yet) a node becomes known when its
// own agent announces its id or publishes an interface, with an empty name;
// the first report then decides for those nodes as for any other.
class KorResources {
 private:
  using InterfaceMap = std::map<std::string, proto::InterfaceResource>;  // by name

 public:
  // One query's answer as the resources were when it was taken: a change
  // after that is not seen. It shares what it reads with the state (a
  // node's interfaces are copied at their next change while an answer
  // holds them), so taking one copies only the nodes' names and ids. The
  // resources are written one at a time, straight as protobuf's wire
  // bytes, for an answer sent in pages.
  // Thread-compatible (owned by the agent's event loop, like the state).
  class Answer {
   public:
    // An attribute every resource of the answer has, in the order they
    // carry them.
    struct Column {
      std::string name;
      vx_data_type_t type;
    };

    Answer(Answer&&) = default;
    Answer& operator=(Answer&&) = default;

    const std::string& className() const { return className_; }
    const std::vector<Column>& columns() const { return columns_; }
    // Resources in the whole answer.
    size_t size() const { return size_; }
    bool done() const { return written_ == size_; }
    // Appends the next resource's bytes (without a tag and length): a
    // KorResource's, or a KorRow's (handle and values, no types) when
    // asRow. Requires: !done(). Returns the bytes appended.
    size_t writeNext(bool asRow, std::string* out);

   private:
    friend class KorResources;
    struct NodeFacts {
      uint32_t number = 0;
      std::string name;  // the PeerNode answer only
      uint64_t id = 0;
      std::shared_ptr<const InterfaceMap> interfaces;  // the interface answer only
    };
    Answer() = default;
    // Moves to the next interface, past nodes without any.
    void settle();

    std::string className_;
    std::vector<Column> columns_;
    std::vector<int> places_;
    bool interfaces_ = false;
    std::vector<NodeFacts> nodes_;
    size_t node_ = 0;
    InterfaceMap::const_iterator next_;
    size_t size_ = 0;
    size_t written_ = 0;
  };

  explicit KorResources(KorSink* sink = nullptr) : sink_(sink) {}
  void setSink(KorSink* sink) { sink_ = sink; }

  // ---- the replicated stream. Each returns 0 when applied and -1 when the
  // message was ignored, with *why (when not null) saying why. An ignored
  // message changes nothing and tells nothing.

  // A nodelist as origin's corosync holds it. Refused whole when it has
  // more than kKorMaxNodes entries, node number 0, a node twice, or a name
  // longer than kKorMaxNodeNameBytes (or not plain text).
  int applyNodeList(uint32_t origin, const proto::NodeListUpdate& update,
                    std::string* why = nullptr);
  // The stable id node's agent announced (0: it sent none, ignored). The
  // latest announce holds. Ignored for a node that the nodelist does not
  // hold (its agent announces again after every view change).
  int applyNodeId(uint32_t node, uint64_t id, std::string* why = nullptr);
  // An interface of origin's node published, changed or withdrawn. Only the
  // node's own agent reports them (resource.node == origin), at most
  // kKorMaxInterfacesPerNode per node, with the bounds of validInterface.
  // The node's generation rises to the update's when that is larger.
  int applyInterfaceUpdate(uint32_t origin, const proto::InterfaceUpdate& update,
                           std::string* why = nullptr);

  // ---- state transfer
  // The state as an image in canonical order (nodes ascending, interfaces
  // by node then name); also what the state file holds.
  proto::KorImage image() const;
  // Whether an image from a peer or a file keeps the bounds and the
  // canonical order (nodes strictly ascending, interfaces strictly by node
  // then name and each of a node the image holds, every text bounded).
  static bool validImage(const proto::KorImage& image, std::string* why);
  // Merges the KOR parts of the snapshots of a view change (the caller
  // gives them in its canonical order; images that fail validImage are
  // left out):
  //  * has_node_list when any image has it;
  //  * nodes: the union of the nodes of the images that have a nodelist
  //    (of all images when none has); a node's name comes from the first
  //    such image that holds it;
  //  * a node's interfaces are taken whole from the image holding the node
  //    with the highest generation (the earliest on a tie), and the node's
  //    generation is that one;
  //  * its id: a non-zero id wins over 0; of two different non-zero ids,
  //    the one from the image with the higher generation (the earliest on a
  //    tie).
  // The chosen interfaces are taken out of their images, not copied: at
  // the largest sizes an image is tens of megabytes.
  static proto::KorImage merge(const std::vector<proto::KorImage*>& images,
                               size_t* leftOut = nullptr, std::string* why = nullptr);
  // Replaces the state with merge(images) and tells the sink the
  // differences, as if they had been applied. Returns the number of images
  // left out as invalid (0 normally), *why saying why for the first. The
  // images are left without the interfaces taken.
  size_t take(const std::vector<proto::KorImage*>& images, std::string* why = nullptr);
  // The same from images that stay as they are (each is copied first).
  size_t adopt(const std::vector<const proto::KorImage*>& images, std::string* why = nullptr);

  // ---- what clients ask
  static bool knownClass(const std::string& className);
  // The attributes of a class in the order a resource carries them; null
  // for an unknown class.
  static const std::vector<std::string>* attributeNamesOf(const std::string& className);
  // The resources of a class (none for an unknown class), nodes ascending
  // and interfaces by node then name, each with the attributes named in the
  // order named (once each, unknown names left out), or every attribute of
  // the class when none is named.
  std::vector<proto::KorResource> query(const std::string& className,
                                        const std::vector<std::string>& attributeNames) const;
  // The same resources, for an answer too large to hold at once: each is
  // written into the message next() hands out, one after the other (a
  // resource is complete when next() is called again or this returns).
  // That message is empty or one this call wrote before: it is written over
  // in place, keeping its storage. A null from next() stops. Returns how
  // many were written.
  size_t queryInto(const std::string& className, const std::vector<std::string>& attributeNames,
                   const std::function<proto::KorResource*()>& next) const;
  // The same resources as an Answer, to be written later (none for an
  // unknown class).
  Answer answer(const std::string& className, const std::vector<std::string>& attributeNames) const;

  // The resource a handle names ("node/3", "node/3/sxn1"), with every
  // attribute. Returns 0, or -1 when no resource has that handle (handles
  // come from clients: anything else is simply not found).
  int resource(const std::string& handle, proto::KorResource* out) const;

  // ---- one resource from the facts (the one place where facts become
  // typed attributes)
  static std::string peerNodeHandle(uint32_t node);
  static std::string interfaceHandle(uint32_t node, const std::string& name);
  static proto::KorResource peerNodeResource(uint32_t node, const std::string& name,
                                             uint64_t nodeId);
  // nodeId: the id of the interface's node (0: unknown, NodeIDs is empty).
  static proto::KorResource interfaceResource(const proto::InterfaceResource& facts,
                                              uint64_t nodeId);
  // A copy of resource with only the attributes named (see query).
  static proto::KorResource selectAttributes(const proto::KorResource& resource,
                                             const std::vector<std::string>& attributeNames);
  // Whether an interface's facts keep the bounds: name 1..15 bytes without
  // '/', device name up to 64, path up to 255, hardware address up to 59
  // bytes, all plain text (UTF-8, no NUL), and a dotted IPv4 address.
  static bool validInterface(const proto::InterfaceResource& facts, std::string* why);

  // ---- for the agent, the log and tests
  bool hasNodeList() const { return hasNodeList_; }
  size_t nodeCount() const { return nodes_.size(); }
  size_t interfaceCount() const;
  bool hasNode(uint32_t node) const { return nodes_.count(node) != 0; }
  uint64_t nodeIdOf(uint32_t node) const;
  uint64_t generationOf(uint32_t node) const;
  // The interfaces of node, by name (none for a node not held).
  std::vector<proto::InterfaceResource> interfacesOf(uint32_t node) const;
  // The nodes held, ascending, with their names (empty before a nodelist).
  std::vector<proto::NodeEntry> nodeEntries() const;
  // A 64-bit digest of the canonical image (FNV-1a), for logs and tests.
  uint64_t digest() const;
  bool operator==(const KorResources& other) const;
  bool operator!=(const KorResources& other) const { return !(*this == other); }

 private:
  // A node's interfaces, shared with the answers taken before a change:
  // a change copies them first when an answer holds them.
  class Interfaces {
   public:
    const InterfaceMap& map() const { return map_ ? *map_ : empty(); }
    InterfaceMap::const_iterator begin() const { return map().begin(); }
    InterfaceMap::const_iterator end() const { return map().end(); }
    InterfaceMap::const_iterator find(const std::string& name) const { return map().find(name); }
    size_t size() const { return map().size(); }
    // The map to change, no longer shared with anyone.
    InterfaceMap& edit();
    std::shared_ptr<const InterfaceMap> share() const { return map_; }

   private:
    static const InterfaceMap& empty();
    std::shared_ptr<InterfaceMap> map_;
  };
  struct Node {
    std::string name;
    uint64_t id = 0;
    uint64_t generation = 0;
    Interfaces interfaces;
    bool operator==(const Node& o) const;
  };
  using NodeMap = std::map<uint32_t, Node>;

  // Makes the state of image, taking its interfaces out (image is left
  // without them).
  static void fromImage(proto::KorImage* image, NodeMap* nodes, bool* hasNodeList);
  // Tells the sink how node number went from before to after (either may
  // be null: defined or undefined).
  void emitNodeChanges(uint32_t number, const Node* before, const Node* after);
  void emit(const char* className, const char* event, uint32_t flags,
            proto::KorResource resource);
  // The node an interface update or id may use: the listed node, or before
  // any nodelist a node made known now. Null when it may not be used.
  Node* usableNode(uint32_t number, std::string* why);

  KorSink* sink_;
  NodeMap nodes_;
  bool hasNodeList_ = false;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_KOR_RESOURCES_H_
