// This node's adapters from the kernel's and the cluster's facts: the
// liveness rule, the interface setting, and the tracker that turns
// interfaces, addresses and knet links into adapters and into the updates
// the cluster needs.
#include "topology.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <string>
#include <vector>

#include "topology_knet.h"

namespace velt {
namespace agent {
namespace {

constexpr unsigned kUpRunning = IFF_UP | IFF_RUNNING;

std::string ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return std::string{static_cast<char>(a), static_cast<char>(b), static_cast<char>(c),
                     static_cast<char>(d)};
}

// ------------------------------------------------------------ the rule

TEST(AdapterLiveness, UpAndRunningWithoutLinkIsAlive) {
  AdapterFacts f;
  f.up = true;
  f.running = true;
  f.aloneInView = false;
  EXPECT_TRUE(isAdapterAlive(f));
}

TEST(AdapterLiveness, DownOrWithoutCarrierIsDead) {
  AdapterFacts f;
  f.up = false;
  f.running = true;
  EXPECT_FALSE(isAdapterAlive(f));
  f.up = true;
  f.running = false;
  EXPECT_FALSE(isAdapterAlive(f));
}

TEST(AdapterLiveness, LinkMustReachAnotherNodeOfTheView) {
  AdapterFacts f;
  f.up = true;
  f.running = true;
  f.carriesLink = true;
  f.aloneInView = false;
  f.linkConnected = false;
  EXPECT_FALSE(isAdapterAlive(f));
  f.linkConnected = true;
  EXPECT_TRUE(isAdapterAlive(f));
}

TEST(AdapterLiveness, NodeAloneCountsItsLinksAsAlive) {
  AdapterFacts f;
  f.up = true;
  f.running = true;
  f.carriesLink = true;
  f.linkConnected = false;
  f.aloneInView = true;
  EXPECT_TRUE(isAdapterAlive(f));
  // Alone or not, a down interface stays dead.
  f.running = false;
  EXPECT_FALSE(isAdapterAlive(f));
}

TEST(NetworkType, FollowsTheInterfaceName) {
  EXPECT_EQ("switch", networkTypeOf("sxn0"));
  EXPECT_EQ("switch", networkTypeOf("sxn12"));
  EXPECT_EQ("ib", networkTypeOf("ib0"));
  EXPECT_EQ("ethernet", networkTypeOf("eth0"));
  EXPECT_EQ("ethernet", networkTypeOf("sx0"));
}

// ------------------------------------------------------------ the setting

TEST(InterfaceSetting, EmptyMeansEveryInterface) {
  InterfaceFilter f;
  std::string why;
  ASSERT_TRUE(InterfaceFilter::parse("", &f, &why));
  EXPECT_TRUE(f.matches("eth0"));
  EXPECT_TRUE(f.matches("sxn1"));
  EXPECT_EQ("every interface", f.describe());
}

// Its name would make every agent drop the adapter's reports.
TEST(InterfaceSetting, NameThatIsNotUtf8IsNeverAnAdapter) {
  InterfaceFilter f;
  std::string why;
  ASSERT_TRUE(InterfaceFilter::parse("", &f, &why));
  EXPECT_FALSE(f.matches("sxn\xe9"));
  ASSERT_TRUE(InterfaceFilter::parse("sxn*", &f, &why));
  EXPECT_FALSE(f.matches("sxn\xe9"));
  EXPECT_TRUE(f.matches("sxn\xc3\xa9"));
}

TEST(InterfaceSetting, NoneMatchesNothing) {
  InterfaceFilter f;
  std::string why;
  ASSERT_TRUE(InterfaceFilter::parse("none", &f, &why));
  EXPECT_FALSE(f.matches("eth0"));
  EXPECT_FALSE(f.matches("none2"));
  EXPECT_EQ("no interface", f.describe());
}

TEST(InterfaceSetting, NamesAndPatterns) {
  InterfaceFilter f;
  std::string why;
  ASSERT_TRUE(InterfaceFilter::parse("sxn*,ib0", &f, &why)) << why;
  EXPECT_TRUE(f.matches("sxn0"));
  EXPECT_TRUE(f.matches("sxn17"));
  EXPECT_TRUE(f.matches("ib0"));
  EXPECT_FALSE(f.matches("ib1"));
  EXPECT_FALSE(f.matches("eth0"));
  EXPECT_EQ("sxn*,ib0", f.describe());
}

TEST(InterfaceSetting, MalformedListsAreRefusedWithAReason) {
  InterfaceFilter f;
  std::string why;
  EXPECT_FALSE(InterfaceFilter::parse("sxn0,,sxn1", &f, &why));
  EXPECT_NE(std::string::npos, why.find("empty entry")) << why;
  EXPECT_FALSE(InterfaceFilter::parse("sxn0,", &f, &why));
  EXPECT_FALSE(InterfaceFilter::parse("sx n0", &f, &why));
  EXPECT_FALSE(InterfaceFilter::parse("a/b", &f, &why));
  EXPECT_FALSE(InterfaceFilter::parse(std::string(65, 'x'), &f, &why));
  std::string many;
  for (int i = 0; i < 65; ++i) many += (i ? "," : "") + std::string("e") + std::to_string(i);
  EXPECT_FALSE(InterfaceFilter::parse(many, &f, &why));
  EXPECT_NE(std::string::npos, why.find("entries")) << why;
}

// ------------------------------------------------------------ the tracker

class AdapterTrackerTest : public ::testing::Test {
 protected:
  AdapterTrackerTest() : tracker_(7, InterfaceFilter()) {}

