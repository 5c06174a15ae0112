// Buffers of requests: locking and mapping in their order, in balance, and failing when asked to.
#include "host_stub.h"
#include "platform/host/check/injector.h"
#include "platform/host/memory/mdl.h"
#include "platform/host/sync/sync.h"

namespace {

using host::Pages;
using host::Send;
using stub::Complete;
using stub::Device;

class HostMdl : public stub::Kernel {
protected:
    char data[5000];
};
using HostMdlDeath = HostMdl;

TEST_F(HostMdl, LocksMapsAndGivesBack) {
    PMDL mdl = IoAllocateMdl(data + 3, 4000, FALSE, FALSE, nullptr);
    EXPECT_EQ(4000u, MmGetMdlByteCount(mdl));
    EXPECT_EQ(data + 3, static_cast<char*>(mdl->StartVa) + mdl->ByteOffset);
    MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
    EXPECT_EQ(1, host::CountOutstanding().lockedMdls);
    host::FailCall(host::FaultBit(host::Fault::MapPages), 1);
    EXPECT_EQ(nullptr, MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    EXPECT_EQ(data + 3, MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    host::DisarmFaults();
    MmUnlockPages(mdl);
    EXPECT_EQ(0, mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA));

    host::FailCall(host::FaultBit(host::Fault::LockPages), 1);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryExcept([&]() -> NTSTATUS {
                  MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
                  return STATUS_SUCCESS;
              }));
    host::DisarmFaults();
    EXPECT_EQ(0, mdl->MdlFlags & MDL_PAGES_LOCKED);
    IoFreeMdl(mdl);
}

TEST_F(HostMdlDeath, MisuseStops) {
    PMDL mdl = IoAllocateMdl(data, 10, FALSE, FALSE, nullptr);
    EXPECT_DEATH(MmUnlockPages(mdl), "unlocked that are not locked");
    EXPECT_DEATH(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), "mapped that are not locked");
    EXPECT_DEATH(
        {
            host::SetIrql(DISPATCH_LEVEL);
            MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
        },
        "MmProbeAndLockPages");
    MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
    EXPECT_DEATH(IoFreeMdl(mdl), "freed with locked pages");
    EXPECT_DEATH(MmProbeAndLockPages(mdl, KernelMode, IoReadAccess), "locked twice");
    EXPECT_DEATH(MmBuildMdlForNonPagedPool(mdl), "built twice");
    MmUnlockPages(mdl);
    IoFreeMdl(mdl);

    Device forgets(driver, [](PDEVICE_OBJECT, PIRP irp) {
        MmProbeAndLockPages(irp->MdlAddress, KernelMode, IoReadAccess);
        return Complete(irp, STATUS_SUCCESS);
    });
    Device steals(driver, [](PDEVICE_OBJECT, PIRP irp) {
        MmUnlockPages(irp->MdlAddress);
        return Complete(irp, STATUS_SUCCESS);
    });
    const auto send = [&](Device& device, Pages pages) {
        (void)Send(device.object, {.pages = pages, .length = 8, .buffer = data});
    };
    EXPECT_DEATH(send(forgets, Pages::Unlocked), "page locks out of balance");
    EXPECT_DEATH(send(steals, Pages::Locked), "page locks out of balance");
}

}  // namespace
