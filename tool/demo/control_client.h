// What an administrator's program asks of the driver, over the control device: one method per control code.
// One client can be open at a time, as the control device admits one handle.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "platform/host/io/user_mode.h"
#include "formats/kvr_ioctl.h"

namespace tool {

struct FixedVolume {
    std::u16string name;
    std::uint32_t state;  // 0 not protected; else 3 invisible, 2 by a section of its own, 1 otherwise
    std::int64_t swapTotal;
    std::int64_t swapUsed;
    std::uint32_t swapStatus;  // as KVR_FIXED_VOLUME_STATUS has it
    std::int64_t SwapFree() const { return swapTotal - swapUsed; }
};

inline constexpr std::uint32_t kSwapStatusProvisioning = 1;
inline constexpr std::uint32_t kSwapStatusPresent = 2;

struct RemovableVolume {
    std::u16string name;
    std::uint32_t accessMode;  // 0 free, 1 protected, 2 protected and invisible
};

class ControlClient {
public:
    // Throws Error when the driver's control device cannot be opened.
    ControlClient();
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    [[nodiscard]] NTSTATUS Enabled(bool& enabled);
    // KVR_CONFIG_BYTES at most; fewer when the file is shorter.
    [[nodiscard]] NTSTATUS GetConfig(std::vector<std::uint8_t>& image);
    [[nodiscard]] NTSTATUS SetConfig(const std::vector<std::uint8_t>& image);
    // In the order in which the machine found the devices; disks are among the fixed ones.
    [[nodiscard]] NTSTATUS FixedVolumes(std::vector<FixedVolume>& volumes);
    [[nodiscard]] NTSTATUS RemovableVolumes(std::vector<RemovableVolume>& volumes);
    // Starts the work and returns; FixedVolumes tells how far it is.
    [[nodiscard]] NTSTATUS AllocateSwap(const std::u16string& volume, std::int64_t bytes);
    // Returns when the storage is gone.
    [[nodiscard]] NTSTATUS RemoveSwap(const std::u16string& volume);
    [[nodiscard]] NTSTATUS StopSwapThread();

private:
    NTSTATUS Call(std::uint32_t code, const void* input, std::size_t inputLength,
                  std::vector<std::uint8_t>& output);

    PFILE_OBJECT device_ = nullptr;
};

// "0xC00000A2 STATUS_MEDIA_WRITE_PROTECTED"; the number alone for a status without a name here.
std::string StatusText(NTSTATUS status);

}  // namespace tool
