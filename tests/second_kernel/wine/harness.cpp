// The harness driver: a control device through which the runner has one boot of a story played.
#include <initializer_list>
#include "image.h"
#include "media.h"
#include "outcome.h"
#include "protocol.h"
#include "rules_story.h"
#include "shim.h"
#include "tool_story.h"
#include "tests/second_kernel/stage.h"
#include "tests/second_kernel/stories/list.h"

namespace {

PDEVICE_OBJECT gControl;
PIRP gPlaying;  // the request whose boot is being played; one in a process's life

const Story* FindStory(const char* name) {
    for (const Story* story : kStories)
        if (shim::SameText(story->name, name)) return story;
    for (const Story* story : {&kRulesStory, &kToolStory})
        if (shim::SameText(story->name, name)) return story;
    return nullptr;
}

void Complete(PIRP request, NTSTATUS status, ULONG_PTR information) {
    request->IoStatus.Status = status;
    request->IoStatus.Information = information;
    shim::CompleteUserRequest(request);
}

// The text that still fits behind what is in the answer already.
void AppendText(STORY_OUTCOME* answer, ULONG room, const char* text, ULONG bytes) {
    if (bytes > room - answer->TextLength) bytes = room - answer->TextLength;
    RtlCopyMemory(reinterpret_cast<char*>(answer + 1) + answer->TextLength, text, bytes);
    answer->TextLength += bytes;
}

ULONG Describe(const Story& story, STORY_OUTCOME* answer, ULONG room) {
    const shim::Outcome outcome = shim::EndOutcome();
    *answer = {story.bootCount, outcome.checks, outcome.failures, 0};
    room -= sizeof(*answer);
    AppendText(answer, room, outcome.text, outcome.textBytes);
    if (outcome.failures != 0) {
        static constexpr char title[] = "the driver's last lines before the first of these:\n";
        AppendText(answer, room, title, sizeof(title) - 1);
        AppendText(answer, room, outcome.lines, outcome.lineBytes);
    }
    return sizeof(*answer) + answer->TextLength;
}

void PlayBoot(const Story& story, ULONG boot) {
    shim::BeginOutcome(story.name, boot);
    shim::PrepareMedia();
    story.boots[boot]();
    stage::Step("end of the boot");
    (void)stage::CheckEqual(static_cast<ULONGLONG>(shim::OutstandingRequests()), 0, "requests not freed");
    (void)stage::CheckEqual(static_cast<ULONGLONG>(shim::OutstandingMdls()), 0, "MDLs not freed");
    shim::SaveMedia();
}

void NTAPI Play(PVOID) {
    PVOID buffer = gPlaying->AssociatedIrp.SystemBuffer;
    const STORY_PLAY wanted = *static_cast<STORY_PLAY*>(buffer);
    auto* answer = static_cast<STORY_OUTCOME*>(buffer);
    const Story* story = FindStory(wanted.Name);
    ULONG bytes = sizeof(*answer);
    if (!story || wanted.Boot >= story->bootCount) {
        *answer = {};
    } else {
        PlayBoot(*story, wanted.Boot);
        bytes = Describe(*story, answer,
                         IoGetCurrentIrpStackLocation(gPlaying)->Parameters.DeviceIoControl.OutputBufferLength);
    }
    Complete(gPlaying, STATUS_SUCCESS, bytes);
    (void)PsTerminateSystemThread(STATUS_SUCCESS);
}

bool IsPlayable(PIO_STACK_LOCATION location) {
    const auto& control = location->Parameters.DeviceIoControl;
    return control.IoControlCode == static_cast<ULONG>(IOCTL_STORY_PLAY) &&
           control.InputBufferLength == sizeof(STORY_PLAY) &&
           control.OutputBufferLength >= sizeof(STORY_OUTCOME);
}

NTSTATUS NTAPI OpenOrClose(PDEVICE_OBJECT, PIRP request) {
    Complete(request, STATUS_SUCCESS, 0);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Control(PDEVICE_OBJECT, PIRP request) {
    if (gPlaying || !IsPlayable(IoGetCurrentIrpStackLocation(request))) {
        Complete(request, STATUS_INVALID_DEVICE_REQUEST, 0);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    gPlaying = request;
    IoMarkIrpPending(request);
    HANDLE thread = nullptr;
    const NTSTATUS status =
        PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Play, nullptr);
    if (NT_SUCCESS(status)) {
        (void)ZwClose(thread);
    } else {
        Complete(request, status, 0);
    }
    return STATUS_PENDING;
}

NTSTATUS CreateControl(PDRIVER_OBJECT driver) {
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, L"\\Device\\kvrstory");
    RtlInitUnicodeString(&link, L"\\DosDevices\\kvrstory");
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &gControl);
    return NT_SUCCESS(status) ? IoCreateSymbolicLink(&link, &name) : status;
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    NTSTATUS status = shim::Install(driver);
    if (!NT_SUCCESS(status)) return status;
    status = CreateControl(driver);
    if (!NT_SUCCESS(status)) return status;
    driver->MajorFunction[IRP_MJ_CREATE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    gControl->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}
