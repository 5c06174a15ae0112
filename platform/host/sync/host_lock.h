// The locks of the host kernel's own tables, annotated for the analysing compiler; its files use no others.
// They are no kernel locks: they have no rank and no IRQL, and nobody calls a driver or a file system while
// holding one, except where the holder says so.
#pragma once
#include <condition_variable>
#include <mutex>
#include "platform/host/nt/annotations.h"

namespace host {

// The names are those that the standard library's waits call.
class KVR_CAPABILITY("host lock") HostLock {
public:
    void lock() KVR_ACQUIRE() { mutex_.lock(); }
    void unlock() KVR_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

// Holds a lock of the host kernel for as long as it lives.
template <class Lock>
class KVR_SCOPED HostGuard {
public:
    explicit HostGuard(Lock& lock) KVR_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~HostGuard() KVR_RELEASE() { lock_.unlock(); }
    HostGuard(const HostGuard&) = delete;
    HostGuard& operator=(const HostGuard&) = delete;

private:
    Lock& lock_;
};

// What a thread waits for that holds a HostLock. The lock is free while it sleeps, so what it guards may have
// changed after every wait.
class HostCondition {
public:
    void Wait(HostLock& lock) KVR_REQUIRES(lock) { changed_.wait(lock); }
    void WakeAll() { changed_.notify_all(); }

private:
    std::condition_variable_any changed_;
};

}  // namespace host
