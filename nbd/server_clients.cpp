#include <shared_mutex>
#include <utility>
#include "nbd/server.h"
#include "platform/host/check/host_memory.h"
#include "nbd/volume_description.h"
#include "platform/owners.h"
#include "platform/host/sync/thread.h"

namespace nbd {

template <class Each>
void Server::ForEachVolumeOf(const Export& target, const Each& each) {
    const Client client{target, {}};
    machine_->ForEachVolume([&](machine::Volume& volume) {
        if (client.Uses(volume.device->Number(), volume.device->DiskNumber())) each(volume);
    });
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
    connection->client = clients_.Add({target, who});
    try {
        log_.Line("client: connects: ", connection->client->Describe());
    } catch (const std::bad_alloc&) {
        clients_.Remove(connection->client);
        throw;
    }
    LendVolumes(target);
    return connection;
}

void Server::Disconnect(std::unique_ptr<Connection> connection) noexcept {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    const Client client = std::move(*connection->client);
    clients_.Remove(connection->client);
    if (on_) TakeBackVolumes(connection->target);
    try {
        log_.Line("client: disconnects: ", client.Describe());
    } catch (const std::bad_alloc&) {
        NoMemory("client: disconnects");
    }
}

// The client is counted: it is the first one of a volume when it is the only one there.
void Server::LendVolumes(const Export& target) {
    ForEachVolumeOf(target, [&](machine::Volume& volume) {
        const bool first = clients_.CountOn(volume.device->Number(), volume.device->DiskNumber()) == 1;
        if (first && volume.files != nullptr) volume.files->Suspend();
    });
}

// After the client is no longer counted.
void Server::TakeBackVolumes(const Export& target) {
    ForEachVolumeOf(target, [&](machine::Volume& volume) {
        const unsigned number = volume.device->Number();
        if (clients_.CountOn(number, volume.device->DiskNumber()) != 0) return;
        if (volume.files != nullptr) return volume.files->Resume();  // looked at when somebody needs it
        KVR_DISCARD(machine_->MountRaw(number), "a volume that is still raw stays so");
        Redescribe(volume);
    });
}

// Where the host has no memory for it the last description stays.
void Server::Redescribe(machine::Volume& volume) {
    if (!host::WithinMemory(false, [&] {
            descriptions_.insert_or_assign(volume.device->Number(), DescribeVolume(*machine_, volume));
            return true;
        }))
        NoMemory("description of a volume");
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
    // Looked at first: to store is to take the word from every other thread.
    if (isWrite && !connection.hasWritten && !connection.hasWritten.exchange(true)) NoteWriter(connection);
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
