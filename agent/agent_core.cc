#include "agent_core.h"

#include <arpa/inet.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "agent_log.h"
#include "gs_types.h"

namespace velt {
namespace agent {

namespace {

// The client library hands the time limit to its callback in 16 bits.
constexpr uint32_t kMaxPingLimitSeconds = 65535;
constexpr uint32_t kMaxPingIntervalSeconds = 0x7fffffff;

constexpr auto kGoneRetry = std::chrono::milliseconds(100);
constexpr auto kTimeoutRetry = std::chrono::seconds(1);
constexpr auto kReplicaRetry = std::chrono::milliseconds(100);
// KOR's resources are written to the state directory this long after they
// changed, once for a burst of changes.
constexpr auto kKorSaveDelay = std::chrono::milliseconds(500);

std::string errnoText(int err) {
  char buf[128];
  return strerror_r(err, buf, sizeof buf);
}

// Checks a client's responsiveness settings. Returns 0 or a return code
// with *why.
int checkResponsiveness(const proto::Responsiveness& r, std::string* why) {
  switch (r.type()) {
    case TK_GS_NO_RESPONSIVENESS:
      return TK_GS_OK;
    case TK_GS_PING_RESPONSIVENESS:
      if (r.interval() < 1 || r.interval() > kMaxPingIntervalSeconds) {
        *why = "ping responsiveness needs an interval of 1 to " +
               std::to_string(kMaxPingIntervalSeconds) + " seconds, not " +
               std::to_string(r.interval());
        return TK_GS_BAD_PARAMETER;
      }
      if (r.response_time_limit() < 1 || r.response_time_limit() > kMaxPingLimitSeconds) {
        *why = "ping responsiveness needs a response time limit of 1 to " +
               std::to_string(kMaxPingLimitSeconds) + " seconds, not " +
               std::to_string(r.response_time_limit());
        return TK_GS_BAD_PARAMETER;
      }
      return TK_GS_OK;
    case TK_GS_COUNTER_RESPONSIVENESS:
      *why = "counter responsiveness is not supported by this agent; ask for ping responsiveness";
      return TK_GS_NOT_SUPPORTED;
    default:
      *why = "unknown responsiveness type " + std::to_string(r.type());
      return TK_GS_BAD_PARAMETER;
  }
}

}  // namespace

std::string describeClient(const ClientPort& client) {
  const ClientPort::Peer& p = client.peer();
  std::string text = "client " + std::to_string(client.id()) + " (pid " + std::to_string(p.pid) +
                     ", uid " + std::to_string(p.uid);
  if (!client.program().empty()) text += ", " + printable(client.program(), 64);
  return text + ")";
}

AgentCore::AgentCore(Bus* bus, TimerSource* timers, const Settings& settings, LogFn log)
    : bus_(bus),
      timers_(timers),
      settings_(settings),
      log_(std::move(log)),
      subscriptions_(settings.maxSubscriptionsPerClient, settings.maxSubscriptions),
      adapterRetry_(timers->newTimer()),
      goneRetry_(timers->newTimer()),
      replicaRetry_(timers->newTimer()),
      korSoon_(timers->newTimer()),
      korRetry_(timers->newTimer()),
      korSave_(timers->newTimer()) {
  replica_ = std::make_unique<Replica>(bus_, this, settings_.agentVersion, settings_.limits);
}

AgentCore::~AgentCore() {
  // The replica goes first: nothing it does on its way out may reach a
  // half-destroyed sink.
  replica_.reset();
}

void AgentCore::logLine(const char* fmt, ...) {
  if (!log_) return;
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  log_(text);
}

void AgentCore::setTopology(NodeTopology* topology) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  topology_ = topology;
}

void AgentCore::setSyncedCallback(std::function<void()> synced) {
  syncedCallback_ = std::move(synced);
}

void AgentCore::stop() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  stopping_ = true;
  adapterRetry_->cancel();
  goneRetry_->cancel();
  replicaRetry_->cancel();
  korSoon_->cancel();
  korRetry_->cancel();
  korSave_->cancel();
  for (auto& d : deadlines_) d.second.timer->cancel();
}

