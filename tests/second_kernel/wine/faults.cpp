#include "faults.h"
#include <atomic>
#include "shim.h"

namespace shim {
namespace {

// Armed and ended by the story while the driver's threads run.
std::atomic<bool> gArmed{false};
std::atomic<stage::Fault> gKind{};
std::atomic<ULONG> gNumber{0};
std::atomic<ULONG> gCalls{0};

}  // namespace

bool ShallFail(stage::Fault kind, const void* caller) {
    if (!gArmed || gKind != kind || !IsDriverCode(caller)) return false;
    return ++gCalls == gNumber;
}

}  // namespace shim

void stage::FailCall(Fault kind, ULONG n) {
    shim::gArmed = false;
    shim::gKind = kind;
    shim::gNumber = n;
    shim::gCalls = 0;
    shim::gArmed = true;
}

ULONG stage::EndFault() {
    shim::gArmed = false;
    return shim::gCalls;
}

// The driver's calls are known by the import table that they come through.
stage::OwnWork::OwnWork() {}
stage::OwnWork::~OwnWork() {}
