#include "tests/second_kernel/stage.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>
#include "platform/host/rtl/debug_sink.h"
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "platform/host/kernel_host.h"
#include "platform/host/memory/pool.h"
#include "platform/host/sync/thread.h"
#include "platform/host/check/verifier.h"
#include "platform/owners.h"
#include "tests/support/memory_registry.h"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kDiagnosticLines = 40;

// What survives a boot.
struct Lasting {
    support::MemoryRegistry registry;
    std::mutex lock;  // of what follows
    std::map<ULONG, std::vector<UCHAR>> media;
    std::string failures;
    std::string diagnostics;
    std::string step;
};
Lasting gLasting;

// One boot.
struct Boot {
    ULONG index = 0;
    ULONGLONG mark = 0;
    bool failed = false;
    PDRIVER_OBJECT own = nullptr;
};
Boot gBoot;

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

// Called on the thread that broke the rule, while the step may be changing on another.
void NameBrokenRule(const char*, const char*) {
    const std::unique_lock hold(gLasting.lock, std::try_to_lock);
    std::fprintf(stderr, "  boot %u, step \"%s\": the rule above was broken\n", gBoot.index + 1,
                 hold.owns_lock() ? gLasting.step.c_str() : "?");
    host::DumpDebugLines(kDiagnosticLines);
}

}  // namespace

namespace stage {

NTSTATUS LoadDriver(PDRIVER_OBJECT& driver) {
    return host::LoadDriver(DriverToLoad(), u"\\Driver\\kvr", driver);
}

ULONG WaitForDriverThreads() {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (host::RunningSystemThreads() != 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    const ULONG running = host::RunningSystemThreads();
    if (running == 0) host::JoinSystemThreads();
    return running;
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

PUCHAR Medium(ULONG number, SIZE_T bytes) {
    const std::lock_guard hold(gLasting.lock);
    std::vector<UCHAR>& medium = gLasting.media[number];
    medium.resize(bytes);
    return medium.data();
}

std::vector<UCHAR> RegistryValue(const std::u16string& name) {
    const auto found = gLasting.registry.values.find(name);
    return found == gLasting.registry.values.end() ? std::vector<UCHAR>{} : found->second.data;
}

void SetDriverSwitch(const std::u16string& name, ULONG value) {
    const auto* bytes = reinterpret_cast<const UCHAR*>(&value);
    gLasting.registry.values[name] = {REG_DWORD, {bytes, bytes + sizeof(value)}};
}

bool IsFirstBoot() {
    return gBoot.index == 0;
}

LONG PoolBlocks() {
    return static_cast<LONG>(host::PoolUsage(kPoolTag).blocks);
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

void BeginStory() {
    gLasting.media.clear();
    gLasting.registry.values.clear();
    gLasting.failures.clear();
    gLasting.diagnostics.clear();
    gLasting.step.clear();
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
}

void EndBoot() {
    host::DisarmFaults();
    Check(WaitForDriverThreads() == 0, "no thread outlives its boot");
    CheckEqual(host::AssertionCount(), 0, "broken rules of the platform");
    CheckEqual(host::ExecutableMemory(), 0, "requests for executable memory");
    const host::LeakReport left = host::PowerOff();
    CheckEqual(left.memory.irps, 0, "requests that are outstanding");
    CheckEqual(left.memory.mdls, 0, "MDLs that are outstanding");
    CheckEqual(left.memory.lockedMdls, 0, "locked pages that are outstanding");
    (void)host::PoolReclaimAll();
}

const std::string& Failures() {
    return gLasting.failures;
}

const std::string& Diagnostics() {
    return gLasting.diagnostics;
}

}  // namespace stage
