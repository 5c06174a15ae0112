// System threads: which ones the driver started, and at which IRQL threads begin and end.
#include <atomic>
#include "call_frames.h"
#include "faults.h"
#include "irql.h"
#include "platform/owners.h"
#include "shim.h"

namespace shim {
namespace {

decltype(&PsCreateSystemThread) gKernelCreate;
decltype(&PsTerminateSystemThread) gKernelTerminate;

constexpr ULONG kStartTag = 0x52485453;  // STHR, in memory order
constexpr ULONG kMostThreads = 1024;     // that the driver may start in a boot

struct Start {
    PKSTART_ROUTINE routine;
    PVOID context;
};

// Referenced thread objects of the driver, in the order in which they were started.
std::atomic<PVOID> gThreads[kMostThreads];
std::atomic<ULONG> gThreadCount{0};

void NTAPI Begin(PVOID argument) {
    const Start start = *static_cast<Start*>(argument);
    ExFreePoolWithTag(argument, kStartTag);
    SetIrql(PASSIVE_LEVEL);
    ClearFrames();
    start.routine(start.context);
    RequireIrql(PASSIVE_LEVEL, "thread ended at too high an IRQL", reinterpret_cast<PVOID>(start.routine));
}

void Remember(HANDLE handle) {
    PVOID thread = nullptr;
    const NTSTATUS status = ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, KvrThreadObjectType(),
                                                      KernelMode, &thread, nullptr);
    const ULONG index = gThreadCount++;
    if (!NT_SUCCESS(status) || index >= kMostThreads) return BrokenRule("a thread was lost", SHIM_CALLER);
    gThreads[index] = thread;
}

NTSTATUS NTAPI Create(PHANDLE handle, ULONG access, POBJECT_ATTRIBUTES attributes, HANDLE process,
                      PCLIENT_ID client, PKSTART_ROUTINE routine, PVOID context) {
    RequireIrql(PASSIVE_LEVEL, "thread started at too high an IRQL", SHIM_CALLER);
    if (ShallFail(stage::Fault::CreateThread, SHIM_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    auto* start = static_cast<Start*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Start), kStartTag));
    if (!start) return STATUS_INSUFFICIENT_RESOURCES;
    *start = {routine, context};
    const NTSTATUS status = gKernelCreate(handle, access, attributes, process, client, Begin, start);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(start, kStartTag);
    } else if (IsDriverCode(SHIM_CALLER)) {
        Remember(*handle);
    }
    return status;
}

NTSTATUS NTAPI Terminate(NTSTATUS status) {
    RequireIrql(PASSIVE_LEVEL, "thread ended at too high an IRQL", SHIM_CALLER);
    return gKernelTerminate(status);
}

const Replacement kReplacements[] = {
    {"PsCreateSystemThread", reinterpret_cast<PVOID>(Create), reinterpret_cast<PVOID*>(&gKernelCreate)},
    {"PsTerminateSystemThread", reinterpret_cast<PVOID>(Terminate),
     reinterpret_cast<PVOID*>(&gKernelTerminate)},
};

LONGLONG Now() {
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    return time.QuadPart;
}

bool HasEnded(PVOID thread, LONGLONG until) {
    const LONGLONG left = until - Now();
    LARGE_INTEGER timeout;
    timeout.QuadPart = left > 0 ? -left : 0;
    return KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &timeout) == STATUS_SUCCESS;
}

}  // namespace

Replacements ThreadReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

}  // namespace shim

// A thread that is waited for may start others: they stand behind it in the list.
ULONG stage::WaitForDriverThreads() {
    constexpr LONGLONG longest = 30LL * 10'000'000;
    const LONGLONG until = shim::Now() + longest;
    ULONG running = 0;
    for (ULONG i = 0; i < shim::gThreadCount && i < shim::kMostThreads; ++i) {
        PVOID thread = shim::gThreads[i];
        if (!thread) continue;
        if (!shim::HasEnded(thread, until)) {
            ++running;
            continue;
        }
        shim::gThreads[i] = nullptr;
        ObDereferenceObject(thread);
    }
    return running;
}
