// knet_link_watch: what knet and the kernel say about links, with times,
// for the cluster benchmark. Inside a node (scripts/cluster exec N
// knet_link_watch ...) it polls corosync's knet link status (libcfg, the
// same source as `corosync-cfgtool -s`) towards the given peers every
// --poll-ms; wherever it runs it follows the kernel's interface events
// (rtnetlink) of its network namespace: without node ids it does only that
// (in the root namespace it sees a bridge port being cut). One line per
// change, led by CLOCK_REALTIME in microseconds:
//
//   <us> start poll_ms=P local=NODEID
//   <us> link node=N link=L connected=0|1
//   <us> iface NAME up=0|1 running=0|1 master=IFINDEX (0: none)
//
// It ends on SIGTERM/SIGINT, or after --seconds (default 600) so that it
// never outlives a benchmark that died.
#include <corosync/cfg.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr unsigned kMaxPeers = 64;

volatile sig_atomic_t stopRequested = 0;
void onSignal(int) { stopRequested = 1; }

long long wallMicros() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

long long monoMillis() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool parseUnsigned(const char* text, unsigned long lo, unsigned long hi, unsigned long* out) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long v = strtoul(text, &end, 10);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

int usage(const char* why) {
  if (why != nullptr) fprintf(stderr, "knet_link_watch: %s\n", why);
  fprintf(stderr,
          "usage: knet_link_watch [--poll-ms MS] [--seconds S] [NODEID...]\n"
          "  polls knet's link status towards each NODEID (1..65535) every MS\n"
          "  (1..1000, default 5) and follows interface events; see the source.\n");
  return 2;
}

// NLMSG_OK, without its comparison of the unsigned message length with the
// signed count of bytes left (which clang warns about).
bool messageFits(const struct nlmsghdr* h, int left) {
  return left >= static_cast<int>(sizeof(struct nlmsghdr)) && h->nlmsg_len >= sizeof(struct nlmsghdr) &&
         h->nlmsg_len <= static_cast<unsigned>(left);
}

// The kernel's interface events on an rtnetlink socket.
class LinkEvents {
 public:
  bool open() {
    fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd_ < 0) return false;
    struct sockaddr_nl sa;
    memset(&sa, 0, sizeof sa);
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = RTMGRP_LINK;
    return bind(fd_, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa) == 0;
  }
  int fd() const { return fd_; }

  // Reads what is queued and prints changes of up/running/master per
  // interface.
  void drain() {
    alignas(struct nlmsghdr) char buf[16384];
    for (;;) {
      ssize_t len = recv(fd_, buf, sizeof buf, 0);
      if (len <= 0) return;   // EAGAIN: all read; an overrun loses only history
      long long t = wallMicros();
      int left = static_cast<int>(len);
      for (struct nlmsghdr* h = reinterpret_cast<struct nlmsghdr*>(buf); messageFits(h, left);
           h = NLMSG_NEXT(h, left)) {
        if (h->nlmsg_type != RTM_NEWLINK && h->nlmsg_type != RTM_DELLINK) continue;
        if (h->nlmsg_len < NLMSG_LENGTH(sizeof(struct ifinfomsg))) continue;
        struct ifinfomsg* ifi = static_cast<struct ifinfomsg*>(NLMSG_DATA(h));
        // The bridge's own port messages (AF_BRIDGE) repeat what the
        // interface's messages say; only the latter count.
        if (ifi->ifi_family != AF_UNSPEC) continue;
        std::string name;
        unsigned master = 0;
        int attrLen = static_cast<int>(h->nlmsg_len - NLMSG_LENGTH(sizeof *ifi));
        for (struct rtattr* a = IFLA_RTA(ifi); RTA_OK(a, attrLen); a = RTA_NEXT(a, attrLen)) {
          if (a->rta_type == IFLA_IFNAME) {
            const char* p = static_cast<const char*>(RTA_DATA(a));
            name.assign(p, strnlen(p, RTA_PAYLOAD(a)));
          } else if (a->rta_type == IFLA_MASTER && RTA_PAYLOAD(a) >= sizeof(uint32_t)) {
            uint32_t m;
            memcpy(&m, RTA_DATA(a), sizeof m);
            master = m;
          }
        }
        if (name.empty()) continue;
        int up = (ifi->ifi_flags & IFF_UP) ? 1 : 0;
        int running = (ifi->ifi_flags & IFF_RUNNING) ? 1 : 0;
        if (h->nlmsg_type == RTM_DELLINK) {
          up = running = 0;
          master = 0;
        }
        auto it = last_.find(name);
        State now{up, running, master};
        if (it != last_.end() && it->second == now) continue;
        // Bounded: interfaces beyond the first few hundred are reported
        // on every event rather than remembered.
        if (last_.size() < 256 || it != last_.end()) last_[name] = now;
        printf("%lld iface %s up=%d running=%d master=%u\n", t, name.c_str(), up, running, master);
      }
    }
  }

 private:
  struct State {
    int up;
    int running;
    unsigned master;
    bool operator==(const State& o) const {
      return up == o.up && running == o.running && master == o.master;
    }
  };
  int fd_ = -1;
  std::map<std::string, State> last_;
};

}  // namespace

