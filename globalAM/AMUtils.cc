#include "AMUtils.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <new>

#include "AMNetIf.h"
#include "ha_assert.h"
#include "vx_cu.h"

namespace {

time_t monotonicSeconds() {
  struct timespec ts = {0, 0};
  cu_get_monotonic_time(&ts);
  return ts.tv_sec;
}

// Node numbers are 16 bits, so one bit per possible node.
constexpr size_t kNodeNumberSpace = 1u << 16;

}  // namespace

// ---------------------------------------------------------------------------
// AMCfgInfo

AMCfgInfo::AMCfgInfo() : CfgId1(kErasedCfgId1), CfgId2(kErasedCfgId2), fmtversion(kErasedFmtVersion) {
  erase();
}

AMCfgInfo::AMCfgInfo(const AMCfgInfo& other)
    : GSLockableObject(), CfgId1(kErasedCfgId1), CfgId2(kErasedCfgId2), fmtversion(kErasedFmtVersion) {
  copyFrom(const_cast<AMCfgInfo&>(other));
}

AMCfgInfo::~AMCfgInfo() = default;

void AMCfgInfo::erase() {
  GSWriteGuard hold(*this);
  CfgId1 = kErasedCfgId1;
  CfgId2 = kErasedCfgId2;
  fmtversion.store(kErasedFmtVersion, std::memory_order_relaxed);
}

std::string AMCfgInfo::getCfgIdStr() const {
  uint32_t id1, id2;
  int32_t version;
  {
    GSReadGuard hold(lockable());
    id1 = CfgId1;
    id2 = CfgId2;
    version = fmtversion.load(std::memory_order_relaxed);
  }
  char text[32];
  if (version > 1) {
    snprintf(text, sizeof text, "%u:%u", id1, id2);
  } else {
    snprintf(text, sizeof text, "%u", id1);
  }
  return text;
}

bool AMCfgInfo::setCfgIdStr(const char* text) {
  uint32_t id;
  {
    GSWriteGuard hold(*this);
    CfgId1 = static_cast<uint32_t>(cvHexStrToLong(text));
    id = CfgId1;
  }
  AMtracef(AM_TRACEF_GSCL, "AMCfgInfo::setCfg(%s) --> %u[0x%x]\n", text ? text : "(null)", id, id);
  return true;
}

bool AMCfgInfo::setCfgId2Str(const char* text) {
  uint32_t id;
  {
    GSWriteGuard hold(*this);
    CfgId2 = static_cast<uint32_t>(cvHexStrToLong(text));
    id = CfgId2;
  }
  AMtracef(AM_TRACEF_GSCL, "AMCfgInfo::setCfg(%s) --> %u[0x%x]\n", text ? text : "(null)", id, id);
  return true;
}

bool AMCfgInfo::copyFrom(AMCfgInfo& other) {
  if (&other == this) return true;
  uint32_t id1, id2;
  int32_t version;
  {
    GSReadGuard hold(other);
    id1 = other.CfgId1;
    id2 = other.CfgId2;
    version = other.fmtversion.load(std::memory_order_relaxed);
  }
  GSWriteGuard hold(*this);
  CfgId1 = id1;
  CfgId2 = id2;
  fmtversion.store(version, std::memory_order_relaxed);
  return true;
}

bool AMCfgInfo::isSame(AMCfgInfo& other) {
  if (&other == this) return true;
  // This object's version is read before its lock is taken, as it always
  // was; the atomic keeps that read well defined.
  const int32_t myVersion = fmtversion.load(std::memory_order_relaxed);
  uint32_t otherId1, otherId2;
  int32_t otherVersion;
  {
    GSReadGuard hold(other);
    otherId1 = other.CfgId1;
    otherId2 = other.CfgId2;
    otherVersion = other.fmtversion.load(std::memory_order_relaxed);
  }
  const int32_t v = std::min(myVersion, otherVersion);
  GSReadGuard hold(*this);
  if (CfgId1 != otherId1) return false;
  return v > 1 ? CfgId2 == otherId2 : true;
}

