// The configuration monitor: its event session, the five registrations
// (order, first failure, undoing a refused one, an answer without an id),
// the callbacks (errors ignored, define or undefine by the event's flags,
// the propagator told), the thread's passes (initial harvests and their
// retries, the non-leader's sleep, the leader's session with its growing
// retry delays, registration and dispatch failures, the exit path) and the
// controller's harvest entry points through it.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "monitor_test_support.h"

namespace {

using namespace monitor_test;  // NOLINT: test helpers

// ---------------------------------------------------------- registration

class KorRegistration : public MonitorFixture {
 protected:
  void TearDown() override {
    if (monitor_ != nullptr) {
      monitor_->unregisterPNNIEvents();
      monitor_->finishKORSession();
    }
    MonitorFixture::TearDown();
  }
};

TEST_F(KorRegistration, TheEventSessionIsOpenedOnceInModeTwoAndFinished) {
  EXPECT_EQ(0, monitor_->startKORSession());
  mc_sess_hndl_t session = monitor_->session_handle;
  EXPECT_NE(0u, session);
  EXPECT_EQ(0, monitor_->startKORSession());
  EXPECT_EQ(session, monitor_->session_handle);
  std::vector<fake_mc::SessionStart> starts = fake_mc::sessionStartsForTesting();
  ASSERT_EQ(1u, starts.size());
  EXPECT_TRUE(starts[0].contactNull);
  EXPECT_EQ(0u, starts[0].options);
  EXPECT_EQ(2, starts[0].mode);
  EXPECT_EQ(0, monitor_->finishKORSession());
  EXPECT_EQ(0u, monitor_->session_handle);
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(1, countOf(log(), " Finishing KOR Session"));
  // Nothing to finish any more.
  EXPECT_EQ(0, monitor_->finishKORSession());
  EXPECT_EQ(1, countOf(log(), " Finishing KOR Session"));
}

TEST_F(KorRegistration, AFailedSessionStartReturnsKorsResultAndLeavesNoSession) {
  fake_mc::failStartSessionForTesting(1, MC_ENOAGENT);
  EXPECT_EQ(MC_ENOAGENT, monitor_->startKORSession());
  EXPECT_EQ(0u, monitor_->session_handle);
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
}

TEST_F(KorRegistration, TheFiveEventsAreRegisteredInOrder) {
  ASSERT_EQ(0, monitor_->startKORSession());
  EXPECT_EQ(0, monitor_->registerPNNIEvents());
  EXPECT_TRUE(monitor_->isRegisteredToAll());
  std::vector<fake_mc::Registration> regs = fake_mc::registrationsForTesting();
  ASSERT_EQ(5u, regs.size());
  const char* classes[] = {KOR_CLASS_PEER_NODE, KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE,
                           KOR_CLASS_NETWORK_INTERFACE};
  const char* events[] = {"ResourceDefined", "ResourceUndefined", "ResourceDefined", "ResourceUndefined"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(regs[i].isClassEvent) << i;
    EXPECT_EQ(classes[i], regs[i].className) << i;
    EXPECT_EQ(events[i], regs[i].eventName) << i;
    EXPECT_EQ(monitor_->session_handle, regs[i].session);
  }
  EXPECT_FALSE(regs[4].isClassEvent);
  EXPECT_EQ(KOR_CLASS_NETWORK_INTERFACE, regs[4].className);
  EXPECT_EQ("ConfigChanged", regs[4].condition);
  EXPECT_EQ("", regs[4].select);
  EXPECT_EQ(0u, regs[4].options);
  ASSERT_EQ(11u, regs[4].attrNames.size());
  for (int i = 0; i < 11; ++i) EXPECT_EQ(NI_RetResAttrs[i], regs[4].attrNames[i]);
  // Each id lands in its own member.
  EXPECT_EQ(regs[0].id, monitor_->regid_PN_ClsDefAttr);
  EXPECT_EQ(regs[1].id, monitor_->regid_PN_ClsUndefAttr);
  EXPECT_EQ(regs[2].id, monitor_->regid_NI_ClsDefAttr);
  EXPECT_EQ(regs[3].id, monitor_->regid_NI_ClsUndefAttr);
  EXPECT_EQ(regs[4].id, monitor_->regid_NI_ResAttr);
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode ClassAttr(ResourceDefined)")) << text;
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode ClassAttr(ResourceUndefined)"));
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface ClassAttr(ResourceDefined)"));
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface ClassAttr(ResourceUndefined)"));
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode(ResourceDefined) rc=0, regid=" + std::to_string(regs[0].id)));
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface for DynAttrs"));
  EXPECT_EQ(1, countOf(text, "Zel.NetworkInterface/Resource rc=0, errnum=0, regid=" + std::to_string(regs[4].id) +
                                 " registered"));
}

TEST_F(KorRegistration, WithoutASessionNothingIsRegistered) {
  EXPECT_EQ(-1, monitor_->registerPNNIEvents());
  std::atomic<mc_reg_id_t> id{MC_REG_ID_NONE};
  EXPECT_EQ(-1, monitor_->register_kor_class_event(id, 0, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, nullptr, 0,
                                                   &AMCfgMonitor::PNClsEventCB));
  EXPECT_TRUE(fake_mc::registrationsForTesting().empty());
}

TEST_F(KorRegistration, AFailingCallStopsTheRegistrationsThere) {
  ASSERT_EQ(0, monitor_->startKORSession());
  fake_mc::scriptRegistrationForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED,
                                        fake_mc::RegScript::kCallFails, MC_ENOCLASS, 1);
  EXPECT_EQ(MC_ENOCLASS, monitor_->registerPNNIEvents());
  EXPECT_EQ(2u, fake_mc::registrationsForTesting().size());
  EXPECT_NE(MC_REG_ID_NONE, monitor_->regid_PN_ClsDefAttr);
  EXPECT_NE(MC_REG_ID_NONE, monitor_->regid_PN_ClsUndefAttr);
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_NI_ClsDefAttr);
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_NI_ClsUndefAttr);
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_NI_ResAttr);
  EXPECT_FALSE(monitor_->isRegisteredToAll());
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface (ResourceDefined) error=5: fake libvx_mc: "
                             "mc_reg_class_event_bp failed with 5"))
      << text;
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface(ResourceDefined) rc=5, regid=-1"));
  // The interfaces' "ResourceUndefined" was never tried.
  EXPECT_EQ(1, countOf(text, "ClassAttr(ResourceUndefined)"));
}

