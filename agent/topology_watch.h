// TopologyWatch: this node's topology on the agent's event loop. It owns
// the AdapterTracker and feeds it from the InterfaceWatcher (the rtnetlink
// socket, watched by the loop) and, on a corosync cluster, from the
// KnetLinkMonitor (polled on a timer, only while the view has other
// nodes); whenever the adapters change it calls its owner back. Owned by
// the agent's event loop thread.
#ifndef VELT_AGENT_TOPOLOGY_WATCH_H_
#define VELT_AGENT_TOPOLOGY_WATCH_H_

#include <stddef.h>
#include <stdint.h>

#include <asio.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "topology.h"
#include "topology_knet.h"
#include "topology_netlink.h"

namespace velt {
namespace agent {

class TopologyWatch {
 public:
  struct Settings {
    uint32_t node = 0;  // may change at setView
    InterfaceFilter filter;
    bool watchLinks = false;  // on corosync: knet link status counts
    std::chrono::milliseconds linkPoll{200};
    size_t maxAdapters = 64;
  };

  // One line for the agent's log.
  using LogFn = std::function<void(const std::string& line)>;

  // changed runs on the loop whenever adapters() changed, never from inside
  // a call of the owner.
  TopologyWatch(asio::io_context& io, Settings settings, LogFn log, std::function<void()> changed);
  ~TopologyWatch();
  TopologyWatch(const TopologyWatch&) = delete;
  TopologyWatch& operator=(const TopologyWatch&) = delete;

  // Opens the rtnetlink socket and asks for the first dump. Returns 0 or an
  // errno value.
  int start();
  void stop();

  // The view this node is in now (self among members): whether it is alone,
  // and whose link status counts.
  void setView(uint32_t self, const std::vector<uint32_t>& members);

  // The first dump is complete: adapters() is the whole picture.
  bool ready() const { return watcher_.dumped(); }
  const std::map<uint32_t, proto::AdapterImage>& adapters() const { return tracker_.adapters(); }
  const AdapterTracker& tracker() const { return tracker_; }

 private:
  void waitReadable();
  void readInterfaces();
  void reopenLater();
  void armLinkPoll();
  void pollLinks();
  void announceIfChanged();

  asio::io_context& io_;
  Settings settings_;
  void logLine(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  LogFn log_;
  std::function<void()> changed_;
  AdapterTracker tracker_;
  InterfaceWatcher watcher_;
  KnetLinkMonitor knet_;
  std::unique_ptr<asio::posix::stream_descriptor> netlink_;
  asio::steady_timer reopen_;
  asio::steady_timer linkPoll_;
  bool linkPollArmed_ = false;
  bool stopped_ = false;
  uint32_t self_ = 0;
  std::vector<uint32_t> others_;
  // What was last said in the log, so that only changes are logged.
  std::string knetProblem_;
  std::vector<AdapterTracker::LinkState> loggedLinks_;
  size_t loggedDropped_ = 0;
  size_t loggedUnindexed_ = 0;
  size_t loggedOverruns_ = 0;
  // Callbacks still queued on the loop hold it weakly: once the watch is
  // destroyed they find it expired and do nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_TOPOLOGY_WATCH_H_