  // An interface with one address, up and running unless flags say otherwise.
  void addInterface(int index, const std::string& name, const std::string& address,
                    unsigned flags = kUpRunning) {
    tracker_.linkChanged(index, name, flags);
    tracker_.addressAdded(index, address, false);
  }
  const proto::AdapterImage* adapterNamed(const std::string& name) const {
    for (const auto& e : tracker_.adapters()) {
      if (e.second.adapter().interface_name() == name) return &e.second;
    }
    return nullptr;
  }

  AdapterTracker tracker_;
};

TEST_F(AdapterTrackerTest, InterfaceWithAnAddressIsAnAdapterWithItsInformation) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  ASSERT_EQ(1u, tracker_.adapters().size());
  const proto::AdapterImage& a = tracker_.adapters().begin()->second;
  EXPECT_TRUE(a.alive());
  EXPECT_EQ(ip(10, 1, 0, 7), a.adapter().ip());
  EXPECT_EQ("sxn0", a.adapter().interface_name());
  EXPECT_EQ(7u, a.adapter().node());
  EXPECT_EQ("sxn0", a.adapter().network_name());
  EXPECT_EQ("switch", a.adapter().network_type());
  EXPECT_EQ(tracker_.adapters().begin()->first, a.adapter().instance());
  EXPECT_TRUE(tracker_.takeChanged());
  EXPECT_FALSE(tracker_.takeChanged());
}

TEST_F(AdapterTrackerTest, InterfaceWithoutAnAddressOrLoopbackIsNoAdapter) {
  tracker_.linkChanged(2, "sxn1", kUpRunning);
  addInterface(1, "lo", ip(127, 0, 0, 1), kUpRunning | IFF_LOOPBACK);
  EXPECT_TRUE(tracker_.adapters().empty());
  tracker_.addressAdded(2, ip(10, 2, 0, 1), false);
  EXPECT_EQ(1u, tracker_.adapters().size());
}

TEST_F(AdapterTrackerTest, DownOrCarrierLostMakesTheAdapterDead) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  tracker_.linkChanged(3, "sxn0", IFF_UP);  // carrier lost
  EXPECT_FALSE(adapterNamed("sxn0")->alive());
  tracker_.linkChanged(3, "sxn0", kUpRunning);
  EXPECT_TRUE(adapterNamed("sxn0")->alive());
  tracker_.linkChanged(3, "sxn0", IFF_RUNNING);  // set down
  EXPECT_FALSE(adapterNamed("sxn0")->alive());
}

