// Shared set-up of the adapter table tests: the replaced monotonic clock,
// stand-ins at the seams the table talks through (the interface list, the
// propagator, client sessions, a mediator) and a fixture that gives each
// test a controller with a fresh table and an empty delta table.
#ifndef VELT_TESTS_UNIT_GLOBALAM_TABLE_TEST_SUPPORT_H_
#define VELT_TESTS_UNIT_GLOBALAM_TABLE_TEST_SUPPORT_H_

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "sw_NAM_calls.h"
#include "sw_adapter_info.h"
#include "vx_cu.h"

namespace table_test {

// ----------------------------------------------------------------- clock

// The monotonic clock the table reads, in microseconds; tests move it.
inline std::atomic<int64_t>& fakeMonoUsecs() {
  static std::atomic<int64_t> usecs{1000LL * 1000000};
  return usecs;
}

inline int fakeMonoClock(struct timespec* ts) {
  int64_t now = fakeMonoUsecs().load();
  ts->tv_sec = static_cast<time_t>(now / 1000000);
  ts->tv_nsec = static_cast<long>((now % 1000000) * 1000);
  return 0;
}

inline void advanceSeconds(double seconds) {
  fakeMonoUsecs().fetch_add(static_cast<int64_t>(seconds * 1000000));
}

// --------------------------------------------------------- interface list

// What the fake SIOCGIFCONF answers: these IPv4 interfaces.
struct FakeInterface {
  std::string name;
  std::string ip;
};

inline std::mutex& fakeInterfacesMu() {
  static std::mutex mu;
  return mu;
}
inline std::vector<FakeInterface>& fakeInterfaces() {
  static std::vector<FakeInterface> list;
  return list;
}

inline int fakeIfconfQuery(int /*sock*/, struct ifconf* ifc) {
  std::lock_guard<std::mutex> hold(fakeInterfacesMu());
  std::vector<struct ifreq> entries;
  for (const FakeInterface& f : fakeInterfaces()) {
    struct ifreq r;
    memset(&r, 0, sizeof r);
    strncpy(r.ifr_name, f.name.c_str(), sizeof r.ifr_name - 1);
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    inet_pton(AF_INET, f.ip.c_str(), &a.sin_addr);
    memcpy(&r.ifr_addr, &a, sizeof a);
    entries.push_back(r);
  }
  size_t bytes = entries.size() * sizeof(struct ifreq);
  if (bytes > static_cast<size_t>(ifc->ifc_len)) bytes = static_cast<size_t>(ifc->ifc_len) / sizeof(struct ifreq) *
                                                        sizeof(struct ifreq);
  if (bytes > 0) memcpy(ifc->ifc_buf, entries.data(), bytes);
  ifc->ifc_len = static_cast<int>(bytes);
  return 0;
}

inline void setLocalInterfaces(const std::vector<FakeInterface>& list) {
  std::lock_guard<std::mutex> hold(fakeInterfacesMu());
  fakeInterfaces() = list;
}

// ------------------------------------------------------------ stand-ins

// What a client session saw of the delta table when it was asked to queue.
struct SeenRecord {
  uint64_t network;
  uint32_t node;
  std::string name;
  uint8_t status;
};
struct SeenNetwork {
  uint64_t network;
  uint32_t num_connect;
  uint32_t num_up;
  uint32_t num_down;
  size_t records;
};
struct SeenBatch {
  std::vector<SeenNetwork> networks;
  std::vector<SeenRecord> records;
};

// Counts of a network that disagree with its records; empty when they agree.
inline std::string countMismatch(const veltnamNetInfoList& table) {
  for (const auto& entry : table) {
    const velt_nam_connect_net_info& ni = entry.second->netInfo;
    uint32_t up = 0;
    uint32_t down = 0;
    for (const velt_nam_connect* rec : entry.second->veltnamConnectList) {
      if (rec->status == VELT_NAM_CONNECT_UP) ++up;
      if (rec->status == VELT_NAM_CONNECT_DOWN) ++down;
    }
    if (ni.network_id != entry.first || ni.num_connect != entry.second->veltnamConnectList.size() ||
        ni.num_up != up || ni.num_down != down) {
      return "network " + std::to_string(entry.first) + ": connect " + std::to_string(ni.num_connect) + "/" +
             std::to_string(entry.second->veltnamConnectList.size()) + " up " + std::to_string(ni.num_up) + "/" +
             std::to_string(up) + " down " + std::to_string(ni.num_down) + "/" + std::to_string(down);
    }
  }
  return std::string();
}

// A client session that records what it is asked to do. queueEvent runs
// with veltnamSyncLock held (by reflect_NAM_changes), so it reads the delta
// table directly, as a real session packs it.
class FakeNamClient : public NAMClient {
 public:
  explicit FakeNamClient(int sock) { sock_fd = sock; }
  void* run(void*) override { return nullptr; }

