// Small thread utilities of the group services client library that the
// daemon builds on: a base object, reader/writer locks, a thread-safe
// integer, a scoped heap buffer, strings, bit sets and membership lists.
#ifndef VELT_PLATFORM_GSCL_GS_UTILS_H_
#define VELT_PLATFORM_GSCL_GS_UTILS_H_

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <string>
#include <unordered_set>
#include <vector>

#include "gs_types.h"
#include "velt_mutex.h"

namespace velt_gscl_V1 {

// Root of the library's object hierarchy (markets carry GSObject*). Holds
// no state; what derives from it says who may use it.
class GSObject {
 public:
  GSObject() = default;
  virtual ~GSObject() = default;
};

// Kernel thread id of the calling thread (what traces show as [T=...]).
unsigned long GSThreadSelfId();

// Plain reader/writer lock. Thread-safe.
class CAPABILITY("mutex") GSRWLock {
 public:
  GSRWLock();
  ~GSRWLock();
  GSRWLock(const GSRWLock&) = delete;
  GSRWLock& operator=(const GSRWLock&) = delete;
  void readLock() ACQUIRE_SHARED();
  void writeLock() ACQUIRE();
  void unlock() RELEASE_GENERIC();
 private:
  pthread_rwlock_t lock_;
};

// Reader/writer lock whose write holder may take the write lock again (and
// may also take the read lock); each lock call is matched by one unlock.
// A waiting writer holds back new readers so that a steady stream of
// readers cannot starve it; a thread that already holds a read hold may
// take another one even then, so nested reads never deadlock. Asking for
// the write lock while holding only a read hold would deadlock and ends
// the process instead. Holds belong to the thread that took them (unlock
// on the same thread). Thread-safe.
//
// To clang's analysis it is a lock of its own: members of a derived class
// may be GUARDED_BY(this), readable under a read hold and writable under a
// write hold. The analysis does not know that holds nest: to it, a second
// hold taken in the function that holds the lock is a deadlock.
class CAPABILITY("mutex") GSLockableObject {
 public:
  GSLockableObject();
  virtual ~GSLockableObject();
  GSLockableObject(const GSLockableObject&) = delete;
  GSLockableObject& operator=(const GSLockableObject&) = delete;
  void readLock() ACQUIRE_SHARED() { takeReadHold(); }
  void writeLock() ACQUIRE() { takeWriteHold(); }
  // Releases the caller's innermost hold.
  void unlock() RELEASE_GENERIC() { dropHold(); }
  bool isWriteLockedByMe() const EXCLUDES(mu_);
  // Changes each time the outermost write hold ends, to a number no other
  // object and no earlier state of this one had in this process. It stands
  // still while any read hold lasts, so a reader can tell whether the
  // object was written since it last looked.
  uint64_t writeGeneration() const { return writeGeneration_.load(std::memory_order_acquire); }
  // Writers blocked in writeLock(), so that tests can wait for that state.
  int waitingWritersForTesting() const EXCLUDES(mu_);
 private:
  // The work of the three calls above. clang leaves the lock functions of
  // a capability unchecked, so their bodies are here, where it checks the
  // use of mu_.
  void takeReadHold() EXCLUDES(mu_);
  void takeWriteHold() EXCLUDES(mu_);
  void dropHold() EXCLUDES(mu_);