TEST_F(AdapterTrackerTest, FilterDecidesWhichInterfacesCount) {
  InterfaceFilter f;
  std::string why;
  ASSERT_TRUE(InterfaceFilter::parse("sxn*", &f, &why));
  AdapterTracker t(1, f);
  t.linkChanged(2, "eth0", kUpRunning);
  t.addressAdded(2, ip(192, 0, 2, 1), false);
  t.linkChanged(3, "sxn0", kUpRunning);
  t.addressAdded(3, ip(10, 1, 0, 1), false);
  ASSERT_EQ(1u, t.adapters().size());
  EXPECT_EQ("sxn0", t.adapters().begin()->second.adapter().interface_name());
}

TEST_F(AdapterTrackerTest, IndexIsKeptByNameWhileTheAgentRuns) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  addInterface(4, "sxn1", ip(10, 2, 0, 7));
  uint32_t sxn1 = adapterNamed("sxn1")->adapter().instance();
  EXPECT_NE(adapterNamed("sxn0")->adapter().instance(), sxn1);
  tracker_.linkRemoved(4);
  EXPECT_EQ(nullptr, adapterNamed("sxn1"));
  addInterface(5, "ib0", ip(10, 3, 0, 7));
  EXPECT_NE(sxn1, adapterNamed("ib0")->adapter().instance());
  // Back with another kernel index: the same adapter index.
  addInterface(9, "sxn1", ip(10, 2, 0, 7));
  EXPECT_EQ(sxn1, adapterNamed("sxn1")->adapter().instance());
}

TEST_F(AdapterTrackerTest, AddressChangeKeepsTheIndexAndTakesTheNewAddress) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  uint32_t index = adapterNamed("sxn0")->adapter().instance();
  tracker_.addressAdded(3, ip(10, 1, 0, 8), false);
  tracker_.addressRemoved(3, ip(10, 1, 0, 7));
  ASSERT_NE(nullptr, adapterNamed("sxn0"));
  EXPECT_EQ(index, adapterNamed("sxn0")->adapter().instance());
  EXPECT_EQ(ip(10, 1, 0, 8), adapterNamed("sxn0")->adapter().ip());
  tracker_.addressRemoved(3, ip(10, 1, 0, 8));
  EXPECT_EQ(nullptr, adapterNamed("sxn0"));
}

TEST_F(AdapterTrackerTest, PrimaryAddressIsTheFirstThatIsNotSecondary) {
  tracker_.linkChanged(3, "sxn0", kUpRunning);
  tracker_.addressAdded(3, ip(10, 1, 0, 9), true);
  tracker_.addressAdded(3, ip(10, 1, 0, 7), false);
  tracker_.addressAdded(3, ip(10, 1, 0, 8), false);
  EXPECT_EQ(ip(10, 1, 0, 7), adapterNamed("sxn0")->adapter().ip());
}

TEST_F(AdapterTrackerTest, RenamedInterfaceIsAnotherAdapter) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  uint32_t index = adapterNamed("sxn0")->adapter().instance();
  tracker_.linkChanged(3, "sxn5", kUpRunning);
  EXPECT_EQ(nullptr, adapterNamed("sxn0"));
  ASSERT_NE(nullptr, adapterNamed("sxn5"));
  EXPECT_NE(index, adapterNamed("sxn5")->adapter().instance());
  EXPECT_EQ(ip(10, 1, 0, 7), adapterNamed("sxn5")->adapter().ip());
}