TEST_F(KorRegistration, ARefusalWithAnIdIsUndone) {
  ASSERT_EQ(0, monitor_->startKORSession());
  fake_mc::scriptRegistrationForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED, fake_mc::RegScript::kRefusedWithId,
                                        0x2a, 1);
  EXPECT_EQ(0x2a, monitor_->registerPNNIEvents());
  std::vector<fake_mc::Registration> regs = fake_mc::registrationsForTesting();
  ASSERT_EQ(2u, regs.size());
  ASSERT_NE(MC_REG_ID_NONE, regs[1].id);
  std::vector<mc_reg_id_t> undone = fake_mc::unregisteredIdsForTesting();
  ASSERT_EQ(1u, undone.size());
  EXPECT_EQ(regs[1].id, undone[0]);
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_PN_ClsUndefAttr);
  EXPECT_EQ(1, fake_mc::activeRegistrationsForTesting());  // the first one only
  EXPECT_EQ(0, fake_mc::responsesOutstandingForTesting());
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode (ResourceUndefined) errnum=42")) << text;
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode(ResourceUndefined) rc=42, errnum=0x2a, regid=-1"));
}

TEST_F(KorRegistration, ARefusalWithoutAnIdNeedsNoUndo) {
  ASSERT_EQ(0, monitor_->startKORSession());
  fake_mc::scriptRegistrationForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, fake_mc::RegScript::kRefusedNoId, 7,
                                        1);
  EXPECT_EQ(7, monitor_->registerPNNIEvents());
  EXPECT_TRUE(fake_mc::unregisteredIdsForTesting().empty());
  EXPECT_EQ(1u, fake_mc::registrationsForTesting().size());
  EXPECT_EQ(1, countOf(log(), "Registering Zel.PeerNode(ResourceDefined) rc=7, errnum=0x7, regid=-1"));
}

TEST_F(KorRegistration, AnAcceptedRegistrationWithoutAnIdCountsAsAFailure) {
  ASSERT_EQ(0, monitor_->startKORSession());
  fake_mc::scriptRegistrationForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_UNDEFINED,
                                        fake_mc::RegScript::kAcceptedNoId, 0, 1);
  EXPECT_EQ(-1, monitor_->registerPNNIEvents());
  EXPECT_EQ(4u, fake_mc::registrationsForTesting().size());
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_NI_ClsUndefAttr);
  EXPECT_EQ(1, countOf(log(), "Registering Zel.NetworkInterface(ResourceUndefined) rc=-1, regid=-1"));
}

