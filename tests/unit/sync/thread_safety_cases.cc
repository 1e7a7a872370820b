// Uses of our locks for the compile checks of CMakeLists.txt beside this
// file. Compiled as it is, everything here is correct and must compile
// under clang's thread-safety analysis; each macro below adds one misuse
// that the analysis must refuse.
#include "gs_utils.h"
#include "velt_mutex.h"

namespace thread_safety_cases {

struct Counter {
  velt::Mutex mu;
  velt::CondVar changed;
  int value GUARDED_BY(mu) = 0;
};

void bumpLocked(Counter& c) REQUIRES(c.mu) { ++c.value; }

int read(Counter& c) {
  velt::MutexLock lk(c.mu);
  return c.value;
}

void bump(Counter& c) {
  velt::MutexLock lk(c.mu);
  bumpLocked(c);
  c.changed.notifyAll();
}

void waitForValue(Counter& c, int wanted) {
  velt::MutexLock lk(c.mu);
  while (c.value < wanted) c.changed.wait(c.mu);
}

int readThenLetGo(Counter& c) {
  velt::MutexLock lk(c.mu);
  int v = c.value;
  lk.unlock();
  return v;
}

// A table under the group services' reader/writer lock.
class Table : public velt_gscl_V1::GSLockableObject {
 public:
  int rows GUARDED_BY(this) = 0;
};

int countRows(Table& t) {
  velt_gscl_V1::GSReadGuard hold(t);
  return t.rows;
}

void addRow(Table& t) {
  velt_gscl_V1::GSWriteGuard hold(t);
  ++t.rows;
}

#ifdef READ_WITHOUT_LOCK
int readWithoutLock(Counter& c) { return c.value; }
#endif

#ifdef CALL_WITHOUT_LOCK
void bumpWithoutLock(Counter& c) { bumpLocked(c); }
#endif

#ifdef READ_AFTER_UNLOCK
int readAfterUnlock(Counter& c) {
  velt::MutexLock lk(c.mu);
  lk.unlock();
  return c.value;
}
#endif

#ifdef WAIT_WITHOUT_LOCK
void waitWithoutLock(Counter& c) { c.changed.wait(c.mu); }
#endif

#ifdef WRITE_UNDER_READ_HOLD
void addRowUnderReadHold(Table& t) {
  velt_gscl_V1::GSReadGuard hold(t);
  ++t.rows;
}
#endif

}  // namespace thread_safety_cases
