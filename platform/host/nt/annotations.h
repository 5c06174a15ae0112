// Thread-safety annotations, read by clang's -Wthread-safety and empty for other compilers.
#pragma once
#if defined(__clang__)
#define KVR_ATTRIBUTE(x) __attribute__((x))
#else
#define KVR_ATTRIBUTE(x)
#endif
#define KVR_CAPABILITY(name) KVR_ATTRIBUTE(capability(name))
#define KVR_SCOPED KVR_ATTRIBUTE(scoped_lockable)
#define KVR_GUARDED_BY(lock) KVR_ATTRIBUTE(guarded_by(lock))
#define KVR_ACQUIRE(...) KVR_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KVR_RELEASE(...) KVR_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KVR_REQUIRES(...) KVR_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KVR_NO_ANALYSIS KVR_ATTRIBUTE(no_thread_safety_analysis)