bool AMCfgInfo::obtain_from_state_value(const tk_gs_state_value_t* sv) {
  if (sv == nullptr) return false;
  const long length = static_cast<long>(sv->gs_length);
  if (length < 4 || sv->gs_state == nullptr) return false;

  // Only the bytes the sender wrote are read: a 5- to 7-byte value from an
  // old node leaves the rest of its version word zero.
  AMCfgInfoStateValue words = {0, 0, 0};
  memcpy(&words, static_cast<const void*>(sv->gs_state),
         static_cast<size_t>(std::min<long>(length, sizeof words)));

  GSWriteGuard hold(*this);
  CfgId1 = words.CfgId1;
  if (length == 4) {
    // The id alone: callers take false to mean the full record was not read.
    fmtversion.store(0, std::memory_order_relaxed);
    return false;
  }
  fmtversion.store(words.version, std::memory_order_relaxed);
  CfgId2 = static_cast<unsigned long>(length) > 8 ? words.CfgId2 : 0;
  return true;
}

bool AMCfgInfo::construct_state_value(tk_gs_state_value_t* sv, char*& buffer) {
  buffer = nullptr;
  if (sv == nullptr) return false;
  char* bufarea = new (std::nothrow) char[kStateValueLength];
  if (bufarea == nullptr) {
    AM_TRACE(TRACE_ERROR) << "Memory allocation failed" << endl;
    HA_ASSERT(bufarea != 0);
  }
  memset(bufarea, 0, kStateValueLength);
  {
    GSReadGuard hold(*this);
    AMCfgInfoStateValue words;
    words.CfgId1 = CfgId1;
    words.version = fmtversion.load(std::memory_order_relaxed);
    words.CfgId2 = CfgId2;
    memcpy(bufarea, &words, sizeof words);
    sv->gs_length = kStateValueLength;
    sv->gs_state = bufarea;
  }
  buffer = bufarea;
  return true;
}

uint32_t AMCfgInfo::getCfgId1() const {
  GSReadGuard hold(lockable());
  return CfgId1;
}

uint32_t AMCfgInfo::getCfgId2() const {
  GSReadGuard hold(lockable());
  return CfgId2;
}

int32_t AMCfgInfo::getFmtVersion() const {
  GSReadGuard hold(lockable());
  return fmtversion.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------
// AMIntervalHitter

bool AMIntervalHitter::hit() {
  const time_t interval = _interval.load();
  if (interval == 0) {
    AMtracef(AM_TRACEF_DEBUG, "AMIntervalHitter::hit always ok (interval=0)\n");
    return true;
  }
  time_t now = monotonicSeconds();
  const time_t start = _start.load();
  if (start != 0 && now < start + interval) return false;
  AMtracef(AM_TRACEF_DEBUG, start == 0 ? "AMIntervalHitter::hit1 at %d\n" : "AMIntervalHitter::hit2 at %d\n",
           static_cast<int>(now));
  _start.store(now);
  return true;
}

int AMIntervalHitter::remaining_secs_to_hit() {
  const time_t interval = _interval.load();
  const time_t start = _start.load();
  if (interval == 0 || start == 0) return 0;
  time_t left = interval - (monotonicSeconds() - start);
  return left > 0 ? static_cast<int>(left) : 0;
}

// ---------------------------------------------------------------------------
// Clocks

int MONO_GETTIMEOFDAY(struct timeval* tv) {
  struct timespec ts = {0, 0};
  int rc = cu_get_monotonic_time(&ts);
  tv->tv_sec = ts.tv_sec;
  tv->tv_usec = ts.tv_nsec / 1000;
  return rc;
}

int MONO_GETTIMEOFDAY_IN_HALFSECS(struct timeval* tv) {
  int rc = MONO_GETTIMEOFDAY(tv);
  tv->tv_usec = tv->tv_usec >= 500000 ? 500000 : 0;
  return rc;
}

// ---------------------------------------------------------------------------
// Text conversions

long cvHexStrToLong(const char* text) {
  if (text == nullptr) return 0;
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    unsigned long value = 0;
    if (sscanf(text + 2, "%lx", &value) != 1) return 0;
    return static_cast<long>(value);
  }
  // Decimal, whatever the name says: ids were always written this way
  // unless they carry the prefix.
  long value = 0;
  if (sscanf(text, "%ld", &value) != 1) return 0;
  return value;
}

