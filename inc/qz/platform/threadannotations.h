// Lock rules the compiler checks: clang's thread-safety analysis
// (-Wthread-safety) reads these attributes; other compilers ignore them.
//
//   KIV_CAPABILITY("mutex")     a class that is a lock
//   KIV_SCOPED_CAPABILITY       a class whose objects hold a lock for a scope
//   KIV_GUARDED_BY(m)           a member only read or written holding m
//   KIV_PT_GUARDED_BY(m)        what a pointer member points at, likewise
//   KIV_REQUIRES(m)             a function called holding m (exclusively)
//   KIV_REQUIRES_SHARED(m)      a function called holding m at least shared
//   KIV_ACQUIRE / KIV_RELEASE   a function that takes or gives back a lock
//   KIV_ACQUIRE_SHARED / KIV_RELEASE_SHARED   the same, shared
//   KIV_TRY_ACQUIRE(ok)         a function that takes the lock when it returns ok
//   KIV_EXCLUDES(m)             a function called not holding m
//   KIV_NO_THREAD_SAFETY_ANALYSIS   a lock's own implementation
//
// Thread safety: not applicable (macros only).
#pragma once

#if defined(__clang__)
#define KIV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KIV_THREAD_ANNOTATION(x)
#endif

#define KIV_CAPABILITY(x) KIV_THREAD_ANNOTATION(capability(x))
#define KIV_SCOPED_CAPABILITY KIV_THREAD_ANNOTATION(scoped_lockable)
#define KIV_GUARDED_BY(x) KIV_THREAD_ANNOTATION(guarded_by(x))
#define KIV_PT_GUARDED_BY(x) KIV_THREAD_ANNOTATION(pt_guarded_by(x))
#define KIV_REQUIRES(...) KIV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KIV_REQUIRES_SHARED(...) KIV_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define KIV_ACQUIRE(...) KIV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KIV_ACQUIRE_SHARED(...) KIV_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define KIV_RELEASE(...) KIV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KIV_RELEASE_SHARED(...) KIV_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define KIV_TRY_ACQUIRE(...) KIV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KIV_EXCLUDES(...) KIV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KIV_NO_THREAD_SAFETY_ANALYSIS KIV_THREAD_ANNOTATION(no_thread_safety_analysis)
