// parseNetInterfaceAttrs: every attribute of "Zel.NetworkInterface" into
// its field, attributes of another type ignored, node ids resolved (once
// more after a PeerNode harvest), the network of an sxn interface from its
// name, the InfiniBand subtype, the device path rules, the cut hardware
// address, the "Non-switch adapter" trace, the ml0 mark and the re-check
// asked of the propagator.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include "monitor_test_support.h"

namespace {

using namespace monitor_test;  // NOLINT: test helpers

class KorAttributeParser : public MonitorFixture {
 protected:
  int parse(const Resource& r, AMNetInterface& out) {
    fake_mc::AttrArray attrs(r.attrs);
    return parseNetInterfaceAttrs(attrs.data(), attrs.count(), out);
  }
};

TEST_F(KorAttributeParser, CopiesEveryAttributeOfACompleteSwitchInterface) {
  knowNodes({4});
  resetInterfaceIndexMapForTesting();
  _idxFromInterfaceName("eth9");  // index 0
  _idxFromInterfaceName("sxn2");  // index 1
  Resource r = networkInterface("sxn2", idOfNode(4), "10.1.2.3", 9, 21);
  AMNetInterface out;
  memset(&out, 0x5a, sizeof out);
  ASSERT_EQ(0, parse(r, out));
  EXPECT_STREQ("sxn2", out.ifrName);
  EXPECT_STREQ("dev_sxn2", out.deviceName);
  EXPECT_EQ(4, out.nodeNumber);
  EXPECT_EQ(inet_addr("10.1.2.3"), out.ipaddr);
  EXPECT_EQ(5u, out.adapterType);
  EXPECT_EQ(21, out.adapterLID);
  // The network of an sxn interface is the index of its name, not what
  // KOR reported (9) nor the name's digit (2).
  EXPECT_EQ(1u, out.adapterNetworkID);
  EXPECT_EQ(0xABCD0009ULL, out.networkId64);
  EXPECT_EQ(2, out.spigot_id);
  EXPECT_STREQ("00:11:22:33:44:55", out.hardwareAddress);
  EXPECT_STREQ("/dev/sxn2", out.devicePathName);
  EXPECT_EQ(0, out.family);
  EXPECT_EQ(0, out.up_running);
  std::string text = log();
  EXPECT_EQ(0, countOf(text, "Non-switch adapter")) << text;
  EXPECT_EQ(0, countOf(text, "Failed to convert"));
  EXPECT_EQ(0, prop_->count(PEVT_HARVEST_DELAY_REQ_EVENT));
  // The node id was known: no harvest was needed.
  EXPECT_EQ(0, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
}

TEST_F(KorAttributeParser, AttributesOfAnotherTypeAreIgnored) {
  knowNodes({4});
  Resource r;
  r.attrs = {Attr::Uint32("Name", 1),
             Attr::Uint64("NodeIDs", idOfNode(4)),
             Attr::Uint32("DeviceName", 2),
             Attr::Uint32("IPAddress", 0x01020304),
             Attr::Int32("DeviceSubType", 32),
             Attr::Uint32("LogicalID", 8),
             Attr::Int32("NetworkID", 6),
             Attr::Uint32("NetworkID64", 7),
             Attr::Int32("PortID", 3),
             Attr::Uint32("HardwareAddress", 4),
             Attr::Uint32("DevicePathName", 5)};
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_STREQ("", out.ifrName);
  EXPECT_STREQ("", out.deviceName);
  EXPECT_EQ(-1, out.nodeNumber);
  EXPECT_EQ(0u, out.ipaddr);
  EXPECT_EQ(0u, out.adapterType);
  EXPECT_EQ(-1, out.adapterLID);
  EXPECT_EQ(0u, out.adapterNetworkID);
  EXPECT_EQ(0u, out.networkId64);
  EXPECT_EQ(0, out.spigot_id);
  EXPECT_STREQ("", out.hardwareAddress);
  EXPECT_STREQ("", out.devicePathName);
  // Nothing was looked up for a node id of the wrong type.
  EXPECT_EQ(0, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
}

TEST_F(KorAttributeParser, UnknownNodeIdIsFoundByOnePeerNodeHarvest) {
  setPeerNodes({6});
  AMNetInterface out;
  ASSERT_EQ(0, parse(networkInterface("sxn0", idOfNode(6), "10.0.0.6"), out));
  EXPECT_EQ(6, out.nodeNumber);
  EXPECT_EQ(1, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(6, getNodeNumFromNodeId(idOfNode(6)));
  EXPECT_EQ(0, countOf(log(), "Failed to convert"));
  EXPECT_EQ(0, prop_->count(PEVT_HARVEST_DELAY_REQ_EVENT));
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
}

TEST_F(KorAttributeParser, NodeIdStillUnknownIsTracedAndAsksThePropagatorForARecheck) {
  setPeerNodes({6});
  AMNetInterface out;
  ASSERT_EQ(0, parse(networkInterface("sxn0", 0xBEEF42, "10.0.0.6"), out));
  // The record is still handed back, without a node.
  EXPECT_EQ(-1, out.nodeNumber);
  EXPECT_STREQ("sxn0", out.ifrName);
  EXPECT_EQ(1, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(1, countOf(log(), "Failed to convert nodeId=beef42 (okay if the node is being removed)")) << log();
  EXPECT_EQ(1, prop_->count(PEVT_HARVEST_DELAY_REQ_EVENT));
}

TEST_F(KorAttributeParser, SwitchNetworkComesFromTheNameOnlyWithNameNodeAndAddress) {
  knowNodes({4});
  resetInterfaceIndexMapForTesting();
  AMNetInterface out;
  // sxn1 is the first name this process sees: index 0.
  ASSERT_EQ(0, parse(networkInterface("sxn1", idOfNode(4), "10.0.1.4", 7), out));
  EXPECT_EQ(0u, out.adapterNetworkID);
  // Without an address the reported network stays.
  Resource noIp = networkInterface("sxn3", idOfNode(4), "10.0.3.4", 7);
  withoutAttr(noIp, "IPAddress");
  ASSERT_EQ(0, parse(noIp, out));
  EXPECT_EQ(7u, out.adapterNetworkID);
  // Without a node neither.
  Resource noNode = networkInterface("sxn3", idOfNode(4), "10.0.3.4", 7);
  withoutAttr(noNode, "NodeIDs");
  ASSERT_EQ(0, parse(noNode, out));
  EXPECT_EQ(7u, out.adapterNetworkID);
  // An "sn" switch name keeps what KOR reported.
  ASSERT_EQ(0, parse(networkInterface("sn0", idOfNode(4), "10.0.4.4", 7), out));
  EXPECT_EQ(7u, out.adapterNetworkID);
}

TEST_F(KorAttributeParser, InfinibandSubtypeIsStoredAndUsesTheDeviceNameAsPath) {
  knowNodes({4});
  Resource r = networkInterface("ib0", idOfNode(4), "10.9.0.4");
  withAttr(r, Attr::Uint32("DeviceSubType", 32));
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_EQ(32u, out.adapterType);
  EXPECT_STREQ("dev_ib0", out.devicePathName);
  // ml0 over InfiniBand is switched off: the environment is not marked.
  EXPECT_FALSE(isIBenv.load());
  EXPECT_EQ(0, countOf(log(), "This adapter is an IB."));
}

TEST_F(KorAttributeParser, DevicePathIsCutAtSixteenBytesOrIsTheDeviceNameWhenEmpty) {
  knowNodes({4});
  Resource r = networkInterface("sxn0", idOfNode(4), "10.0.0.4");
  withAttr(r, Attr::Text("DevicePathName", "/dev/a-very-long-device-path"));
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_EQ(15u, strlen(out.devicePathName));
  EXPECT_EQ(0, strncmp("/dev/a-very-long", out.devicePathName, 15));
  EXPECT_EQ('\0', out.devicePathName[15]);

  withAttr(r, Attr::Text("DevicePathName", ""));
  ASSERT_EQ(0, parse(r, out));
  EXPECT_STREQ("dev_sxn0", out.devicePathName);

  withoutAttr(r, "DevicePathName");
  ASSERT_EQ(0, parse(r, out));
  EXPECT_STREQ("", out.devicePathName);
}

TEST_F(KorAttributeParser, DevicePathRuleHoldsWhateverTheAttributeOrder) {
  knowNodes({4});
  Resource r;
  r.attrs = {Attr::Text("DevicePathName", ""), Attr::Text("Name", "sxn0"), Attr::Text("DeviceName", "sni0")};
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_STREQ("sni0", out.devicePathName);
}

TEST_F(KorAttributeParser, HardwareAddressIsCutAtSixtyBytesWithANul) {
  knowNodes({4});
  Resource r = networkInterface("sxn0", idOfNode(4), "10.0.0.4");
  std::string longAddress(80, 'h');
  withAttr(r, Attr::Text("HardwareAddress", longAddress));
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_EQ(std::string(59, 'h'), std::string(out.hardwareAddress));
  EXPECT_EQ('\0', out.hardwareAddress[59]);
}

TEST_F(KorAttributeParser, NamesAreCutToTheirFieldsWithANul) {
  knowNodes({4});
  Resource r = networkInterface("sxn0", idOfNode(4), "10.0.0.4");
  withAttr(r, Attr::Text("Name", "sxn0-with-a-long-tail"));
  withAttr(r, Attr::Text("DeviceName", "device-name-beyond-sixteen"));
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_STREQ("sxn0-with-a-lon", out.ifrName);
  EXPECT_STREQ("device-name-bey", out.deviceName);
}

TEST_F(KorAttributeParser, PortIdKeepsItsLowByte) {
  knowNodes({4});
  Resource r = networkInterface("sxn0", idOfNode(4), "10.0.0.4");
  withAttr(r, Attr::Uint32("PortID", 0x1234));
  AMNetInterface out;
  ASSERT_EQ(0, parse(r, out));
  EXPECT_EQ(0x34, out.spigot_id);
}

TEST_F(KorAttributeParser, AnIncompleteOrNonSwitchRecordIsTracedAsNonSwitchAdapter) {
  knowNodes({4});
  AMNetInterface out;
  ASSERT_EQ(0, parse(networkInterface("eth1", idOfNode(4), "10.7.0.4", 3, 17), out));
  std::string text = log();
  std::vector<std::string> lines = linesWith(text, "Non-switch adapter: NetworkEvent device=");
  ASSERT_EQ(1u, lines.size()) << text;
  EXPECT_NE(std::string::npos,
            lines[0].find("Non-switch adapter: NetworkEvent device=dev_eth1 intf=eth1, nodenum=4, IpAddr=10.7.0.4, "
                          "LID=17, NetId=3, DeviceSubType=5, NetId64=2882338819, PortId=2, hardwareAddress = "
                          "00:11:22:33:44:55, devicePathName = /dev/eth1"))
      << lines[0];

  // A switch name without its logical id is not complete either.
  Resource noLid = networkInterface("sxn0", idOfNode(4), "10.0.0.4");
  withoutAttr(noLid, "LogicalID");
  ASSERT_EQ(0, parse(noLid, out));
  EXPECT_EQ(2, countOf(log(), "Non-switch adapter: NetworkEvent device="));
  // Each other piece missing makes it incomplete as well.
  for (const char* piece : {"DeviceName", "NodeIDs", "IPAddress", "NetworkID"}) {
    Resource r = networkInterface("sxn0", idOfNode(4), "10.0.0.4");
    withoutAttr(r, piece);
    int before = countOf(log(), "Non-switch adapter");
    ASSERT_EQ(0, parse(r, out));
    EXPECT_EQ(before + 1, countOf(log(), "Non-switch adapter")) << "without " << piece;
  }
}

TEST_F(KorAttributeParser, NonSwitchTraceIsAtTheDebugLevel) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(0x7FFF & ~TRACE_BLOCK & ~TRACE_DEBUG));
  knowNodes({4});
  AMNetInterface out;
  ASSERT_EQ(0, parse(networkInterface("eth1", idOfNode(4), "10.7.0.4"), out));
  EXPECT_EQ(0, countOf(log(), "Non-switch adapter"));
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_DEBUG));
  ASSERT_EQ(0, parse(networkInterface("eth1", idOfNode(4), "10.7.0.4"), out));
  EXPECT_EQ(1, countOf(log(), "Non-switch adapter"));
}

TEST_F(KorAttributeParser, AnMl0InterfaceOnThisNodeIsNoted) {
  knowNodes({kMyNode, 4});
  AMNetInterface out;
  ASSERT_EQ(0, parse(networkInterface("ml0", idOfNode(4), "10.8.0.4"), out));
  EXPECT_FALSE(hasML0OnTheNode.load());
  ASSERT_EQ(0, parse(networkInterface("ml0", idOfNode(kMyNode), "10.8.0.1"), out));
  EXPECT_TRUE(hasML0OnTheNode.load());
}

TEST_F(KorAttributeParser, NoAttributesGiveAnEmptyRecord) {
  AMNetInterface out;
  memset(&out, 0x33, sizeof out);
  ASSERT_EQ(0, parseNetInterfaceAttrs(nullptr, 0, out));
  EXPECT_STREQ("", out.ifrName);
  EXPECT_EQ(-1, out.nodeNumber);
  EXPECT_EQ(-1, out.adapterLID);
  EXPECT_EQ(0u, out.ipaddr);
}

TEST_F(KorAttributeParser, AttributesAskedOfEveryInterfaceAreTheElevenInOrder) {
  const char* expected[] = {"Name",      "NodeIDs",     "DeviceName", "IPAddress",       "DeviceSubType", "LogicalID",
                            "NetworkID", "NetworkID64", "PortID",     "HardwareAddress", "DevicePathName"};
  ASSERT_EQ(11, kNINumRetResAttrs);
  for (int i = 0; i < kNINumRetResAttrs; ++i) EXPECT_STREQ(expected[i], NI_RetResAttrs[i]) << i;
}

}  // namespace
