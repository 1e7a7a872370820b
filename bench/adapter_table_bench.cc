// The adapter table at the size of the largest cluster: 2048 nodes with 48
// adapters each (98,304 adapters on 12 networks). Times each step and
// prints the process's peak memory:
//   define   every adapter defined under one write lock (a KOR harvest),
//            then published;
//   up       one membership list of every adapter, up, published;
//   down     the same list, down: every down held back;
//   expire   the clock moved past the down delay, one delayed-down pass
//            that announces and publishes every down;
//   full     the full table of client records a new client receives;
//   up-mixed the up list once more in random order (the delta table's
//            search gets no help from ascending nodes).
// Tracing is off (no trace level set), so the figures are the table's own;
// one client session counts each published batch (it does not pack it).
// Exit status 1 when a step's result is not what it must be.
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "sw_NAM_calls.h"
#include "veltnam_utils.h"
#include "bench_figures.h"
#include "vx_cu.h"

namespace {

constexpr int kNodes = 2048;
constexpr int kAdapters = MaxAdaptersOnNode;
constexpr int kNetworks = 12;
constexpr int kTotal = kNodes * kAdapters;

int64_t fakeMonoUsecs = 5000LL * 1000000;

int benchMonoClock(struct timespec* ts) {
  ts->tv_sec = static_cast<time_t>(fakeMonoUsecs / 1000000);
  ts->tv_nsec = static_cast<long>(fakeMonoUsecs % 1000000) * 1000;
  return 0;
}

class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  double ms() const {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

AMNetInterface adapterOf(int node, int idx) {
  AMNetInterface obj;
  memset(&obj, 0, sizeof obj);
  snprintf(obj.ifrName, sizeof obj.ifrName, "sxn%d", idx);
  snprintf(obj.deviceName, sizeof obj.deviceName, "mlx5_%d", idx);
  obj.ipaddr = htonl(0x0a000000u | (static_cast<uint32_t>(idx) << 16) | static_cast<uint32_t>(node));
  obj.family = AF_INET;
  obj.nodeNumber = node;
  obj.adapterType = 32;  // InfiniBand: every record carries a GID
  obj.adapterLID = node * kAdapters + idx;
  obj.adapterNetworkID = static_cast<uint32_t>(idx % kNetworks);
  obj.networkId64 = 0xfe80000000000000ull + static_cast<uint64_t>(idx % kNetworks);
  obj.spigot_id = static_cast<uint8_t>(1 + idx % 2);
  snprintf(obj.hardwareAddress, sizeof obj.hardwareAddress, "80:00:02:08:fe:80:00:00:00:00:00:00:00:02:%02x:%02x",
           node & 0xff, idx);
  snprintf(obj.devicePathName, sizeof obj.devicePathName, "/dev/ib%d", idx);
  return obj;
}

size_t recordCount(const veltnamNetInfoList& table, uint32_t* down = nullptr) {
  size_t n = 0;
  uint32_t downs = 0;
  for (const auto& entry : table) {
    n += entry.second->veltnamConnectList.size();
    downs += entry.second->netInfo.num_down;
  }
  if (down) *down = downs;
  return n;
}

// A client session that only counts what each published batch holds (a
// real session packs the batch into its queue; that is not timed here).
class CountingClient : public NAMClient {
 public:
  void* run(void*) override { return nullptr; }
  void wakeup(int) override {}
  // Called with veltnamSyncLock held.
  int queueEvent() override {
    ++batches;
    records = up = down = 0;
    for (const auto& entry : veltnamNetInfoListDelta) {
      records += entry.second->netInfo.num_connect;
      up += entry.second->netInfo.num_up;
      down += entry.second->netInfo.num_down;
    }
    return 0;
  }
  int batches = 0;
  uint32_t records = 0, up = 0, down = 0;
};

// Every step's target: under 150 ms.
constexpr double kStepTargetMs = 150;

void report(const char* step, double ms, const char* what, double targetMs = kStepTargetMs) {
  bench::printStep(step, ms, targetMs, what);
}

}  // namespace

int main() {
  cu_set_clocks_ForTesting(nullptr, benchMonoClock);
  veltActiveVersion.quick_version = 0x02050000;
  WAIT_PENDING_DELAYED_DOWN_USECS = 16000000;
  myNodeNumber = 1;
  AMController::domainType = kCLUSTER;

  AMController* controller = new AMController();
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  CountingClient client;
  controller->insertNamClient(&client);
  int failures = 0;
  // What the last step published: one batch of n records, up of them up and
  // down of them down.
  auto published = [&](int batches, uint32_t n, uint32_t up, uint32_t down) {
    bool ok = client.batches == batches && client.records == n && client.up == up && client.down == down;
    if (!ok) {
      printf("  published: %d batches, last %u records (%u up, %u down)\n", client.batches, client.records,
             client.up, client.down);
    }
    return ok;
  };

  std::vector<AMNetInterface> adapters;
  adapters.reserve(kTotal);
  for (int node = 0; node < kNodes; ++node)
    for (int idx = 0; idx < kAdapters; ++idx) adapters.push_back(adapterOf(node, idx));
  std::vector<tk_gs_provider_t> providers;
  providers.reserve(kTotal);
  for (int node = 0; node < kNodes; ++node)
    for (int idx = 0; idx < kAdapters; ++idx)
      providers.push_back(gsMakeProvider(static_cast<uint16_t>(node), static_cast<uint16_t>(idx)));
  tk_gs_membership_t members;
  members.gs_count = kTotal;
  members.gs_providers = providers.data();

  printf("adapter table: %d nodes x %d adapters = %d adapters on %d networks\n", kNodes, kAdapters, kTotal,
         kNetworks);

  {
    Stopwatch sw;
    int changed = 0;
    {
      GSWriteGuard hold(*table);
      for (const AMNetInterface& obj : adapters) changed += table->setAdapterDefinedWithoutLock(obj);
    }
    reflect_NAM_changes();
    report("define", sw.ms(), (std::to_string(changed) + " rows defined").c_str());
    if (changed != kTotal || table->getAdapterItemCount() != kTotal || !published(1, kTotal, 0, kTotal)) ++failures;
  }
  {
    Stopwatch sw;
    int rc = table->updateAdapterStateWithLock(1, &members, 1);
    report("up", sw.ms(), "one up list of every adapter, published");
    if (rc != 1 || !published(2, kTotal, kTotal, 0)) ++failures;
  }
  {
    Stopwatch sw;
    table->updateAdapterStateWithLock(0, &members, 1);
    report("down", sw.ms(), "one down list of every adapter, all held back");
    if (!table->IsThereADelayedDownEvent() || !published(2, kTotal, kTotal, 0)) ++failures;
  }
  {
    fakeMonoUsecs += WAIT_PENDING_DELAYED_DOWN_USECS + 500000;
    // The rows whose down the pass is to announce (counted before timing).
    int announced = 0;
    {
      GSReadGuard hold(*table);
      for (auto& entry : table->getAdapterItemList()) announced += entry.second->isPending ? 1 : 0;
    }
    Stopwatch sw;
    int pending = table->processDelayedDownEvents();
    report("expire", sw.ms(), (std::to_string(announced) + " downs announced and published").c_str());
    if (pending != 0 || announced != kTotal || !published(3, kTotal, 0, kTotal)) ++failures;
  }
  {
    veltnamNetInfoList full;
    Stopwatch sw;
    int rc = controller->obtainAdapterInfoFromGlobalTable(full, 0);
    double ms = sw.ms();
    uint32_t downs = 0;
    size_t records = recordCount(full, &downs);
    report("full", ms, (std::to_string(records) + " client records in " + std::to_string(full.size()) +
                        " networks, " + std::to_string(downs) + " down")
                           .c_str());
    if (rc != 0 || records != static_cast<size_t>(kTotal) || downs != static_cast<uint32_t>(kTotal)) ++failures;
    clear_net_adapter_table(full);
  }

  {
    // The same up list in random order: adapters reach the delta table in
    // no particular order, the harder case for its search.
    std::vector<tk_gs_provider_t> shuffled(providers);
    std::mt19937 rng(2048);
    std::shuffle(shuffled.begin(), shuffled.end(), rng);
    tk_gs_membership_t mixed;
    mixed.gs_count = kTotal;
    mixed.gs_providers = shuffled.data();
    Stopwatch sw;
    int rc = table->updateAdapterStateWithLock(1, &mixed, 1);
    report("up-mixed", sw.ms(), "the up list again, in random order, published");
    if (rc != 1 || !published(4, kTotal, kTotal, 0)) ++failures;
  }

  controller->removeNamClient(&client);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  printf("peak memory (ru_maxrss): %.1f MiB\n", usage.ru_maxrss / 1024.0);
  if (failures) printf("FAILED: %d step(s) did not give the expected result\n", failures);
  return failures ? 1 : 0;
}
