// The one injector for every fault that the host kernel can make. Each call that may fail asks
// InjectFault(kind) once, before it has any effect; a true answer means "fail now".
//
// A plan is armed for a set of kinds: the n-th call fails, or every call from the n-th on.
// One plan at a time; arming starts all counts at 0. Arm and disarm from one thread.
#pragma once
#include <atomic>
#include "platform/host/nt/ntdef.h"

namespace host {

enum class Fault : unsigned {
    Allocate,      // ExAllocatePoolWithTag
    BuildRequest,  // IoAllocateIrp, IoBuildAsynchronousFsdRequest, IoBuildDeviceIoControlRequest
    AllocateMdl,
    LockPages,  // MmProbeAndLockPages raises
    MapPages,   // MmGetSystemAddressForMdlSafe gives null
    LowerIo,    // a request that reaches a disk fails
    Registry,
    FileOpen,  // ZwCreateFile
    FileIo,    // ZwReadFile, ZwWriteFile
    ThreadCreate,
    CreateDevice,  // IoCreateDevice, IoCreateSymbolicLink, IoAttachDeviceToDeviceStack
    Count
};
const char* FaultName(Fault kind);

using FaultSet = unsigned;  // bit n is kind n
inline constexpr FaultSet kAllFaults = (1u << static_cast<unsigned>(Fault::Count)) - 1;
constexpr FaultSet FaultBit(Fault kind) {
    return 1u << static_cast<unsigned>(kind);
}

// Counts and fails nothing: how far a sweep has to go.
void CountFaultPoints();
// The n-th call (from 1) of the kinds in `set`, counted together, fails; all others succeed.
void FailCall(FaultSet set, ULONGLONG n);
// The n-th call and every later one fail, as when memory stays short.
void FailFromCall(FaultSet set, ULONGLONG n);
void DisarmFaults();

// Since the plan was armed; they keep their values after DisarmFaults.
ULONGLONG FaultCalls(Fault kind);
ULONGLONG FaultsInjected();

// While one lives, calls of this thread neither fail nor count: for what a device or a file system of the
// machine does on its own account, so that a plan only meets calls made for the driver.
class FaultPause {
public:
    FaultPause();
    ~FaultPause();
    FaultPause(const FaultPause&) = delete;
    FaultPause& operator=(const FaultPause&) = delete;
};

namespace injector {
extern std::atomic<bool> gArmed;
bool Decide(Fault kind);
}  // namespace injector

[[nodiscard]] inline bool InjectFault(Fault kind) {
    return injector::gArmed.load(std::memory_order_relaxed) && injector::Decide(kind);
}

}  // namespace host