TEST_F(KorRegistration, TheResourceEventTracesItsFailuresInItsOwnWords) {
  ASSERT_EQ(0, monitor_->startKORSession());
  fake_mc::scriptRegistrationForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_CONDITION_CONFIG_CHANGED,
                                        fake_mc::RegScript::kCallFails, MC_ENOTSUP, 1);
  EXPECT_EQ(MC_ENOTSUP, monitor_->registerPNNIEvents());
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "Regsitering NI/DynAttrs errors=11: fake libvx_mc: mc_reg_event_bp failed with 11"))
      << text;
  EXPECT_EQ(1, countOf(text, "Zel.NetworkInterface/Resource rc=11, errnum=0, regid=-1 not registered"));

  fake_mc::scriptRegistrationForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_CONDITION_CONFIG_CHANGED,
                                        fake_mc::RegScript::kRefusedWithId, 0x2a, 1);
  EXPECT_EQ(0x2a, monitor_->registerPNNIEvents());
  text = log();
  EXPECT_EQ(1, countOf(text, "Regsitering NI/DynAttrs mc_errnum=0x2a")) << text;
  EXPECT_EQ(1, countOf(text, "Zel.NetworkInterface/Resource rc=42, errnum=42, regid=-1 not registered"));
  // The refused resource registration was undone.
  std::vector<fake_mc::Registration> regs = fake_mc::registrationsForTesting();
  std::vector<mc_reg_id_t> undone = fake_mc::unregisteredIdsForTesting();
  ASSERT_FALSE(undone.empty());
  EXPECT_EQ(regs.back().id, undone.back());
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_NI_ResAttr);

  fake_mc::scriptRegistrationForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_CONDITION_CONFIG_CHANGED,
                                        fake_mc::RegScript::kAcceptedNoId, 0, 1);
  EXPECT_EQ(-1, monitor_->registerPNNIEvents());
  EXPECT_EQ(1, countOf(log(), "Zel.NetworkInterface/Resource rc=-1, errnum=0, regid=-1 not registered"));
}

TEST_F(KorRegistration, UnregisteringEndsEveryValidIdAndTracesEachOne) {
  ASSERT_EQ(0, monitor_->startKORSession());
  ASSERT_EQ(0, monitor_->registerPNNIEvents());
  std::vector<fake_mc::Registration> regs = fake_mc::registrationsForTesting();
  EXPECT_EQ(0, monitor_->unregisterPNNIEvents());
  std::vector<mc_reg_id_t> undone = fake_mc::unregisteredIdsForTesting();
  ASSERT_EQ(5u, undone.size());
  for (int i = 0; i < 5; ++i) EXPECT_EQ(regs[i].id, undone[i]);
  EXPECT_EQ(0, fake_mc::activeRegistrationsForTesting());
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_PN_ClsDefAttr);
  EXPECT_EQ(MC_REG_ID_NONE, monitor_->regid_NI_ResAttr);
  // Registering began with the same five lines (nothing was registered
  // then); unregistering added them once more.
  std::string text = log();
  EXPECT_EQ(2, countOf(text, "Finishing Zel.PeerNode(ResourceDefined) registration")) << text;
  EXPECT_EQ(2, countOf(text, "Finishing Zel.PeerNode(ResourceUndefined) registration"));
  EXPECT_EQ(2, countOf(text, "Finishing Zel.NetworkInterface(ResourceDefined) registration"));
  EXPECT_EQ(2, countOf(text, "Finishing Zel.NetworkInterface(ResourceUndefined) registration"));
  EXPECT_EQ(2, countOf(text, "Finishing Zel.NetworkInterface(ConfigChanged) registration"));
  // Ids no longer valid are only traced.
  EXPECT_EQ(0, monitor_->unregisterPNNIEvents());
  EXPECT_EQ(5u, fake_mc::unregisteredIdsForTesting().size());
  EXPECT_EQ(3, countOf(log(), "Finishing Zel.PeerNode(ResourceDefined) registration"));
}

TEST_F(KorRegistration, RegisteringAgainFirstEndsTheOldRegistrations) {
  ASSERT_EQ(0, monitor_->startKORSession());
  ASSERT_EQ(0, monitor_->registerPNNIEvents());
  ASSERT_EQ(0, monitor_->registerPNNIEvents());
  EXPECT_EQ(5u, fake_mc::unregisteredIdsForTesting().size());
  EXPECT_EQ(10u, fake_mc::registrationsForTesting().size());
  EXPECT_EQ(5, fake_mc::activeRegistrationsForTesting());
  EXPECT_TRUE(monitor_->isRegisteredToAll());
}

// ------------------------------------------------------------- callbacks

class KorCallbacks : public KorRegistration {
 protected:
  void SetUp() override {
    KorRegistration::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(0, monitor_->startKORSession());
    ASSERT_EQ(0, monitor_->registerPNNIEvents());
    prop_->forget();
  }
  // Runs what arrived, on this thread.
  void dispatch() { ASSERT_EQ(MC_OK, mc_dispatch(monitor_->session_handle, MC_DISPATCH_OPTS_NO_WAIT)); }
};

