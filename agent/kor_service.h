// KorService: KOR for this node's clients. It answers their queries from
// the replicated resources (large answers in several pages taken at one
// moment), keeps their class and resource event registrations, and turns
// each change of the resources, in the order of the replicated stream, into
// the events those registrations asked for. Registrations are this agent's
// own, like subscriptions: they end with their connection.
// Thread-compatible (the agent's event loop owns it).
#ifndef VELT_AGENT_KOR_SERVICE_H_
#define VELT_AGENT_KOR_SERVICE_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client_port.h"
#include "kor_resources.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

class KorService {
 public:
  struct Limits {
    size_t maxRegistrationsPerClient = 64;
    size_t maxRegistrations = 4096;      // over all connections
    size_t maxAttributesNamed = 64;      // in one query or registration
    size_t maxNameBytes = 64;            // a class, event or attribute name
    size_t pageBytes = 1024 * 1024;      // resources in one Reply, about
  };
  // An event for one client connection.
  struct Outgoing {
    uint64_t client = 0;
    proto::AgentFrame frame;
  };

  // Takes one frame for the client; false once the client takes no more
  // (its connection closed).
  using FrameSink = std::function<bool(const proto::AgentFrame&)>;

  // The answer to one KOR request: a query's pages, or one Reply.
  struct Answer {
    std::unique_ptr<FrameSource> pages;  // null: the answer is reply
    proto::AgentFrame reply;
  };

  explicit KorService(const Limits& limits) : limits_(limits) {}
  KorService() : KorService(Limits()) {}

  // Answers one KOR request (kor_query, kor_register, kor_unregister) of
  // client. A query that is answered gets its pages, as resources or as
  // rows (KorQuery.rows): every page comes from the resources as they are
  // now, whenever it is made (see KorResources::Answer), so every node
  // answers as it would have at this point of the replicated stream. Each
  // page holds about Limits::pageBytes of resources (a larger resource a
  // page of its own); every page but the last is marked more.
  Answer answer(uint64_t client, const proto::Request& request, const KorResources& kor);
  // The same frames, each made when the one before has been taken, to send
  // in order.
  void serve(uint64_t client, const proto::Request& request, const KorResources& kor,
             const FrameSink& send);
  // The same frames, collected.
  std::vector<proto::AgentFrame> serve(uint64_t client, const proto::Request& request,
                                       const KorResources& kor);
  // The events one change brings the registrations of this node's clients.
  void changed(const KorChange& change, std::vector<Outgoing>* out);
  // The connection is gone: its registrations end.
  void dropClient(uint64_t client);

  size_t registrationCount() const { return registrations_.size(); }
  size_t registrationsOf(uint64_t client) const;

 private:
  struct Registration {
    uint64_t client = 0;
    proto::KorRegister::Kind kind = proto::KorRegister::KIND_UNSPECIFIED;
    std::string className;
    std::string event;
    std::vector<std::string> attributes;
  };

  Answer query(uint64_t id, const proto::KorQuery& q, const KorResources& kor);
  proto::AgentFrame registerEvent(uint64_t client, uint64_t id, const proto::KorRegister& r);
  proto::AgentFrame unregister(uint64_t client, uint64_t id, const proto::KorUnregister& u);
  // 0, or a return code with *why, for names a client sent.
  int checkNames(const std::vector<std::string>& names, std::string* why) const;

  Limits limits_;
  std::map<uint64_t, Registration> registrations_;  // by id
  std::map<uint64_t, size_t> perClient_;
  uint64_t nextRegistration_ = 1;
  uint64_t sequence_ = 0;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_KOR_SERVICE_H_
