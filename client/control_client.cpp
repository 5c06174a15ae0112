#include "client/control_client.h"
#include <algorithm>
#include <cstring>
#include "client/failure.h"
#include "platform/host/nt/ntstatus.h"

namespace ctl {
namespace {

constexpr std::size_t kMostRecords = 1024;

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

struct Meaning {
    std::uint32_t code;  // 0: of any control code
    Status status;
    const char* text;
    int exitCode;
};

// The first that fits counts.
constexpr Meaning kMeanings[] = {
    {IOCTL_KVR_GET_CONFIG, STATUS_UNSUCCESSFUL, "the configuration file cannot be read", kExitFailed},
    {IOCTL_KVR_SET_CONFIG, STATUS_NO_SUCH_FILE,
     "the configuration file cannot be opened or made: the system volume has no folder system32\\drivers, or "
     "does "
     "not answer",
     kExitFailed},
    {IOCTL_KVR_SET_CONFIG, STATUS_UNSUCCESSFUL, "the configuration file cannot be written", kExitFailed},
    {IOCTL_KVR_ALLOCATE_SWAP, STATUS_INVALID_PARAMETER,
     "the driver makes no storage while this volume, or the one that holds the configuration, is protected: "
     "switch protection off (kvrctl disable), boot, and try again",
     kExitFailed},
    {IOCTL_KVR_REMOVE_SWAP, STATUS_INVALID_PARAMETER,
     "the driver removes no storage while this volume, or the one that holds the configuration, is protected: "
     "switch protection off (kvrctl disable), boot, and try again",
     kExitFailed},
    {IOCTL_KVR_ALLOCATE_SWAP, STATUS_FILE_LOCK_CONFLICT,
     "storage is being made or removed already; wait for it, or end it with 'kvrctl swap stop'", kExitBusy},
    {IOCTL_KVR_REMOVE_SWAP, STATUS_FILE_LOCK_CONFLICT,
     "storage is being made or removed already; wait for it, or end it with 'kvrctl swap stop'", kExitBusy},
    {0, STATUS_ACCESS_DENIED, "this needs more rights than you have; run it as an administrator", kExitDenied},
    {0, STATUS_INSUFFICIENT_RESOURCES, "the machine has no memory left for it", kExitFailed},
    {0, STATUS_INVALID_DEVICE_REQUEST, "the driver is loaded but stands by, and filters nothing", kExitFailed},
    {0, STATUS_INVALID_HANDLE, "the machine was booted anew in between; try again", kExitFailed},
    {0, STATUS_DEVICE_POWERED_OFF, "the machine is off", kExitNotRunning},
    {0, STATUS_DEVICE_BUSY, "the volume is in use", kExitBusy},
};

const Meaning* FindMeaning(Status status, std::uint32_t code) {
    for (const Meaning& meaning : kMeanings) {
        if (meaning.status == status && (meaning.code == code || meaning.code == 0)) return &meaning;
    }
    return nullptr;
}

// Throws Failure unless the control request succeeded.
void Require(const Answer& answer, std::uint32_t code) {
    if (IsSuccess(answer.status)) return;
    const Meaning* meaning = FindMeaning(answer.status, code);
    const int exitCode = meaning ? meaning->exitCode : kExitFailed;
    if (!answer.text.empty()) throw Failure(answer.text, exitCode);
    if (meaning) throw Failure(std::string(meaning->text) + " (" + StatusText(answer.status) + ")", exitCode);
    throw Failure("the driver refused: " + StatusText(answer.status), exitCode);
}

// The word at that place, for a code that has one.
template <std::size_t N>
std::string WordFor(const char* const (&words)[N], std::uint32_t code) {
    return code < N ? words[code] : "state " + std::to_string(code);
}

}  // namespace

std::string StorageText(std::uint32_t swapStatus) {
    static constexpr const char* kWords[] = {
        "none",
        "being made or removed",
        "ready",
        "saved map damaged, make it anew",
        "missing, make it",
        "files cannot be held, used by another program or gone",
        "volume too large to keep its changes, only discard mode protects it",
    };
    static_assert(std::size(kWords) == kSwapVolumeTooLarge + 1);
    return WordFor(kWords, swapStatus);
}

std::string StorageTrouble(const FixedVolume& volume, std::optional<bool> hardening) {
    if (volume.swapStatus < kSwapMapBad || volume.swapStatus > kSwapVolumeTooLarge) return {};
    const std::string storage = " (storage: " + StorageText(volume.swapStatus) + ")";
    if (volume.state != 0) return "is protected, but changes that it is to keep are refused or lost" + storage;
    if (volume.swapStatus == kSwapVolumeTooLarge) hardening = false;  // no rule refuses writes for that
    const std::string text = "is to be protected and is not" + storage;
    if (!hardening) return text;
    return text + (*hardening ? "; its writes are refused" : "; its writes change the volume itself");
}

bool Client::Enabled() {
    Bytes answer(4);
    Require(driver_->Control(IOCTL_KVR_GET_ENABLED, {}, answer), IOCTL_KVR_GET_ENABLED);
    return std::any_of(answer.begin(), answer.end(), [](std::uint8_t byte) { return byte != 0; });
}

Bytes Client::GetConfig() {
    Bytes image(KVR_CONFIG_BYTES);
    const Answer answer = driver_->Control(IOCTL_KVR_GET_CONFIG, {}, image);
    if (answer.text.empty() && (answer.status == STATUS_NO_SUCH_FILE || answer.status == STATUS_END_OF_FILE))
        return {};
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
