// The attributes through which clang's -Wthread-safety checks our locking:
// which mutex guards a member, which locks a function expects or takes.
// Under compilers without the analysis (g++) they expand to nothing, so
// the code reads the same everywhere and only the clang build checks it.
#ifndef VELT_PLATFORM_SYNC_THREAD_ANNOTATIONS_H_
#define VELT_PLATFORM_SYNC_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define VELT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VELT_THREAD_ANNOTATION(x)
#endif

// A type whose objects are locks (kind names them in the warnings).
#define CAPABILITY(kind) VELT_THREAD_ANNOTATION(capability(kind))
// A type whose objects hold a lock for their lifetime.
#define SCOPED_CAPABILITY VELT_THREAD_ANNOTATION(scoped_lockable)

// A member read or written only with the lock held.
#define GUARDED_BY(lock) VELT_THREAD_ANNOTATION(guarded_by(lock))
// A pointer member whose pointee is read or written only with the lock held.
#define PT_GUARDED_BY(lock) VELT_THREAD_ANNOTATION(pt_guarded_by(lock))

// Lock order: this lock is taken before (after) the ones named.
#define ACQUIRED_BEFORE(...) VELT_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) VELT_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

// The caller holds the lock (exclusively, or at least shared) on entry, and
// still on return.
#define REQUIRES(...) VELT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) VELT_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))

// The function takes or gives back the lock (with no argument: the object
// it is called on).
#define ACQUIRE(...) VELT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) VELT_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) VELT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) VELT_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
// Gives back a hold, whether exclusive or shared.
#define RELEASE_GENERIC(...) VELT_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
// Takes the lock when it returns the first argument.
#define TRY_ACQUIRE(...) VELT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE_SHARED(...) VELT_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))

// The caller must not hold the lock: the function takes it itself.
#define EXCLUDES(...) VELT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// Tells the analysis that the lock is held from here on (the function
// checks it at run time or ends the process).
#define ASSERT_CAPABILITY(lock) VELT_THREAD_ANNOTATION(assert_capability(lock))
#define ASSERT_SHARED_CAPABILITY(lock) VELT_THREAD_ANNOTATION(assert_shared_capability(lock))

// The function returns (a reference to) this lock.
#define RETURN_CAPABILITY(lock) VELT_THREAD_ANNOTATION(lock_returned(lock))

// Turns the analysis off for one function. Only where the analysis cannot
// follow what the code does, with a comment that says why; never to hide a
// finding.
#define NO_THREAD_SAFETY_ANALYSIS VELT_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // VELT_PLATFORM_SYNC_THREAD_ANNOTATIONS_H_