uint32_t AgentCore::activeVersion() const {
  uint32_t v = replica_ ? replica_->activeVersion() : 0;
  // Before the replica has heard from any agent it knows only itself.
  return v != 0 ? v : settings_.agentVersion;
}

proto::AgentFrame AgentCore::helloReply(int rc, const std::string& text) const {
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::HelloReply* hr = f.mutable_hello_reply();
  hr->set_node(bus_->selfNode());
  hr->set_agent_version(settings_.agentVersion);
  hr->set_active_version(activeVersion());
  hr->set_rc(rc);
  if (!text.empty()) hr->set_text(text);
  return f;
}

proto::AgentFrame AgentCore::domainControl(uint32_t version) const {
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  f.mutable_domain_control()->set_event(TK_GS_DOMAIN_VERSION);
  f.mutable_domain_control()->set_active_version(version);
  return f;
}

// ----------------------------------------------------------- the clients

void AgentCore::clientConnected(ClientPort* client) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  clients_[client->id()] = client;
}

void AgentCore::hello(ClientPort& client, const proto::Hello& hello) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  client.setProgram(hello.program());
  std::string why;
  int rc = checkResponsiveness(hello.responsiveness(), &why);
  if (rc != TK_GS_OK) {
    client.refuse(helloReply(rc, why), "refused: " + why);
    return;
  }
  const proto::Responsiveness& r = hello.responsiveness();
  if (r.type() == TK_GS_PING_RESPONSIVENESS) {
    client.setResponsiveness(r.interval(), r.response_time_limit());
  }
  if (hello.grouped_notifications()) groupedClients_.insert(client.id());
  client.accept(helloReply(TK_GS_OK, ""));
  client.send(domainControl(activeVersion()));
  if (client.closed()) return;
  if (r.type() == TK_GS_PING_RESPONSIVENESS) {
    logLine("%s connected; pings every %u s, to be answered within %u s",
            describeClient(client).c_str(), r.interval(), r.response_time_limit());
  } else {
    logLine("%s connected", describeClient(client).c_str());
  }
}

void AgentCore::request(ClientPort& client, const proto::Request& request) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  // Every kind of request has its unit; a kind nobody serves is answered
  // here, never dropped.
  switch (request.op_case()) {
    case proto::Request::kJoin:
    case proto::Request::kLeave:
    case proto::Request::kGoodbye:
    case proto::Request::kChangeStateValue:
    case proto::Request::kSendMessage:
    case proto::Request::kVote:
    case proto::Request::kSetAttributes:
    case proto::Request::kExpel:
      submitToReplica(client, request);
      return;
    case proto::Request::kSubscribe:
      subscribe(client, request);
      return;
    case proto::Request::kUnsubscribe:
      unsubscribe(client, request);
      return;
    case proto::Request::kQuery:
      answerQuery(client, request);
      return;
    case proto::Request::kChangeResponsiveness:
      changeResponsiveness(client, request);
      return;
    case proto::Request::kKorQuery:
    case proto::Request::kKorRegister:
    case proto::Request::kKorUnregister:
      serveResources(client, request);
      return;
    case proto::Request::OP_NOT_SET:
      break;
  }
  reply(client, request.id(), TK_GS_BAD_PARAMETER, "a request without an operation");
}

void AgentCore::clientClosed(ClientPort& client, const std::string& why, bool wasAccepted) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  uint64_t id = client.id();
  clients_.erase(id);
  groupedClients_.erase(id);
  subscriptions_.dropClient(id);
  korService_.dropClient(id);
  // Only an accepted client can hold providers.
  if (wasAccepted && !stopping_) tellGone(id, why);
}

void AgentCore::reply(ClientPort& client, uint64_t id, int rc, const std::string& text) {
  client.send(replyFrame(id, rc, text));
}

