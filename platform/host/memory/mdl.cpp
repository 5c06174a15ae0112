#include "platform/host/memory/mdl.h"
#include "platform/host/memory/pool.h"
#include <cstdlib>
#include "platform/host/check/injector.h"
#include "platform/host/io/thread_io.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {

// The host's part of an MDL, directly before it.
struct HostMdl {
    static constexpr ULONG kLive = 0x6c644d48, kFree = 0x65657246;
    ULONG magic;
    bool bad;
    HostMdl* NextFree;
    MDL mdl;
};

namespace {

HostMdl* OwnerOf(PMDL mdl, const char* routine) {
    HostMdl* own = CONTAINING_RECORD(mdl, HostMdl, mdl);
    if (mdl == nullptr || own->magic != HostMdl::kLive)
        Violation("MDL used after its end", "%s: MDL %p", routine, static_cast<void*>(mdl));
    return own;
}

PVOID AddressOf(const MDL* mdl) {
    return static_cast<char*>(mdl->StartVa) + mdl->ByteOffset;
}

constexpr CSHORT kResident = MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL;

}  // namespace

PMDL NewMdl(PVOID address, ULONG length) {
    constexpr ULONG_PTR kPageMask = 0xfff;
    ThreadIo& io = ThisThreadIo();
    HostMdl* own = io.mdls.Take();
    if (own == nullptr) own = static_cast<HostMdl*>(std::malloc(sizeof(HostMdl)));
    if (own == nullptr) throw std::bad_alloc();
    io.mdlCount.Add(1);
    const auto start = reinterpret_cast<ULONG_PTR>(address);
    *own = {HostMdl::kLive, false, nullptr, {}};
    own->mdl.Size = sizeof(MDL);
    own->mdl.StartVa = reinterpret_cast<PVOID>(start & ~kPageMask);
    own->mdl.ByteOffset = static_cast<ULONG>(start & kPageMask);
    own->mdl.ByteCount = length;
    return &own->mdl;
}

void MarkMdlBad(PMDL mdl) {
    OwnerOf(mdl, "MarkMdlBad")->bad = true;
}

void LockMdl(PMDL mdl) {
    OwnerOf(mdl, "MmProbeAndLockPages");
    if ((mdl->MdlFlags & kResident) != 0)
        Violation("pages locked twice", "MDL %p, flags 0x%x", static_cast<void*>(mdl), mdl->MdlFlags);
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
    ThisThreadIo().lockedCount.Add(1);
}

void FreeCachedMdls(ThreadIo& io) {
    while (HostMdl* own = io.mdls.Take()) std::free(own);
}

}  // namespace host

PMDL IoAllocateMdl(PVOID address, ULONG length, BOOLEAN secondary, BOOLEAN, PIRP irp) {
    if (host::InjectFault(host::Fault::AllocateMdl)) return nullptr;
    PMDL mdl = host::WithinMemory(PMDL{}, [&] { return host::NewMdl(address, length); });
    if (irp == nullptr || mdl == nullptr) return mdl;
    PMDL* link = &irp->MdlAddress;
    while (secondary && *link != nullptr) link = &(*link)->Next;
    *link = mdl;
    return mdl;
}

void IoFreeMdl(PMDL mdl) {
    host::HostMdl* own = host::OwnerOf(mdl, "IoFreeMdl");
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0)
        host::Violation("MDL freed with locked pages", "MDL %p", static_cast<void*>(mdl));
    own->magic = host::HostMdl::kFree;
    host::ThreadIo& io = host::ThisThreadIo();
    io.mdlCount.Add(-1);
    if (!io.mdls.Put(own)) std::free(own);
}

void MmBuildMdlForNonPagedPool(PMDL mdl) {
    host::OwnerOf(mdl, "MmBuildMdlForNonPagedPool");
    if ((mdl->MdlFlags & host::kResident) != 0)
        host::Violation("MDL built twice", "MDL %p, flags 0x%x", static_cast<void*>(mdl), mdl->MdlFlags);
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    mdl->MappedSystemVa = host::AddressOf(mdl);
}

void MmProbeAndLockPages(PMDL mdl, KPROCESSOR_MODE, LOCK_OPERATION) {
    host::RequireIrql("MmProbeAndLockPages", APC_LEVEL);
    const bool bad = host::OwnerOf(mdl, "MmProbeAndLockPages")->bad;
    if (host::InjectFault(host::Fault::LockPages) || bad) ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    host::LockMdl(mdl);
}

void MmUnlockPages(PMDL mdl) {
    host::OwnerOf(mdl, "MmUnlockPages");
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) == 0)
        host::Violation("pages unlocked that are not locked", "MDL %p", static_cast<void*>(mdl));
    mdl->MdlFlags &= static_cast<CSHORT>(~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA));
    host::ThisThreadIo().lockedCount.Add(-1);
}

PVOID MmGetSystemAddressForMdlSafe(PMDL mdl, ULONG priority) {
    host::OwnerOf(mdl, "MmGetSystemAddressForMdlSafe");
    if ((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0)
        return mdl->MappedSystemVa;
    if ((mdl->MdlFlags & host::kResident) == 0)
        host::Violation("pages mapped that are not locked", "MDL %p", static_cast<void*>(mdl));
    if (host::InjectFault(host::Fault::MapPages)) return nullptr;
    if ((priority & MdlMappingNoExecute) == 0) host::NoteExecutableMemory();
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = host::AddressOf(mdl);
    return mdl->MappedSystemVa;
}
