#include <shared_mutex>
#include <utility>
#include "nbd/server.h"
#include "nbd/volume_description.h"
#include "platform/owners.h"
#include "platform/host/sync/thread.h"

namespace nbd {

std::vector<machine::Volume*> Server::VolumesOf(const Export& target) {
    const Client client{target, {}};
    std::vector<machine::Volume*> volumes = machine_->Volumes();
    std::erase_if(volumes, [&](const machine::Volume* volume) {
        return !client.Uses(volume->device->Number(), volume->device->DiskNumber());
    });
    return volumes;
}

// Null when this boot has no such disk or volume. The system disk is not among the served ones.
ServedDisk* Server::DiskOf(const Export& target, std::uint64_t& offset, std::uint64_t& size) {
    for (std::size_t number = 0; number < disks_.size(); ++number) {
        ServedDisk& disk = *disks_[number];
        offset = 0;
        size = disk.Size();
        if (target.wholeDisk && target.number == number) return &disk;
        const VolumePlace* place = target.wholeDisk ? nullptr : disk.Map().Find(target.number);
        if (place == nullptr) continue;
        offset = place->offset;
        size = place->length;
        return &disk;
    }
    return nullptr;
}

std::vector<Server::ExportLine> Server::Exports() {
    const std::shared_lock hold(boot_);
    std::vector<ExportLine> lines;
    for (std::size_t number = 0; number < disks_.size(); ++number)
        lines.push_back({Export{true, static_cast<unsigned>(number)}.Name(),
                         "disk image " + folder_.DiskPath(folder_.disks[number])});
    if (!on_) return lines;
    for (const machine::Volume* volume : machine_->Volumes()) {
        if (volume->device->DiskNumber() >= disks_.size()) continue;
        lines.push_back({Export{false, volume->device->Number()}.Name(),
                         "volume on disk" + std::to_string(volume->device->DiskNumber())});
    }
    return lines;
}

// Storage that is being made grows through the machine's file system, which a client would take away from it.
bool Server::IsMakingStorage(const Export& target) {
    const machine::Volume* volume = machine_->VolumeOf(storageVolume_);
    if (volume == nullptr || host::RunningSystemThreads() == 0) return false;
    const auto report = AskVolumes();
    if (report && !report->empty() && report->front().swapStatus != ctl::kSwapProvisioning) return false;
    return Client{target, {}}.Uses(storageVolume_, volume->device->DiskNumber());
}

std::unique_ptr<Server::Connection> Server::Connect(const Export& target, const std::string& who) {
    const std::shared_lock hold(boot_);
    if (!on_) throw Error("the machine is off");
    auto connection = std::make_unique<Connection>();
    connection->target = target;
    std::uint64_t offset = 0;
    connection->disk = DiskOf(target, offset, connection->size);
    if (connection->disk == nullptr) throw Error("there is no export " + target.Name());
    const std::lock_guard guard(clientsLock_);
    if (IsMakingStorage(target))
        throw Error(target.Name() + " cannot be had while swap storage is being made on it");
    LendVolumes(target);
    connection->client = clients_.Add({target, who});
    log_.Line("client: connects: " + connection->client->Describe());
    return connection;
}

void Server::Disconnect(std::unique_ptr<Connection> connection) {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    const Client client = std::move(*connection->client);
    clients_.Remove(connection->client);
    if (on_) TakeBackVolumes(connection->target);
    log_.Line("client: disconnects: " + client.Describe());
}

// Before the client is counted.
void Server::LendVolumes(const Export& target) {
    for (machine::Volume* volume : VolumesOf(target)) {
        const bool free = clients_.CountOn(volume->device->Number(), volume->device->DiskNumber()) == 0;
        if (free && volume->files != nullptr) volume->files->Suspend();
    }
}

// After the client is no longer counted.
void Server::TakeBackVolumes(const Export& target) {
    for (machine::Volume* volume : VolumesOf(target)) {
        const unsigned number = volume->device->Number();
        if (clients_.CountOn(number, volume->device->DiskNumber()) != 0) continue;
        if (volume->files != nullptr)
            volume->files->Resume();
        else
            KVR_DISCARD(machine_->MountRaw(number), "a volume that is still raw stays so");
        Redescribe(*volume);
    }
}

void Server::Redescribe(machine::Volume& volume) {
    descriptions_.insert_or_assign(volume.device->Number(), DescribeVolume(*machine_, volume));
}

namespace {

NTSTATUS Carry(ServedDisk& disk, Server::Action action, std::uint64_t offset, std::uint64_t length,
               void* buffer) {
    switch (action) {
        case Server::Action::Read:
            return disk.ReadBytes(offset, buffer, length);
        case Server::Action::Write:
            return disk.WriteBytes(offset, buffer, length);
        case Server::Action::Zero:
            return disk.ZeroBytes(offset, length);
        default:
            return disk.Flush();
    }
}

}  // namespace

NTSTATUS Server::Transfer(const Connection& connection, Action action, std::uint64_t offset,
                          std::uint64_t length, void* buffer) {
    const std::shared_lock hold(boot_);
    std::uint64_t start = 0;
    std::uint64_t size = connection.size;
    // A boot may have found other volumes than the one before.
    if (connection.disk == nullptr) return STATUS_DEVICE_POWERED_OFF;
    if (!connection.target.wholeDisk && DiskOf(connection.target, start, size) != connection.disk)
        return on_ ? STATUS_NO_SUCH_DEVICE : STATUS_DEVICE_POWERED_OFF;
    if (offset > size || length > size - offset) return STATUS_INVALID_PARAMETER;
    const bool isWrite = action == Action::Write || action == Action::Zero;
    if (isWrite && !connection.hasWritten.exchange(true)) NoteWriter(connection);
    const NTSTATUS status = Carry(*connection.disk, action, start + offset, length, buffer);
    // A virtual machine that hears of a full disk waits until there is room; any other failure it takes for a
    // broken disk.
    const bool noStorage = isWrite && status == STATUS_MEDIA_WRITE_PROTECTED &&
                           IsOutOfRoom(*connection.disk, start + offset, length);
    const bool full =
        noStorage || (!NT_SUCCESS(status) && action != Action::Read && connection.disk->LacksRoom());
    return full ? STATUS_DISK_FULL : status;
}

}  // namespace nbd
