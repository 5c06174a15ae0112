#include "tests/second_kernel/host/host_stage.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>
#include "platform/host/rtl/debug_sink.h"
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "platform/host/kernel_host.h"
#include "platform/host/object/namespace.h"
#include "platform/host/memory/pool.h"
#include "platform/host/sync/thread.h"
#include "platform/host/check/verifier.h"
#include "platform/owners.h"
#include "tests/second_kernel/host/kernel_files.h"
#include "tests/second_kernel/host/played_provider.h"
#include "tests/support/memory_registry.h"

namespace {

using namespace std::chrono_literals;

constexpr char16_t kKernelVolume[] = u"\\Device\\KernelVolume";
constexpr std::size_t kDiagnosticLines = 40;

// What survives a boot.
struct Lasting {
    support::MemoryRegistry registry;
    KernelFiles files;
    std::mutex lock;  // of what follows
    std::map<ULONG, std::vector<UCHAR>> media;
    std::string failures;
    std::string diagnostics;
    std::string step;
};
Lasting gLasting;

// One boot.
struct Boot {
    const Story* story = nullptr;
    ULONG index = 0;
    ULONGLONG mark = 0;
    bool failed = false;
    PDRIVER_OBJECT own = nullptr;
    std::vector<std::unique_ptr<PlayedProvider>> mounts;
};
Boot gBoot;

NTSTATUS ServeKernelVolume(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// The device that the kernel's own files are found under.
void MakeKernelVolume() {
    PDRIVER_OBJECT driver = host::CreateDriver(u"\\Driver\\KernelVolume");
    for (PDRIVER_DISPATCH& routine : driver->MajorFunction) routine = ServeKernelVolume;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, kKernelVolume);
    PDEVICE_OBJECT device = nullptr;
    if (!stage::CheckStatus(IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK, 0, FALSE, &device),
                            STATUS_SUCCESS, "the kernel's volume"))
        return;
    device->SectorSize = 512;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    host::MountProvider(device, &gLasting.files);
}

ULONG WaitForThreads() {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (host::RunningSystemThreads() != 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    const ULONG running = host::RunningSystemThreads();
    if (running == 0) host::JoinSystemThreads();
    return running;
}

void NoteFailure(const char* what, ULONGLONG got, ULONGLONG expected) {
    char values[64];
    std::snprintf(values, sizeof values, ": got 0x%llx, expected 0x%llx\n", got, expected);
    const std::lock_guard hold(gLasting.lock);
    gBoot.failed = true;
    if (gLasting.failures.empty()) {
        const auto lines = host::DebugLinesSince(gBoot.mark);
        for (std::size_t i = lines.size() - std::min(lines.size(), kDiagnosticLines); i < lines.size(); ++i)
            gLasting.diagnostics += "  " + lines[i] + "\n";
    }
    gLasting.failures += std::string("  boot ") + std::to_string(gBoot.index + 1) + ", step \"" +
                         gLasting.step + "\": " + what + values;
}

host::Fault HostFault(stage::Fault kind) {
    switch (kind) {
        case stage::Fault::Allocate:
            return host::Fault::Allocate;
        case stage::Fault::BuildRequest:
            return host::Fault::BuildRequest;
        case stage::Fault::LockPages:
            return host::Fault::LockPages;
        default:
            return host::Fault::ThreadCreate;
    }
}

// Called on the thread that broke the rule, while the step may be changing on another.
void NameBrokenRule(const char*, const char*) {
    const std::unique_lock hold(gLasting.lock, std::try_to_lock);
    std::fprintf(stderr, "  boot %u, step \"%s\": the rule above was broken\n", gBoot.index + 1,
                 hold.owns_lock() ? gLasting.step.c_str() : "?");
    host::DumpDebugLines(kDiagnosticLines);
}

host::Fault gArmed = host::Fault::Allocate;

// One object per thread is enough: the calls do not nest.
thread_local std::optional<host::FaultPause> gPause;

}  // namespace

