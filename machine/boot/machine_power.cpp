#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "machine/boot/machine.h"
#include "platform/host/check/host_memory.h"
#include <chrono>
#include <thread>
#include "platform/host/object/namespace.h"
#include "platform/owners.h"
#include "platform/host/object/registry_store.h"
#include "platform/host/sync/thread.h"

namespace machine {
namespace {

void KeepFirstFailure(NTSTATUS& result, NTSTATUS status) {
    if (NT_SUCCESS(result)) result = status;
}

}  // namespace

void Machine::StopDisks() {
    for (DiskSlot& slot : disks_) {
        if (slot.device != nullptr) slot.device->Stop();
    }
}

void Machine::EndStepping() {
    for (DiskSlot& slot : disks_) {
        if (slot.device != nullptr && slot.completion == Completion::Stepped) {
            slot.device->SetCompletion(Completion::Pended);
        }
    }
}

void Machine::Dismount(Volume& volume, NTSTATUS& result) {
    if (volume.files == nullptr) return;
    host::UnmountProvider(volume.device->Device());
    KeepFirstFailure(result, volume.files->Dismount());
    const host::FaultPause pause;
    if (PDEVICE_OBJECT device = volume.device->Vpb()->DeviceObject) {
        volume.device->Vpb()->DeviceObject = nullptr;
        IoDeleteDevice(device);
    }
}

void Machine::SendPowerOff() {
    POWER_STATE state{};
    state.SystemState = PowerSystemShutdown;
    const auto send = [&](PDEVICE_OBJECT device) {
        KVR_DISCARD(host::SendPower(device, IRP_MN_SET_POWER, SystemPowerState, state),
                    "a set-power request cannot be refused");
    };
    for (const auto& [number, volume] : boot_->volumes) send(volume->device->Device());
    for (DiskSlot& slot : disks_) {
        if (slot.device != nullptr) send(slot.device->Device());
    }
}

void Machine::Reached(ShutdownStep step) const {
    if (options_.atShutdown) options_.atShutdown(step);
}

// A shutdown takes its time on the platform: a thread that the driver has just started gets to run while its
// file systems still answer. One that works on for long is not waited for.
void Machine::LetThreadsFinish() {
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (host::RunningSystemThreads() != 0 && std::chrono::steady_clock::now() < latest)
        std::this_thread::yield();
}

ShutdownReport Machine::Shutdown() {
    ShutdownReport report;
    if (IsOn()) LetThreadsFinish();
    on_.store(false, std::memory_order_release);
    EndStepping();
    const std::unique_lock hold(use_);
    if (boot_ == nullptr) return report;
    host::NotifyShutdown();
    // The disks' filters may be gone now; who goes on writing must not meet them.
    for (const auto& [number, volume] : boot_->volumes) volume->device->Retarget();
    Reached(ShutdownStep::Notified);
    report.registry = host::Insist("the registry", [&] { return options_.registry->Flush(); });
    Reached(ShutdownStep::RegistryWritten);
    for (const auto& [number, volume] : boot_->volumes) Dismount(*volume, report.dismount);
    Reached(ShutdownStep::Dismounted);
    host::NotifyLastChance();
    Reached(ShutdownStep::LastChance);
    SendPowerOff();
    report.threads = host::JoinSystemThreads();
    for (const auto& [number, volume] : boot_->volumes) volume->device->DropTargets();
    EndBoot(report);
    return report;
}

void Machine::PowerCut() {
    on_.store(false, std::memory_order_release);
    power_->Cut();
    StopDisks();
    const std::unique_lock hold(use_);
    if (boot_ == nullptr) return;
    for (const auto& [number, volume] : boot_->volumes) {
        volume->io->Close();
        if (volume->files == nullptr) continue;
        host::UnmountProvider(volume->device->Device());
        volume->files->Abandon();
    }
    host::JoinSystemThreads();
    for (const auto& [number, volume] : boot_->volumes) volume->device->DropTargets();
    ShutdownReport ignored;
    EndBoot(ignored);
}

ShutdownReport Machine::Reboot(NTSTATUS& booted) {
    ShutdownReport report = Shutdown();
    booted = PowerOn();
    return report;
}

// File systems outlive the handles to their files, devices' C++ parts outlive the device objects.
void Machine::EndBoot(ShutdownReport& report) {
    StopDisks();
    report.leaks = host::PowerOff();
    report.pool = host::Insist("the report of the pool", host::PoolReclaimAll);
    host::SetRegistryStore(nullptr);
    boot_.reset();
    for (DiskSlot& slot : disks_) slot.device.reset();
    options_.registry->DropUnflushed();
    power_->Restore();
}

// ---- removal ---------------------------------------------------------------------------------------------

NTSTATUS Machine::QueryRemove(const std::vector<PDEVICE_OBJECT>& devices) {
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const NTSTATUS status = host::SendPnp(devices[i], IRP_MN_QUERY_REMOVE_DEVICE);
        if (NT_SUCCESS(status)) continue;
        // The one that refused is told as well, as on the platform.
        for (std::size_t asked = 0; asked <= i; ++asked) {
            KVR_DISCARD(host::SendPnp(devices[asked], IRP_MN_CANCEL_REMOVE_DEVICE),
                        "a cancel cannot be refused");
        }
        return status;
    }
    return STATUS_SUCCESS;
}

void Machine::Remove(Volume& volume) {
    NTSTATUS ignored = STATUS_SUCCESS;
    Dismount(volume, ignored);
    KVR_DISCARD(ignored, "a volume that goes is gone whatever could still be written");
    const unsigned number = volume.device->Number();
    const PDEVICE_OBJECT device = volume.device->Device();
    KVR_DISCARD(host::SendPnp(device, IRP_MN_REMOVE_DEVICE), "the removal was agreed to");
    volume.device->DropTargets();
    volume.io->Close();
    IoDeleteDevice(device);
    // What handles still refer to stays until the boot ends.
    boot_->removed.push_back(std::move(boot_->volumes.at(number)));
    boot_->volumes.erase(number);
}

NTSTATUS Machine::RemoveVolume(unsigned number) {
    const std::unique_lock hold(use_);
    Volume* volume = VolumeOf(number);
    if (!IsOn() || volume == nullptr) return STATUS_NO_SUCH_DEVICE;
    const NTSTATUS status = QueryRemove({volume->device->Device()});
    if (NT_SUCCESS(status)) Remove(*volume);
    return status;
}

NTSTATUS Machine::RemoveDisk(unsigned number) {
    const std::unique_lock hold(use_);
    DiskDevice* disk = DiskOf(number);
    if (!IsOn() || disk == nullptr) return STATUS_NO_SUCH_DEVICE;
    const std::vector<Volume*> volumes = VolumesOn(number);
    std::vector<PDEVICE_OBJECT> devices;
    devices.reserve(volumes.size() + 1);
    for (const Volume* volume : volumes) devices.push_back(volume->device->Device());
    devices.push_back(disk->Device());
    const NTSTATUS status = QueryRemove(devices);
    if (!NT_SUCCESS(status)) return status;
    for (Volume* volume : volumes) Remove(*volume);
    KVR_DISCARD(host::SendPnp(disk->Device(), IRP_MN_REMOVE_DEVICE), "the removal was agreed to");
    disk->Stop();
    IoDeleteDevice(disk->Device());
    boot_->removedDisks.push_back(std::move(disks_[number].device));
    disks_[number].unplugged = true;
    return STATUS_SUCCESS;
}

}  // namespace machine
