#include "nodelist_watch.h"

#include <corosync/cmap.h>
#include <corosync/corotypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <set>

#include "utf8_text.h"

namespace velt {
namespace agent {

namespace {

constexpr auto kReconnectInterval = std::chrono::seconds(1);
constexpr char kReloadKey[] = "config.reload_in_progress";

std::string csText(cs_error_t rc) {
  return "corosync error " + std::to_string(static_cast<int>(rc));
}

}  // namespace

std::vector<proto::NodeEntry> readNodelist(const NodelistSource& source) {
  std::vector<proto::NodeEntry> out;
  std::set<uint32_t> seen;
  char key[CMAP_KEYNAME_MAXLEN];
  // Entries are numbered without gaps; a list longer than we keep is read
  // no further than the bound (plus room for skipped entries).
  for (uint32_t i = 0; out.size() < kMaxNodelistNodes && i < 4 * kMaxNodelistNodes; ++i) {
    uint32_t nodeid = 0;
    snprintf(key, sizeof key, "nodelist.node.%u.nodeid", i);
    if (!source.getUint32(key, &nodeid)) break;
    if (nodeid == 0 || !seen.insert(nodeid).second) continue;
    std::string name;
    snprintf(key, sizeof key, "nodelist.node.%u.name", i);
    if (!source.getString(key, &name) || name.empty()) {
      snprintf(key, sizeof key, "nodelist.node.%u.ring0_addr", i);
      if (!source.getString(key, &name) || name.empty()) name = "node" + std::to_string(nodeid);
    }
    // The name travels in the nodelist report, which no agent could read
    // with a name that is not UTF-8 (a Latin-1 name, or one cut inside a
    // character).
    name = wire::utf8Text(name, kMaxNodeNameBytes);
    proto::NodeEntry e;
    e.set_node(nodeid);
    e.set_name(name);
    out.push_back(std::move(e));
  }
  std::sort(out.begin(), out.end(),
            [](const proto::NodeEntry& a, const proto::NodeEntry& b) { return a.node() < b.node(); });
  return out;
}

struct NodelistWatch::Callbacks {
  static void notify(cmap_handle_t handle, cmap_track_handle_t, int32_t, const char* key,
                     struct cmap_notify_value, struct cmap_notify_value, void* user) {
    (void)handle;
    static_cast<NodelistWatch*>(user)->onTrack(key);
  }
};

NodelistWatch::NodelistWatch(asio::io_context& io, LogFn log, ChangeFn changed)
    : io_(io), log_(std::move(log)), changed_(std::move(changed)), retry_(io) {}

NodelistWatch::~NodelistWatch() {
  stopping_ = true;
  disconnect();
}

void NodelistWatch::start() {
  if (!connect()) retryLater();
}

bool NodelistWatch::connect() {
  cmap_handle_t handle;
  cs_error_t rc = cmap_initialize(&handle);
  if (rc != CS_OK) {
    if (!complainedAway_) {
      log_("cannot read corosync's nodelist yet (" + csText(rc) + "); asking again every second");
      complainedAway_ = true;
    }
    return false;
  }
  cmap_ = handle;
  cmap_track_handle_t track;
  rc = cmap_track_add(handle, "nodelist.", CMAP_TRACK_ADD | CMAP_TRACK_DELETE | CMAP_TRACK_MODIFY |
                                               CMAP_TRACK_PREFIX,
                      &Callbacks::notify, this, &track);
  if (rc == CS_OK) {
    trackNodelist_ = track;
    rc = cmap_track_add(handle, kReloadKey, CMAP_TRACK_ADD | CMAP_TRACK_DELETE | CMAP_TRACK_MODIFY,
                        &Callbacks::notify, this, &track);
    if (rc == CS_OK) trackReload_ = track;
  }
  int fd = -1;
  if (rc == CS_OK) rc = cmap_fd_get(handle, &fd);
  if (rc != CS_OK) {
    log_("cannot follow corosync's nodelist (" + csText(rc) + "); asking again every second");
    disconnect();
    return false;
  }
  if (complainedAway_) log_("reading corosync's nodelist");
  complainedAway_ = false;
  // The descriptor is cmap's: watched, never closed by us.
  fd_ = std::make_unique<asio::posix::stream_descriptor>(io_, fd);
  dirty_ = true;
  readIfSettled();
  watch();
  return true;
}

void NodelistWatch::disconnect() {
  if (fd_) {
    fd_->release();
    fd_.reset();
  }
  if (cmap_ != 0) {
    cmap_finalize(cmap_);
    cmap_ = 0;
  }
  trackNodelist_ = 0;
  trackReload_ = 0;
}

void NodelistWatch::retryLater() {
  retry_.expires_after(kReconnectInterval);
  retry_.async_wait([this](const std::error_code& ec) {
    if (ec || stopping_) return;
    if (!connect()) retryLater();
  });
}

void NodelistWatch::watch() {
  fd_->async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code& ec) {
    if (ec || stopping_) return;
    dispatch();
  });
}

void NodelistWatch::dispatch() {
  cs_error_t rc = cmap_dispatch(cmap_, CS_DISPATCH_ALL);
  if (rc != CS_OK && rc != CS_ERR_TRY_AGAIN) {
    log_("lost corosync's nodelist (" + csText(rc) + "); asking again every second");
    complainedAway_ = true;
    disconnect();
    retryLater();
    return;
  }
  readIfSettled();
  watch();
}

void NodelistWatch::onTrack(const char* key) {
  (void)key;
  dirty_ = true;
}

void NodelistWatch::readIfSettled() {
  if (!dirty_ || cmap_ == 0) return;
  uint8_t reloading = 0;
  if (cmap_get_uint8(cmap_, kReloadKey, &reloading) == CS_OK && reloading != 0) return;
  dirty_ = false;
  NodelistSource source;
  cmap_handle_t handle = cmap_;
  source.getUint32 = [handle](const std::string& key, uint32_t* value) {
    return cmap_get_uint32(handle, key.c_str(), value) == CS_OK;
  };
  source.getString = [handle](const std::string& key, std::string* value) {
    char* text = nullptr;
    if (cmap_get_string(handle, key.c_str(), &text) != CS_OK || text == nullptr) return false;
    *value = text;
    free(text);
    return true;
  };
  std::vector<proto::NodeEntry> nodes = readNodelist(source);
  bool same = haveRead_ && nodes.size() == nodes_.size() &&
              std::equal(nodes.begin(), nodes.end(), nodes_.begin(),
                         [](const proto::NodeEntry& a, const proto::NodeEntry& b) {
                           return a.node() == b.node() && a.name() == b.name();
                         });
  if (same) return;
  haveRead_ = true;
  nodes_ = std::move(nodes);
  std::string ids;
  for (const proto::NodeEntry& e : nodes_) ids += (ids.empty() ? "" : " ") + std::to_string(e.node());
  log_("corosync's nodelist: nodes " + (ids.empty() ? std::string("(none)") : ids));
  changed_(nodes_);
}

}  // namespace agent
}  // namespace velt
