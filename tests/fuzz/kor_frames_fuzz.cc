// Feeds arbitrary bytes to the KOR state as the agents' multicast and the
// agent socket carry them: parsed as a BusMessage (nodelist reports, id
// announces, interface updates, snapshots) or a ClientFrame (queries), and
// as a script of well-formed messages with arbitrary content, so that the
// deeper rules are reached. Nothing may crash; after every input the state
// is a valid image within the bounds, the events told so far rebuild
// exactly what a query answers, and queries give only what was asked. An
// answer written as bytes (as resources or as rows) is what the query gave
// when the answer was taken, whatever changed before it is written.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/stubs/logging.h>

#include "kor_resources.h"
#include "velt.pb.h"

namespace {

using velt::agent::KorChange;
using velt::agent::KorResources;

[[noreturn]] void fail(const std::string& what) {
  fprintf(stderr, "kor_frames_fuzz: %s\n", what.c_str());
  abort();
}

// Checks each event and keeps what the events alone say exists.
class MirrorSink : public velt::agent::KorSink {
 public:
  void korEvent(const KorChange& c) override {
    if (!KorResources::knownClass(c.className) || c.resource.class_name() != c.className) {
      fail("event of an unknown class");
    }
    const std::string& h = c.resource.handle();
    if (c.event == KOR_EVENT_DEFINED) {
      if (c.flags != 0 || !mirror.emplace(h, c.resource.SerializeAsString()).second) {
        fail("defined twice: " + h);
      }
    } else if (c.event == KOR_EVENT_UNDEFINED) {
      if (c.flags != 0 || mirror.erase(h) != 1) fail("undefined while not defined: " + h);
    } else if (c.event == KOR_CONDITION_CONFIG_CHANGED) {
      if (c.flags == 0) {
        auto it = mirror.find(h);
        if (it == mirror.end()) fail("changed while not defined: " + h);
        it->second = c.resource.SerializeAsString();
      } else if (c.flags != (MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF) || mirror.count(h)) {
        fail("unassigned while still defined: " + h);
      }
    } else {
      fail("unknown event " + c.event);
    }
    const auto* names = KorResources::attributeNamesOf(c.className);
    if (c.resource.attributes_size() != static_cast<int>(names->size())) {
      fail("an event without every attribute");
    }
  }
  std::map<std::string, std::string> mirror;
};

struct World {
  MirrorSink sink;
  KorResources kor{&sink};
};

World& world() {
  static World* w = new World();
  return *w;
}

// Writes the whole of answer and checks it against want, the query's
// resources when the answer was taken.
void checkAnswer(KorResources::Answer& answer, const std::vector<velt::proto::KorResource>& want,
                 bool rows) {
  if (answer.size() != want.size()) fail("an answer of another size than the query's");
  for (const velt::proto::KorResource& r : want) {
    if (answer.done()) fail("an answer ended early");
    std::string bytes;
    answer.writeNext(rows, &bytes);
    if (!rows) {
      if (bytes != r.SerializeAsString()) fail("an answer's resource is not the query's: " + r.handle());
      continue;
    }
    if (answer.className() != r.class_name() ||
        answer.columns().size() != static_cast<size_t>(r.attributes_size())) {
      fail("an answer's columns are not the query's attributes");
    }
    velt::proto::KorRow row;
    row.set_handle(r.handle());
    for (int k = 0; k < r.attributes_size(); ++k) {
      const auto& a = r.attributes(k);
      if (answer.columns()[k].name != a.name() ||
          static_cast<uint32_t>(answer.columns()[k].type) != a.value().type()) {
        fail("a column is not the query's attribute: " + a.name());
      }
      velt::proto::KorValue* v = row.add_values();
      *v = a.value();
      v->clear_type();
    }
    if (bytes != row.SerializeAsString()) fail("an answer's row is not the query's: " + r.handle());
  }
  if (!answer.done()) fail("an answer longer than the query's");
}

// An answer taken by a query of a script and written a few steps later.
struct HeldAnswer {
  std::vector<velt::proto::KorResource> then;
  KorResources::Answer answer;
  bool rows;
};

std::unique_ptr<HeldAnswer>& heldAnswer() {
  static std::unique_ptr<HeldAnswer> held;
  return held;
}

void writeHeldAnswer() {
  std::unique_ptr<HeldAnswer>& held = heldAnswer();
  if (!held) return;
  checkAnswer(held->answer, held->then, held->rows);
  held.reset();
}

void checkQuery(const std::string& className, const std::vector<std::string>& names) {
  const auto answer = world().kor.query(className, names);
  for (bool rows : {false, true}) {
    KorResources::Answer now = world().kor.answer(className, names);
    checkAnswer(now, answer, rows);
  }
  const auto* known = KorResources::attributeNamesOf(className);
  if (known == nullptr) {
    if (!answer.empty()) fail("an unknown class answered");
    return;
  }
  std::set<std::string> asked(names.begin(), names.end());
  std::set<std::string> handles;
  for (const auto& r : answer) {
    if (r.class_name() != className) fail("a resource of another class");
    if (!handles.insert(r.handle()).second) fail("a resource twice");
    std::set<std::string> seen;
    for (const auto& a : r.attributes()) {
      if (!seen.insert(a.name()).second) fail("an attribute twice");
      if (!names.empty() && asked.count(a.name()) == 0) fail("an attribute not asked for");
    }
    if (names.empty() && r.attributes_size() != static_cast<int>(known->size())) {
      fail("not every attribute");
    }
  }
}

// After every input.
void checkState() {
  World& w = world();
  std::string why;
  const velt::proto::KorImage image = w.kor.image();
  if (!KorResources::validImage(image, &why)) fail("the state broke its bounds: " + why);
  size_t total = 0;
  for (const char* cls : {KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE}) {
    for (const auto& r : w.kor.query(cls, {})) {
      ++total;
      auto it = w.sink.mirror.find(r.handle());
      if (it == w.sink.mirror.end() || it->second != r.SerializeAsString()) {
        fail("the events do not rebuild " + r.handle());
      }
      velt::proto::KorResource one;
      if (w.kor.resource(r.handle(), &one) != 0 || one.SerializeAsString() != it->second) {
        fail("the handle does not find " + r.handle());
      }
    }
  }
  if (total != w.sink.mirror.size()) fail("the events tell of resources that are gone");
  // Large states make every later check slow: start again from nothing,
  // through the events.
  if (total > 512) w.kor.adopt({});
  if (!w.sink.mirror.empty() && w.kor.nodeCount() == 0) fail("an empty state left resources");
}

// Reads the script of the structured mode.
class Script {
 public:
  Script(const uint8_t* data, size_t size) : p_(data), n_(size) {}
  bool more() const { return n_ > 0; }
  uint8_t byte() {
    if (n_ == 0) return 0;
    --n_;
    return *p_++;
  }
  uint64_t number() {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | byte();
    return v;
  }
  std::string text(size_t max) {
    size_t len = byte() % (max + 1);
    std::string s;
    for (size_t i = 0; i < len; ++i) s.push_back(static_cast<char>(byte()));
    return s;
  }
  std::string pick(const std::vector<std::string>& choices) {
    return choices[byte() % choices.size()];
  }

