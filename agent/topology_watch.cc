#include "topology_watch.h"

#include <arpa/inet.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <utility>

namespace velt {
namespace agent {

namespace {

// A failed rtnetlink socket is opened again after this long.
constexpr auto kReopenDelay = std::chrono::seconds(1);

std::string dotted(const std::string& ip) {
  char text[INET_ADDRSTRLEN] = "?";
  if (ip.size() == 4) inet_ntop(AF_INET, ip.data(), text, sizeof text);
  return text;
}

std::string errnoText(int err) {
  char buf[128];
  return strerror_r(err, buf, sizeof buf);
}

}  // namespace

TopologyWatch::TopologyWatch(asio::io_context& io, Settings settings, LogFn log,
                             std::function<void()> changed)
    : io_(io),
      settings_(std::move(settings)),
      log_(std::move(log)),
      changed_(std::move(changed)),
      tracker_(settings_.node, settings_.filter, 4096, settings_.maxAdapters),
      reopen_(io),
      linkPoll_(io),
      self_(settings_.node) {}

TopologyWatch::~TopologyWatch() { stop(); }

int TopologyWatch::start() {
  int rc = watcher_.open(&tracker_);
  if (rc != 0) return rc;
  netlink_ = std::make_unique<asio::posix::stream_descriptor>(io_, watcher_.fd());
  waitReadable();
  return 0;
}

void TopologyWatch::stop() {
  stopped_ = true;
  reopen_.cancel();
  linkPoll_.cancel();
  // The descriptor is the watcher's: stop watching without closing it.
  if (netlink_) netlink_->release();
  netlink_.reset();
  watcher_.close();
  knet_.disconnect();
}

void TopologyWatch::setView(uint32_t self, const std::vector<uint32_t>& members) {
  self_ = self;
  others_.clear();
  for (uint32_t n : members) {
    if (n != self) others_.push_back(n);
  }
  tracker_.setNode(self);
  tracker_.setAlone(others_.empty());
  if (settings_.watchLinks) {
    if (others_.empty()) {
      // Alone, every link counts as alive: nobody to ask about.
      tracker_.setLinks({});
    } else {
      pollLinks();
    }
  }
}

void TopologyWatch::waitReadable() {
  if (!netlink_ || stopped_) return;
  std::weak_ptr<bool> alive = alive_;
  netlink_->async_wait(asio::posix::stream_descriptor::wait_read,
                       [this, alive](const std::error_code& ec) {
                         if (ec || alive.expired() || stopped_) return;
                         readInterfaces();
                       });
}

void TopologyWatch::readInterfaces() {
  int rc = watcher_.receive();
  if (watcher_.overruns() != loggedOverruns_) {
    loggedOverruns_ = watcher_.overruns();
    logLine(
        "interface events were lost (the kernel's queue overflowed); reading every "
        "interface again");
  }
  if (tracker_.droppedInterfaces() != loggedDropped_) {
    loggedDropped_ = tracker_.droppedInterfaces();
    logLine("this node has more interfaces than the agent keeps; %zu were left out",
            loggedDropped_);
  }
  if (tracker_.unindexedAdapters() != loggedUnindexed_) {
    loggedUnindexed_ = tracker_.unindexedAdapters();
    if (loggedUnindexed_ > 0) {
      logLine(
          "%zu adapters are left out: this node already has the %zu adapters an agent "
          "reports",
          loggedUnindexed_, settings_.maxAdapters);
    }
  }
  if (rc != 0) {
    logLine("watching the interfaces failed (%s); trying again in a second", errnoText(rc).c_str());
    if (netlink_) netlink_->release();
    netlink_.reset();
    watcher_.close();
    reopenLater();
    return;
  }
  announceIfChanged();
  // The descriptor is watched edge-triggered: what receive() left for the
  // next turn is taken then rather than waited for.
  struct pollfd p;
  p.fd = watcher_.fd();
  p.events = POLLIN;
  p.revents = 0;
  if (::poll(&p, 1, 0) > 0 && (p.revents & POLLIN) != 0) {
    std::weak_ptr<bool> alive = alive_;
    asio::post(io_, [this, alive] {
      if (!alive.expired() && !stopped_) readInterfaces();
    });
    return;
  }
  waitReadable();
}

void TopologyWatch::reopenLater() {
  std::weak_ptr<bool> alive = alive_;
  reopen_.expires_after(kReopenDelay);
  reopen_.async_wait([this, alive](const std::error_code& ec) {
    if (ec || alive.expired() || stopped_) return;
    int rc = start();
    if (rc != 0) {
      logLine("cannot watch the interfaces (%s); trying again in a second", errnoText(rc).c_str());
      reopenLater();
      return;
    }
    logLine("watching the interfaces again");
  });
}

void TopologyWatch::armLinkPoll() {
  if (linkPollArmed_ || stopped_ || others_.empty()) return;
  linkPollArmed_ = true;
  std::weak_ptr<bool> alive = alive_;
  linkPoll_.expires_after(settings_.linkPoll);
  linkPoll_.async_wait([this, alive](const std::error_code& ec) {
    if (alive.expired()) return;
    linkPollArmed_ = false;
    if (ec || stopped_) return;
    pollLinks();
    announceIfChanged();
  });
}

void TopologyWatch::pollLinks() {
  if (others_.empty()) return;
  std::vector<AdapterTracker::LinkState> links;
  std::string why;
  if (knet_.poll(self_, others_, &links, &why) != 0) {
    // Without corosync the links' last known state stands; the bus will
    // tell the agent soon enough if corosync is gone for good.
    if (why != knetProblem_) logLine("knet link status unknown: %s", why.c_str());
    knetProblem_ = why;
    armLinkPoll();
    return;
  }
  if (!knetProblem_.empty()) logLine("knet link status known again");
  knetProblem_.clear();
  // Only what changed goes to the log.
  for (const AdapterTracker::LinkState& l : links) {
    auto old = std::find_if(loggedLinks_.begin(), loggedLinks_.end(),
                            [&](const AdapterTracker::LinkState& x) { return x.link == l.link; });
    if (old != loggedLinks_.end() && old->connected == l.connected &&
        old->localAddress == l.localAddress) {
      continue;
    }
    logLine("knet link %u (%s) %s", l.link, dotted(l.localAddress).c_str(),
            l.connected ? "reaches another node of the view" : "reaches no other node of the view");
  }
  loggedLinks_ = links;
  tracker_.setLinks(links);
  armLinkPoll();
}

void TopologyWatch::logLine(const char* fmt, ...) {
  if (!log_) return;
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  log_(text);
}

void TopologyWatch::announceIfChanged() {
  // Until the first dump is complete the picture is partial: what changed
  // meanwhile is announced with it.
  if (!watcher_.dumped() || !tracker_.takeChanged()) return;
  changed_();
}

}  // namespace agent
}  // namespace velt
