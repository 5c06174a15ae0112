#include "tests/second_kernel/common/computer.h"
#include <optional>
#include "platform/host/object/namespace.h"
#include "tests/support/driver_records.h"

namespace {

Computer gComputer;

// The files outlive boots, and the handles to them the end of a boot.
std::optional<PlayedFiles> gSystemFiles;
std::optional<PlayedFiles> gDataFiles;

PlayedFiles* FilesOf(std::optional<PlayedFiles>& files) {
    if (stage::IsFirstBoot()) files.emplace();
    return &*files;
}

bool MakeVolumes(Computer* computer) {
    const ComputerOptions& options = computer->Options;
    PUCHAR data = stage::Medium(1, options.DataBytes + static_cast<SIZE_T>(kDataStart));
    computer->DataSectors = data + kDataStart;
    computer->System =
        MakeRamDevice({.Name = SYSTEM_VOLUME, .Sectors = stage::Medium(0, kSystemBytes), .Size = kSystemBytes});
    RamOptions volume = {.Name = DATA_VOLUME,
                         .Sectors = computer->DataSectors,
                         .Size = options.DataBytes,
                         .SectorSize = options.DataSector};
    if (options.IsDataOnDisk) {
        computer->Disk = MakeRamDevice({.Name = DATA_DISK,
                                        .Sectors = data,
                                        .Size = options.DataBytes + static_cast<ULONGLONG>(kDataStart),
                                        .SectorSize = options.DataSector,
                                        .IsDisk = true});
        if (!computer->Disk || AddAndStart(computer->Driver, computer->Disk) != STATUS_SUCCESS) return false;
        volume.Disk = computer->Disk;
        volume.Start = kDataStart;
    }
    computer->Data = MakeRamDevice(volume);
    return computer->System && computer->Data;
}

bool StartVolumes(Computer* computer) {
    return AddAndStart(computer->Driver, computer->System) == STATUS_SUCCESS &&
           AddAndStart(computer->Driver, computer->Data) == STATUS_SUCCESS;
}

void Reached(Computer* computer, ShutdownStep step) {
    if (computer->AtShutdown) computer->AtShutdown(computer, step);
}

void EndFileSystem(Computer* computer) {
    stage::CheckStatus(SendSimple(TopOfData(computer), IRP_MJ_FLUSH_BUFFERS), STATUS_SUCCESS, "the flush");
    Reached(computer, ShutdownStep::Flushed);
    stage::CheckStatus(host::SendShutdown(computer->Data), STATUS_SUCCESS, "the file system's shutdown");
    Reached(computer, ShutdownStep::Dismounted);
}

void MountVolumes(Computer* computer) {
    const ComputerOptions& options = computer->Options;
    computer->SystemFiles = FilesOf(gSystemFiles);
    computer->SystemFiles->Mount(computer->System, kFileUnit, kSystemBytes);  // a place at 0 would read as none
    computer->DataFiles = FilesOf(gDataFiles);
    computer->DataFiles->PieceBytes = options.PieceBytes;
    computer->DataFiles->GapBytes = options.GapBytes;
    computer->DataFiles->Mount(computer->Data, kRegion, options.DataBytes);
    host::SetSystemRoot(SYSTEM_VOLUME W("\\Windows"));
}

}  // namespace

NTSTATUS AddAndStart(PDRIVER_OBJECT driver, PDEVICE_OBJECT device) {
    const NTSTATUS added = host::AddDeviceToStack(driver, device);
    if (!stage::CheckStatus(added, STATUS_SUCCESS, "AddDevice")) return added;
    stage::Check(host::TopOfStack(device) != device, "the filter is attached");
    return host::SendPnp(device, IRP_MN_START_DEVICE);
}

Computer* BootComputer(const ComputerOptions& options) {
    stage::Step("boot: load the driver, start the volumes, mount the files");
    gComputer = {};
    Computer* computer = &gComputer;
    computer->Options = options;
    if (!stage::CheckStatus(stage::LoadDriver(computer->Driver), STATUS_SUCCESS, "the driver loads"))
        return nullptr;
    computer->Control = computer->Driver->DeviceObject;
    if (!MakeVolumes(computer) || !StartVolumes(computer)) return nullptr;
    MountVolumes(computer);
    return stage::CheckStatus(OpenTool(&computer->User, computer->Control), STATUS_SUCCESS,
                              "the control device opens")
               ? computer
               : nullptr;
}

void WakeComputer(Computer* computer) {
    const ULONG sector = computer->Options.DataSector;
    Bytes first(sector);
    stage::CheckStatus(ReadAt(TopOfSystem(computer), 0, first.data(), 512), STATUS_SUCCESS,
                       "the system volume's first read");
    stage::CheckStatus(ReadAt(TopOfData(computer), 0, first.data(), sector), STATUS_SUCCESS,
                       "the data volume's first read");
}

void EndComputer(Computer* computer) {
    stage::Step("shutdown");
    CloseTool(&computer->User);
    host::NotifyShutdown();
    Reached(computer, ShutdownStep::Notified);
    Reached(computer, ShutdownStep::RegistryWritten);
    if (computer->Data) EndFileSystem(computer);
    host::NotifyLastChance();
    SetPower(computer, PowerSystemShutdown);
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads of the driver that still run");
}

void SetPower(Computer* computer, SYSTEM_POWER_STATE state) {
    POWER_STATE power{};
    power.SystemState = state;
    for (PDEVICE_OBJECT device : {computer->System, computer->Data, computer->Disk}) {
        if (!device) continue;
        stage::CheckStatus(host::SendPower(device, IRP_MN_SET_POWER, SystemPowerState, power), STATUS_SUCCESS,
                           "a power request");
    }
}

PDEVICE_OBJECT TopOfData(Computer* computer) {
    return host::TopOfStack(computer->Data);
}

PDEVICE_OBJECT TopOfSystem(Computer* computer) {
    return host::TopOfStack(computer->System);
}

void MountKernelFiles() {
    PDEVICE_OBJECT device =
        MakeRamDevice({.Name = SYSTEM_VOLUME, .Sectors = stage::Medium(1, kSystemBytes), .Size = kSystemBytes});
    if (!device) return;
    FilesOf(gSystemFiles)->Mount(device, kFileUnit, kSystemBytes);
    host::SetSystemRoot(SYSTEM_VOLUME W("\\Windows"));
}

void RemoveStorage(Computer* computer, LONG blocks) {
    const SWAP_CONFIG_REQUEST request = support::StorageRequest(DATA_VOLUME, 0);
    stage::CheckStatus(Ask(&computer->User, IOCTL_KVR_REMOVE_SWAP, &request, sizeof(request.VolumeName)).status,
                       STATUS_SUCCESS, "the removal");
    const KVR_FIXED_VOLUME_STATUS status = FixedStatus(&computer->User, DATA_VOLUME);
    stage::CheckEqual(status.SwapStatus, 0, "no storage");
    stage::CheckEqual(status.SwapTotalBytes, 0, "no storage");
    stage::Check(computer->DataFiles->All().empty(), "no file is left");
    stage::Check(stage::RegistryValue(DATA_VOLUME).empty(), "no location in the registry");
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads that still run");
    stage::CheckEqual(stage::PoolBlocks(), blocks, "pool blocks");
}