void AgentCore::submitToReplica(ClientPort& client, const proto::Request& request) {
  int rc = replica_->submit(client.id(), request);
  flushReplica();
  if (rc != 0) {
    // The replica answers what it refuses itself; a bus that does not take
    // the request leaves the answer to us.
    reply(client, request.id(), TK_GS_NOT_OK,
          "the cluster's bus did not take the request (" + errnoText(rc) + "); try again");
  }
}

void AgentCore::serveResources(ClientPort& client, const proto::Request& request) {
  // Answered from this agent's copy of the resources, which is the
  // cluster's: no round trip over the bus.
  KorService::Answer answer = korService_.answer(client.id(), request, replica_->kor());
  if (answer.pages) {
    // A query's pages are made as the client reads them.
    client.sendFrames(std::move(answer.pages));
  } else {
    client.send(answer.reply);
  }
}

void AgentCore::subscribe(ClientPort& client, const proto::Request& request) {
  const proto::Subscribe& s = request.subscribe();
  LocalSubscriptions::GroupNow now;
  bool exists =
      s.group().size() <= settings_.limits.maxGroupNameBytes && replica_->groupExists(s.group());
  if (exists) {
    now.members = replica_->members(s.group());
    now.attributes = replica_->attributes(s.group());
    if (s.group() == kRawAdapterGroup) now.adapters = replica_->liveAdapters();
  }
  std::vector<LocalSubscriptions::Outgoing> out;
  std::string why;
  int rc = subscriptions_.subscribe(client.id(), request.id(), s, exists ? &now : nullptr, &out,
                                    &why);
  reply(client, request.id(), rc, why);
  sendSubscriptionNotes(out);
}

void AgentCore::unsubscribe(ClientPort& client, const proto::Request& request) {
  std::string why;
  int rc = subscriptions_.unsubscribe(client.id(), request.unsubscribe(), &why);
  reply(client, request.id(), rc, why);
}

void AgentCore::changeResponsiveness(ClientPort& client, const proto::Request& request) {
  const proto::Responsiveness& r = request.change_responsiveness().responsiveness();
  std::string why;
  int rc = checkResponsiveness(r, &why);
  if (rc == TK_GS_OK) {
    if (r.type() == TK_GS_PING_RESPONSIVENESS) {
      client.setResponsiveness(r.interval(), r.response_time_limit());
      logLine("%s: pings every %u s now, to be answered within %u s",
              describeClient(client).c_str(), r.interval(), r.response_time_limit());
    } else {
      client.setResponsiveness(0, 0);
      logLine("%s: no pings now", describeClient(client).c_str());
    }
  }
  reply(client, request.id(), rc, why);
}