char* cvLongToHexStr(long value, char* out) {
  snprintf(out, kHexStrBufferLength, "0x%lx", static_cast<unsigned long>(value));
  return out;
}

char* cvLongLongToHexStr(long long value, char* out) {
  snprintf(out, kHexStrBufferLength, "0x%llx", static_cast<unsigned long long>(value));
  return out;
}

// ---------------------------------------------------------------------------
// Membership helpers

int numberOfproviders_on_node(const GSMembershipList& members, int node) {
  int n = 0;
  for (unsigned i = 0; i < members.count(); ++i) {
    if (members[i].gs_provider_fields.gs_node_number == node) ++n;
  }
  return n;
}

int numberOfNodes_in_group(const GSMembershipList& members) {
  GSBitSet nodes(kNodeNumberSpace);
  for (unsigned i = 0; i < members.count(); ++i) nodes.set(members[i].gs_provider_fields.gs_node_number);
  return static_cast<int>(nodes.count());
}

std::string gscl_providerId_name(const tk_gs_provider_t& provider, int have_bracket) {
  char text[32];
  snprintf(text, sizeof text, have_bracket ? "[%d/%d]" : "%d/%d",
           static_cast<int>(provider.gs_provider_fields.gs_instance_number),
           static_cast<int>(provider.gs_provider_fields.gs_node_number));
  return text;
}

// ---------------------------------------------------------------------------
// Trace output

TraceStream& operator<<(TraceStream& ts, const AMCfgInfo& info) { return ts << info.getCfgIdStr(); }

TraceStream& operator<<(TraceStream& ts, const tk_gs_membership_t* members) {
  const unsigned count = members ? members->gs_count : 0;
  std::string text = "(N=" + std::to_string(count) + "):";
  if (members != nullptr && members->gs_providers != nullptr) {
    for (unsigned i = 0; i < count; ++i) text += gscl_providerId_name(members->gs_providers[i], 1);
  }
  return ts << text;
}

TraceStream& operator<<(TraceStream& ts, const tk_gs_state_value_t* sv) {
  if (sv == nullptr) return ts;
  const long length = static_cast<long>(sv->gs_length);
  std::string text = "[L=" + std::to_string(length) + ",S=0x";
  if (sv->gs_state != nullptr) {
    const unsigned char* bytes = static_cast<const unsigned char*>(static_cast<const void*>(sv->gs_state));
    char hex[3];
    for (long i = 0; i < length; ++i) {
      snprintf(hex, sizeof hex, "%02x", bytes[i]);
      text += hex;
    }
  }
  text += "]";
  return ts << text;
}

TraceStream& operator<<(TraceStream& ts, const AMAdapterItem& item) {
  char ip[INET_ADDRSTRLEN] = "";
  struct in_addr addr;
  addr.s_addr = item.ipaddr;
  inet_ntop(AF_INET, &addr, ip, sizeof ip);
  char name[sizeof item.interfacename + 1];
  memcpy(name, item.interfacename, sizeof item.interfacename);
  name[sizeof item.interfacename] = '\0';
  return ts << "[Node " << item.nodenumber << "][" << ip << "][" << name << "]";
}

tk_gs_group_attributes_t daemonGroupAttributes(const char* groupName, const char* sourceGroupName) {
  tk_gs_group_attributes_t attr;
  memset(&attr, 0, sizeof attr);
  attr.gs_version = 2;
  attr.gs_sizeof_group_attributes = 44;
  attr.gs_client_version = 2259;
  attr.gs_batch_control = TK_GS_BATCH_BOTH;
  attr.gs_num_phases = TK_GS_1_PHASE;
  attr.gs_source_reflection_num_phases = TK_GS_1_PHASE;
  attr.gs_group_default_vote = TK_GS_VOTE_APPROVE;
  attr.gs_merge_control = TK_GS_DISSOLVE_MERGE;
  attr.gs_time_limit = 0;
  attr.gs_source_reflection_time_limit = 0;
  attr.gs_group_name = groupName;
  attr.gs_source_group_name = sourceGroupName;
  return attr;
}
