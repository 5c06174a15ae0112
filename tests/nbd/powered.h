// A machine's folder with the power on, and its first volume as tools see it.
#pragma once
#include <memory>
#include "nbd/server.h"
#include "tool/kvrctl/world_hosted.h"

namespace nbd_test {

inline constexpr std::uint64_t kMiB = 1024 * 1024;
inline constexpr char16_t kFirst[] = u"\\Device\\HarddiskVolume1";

inline std::unique_ptr<nbd::Server> PoweredOn(const std::string& path) {
    nbd::MachineFolder folder = nbd::MachineFolder::Read(path);
    nbd::FolderLock lock(folder);
    auto server = std::make_unique<nbd::Server>(std::move(folder), std::move(lock));
    server->Start();
    return server;
}

inline void Configure(ctl::HostedWorld& world, const std::u16string& text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    ctl::Bytes image(bytes, bytes + text.size() * sizeof(char16_t));
    image.resize(KVR_CONFIG_BYTES);
    ctl::Client(world.OpenDriver(ctl::Access::ReadWrite)).SetConfig(image);
}

// The driver's record of the first volume.
inline ctl::FixedVolume FirstOf(ctl::Client& client) {
    for (const ctl::FixedVolume& volume : client.FixedVolumes())
        if (volume.name == kFirst) return volume;
    return {};
}

}  // namespace nbd_test