TEST_F(AdapterTrackerTest, KnetLinkThatReachesNobodyKillsItsAdapterUnlessAlone) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  addInterface(4, "sxn1", ip(10, 2, 0, 7));
  tracker_.setAlone(false);
  tracker_.setLinks({{0, ip(10, 1, 0, 7), true}, {1, ip(10, 2, 0, 7), false}});
  EXPECT_TRUE(adapterNamed("sxn0")->alive());
  EXPECT_FALSE(adapterNamed("sxn1")->alive());
  // Alone in the view, there is nobody to reach.
  tracker_.setAlone(true);
  EXPECT_TRUE(adapterNamed("sxn1")->alive());
  tracker_.setAlone(false);
  tracker_.setLinks({{0, ip(10, 1, 0, 7), true}, {1, ip(10, 2, 0, 7), true}});
  EXPECT_TRUE(adapterNamed("sxn1")->alive());
}

TEST_F(AdapterTrackerTest, LinkOnAnotherAddressDoesNotTouchTheAdapter) {
  addInterface(3, "eth0", ip(192, 0, 2, 7));
  tracker_.setAlone(false);
  tracker_.setLinks({{0, ip(10, 1, 0, 7), false}});
  EXPECT_TRUE(adapterNamed("eth0")->alive());
}

// ------------------------------------------------------------ a healed adapter

// An adapter whose interface comes back after an outage: the link status
// the tracker holds is from a poll taken before, so it counts only once a
// poll taken since confirms it.
class HealedAdapterTest : public AdapterTrackerTest {
 protected:
  HealedAdapterTest() {
    addInterface(3, "sxn0", ip(10, 1, 0, 7));
    addInterface(4, "sxn1", ip(10, 2, 0, 7));
    tracker_.setAlone(false);
    pollSays(true);
  }

  // A knet poll: link 0 (sxn0) reaches the view, link 1 (sxn1) as given.
  void pollSays(bool sxn1Connected) {
    tracker_.setLinks({{0, ip(10, 1, 0, 7), true}, {1, ip(10, 2, 0, 7), sxn1Connected}});
  }
  // sxn1's liveness each time the tracker reports a change, in order: what
  // subscribers would see.
  void noteChange() {
    if (tracker_.takeChanged()) announced_.push_back(adapterNamed("sxn1")->alive());
  }

  std::vector<bool> announced_;
};

TEST_F(HealedAdapterTest, IsAnnouncedOnceWhenItsKnetLinkIsReallyBack) {
  ASSERT_TRUE(adapterNamed("sxn1")->alive());
  tracker_.takeChanged();
  tracker_.linkChanged(4, "sxn1", 0);  // scripts/cluster fail: set down
  noteChange();
  // The heal comes before the agent polled knet since knet dropped the link:
  // the last poll still says connected.
  tracker_.linkChanged(4, "sxn1", kUpRunning);
  noteChange();
  EXPECT_FALSE(adapterNamed("sxn1")->alive()) << "announced from a poll taken before the heal";
  pollSays(false);  // knet has not reconnected yet
  noteChange();
  pollSays(false);
  noteChange();
  pollSays(true);  // knet reconnected
  noteChange();
  pollSays(true);
  noteChange();
  EXPECT_EQ((std::vector<bool>{false, true}), announced_);
  EXPECT_TRUE(adapterNamed("sxn0")->alive());
}

TEST_F(HealedAdapterTest, LinkThatStayedConnectedCountsFromTheNextPoll) {
  tracker_.linkChanged(4, "sxn1", IFF_UP);  // carrier lost for a moment
  tracker_.linkChanged(4, "sxn1", kUpRunning);
  EXPECT_FALSE(adapterNamed("sxn1")->alive());
  pollSays(true);
  EXPECT_TRUE(adapterNamed("sxn1")->alive());
}

TEST_F(HealedAdapterTest, NewAddressWaitsForAPollLikeAHeal) {
  tracker_.addressRemoved(4, ip(10, 2, 0, 7));
  EXPECT_EQ(nullptr, adapterNamed("sxn1"));
  tracker_.addressAdded(4, ip(10, 2, 0, 7), false);
  EXPECT_FALSE(adapterNamed("sxn1")->alive());
  pollSays(true);
  EXPECT_TRUE(adapterNamed("sxn1")->alive());
}

