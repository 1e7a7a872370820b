// NodelistWatch: corosync's nodelist (cmap keys nodelist.node.X.*), read
// when the agent starts and again whenever it changes: a node added to or
// removed from corosync.conf and reloaded with `corosync-cfgtool -R` reaches
// the agent without polling, through a cmap track on the "nodelist." prefix.
// During a reload corosync rewrites the keys one by one; the list is read
// only once the reload is over (config.reload_in_progress back at 0), so
// that no half-written nodelist is ever reported. While corosync is away
// the watch asks again every second. Owned by the agent's event loop
// thread.
#ifndef VELT_AGENT_NODELIST_WATCH_H_
#define VELT_AGENT_NODELIST_WATCH_H_

#include <stdint.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <asio.hpp>

#include "velt.pb.h"

namespace velt {
namespace agent {

// The most nodes a nodelist may name; entries past it are not read.
constexpr size_t kMaxNodelistNodes = 2049;
// The longest node name kept; longer names are cut at a character. A name
// is kept as UTF-8: bytes that are not become "?".
constexpr size_t kMaxNodeNameBytes = 255;

// What the nodelist reader needs of cmap, so that tests can hand it a
// plain map. Each returns false when the key does not exist.
struct NodelistSource {
  std::function<bool(const std::string& key, uint32_t* value)> getUint32;
  std::function<bool(const std::string& key, std::string* value)> getString;
};

// The nodes of the nodelist by node id, ascending: entries are numbered
// from 0 without gaps (the first index without a node id is past the end);
// the name is "name", else "ring0_addr", else "node<ID>". Entries with node
// id 0 and repeated ids are skipped. At most kMaxNodelistNodes.
std::vector<proto::NodeEntry> readNodelist(const NodelistSource& source);

class NodelistWatch {
 public:
  using LogFn = std::function<void(const std::string& line)>;
  // Called with the whole nodelist after it was first read and after each
  // change.
  using ChangeFn = std::function<void(const std::vector<proto::NodeEntry>& nodes)>;

  NodelistWatch(asio::io_context& io, LogFn log, ChangeFn changed);
  ~NodelistWatch();
  NodelistWatch(const NodelistWatch&) = delete;
  NodelistWatch& operator=(const NodelistWatch&) = delete;

  // Connects to cmap (or keeps trying every second) and reports the
  // nodelist once it is read.
  void start();
  // The nodelist last read (empty before the first read).
  const std::vector<proto::NodeEntry>& nodes() const { return nodes_; }

 private:
  struct Callbacks;
  friend struct Callbacks;

  bool connect();
  void disconnect();
  void retryLater();
  void watch();
  void dispatch();
  // Reads the list when no reload is in progress and reports a change.
  void readIfSettled();
  void onTrack(const char* key);

  asio::io_context& io_;
  LogFn log_;
  ChangeFn changed_;
  uint64_t cmap_ = 0;          // cmap_handle_t; 0 when not connected
  uint64_t trackNodelist_ = 0; // cmap_track_handle_t
  uint64_t trackReload_ = 0;
  std::unique_ptr<asio::posix::stream_descriptor> fd_;
  asio::steady_timer retry_;
  bool dirty_ = true;
  bool complainedAway_ = false;
  bool stopping_ = false;
  std::vector<proto::NodeEntry> nodes_;
  bool haveRead_ = false;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_NODELIST_WATCH_H_
