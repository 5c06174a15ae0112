// Owners by type: whoever holds pool memory, a lock or a kernel handle holds one of these. They are
// move-only or not movable at all. None of their destructors runs when a kernel exception crosses the
// frame, so a body that an exception may leave releases what it holds in TryFinally instead.
#pragma once
#include <new>
#include <type_traits>
#include <utility>
#include "platform/kernel.h"

inline constexpr ULONG kPoolTag = 0x4C535354;  // TSSL, in memory order

// For a status that has nowhere to go; `why` says why that is right.
#define KVR_DISCARD(expression, why) (static_cast<void>(expression))

// The kind of all the driver's memory: pool that is never executable, from version 6.2 of the system on; older
// ones know the executable kind only. Set once by DriverEntry, before anything is allocated.
extern POOL_TYPE gPoolType;

// How pages are mapped: what the kind of pool says holds for them too.
[[nodiscard]] inline MM_PAGE_PRIORITY MappingPriority() {
    constexpr ULONG noExecute = NormalPagePriority | MdlMappingNoExecute;
    return gPoolType == NonPagedPoolNx ? static_cast<MM_PAGE_PRIORITY>(noExecute) : NormalPagePriority;
}

// Non-paged pool under the driver's tag; null when the pool is exhausted. IRQL: at most DISPATCH_LEVEL.
[[nodiscard]] inline PVOID AllocatePool(SIZE_T bytes) {
    return ExAllocatePoolWithTag(gPoolType, bytes, kPoolTag);
}
// `block` came from AllocatePool and is not null. IRQL: at most DISPATCH_LEVEL.
inline void FreePool(PVOID block) {
    ExFreePoolWithTag(block, kPoolTag);
}

// Owns one pool block that holds a T (or, for PoolPtr<UCHAR>, plain bytes). IRQL: at most DISPATCH_LEVEL.
template <class T>
class PoolPtr {
public:
    PoolPtr() = default;
    explicit PoolPtr(T* block) : m_block(block) {}
    PoolPtr(PoolPtr&& other) noexcept : m_block(std::exchange(other.m_block, nullptr)) {}
    PoolPtr& operator=(PoolPtr&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.m_block, nullptr));
        return *this;
    }
    ~PoolPtr() { Reset(); }

    T* Get() const { return m_block; }
    T* operator->() const { return m_block; }
    explicit operator bool() const { return m_block != nullptr; }
    T* Release() { return std::exchange(m_block, nullptr); }  // the caller's to free
    void Reset(T* block = nullptr) {
        if (m_block) FreePool(m_block);
        m_block = block;
    }

private:
    T* m_block = nullptr;
};

// A zeroed record in its own pool block; empty when the pool is exhausted. IRQL: at most DISPATCH_LEVEL.
template <class T>
[[nodiscard]] PoolPtr<T> NewRecord() {
    static_assert(std::is_trivially_destructible_v<T>, "pool records are released without a destructor");
    PVOID block = AllocatePool(sizeof(T));
    return PoolPtr<T>(block ? ::new (block) T{} : nullptr);
}

// Bytes of pool, not initialised; empty when the pool is exhausted. IRQL: at most DISPATCH_LEVEL.
[[nodiscard]] inline PoolPtr<UCHAR> NewBuffer(SIZE_T bytes) {
    return PoolPtr<UCHAR>(static_cast<UCHAR*>(AllocatePool(bytes)));
}

// Holds a fast mutex, which the thread must not hold already; waits without limit. IRQL: at most APC_LEVEL on
// entry, APC_LEVEL while held.
class KVR_SCOPED FastMutexLock {
public:
    explicit FastMutexLock(FAST_MUTEX& mutex) KVR_ACQUIRE(mutex) : m_mutex(mutex) {
        ExAcquireFastMutex(&mutex);
    }
    ~FastMutexLock() KVR_RELEASE() { ExReleaseFastMutex(&m_mutex); }
    FastMutexLock(const FastMutexLock&) = delete;
    FastMutexLock& operator=(const FastMutexLock&) = delete;

private:
    FAST_MUTEX& m_mutex;
};

// Holds a kernel mutex, waited for without limit; its owner may take it again. IRQL: PASSIVE_LEVEL.
class KVR_SCOPED KernelMutexLock {
public:
    explicit KernelMutexLock(KMUTEX& mutex) KVR_ACQUIRE(mutex) KVR_NO_ANALYSIS : m_mutex(mutex) {
        KVR_DISCARD(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr),
                    "an untimed kernel-mode wait ends only with the mutex");
    }
    ~KernelMutexLock() KVR_RELEASE() KVR_NO_ANALYSIS { KeReleaseMutex(&m_mutex, FALSE); }
    KernelMutexLock(const KernelMutexLock&) = delete;
    KernelMutexLock& operator=(const KernelMutexLock&) = delete;

private:
    KMUTEX& m_mutex;
};

// Holds a spin lock, at DISPATCH_LEVEL meanwhile. IRQL: at most DISPATCH_LEVEL on entry.
class SpinLockGuard {
public:
    explicit SpinLockGuard(KSPIN_LOCK& lock) : m_lock(lock), m_irql(KeAcquireSpinLockRaiseToDpc(&lock)) {}
    ~SpinLockGuard() { KeReleaseSpinLock(&m_lock, m_irql); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

private:
    KSPIN_LOCK& m_lock;
    KIRQL m_irql;
};

// Owns a kernel handle. IRQL: PASSIVE_LEVEL.
class KernelHandle {
public:
    KernelHandle() = default;
    explicit KernelHandle(HANDLE handle) : m_handle(handle) {}
    KernelHandle(KernelHandle&& other) noexcept : m_handle(other.Release()) {}
    KernelHandle& operator=(KernelHandle&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    ~KernelHandle() { Reset(); }

    HANDLE Get() const { return m_handle; }
    // For calls that fill in a handle and leave it alone when they fail. What was owned is closed first.
    HANDLE* Receive() {
        Reset();
        return &m_handle;
    }
    explicit operator bool() const { return m_handle != nullptr; }
    HANDLE Release() { return std::exchange(m_handle, nullptr); }
    void Reset(HANDLE handle = nullptr) {
        if (m_handle)
            KVR_DISCARD(ZwClose(m_handle), "an owned handle is valid, and nothing can be done about a close");
        m_handle = handle;
    }

private:
    HANDLE m_handle = nullptr;
};
