#include "platform/host/check/injector.h"

#include <cstdio>

#include "platform/host/rtl/debug_sink.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace injector {
std::atomic<bool> armed;
}

namespace {

constexpr unsigned Kinds = static_cast<unsigned>(Fault::Count);
constexpr unsigned Million = 1'000'000;

enum class Mode { Count, Nth, From, Random };

// Written while nothing is armed; atomic because calls that saw the former plan may still be deciding.
struct Plan {
    std::atomic<Mode> mode;
    std::atomic<FaultSet> set;
    std::atomic<ULONGLONG> n;  // Nth and From: the call; Random: the seed
    std::atomic<unsigned> perMillion;
};
Plan plan;
std::atomic<ULONGLONG> callsOfKind[Kinds];
std::atomic<ULONGLONG> callsOfSet;
std::atomic<ULONGLONG> injected;
thread_local int paused = 0;

// A mixing function whose every output bit depends on every input bit.
ULONGLONG Mix(ULONGLONG x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

void Arm(Mode mode, FaultSet set, ULONGLONG n, unsigned perMillion) {
    DisarmFaults();
    for (auto& calls : callsOfKind) calls.store(0, std::memory_order_relaxed);
    callsOfSet.store(0, std::memory_order_relaxed);
    injected.store(0, std::memory_order_relaxed);
    plan.mode.store(mode, std::memory_order_relaxed);
    plan.set.store(set, std::memory_order_relaxed);
    plan.n.store(n, std::memory_order_relaxed);
    plan.perMillion.store(perMillion, std::memory_order_relaxed);
    injector::armed.store(true, std::memory_order_release);
}

bool Chosen(Fault kind, ULONGLONG callOfKind, ULONGLONG callOfSet) {
    const ULONGLONG n = plan.n.load(std::memory_order_relaxed);
    switch (plan.mode.load(std::memory_order_relaxed)) {
        case Mode::Count:
            return false;
        case Mode::Nth:
            return callOfSet == n;
        case Mode::From:
            return callOfSet >= n;
        case Mode::Random:
            return Mix(Mix(n ^ (static_cast<ULONGLONG>(kind) << 56)) + callOfKind) % Million <
                   plan.perMillion.load(std::memory_order_relaxed);
    }
    return false;
}

}  // namespace

const char* FaultName(Fault kind) {
    static const char* const names[Kinds] = {"allocate",  "build request", "allocate MDL", "lock pages",
                                             "map pages", "lower I/O",     "registry",     "file open",
                                             "file I/O",  "thread create", "create device"};
    return kind < Fault::Count ? names[static_cast<unsigned>(kind)] : "unknown";
}

bool injector::Decide(Fault kind) {
    if (paused != 0 || !armed.load(std::memory_order_acquire)) return false;
    const ULONGLONG ofKind =
        callsOfKind[static_cast<unsigned>(kind)].fetch_add(1, std::memory_order_relaxed) + 1;
    if ((plan.set.load(std::memory_order_relaxed) & FaultBit(kind)) == 0) return false;
    const ULONGLONG ofSet = callsOfSet.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!Chosen(kind, ofKind, ofSet)) return false;
    injected.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void CountFaultPoints() {
    Arm(Mode::Count, AllFaults, 0, 0);
}

void FailCall(FaultSet set, ULONGLONG n) {
    Arm(Mode::Nth, set, n, 0);
}

void FailFromCall(FaultSet set, ULONGLONG n) {
    Arm(Mode::From, set, n, 0);
}

void FailRandomly(FaultSet set, ULONGLONG seed, unsigned perMillion) {
    char line[96];
    std::snprintf(line, sizeof line, "faults: seed %llu, set %#x, %u per million", seed, set, perMillion);
    PutDebugLine(line);
    Arm(Mode::Random, set, seed, perMillion);
}

void DisarmFaults() {
    injector::armed.store(false, std::memory_order_release);
}

ULONGLONG FaultCalls(Fault kind) {
    return callsOfKind[static_cast<unsigned>(kind)].load(std::memory_order_relaxed);
}

ULONGLONG FaultCallsOfSet() {
    return callsOfSet.load(std::memory_order_relaxed);
}

ULONGLONG FaultsInjected() {
    return injected.load(std::memory_order_relaxed);
}

FaultPause::FaultPause() {
    ++paused;
}

FaultPause::~FaultPause() {
    --paused;
}

}  // namespace host
