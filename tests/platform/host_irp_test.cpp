// Requests, their buffers and the devices they go to: each misuse stops the machine with the rule.
#include "host_stub.h"
#include <thread>
#include "platform/host/sync/sync.h"

namespace {

using host::Request;
using host::Send;
using stub::Complete;
using stub::Device;
using stub::PassDown;

class HostIrpDeath : public stub::Kernel {
protected:
    // A request that such a device answers stops the machine.
    void ExpectStop(stub::Script script, const char* rule, const Request& request = {}) const {
        Device device(driver, std::move(script));
        EXPECT_DEATH((void)Send(device.object, request), rule);
    }
};

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

TEST_F(HostIrpDeath, ARequestEndsOnce) {
    Device bottom(driver, Succeed);
    const auto twice = [](PDEVICE_OBJECT, PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return Complete(irp, STATUS_SUCCESS);
    };
    const auto sendsOn = [&](PDEVICE_OBJECT, PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return IofCallDriver(bottom.object, irp);
    };
    const auto frees = [](PDEVICE_OBJECT, PIRP irp) {
        IoFreeIrp(irp);
        return STATUS_SUCCESS;
    };
    const auto unfinished = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_PENDING); };
    ExpectStop(twice, "request completed twice");
    ExpectStop(sendsOn, "request sent after its end");
    ExpectStop(unfinished, "completed with STATUS_PENDING");
    ExpectStop(frees, "freed while a driver holds it");
    EXPECT_DEATH((void)IofCallDriver(bottom.object, IoAllocateIrp(1, FALSE)), "completed past its owner");
    EXPECT_DEATH(Complete(IoAllocateIrp(1, FALSE), STATUS_SUCCESS), "completed that no driver holds");
}

TEST_F(HostIrpDeath, AnswersMustMatchTheEnd) {
    const struct {
        bool mark, complete;
        NTSTATUS returned;
        KIRQL irql;
        const char* rule;
    } cases[] = {{false, true, STATUS_PENDING, PASSIVE_LEVEL,
                  "STATUS_PENDING returned for a request not marked pending"},
                 {true, true, STATUS_SUCCESS, PASSIVE_LEVEL, "marked pending, but STATUS_PENDING not returned"},
                 {false, true, STATUS_UNSUCCESSFUL, PASSIVE_LEVEL, "another status than it completed with"},
                 {false, false, STATUS_SUCCESS, PASSIVE_LEVEL, "neither completed nor pending"},
                 {false, false, STATUS_PENDING, PASSIVE_LEVEL, "not marked pending"},
                 {false, true, STATUS_SUCCESS, DISPATCH_LEVEL, "a dispatch routine"}};
    for (const auto& c : cases) {
        const auto answer = [&](PDEVICE_OBJECT, PIRP irp) {
            if (c.mark) IoMarkIrpPending(irp);
            host::SetIrql(c.irql);
            if (c.complete) Complete(irp, STATUS_SUCCESS);
            if (!c.complete && c.returned == STATUS_PENDING)
                std::thread([=] { Complete(irp, STATUS_SUCCESS); }).detach();
            return c.returned;
        };
        ExpectStop(answer, c.rule);
    }
}

TEST_F(HostIrpDeath, StackLocationsAreCounted) {
    Device bottom(driver, Succeed);
    const auto copies = [&](PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        return IofCallDriver(bottom.object, irp);
    };
    const auto skipsTwice = [&](PDEVICE_OBJECT, PIRP irp) {
        IoSkipCurrentIrpStackLocation(irp);
        IoSkipCurrentIrpStackLocation(irp);
        return IofCallDriver(bottom.object, irp);
    };
    ExpectStop(copies, "no more stack locations");
    ExpectStop(skipsTwice, "skipped twice");
    ExpectStop(Succeed, "out of range", {.major = IRP_MJ_MAXIMUM_FUNCTION + 1});
}

TEST_F(HostIrpDeath, PagesAreLockedAndGivenBackInBalance) {
    using host::Pages;
    char data[10];
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
    for (const Pages pages : {Pages::Unlocked, Pages::Locked}) {
        const auto turns = [=](PDEVICE_OBJECT, PIRP irp) {
            if (pages == Pages::Unlocked)
                MmProbeAndLockPages(irp->MdlAddress, KernelMode, IoReadAccess);
            else
                MmUnlockPages(irp->MdlAddress);
            return Complete(irp, STATUS_SUCCESS);
        };
        ExpectStop(turns, "page locks out of balance", {.pages = pages, .length = 8, .buffer = data});
    }
}

TEST_F(HostIrpDeath, StacksAreTakenDownFromTheTop) {
    Device bottom(driver, Succeed);
    Device top(driver, PassDown, bottom.object);
    EXPECT_DEATH(IoDeleteDevice(bottom.object), "deleted under another");
    EXPECT_DEATH(IoDeleteDevice(top.object), "deleted while attached");
    EXPECT_DEATH(IoDetachDevice(top.object), "nothing to detach");
    EXPECT_DEATH((void)IoAttachDeviceToDeviceStack(top.object, bottom.object), "attached twice");
    EXPECT_DEATH(ObfDereferenceObject(bottom.object), "dereferenced too often");
    top.Delete();
    // Deleted but referenced: the memory is there, and a second deletion is seen.
    PDEVICE_OBJECT object = IoGetAttachedDeviceReference(bottom.object);
    bottom.Delete();
    EXPECT_DEATH(IoDeleteDevice(object), "deleted twice");
    ObfDereferenceObject(object);
}

}  // namespace
