#include "platform/host/check/injector.h"

#include "platform/host/check/verifier.h"

namespace host {
namespace injector {
std::atomic<bool> gArmed;
}

namespace {

constexpr unsigned kKinds = static_cast<unsigned>(Fault::Count);

enum class Mode { Count, Nth, From };

// Written while nothing is armed; atomic because calls that saw the former plan may still be deciding.
struct Plan {
    std::atomic<Mode> mode;
    std::atomic<FaultSet> set;
    std::atomic<ULONGLONG> n;  // Nth and From: the call
};
Plan gPlan;
std::atomic<ULONGLONG> gCallsOfKind[kKinds];
std::atomic<ULONGLONG> gCallsOfSet;
std::atomic<ULONGLONG> gInjected;
thread_local int gPaused = 0;

void Arm(Mode mode, FaultSet set, ULONGLONG n) {
    DisarmFaults();
    for (auto& calls : gCallsOfKind) calls.store(0, std::memory_order_relaxed);
    gCallsOfSet.store(0, std::memory_order_relaxed);
    gInjected.store(0, std::memory_order_relaxed);
    gPlan.mode.store(mode, std::memory_order_relaxed);
    gPlan.set.store(set, std::memory_order_relaxed);
    gPlan.n.store(n, std::memory_order_relaxed);
    injector::gArmed.store(true, std::memory_order_release);
}

bool Chosen(ULONGLONG callOfSet) {
    const ULONGLONG n = gPlan.n.load(std::memory_order_relaxed);
    switch (gPlan.mode.load(std::memory_order_relaxed)) {
        case Mode::Count:
            return false;
        case Mode::Nth:
            return callOfSet == n;
        case Mode::From:
            return callOfSet >= n;
    }
    return false;
}

}  // namespace

const char* FaultName(Fault kind) {
    static const char* const names[kKinds] = {"allocate",  "build request", "allocate MDL", "lock pages",
                                              "map pages", "lower I/O",     "registry",     "file open",
                                              "file I/O",  "thread create", "create device"};
    return kind < Fault::Count ? names[static_cast<unsigned>(kind)] : "unknown";
}

bool injector::Decide(Fault kind) {
    if (gPaused != 0 || !gArmed.load(std::memory_order_acquire)) return false;
    gCallsOfKind[static_cast<unsigned>(kind)].fetch_add(1, std::memory_order_relaxed);
    if ((gPlan.set.load(std::memory_order_relaxed) & FaultBit(kind)) == 0) return false;
    const ULONGLONG ofSet = gCallsOfSet.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!Chosen(ofSet)) return false;
    gInjected.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void CountFaultPoints() {
    Arm(Mode::Count, kAllFaults, 0);
}

void FailCall(FaultSet set, ULONGLONG n) {
    Arm(Mode::Nth, set, n);
}

void FailFromCall(FaultSet set, ULONGLONG n) {
    Arm(Mode::From, set, n);
}

void DisarmFaults() {
    injector::gArmed.store(false, std::memory_order_release);
}

ULONGLONG FaultCalls(Fault kind) {
    return gCallsOfKind[static_cast<unsigned>(kind)].load(std::memory_order_relaxed);
}

ULONGLONG FaultsInjected() {
    return gInjected.load(std::memory_order_relaxed);
}

FaultPause::FaultPause() {
    ++gPaused;
}

FaultPause::~FaultPause() {
    --gPaused;
}

}  // namespace host
