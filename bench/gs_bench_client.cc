#include "gs_bench_client.h"

#include <stdio.h>

#include <algorithm>
#include <cmath>

using namespace velt_gscl_V1;

namespace bench {

namespace {

// Agents that announce an interface word this benchmark understands.
constexpr int kInterfaceWord = 0x30014;

std::string textOf(const tk_gs_state_value_t* v) {
  if (v == nullptr || v->gs_state == nullptr || v->gs_length <= 0) return std::string();
  return std::string(v->gs_state, static_cast<size_t>(v->gs_length));
}

void traceToStderr(int, char* text) { fprintf(stderr, "%s\n", text); }

}  // namespace

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double percentile(const std::vector<double>& sorted, double q) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(sorted.size())));
  return sorted[std::min(std::max<size_t>(rank, 1), sorted.size()) - 1];
}

// ---------------------------------------------------------------- Events

void Events::note(Kind k, Clock::time_point at) {
  std::lock_guard<std::mutex> lk(mu_);
  ++count_[k];
  last_[k] = at;
  cv_.notify_all();
}

void Events::fail(const std::string& why) {
  std::lock_guard<std::mutex> lk(mu_);
  if (failure_.empty()) failure_ = why;
  cv_.notify_all();
}

std::string Events::failure() const {
  std::lock_guard<std::mutex> lk(mu_);
  return failure_;
}

uint64_t Events::count(Kind k) const {
  std::lock_guard<std::mutex> lk(mu_);
  return count_[k];
}

bool Events::waitFor(Kind k, uint64_t target, Clock::duration bound, Clock::time_point* lastAt) {
  std::unique_lock<std::mutex> lk(mu_);
  bool reached = cv_.wait_for(lk, bound, [&] { return count_[k] >= target || !failure_.empty(); });
  if (!reached || !failure_.empty()) return false;
  if (lastAt != nullptr) *lastAt = last_[k];
  return true;
}

void Events::noteJoinProtocol(const std::string& group, uint64_t protocol) {
  std::lock_guard<std::mutex> lk(mu_);
  joinProtocols_.insert({group, protocol});
}

size_t Events::joinProtocols() const {
  std::lock_guard<std::mutex> lk(mu_);
  return joinProtocols_.size();
}

void Events::clearJoinProtocols() {
  std::lock_guard<std::mutex> lk(mu_);
  joinProtocols_.clear();
}

void Events::expectValue(const std::string& v) {
  std::lock_guard<std::mutex> lk(mu_);
  expectedValue_ = v;
}

bool Events::isExpectedValue(const std::string& v) const {
  std::lock_guard<std::mutex> lk(mu_);
  return v == expectedValue_;
}

// --------------------------------------------------------- BenchProvider

BenchProvider::BenchProvider(const std::string& group, int instance, Events* events, bool initiator)
    : GSProvider(group.c_str(), instance, "gs_bench"), events_(events), initiator_(initiator) {}

BenchProvider::~BenchProvider() {
  // No callback may start while the voter and its queue go.
  unregister();
  {
    std::lock_guard<std::mutex> lk(voterMu_);
    stopVoter_ = true;
    voterCv_.notify_all();
  }
  if (voter_.joinable()) voter_.join();
}

void BenchProvider::startVoting() {
  std::lock_guard<std::mutex> lk(voterMu_);
  if (!voter_.joinable()) voter_ = std::thread([this] { voteLoop(); });
}