TEST_F(KorCallbacks, PeerNodeClassEventsAskThePropagatorForAHarvest) {
  ASSERT_EQ(1, fake_mc::fireClassEventForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED));
  ASSERT_EQ(1, fake_mc::fireClassEventForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED));
  dispatch();
  EXPECT_EQ(2, prop_->pendingPeerNodeEvents());
  EXPECT_EQ(0, prop_->pendingNetInterfaceEvents());
  EXPECT_EQ(2, prop_->count(PEVT_TRIGGER_CONFIG_EVENT));
  EXPECT_EQ(2, countOf(log(), "PNClsEventCallback"));
}

TEST_F(KorCallbacks, InterfaceClassEventsAskThePropagatorForAHarvest) {
  ASSERT_EQ(1, fake_mc::fireClassEventForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED));
  ASSERT_EQ(1, fake_mc::fireClassEventForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_UNDEFINED));
  dispatch();
  EXPECT_EQ(2, prop_->pendingNetInterfaceEvents());
  EXPECT_EQ(0, prop_->pendingPeerNodeEvents());
  EXPECT_EQ(2, prop_->count(PEVT_TRIGGER_CONFIG_EVENT));
  EXPECT_EQ(2, countOf(log(), "NIClsEventCallback"));
}

TEST_F(KorCallbacks, EventsThatCarryAnErrorAreIgnored) {
  knowNodes({2});
  fake_mc::fireClassEventForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, MC_EPROTO);
  fake_mc::fireClassEventForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED, MC_EPROTO);
  ASSERT_EQ(1, fake_mc::fireResourceEventForTesting(KOR_CLASS_NETWORK_INTERFACE,
                                                    networkInterface("sxn0", idOfNode(2), "10.0.0.2"), 0, MC_EPROTO));
  dispatch();
  EXPECT_EQ(0, prop_->pendingPeerNodeEvents());
  EXPECT_EQ(0, prop_->pendingNetInterfaceEvents());
  EXPECT_EQ(0, prop_->count(PEVT_TRIGGER_CONFIG_EVENT));
  EXPECT_EQ(nullptr, row(2, "sxn0"));
  std::string text = log();
  EXPECT_EQ(0, countOf(text, "PNClsEventCallback"));
  EXPECT_EQ(0, countOf(text, "NIClsEventCallback"));
}

TEST_F(KorCallbacks, AResourceEventWithoutUnassignFlagsDefinesTheAdapter) {
  knowNodes({2});
  ASSERT_EQ(1, fake_mc::fireResourceEventForTesting(KOR_CLASS_NETWORK_INTERFACE,
                                                    networkInterface("sxn0", idOfNode(2), "10.0.0.2"), 0));
  dispatch();
  EXPECT_TRUE(configured(2, "sxn0"));
  EXPECT_EQ(1, prop_->pendingNetInterfaceEvents());
  EXPECT_EQ(1, prop_->count(PEVT_TRIGGER_CONFIG_EVENT));
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "In setAdapterDefinedWithLock(), Call setAdapterDefinedWithoutLock()")) << text;
  // Other flags than the two unassign ones still define.
  ASSERT_EQ(1, fake_mc::fireResourceEventForTesting(KOR_CLASS_NETWORK_INTERFACE,
                                                    networkInterface("sxn1", idOfNode(2), "10.0.1.2"), 0x10));
  dispatch();
  EXPECT_TRUE(configured(2, "sxn1"));
}

TEST_F(KorCallbacks, EitherUnassignFlagUndefinesTheAdapter) {
  knowNodes({2});
  for (uint32_t flags : {static_cast<uint32_t>(MC_EVENT_UNASSIGN), static_cast<uint32_t>(MC_EVENT_UNASSIGN_UNDEF),
                         static_cast<uint32_t>(MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF)}) {
    table_->setAdapterDefinedWithLock(table_test::makeInterface(2, "sxn0", "10.0.0.2", 0x100));
    ASSERT_TRUE(configured(2, "sxn0"));
    int before = prop_->pendingNetInterfaceEvents();
    ASSERT_EQ(1, fake_mc::fireResourceEventForTesting(KOR_CLASS_NETWORK_INTERFACE,
                                                      networkInterface("sxn0", idOfNode(2), "10.0.0.2"), flags));
    dispatch();
    EXPECT_FALSE(configured(2, "sxn0")) << "flags " << flags;
    EXPECT_EQ(before + 1, prop_->pendingNetInterfaceEvents());
  }
  EXPECT_EQ(3, countOf(log(), "In setAdapterUndefinedWithoutLock(), Call accumulate_NAM_changes()"));
}

TEST_F(KorCallbacks, EventsOfEndedRegistrationsAreNotDelivered) {
  monitor_->unregisterPNNIEvents();
  EXPECT_EQ(0, fake_mc::fireClassEventForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED));
  dispatch();
  EXPECT_EQ(0, prop_->pendingPeerNodeEvents());
}