void AgentCore::answerQuery(ClientPort& client, const proto::Request& request) {
  const proto::Query& q = request.query();
  const size_t maxGroupNameBytes = settings_.limits.maxGroupNameBytes;
  if (q.kind() != proto::Query::STATUS && q.kind() != proto::Query::GROUPS &&
      q.kind() != proto::Query::MEMBERS) {
    reply(client, request.id(), TK_GS_BAD_PARAMETER,
          "unknown query kind " + std::to_string(static_cast<int>(q.kind())));
    return;
  }
  if (q.kind() == proto::Query::MEMBERS && q.group().empty()) {
    reply(client, request.id(), TK_GS_BAD_PARAMETER, "the query names no group");
    return;
  }
  if (q.kind() == proto::Query::MEMBERS && q.group().size() > maxGroupNameBytes) {
    reply(client, request.id(), TK_GS_LIMIT_EXCEEDED,
          "the group name has " + std::to_string(q.group().size()) + " bytes, at most " +
              std::to_string(maxGroupNameBytes) + " are allowed");
    return;
  }
  proto::AgentFrame f = replyFrame(request.id(), TK_GS_OK, "");
  proto::QueryAnswer* a = f.mutable_reply()->mutable_answer();
  *a = replica_->describe();
  a->set_node(bus_->selfNode());
  a->set_agent_version(settings_.agentVersion);
  a->set_active_version(activeVersion());
  a->set_client_sessions(static_cast<uint32_t>(clients_.size()));
  auto* groups = a->mutable_groups();
  if (q.kind() == proto::Query::MEMBERS) {
    auto it = std::find_if(groups->begin(), groups->end(),
                           [&](const proto::GroupSummary& g) { return g.name() == q.group(); });
    if (it == groups->end() && q.group() == kRawAdapterGroup) {
      // The raw group exists even while no adapter is alive.
      groups->Add()->set_name(kRawAdapterGroup);
      it = groups->end() - 1;
    }
    if (it == groups->end()) {
      reply(client, request.id(), TK_GS_UNKNOWN_GROUP,
            "there is no group \"" + printable(q.group(), maxGroupNameBytes) + "\"");
      return;
    }
    proto::GroupSummary only = std::move(*it);
    groups->Clear();
    *groups->Add() = std::move(only);
  }
  for (proto::GroupSummary& g : *groups) {
    g.set_subscribers_here(subscriptions_.countFor(g.name()));
    // The overviews leave out what can be large; members shows it all.
    if (q.kind() != proto::Query::MEMBERS) g.clear_state_value();
    if (q.kind() == proto::Query::STATUS) g.clear_providers();
    if (q.kind() != proto::Query::MEMBERS) g.clear_adapters();
  }
  size_t size = f.ByteSizeLong();
  if (size > settings_.maxMessageBytes) {
    reply(client, request.id(), TK_GS_LIMIT_EXCEEDED,
          "the answer would be " + std::to_string(size) + " bytes, more than the " +
              std::to_string(settings_.maxMessageBytes) +
              " the socket carries; ask for one group's members");
    return;
  }
  client.send(f);
}

void AgentCore::sendSubscriptionNotes(const std::vector<LocalSubscriptions::Outgoing>& out) {
  for (const LocalSubscriptions::Outgoing& o : out) {
    auto it = clients_.find(o.client);
    if (it == clients_.end()) continue;
    proto::AgentFrame f;
    f.set_version(proto::WIRE_VERSION_1);
    *f.mutable_notification() = o.notification;
    it->second->send(f);
  }
}

// ------------------------------------------------------ the bus's backlog

void AgentCore::busDispatched() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  flushReplica();
}

void AgentCore::flushReplica() {
  if (replicaRetryArmed_ || replica_->flushPending() == 0) return;
  // The bus refused something the replica still has to send (flow
  // control); a quiet cluster would not make it try again, so we do.
  replicaRetryArmed_ = true;
  replicaRetry_->start(kReplicaRetry, [this] {
    replicaRetryArmed_ = false;
    if (stopping_) return;
    flushReplica();
  });
}

void AgentCore::tellGone(uint64_t client, const std::string& why) {
  flushReplica();
  if (goneBacklog_.empty() && replica_->clientGone(client, why) == 0) return;
  goneBacklog_.emplace_back(client, why);
  if (goneBacklog_.size() == 1) retryGone();
}

void AgentCore::retryGone() {
  goneRetry_->start(kGoneRetry, [this] {
    if (stopping_) return;
    while (!goneBacklog_.empty()) {
      const auto& g = goneBacklog_.front();
      if (replica_->clientGone(g.first, g.second) != 0) break;
      goneBacklog_.pop_front();
    }
    if (!goneBacklog_.empty()) retryGone();
  });
}

// ------------------------------------------------------------ the replica

