// Feeds arbitrary bytes, read as what the daemon sends on a NAM session,
// through libveltnam's reassembly and checks into a fresh table, in pieces
// of varying size as a socket may deliver them, until the first message the
// library refuses. After every applied message the copies handed to
// programs are taken and checked: each network's counts describe its
// records. Nothing may crash, leak or allocate past the library's bounds.
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "internal/nam_stream.h"
#include "internal/nam_table.h"
#include "velt_nam_api.h"

namespace {

using velt::nam::internal::AdapterTable;
using velt::nam::internal::DaemonStream;

void checkCopies(const AdapterTable& table) {
  velt_nam_node_adap_info* all = table.copyNodeAdapInfo(VELT_NAM_ALL_NODES);
  velt_nam_net_info* nets = table.copyNetInfo();
  if (all == nullptr || nets == nullptr) abort();
  if (nets->num_networks != all->net_info->num_networks) abort();
  size_t records = 0;
  const velt_nam_connect* rec = all->adap_info;
  for (int n = 0; n < all->net_info->num_networks; ++n) {
    const velt_nam_connect_net_info& net = all->net_info->connect_info[n];
    uint32_t up = 0, down = 0;
    for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
      if (rec->status == VELT_NAM_CONNECT_UP) ++up;
      if (rec->status == VELT_NAM_CONNECT_DOWN) ++down;
    }
    if (net.num_connect == 0 || up != net.num_up || down != net.num_down) abort();
    if (nets->connect_info[n].num_connect != net.num_connect) abort();
    records += net.num_connect;
  }
  if (records != table.adapterCount() || all->mod_seq_num != table.modSeqNum()) abort();
  if (records > table.limits().maxAdapters ||
      static_cast<uint32_t>(all->net_info->num_networks) > table.limits().maxNetworks) {
    abort();
  }
  // One node's copy: the first record's node, where an int can name it.
  if (records > 0 && all->adap_info[0].node_number <= INT_MAX) {
    velt_nam_node_adap_info* one = table.copyNodeAdapInfo(static_cast<int>(all->adap_info[0].node_number));
    if (one == nullptr || one->num_entries == 0) abort();
    velt_nam_free_node_adap_info(one);
  }
  velt_nam_free_node_adap_info(all);
  velt_nam_free_net_info(nets);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte chooses how the rest arrives: in pieces of 1 to 256
  // bytes, or as much as the library asks for.
  size_t piece = data[0] == 0 ? SIZE_MAX : data[0];
  ++data;
  --size;
  AdapterTable table;
  DaemonStream stream(&table);
  std::string why;
  while (size > 0) {
    size_t n = stream.bytesWanted();
    if (n > piece) n = piece;
    if (n > size) n = size;
    int msgType = -1;
    int rc = stream.take(data, n, &msgType, &why);
    data += n;
    size -= n;
    if (rc == VELT_NAM_OK) {
      checkCopies(table);
    } else if (rc != VELT_NAM_NO_NEW_DATA) {
      if (why.empty()) abort();  // every refusal says why
      break;
    }
  }
  return 0;
}