namespace stage {

NTSTATUS LoadDriver(PDRIVER_OBJECT& driver) {
    return host::LoadDriver(host_stage::DriverToLoad(), u"\\Driver\\kvr", driver);
}

ULONG WaitForDriverThreads() {
    return WaitForThreads();
}

ULONG TimesSaid(const char* part) {
    const auto lines = host::DebugLinesSince(gBoot.mark);
    return static_cast<ULONG>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(part) != std::string::npos;
    }));
}

PDRIVER_OBJECT OwnDriver() {
    return gBoot.own;
}

void SetDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, const WCHAR* value) {
    host::SetDeviceProperty(pdo, property, value);
}

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    return host::AddDeviceToStack(driver, pdo);
}

PDEVICE_OBJECT TopOfStack(PDEVICE_OBJECT device) {
    return host::TopOfStack(device);
}

void NotifyShutdown() {
    host::NotifyShutdown();
}

PUCHAR Medium(ULONG number, SIZE_T bytes) {
    const std::lock_guard hold(gLasting.lock);
    std::vector<UCHAR>& medium = gLasting.media[number];
    if (medium.empty()) medium.resize(bytes);
    return medium.size() == bytes ? medium.data() : nullptr;
}

void Mount(PDEVICE_OBJECT device, const FileCalls* calls, PVOID fileSystem) {
    gBoot.mounts.push_back(std::make_unique<PlayedProvider>(*calls, fileSystem));
    host::MountProvider(device, gBoot.mounts.back().get());
}

void SetSystemRoot(const WCHAR* path) {
    host::SetSystemRoot(path != nullptr ? std::u16string(path) : std::u16string(kKernelVolume) + u"\\Windows");
}

void FailCall(Fault kind, ULONG n) {
    gArmed = HostFault(kind);
    host::FailCall(host::FaultBit(gArmed), n);
}

ULONG EndFault() {
    host::DisarmFaults();
    return static_cast<ULONG>(host::FaultCalls(gArmed));
}

OwnWork::OwnWork() {
    gPause.emplace();
}

OwnWork::~OwnWork() {
    gPause.reset();
}

LONG PoolBlocks() {
    return static_cast<LONG>(host::PoolUsage(kPoolTag).blocks);
}

ULONG BrokenRules() {
    return host::AssertionCount();
}

void Step(const char* what) {
    const std::lock_guard hold(gLasting.lock);
    gLasting.step = what;
}

bool Check(bool holds, const char* what, ULONGLONG got, ULONGLONG expected) {
    if (!holds) NoteFailure(what, got, expected);
    return holds;
}

bool Failed() {
    const std::lock_guard hold(gLasting.lock);
    return gBoot.failed;
}

}  // namespace stage

namespace host_stage {

void BeginStory(const Story& story) {
    gLasting.media.clear();
    gLasting.registry.values.clear();
    gLasting.files.Clear();
    gLasting.failures.clear();
    gLasting.diagnostics.clear();
    gLasting.step.clear();
    gBoot.story = &story;
}

void BeginBoot(ULONG index) {
    host::PowerOn();
    host::SetRegistryStore(&gLasting.registry);
    host::ResetAssertionCount();
    host::SetViolationHandler(NameBrokenRule);
    gBoot.index = index;
    gBoot.failed = false;
    gBoot.mark = host::DebugMark();
    gBoot.own = host::CreateDriver(u"\\Driver\\story");
    MakeKernelVolume();
}

void EndBoot() {
    host::DisarmFaults();
    stage::Check(WaitForThreads() == 0, "no thread outlives its boot");
    const host::LeakReport left = host::PowerOff();
    stage::CheckEqual(left.memory.irps, 0, "requests that are outstanding");
    stage::CheckEqual(left.memory.mdls, 0, "MDLs that are outstanding");
    stage::CheckEqual(left.memory.lockedMdls, 0, "locked pages that are outstanding");
    gBoot.mounts.clear();
    for (const host::PoolBalance& pool : host::PoolReclaimAll())
        if (pool.tag != kPoolTag) stage::CheckEqual(pool.blocks, 0, "memory of the story itself");
}

const std::string& Failures() {
    return gLasting.failures;
}

const std::string& Diagnostics() {
    return gLasting.diagnostics;
}

}  // namespace host_stage
