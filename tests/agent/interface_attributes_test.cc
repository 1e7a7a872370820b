// The attributes of a local interface from sysfs, on fake sysfs trees: an
// InfiniBand port, an Ethernet device behind a PCI function, a dummy
// device, and trees with missing or malformed files.
#include "interface_attributes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "kor_resources.h"
#include "kor_test_files.h"

namespace velt {
namespace agent {
namespace {

using testing_files::TempDir;
using testing_files::writeFile;

std::string ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return std::string{static_cast<char>(a), static_cast<char>(b), static_cast<char>(c),
                     static_cast<char>(d)};
}

constexpr char kIbAddress[] = "80:00:02:08:fe:80:00:00:00:00:00:00:00:02:c9:03:00:f3:a1:b1";

class InterfaceAttributes : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(sys.path().empty()); }
  void file(const std::string& relative, const std::string& text) { writeFile(sys / relative, text); }
  void link(const std::string& target, const std::string& relative) {
    testing_files::fs::create_directories(testing_files::fs::path(sys / relative).parent_path());
    ASSERT_EQ(0, symlink(target.c_str(), (sys / relative).c_str()));
  }
  // An mlx5 port as the kernel shows it: the interface's device is the PCI
  // function, which holds the HCA under infiniband/.
  void makeInfinibandPort() {
    const std::string pci = "devices/pci0000:00/0000:81:00.0";
    file(pci + "/infiniband/mlx5_0/node_type", "1: CA\n");
    link("../../../" + pci, "class/net/ib0/device");
    file("class/net/ib0/type", "32\n");
    file("class/net/ib0/dev_port", "0\n");
    file("class/net/ib0/ifindex", "5\n");
    file("class/net/ib0/address", std::string(kIbAddress) + "\n");
    file("class/infiniband/mlx5_0/ports/1/lid", "0x1a\n");
    file("class/infiniband/mlx5_0/ports/1/gids/0", "fe80:0000:0000:0000:0002:c903:00f3:a1b1\n");
  }
  void makeEthernet() {
    file("devices/pci0000:00/0000:03:00.0/vendor", "0x8086\n");
    link("../../../devices/pci0000:00/0000:03:00.0", "class/net/sxn1/device");
    file("class/net/sxn1/type", "1\n");
    file("class/net/sxn1/dev_port", "1\n");
    file("class/net/sxn1/ifindex", "7\n");
    file("class/net/sxn1/address", "52:54:00:ab:cd:ef\n");
  }
  void makeDummy() {
    file("class/net/sxn0/type", "1\n");
    file("class/net/sxn0/ifindex", "3\n");
    file("class/net/sxn0/address", "9a:3c:11:00:00:01\n");
  }
  TempDir sys;
};

TEST_F(InterfaceAttributes, InfinibandPortFromTheHcaAndItsPort) {
  makeInfinibandPort();
  InterfaceAttributeReader reader(sys.path());
  proto::InterfaceResource r;
  std::string why;
  ASSERT_EQ(0, reader.read("ib0", ip(192, 168, 10, 2), 24, 4, &r, &why)) << why;
  EXPECT_EQ(r.node(), 4u);
  EXPECT_EQ(r.name(), "ib0");
  EXPECT_EQ(r.ip_address(), "192.168.10.2");
  EXPECT_EQ(r.device_sub_type(), 32u);
  EXPECT_EQ(r.device_name(), "mlx5_0");
  EXPECT_EQ(r.device_path_name(), "mlx5_0");
  EXPECT_EQ(r.port_id(), 1u);
  EXPECT_EQ(r.logical_id(), 0x1a);
  EXPECT_EQ(r.network_id64(), 0xfe80000000000000ull);
  EXPECT_EQ(r.hardware_address(), kIbAddress);
  EXPECT_EQ(r.network_id(), 0u);
  EXPECT_TRUE(KorResources::validInterface(r, &why)) << why;
}

TEST_F(InterfaceAttributes, InfinibandSecondPortUsesDevPortPlusOne) {
  makeInfinibandPort();
  file("class/net/ib0/dev_port", "1\n");
  file("class/infiniband/mlx5_0/ports/2/lid", "0x2b\n");
  file("class/infiniband/mlx5_0/ports/2/gids/0", "fe80:0000:0000:0001:0002:c903:00f3:a1b2\n");
  proto::InterfaceResource r;
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("ib0", ip(10, 0, 0, 1), 8, 1, &r));
  EXPECT_EQ(r.port_id(), 2u);
  EXPECT_EQ(r.logical_id(), 0x2b);
  EXPECT_EQ(r.network_id64(), 0xfe80000000000001ull);
}

TEST_F(InterfaceAttributes, InfinibandWithoutPortFilesFallsBack) {
  makeInfinibandPort();
  unlink((sys / "class/net/ib0/dev_port").c_str());
  testing_files::fs::remove_all(sys / "class/infiniband");
  proto::InterfaceResource r;
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("ib0", ip(10, 0, 0, 1), 8, 1, &r));
  EXPECT_EQ(r.device_name(), "mlx5_0");
  EXPECT_EQ(r.port_id(), 1u);
  EXPECT_EQ(r.logical_id(), 0);
  EXPECT_EQ(r.network_id64(), 0u);
  // Without an HCA under the device: the interface's own name.
  testing_files::fs::remove_all(sys / "devices/pci0000:00/0000:81:00.0/infiniband");
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("ib0", ip(10, 0, 0, 1), 8, 1, &r));
  EXPECT_EQ(r.device_name(), "ib0");
  EXPECT_EQ(r.device_sub_type(), 32u);
}

