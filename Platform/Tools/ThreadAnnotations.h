#pragma once

// Clang's thread-safety attributes: what a mutex guards, which locks a
// function needs or takes, and the order in which locks nest, checked at
// compile time by -Wthread-safety. Other compilers see nothing.
//
// Use them through the wrappers of this folder (Mutex, SharedMutex,
// MutexLock, ReaderLock, WriterLock): the standard mutexes carry no
// attributes, so the analysis cannot follow them.

// Abseil's internal thread_annotations.h (reached through gRPC's headers)
// defines five of these names, GUARDED_BY, PT_GUARDED_BY, ACQUIRED_BEFORE,
// ACQUIRED_AFTER and NO_THREAD_SAFETY_ANALYSIS, as the same attributes: a
// definition already there is kept rather than redefined.
#if defined(__clang__)
#define LOOPSTORE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define LOOPSTORE_THREAD_ANNOTATION(x)
#endif

// On a class: its objects are locks.
#define CAPABILITY(x) LOOPSTORE_THREAD_ANNOTATION(capability(x))
// On a class: an RAII object that holds a lock for its lifetime.
#define SCOPED_CAPABILITY LOOPSTORE_THREAD_ANNOTATION(scoped_lockable)

// On a member: read and written only with the lock held (shared for reads).
#ifndef GUARDED_BY
#define GUARDED_BY(x) LOOPSTORE_THREAD_ANNOTATION(guarded_by(x))
#endif
// On a pointer member: the pointee is guarded by the lock.
#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) LOOPSTORE_THREAD_ANNOTATION(pt_guarded_by(x))
#endif

// On a lock member: the lock order (these locks are taken before / after).
#ifndef ACQUIRED_BEFORE
#define ACQUIRED_BEFORE(...) LOOPSTORE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#endif
#ifndef ACQUIRED_AFTER
#define ACQUIRED_AFTER(...) LOOPSTORE_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#endif

// On a function: the caller holds the locks (exclusively / at least shared).
#define REQUIRES(...) LOOPSTORE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) LOOPSTORE_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))

// On a function: it takes the locks and returns holding them.
#define ACQUIRE(...) LOOPSTORE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) LOOPSTORE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))

// On a function: it releases locks the caller held.
#define RELEASE(...) LOOPSTORE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) LOOPSTORE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) LOOPSTORE_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))

// On a function: it takes the lock only when it returns `x`.
#define TRY_ACQUIRE(...) LOOPSTORE_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

// On a function: the caller must not hold the locks (it takes them itself).
#define EXCLUDES(...) LOOPSTORE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// On a function: checks at run time that the lock is held and tells the
// analysis so from there on.
#define ASSERT_CAPABILITY(x) LOOPSTORE_THREAD_ANNOTATION(assert_capability(x))

// On a function: it returns a reference to the lock `x`.
#define RETURN_CAPABILITY(x) LOOPSTORE_THREAD_ANNOTATION(lock_returned(x))

// On one function, with a comment saying why: the analysis cannot follow it.
#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS LOOPSTORE_THREAD_ANNOTATION(no_thread_safety_analysis)
#endif
