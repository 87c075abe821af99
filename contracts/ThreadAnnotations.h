// Macros for clang's thread-safety analysis. They expand to nothing on other
// compilers, so annotated code builds everywhere and is checked where clang
// runs with -Wthread-safety.
#ifndef SDM_CONTRACTS_THREADANNOTATIONS_H
#define SDM_CONTRACTS_THREADANNOTATIONS_H

#if defined(__clang__)
#define SDM_THREAD_ATTR(x) __attribute__((x))
#else
#define SDM_THREAD_ATTR(x)
#endif

#define SDM_CAPABILITY(name) SDM_THREAD_ATTR(capability(name))
#define SDM_SCOPED_CAPABILITY SDM_THREAD_ATTR(scoped_lockable)
#define SDM_GUARDED_BY(x) SDM_THREAD_ATTR(guarded_by(x))
#define SDM_PT_GUARDED_BY(x) SDM_THREAD_ATTR(pt_guarded_by(x))
#define SDM_ACQUIRE(...) SDM_THREAD_ATTR(acquire_capability(__VA_ARGS__))
#define SDM_ACQUIRE_SHARED(...) SDM_THREAD_ATTR(acquire_shared_capability(__VA_ARGS__))
#define SDM_TRY_ACQUIRE(...) SDM_THREAD_ATTR(try_acquire_capability(__VA_ARGS__))
#define SDM_TRY_ACQUIRE_SHARED(...) SDM_THREAD_ATTR(try_acquire_shared_capability(__VA_ARGS__))
#define SDM_RELEASE(...) SDM_THREAD_ATTR(release_capability(__VA_ARGS__))
#define SDM_RELEASE_GENERIC(...) SDM_THREAD_ATTR(release_generic_capability(__VA_ARGS__))
#define SDM_REQUIRES(...) SDM_THREAD_ATTR(requires_capability(__VA_ARGS__))
#define SDM_EXCLUDES(...) SDM_THREAD_ATTR(locks_excluded(__VA_ARGS__))
#define SDM_RETURN_CAPABILITY(x) SDM_THREAD_ATTR(lock_returned(x))
#define SDM_NO_THREAD_SAFETY_ANALYSIS SDM_THREAD_ATTR(no_thread_safety_analysis)

#endif  // SDM_CONTRACTS_THREADANNOTATIONS_H
