// Each misuse of the kernel must stop the run with a line that names the rule.
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include "platform/host/object/object.h"
#include "platform/host/memory/pool.h"
#include "platform/host/memory/pool_block.h"
#include "platform/host/sync/thread.h"
#include "platform/host/check/verifier.h"
#include "platform/kernel.h"

namespace {

constexpr ULONG Tag = 0x4C535354;  // "TSSL"

struct Misuse {
    const char* rule;  // part of the line
    std::function<void()> body;
};

FAST_MUTEX fastA, fastB;
KMUTEX kernelA;

void InitializeAll() {
    ExInitializeFastMutex(&fastA);
    ExInitializeFastMutex(&fastB);
    KeInitializeMutex(&kernelA, 0);
}

// What the compiler's analysis would refuse is what these tests are about.
void Acquire(PFAST_MUTEX mutex) KVR_NO_ANALYSIS {
    ExAcquireFastMutex(mutex);
}

void Release(PFAST_MUTEX mutex) KVR_NO_ANALYSIS {
    ExReleaseFastMutex(mutex);
}

NTSTATUS Wait(PVOID object) {
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr);
}

void InThread(PKSTART_ROUTINE routine) {
    HANDLE handle = nullptr;
    if (PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, nullptr) == 0) {
        host::JoinSystemThreads();
    }
}

// Reads and writes beside the bounds that the compiler may know.
char* Opaque(void* bytes) {
    asm volatile("" : "+r"(bytes));
    return static_cast<char*>(bytes);
}

char* Block(SIZE_T bytes = 100) {
    return Opaque(ExAllocatePoolWithTag(NonPagedPool, bytes, Tag));
}

const Misuse misuses[] = {
    {"which it already holds", [] { Acquire(&fastA), Acquire(&fastA); }},
    {"which it does not hold", [] { Release(&fastA); }},
    {"lock release order", [] { Acquire(&fastA), Acquire(&fastB), Release(&fastA); }},
    {"middle .rank 2. acquired while inner .rank 3. is held",
     [] {
         host::SetLockRank(&fastA, 3, "inner"), host::SetLockRank(&fastB, 2, "middle");
         KvrAnnounceHold(&fastA), Acquire(&fastB);
     }},
    {"middle .rank 2. acquired while inner .rank 3. is held",
     [] {
         host::SetLockRank(&fastA, 3, "inner"), host::SetLockRank(&fastB, 2, "middle");
         Acquire(&fastA), KvrAnnounceHold(&fastB);
     }},
    {"swap .rank 4. acquired while cache",
     [] {
         host::SetLockRank(&kernelA, 4, "cache"), host::SetLockRank(&fastA, 4, "swap");
         (void)Wait(&kernelA), Acquire(&fastA);
     }},
    {"which it does not hold",
     [] {
         (void)Wait(&kernelA);
         std::thread([] { KeReleaseMutex(&kernelA, FALSE); }).join();
     }},
    {"on a mutex called at IRQL 1", [] { Acquire(&fastA), (void)Wait(&kernelA); }},
    {"last chance: ZwFlushKey is pageable",
     [] {
         KeGetCurrentThread()->IsAtLastChance = true;
         (void)ZwFlushKey(nullptr);
     }},
    {"last chance: ExAllocatePoolWithTag of paged pool",
     [] {
         KeGetCurrentThread()->IsAtLastChance = true;
         (void)ExAllocatePoolWithTag(PagedPool, 8, Tag);
     }},
    {"last chance: DbgPrint of a wide text is pageable",
     [] {
         KeGetCurrentThread()->IsAtLastChance = true;
         DbgPrint("%wZ", nullptr);
     }},
    {"not an initialised event",
     [] {
         KEVENT zero{};
         KeSetEvent(&zero, 0, FALSE);
     }},
    {"end of a system thread: thread .* holds 1 lock", [] { InThread([](PVOID) { Acquire(&fastA); }); }},
    {"exception c0000005 left", [] { InThread([](PVOID) { ExRaiseStatus(STATUS_ACCESS_VIOLATION); }); }},
    {"freed before|heap-use-after-free",
     [] {
         char* block = Block();
         ExFreePoolWithTag(block, Tag), ExFreePoolWithTag(block, Tag);
     }},
    {"has tag \"TSSL\" and was freed with", [] { ExFreePoolWithTag(Block(), Tag + 1); }},
    {"beyond its end|heap-buffer-overflow",
     [] {
         char* block = Block(101);
         block[101] = 1;
         ExFreePoolWithTag(block, Tag);
     }},
    {"written at offset 7 after it was freed|heap-use-after-free",
     [] {
         host::SetPoolOptions({true, 1 << 20});
         char* block = Block();
         ExFreePoolWithTag(block, Tag);
         block[7] = 1;
         host::PoolCheck();
     }},
    {"without a tag", [] { ExAllocatePoolWithTag(NonPagedPool, 8, 0); }},
    {"code 3", [] { KvrFastFail(3); }},
    {"released that is not held",
     [] {
         IO_REMOVE_LOCK lock;
         IoInitializeRemoveLock(&lock, 0, 0, 0), IoReleaseRemoveLock(&lock, nullptr);
     }},
    {"which it already holds",
     [] {
         KSPIN_LOCK spin = 0;
         KeAcquireSpinLockRaiseToDpc(&spin), KeAcquireSpinLockRaiseToDpc(&spin);
     }},
    {"which is not open",
     [] {
         const HANDLE handle = host::InsertHandle(host::MakeObject<int>(host::ObjectType::Other));
         (void)ZwClose(handle), (void)ZwClose(handle);
     }},
};

TEST(HostMisuseDeath, StopsWithTheRule) {
    for (const Misuse& misuse : misuses) {
        SCOPED_TRACE(misuse.rule);
        EXPECT_DEATH(
            {
                InitializeAll();
                misuse.body();
                _exit(0);
            },
            misuse.rule);
    }
}

}  // namespace