  int queueEvent() override {
    SeenBatch batch;
    for (const auto& entry : veltnamNetInfoListDelta) {
      const velt_nam_connect_net_info& ni = entry.second->netInfo;
      batch.networks.push_back({ni.network_id, ni.num_connect, ni.num_up, ni.num_down,
                                entry.second->veltnamConnectList.size()});
      for (const velt_nam_connect* rec : entry.second->veltnamConnectList) {
        batch.records.push_back({entry.first, rec->node_number,
                                 std::string(rec->interface_name, strnlen(rec->interface_name, 16)), rec->status});
      }
    }
    std::string mismatch = countMismatch(veltnamNetInfoListDelta);
    std::lock_guard<std::mutex> hold(mu_);
    if (!mismatch.empty()) mismatches_.push_back(mismatch);
    batches_.push_back(std::move(batch));
    return 0;
  }
  void wakeup(int event) override {
    std::lock_guard<std::mutex> hold(mu_);
    wakeups_.push_back(event);
  }

  std::vector<SeenBatch> batches() {
    std::lock_guard<std::mutex> hold(mu_);
    return batches_;
  }
  std::vector<int> wakeups() {
    std::lock_guard<std::mutex> hold(mu_);
    return wakeups_;
  }
  std::vector<std::string> mismatches() {
    std::lock_guard<std::mutex> hold(mu_);
    return mismatches_;
  }
  void forget() {
    std::lock_guard<std::mutex> hold(mu_);
    batches_.clear();
    wakeups_.clear();
  }

 private:
  std::mutex mu_;
  std::vector<SeenBatch> batches_;
  std::vector<int> wakeups_;
  std::vector<std::string> mismatches_;
};

// A propagator that counts the delayed-down wake-ups it is given.
class FakePropagator : public AMPropagator {
 public:
  void* run(void*) override { return nullptr; }
  int postSyncEvent(_AMProEventType) override { return 0; }
  pid_t refreshPid() const override { return -1; }
  void clearRefreshPid() override {}
  void refreshCompleted(int) override {}
  void refreshRequested() override {}
  bool isCfgProviderActive() const override { return false; }
  void doLongStatus() override {}
  void doCanonicalLongStatus() override {}
  int postDelayedDownEvent() override {
    delayedDownPosts.fetch_add(1);
    return 1;
  }
  std::atomic<int> delayedDownPosts{0};
};

// ---------------------------------------------------------------- inputs

inline AMNetInterface makeInterface(int node, const char* name, const char* ip, uint64_t net64,
                                    unsigned netid = 0) {
  AMNetInterface obj;
  memset(&obj, 0, sizeof obj);
  strncpy(obj.ifrName, name, sizeof obj.ifrName - 1);
  snprintf(obj.deviceName, sizeof obj.deviceName, "dev_%s", name);
  inet_pton(AF_INET, ip, &obj.ipaddr);
  obj.family = AF_INET;
  obj.nodeNumber = node;
  obj.adapterType = 0;
  obj.adapterLID = 7;
  obj.adapterNetworkID = netid;
  obj.networkId64 = net64;
  obj.spigot_id = 1;
  snprintf(obj.devicePathName, sizeof obj.devicePathName, "/dev/%s", name);
  return obj;
}

// A fixture's private directory: the one named by the environment variable
// env (a death test's child runs SetUp again in a fresh process and takes
// its parent's, so that the parent reads what the child logged), else a new
// one "prefixXXXXXX" under gtest's temporary directory, which env then
// names. "" when none can be made.
inline std::string inheritedTestDir(const char* env, const std::string& prefix) {
  const char* inherited = getenv(env);
  if (inherited != nullptr) return inherited;
  std::string tmpl = ::testing::TempDir() + prefix + "XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) return "";
  setenv(env, buf.data(), 1);
  return buf.data();
}

// A membership list that owns its providers.
class Members {
 public:
  Members() { sync(); }
  Members& add(int node, int instance) {
    providers_.push_back(gsMakeProvider(static_cast<uint16_t>(node), static_cast<uint16_t>(instance)));
    sync();
    return *this;
  }
  const tk_gs_membership_t* get() const { return &list_; }

