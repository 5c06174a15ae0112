#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>
#include <utility>
#include "platform/host/sync/clock.h"
#include "platform/host/rtl/debug_sink.h"
#include "client/driver_switches.h"
#include "client/status.h"
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "machine/disk/host_disk.h"
#include "nbd/disk_owner.h"
#include "nbd/server.h"
#include "platform/host/sync/thread.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace nbd {
namespace {

constexpr std::chrono::seconds kLongestSettling{20};
// As often as the platform writes its registry back.
constexpr std::chrono::seconds kRegistryPeriod{5};
constexpr unsigned kRebootAttempts = 5;
constexpr std::chrono::milliseconds kBetweenAttempts{500};
constexpr char16_t kBootLog[] = u"\\Windows\\boot.log";

nbd::Log* gViolationLog = nullptr;

// A driver that breaks a rule of its kernel brings the machine down, as on the platform: for the disks it is a
// power cut.
void LogViolation(const char* rule, const char* text) {
    char line[600];
    std::snprintf(line, sizeof line, "kernel: stops: %s: %s", rule, text);
    gViolationLog->Line(line);
    std::abort();
}

std::shared_ptr<machine::HostDisk> OpenImage(const std::string& path, std::uint32_t sectorBytes) {
    std::string error;
    std::shared_ptr<machine::HostDisk> disk = machine::HostDisk::Open(path, sectorBytes, error);
    if (disk == nullptr) throw Error(error);
    return disk;
}

// The host's time zone is the machine's. In minutes east of UTC.
int TakeTimeZone() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    tzset();
    localtime_r(&now, &local);
    const int minutes = static_cast<int>(local.tm_gmtoff / 60);
    host::SetTimeZoneBias(-minutes);
    return minutes;
}

}  // namespace

Server::Server(MachineFolder folder, FolderLock lock) : folder_(std::move(folder)), lock_(std::move(lock)) {
    std::string error;
    registry_ = machine::RegistryFile::Open(folder_.File(kRegistryFile), error);
    if (registry_ == nullptr) throw Error(error);
    OpenDisks();
}

Server::~Server() {
    Stop();
    host::FollowDebug(nullptr, nullptr);
    host::SetViolationHandler(nullptr);
    log_.Line("server: ends");
}

void Server::OpenDisks() {
    RequireOwn(folder_);
    machine::MachineOptions options;
    options.driver = DriverEntry;
    options.registry = registry_;
    options.systemVolume = kSystemVolume;
    options.mostVolumes = kSystemVolume - 1;
    options.beforeDriver = [this] { bootDeeds_.LookBefore(*machine_, disks_.size(), kSystemVolume - 1); };
    options.fileSystem = [](const machine::VolumeDevice&) { return machine::AnyFileSystem(); };
    for (const FolderDisk& disk : folder_.disks) {
        const auto medium = OpenImage(folder_.DiskPath(disk), disk.sectorBytes);
        disks_.push_back(std::make_unique<ServedDisk>(medium, static_cast<unsigned>(disks_.size())));
        options.disks.push_back({.medium = medium});
    }
    options.disks.push_back(
        {.medium = OpenImage(folder_.File(kSystemImage), 512), .firstVolume = kSystemVolume});
    MarkDisks(folder_);
    machine_ = std::make_unique<machine::Machine>(std::move(options));
}

void Server::Start() {
    log_.Open(folder_.File(kLogFile));
    log_.Line("server: starts in " + folder_.path + ", process " + std::to_string(getpid()));
    FollowDriver();
    gViolationLog = &log_;
    host::SetViolationHandler(LogViolation);
    {
        const std::lock_guard alone(boot_);
        PowerOn(1);
    }
    saving_ = true;
    const bool saved = host::WithinMemory(false, [this] {
        saver_ = std::thread([this] { SaveRegistryNowAndThen(); });
        return true;
    });
    if (!saved) throw Error("the host has no thread for saving the registry");
}

// What cannot be read now may be readable in a moment; the clients wait meanwhile.
void Server::PowerOn(unsigned attempts) {
    for (;; std::this_thread::sleep_for(kBetweenAttempts)) {
        try {
            return BootOnce();
        } catch (const Error&) {
            if (--attempts == 0) throw;
        }
    }
}

// A boot that does not have what it needs ends at once, before anybody can write.
void Server::BootOnce() {
    minutesEast_ = TakeTimeZone();
    const char* why = "the host has no memory or no thread for the boot";
    try {
        if (host::WithinMemory(false, [this] { return BootWithinMemory(); })) return;
    } catch (const Error& error) {
        EndFailedBoot(error.what());
        throw;
    }
    EndFailedBoot(why);
    throw Error(why);
}

