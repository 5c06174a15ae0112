#include "tool/demo/computer.h"
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>
#include <utility>
#include "client/driver_switches.h"
#include "client/own_driver.h"
#include "machine/boot/any_file_system.h"
#include "machine/boot/registry_file.h"
#include "machine/disk/image_disk.h"
#include "platform/host/sync/clock.h"
#include "platform/host/sync/thread.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr LONG kMinutesToUtc = -60;
constexpr std::chrono::seconds kLongestSettling{20};
constexpr char16_t kLogFolder[] = u"\\Windows";
constexpr char16_t kBootLog[] = u"\\Windows\\boot.log";

std::shared_ptr<machine::Disk> OpenImage(const Place& place) {
    std::string error;
    std::shared_ptr<machine::Disk> disk = machine::ImageDisk::Open(place.image, place.sectorBytes, error);
    if (disk == nullptr) throw Error(error);
    return disk;
}

}  // namespace

// A disk with a volume that cannot be read or written while it is locked.
class LockableDisk final : public machine::Disk {
public:
    LockableDisk(std::shared_ptr<machine::Disk> disk, const Place& place)
        : disk_(std::move(disk)), begin_(place.offset), end_(place.offset + place.length) {}
    std::uint64_t Size() const override { return disk_->Size(); }
    std::uint32_t SectorSize() const override { return disk_->SectorSize(); }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override {
        return IsShut(offset, length) ? STATUS_DEVICE_NOT_READY : disk_->Read(offset, buffer, length);
    }
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override {
        return IsShut(offset, length) ? STATUS_DEVICE_NOT_READY : disk_->Write(offset, buffer, length);
    }
    NTSTATUS Flush() override { return disk_->Flush(); }

    std::atomic<bool> isLocked = false;

private:
    bool IsShut(std::uint64_t offset, std::size_t length) const {
        return isLocked && offset < end_ && offset + length > begin_;
    }

    std::shared_ptr<machine::Disk> disk_;
    std::uint64_t begin_, end_;
};

namespace {

void Ask(const std::string& what, const std::function<void(ctl::Client&)>& ask) {
    try {
        ctl::Client client(std::make_unique<ctl::OwnDriver>(FILE_READ_DATA | FILE_WRITE_DATA));
        ask(client);
    } catch (const ctl::Failure& failure) {
        throw StepFailed(what + ": " + failure.what());
    }
}

}  // namespace

void Require(NTSTATUS status, const std::string& what) {
    if (!NT_SUCCESS(status)) throw StepFailed(what + ": " + StatusText(status));
}

Computer::Computer(const Place& system, const Place& data)
    : data_(data), dataDisk_(system.image == data.image ? 0 : 1) {
    machine::MachineOptions options;
    options.driver = DriverEntry;
    lock_ = std::make_shared<LockableDisk>(OpenImage(data), data);
    if (dataDisk_ == 1) options.disks.push_back({OpenImage(system)});
    options.disks.push_back({lock_});
    options.fileSystem = [](const machine::VolumeDevice&) { return machine::AnyFileSystem(); };
    options.atShutdown = [this](machine::ShutdownStep step) {
        if (atShutdown_) atShutdown_(step);
    };
    host::SetTimeZoneBias(kMinutesToUtc);
    options.registry = machine::RegistryFile::InMemory();
    // As an installation sets them.
    Require(ctl::SetDriverSwitch(*options.registry, ctl::kHardening, true), "the registry keeps no value");
    machine_ = std::make_unique<machine::Machine>(std::move(options));
}

Computer::~Computer() {
    if (IsOn()) PowerCut();
}

void Computer::Boot() {
    Start();
    MountOn(dataNumber_);
    EndStart();
}

void Computer::BootLocked() {
    lock_->isLocked = true;
    Start();
    EndStart();
}

void Computer::Unlock() {
    lock_->isLocked = false;
    Require(machine_->MountRaw(dataNumber_), "the unlocked volume cannot be mounted");
    Settle();
}

void Computer::Start() {
    Require(machine_->PowerOn(), "the computer does not start");
    Require(machine_->DriverStatus(), "the driver does not load");
    FindDataVolume();
    machine_->DiskOf(dataDisk_)->HonourTrim();
}

void Computer::EndStart() {
    ++boots_;
    WriteBootLog();
    Settle();
}

