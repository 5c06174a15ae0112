#include "tool/demo/control_client.h"
#include <algorithm>
#include <cstring>
#include "tool/kvrctl/status.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr std::size_t kMostRecords = 256;

std::u16string NameOf(const std::uint16_t (&characters)[KVR_NAME_CHARS]) {
    return std::u16string(std::begin(characters), std::find(std::begin(characters), std::end(characters), 0));
}

SWAP_CONFIG_REQUEST SwapRequest(const std::u16string& volume, std::int64_t bytes) {
    SWAP_CONFIG_REQUEST request{};
    if (volume.size() >= KVR_NAME_CHARS) throw Error("a volume's name is too long for the control device");
    std::copy(volume.begin(), volume.end(), request.VolumeName);
    request.SwapSize = bytes;
    return request;
}

// Calls `use` with each record that the answer holds.
template <class Record, class Use>
void ForEachRecord(const std::vector<std::uint8_t>& answer, const Use& use) {
    for (std::size_t at = 0; at + sizeof(Record) <= answer.size(); at += sizeof(Record)) {
        Record record;
        std::memcpy(&record, answer.data() + at, sizeof record);
        use(record);
    }
}

}  // namespace

ControlClient::ControlClient() {
    const NTSTATUS status = host::OpenDevice(u"\\DosDevices\\kvr", FILE_READ_DATA | FILE_WRITE_DATA, device_);
    if (!NT_SUCCESS(status)) throw Error("the control device cannot be opened: " + StatusText(status));
}

ControlClient::~ControlClient() {
    host::CloseDevice(device_);
}

NTSTATUS ControlClient::Call(std::uint32_t code, const void* input, std::size_t inputLength,
                             std::vector<std::uint8_t>& output) {
    ULONG returned = 0;
    const NTSTATUS status = host::DeviceIoControl(device_, code, input, static_cast<ULONG>(inputLength),
                                                  output.empty() ? nullptr : output.data(),
                                                  static_cast<ULONG>(output.size()), returned);
    output.resize(std::min<std::size_t>(returned, output.size()));
    return status;
}

NTSTATUS ControlClient::Enabled(bool& enabled) {
    std::vector<std::uint8_t> answer(4);
    const NTSTATUS status = Call(IOCTL_KVR_GET_ENABLED, nullptr, 0, answer);
    enabled = std::any_of(answer.begin(), answer.end(), [](std::uint8_t byte) { return byte != 0; });
    return status;
}

NTSTATUS ControlClient::GetConfig(std::vector<std::uint8_t>& image) {
    image.assign(KVR_CONFIG_BYTES, 0);
    return Call(IOCTL_KVR_GET_CONFIG, nullptr, 0, image);
}

NTSTATUS ControlClient::SetConfig(const std::vector<std::uint8_t>& image) {
    std::vector<std::uint8_t> nothing;
    return Call(IOCTL_KVR_SET_CONFIG, image.data(), image.size(), nothing);
}

NTSTATUS ControlClient::FixedVolumes(std::vector<FixedVolume>& volumes) {
    std::vector<std::uint8_t> answer(kMostRecords * sizeof(KVR_FIXED_VOLUME_STATUS));
    const NTSTATUS status = Call(IOCTL_KVR_GET_FIXED_VOLUMES, nullptr, 0, answer);
    volumes.clear();
    ForEachRecord<KVR_FIXED_VOLUME_STATUS>(answer, [&](const auto& record) {
        volumes.push_back({NameOf(record.VolumeName), record.State, record.SwapTotalBytes, record.SwapUsedBytes,
                           record.SwapStatus});
    });
    return status;
}

NTSTATUS ControlClient::RemovableVolumes(std::vector<RemovableVolume>& volumes) {
    std::vector<std::uint8_t> answer(kMostRecords * sizeof(KVR_REMOVABLE_VOLUME_STATUS));
    const NTSTATUS status = Call(IOCTL_KVR_GET_REMOVABLE_VOLUMES, nullptr, 0, answer);
    volumes.clear();
    ForEachRecord<KVR_REMOVABLE_VOLUME_STATUS>(answer, [&](const auto& record) {
        volumes.push_back({NameOf(record.VolumeName), record.AccessMode});
    });
    return status;
}

NTSTATUS ControlClient::AllocateSwap(const std::u16string& volume, std::int64_t bytes) {
    const SWAP_CONFIG_REQUEST request = SwapRequest(volume, bytes);
    std::vector<std::uint8_t> nothing;
    return Call(IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof request, nothing);
}

NTSTATUS ControlClient::RemoveSwap(const std::u16string& volume) {
    const SWAP_CONFIG_REQUEST request = SwapRequest(volume, -1);
    std::vector<std::uint8_t> nothing;
    return Call(IOCTL_KVR_REMOVE_SWAP, &request, sizeof request, nothing);
}

NTSTATUS ControlClient::StopSwapThread() {
    std::vector<std::uint8_t> nothing;
    return Call(IOCTL_KVR_STOP_SWAP_THREAD, nullptr, 0, nothing);
}

std::string StatusText(NTSTATUS status) {
    return ctl::StatusText(status);
}

}  // namespace tool
