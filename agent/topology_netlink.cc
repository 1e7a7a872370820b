#include "topology_netlink.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <string>

namespace velt {
namespace agent {

namespace {

// One datagram of a dump or an event; a larger one is refused by the
// library (ENOSPC) rather than cut.
constexpr size_t kReceiveBuffer = 64 * 1024;
// The kernel's queue for this socket: room for a burst of events (hundreds
// of interfaces changing at once) before it has to drop any.
constexpr int kSocketBuffer = 1024 * 1024;
// Datagrams read per receive() call; the rest wait for the loop's next turn
// so that a flood of events cannot hold the loop.
constexpr int kDatagramsPerTurn = 256;

struct LinkAttrs {
  const nlattr* name = nullptr;
};

int linkAttr(const nlattr* attr, void* data) {
  if (mnl_attr_type_valid(attr, IFLA_MAX) < 0) return MNL_CB_OK;
  if (mnl_attr_get_type(attr) == IFLA_IFNAME && mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) == 0) {
    static_cast<LinkAttrs*>(data)->name = attr;
  }
  return MNL_CB_OK;
}

struct AddressAttrs {
  const nlattr* local = nullptr;
  const nlattr* address = nullptr;
  const nlattr* flags = nullptr;
};

int addressAttr(const nlattr* attr, void* data) {
  if (mnl_attr_type_valid(attr, IFA_MAX) < 0) return MNL_CB_OK;
  AddressAttrs* a = static_cast<AddressAttrs*>(data);
  switch (mnl_attr_get_type(attr)) {
    case IFA_LOCAL:
      if (mnl_attr_get_payload_len(attr) == 4) a->local = attr;
      break;
    case IFA_ADDRESS:
      if (mnl_attr_get_payload_len(attr) == 4) a->address = attr;
      break;
    case IFA_FLAGS:
      if (mnl_attr_validate(attr, MNL_TYPE_U32) == 0) a->flags = attr;
      break;
    default:
      break;
  }
  return MNL_CB_OK;
}

}  // namespace

InterfaceWatcher::InterfaceWatcher() : buf_(kReceiveBuffer) {}

InterfaceWatcher::~InterfaceWatcher() { close(); }

int InterfaceWatcher::open(AdapterTracker* tracker) {
  close();
  tracker_ = tracker;
  nl_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (nl_ == nullptr) return errno;
  int fd = mnl_socket_get_fd(nl_);
  // Root may go past the system's limit; others take what it allows.
  int size = kSocketBuffer;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  if (mnl_socket_bind(nl_, RTMGRP_LINK | RTMGRP_IPV4_IFADDR, MNL_SOCKET_AUTOPID) != 0) {
    int err = errno;
    close();
    return err;
  }
  // Dump numbers start from the clock so that a reopened socket never
  // takes an old reply for a new one.
  seq_ = static_cast<uint32_t>(time(nullptr));
  dumped_ = false;
  again_ = false;
  int rc = startDump(Dump::kLinks);
  if (rc != 0) close();
  return rc;
}

void InterfaceWatcher::close() {
  if (nl_ != nullptr) mnl_socket_close(nl_);
  nl_ = nullptr;
  dump_ = Dump::kNone;
}

int InterfaceWatcher::fd() const { return nl_ == nullptr ? -1 : mnl_socket_get_fd(nl_); }

int InterfaceWatcher::startDump(Dump what) {
  char req[256];
  memset(req, 0, sizeof req);
  nlmsghdr* nlh = mnl_nlmsg_put_header(req);
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  nlh->nlmsg_seq = ++seq_;
  if (what == Dump::kLinks) {
    nlh->nlmsg_type = RTM_GETLINK;
    ifinfomsg* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_family = AF_UNSPEC;
    tracker_->beginLinkDump();
  } else {
    nlh->nlmsg_type = RTM_GETADDR;
    ifaddrmsg* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
    ifa->ifa_family = AF_INET;
    tracker_->beginAddressDump();
  }
  if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0) return errno;
  dump_ = what;
  return 0;
}

int InterfaceWatcher::dumpDone() {
  if (dump_ == Dump::kLinks) {
    tracker_->endLinkDump();
    return startDump(Dump::kAddresses);
  }
  tracker_->endAddressDump();
  dump_ = Dump::kNone;
  dumped_ = true;
  if (again_) {
    again_ = false;
    return startDump(Dump::kLinks);
  }
  return 0;
}