 private:
  const uint8_t* p_;
  size_t n_;
};

std::string nameFrom(Script& s) {
  static const std::vector<std::string> names = {"sxn0", "sxn1", "ib0", "eth0", "x"};
  return s.byte() < 224 ? s.pick(names) : s.text(20);
}

void runScript(Script& s) {
  World& w = world();
  static const std::vector<std::string> ips = {"10.0.0.1", "10.0.0.2", "192.168.1.1",
                                               "1.2.3",    "",         "::1"};
  static const std::vector<std::string> classes = {
      KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE, "Zel.Other"};
  static const std::vector<std::string> attributes = {
      "Name", "NodeIDs", "NodeList", "IPAddress", "PortID", "LogicalID", "Nope"};
  for (int steps = 0; steps < 64 && s.more(); ++steps) {
    const uint32_t origin = 1 + s.byte() % 8;
    switch (s.byte() % 7) {
      case 0: {
        velt::proto::NodeListUpdate u;
        const uint8_t c = s.byte();
        const size_t count = c == 255 ? velt::agent::kKorMaxNodes + (s.byte() % 2) : c % 8;
        for (size_t i = 0; i < count; ++i) {
          auto* e = u.add_nodes();
          e->set_node(count > 8 ? static_cast<uint32_t>(i + 1) : s.byte() % 10);
          e->set_name(count > 8 ? "n" : (s.byte() < 240 ? "n" + std::to_string(e->node())
                                                        : s.text(300)));
        }
        w.kor.applyNodeList(origin, u);
        break;
      }
      case 1:
        w.kor.applyNodeId(origin, s.byte() % 4 == 0 ? s.number() : s.byte() % 3);
        break;
      case 2:
      case 3: {
        velt::proto::InterfaceUpdate u;
        auto* r = u.mutable_resource();
        r->set_node(s.byte() < 240 ? origin : s.byte() % 10);
        r->set_name(nameFrom(s));
        u.set_removed(s.byte() % 4 == 0);
        u.set_generation(s.byte());
        r->set_ip_address(s.pick(ips));
        r->set_device_name(s.byte() < 240 ? "dev" : s.text(80));
        r->set_device_path_name(s.byte() < 240 ? "path" : std::string(s.byte() + 100, 'p'));
        r->set_hardware_address(s.byte() < 240 ? "aa:bb" : s.text(70));
        r->set_device_sub_type(s.byte());
        r->set_logical_id(static_cast<int32_t>(s.number()));
        r->set_network_id(s.byte());
        r->set_network_id64(s.number());
        r->set_port_id(s.byte());
        w.kor.applyInterfaceUpdate(origin, u);
        break;
      }
      case 4: {
        // Two sides of a partition: this one, and one that went on.
        velt::proto::KorImage mine = w.kor.image();
        KorResources other;
        other.adopt({&mine});
        velt::proto::InterfaceUpdate u;
        u.mutable_resource()->set_node(origin);
        u.mutable_resource()->set_name(nameFrom(s));
        u.mutable_resource()->set_ip_address("10.9.9.9");
        u.set_generation(s.byte());
        other.applyInterfaceUpdate(origin, u);
        other.applyNodeId(origin, s.byte() % 3);
        velt::proto::KorImage theirs = other.image();
        if (s.byte() % 2) {
          w.kor.adopt({&mine, &theirs});
        } else {
          w.kor.adopt({&theirs, &mine});
        }
        break;
      }
      default: {
        std::vector<std::string> names;
        for (int i = s.byte() % 5; i > 0; --i) names.push_back(s.pick(attributes));
        const std::string className = s.pick(classes);
        checkQuery(className, names);
        // The answer taken at the query before is written now, after what
        // changed since; this one waits for the next.
        writeHeldAnswer();
        heldAnswer().reset(new HeldAnswer{w.kor.query(className, names),
                                          w.kor.answer(className, names), s.byte() % 2 == 0});
        velt::proto::KorResource one;
        const std::string handle = s.text(24);
        if (w.kor.resource(handle, &one) == 0 && one.handle() != handle) {
          fail("a handle found another resource");
        }
        break;
      }
    }
  }
}

void applyBusMessage(const velt::proto::BusMessage& m) {
  World& w = world();
  switch (m.body_case()) {
    case velt::proto::BusMessage::kNodeListUpdate:
      w.kor.applyNodeList(m.origin(), m.node_list_update());
      break;
    case velt::proto::BusMessage::kInterfaceUpdate:
      w.kor.applyInterfaceUpdate(m.origin(), m.interface_update());
      break;
    case velt::proto::BusMessage::kAgentAnnounce:
      w.kor.applyNodeId(m.origin(), m.agent_announce().node_id());
      break;
    case velt::proto::BusMessage::kSnapshot: {
      const velt::proto::KorImage mine = w.kor.image();
      w.kor.adopt({&mine, &m.snapshot().state().kor()});
      break;
    }
    default:
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0: {
      velt::proto::BusMessage m;
      if (m.ParseFromString(bytes)) applyBusMessage(m);
      break;
    }
    case 1: {
      velt::proto::ClientFrame f;
      if (f.ParseFromString(bytes) && f.has_request() && f.request().has_kor_query()) {
        const auto& q = f.request().kor_query();
        checkQuery(q.class_name(),
                   std::vector<std::string>(q.attributes().begin(), q.attributes().end()));
      }
      break;
    }
    default: {
      Script script(data + 1, size - 1);
      runScript(script);
      writeHeldAnswer();
      break;
    }
  }
  checkState();
  return 0;
}
