// The shim's own story: rules broken on purpose, each of which must be counted, and what the shim supplies.
#include "rules_story.h"
#include "tests/second_kernel/common/requests.h"
#include "tests/second_kernel/common/threads.h"

namespace {

constexpr ULONG kTag = 0x454C5552;  // RULE, in memory order

// ---- a device that does what a test says ----

using Behaviour = NTSTATUS (*)(PIRP request);
Behaviour gBehaviour;

NTSTATUS Complete(PIRP request, NTSTATUS status) {
    request->IoStatus.Status = status;
    request->IoStatus.Information = 0;
    IoCompleteRequest(request, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI Serve(PDEVICE_OBJECT, PIRP request) {
    return gBehaviour(request);
}

PDEVICE_OBJECT MakeDevice() {
    PDRIVER_OBJECT driver = stage::OwnDriver();
    driver->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = Serve;
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS status = IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &device);
    (void)stage::CheckStatus(status, STATUS_SUCCESS, "a device");
    return device;
}

PDEVICE_OBJECT gDevice;

void Flush(Behaviour behaviour) {
    gBehaviour = behaviour;
    (void)SendSimple(gDevice, IRP_MJ_FLUSH_BUFFERS);
}

// ---- rules that can be broken without harm ----

void CompleteTwice() {
    PIRP request = IoBuildAsynchronousFsdRequest(IRP_MJ_FLUSH_BUFFERS, gDevice, nullptr, 0, nullptr, nullptr);
    gBehaviour = [](PIRP flush) { return Complete(flush, STATUS_SUCCESS); };
    (void)IoCallDriver(gDevice, request);
    (void)Complete(request, STATUS_SUCCESS);
}

void RunOutOfLocations() {
    Flush([](PIRP request) {
        const NTSTATUS refused = IoCallDriver(gDevice, request);
        (void)Complete(request, STATUS_SUCCESS);
        return NT_SUCCESS(refused) ? refused : STATUS_SUCCESS;
    });
}

void ReturnAnotherStatus() {
    Flush([](PIRP request) {
        (void)Complete(request, STATUS_DEVICE_DATA_ERROR);
        return STATUS_PENDING;
    });
}

void MarkWithoutSaying() {
    Flush([](PIRP request) {
        IoMarkIrpPending(request);
        return Complete(request, STATUS_SUCCESS);
    });
}

void KeepTheIrql() {
    static KSPIN_LOCK lock;
    static KIRQL before;
    Flush([](PIRP request) {
        before = KeAcquireSpinLockRaiseToDpc(&lock);
        return Complete(request, STATUS_SUCCESS);
    });
    KeReleaseSpinLock(&lock, before);
}

void WaitAtDispatch() {
    KSPIN_LOCK lock = 0;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, TRUE);
    const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
    (void)KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    KeReleaseSpinLock(&lock, before);
}

void LockAtDispatch() {
    KSPIN_LOCK lock = 0;
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
    ExAcquireFastMutex(&mutex);
    ExReleaseFastMutex(&mutex);
    KeReleaseSpinLock(&lock, before);
}

void CloseUnderFastMutex() {
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    HANDLE key = nullptr;
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, L"\\Registry\\Machine\\System");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    (void)ZwCreateKey(&key, KEY_QUERY_VALUE, &attributes, 0, nullptr, 0, nullptr);
    ExAcquireFastMutex(&mutex);
    (void)ZwClose(key);
    ExReleaseFastMutex(&mutex);
}

// Calls body(mdl) with an MDL over some pool.
template <class Body>
void WithMdl(const Body& body) {
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, PAGE_SIZE, kTag);
    PMDL mdl = IoAllocateMdl(block, PAGE_SIZE, FALSE, FALSE, nullptr);
    body(mdl);
    IoFreeMdl(mdl);
    ExFreePoolWithTag(block, kTag);
}

void FreeLockedPages() {
    WithMdl([](PMDL mdl) { MmProbeAndLockPages(mdl, KernelMode, IoReadAccess); });
}

void UnlockTwice() {
    WithMdl([](PMDL mdl) {
        MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
        MmUnlockPages(mdl);
        MmUnlockPages(mdl);
    });
}

void MapUnlockedPages() {
    WithMdl([](PMDL mdl) { (void)MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority); });
}