tk_gs_callback_rc_t BenchProvider::approvedCb(const tk_gs_approved_notification_t* n) {
  Clock::time_point at = Clock::now();
  events_->approvals.fetch_add(1, std::memory_order_relaxed);
  const tk_gs_proposal_t* p = n->gs_proposal;
  if (n->gs_protocol_type == TK_GS_JOIN && p != nullptr && isMine(p->gs_changing_providers)) {
    events_->noteJoinProtocol(n->gs_group_name, n->gs_protocol_number);
    events_->note(Events::kOwnJoin, at);
  } else if (n->gs_protocol_type == TK_GS_CHANGE_STATE_VALUE) {
    std::string value = textOf(p != nullptr ? p->gs_proposed_state_value : nullptr);
    if (!events_->isExpectedValue(value)) {
      events_->fail(std::string(getTraceIdStr()) + " got the approval of the state value \"" + value +
                    "\", which no one proposed now");
      return TK_GS_CALLBACK_OK;
    }
    if (initiator_) events_->note(Events::kInitiatorChange, at);
    events_->note(Events::kChangeApproved, at);
  }
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t BenchProvider::nPhaseCb(const tk_gs_n_phase_notification_t* n) {
  std::lock_guard<std::mutex> lk(voterMu_);
  if (!voter_.joinable() || n->gs_protocol_type != TK_GS_CHANGE_STATE_VALUE) {
    events_->fail(std::string(getTraceIdStr()) + " was asked to vote on " + gscl_request_name(n->gs_protocol_type) +
                  ", which this benchmark never starts");
    return TK_GS_CALLBACK_OK;
  }
  ++votesOwed_;
  voterCv_.notify_all();
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t BenchProvider::rejectedCb(const tk_gs_rejected_notification_t* n) {
  events_->fail(std::string(getTraceIdStr()) + ": " + gscl_request_name(n->gs_protocol_type) +
                " was rejected (summary " + gscl_summary_code_names(n->gs_summary_code) + ")");
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t BenchProvider::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  events_->fail(std::string(getTraceIdStr()) + ": " + gscl_request_name(n->gs_request_type) +
                " failed later with " + gscl_rc_name(n->gs_delayed_return_code));
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t BenchProvider::announcementCb(const tk_gs_announcement_notification_t* n) {
  if ((n->gs_summary_code & TK_GS_GROUP_SERVICES_HAS_DIED) != 0) {
    events_->fail("the connection to veltd was lost");
  } else {
    events_->fail(std::string(getTraceIdStr()) + ": unexpected announcement " +
                  gscl_summary_code_names(n->gs_summary_code));
  }
  return TK_GS_CALLBACK_OK;
}

bool BenchProvider::isMine(const tk_gs_membership_t* m) const {
  if (m == nullptr) return false;
  uint32_t me = getProviderId().gs_provider_id;
  for (unsigned int i = 0; i < m->gs_count; ++i) {
    if (m->gs_providers[i].gs_provider_id == me) return true;
  }
  return false;
}

void BenchProvider::voteLoop() {
  std::unique_lock<std::mutex> lk(voterMu_);
  while (true) {
    // The owner always sets stopVoter_ before it joins this thread; the
    // bound only keeps the wait from being open-ended.
    voterCv_.wait_for(lk, std::chrono::seconds(1), [this] { return stopVoter_ || votesOwed_ > 0; });
    if (stopVoter_) return;
    if (votesOwed_ == 0) continue;
    --votesOwed_;
    lk.unlock();
    tk_gs_rc_t rc = vote(TK_GS_VOTE_APPROVE, nullptr, nullptr, TK_GS_NO_VOTE);
    if (rc == TK_GS_OK) {
      events_->note(Events::kVoteCast, Clock::now());
    } else {
      events_->fail(std::string(getTraceIdStr()) + ": vote returned " + gscl_rc_name(rc));
    }
    lk.lock();
  }
}

// --------------------------------------------------------- GsBenchClient

GsBenchClient::GsBenchClient(const char* benchName) : name_(benchName), controller_(kInterfaceWord) {}

GsBenchClient::~GsBenchClient() { stop(); }

bool GsBenchClient::connect(std::chrono::seconds bound, const std::function<bool(std::string*)>& gone,
                            std::string* why) {
  auto until = Clock::now() + bound;
  tk_gs_rc_t rc;
  while (true) {
    rc = controller_.initialize();
    if (rc == TK_GS_OK) break;
    controller_.quit();
    std::string how;
    if (gone(&how)) {
      *why = how + " before it answered";
      return false;
    }
    if (rc != TK_GS_NOT_CONNECTED) {
      *why = std::string("initialize returned ") + gscl_rc_name(rc);
      return false;
    }
    if (Clock::now() >= until) {
      *why = "the agent did not answer within " + std::to_string(bound.count()) + " s";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  // The library's own diagnostics from here on: the refused attempts
  // while the agent was starting are expected and not worth a line.
  GSSetTraceRtn(traceToStderr);
  dispatcher_ = std::thread([this] {
    tk_gs_rc_t d;
    while ((d = controller_.dispatch(TK_GS_BLOCKING)) == TK_GS_OK) {
    }
    if (d == TK_GS_GS_HAS_DIED) events_.fail("the connection to veltd was lost");
  });
  return true;
}

void GsBenchClient::stop() {
  controller_.quit();
  if (dispatcher_.joinable()) dispatcher_.join();
}

bool GsBenchClient::joinAndWait(BenchProvider* p, Clock::time_point* approvedAt) {
  uint64_t target = events_.count(Events::kOwnJoin) + 1;
  tk_gs_rc_t rc = p->joinGroup();
  if (rc != TK_GS_OK) return fail(std::string(p->getTraceIdStr()) + ": join returned " + gscl_rc_name(rc));
  if (!events_.waitFor(Events::kOwnJoin, target, kRoundTripBound, approvedAt)) {
    return fail(std::string(p->getTraceIdStr()) + ": no approval of its join within " +
                std::to_string(kRoundTripBound.count()) + " s");
  }
  return true;
}

bool GsBenchClient::goodbye(BenchProvider* p) {
  tk_gs_rc_t rc = p->goodbyeGroup();
  if (rc != TK_GS_OK) return fail(std::string(p->getTraceIdStr()) + ": goodbye returned " + gscl_rc_name(rc));
  return true;
}

bool GsBenchClient::drain() {
  BenchProvider fence(name_ + ".fence", 1, &events_);
  return joinAndWait(&fence) && goodbye(&fence);
}

std::string GsBenchClient::failure() const {
  std::string why = events_.failure();
  return why.empty() ? step_ : why;
}

bool GsBenchClient::fail(const std::string& why) {
  step_ = why;
  return false;
}

// ----------------------------------------------------------- JoinRoundTrip

JoinRoundTrip::JoinRoundTrip(GsBenchClient* client, const std::string& group)
    : client_(client), anchor_(group, 1, &client->events()), joiner_(group, 2, &client->events()) {}

bool JoinRoundTrip::start() { return client_->joinAndWait(&anchor_); }

bool JoinRoundTrip::measure(int cycles, std::vector<double>* samples) {
  for (int c = 0; c < cycles; ++c) {
    Clock::time_point start = Clock::now();
    Clock::time_point approved;
    if (!client_->joinAndWait(&joiner_, &approved) || !client_->goodbye(&joiner_)) return false;
    samples->push_back(micros(approved - start));
  }
  return true;
}

bool JoinRoundTrip::finish() { return client_->goodbye(&anchor_) && client_->drain(); }

}  // namespace bench