TEST_F(InterfaceAttributes, EthernetDeviceBehindAPciFunction) {
  makeEthernet();
  proto::InterfaceResource r;
  std::string why;
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("sxn1", ip(10, 1, 2, 3), 24, 2, &r, &why))
      << why;
  EXPECT_EQ(r.name(), "sxn1");
  EXPECT_EQ(r.ip_address(), "10.1.2.3");
  EXPECT_EQ(r.device_sub_type(), 1u);
  EXPECT_EQ(r.device_name(), "0000:03:00.0");
  EXPECT_EQ(r.device_path_name(), "0000:03:00.0");
  EXPECT_EQ(r.port_id(), 1u);
  EXPECT_EQ(r.logical_id(), 7);
  EXPECT_EQ(r.network_id(), 1u);
  EXPECT_EQ(r.network_id64(), 0x0a010200u);
  EXPECT_EQ(r.hardware_address(), "52:54:00:ab:cd:ef");
  EXPECT_TRUE(KorResources::validInterface(r, &why)) << why;
}

TEST_F(InterfaceAttributes, DummyDeviceIsNamedAfterItsInterface) {
  makeDummy();
  proto::InterfaceResource r;
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("sxn0", ip(172, 16, 5, 9), 16, 3, &r));
  EXPECT_EQ(r.device_sub_type(), 1u);
  EXPECT_EQ(r.device_name(), "sxn0");
  EXPECT_EQ(r.device_path_name(), "sxn0");
  EXPECT_EQ(r.port_id(), 0u);
  EXPECT_EQ(r.logical_id(), 3);
  EXPECT_EQ(r.network_id(), 0u);
  EXPECT_EQ(r.network_id64(), 0xac100000u);
  EXPECT_EQ(r.hardware_address(), "9a:3c:11:00:00:01");
}

TEST_F(InterfaceAttributes, MissingOrMalformedFilesGiveTheFallbacks) {
  // Nothing at all under class/net/eth3.
  proto::InterfaceResource r;
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("eth3", ip(10, 0, 0, 1), 32, 1, &r));
  EXPECT_EQ(r.device_sub_type(), 0u);
  EXPECT_EQ(r.device_name(), "eth3");
  EXPECT_EQ(r.port_id(), 0u);
  EXPECT_EQ(r.logical_id(), 0);
  EXPECT_EQ(r.hardware_address(), "");
  EXPECT_EQ(r.network_id(), 3u);
  EXPECT_EQ(r.network_id64(), 0x0a000001u);

  file("class/net/eth3/type", "-1\n");
  file("class/net/eth3/ifindex", "99999999999\n");  // past int32
  file("class/net/eth3/dev_port", "one\n");
  file("class/net/eth3/address", std::string(kMaxSysfsFileBytes + 1, 'a'));
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("eth3", ip(10, 0, 0, 1), 0, 1, &r));
  EXPECT_EQ(r.device_sub_type(), 0u);
  EXPECT_EQ(r.logical_id(), 0);
  EXPECT_EQ(r.port_id(), 0u);
  EXPECT_EQ(r.hardware_address(), "");
  EXPECT_EQ(r.network_id64(), 0u) << "prefix 0: the whole space";

  // A hardware address past what a resource holds is left out too.
  file("class/net/eth3/address", std::string(kKorMaxHardwareAddressBytes + 1, 'a') + "\n");
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("eth3", ip(10, 0, 0, 1), 8, 1, &r));
  EXPECT_EQ(r.hardware_address(), "");

  // A malformed GID or LID on an IB port.
  makeInfinibandPort();
  file("class/infiniband/mlx5_0/ports/1/lid", "lid\n");
  file("class/infiniband/mlx5_0/ports/1/gids/0", "fe80::2:c903:f3:a1b1\n");
  ASSERT_EQ(0, InterfaceAttributeReader(sys.path()).read("ib0", ip(10, 0, 0, 1), 8, 1, &r));
  EXPECT_EQ(r.logical_id(), 0);
  EXPECT_EQ(r.network_id64(), 0u);
}

TEST_F(InterfaceAttributes, UnusableInputsAreRefused) {
  makeDummy();
  InterfaceAttributeReader reader(sys.path());
  proto::InterfaceResource r;
  std::string why;
  for (const char* name : {"", "..", ".", "a/b", "sixteen-bytes-xx"}) {
    EXPECT_EQ(-1, reader.read(name, ip(10, 0, 0, 1), 24, 1, &r, &why)) << name;
  }
  EXPECT_EQ(-1, reader.read("sxn0", "\x0a\x00\x00", 24, 1, &r, &why));
  EXPECT_EQ(-1, reader.read("sxn0", ip(10, 0, 0, 1), 33, 1, &r, &why));
  EXPECT_FALSE(why.empty());
}

TEST(NetworkIdOfName, TheNumberTheNameEndsWith) {
  EXPECT_EQ(networkIdOfName("sxn1"), 1u);
  EXPECT_EQ(networkIdOfName("ib3"), 3u);
  EXPECT_EQ(networkIdOfName("eth10"), 10u);
  EXPECT_EQ(networkIdOfName("enp3s0f1"), 1u);
  EXPECT_EQ(networkIdOfName("lo"), 0u);
  EXPECT_EQ(networkIdOfName("x4294967295"), 4294967295u);
  EXPECT_EQ(networkIdOfName("x4294967296"), 0u) << "past 32 bits";
  EXPECT_EQ(networkIdOfName(""), 0u);
}

}  // namespace
}  // namespace agent
}  // namespace velt