void AgentCore::toClient(uint64_t client, const proto::AgentFrame& frame) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  auto it = clients_.find(client);
  if (it == clients_.end()) return;   // gone meanwhile; its departure is on its way
  ClientPort* port = it->second;
  if (frame.version() != proto::WIRE_VERSION_1) {
    proto::AgentFrame copy = frame;
    copy.set_version(proto::WIRE_VERSION_1);
    toClient(client, copy);
    return;
  }
  if (groupedClients_.count(client) != 0) {
    port->send(frame);
    return;
  }
  // A client that did not ask for grouped notifications gets one frame per
  // provider; once it is cut off (it stopped reading), nothing more is made.
  splitGroupedNotification(frame, [port](const proto::AgentFrame& f) {
    port->send(f);
    return !port->closed();
  });
}

void AgentCore::groupChanged(const GroupChange& change) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  std::vector<LocalSubscriptions::Outgoing> out;
  subscriptions_.groupChanged(change, &out);
  sendSubscriptionNotes(out);
}

void AgentCore::activeVersionChanged(uint32_t version) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  logLine("the cluster's active version is %s", formatVersion(version).c_str());
  proto::AgentFrame f = domainControl(version);
  for (auto& entry : clients_) {
    if (entry.second->accepted()) entry.second->send(f);
  }
}

void AgentCore::synced() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  const View& v = replica_->view();
  std::string nodes;
  for (uint32_t n : v.members) nodes += (nodes.empty() ? "" : " ") + std::to_string(n);
  logLine("in step with the cluster: view %llu, nodes %s", static_cast<unsigned long long>(v.id),
          nodes.c_str());
  if (syncedCallback_) syncedCallback_();
  // The cluster's idea of our adapters is what the merged state says now;
  // the topology may know better (a fresh agent, a report lost with a
  // restarted sync, links that count differently in the new view).
  if (topology_ != nullptr) topology_->setView(replica_->selfNode(), v.members);
  reportedAdapters_.clear();
  for (const proto::AdapterImage& a : replica_->adaptersOf(replica_->selfNode())) {
    reportedAdapters_[a.adapter().instance()] = a;
  }
  reportAdapters();
  // Likewise for what KOR holds of this node: what was on its way may have
  // been thrown away with a restarted sync, and a merge may have brought an
  // older picture.
  sentNodeId_ = 0;
  sentNodeList_.clear();
  sentInterfaces_.clear();
  reportKor();
  scheduleKorSave();
}

// ------------------------------------------------------------------- KOR

void AgentCore::setNodeId(uint64_t nodeId) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  nodeId_ = nodeId;
  reportKorSoon();
}

void AgentCore::setNodeList(const std::vector<proto::NodeEntry>& nodes) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  haveNodeList_ = true;
  nodeList_ = nodes;
  reportKorSoon();
}

void AgentCore::setKorSaver(std::function<void(const proto::KorImage&)> save) {
  korSaver_ = std::move(save);
}

void AgentCore::seedKor(proto::KorImage image) { replica_->seedKor(std::move(image)); }

bool AgentCore::aboutSelf(const KorChange& change) const {
  const std::string prefix = KorResources::peerNodeHandle(replica_->selfNode());
  const std::string& h = change.resource.handle();
  return h == prefix || h.compare(0, prefix.size() + 1, prefix + "/") == 0;
}

void AgentCore::korChanged(const KorChange& change) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  std::vector<KorService::Outgoing> out;
  korService_.changed(change, &out);
  for (const KorService::Outgoing& o : out) {
    auto it = clients_.find(o.client);
    if (it != clients_.end()) it->second->send(o.frame);
  }
  if (aboutSelf(change)) {
    if (change.className == KOR_CLASS_PEER_NODE && change.event != KOR_CONDITION_CONFIG_CHANGED) {
      // This node was taken away or brought back (a nodelist without or
      // with it): whatever was on its way may have been ignored meanwhile.
      sentNodeId_ = 0;
      sentNodeList_.clear();
      sentInterfaces_.clear();
    } else {
      // Mostly our own reports coming back. What has arrived is no longer
      // on its way, so that what takes it away later is put right; what
      // still travels is not sent again.
      forgetArrivedKor();
    }
    reportKorSoon();
  }
  scheduleKorSave();
}

