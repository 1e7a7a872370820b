// gscl_watch: a subscriber for the cluster tests and the cluster benchmark.
// It subscribes to the groups named on its command line (and to more on
// request) and prints every notification as one line on standard output,
// each led by the wall clock in microseconds, so that a test can wait for a
// membership and the benchmark can time when a change reached this node.
// Commands on standard input, one per line:
//
//   subscribe GROUP | unsubscribe GROUP
//   info A.B.C.D        adapter information of an address (get_adapter_info)
//   quit                (end of input quits too)
//
// Output lines ("<us>" is CLOCK_REALTIME in microseconds):
//   <us> rc initialize|subscribe|unsubscribe [GROUP] RC
//   <us> sub GROUP type=BITS full=INST/NODE,... changing=... full_ip=IP,... changing_ip=...
//   <us> delayed GROUP request=REQ rc=RC
//   <us> info IP rc=RC [iface=NAME node=N instance=I network=NET type=TYPE]
//   <us> dispatch RC    (the agent connection ended)
// The dispatch thread runs the callbacks; the main thread reads commands.
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "gs_client.h"
#include "gs_controller.h"

using namespace velt_gscl_V1;

namespace {

// More subscriptions than any test asks for; a bound on what input can make
// us hold.
constexpr size_t kMaxSubscriptions = 64;
constexpr size_t kMaxLine = 4096;

std::mutex outMu;

long long wallMicros() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void say(const std::string& line) {
  std::lock_guard<std::mutex> g(outMu);
  fprintf(stdout, "%lld %s\n", wallMicros(), line.c_str());
  fflush(stdout);
}

std::string providers(const tk_gs_membership_t* m) {
  if (m == nullptr || m->gs_count == 0) return "-";
  std::string out;
  for (unsigned int i = 0; i < m->gs_count; ++i) {
    if (!out.empty()) out += ",";
    out += std::to_string(m->gs_providers[i].gs_provider_fields.gs_instance_number) + "/" +
           std::to_string(m->gs_providers[i].gs_provider_fields.gs_node_number);
  }
  return out;
}

std::string addressText(const tk_gs_ip_addr& a) {
  static const uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  char buf[INET6_ADDRSTRLEN];
  if (memcmp(a.gs_bytes, kMapped, sizeof kMapped) == 0) {
    inet_ntop(AF_INET, a.gs_bytes + 12, buf, sizeof buf);
  } else {
    inet_ntop(AF_INET6, a.gs_bytes, buf, sizeof buf);
  }
  return buf;
}

std::string addresses(const tk_gs_adapter_ip_membership_t* m) {
  if (m == nullptr || m->gs_count == 0) return "-";
  std::string out;
  for (unsigned int i = 0; i < m->gs_count; ++i) {
    if (!out.empty()) out += ",";
    out += addressText(m->gs_ip_addrs[i]);
  }
  return out;
}

// A subscription that prints what it is told. Its callbacks run on the
// dispatch thread; requests come from the main thread (the library allows
// both).
class PrintingSubscriber : public GSSubscriber {
 public:
  explicit PrintingSubscriber(const char* group)
      : GSSubscriber(group, TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE),
        group_(group) {}

  tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override {
    say("sub " + group_ + " type=" + gscl_subscription_type_names(n->gs_subscription_type) +
        " full=" + providers(n->gs_full_membership) +
        " changing=" + providers(n->gs_changing_membership) +
        " full_ip=" + addresses(n->gs_full_ip_membership) +
        " changing_ip=" + addresses(n->gs_changing_ip_membership));
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override {
    say("delayed " + group_ + " request=" + gscl_request_name(n->gs_request_type) +
        " rc=" + gscl_rc_name(n->gs_delayed_return_code));
    return TK_GS_CALLBACK_OK;
  }

 private:
  const std::string group_;
};

bool validGroup(const std::string& g) {
  return !g.empty() && g.size() <= TK_GS_MAX_GROUP_NAME_LENGTH;
}

void info(const GSController& controller, const std::string& text) {
  struct in_addr v4;
  if (inet_pton(AF_INET, text.c_str(), &v4) != 1) {
    say("info " + text + " rc=not-an-ipv4-address");
    return;
  }
  tk_gs_ip_addr ip;
  memset(&ip, 0, sizeof ip);
  ip.gs_bytes[10] = 0xff;
  ip.gs_bytes[11] = 0xff;
  memcpy(ip.gs_bytes + 12, &v4, 4);
  tk_gs_adapter_info_t a;
  memset(&a, 0, sizeof a);
  tk_gs_rc_t rc = controller.get_adapter_info(&ip, &a);
  std::string line = "info " + text + " rc=" + gscl_rc_name(rc);
  if (rc == TK_GS_OK) {
    line += std::string(" iface=") + a.gs_interface_name + " node=" +
            std::to_string(a.gs_node_number) + " instance=" + std::to_string(a.gs_instance_number) +
            " network=" + a.gs_network_name + " type=" + a.gs_network_type;
  }
  say(line);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    fprintf(stderr, "usage: gscl_watch [GROUP...]   (commands on standard input: subscribe GROUP,\n"
                    "       unsubscribe GROUP, info A.B.C.D, quit)\n");
    return 2;
  }
  GSController controller(0x30014);
  // The agent may still be starting: retry for a bounded time.
  tk_gs_rc_t rc = TK_GS_NOT_CONNECTED;
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while ((rc = controller.initialize()) != TK_GS_OK && std::chrono::steady_clock::now() < until) {
    controller.quit();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  say(std::string("rc initialize ") + gscl_rc_name(rc));
  if (rc != TK_GS_OK) return 1;

  std::map<std::string, std::unique_ptr<PrintingSubscriber>> subscribers;
  auto subscribe = [&](const std::string& group) {
    if (!validGroup(group)) {
      say("rc subscribe " + group + " bad-group-name");
      return;
    }
    auto it = subscribers.find(group);
    if (it == subscribers.end()) {
      if (subscribers.size() >= kMaxSubscriptions) {
        say("rc subscribe " + group + " too-many-subscriptions");
        return;
      }
      it = subscribers.emplace(group, std::make_unique<PrintingSubscriber>(group.c_str())).first;
    }
    say("rc subscribe " + group + " " + gscl_rc_name(it->second->subscribeGroup()));
  };
  for (int i = 1; i < argc; ++i) subscribe(argv[i]);

  std::thread dispatcher([&] {
    tk_gs_rc_t d;
    while ((d = controller.dispatch(TK_GS_BLOCKING)) == TK_GS_OK) {
    }
    say(std::string("dispatch ") + gscl_rc_name(d));
  });

  std::string line;
  while (std::getline(std::cin, line)) {
    if (line.size() > kMaxLine) {
      say("unknown command (line too long)");
      continue;
    }
    std::istringstream in(line);
    std::string cmd, arg;
    in >> cmd >> arg;
    if (cmd == "quit") break;
    if (cmd == "subscribe") {
      subscribe(arg);
    } else if (cmd == "unsubscribe") {
      auto it = subscribers.find(arg);
      say("rc unsubscribe " + arg + " " +
          (it == subscribers.end() ? std::string("not-subscribed")
                                   : gscl_rc_name(it->second->unsubscribeGroup())));
    } else if (cmd == "info") {
      info(controller, arg);
    } else if (!cmd.empty()) {
      say("unknown command " + cmd);
    }
  }
  controller.quit();
  dispatcher.join();
  return 0;
}
