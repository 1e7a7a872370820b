// Whether the test runs in a sanitizer build (VELT_SANITIZE). There a
// process's resident memory says nothing about ours (shadow memory, freed
// blocks held back to catch late uses), and CPU-bound code runs tens of
// times slower, so the few tests that measure memory or loop for long
// scale what they do by it; the ordinary build runs them in full.
#ifndef VELT_TESTS_SANITIZERS_SANITIZED_H_
#define VELT_TESTS_SANITIZERS_SANITIZED_H_

namespace velt_test {

#if defined(VELT_SANITIZER_ADDRESS) || defined(VELT_SANITIZER_THREAD)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace velt_test

#endif  // VELT_TESTS_SANITIZERS_SANITIZED_H_