void AgentCore::forgetArrivedKor() {
  const KorResources& kor = replica_->kor();
  const uint32_t self = replica_->selfNode();
  if (sentNodeId_ != 0 && kor.nodeIdOf(self) == sentNodeId_) sentNodeId_ = 0;
  if (!sentNodeList_.empty() && kor.hasNodeList()) {
    std::string held;
    for (const proto::NodeEntry& e : kor.nodeEntries()) held += e.SerializeAsString() + "\n";
    if (held == sentNodeList_) sentNodeList_.clear();
  }
  std::map<std::string, std::string> held;
  for (const proto::InterfaceResource& r : kor.interfacesOf(self)) {
    held[r.name()] = r.SerializeAsString();
  }
  for (auto it = sentInterfaces_.begin(); it != sentInterfaces_.end();) {
    auto h = held.find(it->first);
    bool arrived = it->second.empty() ? h == held.end() : h != held.end() && h->second == it->second;
    it = arrived ? sentInterfaces_.erase(it) : std::next(it);
  }
}

void AgentCore::scheduleKorSave() {
  if (!korSaver_ || korSaveArmed_ || stopping_) return;
  korSaveArmed_ = true;
  korSave_->start(kKorSaveDelay, [this] {
    korSaveArmed_ = false;
    if (korSaver_ && !stopping_) korSaver_(replica_->kor().image());
  });
}

void AgentCore::reportKorSoon() {
  if (korSoonArmed_ || stopping_) return;
  korSoonArmed_ = true;
  korSoon_->start(std::chrono::milliseconds(0), [this] {
    korSoonArmed_ = false;
    reportKor();
  });
}

void AgentCore::reportKor() {
  if (stopping_ || !replica_->isSynced() || korRetryArmed_) return;
  const KorResources& kor = replica_->kor();
  const uint32_t self = replica_->selfNode();
  auto retryLater = [this] {
    // Flow control: what is left goes a little later, taken afresh.
    korRetryArmed_ = true;
    korRetry_->start(kReplicaRetry, [this] {
      korRetryArmed_ = false;
      reportKor();
    });
  };

  if (haveNodeList_) {
    std::string want;
    for (const proto::NodeEntry& e : nodeList_) want += e.SerializeAsString() + "\n";
    std::string held;
    if (kor.hasNodeList()) {
      for (const proto::NodeEntry& e : kor.nodeEntries()) held += e.SerializeAsString() + "\n";
    }
    if ((!kor.hasNodeList() || want != held) && want != sentNodeList_) {
      if (replica_->reportNodeList(nodeList_) != 0) return retryLater();
      sentNodeList_ = want;
      logLine("KOR: reported corosync's nodelist of %zu nodes", nodeList_.size());
    }
  }

  if (nodeId_ != 0 && kor.nodeIdOf(self) != nodeId_ && sentNodeId_ != nodeId_) {
    if (replica_->announceNodeId(nodeId_) != 0) return retryLater();
    sentNodeId_ = nodeId_;
  }

  if (topology_ != nullptr && topology_->ready()) {
    std::map<std::string, std::string> held;
    for (const proto::InterfaceResource& r : kor.interfacesOf(self)) {
      held[r.name()] = r.SerializeAsString();
    }
    std::map<std::string, proto::InterfaceResource> want;
    for (proto::InterfaceResource& r : topology_->interfaces()) {
      r.set_node(self);
      want[r.name()] = std::move(r);
    }
    const uint64_t generation = kor.generationOf(self) + 1;
    for (const auto& w : want) {
      std::string facts = w.second.SerializeAsString();
      auto h = held.find(w.first);
      if (h != held.end() && h->second == facts) continue;
      auto s = sentInterfaces_.find(w.first);
      if (s != sentInterfaces_.end() && s->second == facts) continue;
      proto::InterfaceUpdate u;
      *u.mutable_resource() = w.second;
      u.set_generation(generation);
      if (replica_->reportInterface(u) != 0) return retryLater();
      sentInterfaces_[w.first] = facts;
      logLine("KOR: publishing interface %s", printable(w.first, 32).c_str());
    }
    for (const auto& h : held) {
      if (want.count(h.first) != 0) continue;
      auto s = sentInterfaces_.find(h.first);
      if (s != sentInterfaces_.end() && s->second.empty()) continue;
      proto::InterfaceUpdate u;
      u.mutable_resource()->set_node(self);
      u.mutable_resource()->set_name(h.first);
      u.set_removed(true);
      u.set_generation(generation);
      if (replica_->reportInterface(u) != 0) return retryLater();
      sentInterfaces_[h.first] = "";
      logLine("KOR: withdrawing interface %s", printable(h.first, 32).c_str());
    }
  }
  flushReplica();
}