void ReleaseForeignMutex() {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    const NTSTATUS raised = TryExcept([&]() -> NTSTATUS {
        (void)KeReleaseMutex(&mutex, FALSE);
        return STATUS_SUCCESS;
    });
    (void)stage::CheckStatus(raised, STATUS_MUTANT_NOT_OWNED, "what releasing a mutex of nobody raises");
}

void EndRaised() {
    static KSPIN_LOCK lock;
    JoinThread(StartThread(
        [](PVOID) {
            (void)KeAcquireSpinLockRaiseToDpc(&lock);
            (void)PsTerminateSystemThread(STATUS_SUCCESS);
        },
        nullptr));
}

struct Misdeed {
    const char* what;
    void (*commit)();
    ULONG rules = 1;  // that this breaks
};
constexpr Misdeed kMisdeeds[] = {
    {"a request completed twice", CompleteTwice},
    {"a request sent on without a stack location left", RunOutOfLocations},
    {"another status returned than completed with", ReturnAnotherStatus},
    {"a request marked pending without saying so", MarkWithoutSaying},
    {"a dispatch routine that leaves the IRQL raised, at which its caller waits", KeepTheIrql, 2},
    {"a wait at DISPATCH_LEVEL", WaitAtDispatch},
    {"a fast mutex at DISPATCH_LEVEL", LockAtDispatch},
    {"a handle closed under a fast mutex", CloseUnderFastMutex},
    {"an MDL freed with locked pages", FreeLockedPages},
    {"pages unlocked twice", UnlockTwice},
    {"pages mapped that are not locked", MapUnlockedPages},
    {"a mutex released that is not owned", ReleaseForeignMutex},
    {"a thread that ends at DISPATCH_LEVEL", EndRaised},
};

void BreakRules() {
    gDevice = MakeDevice();
    if (!gDevice) return;
    for (const Misdeed& misdeed : kMisdeeds) {
        stage::Step(misdeed.what);
        const ULONG before = stage::BrokenRules();
        misdeed.commit();
        (void)stage::CheckEqual(stage::BrokenRules() - before, misdeed.rules, "rules broken");
        (void)stage::CheckEqual(KeGetCurrentIrql(), PASSIVE_LEVEL, "the IRQL afterwards");
    }
    IoDeleteDevice(gDevice);
}

// ---- what Wine lacks ----

struct Contest {
    KMUTEX mutex;
    ULONG inside;
    ULONG turns;
};

void TakeTurns(PVOID context, ULONG) {
    auto* contest = static_cast<Contest*>(context);
    for (ULONG i = 0; i < 500; ++i) {
        (void)KeWaitForSingleObject(&contest->mutex, Executive, KernelMode, FALSE, nullptr);
        (void)KeWaitForSingleObject(&contest->mutex, Executive, KernelMode, FALSE, nullptr);
        (void)stage::CheckEqual(++contest->inside, 1, "threads that own the mutex");
        ++contest->turns;
        --contest->inside;
        (void)KeReleaseMutex(&contest->mutex, FALSE);
        (void)KeReleaseMutex(&contest->mutex, FALSE);
    }
}

void UseSupplied() {
    stage::Step("a mutex that several threads want");
    Contest contest{};
    KeInitializeMutex(&contest.mutex, 0);
    constexpr ULONG threads = 4;
    RunTogether(threads, TakeTurns, &contest);
    (void)stage::CheckEqual(contest.turns, threads * 500, "turns taken");

    stage::Step("the IRQL under locks");
    FAST_MUTEX mutex;
    KSPIN_LOCK lock = 0;
    ExInitializeFastMutex(&mutex);
    ExAcquireFastMutex(&mutex);
    (void)stage::CheckEqual(KeGetCurrentIrql(), APC_LEVEL, "under a fast mutex");
    const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
    (void)stage::CheckEqual(KeGetCurrentIrql(), DISPATCH_LEVEL, "under a spin lock as well");
    KeReleaseSpinLock(&lock, before);
    ExReleaseFastMutex(&mutex);
    (void)stage::CheckEqual(KeGetCurrentIrql(), PASSIVE_LEVEL, "under none");
}

constexpr void (*kBoots[])() = {BreakRules, UseSupplied};

}  // namespace

const Story kRulesStory = {"rules", "the shim counts broken rules and supplies what Wine lacks", kBoots, 2};