 private:
  void sync() {
    list_.gs_count = static_cast<unsigned>(providers_.size());
    list_.gs_providers = providers_.empty() ? nullptr : providers_.data();
  }
  std::vector<tk_gs_provider_t> providers_;
  tk_gs_membership_t list_;
};

inline void clearDelta() {
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  clear_net_adapter_table(veltnamNetInfoListDelta);
}

// The status of an adapter's record in the delta table; -1 when absent.
inline int deltaStatus(int node, const char* name, uint64_t* network = nullptr) {
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  for (const auto& entry : veltnamNetInfoListDelta) {
    for (const velt_nam_connect* rec : entry.second->veltnamConnectList) {
      if (rec->node_number == static_cast<uint32_t>(node) && strncmp(rec->interface_name, name, 16) == 0) {
        if (network) *network = entry.first;
        return rec->status;
      }
    }
  }
  return -1;
}

inline size_t deltaRecordCount() {
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  size_t n = 0;
  for (const auto& entry : veltnamNetInfoListDelta) n += entry.second->veltnamConnectList.size();
  return n;
}

// ---------------------------------------------------------------- fixture

constexpr uint32_t kVersion2500 = 0x02050000;
constexpr int kMyNode = 1;

// Each test: a controller whose construction made a fresh table (no local
// switch adapters), the replaced clock, a supported cluster version, a
// 16-second down delay, the cluster domain type and an empty delta table.
class TableFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeMonoUsecs().store(1000LL * 1000000);
    cu_set_clocks_ForTesting(nullptr, fakeMonoClock);
    setNetIfConfQueryForTesting(fakeIfconfQuery);
    setLocalInterfaces({{"lo", "127.0.0.1"}, {"eth0", "10.0.0.1"}});
    resetInterfaceIndexMapForTesting();
    resetNodeIdMapForTesting();
    isIBenv.store(false);
    veltActiveVersion.quick_version = kVersion2500;
    WAIT_PENDING_DELAYED_DOWN_USECS = 16000000;
    myNodeNumber = kMyNode;
    AMController::domainType = kCLUSTER;
    AMController::propagator = nullptr;
    clearDelta();
    ctl_ = new AMController();
    table_ = AMController::pGAdapterCfgTbl;
    ASSERT_NE(table_, nullptr);
  }

  void TearDown() override {
    AMController::propagator = nullptr;
    {
      std::lock_guard<std::mutex> hold(ctl_->namClientLock_);
      ctl_->namClientArray.clear();
    }
    delete ctl_;
    AMController::pGAdapterCfgTbl = nullptr;
    delete table_;
    clearDelta();
    resetNodeIdMapForTesting();
    setNetIfConfQueryForTesting(nullptr);
    cu_set_clocks_ForTesting(nullptr, nullptr);
    AMController::domainType = kQUIL;
  }

  // Defines the adapter and publishes, so that the test starts from a
  // quiet delta table.
  void defineAndSettle(const AMNetInterface& obj) {
    table_->setAdapterDefinedWithLock(obj);
    reflect_NAM_changes();
  }

  AMController* ctl_ = nullptr;
  AMGlobalAdapterTable* table_ = nullptr;
};

}  // namespace table_test

#endif  // VELT_TESTS_UNIT_GLOBALAM_TABLE_TEST_SUPPORT_H_
