// Configuration identity and the small helpers that the propagation and
// membership code share: the rate limiter, the monotonic clock wrappers,
// number/hexadecimal text conversions, membership counting and the trace
// output of ids, memberships, state values and adapter rows.
#ifndef VELT_GLOBALAM_AMUTILS_H_
#define VELT_GLOBALAM_AMUTILS_H_

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <string>

#include "TraceStream.h"
#include "common.h"

class AMAdapterItem;

// The configuration identity as it travels in the configuration group's
// state value: three 32-bit words in the host's byte order. Older nodes
// wrote only the first word, or the first two. Thread-compatible (a value).
struct AMCfgInfoStateValue {
  uint32_t CfgId1;
  int32_t version;
  uint32_t CfgId2;
};
static_assert(sizeof(AMCfgInfoStateValue) == 12, "the state value is three words");

// The identity of the aggregate configuration that every node must share:
// a configuration id, a second id that counts only from format version 2 on,
// and the record's format version. Thread-safe: every field is read under
// the object's read lock and written under its write lock.
class AMCfgInfo : public GSLockableObject {
 public:
  static constexpr uint32_t kErasedCfgId1 = 0xFFFFFFFFu;
  static constexpr uint32_t kErasedCfgId2 = 0;
  static constexpr int32_t kErasedFmtVersion = 1;
  static constexpr int kStateValueLength = 12;

  AMCfgInfo();
  // Copies through copyFrom, so the source is read under its lock.
  AMCfgInfo(const AMCfgInfo& other);
  AMCfgInfo& operator=(const AMCfgInfo&) = delete;
  ~AMCfgInfo() override;

  void erase();
  // "%u:%u" of both ids from format version 2 on, otherwise "%u" of the
  // first id.
  std::string getCfgIdStr() const;
  // Set the first (second) id from text read by cvHexStrToLong; the format
  // version is left alone. Always true.
  bool setCfgIdStr(const char* text);
  bool setCfgId2Str(const char* text);

  // The two locks are never held together, so threads copying in opposite
  // directions cannot deadlock. Always true.
  bool copyFrom(AMCfgInfo& other);
  // Compares the first ids, and the second ids too when both records are
  // at format version 2 or later.
  bool isSame(AMCfgInfo& other);

  // Reads a state value written by any node. True only when more than the
  // bare id was read: a 4-byte value sets the id and still answers false.
  bool obtain_from_state_value(const tk_gs_state_value_t* sv);
  // Fills sv with a new 12-byte buffer (also returned in buffer) that the
  // caller frees with delete[] once the state value has been used. False,
  // with buffer null, when sv is null.
  bool construct_state_value(tk_gs_state_value_t* sv, char*& buffer);

  uint32_t getCfgId1() const;
  uint32_t getCfgId2() const;
  int32_t getFmtVersion() const;

 private:
  // The read/write lock is not part of the record's value, so const readers
  // may take it.
  GSLockableObject& lockable() const { return const_cast<AMCfgInfo&>(*this); }

  uint32_t CfgId1;  // GUARDED_BY(this)
  uint32_t CfgId2;  // GUARDED_BY(this)
  // Written under the write lock; atomic because isSame reads this
  // object's version before it takes the lock.
  std::atomic<int32_t> fmtversion;
};

// A rate limiter on the monotonic clock: hit() succeeds at once, then at
// most once per interval; an interval of 0 lets every call through.
// One thread hits; any thread may reset (group services callbacks on the
// dispatch thread reset what the mediator thread hits), so the times are
// atomic. A reset that meets a hit is taken by that hit.
class AMIntervalHitter {
 public:
  explicit AMIntervalHitter(int interval) : _interval(interval), _start(0) {}
  void interval(int seconds) { _interval.store(seconds); }
  // The next hit() succeeds at once.
  void reset() { _start.store(0); }
  bool hit();
  // Seconds until hit() would succeed; 0 when it would now or never hit.
  int remaining_secs_to_hit();

 private:
  std::atomic<time_t> _interval;
  std::atomic<time_t> _start;  // monotonic seconds of the last hit; 0 before the first
};

// The monotonic clock as a timeval; returns the clock's result.
int MONO_GETTIMEOFDAY(struct timeval* tv);
// The same, with the microseconds rounded down to 0 or 500000, so that
// times compare in half-second steps.
int MONO_GETTIMEOFDAY_IN_HALFSECS(struct timeval* tv);

// "0x"/"0X" followed by hexadecimal digits is read as hexadecimal; any
// other text is read as decimal. Null or unparsable text gives 0.
long cvHexStrToLong(const char* text);
// Write "0x%lx" ("0x%llx") into out, which holds at least
// kHexStrBufferLength bytes; return out.
constexpr int kHexStrBufferLength = 19;
char* cvLongToHexStr(long value, char* out);
char* cvLongLongToHexStr(long long value, char* out);

// How many members of the list sit on the given node.
int numberOfproviders_on_node(const GSMembershipList& members, int node);
// How many distinct nodes the list's members sit on.
int numberOfNodes_in_group(const GSMembershipList& members);
// "[instance/node]" when have_bracket is non-zero, otherwise
// "instance/node".
std::string gscl_providerId_name(const tk_gs_provider_t& provider, int have_bracket);

// The attributes of every group the daemon provides to: one phase, approve
// by default, both batched, dissolved on a merge, no time limits, this
// client version; sourceGroupName may be null. The texts are not copied.
tk_gs_group_attributes_t daemonGroupAttributes(const char* groupName, const char* sourceGroupName);

// Trace output: the id text; "(N=<count>):" and each member bracketed; "[L=
// <length>,S=0x<bytes>]" (nothing for null); "[Node n][a.b.c.d][name]".
TraceStream& operator<<(TraceStream& ts, const AMCfgInfo& info);
TraceStream& operator<<(TraceStream& ts, const tk_gs_membership_t* members);
TraceStream& operator<<(TraceStream& ts, const tk_gs_state_value_t* sv);
TraceStream& operator<<(TraceStream& ts, const AMAdapterItem& item);

#endif  // VELT_GLOBALAM_AMUTILS_H_
