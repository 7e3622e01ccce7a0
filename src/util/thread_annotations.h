// Clang thread-safety annotations; they compile to nothing elsewhere. A clang build checks
// them (-Wthread-safety), so every "guarded by" below is enforced, not just documented.
#ifndef VEMO_UTIL_THREAD_ANNOTATIONS_H
#define VEMO_UTIL_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define VEMO_TSA(x) __attribute__((x))
#else
#define VEMO_TSA(x)
#endif

#define CAPABILITY(x) VEMO_TSA(capability(x))
#define SCOPED_CAPABILITY VEMO_TSA(scoped_lockable)
#define GUARDED_BY(x) VEMO_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) VEMO_TSA(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) VEMO_TSA(acquired_after(__VA_ARGS__))
#define REQUIRES(...) VEMO_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VEMO_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VEMO_TSA(release_capability(__VA_ARGS__))
#define EXCLUDES(...) VEMO_TSA(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) VEMO_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS VEMO_TSA(no_thread_safety_analysis)

#endif
