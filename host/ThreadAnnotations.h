// Lock annotations that clang checks (-Wthread-safety; KIV_THREAD_SAFETY=ON,
// `make check-threads`). Other compilers see nothing.
//
// KIV_CAPABILITY(name)      a class that is a lock (PMutex).
// KIV_SCOPED_CAPABILITY     a class that holds a lock for its lifetime (PLockGuard).
// KIV_GUARDED_BY(lock)      a field read or written only with `lock` held.
// KIV_PT_GUARDED_BY(lock)   a pointer whose target is touched only with `lock` held.
// KIV_REQUIRES(lock...)     a function called with `lock` held (the *Locked ones).
// KIV_ACQUIRE(lock...)      a function that takes `lock` and returns holding it.
// KIV_RELEASE(lock...)      a function that gives back `lock`.
// KIV_EXCLUDES(lock...)     a function called without `lock` (it takes it itself).
// KIV_RETURN_CAPABILITY(x)  a function that returns the lock `x`.
// KIV_NO_THREAD_SAFETY_ANALYSIS  a function the analysis cannot follow; say
//                           why beside it.
#pragma once

#if defined(__clang__)
#define KIV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KIV_THREAD_ANNOTATION(x)
#endif

#define KIV_CAPABILITY(name) KIV_THREAD_ANNOTATION(capability(name))
#define KIV_SCOPED_CAPABILITY KIV_THREAD_ANNOTATION(scoped_lockable)
#define KIV_GUARDED_BY(x) KIV_THREAD_ANNOTATION(guarded_by(x))
#define KIV_PT_GUARDED_BY(x) KIV_THREAD_ANNOTATION(pt_guarded_by(x))
#define KIV_REQUIRES(...) KIV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KIV_ACQUIRE(...) KIV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KIV_RELEASE(...) KIV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KIV_EXCLUDES(...) KIV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KIV_RETURN_CAPABILITY(x) KIV_THREAD_ANNOTATION(lock_returned(x))
#define KIV_NO_THREAD_SAFETY_ANALYSIS KIV_THREAD_ANNOTATION(no_thread_safety_analysis)