// ------------------------------------------------------------ the thread

class MonitorThread : public MonitorFixture {
 protected:
  // Starts the thread as a non-leader and lets the initial harvests end.
  ::testing::AssertionResult startPastTheInitialHarvests() {
    ::testing::AssertionResult settled = startAndSettle();
    if (!settled) return settled;
    if (monitor_->waitSecsForTesting() != -1 || !monitorIdle())
      return ::testing::AssertionFailure() << "not resting without a time-out after the initial harvests";
    return ::testing::AssertionSuccess();
  }

  // The retry delays traced for failed session starts, in order.
  std::vector<int> tracedRetryDelays() {
    std::vector<int> out;
    for (const std::string& line : linesWith(log(), " startKORSession failed. rc=")) {
      size_t at = line.find(", Retry after ");
      if (at == std::string::npos) continue;
      out.push_back(atoi(line.c_str() + at + strlen(", Retry after ")));
    }
    return out;
  }
};

TEST_F(MonitorThread, InAnotherDomainTypeItWaitsAndDoesNothing) {
  AMController::domainType = kQUIL;
  ASSERT_TRUE(startAndSettle());
  EXPECT_TRUE(monitorIdle());
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
  ASSERT_TRUE(wake());
  EXPECT_EQ(0, fake_mc::sessionsStartedForTesting());
  EXPECT_EQ(0, monitor_->peernode_is_ready.load());
  EXPECT_EQ(0, countOf(log(), "Initial harvest"));
}

TEST_F(MonitorThread, TheInitialHarvestsRunOnceInOrderAndWakeTheMediators) {
  setPeerNodes({2});
  fake_mc::setResourcesForTesting(KOR_CLASS_NETWORK_INTERFACE, {networkInterface("sxn0", idOfNode(2), "10.0.0.2")});
  ASSERT_TRUE(startPastTheInitialHarvests());
  EXPECT_EQ(1, monitor_->peernode_is_ready.load());
  EXPECT_EQ(2, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(1, fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE));
  EXPECT_TRUE(configured(2, "sxn0"));
  EXPECT_EQ(1, harvested());
  // Woken by the harvest and once more by the monitor.
  EXPECT_EQ(2, mediator_->pendingSyncEvents());
  std::string text = log();
  size_t a = text.find("Initial harvest of PeerNodes");
  size_t b = text.find("Initial harvest of harvestGblPeerNodes \n");
  size_t c = text.find("There may be some changes: NodeChanges=0");
  size_t d = text.find("Initial harvest of NetworkInterfaces");
  size_t e = text.find("There may be some changes: NetChanges =1");
  size_t f = text.find("I'm not a GL, ..Sleep again");
  ASSERT_NE(std::string::npos, a) << text;
  ASSERT_NE(std::string::npos, b) << text;
  ASSERT_NE(std::string::npos, c) << text;
  ASSERT_NE(std::string::npos, d) << text;
  ASSERT_NE(std::string::npos, e) << text;
  ASSERT_NE(std::string::npos, f) << text;
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, d);
  EXPECT_LT(d, e);
  EXPECT_LT(e, f);
  // No event session for a non-leader; the private ones are gone.
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_TRUE(fake_mc::registrationsForTesting().empty());

  // Later wake-ups do not harvest again.
  ASSERT_TRUE(wake());
  EXPECT_EQ(2, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(1, fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE));
  EXPECT_EQ(2, countOf(log(), "I'm not a GL, ..Sleep again"));
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
}

TEST_F(MonitorThread, TheNonLeaderTraceIsAtTheDebugLevel) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(0x7FFF & ~TRACE_BLOCK & ~TRACE_DEBUG));
  ASSERT_TRUE(startPastTheInitialHarvests());
  EXPECT_EQ(0, countOf(log(), "I'm not a GL"));
  EXPECT_EQ(1, countOf(log(), "Initial harvest of PeerNodes"));
}

TEST_F(MonitorThread, AFailedFirstPeerNodeHarvestIsRetriedAfterFiveSeconds) {
  setPeerNodes({2});
  fake_mc::failStartSessionForTesting(1, MC_ENOAGENT);
  ASSERT_TRUE(startAndSettle());
  EXPECT_EQ(5, monitor_->waitSecsForTesting());
  EXPECT_EQ(0, monitor_->peernode_is_ready.load());
  EXPECT_EQ(1, countOf(log(), "harvestGblPeers: mc_start_session fails"));
  ASSERT_TRUE(elapseWait());
  EXPECT_EQ(1, monitor_->peernode_is_ready.load());
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
  EXPECT_EQ(2, countOf(log(), "Initial harvest of PeerNodes"));
  EXPECT_EQ(1, harvested());
}