TEST_F(HealedAdapterTest, AdapterWithoutKnetLinkOrAloneIsAliveAtOnce) {
  addInterface(5, "eth0", ip(192, 0, 2, 7));
  tracker_.linkChanged(5, "eth0", 0);
  tracker_.linkChanged(5, "eth0", kUpRunning);
  EXPECT_TRUE(adapterNamed("eth0")->alive());
  tracker_.setAlone(true);
  tracker_.linkChanged(4, "sxn1", 0);
  tracker_.linkChanged(4, "sxn1", kUpRunning);
  EXPECT_TRUE(adapterNamed("sxn1")->alive());
}

TEST_F(HealedAdapterTest, UnchangedFlagsDoNotWithdrawALiveAdapter) {
  // A dump or an event that repeats the flags is no heal.
  tracker_.takeChanged();
  tracker_.beginLinkDump();
  tracker_.linkChanged(3, "sxn0", kUpRunning);
  tracker_.linkChanged(4, "sxn1", kUpRunning);
  tracker_.endLinkDump();
  tracker_.linkChanged(4, "sxn1", kUpRunning);
  EXPECT_TRUE(adapterNamed("sxn1")->alive());
  EXPECT_FALSE(tracker_.takeChanged());
}

TEST_F(AdapterTrackerTest, DumpDropsWhatItDoesNotConfirm) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  addInterface(4, "sxn1", ip(10, 2, 0, 7));
  tracker_.addressAdded(3, ip(10, 1, 0, 8), false);
  // Events were lost: sxn1 went away and sxn0 lost one address meanwhile.
  tracker_.beginLinkDump();
  tracker_.linkChanged(3, "sxn0", kUpRunning);
  tracker_.endLinkDump();
  EXPECT_EQ(nullptr, adapterNamed("sxn1"));
  tracker_.beginAddressDump();
  tracker_.addressAdded(3, ip(10, 1, 0, 8), false);
  tracker_.endAddressDump();
  ASSERT_NE(nullptr, adapterNamed("sxn0"));
  EXPECT_EQ(ip(10, 1, 0, 8), adapterNamed("sxn0")->adapter().ip());
  EXPECT_EQ(1u, tracker_.adapters().size());
}

TEST_F(AdapterTrackerTest, UpdatesBringWhatTheClusterHoldsInLine) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  addInterface(4, "sxn1", ip(10, 2, 0, 7));
  // The cluster holds nothing: both are sent.
  std::vector<proto::AdapterUpdate> u = tracker_.updatesFrom({});
  ASSERT_EQ(2u, u.size());
  std::map<uint32_t, proto::AdapterImage> known = tracker_.adapters();
  EXPECT_TRUE(tracker_.updatesFrom(known).empty());

  tracker_.linkChanged(4, "sxn1", IFF_UP);
  u = tracker_.updatesFrom(known);
  ASSERT_EQ(1u, u.size());
  EXPECT_EQ("sxn1", u[0].adapter().interface_name());
  EXPECT_FALSE(u[0].alive());
  EXPECT_FALSE(u[0].removed());

  known = tracker_.adapters();
  tracker_.linkRemoved(3);
  u = tracker_.updatesFrom(known);
  ASSERT_EQ(1u, u.size());
  EXPECT_TRUE(u[0].removed());
  EXPECT_EQ("sxn0", u[0].adapter().interface_name());
}

TEST_F(AdapterTrackerTest, NodeNumberLearnedLaterIsCarried) {
  addInterface(3, "sxn0", ip(10, 1, 0, 7));
  tracker_.setNode(12);
  EXPECT_EQ(12u, adapterNamed("sxn0")->adapter().node());
}

TEST(AdapterTrackerBounds, AdaptersBeyondTheIndexLimitAreLeftOutUntilOneIsGone) {
  AdapterTracker t(1, InterfaceFilter(), 4096, 2);
  for (int i = 0; i < 3; ++i) {
    t.linkChanged(10 + i, "sxn" + std::to_string(i), kUpRunning);
    t.addressAdded(10 + i, ip(10, static_cast<uint8_t>(i), 0, 1), false);
  }
  EXPECT_EQ(2u, t.adapters().size());
  EXPECT_EQ(1u, t.unindexedAdapters());
  // One goes for good: its index is taken back by the one left out.
  t.linkRemoved(10);
  EXPECT_EQ(2u, t.adapters().size());
  EXPECT_EQ(0u, t.unindexedAdapters());
  for (const auto& e : t.adapters()) EXPECT_LT(e.first, 2u);
}

