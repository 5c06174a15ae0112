// Each misuse of the kernel must stop the run with a line that names the rule.
#include <gtest/gtest.h>

#include <functional>
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
    const char* name;
    std::function<void()> body;
    const char* message;
};

void PrintTo(const Misuse& misuse, std::ostream* out) {
    *out << misuse.name;
}

FAST_MUTEX fastA, fastB;
KMUTEX kernelA;
KSPIN_LOCK spin;
KEVENT event;

void InitializeAll() {
    ExInitializeFastMutex(&fastA);
    ExInitializeFastMutex(&fastB);
    KeInitializeMutex(&kernelA, 0);
    KeInitializeSpinLock(&spin);
    KeInitializeEvent(&event, NotificationEvent, FALSE);
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
    {"FastMutexTwice", [] { Acquire(&fastA), Acquire(&fastA); }, "which it already holds"},
    {"FastMutexNotHeld", [] { Release(&fastA); }, "which it does not hold"},
    {"FastMutexesReleasedInOrderOfAcquisition", [] { Acquire(&fastA), Acquire(&fastB), Release(&fastA); },
     "lock release order"},
    {"LockOrder",
     [] {
         host::SetLockRank(&fastA, 3, "inner"), host::SetLockRank(&fastB, 2, "middle");
         Acquire(&fastA), Acquire(&fastB);
     },
     "middle .rank 2. acquired while inner .rank 3. is held"},
    {"LocksNeverTogether",
     [] {
         host::SetLockRank(&kernelA, 4, "cache"), host::SetLockRank(&fastA, 4, "swap");
         (void)Wait(&kernelA), Acquire(&fastA);
     },
     "swap .rank 4. acquired while cache"},
    {"MutexReleasedByAnother",
     [] {
         (void)Wait(&kernelA);
         std::thread([] { KeReleaseMutex(&kernelA, FALSE); }).join();
     },
     "which it does not hold"},
    {"MutexUnderFastMutex", [] { Acquire(&fastA), (void)Wait(&kernelA); }, "on a mutex called at IRQL 1"},
    {"SpinLockTwice", [] { KeAcquireSpinLockRaiseToDpc(&spin), KeAcquireSpinLockRaiseToDpc(&spin); },
     "which it already holds"},
    {"RemoveLockNotHeld",
     [] {
         IO_REMOVE_LOCK lock;
         IoInitializeRemoveLock(&lock, 0, 0, 0);
         IoReleaseRemoveLock(&lock, nullptr);
     },
     "released that is not held"},
    {"EventNotInitialised",
     [] {
         KEVENT zero{};
         KeSetEvent(&zero, 0, FALSE);
     },
     "not an initialised event"},
    {"ThreadEndsWithLock", [] { InThread([](PVOID) { Acquire(&fastA); }); },
     "end of a system thread: thread .* holds 1 lock"},
    {"ExceptionLeavesThread", [] { InThread([](PVOID) { ExRaiseStatus(STATUS_ACCESS_VIOLATION); }); },
     "exception c0000005 left"},
    {"CallLeavesLockHeld",
     [] {
         const host::LockState before = host::CaptureLockState();
         Acquire(&fastA);
         host::CheckLockState(before, "a call");
     },
     "a call: thread .* holds 1 lock"},

    {"BlockFreedTwice",
     [] {
         char* block = Block();
         ExFreePoolWithTag(block, Tag), ExFreePoolWithTag(block, Tag);
     },
     "freed before|heap-use-after-free"},
    {"BlockFreedWithWrongTag", [] { ExFreePoolWithTag(Block(), Tag + 1); },
     "has tag \"TSSL\" and was freed with"},
    {"BlockOverrunByOneByte",
     [] {
         char* block = Block(101);
         block[101] = 1;
         ExFreePoolWithTag(block, Tag);
     },
     "beyond its end|heap-buffer-overflow"},
    {"BlockWrittenAfterFree",
     [] {
         host::SetPoolOptions({true, 1 << 20});
         char* block = Block();
         ExFreePoolWithTag(block, Tag);
         block[7] = 1;
         host::PoolCheck();
     },
     "written at offset 7 after it was freed|heap-use-after-free"},
    {"PoolWithoutTag", [] { ExAllocatePoolWithTag(NonPagedPool, 8, 0); }, "without a tag"},

    {"HandleClosedTwice",
     [] {
         auto* body = host::MakeObject<int>(host::ObjectType::Other);
         const HANDLE handle = host::InsertHandle(body);
         (void)ZwClose(handle), (void)ZwClose(handle);
     },
     "which is not open"},
    {"FastFail", [] { KvrFastFail(3); }, "code 3"},
};

class MisuseStops : public testing::TestWithParam<Misuse> {};

TEST_P(MisuseStops, WithTheRule) {
    EXPECT_DEATH(
        {
            InitializeAll();
            GetParam().body();
            _exit(0);
        },
        GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Host, MisuseStops, testing::ValuesIn(misuses),
                         [](const auto& info) { return info.param.name; });

}  // namespace
