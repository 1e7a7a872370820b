#include "interface_attributes.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kor_resources.h"

namespace velt {
namespace agent {
namespace {

// At most this many entries of a device's infiniband/ folder are looked at.
constexpr int kMaxHcaEntries = 256;

// Printable ASCII without blanks at either end: what every sysfs value we
// publish is, and plain text for KorResources.
bool isPrintable(const std::string& s) {
  for (char c : s) {
    if (c < 0x20 || c > 0x7e) return false;
  }
  return true;
}

bool isDeviceName(const std::string& s) {
  return !s.empty() && s.size() <= kKorMaxDeviceNameBytes && isPrintable(s) &&
         s.find('/') == std::string::npos && s != "." && s != "..";
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The subnet prefix of a GID as sysfs writes it: eight groups of four hex
// digits separated by ':'; the first four groups are the prefix.
bool parseGidPrefix(const std::string& gid, uint64_t* prefix) {
  if (gid.size() != 39) return false;
  uint64_t v = 0;
  for (size_t i = 0; i < gid.size(); ++i) {
    if (i % 5 == 4) {
      if (gid[i] != ':') return false;
      continue;
    }
    const int d = hexDigit(gid[i]);
    if (d < 0) return false;
    if (i < 19) v = (v << 4) | static_cast<uint64_t>(d);
  }
  *prefix = v;
  return true;
}

int32_t asLogicalId(uint64_t v) { return v > INT32_MAX ? 0 : static_cast<int32_t>(v); }

uint32_t asUint32(uint64_t v) { return v > UINT32_MAX ? 0 : static_cast<uint32_t>(v); }

}  // namespace

uint32_t networkIdOfName(const std::string& ifname) {
  size_t start = ifname.size();
  while (start > 0 && ifname[start - 1] >= '0' && ifname[start - 1] <= '9') --start;
  if (start == ifname.size()) return 0;
  uint64_t v = 0;
  for (size_t i = start; i < ifname.size(); ++i) {
    v = v * 10 + static_cast<uint64_t>(ifname[i] - '0');
    if (v > UINT32_MAX) return 0;
  }
  return static_cast<uint32_t>(v);
}

bool InterfaceAttributeReader::readText(const std::string& relative, std::string* text) const {
  text->clear();
  const std::string path = root_ + "/" + relative;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return false;
  }
  // sysfs reports a size of 4096 whatever the value; read to the end with
  // the bound instead.
  char buf[kMaxSysfsFileBytes + 1];
  size_t got = 0;
  while (got < sizeof buf) {
    ssize_t n = ::read(fd, buf + got, sizeof buf - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      close(fd);
      return false;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  close(fd);
  if (got > kMaxSysfsFileBytes) return false;
  while (got > 0 && (buf[got - 1] == '\n' || buf[got - 1] == ' ' || buf[got - 1] == '\t')) --got;
  text->assign(buf, got);
  return true;
}

bool InterfaceAttributeReader::readUnsigned(const std::string& relative, int base,
                                            uint64_t* value) const {
  std::string text;
  if (!readText(relative, &text) || text.empty()) return false;
  if (hexDigit(text[0]) < 0) return false;  // no sign, no blanks
  errno = 0;
  char* end = nullptr;
  unsigned long long v = strtoull(text.c_str(), &end, base);
  if (errno != 0 || end == nullptr || *end != '\0') return false;
  *value = v;
  return true;
}

void InterfaceAttributeReader::readInfiniband(const std::string& ifname,
                                              proto::InterfaceResource* out) const {
  out->set_device_sub_type(kInfinibandDeviceType);
  // The HCA: the first name in order under the device's infiniband folder.
  std::string hca;
  const std::string folder = root_ + "/class/net/" + ifname + "/device/infiniband";
  if (DIR* d = opendir(folder.c_str())) {
    int seen = 0;
    while (dirent* e = readdir(d)) {
      if (++seen > kMaxHcaEntries) break;
      const std::string name = e->d_name;
      if (!isDeviceName(name)) continue;
      if (hca.empty() || name < hca) hca = name;
    }
    closedir(d);
  }
  uint64_t devPort = 0;
  uint64_t port = 1;
  if (readUnsigned("class/net/" + ifname + "/dev_port", 10, &devPort) && devPort < UINT32_MAX) {
    port = devPort + 1;
  }
  out->set_port_id(static_cast<uint32_t>(port));
  if (hca.empty()) {
    out->set_device_name(ifname);
    out->set_device_path_name(ifname);
    return;
  }
  out->set_device_name(hca);
  out->set_device_path_name(hca);
  const std::string portDir = "class/infiniband/" + hca + "/ports/" + std::to_string(port);
  uint64_t lid = 0;
  if (readUnsigned(portDir + "/lid", 16, &lid)) out->set_logical_id(asLogicalId(lid));
  std::string gid;
  uint64_t prefix = 0;
  if (readText(portDir + "/gids/0", &gid) && parseGidPrefix(gid, &prefix)) {
    out->set_network_id64(prefix);
  }
}

int InterfaceAttributeReader::read(const std::string& ifname, const std::string& address,
                                   unsigned prefixLength, uint32_t node,
                                   proto::InterfaceResource* out, std::string* why) const {
  out->Clear();
  if (ifname.empty() || ifname.size() > kKorMaxInterfaceNameBytes || !isPrintable(ifname) ||
      ifname.find('/') != std::string::npos || ifname == "." || ifname == "..") {
    if (why != nullptr) *why = "not an interface name";
    return -1;
  }
  if (address.size() != 4 || prefixLength > 32) {
    if (why != nullptr) *why = "not an IPv4 address and prefix length";
    return -1;
  }
  char dotted[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, address.data(), dotted, sizeof dotted);
  out->set_node(node);
  out->set_name(ifname);
  out->set_ip_address(dotted);
  out->set_network_id(networkIdOfName(ifname));

  const std::string base = "class/net/" + ifname;
  std::string hardware;
  if (readText(base + "/address", &hardware) && isPrintable(hardware) &&
      hardware.size() <= kKorMaxHardwareAddressBytes) {
    out->set_hardware_address(hardware);
  }
  uint64_t type = 0;
  const bool haveType = readUnsigned(base + "/type", 10, &type);
  if (haveType && type == kInfinibandDeviceType) {
    readInfiniband(ifname, out);
    return 0;
  }
  out->set_device_sub_type(haveType ? asUint32(type) : 0);

  std::string device = ifname;
  char resolved[PATH_MAX];
  const std::string link = root_ + "/" + base + "/device";
  if (realpath(link.c_str(), resolved) != nullptr) {
    const char* slash = strrchr(resolved, '/');
    const std::string last = slash == nullptr ? resolved : slash + 1;
    if (isDeviceName(last)) device = last;
  }
  out->set_device_name(device);
  out->set_device_path_name(device);

  uint64_t v = 0;
  if (readUnsigned(base + "/dev_port", 10, &v)) out->set_port_id(asUint32(v));
  v = 0;
  if (readUnsigned(base + "/ifindex", 10, &v)) out->set_logical_id(asLogicalId(v));

  const uint32_t ip = (static_cast<uint32_t>(static_cast<unsigned char>(address[0])) << 24) |
                      (static_cast<uint32_t>(static_cast<unsigned char>(address[1])) << 16) |
                      (static_cast<uint32_t>(static_cast<unsigned char>(address[2])) << 8) |
                      static_cast<uint32_t>(static_cast<unsigned char>(address[3]));
  const uint32_t mask = prefixLength == 0 ? 0 : ~uint32_t{0} << (32 - prefixLength);
  out->set_network_id64(ip & mask);
  return 0;
}

}  // namespace agent
}  // namespace velt