// ------------------------------------------------------------ the topology

void AgentCore::topologyChanged() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  reportAdapters();
  reportKorSoon();
}

void AgentCore::reportAdapters() {
  if (stopping_ || topology_ == nullptr || !topology_->ready() || !replica_->isSynced()) return;
  if (adapterRetryArmed_) return;   // the bus refused one; the retry sends the rest
  for (const proto::AdapterUpdate& u : topology_->updatesFrom(reportedAdapters_)) {
    int rc = replica_->reportAdapter(u);
    if (rc != 0) {
      // Flow control: the reports wait a little; they are taken from the
      // topology afresh then, so nothing older is sent.
      adapterRetryArmed_ = true;
      adapterRetry_->start(kReplicaRetry, [this] {
        adapterRetryArmed_ = false;
        reportAdapters();
      });
      break;
    }
    const proto::AdapterInfo& a = u.adapter();
    char ip[INET6_ADDRSTRLEN] = "?";
    if (a.ip().size() == 4) inet_ntop(AF_INET, a.ip().data(), ip, sizeof ip);
    logLine("adapter %s (%s, index %u) %s", printable(a.interface_name(), 32).c_str(), ip,
            a.instance(), u.removed() ? "is gone" : u.alive() ? "is alive" : "is dead");
    if (u.removed()) {
      reportedAdapters_.erase(a.instance());
    } else {
      proto::AdapterImage& img = reportedAdapters_[a.instance()];
      *img.mutable_adapter() = a;
      img.set_alive(u.alive());
    }
  }
  flushReplica();
}

// ---------------------------------------------------------- the deadlines

void AgentCore::deadlinesChanged(const std::vector<Deadline>& deadlines) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  std::map<DeadlineKey, DeadlineTimer> next;
  for (const Deadline& d : deadlines) {
    DeadlineKey key(d.group, d.protocol, d.phase);
    auto old = deadlines_.find(key);
    if (old != deadlines_.end()) {
      // Already running: its phase started when we first heard of it.
      next[key] = std::move(old->second);
      deadlines_.erase(old);
      continue;
    }
    DeadlineTimer& entry = next[key];
    entry.deadline = d;
    entry.timer = timers_->newTimer();
    armDeadline(key, &entry, std::chrono::seconds(d.seconds));
  }
  // What is left here is no longer watched; its timers go with it.
  deadlines_.swap(next);
}

void AgentCore::armDeadline(const DeadlineKey& key, DeadlineTimer* entry,
                            std::chrono::milliseconds after) {
  entry->timer->start(after, [this, key] { fireDeadline(key); });
}

void AgentCore::fireDeadline(const DeadlineKey& key) {
  if (stopping_) return;
  auto it = deadlines_.find(key);
  if (it == deadlines_.end()) return;
  Deadline d = it->second.deadline;
  int rc = replica_->fireTimeout(d);
  flushReplica();
  // The time-out travels the bus; until it comes back and the replica
  // hands out new deadlines, a bus that did not take it is asked again.
  it = deadlines_.find(key);
  if (rc != 0 && it != deadlines_.end()) armDeadline(key, &it->second, kTimeoutRetry);
}

}  // namespace agent
}  // namespace velt