int InterfaceWatcher::receive() {
  if (nl_ == nullptr) return EBADF;
  for (int i = 0; i < kDatagramsPerTurn; ++i) {
    ssize_t n = mnl_socket_recvfrom(nl_, buf_.data(), buf_.size());
    if (n < 0) {
      int err = errno;
      if (err == EAGAIN || err == EWOULDBLOCK) return 0;
      if (err == EINTR) continue;
      if (err == ENOBUFS) {
        // The kernel dropped events: a new dump tells us what we missed.
        ++overruns_;
        if (dump_ != Dump::kNone) {
          again_ = true;
          continue;
        }
        int rc = startDump(Dump::kLinks);
        if (rc != 0) return rc;
        continue;
      }
      return err;
    }
    const nlmsghdr* nlh = reinterpret_cast<const nlmsghdr*>(buf_.data());
    int len = static_cast<int>(n);
    while (mnl_nlmsg_ok(nlh, len)) {
      int rc = handle(nlh);
      if (rc != 0) return rc;
      nlh = mnl_nlmsg_next(nlh, &len);
    }
  }
  return 0;
}

int InterfaceWatcher::handle(const nlmsghdr* nlh) {
  bool ours = dump_ != Dump::kNone && nlh->nlmsg_seq == seq_;
  // A dump that the kernel says changed under it is not to be trusted:
  // it is done again once it ends.
  if (ours && (nlh->nlmsg_flags & NLM_F_DUMP_INTR) != 0) again_ = true;
  switch (nlh->nlmsg_type) {
    case NLMSG_DONE:
      return ours ? dumpDone() : 0;
    case NLMSG_ERROR: {
      if (!ours) return 0;
      if (mnl_nlmsg_get_payload_len(nlh) < sizeof(nlmsgerr)) return EPROTO;
      const nlmsgerr* e = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
      if (e->error == 0) return 0;
      // The kernel refused the dump: say so; the owner starts afresh.
      return -e->error;
    }
    case RTM_NEWLINK:
    case RTM_DELLINK:
      handleLink(nlh);
      return 0;
    case RTM_NEWADDR:
    case RTM_DELADDR:
      handleAddress(nlh);
      return 0;
    default:
      return 0;
  }
}

void InterfaceWatcher::handleLink(const nlmsghdr* nlh) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) return;
  const ifinfomsg* ifi = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
  // Bridge port messages (AF_BRIDGE) describe a port, not the interface: a
  // port leaving its bridge is no interface going away.
  if (ifi->ifi_family != AF_UNSPEC || ifi->ifi_index <= 0) return;
  if (nlh->nlmsg_type == RTM_DELLINK) {
    tracker_->linkRemoved(ifi->ifi_index);
    return;
  }
  LinkAttrs attrs;
  if (mnl_attr_parse(nlh, sizeof(ifinfomsg), linkAttr, &attrs) < 0 || attrs.name == nullptr) return;
  const char* name = mnl_attr_get_str(attrs.name);
  size_t len = strnlen(name, IFNAMSIZ);
  if (len == 0 || len >= IFNAMSIZ) return;
  tracker_->linkChanged(ifi->ifi_index, std::string(name, len), ifi->ifi_flags);
}

void InterfaceWatcher::handleAddress(const nlmsghdr* nlh) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifaddrmsg)) return;
  const ifaddrmsg* ifa = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
  if (ifa->ifa_family != AF_INET || ifa->ifa_index == 0) return;
  AddressAttrs attrs;
  if (mnl_attr_parse(nlh, sizeof(ifaddrmsg), addressAttr, &attrs) < 0) return;
  // IFA_LOCAL is the interface's own address; IFA_ADDRESS is the peer's on
  // point-to-point links and the same as IFA_LOCAL elsewhere.
  const nlattr* a = attrs.local != nullptr ? attrs.local : attrs.address;
  if (a == nullptr) return;
  std::string ip(static_cast<const char*>(mnl_attr_get_payload(a)), 4);
  int index = static_cast<int>(ifa->ifa_index);
  if (nlh->nlmsg_type == RTM_DELADDR) {
    tracker_->addressRemoved(index, ip);
    return;
  }
  uint32_t flags = attrs.flags != nullptr ? mnl_attr_get_u32(attrs.flags) : ifa->ifa_flags;
  tracker_->addressAdded(index, ip, (flags & IFA_F_SECONDARY) != 0);
}

}  // namespace agent
}  // namespace velt
