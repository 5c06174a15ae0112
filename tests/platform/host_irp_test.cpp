// The way of a request through a stack of devices: who sees it, who keeps it, and what stops the machine.
#include "host_stub.h"
#include <thread>
#include "platform/host/injector.h"
#include "platform/host/sync.h"

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

NTSTATUS Keep(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends the request on, waits for it, and leaves it to the caller to complete.
NTSTATUS Forward(PDEVICE_OBJECT device, PIRP irp) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, Keep, &event, TRUE, TRUE, TRUE);
    NTSTATUS status = IofCallDriver(stub::Of(device).target, irp);
    if (status != STATUS_PENDING) return status;
    EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr));
    return irp->IoStatus.Status;
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

TEST_F(HostIrp, SkippedLocationGivesTheLowerDeviceTheSameRequest) {
    FILE_OBJECT original{}, onStack{};
    char data[64];
    Device bottom(driver, [&](PDEVICE_OBJECT device, PIRP irp) {
        PIO_STACK_LOCATION at = IoGetCurrentIrpStackLocation(irp);
        EXPECT_EQ(bottom.object, device);
        EXPECT_EQ(device, at->DeviceObject);
        EXPECT_EQ(IRP_MJ_WRITE, at->MajorFunction);
        EXPECT_EQ(4096, at->Parameters.Write.ByteOffset.QuadPart);
        EXPECT_EQ(&onStack, at->FileObject);
        EXPECT_EQ(&original, irp->Tail.Overlay.OriginalFileObject);
        EXPECT_EQ(data, MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
        return Complete(irp, STATUS_SUCCESS, at->Parameters.Write.Length);
    });
    Device middle(driver, PassDown, bottom.object);
    Device top(driver, PassDown, bottom.object);
    EXPECT_EQ(3, top.object->StackSize);
    const Outcome outcome = Send(top.object, {.major = IRP_MJ_WRITE,
                                              .length = sizeof data,
                                              .offset = 4096,
                                              .buffer = data,
                                              .originalFile = &original,
                                              .stackFile = &onStack});
    EXPECT_EQ(STATUS_SUCCESS, outcome.status);
    EXPECT_EQ(sizeof data, outcome.information);
    top.Delete();
    middle.Delete();
}

TEST_F(HostIrp, KeptRequestBelongsToTheFilterAgain) {
    NTSTATUS lower = STATUS_SUCCESS;
    stub::Pender pender;
    bool pend = false;
    Device bottom(driver, [&](PDEVICE_OBJECT device, PIRP irp) {
        return pend ? pender.Pend()(device, irp) : Complete(irp, lower, 7);
    });
    Device filter(
        driver,
        [&](PDEVICE_OBJECT device, PIRP irp) {
            const NTSTATUS status = Forward(device, irp);
            EXPECT_EQ(7u, irp->IoStatus.Information);
            EXPECT_EQ(device, IoGetCurrentIrpStackLocation(irp)->DeviceObject);
            return Complete(irp, status, 8);
        },
        bottom.object);
    EXPECT_EQ(8u, Send(filter.object, Request{}).information);
    lower = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, Send(filter.object, Request{}).status);
    pend = true;
    std::thread finisher([&] { pender.Finish(STATUS_NO_SUCH_DEVICE, 7); });
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, Send(filter.object, Request{}).status);
    finisher.join();
    filter.Delete();
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

// A filter may give the request another end than the devices below did, and go on with requests of its own in
// the memory of the one that it has completed.
TEST_F(HostIrp, EachDispatchRoutineIsJudgedByItsOwnEnd) {
    Device bottom(driver, Answer(STATUS_IO_DEVICE_ERROR));
    Device other(driver, Answer(STATUS_SUCCESS));
    Device asDeep(driver, Answer(STATUS_IO_DEVICE_ERROR), other.object);
    Device filter(
        driver,
        [&](PDEVICE_OBJECT device, PIRP irp) {
            EXPECT_EQ(STATUS_IO_DEVICE_ERROR, Forward(device, irp));
            Complete(irp, STATUS_SUCCESS);
            EXPECT_EQ(STATUS_IO_DEVICE_ERROR, Send(asDeep.object, Request{}).status);
            return STATUS_SUCCESS;
        },
        bottom.object);
    EXPECT_EQ(STATUS_SUCCESS, Send(filter.object, Request{}).status);
    Outcome end{STATUS_PENDING, 0};
    host::SendAsync(
        filter.object, Request{}, [](void* to, Outcome o) { *static_cast<Outcome*>(to) = o; }, &end);
    EXPECT_EQ(STATUS_SUCCESS, end.status);
    filter.Delete();
    asDeep.Delete();

    Device marks(driver, [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        Complete(irp, STATUS_SUCCESS, 3);
        return STATUS_PENDING;
    });
    EXPECT_EQ(3u, Send(marks.object, Request{}).information);
}

