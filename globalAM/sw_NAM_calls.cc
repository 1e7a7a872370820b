#include "sw_NAM_calls.h"

#include "common.h"
#include "ha_assert.h"
#include "vx_cu.h"

int compareVELTVersions(uint32_t a, uint32_t b, int /*flag*/) {
  const uint8_t va[4] = {static_cast<uint8_t>(a >> 24), static_cast<uint8_t>(a >> 16),
                         static_cast<uint8_t>(a >> 8), static_cast<uint8_t>(a)};
  const uint8_t vb[4] = {static_cast<uint8_t>(b >> 24), static_cast<uint8_t>(b >> 16),
                         static_cast<uint8_t>(b >> 8), static_cast<uint8_t>(b)};
  return cu_cmp_velt_versions(va, vb);
}

bool isVELTNAMInterfaceSupported() {
  if (compareVELTVersions(veltActiveVersion.quick_version, 0x02040500, 0) >= 0) return true;
  AMtracef(0x10000000, "in accumulate_VELTNAM_table_change(), VELT-NAM interface is not supported.\n");
  return false;
}
