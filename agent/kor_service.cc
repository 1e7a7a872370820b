#include "kor_service.h"

#include <algorithm>

#include <google/protobuf/arena.h>

#include "client_port.h"
#include "gs_types.h"

namespace velt {
namespace agent {

namespace {

// The arena of a query's page grows to blocks of this size; a page of
// about Limits::pageBytes holds some tens of MB of messages.
constexpr size_t kPageArenaFirstBlock = 64 * 1024;
constexpr size_t kPageArenaLargestBlock = 1024 * 1024;

std::string quoted(const std::string& name) {
  std::string out = "\"";
  for (char c : name.substr(0, 64)) out.push_back(c >= 0x20 && c < 0x7f ? c : '?');
  return out + "\"";
}

bool known(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

void KorService::serve(uint64_t client, const proto::Request& request, const KorResources& kor,
                       const FrameSink& send) {
  switch (request.op_case()) {
    case proto::Request::kKorQuery:
      query(request.id(), request.kor_query(), kor, send);
      return;
    case proto::Request::kKorRegister:
      send(registerEvent(client, request.id(), request.kor_register()));
      return;
    case proto::Request::kKorUnregister:
      send(unregister(client, request.id(), request.kor_unregister()));
      return;
    default:
      send(replyFrame(request.id(), TK_GS_BAD_PARAMETER, "not a KOR request"));
      return;
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

void KorService::query(uint64_t id, const proto::KorQuery& q, const KorResources& kor,
                       const FrameSink& send) {
  if (!KorResources::knownClass(q.class_name())) {
    send(replyFrame(id, TK_GS_UNKNOWN_GROUP, "there is no resource class " + quoted(q.class_name())));
    return;
  }
  std::vector<std::string> names(q.attributes().begin(), q.attributes().end());
  std::string why;
  int rc = checkNames(names, &why);
  if (rc != TK_GS_OK) {
    send(replyFrame(id, rc, why));
    return;
  }

  // Every page comes from this one answer: the resources as they are now
  // (nothing changes them while the pages are made and sent). One page
  // message, in an arena, serves every page: each is handed to send and
  // then written over by the next, so that its messages and strings are
  // made once per answer and let go together.
  google::protobuf::ArenaOptions options;
  options.start_block_size = kPageArenaFirstBlock;
  options.max_block_size = kPageArenaLargestBlock;
  google::protobuf::Arena arena(options);
  proto::AgentFrame& page = *google::protobuf::Arena::CreateMessage<proto::AgentFrame>(&arena);
  page.set_version(proto::WIRE_VERSION_1);
  page.mutable_reply()->set_id(id);
  page.mutable_reply()->set_rc(TK_GS_OK);
  proto::KorAnswer* answer = page.mutable_reply()->mutable_kor();  // an empty answer is one too
  google::protobuf::RepeatedPtrField<proto::KorResource>* resources = answer->mutable_resources();
  int used = 0;        // resources of this page so far
  size_t bytes = 0;    // and their size
  bool taking = true;  // the client takes frames
  proto::KorResource& carried = *google::protobuf::Arena::CreateMessage<proto::KorResource>(&arena);
  // Sends the first n resources of the page.
  auto sendPage = [&](int n, bool more) {
    while (resources->size() > n) resources->RemoveLast();
    answer->set_more(more);
    taking = send(page);
  };
  // The resource just written stays in this page, or starts the next one
  // when it would take the page past its size (and the page is not empty).
  auto place = [&] {
    const size_t size = resources->Get(used - 1).ByteSizeLong();
    if (bytes > 0 && bytes + size > limits_.pageBytes) {
      carried.Swap(resources->Mutable(used - 1));
      sendPage(used - 1, true);
      resources->Mutable(0)->Swap(&carried);
      used = 1;
      bytes = 0;
    }
    bytes += size;
  };
  bool pending = false;  // a resource is written and not placed yet
  kor.queryInto(q.class_name(), names, [&]() -> proto::KorResource* {
    if (pending) place();
    pending = false;
    if (!taking) return nullptr;
    pending = true;
    return used++ < resources->size() ? resources->Mutable(used - 1) : resources->Add();
  });
  if (pending && taking) place();
  if (taking) sendPage(used, false);
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
