// The attributes of one local interface as a "Zel.NetworkInterface"
// resource, read from sysfs. The sysfs root is a parameter so that tests
// give a tree of their own.
//
// For every interface:
//   Name          the interface name
//   IPAddress     the IPv4 address, dotted
//   NetworkID     the number the name ends with ("sxn1" -> 1, "ib3" -> 3;
//                 0 when it ends with none or the number passes 32 bits)
//   node          the node number given
// InfiniBand ports (class/net/IF/type is 32):
//   DeviceSubType 32
//   DeviceName    the HCA under class/net/IF/device/infiniband/ (mlx5_0; the
//                 first name in order when there are several; the
//                 interface name when there is none)
//   PortID        class/net/IF/dev_port + 1 (IB ports count from 1); 1 when
//                 dev_port is absent
//   LogicalID     class/infiniband/DEV/ports/PORT/lid (hex, "0x1a"); 0 when
//                 absent
//   NetworkID64   the subnet prefix: the first 8 bytes of
//                 class/infiniband/DEV/ports/PORT/gids/0; 0 when absent
//   HardwareAddress class/net/IF/address
//   DevicePathName the device name
// Any other interface:
//   DeviceSubType class/net/IF/type (1 Ethernet, 772 loopback, ...); 0
//                 when absent
//   DeviceName    the last part of where class/net/IF/device leads (a PCI
//                 address such as 0000:03:00.0); the interface name when it
//                 has no device (dummy, veth, bridges, ...)
//   DevicePathName the device name
//   PortID        class/net/IF/dev_port; 0 when absent
//   LogicalID     class/net/IF/ifindex; 0 when absent
//   NetworkID64   the IPv4 network (address & mask) as a number
//                 (10.1.2.3/24 -> 0x0a010200)
//   HardwareAddress class/net/IF/address ("" when absent)
// Every file is read up to kMaxSysfsFileBytes; a value that is missing,
// unreadable, malformed or past the bounds of a resource gives the fallback
// above, never an error.
// Thread-compatible (holds only its root).
#ifndef VELT_AGENT_INTERFACE_ATTRIBUTES_H_
#define VELT_AGENT_INTERFACE_ATTRIBUTES_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <utility>

#include "velt.pb.h"

namespace velt {
namespace agent {

constexpr char kDefaultSysfsRoot[] = "/sys";
constexpr size_t kMaxSysfsFileBytes = 4096;
constexpr uint32_t kInfinibandDeviceType = 32;  // ARPHRD_INFINIBAND

// The number an interface name ends with, as NetworkID documents it.
uint32_t networkIdOfName(const std::string& ifname);

class InterfaceAttributeReader {
 public:
  explicit InterfaceAttributeReader(std::string sysfsRoot = kDefaultSysfsRoot)
      : root_(std::move(sysfsRoot)) {}

  // Fills *out for ifname with the IPv4 address (4 bytes, network order)
  // and prefix length given, on node. Returns -1 (with *why set) only when
  // the inputs themselves are unusable: a name that is not an interface
  // name (empty, longer than 15 bytes, with '/', "." or ".."), an address
  // that is not 4 bytes, a prefix longer than 32.
  int read(const std::string& ifname, const std::string& address, unsigned prefixLength,
           uint32_t node, proto::InterfaceResource* out, std::string* why = nullptr) const;

 private:
  // The text of a sysfs file without its trailing newline and blanks;
  // false when it is absent, unreadable or longer than kMaxSysfsFileBytes.
  bool readText(const std::string& relative, std::string* text) const;
  bool readUnsigned(const std::string& relative, int base, uint64_t* value) const;
  void readInfiniband(const std::string& ifname, proto::InterfaceResource* out) const;

  std::string root_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_INTERFACE_ATTRIBUTES_H_
