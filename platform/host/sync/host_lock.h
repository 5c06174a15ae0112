// A lock of the host kernel's own tables, annotated for the analysing compiler. It is no kernel lock: it has no
// rank and no IRQL, and nobody calls a driver or a file system while holding one, except where the holder says
// so.
#pragma once
#include <mutex>
#include "platform/host/nt/annotations.h"

namespace host {

class KVR_CAPABILITY("host lock") HostLock {
public:
    void Acquire() KVR_ACQUIRE() { mutex_.lock(); }
    void Release() KVR_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class KVR_SCOPED HostGuard {
public:
    explicit HostGuard(HostLock& lock) KVR_ACQUIRE(lock) : lock_(lock) { lock_.Acquire(); }
    ~HostGuard() KVR_RELEASE() { lock_.Release(); }
    HostGuard(const HostGuard&) = delete;
    HostGuard& operator=(const HostGuard&) = delete;

private:
    HostLock& lock_;
};

}  // namespace host
