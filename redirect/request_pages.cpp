#include "redirect/request_io.h"

namespace {

// A buffer that may be touched at any IRQL as it is: its pages are resident.
bool NeedsLock(PMDL mdl) {
    return mdl && !(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL));
}

}  // namespace

void RequestPages::Lock(PIRP request) {
    PIRP master = (request->Flags & IRP_ASSOCIATED_IRP) ? request->AssociatedIrp.MasterIrp : nullptr;
    if (master && NeedsLock(master->MdlAddress)) {
        MmProbeAndLockPages(master->MdlAddress, KernelMode, IoReadAccess);
        m_master = master->MdlAddress;
    }
    if (NeedsLock(request->MdlAddress)) {
        MmProbeAndLockPages(request->MdlAddress, KernelMode, IoReadAccess);
        m_own = request->MdlAddress;
    }
}

PVOID RequestPages::Map(PIRP request) {
    if (!request->MdlAddress) return nullptr;
    return MmGetSystemAddressForMdlSafe(request->MdlAddress, MappingPriority());
}

void RequestPages::Unlock() {
    if (m_own) MmUnlockPages(m_own);
    if (m_master) MmUnlockPages(m_master);
    m_own = nullptr;
    m_master = nullptr;
}
