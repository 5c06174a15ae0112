// Pool and memory descriptor lists. Wine's pool is complete; it is counted here and filled, so that nothing
// depends on what it held before. Wine does not lock pages and maps none.
#include <atomic>
#include "faults.h"
#include "irql.h"
#include "platform/owners.h"
#include "raise.h"
#include "shim.h"

namespace shim {
namespace {

constexpr UCHAR kUnusedFill = 0xA5;
constexpr CSHORT kResident = MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL;

decltype(&ExAllocatePoolWithTag) gKernelAllocate;
decltype(&ExFreePoolWithTag) gKernelFree;
decltype(&IoAllocateMdl) gKernelAllocateMdl;
decltype(&IoFreeMdl) gKernelFreeMdl;

std::atomic<LONG> gPoolBlocks{0};
std::atomic<LONG> gMdls{0};

PVOID NTAPI Allocate(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    RequireIrql(type == NonPagedPool ? DISPATCH_LEVEL : APC_LEVEL, "pool asked for at too high an IRQL",
                SHIM_CALLER);
    if (ShallFail(stage::Fault::Allocate, SHIM_CALLER)) return nullptr;
    PVOID block = gKernelAllocate(type, bytes, tag);
    if (!block) return nullptr;
    RtlFillMemory(block, bytes, kUnusedFill);
    if (tag == kPoolTag) ++gPoolBlocks;
    return block;
}

void NTAPI Free(PVOID block, ULONG tag) {
    RequireIrql(DISPATCH_LEVEL, "pool freed at too high an IRQL", SHIM_CALLER);
    if (!block) return BrokenRule("pool: null freed", SHIM_CALLER);
    if (tag == kPoolTag) --gPoolBlocks;
    gKernelFree(block, tag);
}

void NTAPI LockPages(PMDL mdl, KPROCESSOR_MODE, LOCK_OPERATION) {
    RequireIrql(APC_LEVEL, "pages locked at too high an IRQL", SHIM_CALLER);
    if (ShallFail(stage::Fault::LockPages, SHIM_CALLER)) Raise(STATUS_ACCESS_VIOLATION);
    if (mdl->MdlFlags & kResident) BrokenRule("pages locked twice", SHIM_CALLER);
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
}

void NTAPI UnlockPages(PMDL mdl) {
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED)) BrokenRule("pages unlocked that are not locked", SHIM_CALLER);
    mdl->MdlFlags &= static_cast<CSHORT>(~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA));
}

// Every address is mapped as it is: there is one address space.
PVOID NTAPI MapPages(PMDL mdl, KPROCESSOR_MODE, MEMORY_CACHING_TYPE, PVOID, ULONG, ULONG) {
    if (!(mdl->MdlFlags & kResident)) BrokenRule("pages mapped that are not locked", SHIM_CALLER);
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}

void NTAPI BuildForPool(PMDL mdl) {
    if (mdl->MdlFlags & kResident) BrokenRule("MDL built twice", SHIM_CALLER);
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

PMDL NTAPI AllocateMdl(PVOID address, ULONG length, BOOLEAN secondary, BOOLEAN quota, PIRP request) {
    PMDL mdl = gKernelAllocateMdl(address, length, secondary, quota, request);
    if (mdl) ++gMdls;
    return mdl;
}

void NTAPI FreeMdl(PMDL mdl) {
    --gMdls;
    if (mdl->MdlFlags & MDL_PAGES_LOCKED) BrokenRule("MDL freed with locked pages", SHIM_CALLER);
    gKernelFreeMdl(mdl);
}

const Replacement kReplacements[] = {
    {"ExAllocatePoolWithTag", reinterpret_cast<PVOID>(Allocate), reinterpret_cast<PVOID*>(&gKernelAllocate)},
    {"ExFreePoolWithTag", reinterpret_cast<PVOID>(Free), reinterpret_cast<PVOID*>(&gKernelFree)},
    {"MmProbeAndLockPages", reinterpret_cast<PVOID>(LockPages), nullptr},
    {"MmUnlockPages", reinterpret_cast<PVOID>(UnlockPages), nullptr},
    {"MmMapLockedPagesSpecifyCache", reinterpret_cast<PVOID>(MapPages), nullptr},
    {"MmBuildMdlForNonPagedPool", reinterpret_cast<PVOID>(BuildForPool), nullptr},
    {"IoAllocateMdl", reinterpret_cast<PVOID>(AllocateMdl), reinterpret_cast<PVOID*>(&gKernelAllocateMdl)},
    {"IoFreeMdl", reinterpret_cast<PVOID>(FreeMdl), reinterpret_cast<PVOID*>(&gKernelFreeMdl)},
};

}  // namespace

Replacements MemoryReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

LONG OutstandingMdls() {
    return gMdls;
}

}  // namespace shim

LONG stage::PoolBlocks() {
    return shim::gPoolBlocks;
}
