// What a program asks of the driver: one function per control code, over an open control device, wherever that
// is (behind a hosted machine's control socket, in a kernel inside this process, \\.\kvr).
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>
#include "client/status.h"
#include "formats/kvr_ioctl.h"

namespace ctl {

using Bytes = std::vector<std::uint8_t>;

struct Answer {
    Status status;
    std::string text;  // why the machine itself refused, if it did
};

// What the machine says of a volume beside the driver's reports, for people; each may be empty.
struct VolumeDescription {
    std::u16string name;
    std::string label;
    std::string partition;   // its GUID
    std::string fileSystem;  // "ntfs", "fat32", ...
    std::string what;        // "EFI system partition, cannot hold storage"
};

// An open handle to the control device, closed with its owner. There is one for the whole machine.
class Driver {
public:
    virtual ~Driver() = default;
    // `output` has the size of the answer's room and is cut to what was filled. Throws Failure when the machine
    // is lost.
    virtual Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, Bytes& output) = 0;
    // As far as the machine knows more of them than the driver.
    virtual std::vector<VolumeDescription> Descriptions() { return {}; }
};

struct FixedVolume {
    std::u16string name;
    std::uint32_t state;  // as KVR_FIXED_VOLUME_STATUS has it, like the other fields
    std::int64_t swapTotal;
    std::int64_t swapUsed;
    std::uint32_t swapStatus;
    std::int64_t SwapFree() const { return swapTotal - swapUsed; }
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
inline constexpr std::uint32_t kSwapVolumeTooLarge = 6;

// A SwapStatus in words, for people.
std::string StorageText(std::uint32_t swapStatus);
// What its storage keeps the volume from, as a sentence without its name in front; empty when nothing. For a
// volume that the configuration protects. `hardening`: whether the stricter rules are in force, if that is
// known.
std::string StorageTrouble(const FixedVolume& volume, std::optional<bool> hardening);

class Client {
public:
    explicit Client(std::unique_ptr<Driver> driver) : driver_(std::move(driver)) {}

    // Each throws Failure with what the driver's refusal means.
    bool Enabled();
    // KVR_CONFIG_BYTES at most, fewer when the file is shorter; empty when there is no configuration yet.
    Bytes GetConfig();
    void SetConfig(const Bytes& image);
    // In the order in which the machine found the devices; whole disks are among the fixed ones.
    std::vector<FixedVolume> FixedVolumes();
    std::vector<RemovableVolume> RemovableVolumes();
    std::vector<VolumeDescription> Descriptions() { return driver_->Descriptions(); }
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