  mutable velt::Mutex mu_;
  velt::CondVar cv_;          // readers wait here
  velt::CondVar writersCv_;   // writers wait here
  int readers_ GUARDED_BY(mu_) = 0;      // read holds of threads that do not write
  int writeDepth_ GUARDED_BY(mu_) = 0;   // nested write (and read-under-write) holds
  pthread_t writer_ GUARDED_BY(mu_){};
  int waitingWriters_ GUARDED_BY(mu_) = 0;
  std::atomic<uint64_t> writeGeneration_;
};

// Scoped read or write hold on a GSLockableObject. Owned by the thread that
// made it (the hold is that thread's).
class SCOPED_CAPABILITY GSReadGuard {
 public:
  explicit GSReadGuard(GSLockableObject& l) ACQUIRE_SHARED(l) : l_(l) { l_.readLock(); }
  ~GSReadGuard() RELEASE() { l_.unlock(); }
  GSReadGuard(const GSReadGuard&) = delete;
  GSReadGuard& operator=(const GSReadGuard&) = delete;
 private:
  GSLockableObject& l_;
};
class SCOPED_CAPABILITY GSWriteGuard {
 public:
  explicit GSWriteGuard(GSLockableObject& l) ACQUIRE(l) : l_(l) { l_.writeLock(); }
  ~GSWriteGuard() RELEASE() { l_.unlock(); }
  GSWriteGuard(const GSWriteGuard&) = delete;
  GSWriteGuard& operator=(const GSWriteGuard&) = delete;
 private:
  GSLockableObject& l_;
};

// Thread-safe number.
template <typename T>
class GSSafeNumber {
 public:
  explicit GSSafeNumber(T v = T()) : v_(v) {}
  T get() const { return v_.load(); }
  void set(T v) { v_.store(v); }
  T add(T d) { return v_.fetch_add(d) + d; }   // returns the new value
  T inc() { return add(1); }
  T dec() { return add(static_cast<T>(-1)); }
  operator T() const { return get(); }
  GSSafeNumber& operator=(T v) { set(v); return *this; }
 private:
  std::atomic<T> v_;
};
using GSSafeInteger = GSSafeNumber<int>;

// Scoped heap buffer of n elements, zero-filled; freed when it goes out of
// scope. Thread-compatible.
template <typename T>
class GSLocalVar {
 public:
  explicit GSLocalVar(size_t n) : buf_(n) {}
  T* ptr() { return buf_.empty() ? nullptr : buf_.data(); }
  operator T*() { return ptr(); }
  size_t count() const { return buf_.size(); }
 private:
  std::vector<T> buf_;
};

// Owned text. Thread-compatible.
class GSString {
 public:
  GSString() = default;
  GSString(const char* s) : s_(s ? s : "") {}  // NOLINT: implicit by design
  GSString& operator=(const char* s) { s_ = s ? s : ""; return *this; }
  const char* c_str() const { return s_.c_str(); }
  operator const char*() const { return c_str(); }
  size_t length() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  bool operator==(const char* o) const { return s_ == (o ? o : ""); }
  bool operator!=(const char* o) const { return !(*this == o); }
  bool operator==(const GSString& o) const { return s_ == o.s_; }
  void append(const char* s) { if (s) s_ += s; }
  int format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));  // replaces the text
 private:
  std::string s_;
};

// Fixed-size set of bits, indexed 0..size-1; out-of-range indexes are
// ignored by set/clear and read as clear. Thread-compatible.
class GSBitSet {
 public:
  explicit GSBitSet(size_t nbits = 0);
  size_t size() const { return nbits_; }
  void resize(size_t nbits);   // keeps the bits that still fit
  void set(size_t i);
  void clear(size_t i);
  bool test(size_t i) const;
  void clearAll();
  size_t count() const;
  // Lowest set index at or after from, or -1 when none.
  long nextSet(size_t from) const;
 private:
  size_t nbits_;
  std::vector<uint64_t> words_;
};

// A list of providers in order, without duplicates. Thread-compatible.
class GSMembershipList {
 public:
  GSMembershipList() = default;
  explicit GSMembershipList(const tk_gs_membership_t& m);
  void assign(const tk_gs_membership_t& m);
  bool add(tk_gs_provider_t p);          // false when already present
  bool remove(tk_gs_provider_t p);       // false when absent
  bool contains(tk_gs_provider_t p) const;
  long indexOf(tk_gs_provider_t p) const;  // -1 when absent
  unsigned int count() const { return static_cast<unsigned int>(list_.size()); }
  const tk_gs_provider_t& operator[](size_t i) const { return list_[i]; }
  void clear() { list_.clear(); ids_.clear(); }
  // A view of the list as the API's membership type; valid until the list
  // changes.
  tk_gs_membership_t asMembership();
 private:
  std::vector<tk_gs_provider_t> list_;
  // The provider ids of list_, so that filling a large group (one provider
  // per adapter of every node) does not cost a scan per member.
  std::unordered_set<uint32_t> ids_;
};

inline tk_gs_provider_t gsMakeProvider(uint16_t node, uint16_t instance) {
  tk_gs_provider_t p;
  p.gs_provider_fields.gs_instance_number = instance;
  p.gs_provider_fields.gs_node_number = node;
  return p;
}

}  // namespace velt_gscl_V1

namespace velt_gscl_V2 = velt_gscl_V1;
namespace velt_gscl_V3 = velt_gscl_V1;

#endif  // VELT_PLATFORM_GSCL_GS_UTILS_H_
