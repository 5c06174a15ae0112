#include "tool/kvrctl/client.h"
#include <algorithm>
#include <cstring>
#include "tool/kvrctl/failure.h"
#include "tool/kvrctl/refusal.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::size_t kMostRecords = 1024;
constexpr std::chrono::milliseconds kRetryPause{100};
constexpr int kRetries = 20;

std::u16string NameOf(const std::uint16_t (&characters)[KVR_NAME_CHARS]) {
    return std::u16string(std::begin(characters), std::find(std::begin(characters), std::end(characters), 0));
}

SWAP_CONFIG_REQUEST SwapRequest(const std::u16string& volume, std::int64_t bytes) {
    SWAP_CONFIG_REQUEST request{};
    if (volume.size() >= KVR_NAME_CHARS) throw Failure("the volume's name is too long for the driver");
    std::copy(volume.begin(), volume.end(), request.VolumeName);
    request.SwapSize = bytes;
    return request;
}

std::span<const std::uint8_t> BytesOf(const SWAP_CONFIG_REQUEST& request) {
    return {reinterpret_cast<const std::uint8_t*>(&request), sizeof request};
}

std::unique_ptr<Driver> OpenPatiently(World& world, Terminal& terminal, Access access) {
    for (int i = 0; i < kRetries; ++i) {
        if (auto driver = world.OpenDriver(access)) return driver;
        if (!terminal.Pause(kRetryPause)) break;
    }
    throw Failure("another program holds the driver's control device; only one can at a time", kExitBusy);
}

}  // namespace

bool IsDisk(const std::u16string& name) {
    static constexpr std::u16string_view kPrefix = u"\\device\\harddisk";
    if (name.size() <= kPrefix.size() || !EqualIgnoringCase(name.substr(0, kPrefix.size()), kPrefix))
        return false;
    const std::size_t end = name.find_first_not_of(u"0123456789", kPrefix.size());
    return end != kPrefix.size() && end != name.npos && name[end] == u'\\';
}

Client::Client(World& world, Terminal& terminal, Access access)
    : driver_(OpenPatiently(world, terminal, access)) {}

bool Client::Enabled() {
    Bytes answer(4);
    Require(driver_->Control(IOCTL_KVR_GET_ENABLED, {}, answer), IOCTL_KVR_GET_ENABLED);
    return std::any_of(answer.begin(), answer.end(), [](std::uint8_t byte) { return byte != 0; });
}

Bytes Client::GetConfig() {
    Bytes image(KVR_CONFIG_BYTES);
    const Answer answer = driver_->Control(IOCTL_KVR_GET_CONFIG, {}, image);
    if (answer.text.empty() && (answer.status == kNoSuchFile || answer.status == kEndOfFile)) return {};
    Require(answer, IOCTL_KVR_GET_CONFIG);
    return image;
}

void Client::SetConfig(const Bytes& image) {
    Change(IOCTL_KVR_SET_CONFIG, image);
}

template <class Record>
std::vector<Record> Client::Records(std::uint32_t code) {
    Bytes answer(kMostRecords * sizeof(Record));
    Require(driver_->Control(code, {}, answer), code);
    std::vector<Record> records(answer.size() / sizeof(Record));
    if (!records.empty()) std::memcpy(records.data(), answer.data(), records.size() * sizeof(Record));
    return records;
}

std::vector<FixedVolume> Client::FixedVolumes() {
    std::vector<FixedVolume> volumes;
    for (const auto& record : Records<KVR_FIXED_VOLUME_STATUS>(IOCTL_KVR_GET_FIXED_VOLUMES))
        volumes.push_back({NameOf(record.VolumeName), record.State, record.SwapTotalBytes, record.SwapUsedBytes,
                           record.SwapStatus});
    return volumes;
}

std::vector<RemovableVolume> Client::RemovableVolumes() {
    std::vector<RemovableVolume> volumes;
    for (const auto& record : Records<KVR_REMOVABLE_VOLUME_STATUS>(IOCTL_KVR_GET_REMOVABLE_VOLUMES))
        volumes.push_back({NameOf(record.VolumeName), record.AccessMode});
    return volumes;
}

void Client::AllocateSwap(const std::u16string& volume, std::int64_t bytes) {
    Change(IOCTL_KVR_ALLOCATE_SWAP, BytesOf(SwapRequest(volume, bytes)));
}

void Client::RemoveSwap(const std::u16string& volume) {
    Change(IOCTL_KVR_REMOVE_SWAP, BytesOf(SwapRequest(volume, -1)));
}

void Client::StopSwap() {
    Change(IOCTL_KVR_STOP_SWAP_THREAD, {});
}

void Client::Debug() {
    Change(IOCTL_KVR_DEBUG, {});
}

void Client::Change(std::uint32_t code, std::span<const std::uint8_t> input) {
    Bytes nothing;
    Require(driver_->Control(code, input, nothing), code);
}

}  // namespace ctl
