// Clang's thread-safety attributes: clang checks at compile time that guarded data is used under its lock.
#pragma once

#ifdef __clang__
#define SCC_THREAD_ATTRIBUTE(...) __attribute__((__VA_ARGS__))
#else
#define SCC_THREAD_ATTRIBUTE(...)
#endif

// On a type: a lock, and an object that holds a lock for its lifetime.
#define SCC_CAPABILITY(name) SCC_THREAD_ATTRIBUTE(capability(name))
#define SCC_SCOPED_CAPABILITY SCC_THREAD_ATTRIBUTE(scoped_lockable)
// On data: read and written only under this lock.
#define SCC_GUARDED_BY(lock) SCC_THREAD_ATTRIBUTE(guarded_by(lock))
// On a lock: when both are held, this one is taken first.
#define SCC_ACQUIRED_BEFORE(...) SCC_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
// On a function: the caller must hold the lock, must not hold it; the function acquires it, acquires it if it
// returns the first argument, or releases it.
#define SCC_REQUIRES(lock) SCC_THREAD_ATTRIBUTE(requires_capability(lock))
#define SCC_EXCLUDES(lock) SCC_THREAD_ATTRIBUTE(locks_excluded(lock))
#define SCC_ACQUIRE(lock) SCC_THREAD_ATTRIBUTE(acquire_capability(lock))
#define SCC_TRY_ACQUIRE(...) SCC_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define SCC_RELEASE(...) SCC_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
// On a function without effect: after the call, the analysis considers the lock held.
#define SCC_ASSERT_HELD(lock) SCC_THREAD_ATTRIBUTE(assert_capability(lock))
#define SCC_NO_THREAD_SAFETY_ANALYSIS SCC_THREAD_ATTRIBUTE(no_thread_safety_analysis)
