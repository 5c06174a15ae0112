// How full the volumes' storages are: what the server asks the driver while clients and tools go on.
#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include "client/own_driver.h"
#include "client/size_text.h"
#include "client/storage_room.h"
#include "nbd/server.h"

namespace nbd {
namespace {

// The control device that a tool has open. A request of our own goes beside the tool's.
class BorrowedDriver : public ctl::Driver {
public:
    explicit BorrowedDriver(PFILE_OBJECT device) : device_(device) {}
    ctl::Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, ctl::Bytes& output) override {
        ULONG returned = 0;
        const NTSTATUS status =
            host::DeviceIoControl(device_, code, input.data(), static_cast<ULONG>(input.size()), output.data(),
                                  static_cast<ULONG>(output.size()), returned);
        output.resize(std::min<std::size_t>(returned, output.size()));
        return {status, {}};
    }

private:
    PFILE_OBJECT device_;
};

std::string LastPart(const std::u16string& name) {
    std::string text;
    for (const char16_t c : name.substr(name.rfind(u'\\') + 1)) text += c < 0x7F ? static_cast<char>(c) : '?';
    return text;
}

}  // namespace

// The driver's report; nothing when it cannot be had now. With the clients' lock held, so that nobody opens or
// closes the control device meanwhile.
std::optional<std::vector<ctl::FixedVolume>> Server::AskVolumes() {
    if (!on_) return std::nullopt;
    try {
        if (control_ != nullptr) return ctl::Client(std::make_unique<BorrowedDriver>(control_)).FixedVolumes();
        return ctl::Client(std::make_unique<ctl::OwnDriver>(GENERIC_READ)).FixedVolumes();
    } catch (const ctl::Failure&) {
        return std::nullopt;  // a tool that may only write holds the device
    }
}

// Is there a protected volume in the range whose storage has no room for the write? Such a write was refused
// for that; on the volume itself nothing is full.
bool Server::IsOutOfRoom(const ServedDisk& disk, std::uint64_t offset, std::uint64_t length) {
    const std::lock_guard guard(clientsLock_);
    const auto report = AskVolumes();
    if (!report) return false;
    return std::any_of(report->begin(), report->end(), [&](const ctl::FixedVolume& told) {
        const machine::Volume* volume = told.state == 0 ? nullptr : machine_->VolumeNamed(told.name);
        const VolumePlace* place = volume == nullptr ? nullptr : disk.Map().Find(volume->device->Number());
        const bool isHit =
            place != nullptr && offset < place->offset + place->length && place->offset < offset + length;
        return isHit && ctl::RoomOf(told, kNoSpaceLimit).usable < length;
    });
}

void Server::WatchStorage() {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    const auto report = AskVolumes();
    if (!report || report->empty()) return;
    for (const std::string& line : storage_.Look(StorageWatch::Clock::now(), *report))
        log_.Line("warning: " + line);
    if (!isMaking_ || report->front().swapStatus == ctl::kSwapProvisioning) return;
    isMaking_ = false;
    const machine::Volume* volume = machine_->VolumeOf(storageVolume_);
    for (const ctl::FixedVolume& told : *report)
        if (volume != nullptr && machine_->VolumeNamed(told.name) == volume)
            log_.Line("audit: storage of " + LastPart(told.name) + ": " +
                      ctl::SizeText(static_cast<std::uint64_t>(std::max<std::int64_t>(told.swapTotal, 0))) +
                      ", " + ctl::StorageText(told.swapStatus));
}

// Lines about the storages and the boot, as formats/control_wire.h has them.
std::string Server::StorageNotes() {
    std::string text;
    if (!on_) return text;
    for (const BootDeed& deed : deeds_)
        text += "\nboot: " + deed.volume + " " + deed.did + " " + std::to_string(deed.bytes) + " " +
                std::to_string(deed.ranges) + " " + deed.text;
    for (const auto& [name, rate] : storage_.BytesPerSecond())
        text += "\nrate: " + LastPart(name) + " " + std::to_string(rate);
    const auto report = AskVolumes();
    if (!report) return text;
    const machine::Volume* volume = machine_->VolumeOf(storageVolume_);
    const bool isMaking =
        volume != nullptr && !report->empty() && report->front().swapStatus == ctl::kSwapProvisioning;
    return text + "\nstorage: " + (isMaking ? LastPart(volume->device->Name()) : "-");
}

}  // namespace nbd
