// What the tool asks of the driver: one function per control code, over an open control device.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "formats/kvr_ioctl.h"
#include "tool/kvrctl/terminal.h"
#include "tool/kvrctl/world.h"

namespace ctl {

struct FixedVolume {
    std::u16string name;
    std::uint32_t state;  // as KVR_FIXED_VOLUME_STATUS has it, like the other fields
    std::int64_t swapTotal;
    std::int64_t swapUsed;
    std::uint32_t swapStatus;
    bool operator==(const FixedVolume&) const = default;
};

struct RemovableVolume {
    std::u16string name;
    std::uint32_t accessMode;
    bool operator==(const RemovableVolume&) const = default;
};

inline constexpr std::uint32_t kSwapNone = 0;
inline constexpr std::uint32_t kSwapProvisioning = 1;
inline constexpr std::uint32_t kSwapPresent = 2;
inline constexpr std::uint32_t kSwapMapBad = 3;
inline constexpr std::uint32_t kSwapNoLocation = 4;
inline constexpr std::uint32_t kSwapNotHeld = 5;

// A whole disk's own device stands among the fixed volumes; nothing is done to it.
bool IsDisk(const std::u16string& name);

class Client {
public:
    // Another program may hold the device for a moment: it is tried again for about two seconds. Throws
    // Failure.
    Client(World& world, Terminal& terminal, Access access);

    // Each throws Failure with what the driver's refusal means.
    bool Enabled();
    // KVR_CONFIG_BYTES at most, fewer when the file is shorter; empty when there is no configuration yet.
    Bytes GetConfig();
    void SetConfig(const Bytes& image);
    // In the order in which the machine found the devices.
    std::vector<FixedVolume> FixedVolumes();
    std::vector<RemovableVolume> RemovableVolumes();
    // Starts the work and returns; FixedVolumes tells how far it is.
    void AllocateSwap(const std::u16string& volume, std::int64_t bytes);
    // Returns when the storage is gone.
    void RemoveSwap(const std::u16string& volume);
    // Returns when no provisioning runs any more.
    void StopSwap();
    void Debug();

private:
    void Change(std::uint32_t code, std::span<const std::uint8_t> input);
    template <class Record>
    std::vector<Record> Records(std::uint32_t code);

    std::unique_ptr<Driver> driver_;
};

}  // namespace ctl