TEST(AdapterTrackerBounds, InterfacesBeyondTheLimitAreIgnoredAndCounted) {
  AdapterTracker t(1, InterfaceFilter(), 3, 64);
  for (int i = 0; i < 5; ++i) t.linkChanged(10 + i, "e" + std::to_string(i), kUpRunning);
  EXPECT_EQ(2u, t.droppedInterfaces());
  t.addressAdded(14, ip(10, 0, 0, 1), false);  // one it does not keep
  EXPECT_TRUE(t.adapters().empty());
}

TEST(AdapterTrackerBounds, AddressesOfOtherFamiliesOrSizesAreIgnored) {
  AdapterTracker t(1, InterfaceFilter());
  t.linkChanged(2, "sxn0", kUpRunning);
  t.addressAdded(2, std::string(16, '\1'), false);
  EXPECT_TRUE(t.adapters().empty());
}

// ------------------------------------------------------------ knet links

PeerLinks peerWith(std::vector<std::pair<uint32_t, bool>> links, const std::string& prefix = "") {
  PeerLinks p;
  for (const auto& l : links) {
    p[l.first].enabled = true;
    p[l.first].connected = l.second;
    if (!prefix.empty()) p[l.first].localAddress = prefix + static_cast<char>(l.first);
  }
  return p;
}

std::string describe(const std::vector<AdapterTracker::LinkState>& links) {
  std::string out;
  for (const AdapterTracker::LinkState& l : links) {
    out += (out.empty() ? "" : " ") + std::to_string(l.link) + ":" +
           std::to_string(static_cast<uint8_t>(l.localAddress.back())) + (l.connected ? "+" : "-");
  }
  return out;
}

TEST(KnetLinkStatus, LinkReachesWhenAnyPeerShowsItConnected) {
  std::array<std::string, kMaxKnetLinks> nodelist;
  nodelist[0] = ip(10, 10, 0, 1);
  nodelist[1] = ip(10, 11, 0, 1);
  std::vector<PeerLinks> peers = {peerWith({{0, true}, {1, false}}),
                                  peerWith({{0, false}, {1, false}})};
  EXPECT_EQ("0:1+ 1:1-", describe(combineLinkStatus(nodelist, peers)));
  peers.push_back(peerWith({{0, false}, {1, true}}));
  EXPECT_EQ("0:1+ 1:1+", describe(combineLinkStatus(nodelist, peers)));
}

TEST(KnetLinkStatus, WithoutPeersNoLinkReaches) {
  std::array<std::string, kMaxKnetLinks> nodelist;
  nodelist[2] = ip(10, 12, 0, 1);
  EXPECT_EQ("2:1-", describe(combineLinkStatus(nodelist, {})));
}

TEST(KnetLinkStatus, PeerStatusNamesTheAddressTheNodelistLacks) {
  std::array<std::string, kMaxKnetLinks> nodelist;  // host names: no address known
  std::vector<PeerLinks> peers = {peerWith({{0, true}, {3, false}}, std::string{10, 0, 0})};
  EXPECT_EQ("0:0+ 3:3-", describe(combineLinkStatus(nodelist, peers)));
}

TEST(KnetLinkStatus, DisabledLinksSayNothing) {
  std::array<std::string, kMaxKnetLinks> nodelist;
  nodelist[0] = ip(10, 10, 0, 1);
  PeerLinks p;
  p[0].enabled = false;
  p[0].connected = true;
  EXPECT_EQ("0:1-", describe(combineLinkStatus(nodelist, {p})));
}

}  // namespace
}  // namespace agent
}  // namespace velt
