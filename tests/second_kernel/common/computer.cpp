#include "tests/second_kernel/common/computer.h"
#include <new>

namespace {

// Constructed anew in each boot.
alignas(Computer) UCHAR gComputer[sizeof(Computer)];

bool MakeVolumes(Computer* computer) {
    const ComputerOptions& options = computer->Options;
    computer->SystemSectors = stage::Medium(0, kSystemBytes);
    PUCHAR data = stage::Medium(1, options.DataBytes + static_cast<SIZE_T>(kDataStart));
    if (!stage::Check(computer->SystemSectors && data, "the media")) return false;
    computer->DataSectors = data + kDataStart;
    computer->System =
        MakeRamDevice({.Name = SYSTEM_VOLUME, .Sectors = computer->SystemSectors, .Size = kSystemBytes});
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
    return stage::CheckStatus(AddAndStart(computer->Driver, computer->System), STATUS_SUCCESS,
                              "the system volume starts") &&
           stage::CheckStatus(AddAndStart(computer->Driver, computer->Data), STATUS_SUCCESS,
                              "the data volume starts");
}

bool MountVolumes(Computer* computer) {
    auto* systemTable = reinterpret_cast<FileTable*>(stage::Medium(6, sizeof(FileTable)));
    auto* dataTable = reinterpret_cast<FileTable*>(stage::Medium(7, sizeof(FileTable)));
    if (!stage::Check(systemTable && dataTable, "the files' tables")) return false;
    PlayedFiles& system = computer->SystemFiles;
    system.Volume = computer->System;
    system.Table = systemTable;
    system.Begin = kFileUnit;  // a place at 0 would read as none
    system.Units = kSystemBytes / kFileUnit - 1;
    MountFiles(&system);
    PlayedFiles& data = computer->DataFiles;
    data.Volume = computer->Data;
    data.Table = dataTable;
    data.Begin = kRegion;
    data.Units = (computer->Options.DataBytes - kRegion) / kFileUnit;
    data.PieceUnits = computer->Options.PieceUnits;
    data.GapUnits = computer->Options.GapUnits;
    MountFiles(&data);
    stage::SetSystemRoot(SYSTEM_VOLUME W("\\Windows"));
    return true;
}

}  // namespace

NTSTATUS AddAndStart(PDRIVER_OBJECT driver, PDEVICE_OBJECT device) {
    const NTSTATUS added = stage::AddDevice(driver, device);
    if (!stage::CheckStatus(added, STATUS_SUCCESS, "AddDevice")) return added;
    stage::Check(stage::TopOfStack(device) != device, "the filter is attached");
    return SendPnp(stage::TopOfStack(device), IRP_MN_START_DEVICE);
}

Computer* BootComputer(const ComputerOptions& options) {
    stage::Step("boot: load the driver, start the volumes, mount the files");
    Computer* computer = ::new (gComputer) Computer{};
    computer->Options = options;
    if (!stage::CheckStatus(stage::LoadDriver(computer->Driver), STATUS_SUCCESS, "the driver loads"))
        return nullptr;
    computer->Control = computer->Driver->DeviceObject;
    if (!MakeVolumes(computer) || !StartVolumes(computer) || !MountVolumes(computer)) return nullptr;
    return stage::CheckStatus(OpenTool(&computer->User, computer->Control), STATUS_SUCCESS,
                              "the control device opens")
               ? computer
               : nullptr;
}

void WakeComputer(Computer* computer) {
    const ULONG sector = computer->Options.DataSector;
    const Bytes first(sector);
    if (!first) return;
    stage::CheckStatus(ReadAt(TopOfSystem(computer), 0, first.Get(), 512), STATUS_SUCCESS,
                       "the system volume's first read");
    stage::CheckStatus(ReadAt(TopOfData(computer), 0, first.Get(), sector), STATUS_SUCCESS,
                       "the data volume's first read");
}

void EndComputer(Computer* computer) {
    stage::Step("shutdown");
    CloseTool(&computer->User);
    stage::NotifyShutdown();
    EndBoot();
}

void EndBoot() {
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads of the driver that still run");
    stage::CheckEqual(stage::BrokenRules(), 0, "broken rules of the platform");
}

PDEVICE_OBJECT TopOfData(Computer* computer) {
    return stage::TopOfStack(computer->Data);
}

PDEVICE_OBJECT TopOfSystem(Computer* computer) {
    return stage::TopOfStack(computer->System);
}
