// Devices come, start, are named and go: volumes and disks, fixed and removable, with small and large sectors;
// and the driver keeps those that it cannot do without.
#include <initializer_list>
#include "tests/second_kernel/common/completer.h"
#include "tests/second_kernel/common/computer.h"
#include "tests/second_kernel/stories/list.h"

namespace {

#define REMOVABLE_VOLUME W("\\Device\\StoryRemovable")
#define LISTED_VOLUME W("\\Device\\StoryListed")
#define HIDDEN_VOLUME W("\\Device\\StoryHidden")
#define LARGE_VOLUME W("\\Device\\StoryLarge")
#define FILTERED_VOLUME W("\\Device\\StoryFiltered")

constexpr ULONG kSmallBytes = kMiB;

PDEVICE_OBJECT MakeSmall(const WCHAR* name, bool removable = false, USHORT sector = 512) {
    return MakeRamDevice({.Name = name,
                          .Sectors = stage::Medium(2, kSmallBytes),
                          .Size = kSmallBytes,
                          .SectorSize = sector,
                          .IsRemovable = removable});
}

void Remove(PDEVICE_OBJECT device, const char* what) {
    stage::CheckStatus(host::SendPnp(device, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS, what);
    stage::CheckEqual(RamOf(device)->ArrivedPnp[IRP_MN_REMOVE_DEVICE], 1, "removals that reached the device");
    const PDEVICE_OBJECT top = host::TopOfStack(device);
    if (stage::Check(top->DriverObject == device->DriverObject, "the driver's filter has left the stack"))
        DeleteRamDevice(device);
}

void CheckFlags(PDEVICE_OBJECT device) {
    stage::Step("flags of the filter");
    PDEVICE_OBJECT filter = host::TopOfStack(device);
    stage::Check((filter->Flags & DO_DIRECT_IO) != 0, "direct transfers", filter->Flags);
    stage::Check((filter->Flags & DO_DEVICE_INITIALIZING) == 0, "no longer being initialised", filter->Flags);
    stage::Check((filter->Flags & DO_POWER_PAGABLE) != 0, "pageable power code", filter->Flags);
    stage::CheckEqual(filter->StackSize, static_cast<ULONGLONG>(device->StackSize) + 1, "stack locations");
    stage::CheckEqual(filter->SectorSize, device->SectorSize, "sector size");
    stage::CheckEqual(filter->DeviceType, FILE_DEVICE_DISK, "device type");
}

// Nothing is configured: what goes in arrives as it is, and comes back.
void PassTransfers(PDEVICE_OBJECT device) {
    stage::Step("transfers of an unprotected volume");
    const ULONG length = 4 * device->SectorSize;
    Bytes data(length);
    Bytes back(length);
    PDEVICE_OBJECT top = host::TopOfStack(device);
    FillPattern(data.data(), length, 0, 11);
    stage::CheckStatus(WriteAt(top, length, data.data(), length), STATUS_SUCCESS, "a write");
    stage::Check(IsSame(RamOf(device)->Sectors + length, data.data(), length), "the write is on the device");
    const host::Outcome reply = SendTransfer(top, {IRP_MJ_READ, length, back.data(), length});
    stage::CheckStatus(reply.status, STATUS_SUCCESS, "a read");
    stage::CheckEqual(reply.information, length, "bytes read");
    stage::Check(IsSame(back.data(), data.data(), length), "what was read");
    stage::CheckStatus(ReadAt(top, kSmallBytes, back.data(), length), STATUS_INVALID_PARAMETER,
                       "a read behind the end");
}

void PassOthers(PDEVICE_OBJECT device) {
    stage::Step("flush, power, Plug and Play and opens of an unprotected volume");
    PDEVICE_OBJECT top = host::TopOfStack(device);
    const RamDevice* ram = RamOf(device);
    FILE_OBJECT file;
    InitializeFile(&file, device, W(""));
    stage::CheckStatus(SendSimple(top, IRP_MJ_CREATE, &file), STATUS_SUCCESS, "an open");
    stage::CheckEqual(ram->Arrived[IRP_MJ_CREATE], 0,
                      "opens that reached the device: the filter answers for itself");
    for (const int major : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_FLUSH_BUFFERS})
        stage::CheckStatus(SendSimple(top, static_cast<UCHAR>(major), &file), STATUS_SUCCESS, "a request");
    stage::CheckEqual(ram->Arrived[IRP_MJ_FLUSH_BUFFERS], 1, "flushes that reached the device");
    stage::CheckStatus(
        host::SendPower(device, IRP_MN_SET_POWER, DevicePowerState, {.DeviceState = PowerDeviceD3}),
        STATUS_SUCCESS, "a power request");
    stage::CheckEqual(ram->Arrived[IRP_MJ_POWER], 1, "power requests that reached the device");
    stage::Check(stage::TimesSaid("Kvr!KvrPower: ") != 0, "power requests are told of");
    for (const bool comes : {true, false}) {
        stage::CheckStatus(host::SendUsage(device, DeviceUsageTypePaging, comes), STATUS_SUCCESS,
                           "a paging file comes or goes");
        stage::CheckEqual((top->Flags & DO_POWER_PAGABLE) == 0, comes, "the filter is resident meanwhile");
    }
    stage::CheckStatus(host::SendPnp(top, IRP_MN_QUERY_CAPABILITIES), STATUS_NOT_SUPPORTED,
                       "what nobody touched");
    stage::CheckStatus(host::SendControl(top, {IOCTL_DISK_IS_WRITABLE}).status, STATUS_SUCCESS,
                       "a device control");
    stage::CheckEqual(ram->Arrived[IRP_MJ_DEVICE_CONTROL], 1, "device controls that reached the device");
    stage::CheckStatus(host::SendPnp(top, IRP_MN_QUERY_REMOVE_DEVICE), STATUS_SUCCESS, "a query for removal");
    stage::CheckEqual(ram->ArrivedPnp[IRP_MN_QUERY_REMOVE_DEVICE], 1, "queries that reached the device");
}

void AddInrush(Computer* computer) {
    stage::Step("a device that needs power at once");
    PDEVICE_OBJECT device = MakeSmall(W("\\Device\\StoryInrush"));
    if (!device) return;
    device->Flags |= DO_POWER_INRUSH;
    stage::CheckStatus(AddAndStart(computer->Driver, device), STATUS_SUCCESS, "start");
    const ULONG flags = host::TopOfStack(device)->Flags;
    stage::Check((flags & DO_POWER_INRUSH) && !(flags & DO_POWER_PAGABLE), "the filter's power flags", flags);
    Remove(device, "removal");
}

// The name is found further down the stack.
void AddBelowFilter(Computer* computer) {
    stage::Step("a volume below a filter without a name");
    PDEVICE_OBJECT device = MakeSmall(FILTERED_VOLUME);
    if (!device || !AddPassingFilter(device)) return;
    stage::CheckStatus(AddAndStart(computer->Driver, device), STATUS_SUCCESS, "start");
    stage::Check(host::TopOfStack(device)->DriverObject == computer->Driver, "the driver's filter is on top");
    stage::CheckEqual(FixedStatus(&computer->User, FILTERED_VOLUME).State, 0, "the volume is named");
    PassTransfers(device);
    Remove(device, "removal");
}

void PlayDevice(Computer* computer, PDEVICE_OBJECT device) {
    if (!device) return;
    stage::Step("a device whose start takes its time");
    {
        const PendedCompletions pend;
        stage::CheckStatus(AddAndStart(computer->Driver, device), STATUS_SUCCESS, "the device starts");
    }
    stage::CheckEqual(RamOf(device)->ArrivedPnp[IRP_MN_START_DEVICE], 1, "starts that reached the device");
    CheckFlags(device);
    PassTransfers(device);
    PassOthers(device);
}

// ---- the boots -------------------------------------------------------------------------------------------

void Unprotected() {
    Computer* computer = BootComputer({.DataBytes = 16 * kMiB});
    if (!computer) return;
    PDEVICE_OBJECT large = MakeSmall(LARGE_VOLUME, false, 4096);
    PDEVICE_OBJECT removable = MakeSmall(REMOVABLE_VOLUME, true);
    PlayDevice(computer, large);
    PlayDevice(computer, removable);
    if (stage::Failed()) return;
    stage::Check((host::TopOfStack(removable)->Characteristics & FILE_REMOVABLE_MEDIA) != 0,
                 "the filter is removable too");
    stage::CheckEqual(RemovableStatus(&computer->User, REMOVABLE_VOLUME).AccessMode, 0, "and not protected");
    AddInrush(computer);
    AddBelowFilter(computer);
    stage::Step("removal");
    Remove(large, "the large volume goes");
    Remove(removable, "the removable volume goes");
    stage::Step("write the configuration");
    stage::CheckStatus(SetConfig(&computer->User, W("[Global]\r\nProtection=1\r\nRVAccessMode=1\r\n"
                                                    "[RV 1]\r\nID=\\Device\\StoryListed\r\nAccessMode=1\r\n"
                                                    "[RV 2]\r\nID=\\Device\\StoryHidden\r\nAccessMode=2\r\n")),
                       STATUS_SUCCESS, "the configuration");
    EndComputer(computer);
    stage::CheckEqual(stage::PoolBlocks(), 0, "pool blocks at the end");
}

void PlayProtectedRemovable(Computer* computer, const WCHAR* name, NTSTATUS start, ULONG mode) {
    PDEVICE_OBJECT device = MakeSmall(name, true);
    if (!device) return;
    stage::CheckStatus(AddAndStart(computer->Driver, device), start, "the removable volume's start");
    stage::CheckEqual(RemovableStatus(&computer->User, name).AccessMode, mode, "its access mode");
    Bytes data(512);
    stage::CheckStatus(WriteAt(host::TopOfStack(device), 0, data.data(), 512), STATUS_MEDIA_WRITE_PROTECTED,
                       "a write to it");
    stage::CheckEqual(RamOf(device)->Arrived[IRP_MJ_WRITE], 0, "writes that reached the device");
    Remove(device, "it goes");
}

void Protected() {
    Computer* computer = BootComputer({.DataBytes = 16 * kMiB});
    if (!computer) return;
    WakeComputer(computer);
    stage::Step("protection is on");
    if (!stage::Check(IsEnabled(&computer->User), "protection is on")) return;
    const LONG blocks = stage::PoolBlocks();
    stage::CheckEqual(blocks, 2, "pool blocks: the listed volumes");
    stage::Step("removable volumes: listed, hidden, by default");
    PlayProtectedRemovable(computer, LISTED_VOLUME, STATUS_SUCCESS, 1);
    PlayProtectedRemovable(computer, HIDDEN_VOLUME, STATUS_ACCESS_DENIED, 2);
    PlayProtectedRemovable(computer, REMOVABLE_VOLUME, STATUS_SUCCESS, 1);
    stage::Step("the data volume may go");
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads that still run");
    Remove(computer->Data, "the removal");
    computer->Data = nullptr;
    stage::CheckEqual(stage::PoolBlocks(), blocks, "pool blocks");
    EndComputer(computer);
}

}  // namespace

const Story kPlugAndPlayStory = {"plug_and_play", "devices come, start and go", {Unprotected, Protected}};
