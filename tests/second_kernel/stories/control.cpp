// The control device: who may open it, and what each code answers to good and bad buffers. The configuration
// goes through the kernel's real file calls.
#include <initializer_list>
#include "platform/host/io/user_mode.h"
#include "tests/second_kernel/common/computer.h"
#include "tests/second_kernel/common/pattern.h"
#include "tests/second_kernel/common/tool.h"
#include "tests/second_kernel/stories/list.h"

namespace {

const WCHAR kText[] = W("[Global]\r\nProtection=0\r\nRVAccessMode=0\r\nFVBootMode=1\r\n");

Tool* Open() {
    static Tool tool;
    stage::Step("load the driver");
    MountKernelFiles();
    PDRIVER_OBJECT driver = nullptr;
    if (!stage::CheckStatus(stage::LoadDriver(driver), STATUS_SUCCESS, "the driver loads")) return nullptr;
    stage::CheckEqual(stage::PoolBlocks(), 0, "pool blocks of a driver that has just been loaded");
    stage::Step("open the control device once, and be refused twice");
    stage::CheckStatus(OpenTool(&tool, driver->DeviceObject), STATUS_SUCCESS, "the first open");
    Tool second;
    for (int i = 0; i < 2; ++i)
        stage::CheckStatus(OpenTool(&second, driver->DeviceObject), STATUS_DEVICE_ALREADY_ATTACHED,
                           "another open");
    CloseTool(&tool);
    stage::CheckStatus(OpenTool(&tool, driver->DeviceObject), STATUS_SUCCESS, "an open after the close");
    return &tool;
}

// A device is made open to everybody; this one is not, from user mode.
void TryPrograms() {
    stage::Step("programs with and without an administrator's rights");
    constexpr host::Token user = {false}, administrator = {true};
    const struct {
        host::Program program;
        NTSTATUS status;
    } cases[] = {{{user}, STATUS_ACCESS_DENIED},
                 {{administrator}, STATUS_SUCCESS},
                 {{user, &administrator}, STATUS_SUCCESS},
                 {{administrator, &user}, STATUS_ACCESS_DENIED},
                 {{administrator, &administrator, SecurityIdentification}, STATUS_ACCESS_DENIED}};
    for (const auto& c : cases) {
        const host::Program before = host::SetProgram(c.program);
        PFILE_OBJECT file = nullptr;
        stage::CheckStatus(host::OpenDevice(u"\\DosDevices\\kvr", FILE_READ_DATA, file), c.status,
                           "a program's open of the control device");
        if (file) host::CloseDevice(file);
        (void)host::SetProgram(before);
    }
}

void SendForeignRequests(Tool* tool) {
    stage::Step("requests that the control device does not take");
    PDEVICE_OBJECT control = tool->Device;
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_PNP, IRP_MJ_SHUTDOWN})
        stage::CheckStatus(SendSimple(control, static_cast<UCHAR>(major), &tool->File),
                           STATUS_INVALID_DEVICE_REQUEST, "a request that only volumes take");
    stage::CheckStatus(Ask(tool, 0x84FFC).status, STATUS_INVALID_PARAMETER, "an unknown code");
    stage::CheckStatus(Ask(tool, IOCTL_KVR_DEBUG).status, STATUS_SUCCESS, "the debug code");
    stage::CheckEqual(stage::TimesSaid("Kvr!KvrDebug {"), 1, "what the debug code says");
    stage::CheckEqual(stage::TimesSaid("Kvr!KvrDebug }"), 1, "what the debug code says");
}

struct BufferCase {
    ULONG Code;
    ULONG InputLength;
    ULONG OutputLength;
    NTSTATUS Status;
};
constexpr NTSTATUS kBad = STATUS_INVALID_PARAMETER;
const BufferCase kBuffers[] = {
    {IOCTL_KVR_GET_CONFIG, 0, 0, kBad},
    {IOCTL_KVR_GET_CONFIG, 0, KVR_CONFIG_BYTES - 1, kBad},
    {IOCTL_KVR_GET_CONFIG, 0, KVR_CONFIG_BYTES + 1, kBad},
    {IOCTL_KVR_SET_CONFIG, 0, 0, kBad},
    {IOCTL_KVR_SET_CONFIG, KVR_CONFIG_BYTES - 1, 0, kBad},
    {IOCTL_KVR_SET_CONFIG, KVR_CONFIG_BYTES + 1, 0, kBad},
    {IOCTL_KVR_GET_ENABLED, 0, 0, kBad},
    {IOCTL_KVR_GET_ENABLED, 0, 3, kBad},
    {IOCTL_KVR_GET_ENABLED, 0, 8, kBad},
    {IOCTL_KVR_GET_FIXED_VOLUMES, 0, 0, kBad},
    {IOCTL_KVR_GET_REMOVABLE_VOLUMES, 0, 0, kBad},
    {IOCTL_KVR_ALLOCATE_SWAP, 0, 0, kBad},
    {IOCTL_KVR_ALLOCATE_SWAP, sizeof(SWAP_CONFIG_REQUEST) - 1, 0, kBad},
    {IOCTL_KVR_REMOVE_SWAP, 0, 0, kBad},
    {IOCTL_KVR_REMOVE_SWAP, sizeof(SWAP_CONFIG_REQUEST::VolumeName) - 1, 0, kBad},
    {IOCTL_KVR_STOP_SWAP_THREAD, 0, 0, STATUS_SUCCESS},
};

void TryBuffers(Tool* tool) {
    stage::Step("truncated and oversized buffers");
    Bytes input(KVR_CONFIG_BYTES + 1);
    Bytes output(KVR_CONFIG_BYTES + 1);
    for (const BufferCase& test : kBuffers) {
        const host::Outcome reply =
            Ask(tool, test.Code, input.data(), test.InputLength, output.data(), test.OutputLength);
        stage::Check(reply.status == test.Status, "a code with such a buffer", static_cast<ULONG>(reply.status),
                     test.Code);
        stage::CheckEqual(reply.information, 0, "bytes that a refused request reports");
    }
    stage::Check(!IsEnabled(tool), "protection is off");
}

void WriteConfiguration(Tool* tool) {
    stage::Step("a missing configuration file");
    Bytes image(KVR_CONFIG_BYTES);
    const host::Outcome missing = Ask(tool, IOCTL_KVR_GET_CONFIG, nullptr, 0, image.data(), KVR_CONFIG_BYTES);
    stage::CheckStatus(missing.status, STATUS_NO_SUCH_FILE, "reading a configuration that is not there");
    stage::Step("write the configuration and read it back");
    stage::CheckStatus(SetConfig(tool, kText), STATUS_SUCCESS, "writing the configuration");
    stage::Check(IsConfig(tool, kText), "the configuration reads as it was written");
    stage::CheckStatus(SetConfig(tool, W("[Global]\r\n")), STATUS_SUCCESS, "a shorter text");
    stage::Check(IsConfig(tool, W("[Global]\r\n")), "nothing is left of the longer one");
}

void Control() {
    Tool* tool = Open();
    if (!tool) return;
    CloseTool(tool);
    TryPrograms();
    stage::CheckStatus(OpenTool(tool, tool->Device), STATUS_SUCCESS,
                       "whom it refused, it does not count as open");
    SendForeignRequests(tool);
    TryBuffers(tool);
    WriteConfiguration(tool);
    CloseTool(tool);
    stage::CheckEqual(stage::PoolBlocks(), 0, "pool blocks at the end");
}

}  // namespace

const Story kControlStory = {"control", "the control device and the configuration file", {Control}};