bool Server::BootWithinMemory() {
    const NTSTATUS status = machine_->PowerOn();
    NoteHardening();
    RequireBoot(status);
    const std::set<unsigned> merging = MergesDue();
    WriteBootLog();
    Settle();
    JudgeVolumes();
    {
        const std::lock_guard hold(clientsLock_);
        descriptions_.clear();
        for (machine::Volume* volume : machine_->Volumes()) Redescribe(*volume);
    }
    notes_ = machine::ReadOnlyVolumes(*machine_);
    for (const std::string& note : notes_) log_.Line("server: note: ", note);
    TakeSealsAlong(merging);
    for (const auto& disk : disks_) disk->BeginBoot(*machine_);
    log_.Line("server: boot " + std::to_string(boots_ + 1) + " is up");
    on_ = true;
    ++boots_;
    return true;
}

void Server::EndFailedBoot(const char* why) {
    for (const auto& disk : disks_) disk->EndBoot();
    machine_->PowerCut();
    log_.Line("server: ", why);
}

// Nobody writes the registry between the driver's look and this one.
void Server::NoteHardening() {
    std::vector<std::uint8_t> value;
    const NTSTATUS status = ReadRegistry(ctl::kDriverKey, ctl::kHardening, value);
    hardening_ = NT_SUCCESS(status) && ctl::IsSwitchedOn(value);
}

// The first write to the system volume is the driver's occasion to note in the configuration that what was
// asked for one boot is done.
void Server::WriteBootLog() {
    machine::GuestFileSystem* files = machine::NtfsOn(*machine_, kSystemVolume);
    NTSTATUS status = STATUS_UNRECOGNIZED_VOLUME;
    if (files != nullptr) {
        const std::string line = "boot " + std::to_string(std::time(nullptr)) + "\r\n";
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(line.data());
        status = machine::GuestFiles(*files).WriteFile(kBootLog, {bytes, line.size()});
    }
    if (!NT_SUCCESS(status)) log_.Line("server: the system disk cannot be written: " + ctl::Hex(status));
}

// What the driver holds open of a volume is opened before a client may have it.
void Server::Settle() {
    const auto end = std::chrono::steady_clock::now() + kLongestSettling;
    while (host::RunningSystemThreads() != 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void Server::PowerOff() {
    on_ = false;
    seals_.Stop();
    for (const auto& disk : disks_) disk->EndBoot();
    CloseHandle();
    const machine::ShutdownReport report = machine_->Shutdown();
    storageVolume_ = 0;
    isMaking_ = false;
    host::Insist("the report of a shutdown", [&] {
        if (!NT_SUCCESS(report.dismount))
            log_.Line("server: a volume's last flush failed: ", ctl::Hex(report.dismount));
        if (!NT_SUCCESS(report.registry))
            log_.Line("server: the registry is not saved: ", ctl::Hex(report.registry));
        log_.Line("server: boot " + std::to_string(boots_) + " has shut down");
    });
}

void Server::Stop() {
    const std::lock_guard stopping(stopLock_);
    {
        const std::lock_guard hold(savingLock_);
        saving_ = false;
        savingEnds_.notify_all();
    }
    if (saver_.joinable()) saver_.join();
    const std::lock_guard alone(boot_);
    if (!on_) return;
    PowerOff();
}

bool Server::Reboot(std::string& why) {
    const std::lock_guard alone(boot_);
    return RebootAlone(why);
}

Server::Idle Server::RebootWhenIdle() {
    const std::lock_guard alone(boot_);
    {
        const std::lock_guard hold(clientsLock_);
        if (!on_ || clients_.Count() != 0) return Idle::InUse;
        if (storageVolume_ != 0 && host::RunningSystemThreads() != 0) return Idle::Busy;
    }
    log_.Line("server: the last client has gone: reboots");
    std::string why;
    if (!RebootAlone(why)) log_.Line("server: the machine is off: " + why);
    return Idle::Rebooted;
}

// With the boot's lock held.
bool Server::RebootAlone(std::string& why) {
    if (!on_) {
        why = "the machine is off";
        return false;
    }
    PowerOff();
    try {
        PowerOn(kRebootAttempts);
    } catch (const Error& error) {
        why = error.what();
        return false;
    }
    const std::lock_guard hold(clientsLock_);
    machine_->ForEachVolume([&](machine::Volume& volume) {
        const bool used = clients_.CountOn(volume.device->Number(), volume.device->DiskNumber()) != 0;
        if (used && volume.files != nullptr) volume.files->Suspend();
    });
    return true;
}

void Server::SaveRegistryNowAndThen() {
    std::unique_lock hold(savingLock_);
    while (!savingEnds_.wait_for(hold, kRegistryPeriod, [this] { return !saving_; })) {
        try {
            const NTSTATUS status = registry_->Flush();
            if (!NT_SUCCESS(status)) log_.Line("server: the registry is not saved: " + ctl::Hex(status));
            WatchStorage();
        } catch (const std::bad_alloc&) {
            NoMemory("server: the registry is not saved");
        }
    }
}

void Server::NoMemory(const char* whose) noexcept {
    log_.Line(whose, ": no memory");
}

}  // namespace nbd