TEST_F(HostIrp, ExceptionLeavingADispatchRoutineEndsTheRequest) {
    char data[16];
    Device device(driver, [](PDEVICE_OBJECT, PIRP irp) {
        MmProbeAndLockPages(irp->MdlAddress, KernelMode, IoReadAccess);
        return Complete(irp, STATUS_SUCCESS);
    });
    const auto send = [&] {
        return Send(device.object, {.pages = host::Pages::Bad, .length = sizeof data, .buffer = data}).status;
    };
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, TryExcept(send));
    EXPECT_EQ(0, host::CountOutstanding().irps);
    EXPECT_EQ(0, host::CountOutstanding().mdls);
}

TEST_F(HostIrp, BuiltTransferIsReleasedByWhoeverEndsIt) {
    char data[512];
    NTSTATUS answer = STATUS_SUCCESS;
    Device disk(driver, [&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_NE(0, irp->MdlAddress->MdlFlags & MDL_PAGES_LOCKED);
        return Complete(irp, answer, 512);
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
    // An error at once is told by the call alone.
    answer = STATUS_IO_DEVICE_ERROR;
    iosb.Information = 99;
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, IofCallDriver(disk.object, build()));
    EXPECT_EQ(99u, iosb.Information);

    host::FailCall(host::FaultBit(host::Fault::BuildRequest), 1);
    EXPECT_EQ(nullptr, build());
    host::DisarmFaults();
}

TEST_F(HostIrp, BufferedControlCopiesWhatWasReportedUnlessItFailed) {
    constexpr ULONG code = CTL_CODE(8, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
    NTSTATUS answer = STATUS_SUCCESS;
    ULONG_PTR information = 4;
    stub::Pender pender;
    Device device(driver, [&](PDEVICE_OBJECT at, PIRP irp) {
        auto* buffer = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
        EXPECT_EQ("in", std::string(buffer, 2));
        std::fill_n(buffer, 8, 'o');
        return answer == STATUS_PENDING ? pender.Pend()(at, irp) : Complete(irp, answer, information);
    });
    const auto control = [&] {
        char output[9] = "........";
        EXPECT_EQ(answer,
                  host::SendControl(
                      device.object,
                      {.code = code, .input = "in", .inputLength = 2, .output = output, .outputLength = 8})
                      .status);
        return std::string(output);
    };
    EXPECT_EQ("oooo....", control());
    answer = STATUS_BUFFER_OVERFLOW;
    information = 8;
    EXPECT_EQ("oooooooo", control());
    answer = STATUS_UNSUCCESSFUL;
    EXPECT_EQ("........", control());
    answer = STATUS_SUCCESS;
    information = 9;
    EXPECT_DEATH(control(), "more bytes reported than the buffer has");

    // What a driver builds for itself: an end on another thread sets its event, even an error.
    answer = STATUS_PENDING;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    char both[8] = {'i', 'n'};
    PIRP irp =
        IoBuildDeviceIoControlRequest(code, device.object, both, 2, both, sizeof both, FALSE, &event, &iosb);
    EXPECT_EQ(STATUS_PENDING, IofCallDriver(device.object, irp));
    EXPECT_EQ(0, KeReadStateEvent(&event));
    pender.Finish(STATUS_UNSUCCESSFUL);
    EXPECT_NE(0, KeReadStateEvent(&event));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, iosb.Status);
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
    const auto dies = [&](stub::Script script, const char* rule) {
        Device device(driver, std::move(script));
        EXPECT_DEATH((void)Send(device.object, Request{}), rule);
    };
    dies(
        [](PDEVICE_OBJECT, PIRP irp) {
            Complete(irp, STATUS_SUCCESS);
            return STATUS_PENDING;
        },
        "STATUS_PENDING returned for a request not marked pending");
    dies(
        [](PDEVICE_OBJECT, PIRP irp) {
            IoMarkIrpPending(irp);
            return Complete(irp, STATUS_SUCCESS);
        },
        "marked pending, but STATUS_PENDING not returned");
    dies(
        [](PDEVICE_OBJECT, PIRP irp) {
            Complete(irp, STATUS_SUCCESS);
            return STATUS_UNSUCCESSFUL;
        },
        "another status than it completed with");
    dies([](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }, "neither completed nor pending");
    dies(
        [](PDEVICE_OBJECT, PIRP irp) {
            std::thread([=] { Complete(irp, STATUS_SUCCESS); }).detach();
            return STATUS_PENDING;
        },
        "not marked pending");
    dies(
        [](PDEVICE_OBJECT, PIRP irp) {
            host::SetIrql(DISPATCH_LEVEL);
            return Complete(irp, STATUS_SUCCESS);
        },
        "a dispatch routine");
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
