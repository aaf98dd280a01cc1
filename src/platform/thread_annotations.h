#pragma once

// Names for clang's thread-safety analysis; they vanish with other compilers.
#if defined(__clang__)
#define TV_ATTRIBUTE(x) __attribute__((x))
#else
#define TV_ATTRIBUTE(x)
#endif

#define TV_CAPABILITY(name) TV_ATTRIBUTE(capability(name))
#define TV_SCOPED_CAPABILITY TV_ATTRIBUTE(scoped_lockable)
#define TV_GUARDED_BY(mutex) TV_ATTRIBUTE(guarded_by(mutex))
#define TV_REQUIRES(...) TV_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TV_EXCLUDES(...) TV_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TV_ACQUIRE_SHARED(...) TV_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TV_RELEASE_SHARED(...) TV_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define TV_ACQUIRE(...) TV_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TV_TRY_ACQUIRE(...) TV_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TV_RELEASE(...) TV_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TV_NO_ANALYSIS TV_ATTRIBUTE(no_thread_safety_analysis)
