// The members of groups: GSProvider (one provider of one group) and
// GSSubscriber (a watcher of one group), both clients of the process's
// GSController. Requests go to the node agent and return its sync answer;
// what happens to the group later arrives as callbacks, which run only on
// the thread that calls GSController::dispatch. The client state
// (GS_IAM_IDLE ...) lives in the object and changes when the object's own
// notifications are dispatched (and on the sync answers that settle it:
// a refused join, a goodbye, an unsubscribe).
#ifndef VELT_PLATFORM_GSCL_GS_CLIENT_H_
#define VELT_PLATFORM_GSCL_GS_CLIENT_H_

#include <stdint.h>

#include <atomic>
#include <string>

#include "gs_types.h"
#include "gs_utils.h"
#include "velt_mutex.h"

namespace velt_gscl_V1 {

namespace internal {
class ClientAccess;
}

enum GSClientState {
  GS_IAM_IDLE = 0,
  GS_IAM_JOINING = 1,
  GS_IAM_JOINED = 2,
  GS_IAM_SUBSCRIBING = 3,
  GS_IAM_SUBSCRIBED = 4,
};

// "GS_IAM_IDLE", ...; "GS_IAM_UNKNOWN(<n>)" in a thread-local buffer.
const char* gscl_client_state_name(int state);

enum GSClientType {
  GS_PROVIDER_CLIENT = 1,
  GS_SUBSCRIBER_CLIENT = 2,
};

// What providers and subscribers share: registration with the process's
// client registry (so that the controller can route notifications and tell
// everyone when group services die), the client state and the last known
// membership. Thread-safe. A client may be destroyed on any thread, also
// inside its own callback; destruction elsewhere waits for a callback in
// progress on the dispatch thread. A derived class whose callbacks use its
// own members calls unregister() first in its destructor, so that no
// callback starts while those members go.
class GSClient : public GSObject {
 public:
  ~GSClient() override;
  GSClient(const GSClient&) = delete;
  GSClient& operator=(const GSClient&) = delete;

  virtual GSClientType getClientType() const = 0;
  GSClientState getClientState() const;
  // The group this client is for. The text stays valid as long as the
  // process lives, also after setGroupName, so that a callback on another
  // thread may hold it while the name changes.
  const char* getGroupName() const { return groupName_.load(); }
  // How the library names this client in its traces; never changes.
  const char* getTraceIdStr() const { return traceId_.c_str(); }
  // The group's members as the last notification of this client showed
  // them. TK_GS_OK, or TK_GS_NOT_OK (and an empty list) when this client
  // has not seen the group since it last was idle; TK_GS_BAD_PARAMETER for
  // a null list.
  tk_gs_rc_t getMembers(GSMembershipList* out) const;

 protected:
  GSClient(const char* groupName, const std::string& traceId);
  // Changes the group name; TK_GS_BAD_PARAMETER for a null, empty or too
  // long name, TK_GS_LIMIT_EXCEEDED when the process has used too many
  // distinct group names.
  tk_gs_rc_t changeGroupName(const char* name);
  // Unregisters from the process's registry (no notification reaches this
  // client afterwards); idempotent. Called by the destructors.
  void unregister();

 private:
  friend class internal::ClientAccess;
  friend class GSProvider;
  friend class GSSubscriber;

  // Sets the state and the frame number it reflects (a newer number
  // wins; older frames no longer change it). Idle forgets the membership.
  void setStateLocked(GSClientState s, uint64_t seq) REQUIRES(mu_);

  std::atomic<const char*> groupName_;   // interned, never freed
  std::string traceId_;                  // written once in the constructor

  // Lock order: the registry's lock before mu_; mu_ is never held while a
  // request waits for the agent or a callback runs.
  mutable velt::Mutex mu_;
  GSClientState state_ GUARDED_BY(mu_) = GS_IAM_IDLE;
  // Number of the newest agent frame the state reflects, so that
  // notifications dispatched late never undo a newer sync answer.
  uint64_t stateSeq_ GUARDED_BY(mu_) = 0;
  GSMembershipList members_ GUARDED_BY(mu_);
  bool haveMembers_ GUARDED_BY(mu_) = false;
};

// One provider (instance number on this node) of one group. Thread-safe:
// requests may be issued from any thread (the daemon's mediator and
// propagator issue joins and votes while dispatch runs elsewhere); its
// callbacks run on the dispatch thread only. Overriders of the callbacks
// need not call the base: the library records the notification (state,
// membership, pending vote) before the callback runs.
class GSProvider : public GSClient {
 public:
  // groupName: at most TK_GS_MAX_GROUP_NAME_LENGTH bytes; instance: 0 to
  // 65535 (checked at join); clientName: the name the agent shows for us.
  GSProvider(const char* groupName, int instanceNumber, const char* clientName);
  ~GSProvider() override;

  GSClientType getClientType() const override { return GS_PROVIDER_CLIENT; }

