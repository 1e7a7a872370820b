// Thread utilities, strings, bit sets and membership lists of the group
// services client library.
#include "gs_utils.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "internal/gs_internal.h"

namespace velt_gscl_V1 {

namespace internal {

void gsFatal(const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  fprintf(stderr, "gscl: fatal: %s\n", text);
  fflush(stderr);
  abort();
}

}  // namespace internal

using internal::gsCheck;
using internal::gsFatal;

unsigned long GSThreadSelfId() {
  return static_cast<unsigned long>(syscall(SYS_gettid));
}

// ---- GSRWLock ----

GSRWLock::GSRWLock() { gsCheck(pthread_rwlock_init(&lock_, nullptr), "pthread_rwlock_init"); }
GSRWLock::~GSRWLock() { pthread_rwlock_destroy(&lock_); }
void GSRWLock::readLock() { gsCheck(pthread_rwlock_rdlock(&lock_), "pthread_rwlock_rdlock"); }
void GSRWLock::writeLock() { gsCheck(pthread_rwlock_wrlock(&lock_), "pthread_rwlock_wrlock"); }
void GSRWLock::unlock() { gsCheck(pthread_rwlock_unlock(&lock_), "pthread_rwlock_unlock"); }

// ---- GSLockableObject ----

namespace {

// The read holds the calling thread has on lockable objects (not counting
// holds taken under its own write lock). A thread seldom holds more than a
// few, so a short list searched linearly is enough.
struct ReadHold {
  const GSLockableObject* lock;
  int depth;
};
thread_local std::vector<ReadHold> tlsReadHolds;

ReadHold* findReadHold(const GSLockableObject* l) {
  for (ReadHold& h : tlsReadHolds) {
    if (h.lock == l) return &h;
  }
  return nullptr;
}

void dropReadHold(const GSLockableObject* l) {
  for (size_t i = 0; i < tlsReadHolds.size(); ++i) {
    if (tlsReadHolds[i].lock == l) {
      if (--tlsReadHolds[i].depth == 0) tlsReadHolds.erase(tlsReadHolds.begin() + i);
      return;
    }
  }
  gsFatal("GSLockableObject::unlock by a thread that holds no lock on %p",
          static_cast<const void*>(l));
}

}  // namespace

namespace {
// Where every GSLockableObject's write generation is taken from.
std::atomic<uint64_t> lastWriteGeneration{0};
uint64_t nextWriteGeneration() { return lastWriteGeneration.fetch_add(1, std::memory_order_relaxed) + 1; }
}  // namespace

GSLockableObject::GSLockableObject() : writeGeneration_(nextWriteGeneration()) {}

GSLockableObject::~GSLockableObject() = default;

void GSLockableObject::takeReadHold() {
  pthread_t self = pthread_self();
  velt::MutexLock lk(mu_);
  if (writeDepth_ > 0 && pthread_equal(writer_, self)) {
    // A read under our own write lock is one more nested hold of it.
    ++writeDepth_;
  } else if (ReadHold* h = findReadHold(this)) {
    // Already reading: waiting for a queued writer here would deadlock
    // (the writer waits for us), so a nested read is granted at once.
    ++h->depth;
    ++readers_;
  } else {
    while (writeDepth_ > 0 || waitingWriters_ > 0) cv_.wait(mu_);
    ++readers_;
    tlsReadHolds.push_back(ReadHold{this, 1});
  }
}

void GSLockableObject::takeWriteHold() {
  pthread_t self = pthread_self();
  velt::MutexLock lk(mu_);
  if (writeDepth_ > 0 && pthread_equal(writer_, self)) {
    ++writeDepth_;
    return;
  }
  if (findReadHold(this) != nullptr) {
    // We would wait for our own read hold to go away.
    lk.unlock();
    gsFatal("GSLockableObject::writeLock by a thread that holds a read lock on %p",
            static_cast<const void*>(this));
  }
  ++waitingWriters_;
  while (writeDepth_ > 0 || readers_ > 0) writersCv_.wait(mu_);
  --waitingWriters_;
  writer_ = self;
  writeDepth_ = 1;
}

void GSLockableObject::dropHold() {
  pthread_t self = pthread_self();
  velt::MutexLock lk(mu_);
  if (writeDepth_ > 0 && pthread_equal(writer_, self)) {
    if (--writeDepth_ == 0) {
      writeGeneration_.store(nextWriteGeneration(), std::memory_order_release);
      // Writers first: readers that queued behind a writer keep waiting
      // until no writer is left.
      if (waitingWriters_ > 0) {
        writersCv_.notifyOne();
      } else {
        cv_.notifyAll();
      }
    }
  } else {
    if (findReadHold(this) == nullptr) {
      lk.unlock();
      gsFatal("GSLockableObject::unlock by a thread that holds no lock on %p",
              static_cast<const void*>(this));
    }
    dropReadHold(this);
    if (--readers_ == 0 && waitingWriters_ > 0) writersCv_.notifyOne();
  }
}

bool GSLockableObject::isWriteLockedByMe() const {
  velt::MutexLock lk(mu_);
  return writeDepth_ > 0 && pthread_equal(writer_, pthread_self());
}

int GSLockableObject::waitingWritersForTesting() const {
  velt::MutexLock lk(mu_);
  return waitingWriters_;
}

// ---- GSString ----

int GSString::format(const char* fmt, ...) {
  char small[256];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(small, sizeof small, fmt, ap);
  va_end(ap);
  if (n < 0) {
    s_.clear();
    return -1;
  }
  if (static_cast<size_t>(n) < sizeof small) {
    s_.assign(small, static_cast<size_t>(n));
    return n;
  }
  // Longer than the first try: format again into a buffer of the exact size.
  std::string big(static_cast<size_t>(n) + 1, '\0');
  va_start(ap, fmt);
  vsnprintf(&big[0], big.size(), fmt, ap);
  va_end(ap);
  big.resize(static_cast<size_t>(n));
  s_.swap(big);
  return n;
}

// ---- GSBitSet ----

namespace {
constexpr size_t kWordBits = 64;
size_t wordsFor(size_t nbits) { return (nbits + kWordBits - 1) / kWordBits; }
}  // namespace

GSBitSet::GSBitSet(size_t nbits) : nbits_(nbits), words_(wordsFor(nbits), 0) {}

void GSBitSet::resize(size_t nbits) {
  words_.resize(wordsFor(nbits), 0);
  nbits_ = nbits;
  // Bits beyond the new size must read as clear should the set grow again.
  size_t tail = nbits % kWordBits;
  if (tail != 0) words_.back() &= (uint64_t{1} << tail) - 1;
}

void GSBitSet::set(size_t i) {
  if (i < nbits_) words_[i / kWordBits] |= uint64_t{1} << (i % kWordBits);
}

void GSBitSet::clear(size_t i) {
  if (i < nbits_) words_[i / kWordBits] &= ~(uint64_t{1} << (i % kWordBits));
}

bool GSBitSet::test(size_t i) const {
  return i < nbits_ && (words_[i / kWordBits] >> (i % kWordBits) & 1) != 0;
}

void GSBitSet::clearAll() { std::fill(words_.begin(), words_.end(), 0); }

size_t GSBitSet::count() const {
  size_t n = 0;
  for (uint64_t w : words_) n += static_cast<size_t>(__builtin_popcountll(w));
  return n;
}

long GSBitSet::nextSet(size_t from) const {
  if (from >= nbits_) return -1;
  size_t wi = from / kWordBits;
  uint64_t w = words_[wi] & (~uint64_t{0} << (from % kWordBits));
  while (true) {
    if (w != 0) {
      // resize() keeps the bits past nbits_ clear, so this index is in range.
      return static_cast<long>(wi * kWordBits + static_cast<size_t>(__builtin_ctzll(w)));
    }
    if (++wi == words_.size()) return -1;
    w = words_[wi];
  }
}

// ---- GSMembershipList ----

GSMembershipList::GSMembershipList(const tk_gs_membership_t& m) { assign(m); }

void GSMembershipList::assign(const tk_gs_membership_t& m) {
  // Copied first: m may be a view of this very list.
  std::vector<tk_gs_provider_t> from;
  if (m.gs_providers != nullptr) {   // a count without providers lists nobody
    from.assign(m.gs_providers, m.gs_providers + m.gs_count);
  }
  clear();
  for (const tk_gs_provider_t& p : from) add(p);
}

bool GSMembershipList::add(tk_gs_provider_t p) {
  if (!ids_.insert(p.gs_provider_id).second) return false;
  list_.push_back(p);
  return true;
}

bool GSMembershipList::remove(tk_gs_provider_t p) {
  long i = indexOf(p);
  if (i < 0) return false;
  list_.erase(list_.begin() + i);
  ids_.erase(p.gs_provider_id);
  return true;
}

bool GSMembershipList::contains(tk_gs_provider_t p) const {
  return ids_.count(p.gs_provider_id) != 0;
}

long GSMembershipList::indexOf(tk_gs_provider_t p) const {
  if (!contains(p)) return -1;
  for (size_t i = 0; i < list_.size(); ++i) {
    if (list_[i].gs_provider_id == p.gs_provider_id) return static_cast<long>(i);
  }
  return -1;
}

tk_gs_membership_t GSMembershipList::asMembership() {
  tk_gs_membership_t m;
  m.gs_count = count();
  m.gs_providers = list_.empty() ? nullptr : list_.data();
  return m;
}

}  // namespace velt_gscl_V1
