// Helpers shared by the group services client library's tests.
#ifndef VELT_TESTS_UNIT_GSCL_GSCL_TEST_UTIL_H_
#define VELT_TESTS_UNIT_GSCL_GSCL_TEST_UTIL_H_

#include <chrono>
#include <functional>
#include <thread>
#include <utility>

namespace gscl_test {

// Generous bound for a condition that should hold almost at once; only a
// broken implementation (or a badly overloaded machine) reaches it.
constexpr std::chrono::seconds kBound{5};

// Re-checks pred every millisecond until it holds or the bound passes.
// Returns whether it held.
inline bool waitUntil(const std::function<bool()>& pred,
                      std::chrono::milliseconds bound = kBound) {
  auto until = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs its function when the scope ends. Declared after a std::async
// future, it releases the future's blocked thread (quit, stop, ...) before
// the future's destructor waits for it, so that a failed assertion ends
// the test instead of hanging it.
class OnScopeExit {
 public:
  explicit OnScopeExit(std::function<void()> f) : f_(std::move(f)) {}
  ~OnScopeExit() { f_(); }
  OnScopeExit(const OnScopeExit&) = delete;
  OnScopeExit& operator=(const OnScopeExit&) = delete;
 private:
  std::function<void()> f_;
};

}  // namespace gscl_test

#endif  // VELT_TESTS_UNIT_GSCL_GSCL_TEST_UTIL_H_
