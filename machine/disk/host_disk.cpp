#include "machine/disk/host_disk.h"
#include <cerrno>
#include "machine/disk/image_disk.h"
#include "machine/disk/remote_disk.h"

namespace machine {

std::unique_ptr<HostDisk> HostDisk::Open(const std::string& name, std::uint32_t sectorSize,
                                         std::string& error) {
    if (RemoteDisk::IsUri(name)) return RemoteDisk::Open(name, sectorSize, error);
    return ImageDisk::Open(name, sectorSize, error);
}

void HostDisk::NoteFailure(int error) {
    failure_ = error;
    if (error != ENOSPC && error != EDQUOT) return;
    lackedRoomAt_ = std::chrono::steady_clock::now().time_since_epoch().count();
}

bool HostDisk::LacksRoom() const {
    const std::chrono::steady_clock::time_point at(std::chrono::steady_clock::duration(lackedRoomAt_.load()));
    return lackedRoomAt_ != 0 && std::chrono::steady_clock::now() - at < std::chrono::seconds(10);
}

}  // namespace machine
