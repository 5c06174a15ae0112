// Requests, their buffers and the devices they go to: each misuse stops the machine with the rule.
#include "host_stub.h"
#include <thread>
#include "platform/host/sync/sync.h"

namespace {

using host::Pages;
using stub::Complete;
using stub::Device;

using HostIrpDeath = stub::Kernel;

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

// How a dispatch routine ends, where that breaks a rule.
stub::Script Ends(bool mark, bool complete, NTSTATUS returned, KIRQL irql = PASSIVE_LEVEL) {
    return [=](PDEVICE_OBJECT, PIRP irp) {
        if (mark) IoMarkIrpPending(irp);
        host::SetIrql(irql);
        if (complete) Complete(irp, STATUS_SUCCESS);
        if (!complete && returned == STATUS_PENDING)
            std::thread([=] { Complete(irp, STATUS_SUCCESS); }).detach();
        return returned;
    };
}

TEST_F(HostIrpDeath, ADeviceKeepsTheRulesOfARequest) {
    char data[8];
    Device bottom(driver, Succeed);
    const auto locks = [](PDEVICE_OBJECT, PIRP irp) {
        MmProbeAndLockPages(irp->MdlAddress, KernelMode, IoReadAccess);
        return Complete(irp, STATUS_SUCCESS);
    };
    const auto unlocks = [](PDEVICE_OBJECT, PIRP irp) {
        MmUnlockPages(irp->MdlAddress);
        return Complete(irp, STATUS_SUCCESS);
    };
    const auto copies = [&](PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        return IofCallDriver(bottom.object, irp);
    };
    const auto skipsTwice = [&](PDEVICE_OBJECT, PIRP irp) {
        IoSkipCurrentIrpStackLocation(irp), IoSkipCurrentIrpStackLocation(irp);
        return IofCallDriver(bottom.object, irp);
    };
    const auto sendsOn = [&](PDEVICE_OBJECT, PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return IofCallDriver(bottom.object, irp);
    };
    const struct {
        const char* rule;
        stub::Script script;
        host::Request request = {};
    } cases[] = {
        {"request completed twice", [](auto, PIRP irp) { return Complete(irp, 0), Complete(irp, 0); }},
        {"request sent after its end", sendsOn},
        {"completed with STATUS_PENDING", [](auto, PIRP irp) { return Complete(irp, STATUS_PENDING); }},
        {"freed while a driver holds it", [](auto, PIRP irp) { return IoFreeIrp(irp), STATUS_SUCCESS; }},
        {"STATUS_PENDING returned for a request not marked pending", Ends(false, true, STATUS_PENDING)},
        {"marked pending, but STATUS_PENDING not returned", Ends(true, true, STATUS_SUCCESS)},
        {"another status than it completed with", Ends(false, true, STATUS_UNSUCCESSFUL)},
        {"neither completed nor pending", Ends(false, false, STATUS_SUCCESS)},
        {"not marked pending", Ends(false, false, STATUS_PENDING)},
        {"a dispatch routine", Ends(false, true, STATUS_SUCCESS, DISPATCH_LEVEL)},
        {"no more stack locations", copies},
        {"skipped twice", skipsTwice},
        {"out of range", Succeed, {.major = IRP_MJ_MAXIMUM_FUNCTION + 1}},
        {"page locks out of balance", locks, {.pages = Pages::Unlocked, .length = 8, .buffer = data}},
        {"page locks out of balance", unlocks, {.pages = Pages::Locked, .length = 8, .buffer = data}},
    };
    for (const auto& c : cases) {
        Device device(driver, c.script);
        EXPECT_DEATH((void)host::Send(device.object, c.request), c.rule);
    }
    EXPECT_DEATH((void)IofCallDriver(bottom.object, IoAllocateIrp(1, FALSE)), "completed past its owner");
    EXPECT_DEATH(Complete(IoAllocateIrp(1, FALSE), STATUS_SUCCESS), "completed that no driver holds");
}

TEST_F(HostIrpDeath, PagesAndDevicesAreTakenAndGivenBackInOrder) {
    char data[10];
    PMDL mdl = IoAllocateMdl(data, 10, FALSE, FALSE, nullptr);
    EXPECT_DEATH(MmUnlockPages(mdl), "unlocked that are not locked");
    EXPECT_DEATH(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), "mapped that are not locked");
    MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
    EXPECT_DEATH(IoFreeMdl(mdl), "freed with locked pages");
    EXPECT_DEATH(MmProbeAndLockPages(mdl, KernelMode, IoReadAccess), "locked twice");
    EXPECT_DEATH(MmBuildMdlForNonPagedPool(mdl), "built twice");
    MmUnlockPages(mdl);
    IoFreeMdl(mdl);

    Device bottom(driver, Succeed);
    Device top(driver, stub::PassDown, bottom.object);
    EXPECT_DEATH(IoDeleteDevice(bottom.object), "deleted under another");
    EXPECT_DEATH(IoDeleteDevice(top.object), "deleted while attached");
    EXPECT_DEATH(IoDetachDevice(top.object), "nothing to detach");
    EXPECT_DEATH((void)IoAttachDeviceToDeviceStack(top.object, bottom.object), "attached twice");
    EXPECT_DEATH(ObfDereferenceObject(bottom.object), "dereferenced too often");
}

}  // namespace
