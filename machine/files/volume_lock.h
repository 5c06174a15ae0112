// The lock of one mounted volume: whoever uses the file system's library holds it.
#pragma once
#include <mutex>
#include "platform/kernel.h"

namespace machine {

class KVR_CAPABILITY("mutex") VolumeLock {
public:
    void Acquire() KVR_ACQUIRE() { mutex_.lock(); }
    void Release() KVR_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class KVR_SCOPED VolumeLockGuard {
public:
    explicit VolumeLockGuard(VolumeLock& lock) KVR_ACQUIRE(lock) : lock_(lock) { lock_.Acquire(); }
    ~VolumeLockGuard() KVR_RELEASE() { lock_.Release(); }
    VolumeLockGuard(const VolumeLockGuard&) = delete;
    VolumeLockGuard& operator=(const VolumeLockGuard&) = delete;

private:
    VolumeLock& lock_;
};

}  // namespace machine