void Computer::FindDataVolume() {
    for (const machine::Volume* volume : machine_->Volumes()) {
        if (volume->device->DiskNumber() != dataDisk_ || volume->device->Offset() != data_.offset) continue;
        dataNumber_ = volume->device->Number();
        dataName_ = volume->device->Name();
        return;
    }
    throw StepFailed("the computer does not find the data volume");
}

void Computer::WriteBootLog() {
    bool exists = false;
    Require(System().Exists(kLogFolder, exists), "the system folder cannot be looked up");
    if (!exists) Require(System().MakeDirectory(kLogFolder), "the system folder cannot be made");
    const std::string line = "start " + std::to_string(boots_) + " at " + LocalDate() + "\n";
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(line.data());
    Require(System().WriteFile(kBootLog, {bytes, line.size()}), "the boot log cannot be written");
}

void Computer::Settle() {
    const auto end = std::chrono::steady_clock::now() + kLongestSettling;
    while (host::RunningSystemThreads() != 0) {
        if (std::chrono::steady_clock::now() > end)
            throw StepFailed("a thread of the driver does not end after the boot");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void Computer::Shutdown() {
    const machine::ShutdownReport report = machine_->Shutdown();
    Require(report.dismount, "a volume cannot be dismounted");
    Require(report.registry, "the registry cannot be saved");
}

void Computer::ShutdownDuring(machine::ShutdownStep step, const std::function<void()>& work) {
    std::exception_ptr thrown;
    atShutdown_ = [&](machine::ShutdownStep reached) {
        if (reached != step) return;
        try {
            work();
        } catch (const StepFailed&) {
            thrown = std::current_exception();
        }
    };
    Shutdown();
    atShutdown_ = nullptr;
    if (thrown) std::rethrow_exception(thrown);
}

void Computer::Reboot() {
    Shutdown();
    Boot();
}

void Computer::PowerCut() {
    lock_->isLocked = false;
    machine_->PowerCut();
}

void Computer::SetClock(int year, int month, int day, int hour, int minute) {
    host::SetSystemTime(host::TimeOf(year, month, day, hour, minute));
}

std::string Computer::LocalDate() const {
    LARGE_INTEGER utc, local;
    utc.QuadPart = host::SystemTime();
    ExSystemTimeToLocalTime(&utc, &local);
    TIME_FIELDS fields;
    RtlTimeToTimeFields(&local, &fields);
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d", fields.Year, fields.Month, fields.Day, fields.Hour,
                  fields.Minute);
    return text;
}

machine::GuestFileSystem& Computer::MountOn(unsigned number) {
    const machine::Volume* volume = machine_->VolumeOf(number);
    if (volume == nullptr) throw StepFailed("there is no volume " + std::to_string(number));
    if (volume->files == nullptr)
        Require(volume->mountStatus, "volume " + std::to_string(number) + " cannot be mounted");
    return static_cast<machine::GuestFileSystem&>(*volume->files);  // the only ones that the machine mounts
}

void Computer::Configure(const std::u16string& configuration) {
    Ask("the configuration cannot be written",
        [&](ctl::Client& client) { client.SetConfig(ConfigurationImage(configuration)); });
}

std::u16string Computer::ConfigurationInForce() {
    std::u16string text;
    Ask("the configuration cannot be read",
        [&](ctl::Client& client) { text = ConfigurationText(client.GetConfig()); });
    return text;
}

bool Computer::IsProtecting() {
    bool enabled = false;
    Ask("the driver does not answer", [&](ctl::Client& client) { enabled = client.Enabled(); });
    return enabled;
}

void Computer::MakeSwap(std::int64_t bytes) {
    Ask("swap storage is refused", [&](ctl::Client& client) { client.AllocateSwap(dataName_, bytes); });
}

FixedVolume Computer::Status(unsigned number) {
    const std::u16string name = machine_->VolumeOf(number)->device->Name();
    std::vector<FixedVolume> volumes;
    Ask("the volumes cannot be listed", [&](ctl::Client& client) { volumes = client.FixedVolumes(); });
    for (const FixedVolume& volume : volumes) {
        if (volume.name == name) return volume;
    }
    throw StepFailed("the driver does not list " + Narrow(name));
}

}  // namespace tool