TEST_F(MonitorThread, AFailedSecondPeerNodeHarvestIsRetriedAfterFiveSeconds) {
  setPeerNodes({2});
  fake_mc::failQueryForTesting(KOR_CLASS_PEER_NODE, 1, MC_ECONNLOST, 1);
  ASSERT_TRUE(startAndSettle());
  EXPECT_EQ(5, monitor_->waitSecsForTesting());
  EXPECT_EQ(1, monitor_->peernode_is_ready.load());
  EXPECT_EQ(0, fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE));
  ASSERT_TRUE(elapseWait());
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
  std::string text = log();
  // The first harvest is not repeated, the second is.
  EXPECT_EQ(1, countOf(text, "Initial harvest of PeerNodes")) << text;
  EXPECT_EQ(2, countOf(text, "Initial harvest of harvestGblPeerNodes \n"));
  EXPECT_EQ(1, countOf(text, "There may be some changes: NodeChanges=0"));
  EXPECT_EQ(1, fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE));
}

TEST_F(MonitorThread, AFailedInterfaceHarvestIsRetriedAfterFiveSeconds) {
  fake_mc::failQueryForTesting(KOR_CLASS_NETWORK_INTERFACE, 1, MC_ECONNLOST);
  ASSERT_TRUE(startAndSettle());
  EXPECT_EQ(5, monitor_->waitSecsForTesting());
  EXPECT_EQ(0, harvested());
  EXPECT_EQ(0, countOf(log(), "There may be some changes: NetChanges"));
  ASSERT_TRUE(elapseWait());
  EXPECT_EQ(1, harvested());
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
  std::string text = log();
  EXPECT_EQ(2, countOf(text, "Initial harvest of NetworkInterfaces")) << text;
  EXPECT_EQ(1, countOf(text, "There may be some changes: NetChanges =0"));
  EXPECT_EQ(2, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
}

TEST_F(MonitorThread, TheLeaderOpensAnEventSessionRegistersAndDispatches) {
  ASSERT_TRUE(startPastTheInitialHarvests());
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  ASSERT_TRUE(monitorInDispatch());
  EXPECT_NE(0u, monitor_->session_handle);
  EXPECT_TRUE(monitor_->isRegisteredToAll());
  EXPECT_EQ(1, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(5, fake_mc::activeRegistrationsForTesting());
  std::string text = log();
  size_t a = text.find(" Starting KOR Session");
  size_t b = text.find(" Connected to KOR deamon");
  size_t c = text.find(" Now registered to NetworkInterface for event handle with KOR deamon");
  size_t d = text.find("mc_dispatch");
  ASSERT_NE(std::string::npos, a) << text;
  ASSERT_NE(std::string::npos, b) << text;
  ASSERT_NE(std::string::npos, c) << text;
  ASSERT_NE(std::string::npos, d) << text;
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, d);
  // The initial harvests are not repeated for the leader.
  EXPECT_EQ(2, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
}

TEST_F(MonitorThread, EventsReachTheTableAndThePropagatorWhileTheLeaderDispatches) {
  knowNodes({2});
  prop_->leader = 1;
  ASSERT_TRUE(startAndSettle());
  ASSERT_TRUE(monitorInDispatch());
  int passes = monitor_->passesForTesting();
  ASSERT_EQ(1, fake_mc::fireClassEventForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED));
  ASSERT_TRUE(settledAfter(passes));
  EXPECT_EQ(1, prop_->pendingPeerNodeEvents());
  passes = monitor_->passesForTesting();
  ASSERT_EQ(1, fake_mc::fireResourceEventForTesting(KOR_CLASS_NETWORK_INTERFACE,
                                                    networkInterface("sxn0", idOfNode(2), "10.0.0.2"), 0));
  ASSERT_TRUE(settledAfter(passes));
  EXPECT_TRUE(configured(2, "sxn0"));
  EXPECT_EQ(1, prop_->pendingNetInterfaceEvents());
  // Still the same session: a normal return just dispatches again.
  EXPECT_EQ(1, fake_mc::sessionsOpenForTesting());
  EXPECT_TRUE(monitorInDispatch());
}

TEST_F(MonitorThread, SessionStartRetriesWaitFiveSecondsThenLongerUntilThePeriodIsOver) {
  ASSERT_TRUE(startPastTheInitialHarvests());
  fake_mc::failStartSessionForTesting(1000, MC_ENOAGENT);
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  std::vector<int> waits{monitor_->waitSecsForTesting()};
  for (int i = 0; i < 17; ++i) {
    ASSERT_TRUE(elapseWait());
    waits.push_back(monitor_->waitSecsForTesting());
  }
  // Six failures at 5 s; then 5 s more with each; the period of 300 s,
  // counted down by the time between failures, is over after the wait of
  // 50 s and the counting starts again.
  std::vector<int> expected{5, 5, 5, 5, 5, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 5, 5, 5};
  EXPECT_EQ(expected, waits);
  EXPECT_EQ(expected, tracedRetryDelays());
  std::string text = log();
  EXPECT_EQ(1, countOf(text, " startKORSession failed. rc=2, Retry after 10 secs (2: fake libvx_mc: mc_start_session "
                             "failed with 2)"))
      << text;
  EXPECT_EQ(18, countOf(text, " Starting KOR Session"));
  EXPECT_EQ(0, countOf(text, " Connected to KOR deamon"));
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
}

TEST_F(MonitorThread, FailuresFarApartStartANewPeriodEachTime) {
  ASSERT_TRUE(startPastTheInitialHarvests());
  fake_mc::failStartSessionForTesting(1000, MC_ENOAGENT);
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  for (int i = 0; i < 8; ++i) {
    // Each retry comes more than the period after the failure before.
    table_test::advanceSeconds(AMCfgMonitor::kRetryPeriodSecs + 1);
    ASSERT_TRUE(wake());
  }
  EXPECT_EQ(std::vector<int>(9, 5), tracedRetryDelays());
}

TEST_F(MonitorThread, ANormalDispatchStartsTheRetryCountingAfresh) {
  knowNodes({2});
  ASSERT_TRUE(startPastTheInitialHarvests());
  fake_mc::failStartSessionForTesting(7, MC_ENOAGENT);
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  for (int i = 0; i < 7; ++i) ASSERT_TRUE(elapseWait());
  // Seven failures (the last waited 10 s), then the session came.
  ASSERT_EQ((std::vector<int>{5, 5, 5, 5, 5, 5, 10}), tracedRetryDelays());
  ASSERT_TRUE(monitorInDispatch());
  int passes = monitor_->passesForTesting();
  ASSERT_EQ(1, fake_mc::fireClassEventForTesting(KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED));
  ASSERT_TRUE(settledAfter(passes));
  // The agent goes away: the next start fails after a normal dispatch, so
  // it waits 5 s again, not 15.
  fake_mc::failStartSessionForTesting(1, MC_ENOAGENT);
  passes = monitor_->passesForTesting();
  fake_mc::failDispatchForTesting(MC_ECONNLOST);
  ASSERT_TRUE(settledAfter(passes));
  ASSERT_TRUE(monitorIdle());
  EXPECT_EQ((std::vector<int>{5, 5, 5, 5, 5, 5, 10, 5}), tracedRetryDelays());
  EXPECT_EQ(5, monitor_->waitSecsForTesting());
}

TEST_F(MonitorThread, WithoutANormalDispatchTheCountingGoesOn) {
  ASSERT_TRUE(startPastTheInitialHarvests());
  fake_mc::failStartSessionForTesting(7, MC_ENOAGENT);
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  for (int i = 0; i < 7; ++i) ASSERT_TRUE(elapseWait());
  ASSERT_TRUE(monitorInDispatch());
  // The dispatch fails at once: no normal return came in between.
  fake_mc::failStartSessionForTesting(1, MC_ENOAGENT);
  int passes = monitor_->passesForTesting();
  fake_mc::failDispatchForTesting(MC_ECONNLOST);
  ASSERT_TRUE(settledAfter(passes));
  ASSERT_TRUE(monitorIdle());
  EXPECT_EQ((std::vector<int>{5, 5, 5, 5, 5, 5, 10, 15}), tracedRetryDelays());
}

TEST_F(MonitorThread, ARegistrationFailureEndsTheSessionAndRetriesAfterFiveSeconds) {
  ASSERT_TRUE(startPastTheInitialHarvests());
  fake_mc::scriptRegistrationForTesting(KOR_CLASS_NETWORK_INTERFACE, KOR_CONDITION_CONFIG_CHANGED,
                                        fake_mc::RegScript::kCallFails, MC_ELIMIT, 1);
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  EXPECT_TRUE(monitorIdle());
  EXPECT_EQ(5, monitor_->waitSecsForTesting());
  EXPECT_EQ(0u, monitor_->session_handle);
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(0, fake_mc::activeRegistrationsForTesting());
  EXPECT_EQ(4u, fake_mc::unregisteredIdsForTesting().size());
  std::string text = log();
  EXPECT_EQ(1, countOf(text, " not able to register NI events, retry in 5 secs  rc=9")) << text;
  EXPECT_EQ(1, countOf(text, " Finishing KOR Session"));
  ASSERT_TRUE(elapseWait());
  EXPECT_TRUE(monitorInDispatch());
  EXPECT_EQ(5, fake_mc::activeRegistrationsForTesting());
  EXPECT_EQ(1, countOf(log(), " Now registered to NetworkInterface for event handle with KOR deamon"));
}

TEST_F(MonitorThread, ADispatchFailureDropsTheRegistrationsAndStartsOver) {
  ASSERT_TRUE(startPastTheInitialHarvests());
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  ASSERT_TRUE(monitorInDispatch());
  mc_sess_hndl_t first = monitor_->session_handle;
  int started = fake_mc::sessionsStartedForTesting();
  fake_mc::failDispatchForTesting(MC_ECONNLOST);
  // It comes back with a new session, registered again.
  ASSERT_TRUE(waitUntil([&] {
    return fake_mc::sessionsStartedForTesting() == started + 1 && monitorInDispatch();
  })) << log();
  EXPECT_NE(first, monitor_->session_handle);
  EXPECT_EQ(1, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(5u, fake_mc::unregisteredIdsForTesting().size());
  EXPECT_EQ(5, fake_mc::activeRegistrationsForTesting());
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "returned from mc_dispatch with korapi.rc=3")) << text;
  EXPECT_EQ(1, countOf(text, " Finishing KOR Session"));
  EXPECT_EQ(2, countOf(text, " Connected to KOR deamon"));
}