  // Callbacks, in slot order.
  virtual tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n);
  virtual tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n);
  virtual tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n);
  virtual tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n);
  virtual tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n);
  virtual tk_gs_callback_rc_t mergeCb(const tk_gs_merge_notification_t* n);

  // Requests, in slot order. Each returns the agent's sync answer, or a
  // local refusal: TK_GS_NOT_INITIALIZED without a connection,
  // TK_GS_GS_HAS_DIED after it was lost, TK_GS_TIMEOUT when the agent did
  // not answer within the request bound, TK_GS_BAD_PARAMETER /
  // TK_GS_LIMIT_EXCEEDED for arguments out of range.
  // Joins with the attributes of setGroupAttributes (or the defaults: one
  // phase, default vote approve, no time limit). IDLE -> JOINING; the
  // approval of our join makes it JOINED; TK_GS_ALREADY_JOINED unless idle.
  virtual tk_gs_rc_t joinGroup();
  // Leaves at once, without a protocol; IDLE on success.
  // TK_GS_BACKLEVEL_PROVIDERS when an agent of an older level hosts a
  // provider of the group.
  virtual tk_gs_rc_t goodbyeGroup();
  virtual tk_gs_rc_t changeStateValue(const tk_gs_state_value_t* value, tk_gs_num_phases_t numPhases,
                                      int timeLimit);
  // A leave protocol. leaveCode is the caller's reason; the agent's leave
  // carries none, so it is only traced.
  virtual tk_gs_rc_t leaveGroup(int leaveCode, tk_gs_num_phases_t numPhases, int timeLimit);
  virtual tk_gs_rc_t expelMembers(const tk_gs_membership_t* members);
  virtual tk_gs_rc_t send_message(const tk_gs_provider_message_t* message, tk_gs_num_phases_t numPhases,
                                  int timeLimit);
  // Votes on the phase of the last n-phase notification this provider got.
  // newValue / message may be null; nextDefaultVote TK_GS_NO_VOTE keeps the
  // group's. TK_GS_INVALID_STATE when no protocol waits for our vote.
  virtual tk_gs_rc_t vote(tk_gs_vote_t vote, const tk_gs_state_value_t* newValue,
                          const tk_gs_provider_message_t* message, tk_gs_vote_t nextDefaultVote);
  // Changes the attributes of the group we are joined to.
  virtual tk_gs_rc_t change_attributes(const tk_gs_group_attributes_t* attributes);

  // Checks and keeps the attributes the next join gives (no request).
  // The attribute's group name, when given, must be this provider's.
  tk_gs_rc_t setGroupAttributes(const tk_gs_group_attributes_t* attributes);
  tk_gs_rc_t setGroupName(const char* name) { return changeGroupName(name); }
  int getInstanceNumber() const { return instance_; }
  const char* getClientName() const { return clientName_.c_str(); }
  // (instance, this node); the node part is 0 before the first connection.
  tk_gs_provider_t getProviderId() const;
  // The group's committed state value as last notified; TK_GS_NOT_OK when
  // none is known.
  tk_gs_rc_t getStateValue(std::string* out) const;

 private:
  friend class internal::ClientAccess;

  struct Attributes {
    bool given = false;
    tk_gs_group_attributes_t a{};
    std::string groupName;
    std::string sourceGroupName;
    bool hasSource = false;
  };

  tk_gs_rc_t protocolRequest(int type, const char* what, const std::string* value, tk_gs_num_phases_t numPhases,
                             int timeLimit);

  const int instance_;
  const std::string clientName_;

  // Taken after GSClient's lock when both are needed; never held while
  // calling the agent.
  mutable velt::Mutex providerMu_;
  Attributes attributes_ GUARDED_BY(providerMu_);
  bool voteOwed_ GUARDED_BY(providerMu_) = false;
  uint64_t voteProtocol_ GUARDED_BY(providerMu_) = 0;
  uint32_t votePhase_ GUARDED_BY(providerMu_) = 0;
  std::string stateValue_ GUARDED_BY(providerMu_);
  bool haveStateValue_ GUARDED_BY(providerMu_) = false;
};

// A subscriber to one group's membership. Thread-safe: subscribe and
// unsubscribe from any thread; callbacks run on the dispatch thread only,
// after the library recorded the notification.
class GSSubscriber : public GSClient {
 public:
  // subscriptionType: TK_GS_SUBSCRIPTION_* bits wanted (the daemon asks
  // for delta join | delta leave; the first notification is always the full
  // membership).
  GSSubscriber(const char* groupName, unsigned int subscriptionType);
  ~GSSubscriber() override;

  GSClientType getClientType() const override { return GS_SUBSCRIBER_CLIENT; }

  // In slot order.
  virtual tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n);
  // IDLE -> SUBSCRIBING; the first membership notification makes it
  // SUBSCRIBED. A group that does not exist yet gives the delayed error
  // TK_GS_UNKNOWN_GROUP and the subscription stays SUBSCRIBING until the
  // group appears. TK_GS_ALREADY_SUBSCRIBED unless idle.
  virtual tk_gs_rc_t subscribeGroup();
  // -> IDLE. TK_GS_NOT_SUBSCRIBED when idle.
  virtual tk_gs_rc_t unsubscribeGroup();
  virtual tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n);

  unsigned int getSubscriptionType() const { return type_; }

 private:
  friend class internal::ClientAccess;

  const unsigned int type_;
  std::atomic<uint32_t> number_{0};   // the subscription's number on the connection; 0 = none
};

}  // namespace velt_gscl_V1

#endif  // VELT_PLATFORM_GSCL_GS_CLIENT_H_
