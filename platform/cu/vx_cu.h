// libvx_cu: the cluster utilities every daemon and tool of the platform uses:
// clocks (replaceable by tests), locale preparation, error texts, process
// names, version comparison and the check of private directories.
// Thread-safe unless a function says otherwise.
#ifndef VELT_PLATFORM_CU_VX_CU_H_
#define VELT_PLATFORM_CU_VX_CU_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

// Wall clock (time of day). Returns 0, or -1 with errno set.
int cu_gettimeofday_1(struct timeval* tv);

// Monotonic clock, never set back. Returns 0, or -1 with errno set.
int cu_get_monotonic_time(struct timespec* ts);

// The one form of a time stamp in velt's logs and tools' output: ISO 8601 in
// UTC with microseconds, "2026-11-24T03:17:12.123456Z" (27 characters and
// the terminator; len must hold 28). Returns buf.
char* cu_format_timestamp(const struct timespec* t, char* buf, size_t len);
// The same for the wall clock now (cu_gettimeofday_1).
char* cu_timestamp_now(char* buf, size_t len);

// Monotonic clock in milliseconds, for timeouts and rate limits.
int64_t cu_monotonic_ms(void);

// Test hook: replaces both clocks for the whole process (every later call of
// the three clock functions above goes to the replacement). A null function
// restores the real clock of that kind. Not for production code.
typedef int (*cu_wall_clock_fn)(struct timeval* tv);
typedef int (*cu_mono_clock_fn)(struct timespec* ts);
void cu_set_clocks_ForTesting(cu_wall_clock_fn wall, cu_mono_clock_fn mono);

// Prepares the process locale for the platform's libraries (LC_ALL from the
// environment, falling back to "C" when that locale is not installed).
// Returns 0 on success, -1 when even the fallback failed. Like setlocale, it
// must run before the process starts threads.
int cu_prepare_locale_1(void);

// Error texts: the text of an errno value, written into buf and cut to fit
// (thread-safe counterpart of strerror; unknown values give "Unknown error
// N"). Returns buf, or "" when buf is null or len is 0.
const char* cu_strerror(int err, char* buf, size_t len);

// The last error of a cluster utilities or platform API call on this thread.
// cu_set_error records one (the text is cut to 511 bytes); cu_get_error
// returns its number (0 = none) and cu_get_errmsg its text (never null; valid
// until the next cu_set_error on the same thread). Successful calls leave the
// record alone, as errno does; cu_set_error(0, "") clears it.
void cu_set_error(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int cu_get_error(void);
const char* cu_get_errmsg(void);

// Process name of pid (the command name from /proc/PID/comm, newline
// stripped, cut to len - 1 bytes) into buf. Returns 0, or -1 when the
// process does not exist or cannot be read, or buf has no room (buf then
// holds "" when len > 0); the failure is recorded with cu_set_error.
int cu_get_proc_name(pid_t pid, char* buf, size_t len);

// Compares two versions given as four numbers each (version, release,
// modification, fix), most significant first. Returns a negative number, 0
// or a positive number as a is older than, equal to or newer than b (a null
// array counts as 0.0.0.0).
int cu_cmp_velt_versions(const uint8_t a[4], const uint8_t b[4]);

// Parses "V.R.M.F" (1 to 4 dot-separated numbers 0..255; missing parts are
// 0) into out. Returns 0, or -1 for malformed text (out untouched; the
// failure is recorded with cu_set_error as EINVAL).
int cu_parse_velt_version(const char* text, uint8_t out[4]);

// Checks that dir is a directory nobody but root and owner can change:
// dir itself (looked at with lstat, so a symbolic link is refused) must be
// a directory owned by root or by owner and not writable by group or
// others. Returns 0, or -1 with the reason (naming dir) in why (cut to
// len; may be null) and errno set (ELOOP: symbolic link, ENOTDIR, EPERM:
// owner or mode, or lstat's error).
int cu_check_private_dir(const char* dir, uid_t owner, char* why, size_t len);

// Stops the calling process until a debugger attaches and sends SIGCONT:
// prints the pid and the way to continue on standard error, then stops.
void dae_pause_for_debugger(void);

#endif  // VELT_PLATFORM_CU_VX_CU_H_
