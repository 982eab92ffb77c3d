#pragma once

/// Which lock guards what, in a form that clang checks with -Wthread-safety. Other compilers see
/// nothing of it.
#if defined(__clang__)
#define HX_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define HX_THREAD_SAFETY(attribute)  ///< Nothing for compilers that do not check.
#endif

/// A class whose objects are locks.
#define HX_CAPABILITY(name) HX_THREAD_SAFETY(capability(name))
/// A class whose objects hold a lock as long as they live.
#define HX_SCOPED_CAPABILITY HX_THREAD_SAFETY(scoped_lockable)
/// A member that is read and written only with the lock held.
#define HX_GUARDED_BY(lock) HX_THREAD_SAFETY(guarded_by(lock))
/// A function for callers that hold the lock.
#define HX_REQUIRES(...) HX_THREAD_SAFETY(requires_capability(__VA_ARGS__))
/// A function for callers that hold the lock, at least shared.
#define HX_REQUIRES_SHARED(...) HX_THREAD_SAFETY(requires_shared_capability(__VA_ARGS__))
/// A function that takes the lock.
#define HX_ACQUIRE(...) HX_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
/// A function that takes the lock shared.
#define HX_ACQUIRE_SHARED(...) HX_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
/// A function that takes the lock if it answers the first argument.
#define HX_TRY_ACQUIRE(...) HX_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
/// A function that gives the lock back.
#define HX_RELEASE(...) HX_THREAD_SAFETY(release_capability(__VA_ARGS__))
/// A function that gives the lock back, however it is held.
#define HX_RELEASE_GENERIC(...) HX_THREAD_SAFETY(release_generic_capability(__VA_ARGS__))
/// A function that takes the lock itself, so its callers must not hold it.
#define HX_EXCLUDES(...) HX_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
/// A function that returns the lock.
#define HX_RETURN_CAPABILITY(lock) HX_THREAD_SAFETY(lock_returned(lock))
/// A function whose callers hold the lock, though the check cannot see it.
#define HX_ASSERT_HELD(lock) HX_THREAD_SAFETY(assert_capability(lock))
/// A function that the check cannot follow; a comment says why it is right.
#define HX_NOT_CHECKED HX_THREAD_SAFETY(no_thread_safety_analysis)