int main(int argc, char** argv) {
  unsigned long pollMs = 5;
  unsigned long seconds = 600;
  std::vector<unsigned> peers;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "-h" || a == "--help") return usage(nullptr);
    if (a == "--poll-ms" || a == "--seconds") {
      if (i + 1 >= argc) return usage((a + " needs a value").c_str());
      bool ok = a == "--poll-ms" ? parseUnsigned(argv[++i], 1, 1000, &pollMs)
                                 : parseUnsigned(argv[++i], 1, 86400, &seconds);
      if (!ok) return usage((a + ": \"" + argv[i] + "\" is out of range").c_str());
      continue;
    }
    unsigned long id;
    if (!parseUnsigned(argv[i], 1, 65535, &id)) return usage(("not a node id: " + a).c_str());
    if (peers.size() >= kMaxPeers) return usage("too many node ids");
    peers.push_back(static_cast<unsigned>(id));
  }

  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = onSignal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);

  corosync_cfg_handle_t cfg = 0;
  unsigned int local = 0;
  if (!peers.empty()) {
    cs_error_t err = corosync_cfg_initialize(&cfg, nullptr);
    if (err != CS_OK) {
      fprintf(stderr, "knet_link_watch: cannot reach corosync (cfg error %d); run it inside a node\n",
              static_cast<int>(err));
      return 1;
    }
    corosync_cfg_local_get(cfg, &local);
  }
  LinkEvents events;
  if (!events.open()) {
    fprintf(stderr, "knet_link_watch: cannot open an rtnetlink socket: %s\n", strerror(errno));
    return 1;
  }
  printf("%lld start poll_ms=%lu local=%u\n", wallMicros(), pollMs, local);
  fflush(stdout);

  std::map<std::pair<unsigned, int>, int> connected;
  long long deadline = monoMillis() + static_cast<long long>(seconds) * 1000;
  long long nextPoll = monoMillis();
  while (!stopRequested && monoMillis() < deadline) {
    long long now = monoMillis();
    if (now >= nextPoll) {
      for (unsigned peer : peers) {
        if (peer == local) continue;
        struct corosync_cfg_node_status_v1 st;
        memset(&st, 0, sizeof st);
        if (corosync_cfg_node_status_get(cfg, peer, CFG_NODE_STATUS_V1, &st) != CS_OK) continue;
        long long t = wallMicros();
        for (int l = 0; l < CFG_MAX_LINKS; ++l) {
          if (!st.link_status[l].enabled) continue;
          int c = st.link_status[l].connected ? 1 : 0;
          auto key = std::make_pair(peer, l);
          auto it = connected.find(key);
          if (it != connected.end() && it->second == c) continue;
          connected[key] = c;
          printf("%lld link node=%u link=%d connected=%d\n", t, peer, l, c);
        }
      }
      fflush(stdout);
      nextPoll = now + static_cast<long long>(pollMs);
    }
    struct pollfd p;
    p.fd = events.fd();
    p.events = POLLIN;
    p.revents = 0;
    // Without peers only interface events matter: sleep until one comes
    // (waking each second to check the deadline).
    int wait = peers.empty() ? 1000 : static_cast<int>(nextPoll - monoMillis());
    int n = poll(&p, 1, wait < 0 ? 0 : wait);
    if (n < 0 && errno != EINTR) break;
    if (n > 0 && (p.revents & POLLIN)) {
      events.drain();
      fflush(stdout);
    }
  }
  if (!peers.empty()) corosync_cfg_finalize(cfg);
  return 0;
}
