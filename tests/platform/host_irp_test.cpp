// The way of a request through a stack of devices: who sees it, who keeps it, and what stops the machine.
#include "host_stub.h"
#include <thread>
#include "platform/host/sync/sync.h"

namespace {

using host::Outcome;
using host::Request;
using host::Send;
using stub::Complete;
using stub::Device;
using stub::PassDown;

class HostIrp : public stub::Kernel {};
using HostIrpDeath = HostIrp;

std::string gSeen;  // which completion routines ran

NTSTATUS Note(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    gSeen += static_cast<const char*>(context);
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

stub::Script Answer(NTSTATUS status, ULONG_PTR information = 0) {
    return [=](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, status, information); };
}

stub::Script CopyDown(const char* note, BOOLEAN success, BOOLEAN error, BOOLEAN cancel) {
    return [=](PDEVICE_OBJECT device, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, Note, const_cast<char*>(note), success, error, cancel);
        return IofCallDriver(stub::Of(device).target, irp);
    };
}

TEST_F(HostIrp, CompletionRoutinesRunUpwardsOnWhatTheyAskedFor) {
    NTSTATUS answer = STATUS_SUCCESS;
    bool cancel = false;
    Device bottom(driver, [&](PDEVICE_OBJECT, PIRP irp) {
        irp->Cancel = cancel;
        return Complete(irp, answer);
    });
    Device onError(driver, CopyDown("e", FALSE, TRUE, FALSE), bottom.object);
    Device onCancel(driver, CopyDown("c", FALSE, FALSE, TRUE), bottom.object);
    Device onSuccess(driver, CopyDown("s", TRUE, FALSE, FALSE), bottom.object);
    const auto seen = [&](NTSTATUS status, bool cancelled) {
        answer = status;
        cancel = cancelled;
        gSeen.clear();
        EXPECT_EQ(status, Send(onSuccess.object, Request{}).status);
        return gSeen;
    };
    EXPECT_EQ("s", seen(STATUS_SUCCESS, false));
    EXPECT_EQ("e", seen(STATUS_IO_DEVICE_ERROR, false));
    EXPECT_EQ("ec", seen(STATUS_UNSUCCESSFUL, true));
    onSuccess.Delete();
    onCancel.Delete();
    onError.Delete();
}

TEST_F(HostIrp, PendingTravelsUpThroughFiltersOfEveryKind) {
    stub::Pender pender;
    Device bottom(driver, pender.Pend());
    Device copies(driver, CopyDown("x", FALSE, FALSE, FALSE), bottom.object);
    Device notes(driver, CopyDown("n", TRUE, TRUE, FALSE), bottom.object);
    Device skips(driver, PassDown, bottom.object);
    gSeen.clear();
    std::thread finisher([&] { pender.Finish(STATUS_SUCCESS, 5); });
    EXPECT_EQ(5u, Send(skips.object, Request{}).information);
    finisher.join();
    EXPECT_EQ("n", gSeen);

    Outcome late{STATUS_PENDING, 0};
    host::SendAsync(
        skips.object, Request{}, [](void* to, Outcome end) { *static_cast<Outcome*>(to) = end; }, &late);
    EXPECT_EQ(STATUS_PENDING, late.status);
    pender.Finish(STATUS_UNSUCCESSFUL);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, late.status);
    skips.Delete();
    notes.Delete();
    copies.Delete();
}

TEST_F(HostIrp, BuiltTransferIsReleasedByWhoeverEndsIt) {
    char data[512];
    Device disk(driver, [&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_NE(0, irp->MdlAddress->MdlFlags & MDL_PAGES_LOCKED);
        return Complete(irp, STATUS_SUCCESS, 512);
    });
    LARGE_INTEGER offset{};
    IO_STATUS_BLOCK iosb{};
    const auto build = [&] {
        return IoBuildAsynchronousFsdRequest(IRP_MJ_READ, disk.object, data, sizeof data, &offset, &iosb);
    };
    const auto release = [](PDEVICE_OBJECT, PIRP irp, PVOID) {
        host::ReleaseMdls(irp);
        IoFreeIrp(irp);
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    PIRP irp = build();
    IoSetCompletionRoutine(irp, release, nullptr, TRUE, TRUE, TRUE);
    EXPECT_EQ(STATUS_SUCCESS, IofCallDriver(disk.object, irp));
    EXPECT_EQ(0u, iosb.Information);
    EXPECT_EQ(STATUS_SUCCESS, IofCallDriver(disk.object, build()));
    EXPECT_EQ(512u, iosb.Information);
}

TEST_F(HostIrpDeath, ARequestEndsOnce) {
    Device twice(driver, [](PDEVICE_OBJECT, PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return Complete(irp, STATUS_SUCCESS);
    });
    EXPECT_DEATH((void)Send(twice.object, Request{}), "request completed twice");
    Device sendsOn(driver, [&](PDEVICE_OBJECT, PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return IofCallDriver(twice.object, irp);
    });
    EXPECT_DEATH((void)Send(sendsOn.object, Request{}), "request sent after its end");
    Device unfinished(driver, [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_PENDING); });
    EXPECT_DEATH((void)Send(unfinished.object, Request{}), "completed with STATUS_PENDING");
    Device frees(driver, [](PDEVICE_OBJECT, PIRP irp) {
        IoFreeIrp(irp);
        return STATUS_SUCCESS;
    });
    EXPECT_DEATH((void)Send(frees.object, Request{}), "freed while a driver holds it");
    Device bottom(driver, Answer(STATUS_SUCCESS));
    EXPECT_DEATH(
        {
            PIRP irp = IoAllocateIrp(1, FALSE);
            (void)IofCallDriver(bottom.object, irp);
        },
        "completed past its owner");
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
        Device device(driver, [&](PDEVICE_OBJECT, PIRP irp) {
            if (c.mark) IoMarkIrpPending(irp);
            host::SetIrql(c.irql);
            if (c.complete) Complete(irp, STATUS_SUCCESS);
            if (!c.complete && c.returned == STATUS_PENDING)
                std::thread([=] { Complete(irp, STATUS_SUCCESS); }).detach();
            return c.returned;
        });
        EXPECT_DEATH((void)Send(device.object, Request{}), c.rule);
    }
}

TEST_F(HostIrpDeath, StackLocationsAreCounted) {
    Device bottom(driver, Answer(STATUS_SUCCESS));
    Device filter(driver, CopyDown("x", FALSE, FALSE, FALSE), bottom.object);
    EXPECT_DEATH(
        {
            host::SyncRequest small(host::NewIrp(1, nullptr, nullptr));
            (void)small.Call(filter.object);
        },
        "no more stack locations");
    Device skipsTwice(driver, [&](PDEVICE_OBJECT, PIRP irp) {
        IoSkipCurrentIrpStackLocation(irp);
        IoSkipCurrentIrpStackLocation(irp);
        return IofCallDriver(bottom.object, irp);
    });
    EXPECT_DEATH((void)Send(skipsTwice.object, Request{}), "skipped twice");
    EXPECT_DEATH((void)Send(bottom.object, {.major = IRP_MJ_MAXIMUM_FUNCTION + 1}), "out of range");
    filter.Delete();
}

}  // namespace
