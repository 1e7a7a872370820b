/* The runtime options of a sanitizer build (VELT_SANITIZE), linked into
 * each of its executables. Every report ends the process: ASan's and UBSan's
 * at once (abort, so that a parent sees a signal, not a status it may
 * ignore), leaks at exit, ThreadSanitizer's at the first race. The
 * suppression files beside this one hold third-party code only. The
 * sanitizer runtimes call these functions before main(); options in the
 * environment (ASAN_OPTIONS, ...) are applied after them. */

#define VELT_SANITIZER_DEFAULTS __attribute__((visibility("default"), used))

#if defined(VELT_SANITIZER_ADDRESS)
VELT_SANITIZER_DEFAULTS const char* __asan_default_options(void) {
  return "detect_leaks=1:abort_on_error=1:halt_on_error=1:detect_stack_use_after_return=1"
         ":check_initialization_order=1:strict_init_order=1:strict_string_checks=1";
}

VELT_SANITIZER_DEFAULTS const char* __lsan_default_options(void) {
  return "suppressions=" VELT_SANITIZER_DIR "/lsan.supp:print_suppressions=0";
}

VELT_SANITIZER_DEFAULTS const char* __ubsan_default_options(void) {
  return "print_stacktrace=1:halt_on_error=1:abort_on_error=1";
}
#endif

#if defined(VELT_SANITIZER_THREAD)
/* tolkvaskd ends on SIGTERM inside the handler, on whichever thread the
 * signal interrupts: SIGTERM is never blocked, so that a stop gets through
 * whatever a thread is doing, and the exit it runs traces and locks there on
 * purpose. For that program alone (VELT_SIGNAL_HANDLER_EXITS) ThreadSanitizer
 * does not report the calls such a handler makes; its races still count. */
#if defined(VELT_SIGNAL_HANDLER_EXITS)
#define VELT_TSAN_SIGNAL_OPTIONS ":report_signal_unsafe=0"
#else
#define VELT_TSAN_SIGNAL_OPTIONS ""
#endif
VELT_SANITIZER_DEFAULTS const char* __tsan_default_options(void) {
  return "halt_on_error=1:abort_on_error=1:second_deadlock_stack=1"
         ":suppressions=" VELT_SANITIZER_DIR "/tsan.supp:print_suppressions=0" VELT_TSAN_SIGNAL_OPTIONS;
}
#endif
