#include "kor_service.h"

#include <string.h>

#include <algorithm>

#include "gs_types.h"
#include "wire_bytes.h"

namespace velt {
namespace agent {

namespace {

std::string quoted(const std::string& name) {
  std::string out = "\"";
  for (char c : name.substr(0, 64)) out.push_back(c >= 0x20 && c < 0x7f ? c : '?');
  return out + "\"";
}

bool known(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// The pages of one query's answer, each written straight as the bytes of
// its AgentFrame when it is asked for: the resources first, behind room
// kept for what goes before them (the frame's, the Reply's and the
// KorAnswer's tags and lengths, and for rows the class and columns), which
// is written once the page's size is known.
class QueryPages : public FrameSource {
 public:
  QueryPages(uint64_t id, KorResources::Answer answer, bool rows, size_t pageBytes)
      : id_(id), answer_(std::move(answer)), rows_(rows), pageBytes_(pageBytes) {
    if (rows_) {
      namespace wb = wirebytes;
      wb::putStringField(&columns_, 4, answer_.className());
      for (const KorResources::Answer::Column& c : answer_.columns()) {
        const size_t size = 1 + wb::varintSize(c.name.size()) + c.name.size() + 1 +
                            wb::varintSize(static_cast<uint64_t>(c.type));
        wb::putLengthPrefix(&columns_, 5, size);
        wb::putStringField(&columns_, 1, c.name);
        wb::putVarintField(&columns_, 2, static_cast<uint64_t>(c.type));
      }
    }
    // AgentFrame{version, reply: Reply{id, kor: KorAnswer{more, ...}}}:
    // three tags with their lengths, the version and the id, more.
    room_ = 3 * (1 + 10) + 2 + (1 + 10) + 2 + columns_.size();
  }

  bool next(std::string* frame, size_t* from) override {
    namespace wb = wirebytes;
    if (finished_) return false;
    frame->clear();
    frame->reserve(room_ + pageBytes_ + pageBytes_ / 8);
    frame->append(room_, '\0');
    const uint32_t field = rows_ ? 6 : 1;
    size_t used = 0;     // bytes of the page's resources
    size_t count = 0;
    if (!carried_.empty()) {
      frame->append(carried_);
      used = carriedSize_;
      count = 1;
      carried_.clear();
    }
    while (!answer_.done()) {
      const size_t mark = frame->size();
      wb::Nested resource(frame, field);
      answer_.writeNext(rows_, frame);
      const size_t size = resource.close();
      if (count > 0 && used + size > pageBytes_) {
        // Too large for this page: it starts the next one.
        carried_.assign(*frame, mark, std::string::npos);
        carriedSize_ = size;
        frame->resize(mark);
        break;
      }
      used += size;
      ++count;
    }
    const bool more = !carried_.empty() || !answer_.done();
    finished_ = !more;
    if (more && !rows_) {
      wb::putVarintField(frame, 3, 1);  // resources (1) come before more (3)
    }
    std::string head;
    if (more && rows_) wb::putVarintField(&head, 3, 1);
    head += columns_;
    const size_t kor = head.size() + frame->size() - room_;
    std::string prefix;
    wb::putVarintField(&prefix, 1, proto::WIRE_VERSION_1);
    const size_t reply = (id_ == 0 ? 0 : 1 + wb::varintSize(id_)) + 1 + wb::varintSize(kor) + kor;
    wb::putLengthPrefix(&prefix, 3, reply);
    wb::putVarintField(&prefix, 1, id_);
    wb::putLengthPrefix(&prefix, 5, kor);
    prefix += head;
    *from = room_ - prefix.size();
    memcpy(&(*frame)[*from], prefix.data(), prefix.size());
    return true;
  }

 private:
  uint64_t id_;
  KorResources::Answer answer_;
  bool rows_;
  size_t pageBytes_;
  std::string columns_;    // a rows page's class and columns, as bytes
  size_t room_ = 0;
  std::string carried_;    // the resource that starts the next page, with its tag
  size_t carriedSize_ = 0;
  bool finished_ = false;
};

}  // namespace

KorService::Answer KorService::answer(uint64_t client, const proto::Request& request,
                                      const KorResources& kor) {
  Answer a;
  switch (request.op_case()) {
    case proto::Request::kKorQuery:
      return query(request.id(), request.kor_query(), kor);
    case proto::Request::kKorRegister:
      a.reply = registerEvent(client, request.id(), request.kor_register());
      return a;
    case proto::Request::kKorUnregister:
      a.reply = unregister(client, request.id(), request.kor_unregister());
      return a;
    default:
      a.reply = replyFrame(request.id(), TK_GS_BAD_PARAMETER, "not a KOR request");
      return a;
  }
}

void KorService::serve(uint64_t client, const proto::Request& request, const KorResources& kor,
                       const FrameSink& send) {
  Answer a = answer(client, request, kor);
  if (!a.pages) {
    send(a.reply);
    return;
  }
  std::string bytes;
  size_t from = 0;
  while (a.pages->next(&bytes, &from)) {
    proto::AgentFrame f;
    f.ParseFromArray(bytes.data() + from, static_cast<int>(bytes.size() - from));
    if (!send(f)) return;
  }
}

std::vector<proto::AgentFrame> KorService::serve(uint64_t client, const proto::Request& request,
                                                 const KorResources& kor) {
  std::vector<proto::AgentFrame> frames;
  serve(client, request, kor, [&frames](const proto::AgentFrame& f) {
    frames.push_back(f);
    return true;
  });
  return frames;
}

int KorService::checkNames(const std::vector<std::string>& names, std::string* why) const {
  if (names.size() > limits_.maxAttributesNamed) {
    *why = std::to_string(names.size()) + " attributes named, at most " +
           std::to_string(limits_.maxAttributesNamed) + " are taken";
    return TK_GS_LIMIT_EXCEEDED;
  }
  for (const std::string& n : names) {
    if (n.empty() || n.size() > limits_.maxNameBytes) {
      *why = "an attribute name has " + std::to_string(n.size()) + " bytes; 1 to " +
             std::to_string(limits_.maxNameBytes) + " are allowed";
      return TK_GS_BAD_PARAMETER;
    }
  }
  return TK_GS_OK;
}

KorService::Answer KorService::query(uint64_t id, const proto::KorQuery& q,
                                     const KorResources& kor) {
  Answer a;
  if (!KorResources::knownClass(q.class_name())) {
    a.reply = replyFrame(id, TK_GS_UNKNOWN_GROUP, "there is no resource class " + quoted(q.class_name()));
    return a;
  }
  std::vector<std::string> names(q.attributes().begin(), q.attributes().end());
  std::string why;
  int rc = checkNames(names, &why);
  if (rc != TK_GS_OK) {
    a.reply = replyFrame(id, rc, why);
    return a;
  }
  a.pages = std::make_unique<QueryPages>(id, kor.answer(q.class_name(), names), q.rows(),
                                         limits_.pageBytes);
  return a;
}

proto::AgentFrame KorService::registerEvent(uint64_t client, uint64_t id,
                                            const proto::KorRegister& r) {
  const std::vector<std::string>* classAttributes = KorResources::attributeNamesOf(r.class_name());
  if (classAttributes == nullptr) {
    return replyFrame(id, TK_GS_UNKNOWN_GROUP,
                      "there is no resource class " + quoted(r.class_name()));
  }
  std::vector<std::string> names(r.attributes().begin(), r.attributes().end());
  std::string why;
  int rc = checkNames(names, &why);
  if (rc != TK_GS_OK) return replyFrame(id, rc, why);
  switch (r.kind()) {
    case proto::KorRegister::CLASS_EVENT:
      if (r.event() != KOR_EVENT_DEFINED && r.event() != KOR_EVENT_UNDEFINED) {
        return replyFrame(id, TK_GS_BAD_PARAMETER,
                          "a class event is \"" KOR_EVENT_DEFINED "\" or \"" KOR_EVENT_UNDEFINED
                          "\", not " + quoted(r.event()));
      }
      break;
    case proto::KorRegister::RESOURCE_EVENT:
      if (r.event() != KOR_CONDITION_CONFIG_CHANGED) {
        return replyFrame(id, TK_GS_BAD_PARAMETER,
                          "the one resource event condition offered is \"" KOR_CONDITION_CONFIG_CHANGED
                          "\", not " + quoted(r.event()));
      }
      for (const std::string& n : names) {
        if (!known(*classAttributes, n)) {
          // Refused with registration 0: the client tells an unknown
          // attribute from a failed call.
          proto::AgentFrame f = replyFrame(
              id, TK_GS_OK, r.class_name() + " has no attribute " + quoted(n));
          f.mutable_reply()->mutable_kor()->set_registration(0);
          return f;
        }
      }
      break;
    default:
      return replyFrame(id, TK_GS_BAD_PARAMETER,
                        "unknown registration kind " + std::to_string(static_cast<int>(r.kind())));
  }
  if (registrations_.size() >= limits_.maxRegistrations) {
    return replyFrame(id, TK_GS_LIMIT_EXCEEDED,
                      "the agent holds " + std::to_string(registrations_.size()) +
                          " KOR registrations, the most it takes");
  }
  if (registrationsOf(client) >= limits_.maxRegistrationsPerClient) {
    return replyFrame(id, TK_GS_LIMIT_EXCEEDED,
                      "this connection holds " + std::to_string(limits_.maxRegistrationsPerClient) +
                          " KOR registrations, the most one connection may");
  }
  uint64_t reg = nextRegistration_++;
  Registration& entry = registrations_[reg];
  entry.client = client;
  entry.kind = r.kind();
  entry.className = r.class_name();
  entry.event = r.event();
  entry.attributes = std::move(names);
  ++perClient_[client];
  proto::AgentFrame f = replyFrame(id, TK_GS_OK, "");
  f.mutable_reply()->mutable_kor()->set_registration(reg);
  return f;
}

proto::AgentFrame KorService::unregister(uint64_t client, uint64_t id,
                                         const proto::KorUnregister& u) {
  auto it = registrations_.find(u.registration());
  if (it == registrations_.end() || it->second.client != client) {
    return replyFrame(id, TK_GS_BAD_PARAMETER,
                      "this connection holds no KOR registration " +
                          std::to_string(u.registration()));
  }
  registrations_.erase(it);
  if (--perClient_[client] == 0) perClient_.erase(client);
  return replyFrame(id, TK_GS_OK, "");
}

void KorService::changed(const KorChange& change, std::vector<Outgoing>* out) {
  for (const auto& e : registrations_) {
    const Registration& r = e.second;
    if (r.className != change.className) continue;
    bool wanted = r.kind == proto::KorRegister::CLASS_EVENT
                      ? r.event == change.event
                      : change.event == KOR_CONDITION_CONFIG_CHANGED;
    if (!wanted) continue;
    Outgoing o;
    o.client = r.client;
    o.frame.set_version(proto::WIRE_VERSION_1);
    proto::KorEvent* ev = o.frame.mutable_kor_event();
    ev->set_registration(e.first);
    ev->set_kind(r.kind);
    ev->set_class_name(change.className);
    ev->set_event(change.event);
    ev->set_flags(change.flags);
    ev->set_sequence(++sequence_);
    if (r.kind == proto::KorRegister::CLASS_EVENT) {
      // A class event names the resource; its attributes are a query away.
      ev->mutable_resource()->set_class_name(change.resource.class_name());
      ev->mutable_resource()->set_handle(change.resource.handle());
    } else {
      *ev->mutable_resource() = KorResources::selectAttributes(change.resource, r.attributes);
    }
    out->push_back(std::move(o));
  }
}

void KorService::dropClient(uint64_t client) {
  for (auto it = registrations_.begin(); it != registrations_.end();) {
    if (it->second.client == client) {
      it = registrations_.erase(it);
    } else {
      ++it;
    }
  }
  perClient_.erase(client);
}

size_t KorService::registrationsOf(uint64_t client) const {
  auto it = perClient_.find(client);
  return it == perClient_.end() ? 0 : it->second;
}

}  // namespace agent
}  // namespace velt