TEST_F(MonitorThread, ALeaderThatStepsDownKeepsItsSessionUntilItFails) {
  // Only a pass decides: while the monitor dispatches it stays.
  ASSERT_TRUE(startPastTheInitialHarvests());
  prop_->leader = 1;
  ASSERT_TRUE(wake());
  ASSERT_TRUE(monitorInDispatch());
  prop_->leader = 0;
  int passes = monitor_->passesForTesting();
  fake_mc::failDispatchForTesting(MC_ECONNLOST);
  ASSERT_TRUE(settledAfter(passes));
  ASSERT_TRUE(monitorIdle());
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
  EXPECT_EQ(1, countOf(log(), " Starting KOR Session"));
}

TEST_F(MonitorThread, AnExitRequestEndsTheProcessWithCode8AfterThreeSeconds) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        // Real clocks: the thread waits for real.
        cu_set_clocks_ForTesting(nullptr, nullptr);
        AMController::domainType = kQUIL;
        monitor_->start(nullptr);
        for (int i = 0; i < 500 && !(monitor_->passesForTesting() > 0 && monitorIdle()); ++i) usleep(10000);
        ctl_->RequestToExit();
        sleep(10);
        _exit(1);  // not reached: the monitor ends the process first
      },
      ::testing::ExitedWithCode(8), "");
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find(" - Prepare to exit")) << text;
  EXPECT_NE(std::string::npos, text.find("AMCfgMonitor can not stop ExitCode=UnableExit(8)")) << text;
}

// ------------------------------------------------------------ controller

class ControllerMonitor : public MonitorFixture {};

TEST_F(ControllerMonitor, TheControllerHarvestsThroughItsMonitor) {
  setPeerNodes({2, 3});
  fake_mc::setResourcesForTesting(KOR_CLASS_NETWORK_INTERFACE, {networkInterface("sxn0", idOfNode(2), "10.0.0.2")});
  EXPECT_EQ(2, ctl_->harvestGblPeerNodes());
  EXPECT_EQ(1, ctl_->harvestGblNetworkInterfaces());
  EXPECT_TRUE(configured(2, "sxn0"));
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "harvestGblPeers begins")) << text;
  EXPECT_EQ(1, countOf(text, "harvestGblNetworkInterfaces begins"));
  // A failed harvest is reported as such.
  fake_mc::failQueryForTesting(KOR_CLASS_NETWORK_INTERFACE, 1, MC_ECONNLOST);
  EXPECT_EQ(-1, ctl_->harvestGblNetworkInterfaces());
  fake_mc::failQueryForTesting(KOR_CLASS_PEER_NODE, 1, MC_ECONNLOST);
  EXPECT_EQ(-1, ctl_->harvestGblPeerNodes());
}

TEST_F(ControllerMonitor, StartingTheMonitorRunsItsThreadAndWakingItMakesAPass) {
  ctl_->startAMCfgMonitor();
  started_ = true;
  ASSERT_TRUE(settledAfter(0));
  EXPECT_EQ(GS_THREAD_RUNNING, monitor_->getThreadState());
  EXPECT_EQ(1, countOf(log(), "startAMCfgMonitor"));
  int passes = monitor_->passesForTesting();
  ctl_->wakeupCfgMonitor(0);
  ASSERT_TRUE(settledAfter(passes));
}

TEST_F(ControllerMonitor, AnExitRequestWakesTheMonitor) {
  ASSERT_TRUE(startAndSettle());
  ctl_->RequestToExit();
  // The woken monitor sees the exit and waits for it to end the process.
  ASSERT_TRUE(waitUntil([&] { return countOf(log(), " - Prepare to exit") == 1; })) << log();
  AMController::_exiting = 0;
}

}  // namespace
