#include <algorithm>
#include <cstring>
#include <shared_mutex>
#include <unistd.h>
#include "client/driver_switches.h"
#include "formats/kvr_ioctl.h"
#include "machine/files/mounted_file_system.h"
#include "machine/names.h"
#include "nbd/server.h"
#include "platform/host/object/registry_store.h"
#include "platform/host/io/user_mode.h"

namespace nbd {
namespace {

bool NeedsTheFileSystem(std::uint32_t code) {
    return code == IOCTL_KVR_ALLOCATE_SWAP || code == IOCTL_KVR_REMOVE_SWAP;
}

std::u16string VolumeIn(const std::vector<std::uint8_t>& input) {
    std::u16string name(KVR_NAME_CHARS, u'\0');
    // An empty input has no data that may be named, not even to copy nothing of it.
    if (!input.empty())
        std::memcpy(name.data(), input.data(), std::min(input.size(), name.size() * sizeof(char16_t)));
    return name.substr(0, name.find(u'\0'));
}

std::string ShortName(const machine::Volume& volume) {
    return "HarddiskVolume" + std::to_string(volume.device->Number());
}

FileSystemKind KindOf(const machine::FileSystem* files) {
    return files == nullptr ? FileSystemKind::None : files->Kind();
}

constexpr unsigned kMostStorageFiles = 17;

// The map's, the first one for changes, and those behind it, which there need not be.
std::u16string StorageFile(unsigned number) {
    if (number == 0) return u"\\kvr.MAP";
    if (number == 1) return u"\\kvr.SWP";
    return std::u16string(u"\\kvr.SWP.") + static_cast<char16_t>(u'0' + (number - 1) / 10) +
           static_cast<char16_t>(u'0' + (number - 1) % 10);
}

std::uint64_t FreeBytesOf(machine::FileSystem* files) {
    std::uint64_t bytes = 0;
    auto* guest = dynamic_cast<machine::GuestFileSystem*>(files);
    return guest != nullptr && NT_SUCCESS(guest->FreeSpace(bytes)) ? bytes : tool::wire::kUnknown;
}

}  // namespace

NTSTATUS Server::OpenControl(ACCESS_MASK access, Handle& handle) {
    const std::shared_lock hold(boot_);
    if (!on_) return STATUS_DEVICE_POWERED_OFF;
    const std::lock_guard guard(clientsLock_);
    PFILE_OBJECT file = nullptr;
    const NTSTATUS status = host::OpenDevice(kControlDevice, access, file);
    if (!NT_SUCCESS(status)) return status;
    control_ = file;
    handle = handle_ = ++lastHandle_;
    return STATUS_SUCCESS;
}

void Server::CloseControl(Handle handle) {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    if (handle == handle_) CloseHandle();
}

void Server::CloseHandle() {
    if (control_ != nullptr) host::CloseDevice(control_);
    control_ = nullptr;
    handle_ = 0;
}

// Success with the volume's number, 0 for a request that needs no file system or a volume that is not known
// here. Refused, with the reason, is what could not be done: nothing has been removed for it then.
NTSTATUS Server::CheckUsable(const ControlCall& call, std::string& text, unsigned& volume) {
    volume = 0;
    if (!NeedsTheFileSystem(call.code)) return STATUS_SUCCESS;
    const machine::Volume* named = machine_->VolumeNamed(VolumeIn(call.input));
    if (named == nullptr) return STATUS_SUCCESS;
    volume = named->device->Number();
    const unsigned disk = named->device->DiskNumber();
    if (clients_.CountOn(volume, disk) != 0) {
        text = ShortName(*named) + " is in use: " + clients_.DescribeOn(volume, disk);
        return STATUS_DEVICE_BUSY;
    }
    const auto* files = dynamic_cast<const machine::GuestFileSystem*>(named->files.get());
    FreeBytesOf(named->files.get());  // mounts what a client has had in between, and may have mended
    const std::string why = files != nullptr ? files->ReadOnlyReason() : std::string();
    if (why.empty()) return STATUS_SUCCESS;
    text = ShortName(*named) + " can only be read: " + why;
    return STATUS_MEDIA_WRITE_PROTECTED;
}

void Server::BeginStorage(unsigned volume) {
    storageVolume_ = volume;
    isMaking_ = true;
    for (const auto& disk : disks_) disk->ForgetFailure();
}

// What the host did to the storage that was asked for last: a line, or empty when nothing.
std::string Server::StorageFailure() {
    const machine::Volume* volume = machine_->VolumeOf(storageVolume_);
    const unsigned number = volume != nullptr ? volume->device->DiskNumber() : ~0U;
    const int error = number < disks_.size() ? disks_[number]->Failure() : 0;
    if (error == 0) return {};
    return "\nstorage-failure: " + ShortName(*volume) + " the host does not write disk" +
           std::to_string(number) + ", " + folder_.DiskPath(folder_.disks[number]) + ": " +
           std::strerror(error);
}

NTSTATUS Server::Send(ControlCall& call) {
    ULONG returned = 0;
    const auto sizeOf = [](const std::vector<std::uint8_t>& bytes) { return static_cast<ULONG>(bytes.size()); };
    const NTSTATUS status = host::DeviceIoControl(
        control_, call.code, call.input.empty() ? nullptr : call.input.data(), sizeOf(call.input),
        call.output.empty() ? nullptr : call.output.data(), sizeOf(call.output), returned);
    call.output.resize(std::min<std::size_t>(returned, call.output.size()));
    return status;
}

// Clients come and go while a request that needs no file system is under way; one that needs it keeps them out
// until the driver has answered, and storage that is still being made then keeps them out by itself.
NTSTATUS Server::Control(Handle handle, ControlCall& call) {
    const std::shared_lock hold(boot_);
    std::unique_lock guard(clientsLock_);
    unsigned volume = 0;
    NTSTATUS status = STATUS_INVALID_HANDLE;
    if (handle != 0 && handle == handle_) status = CheckUsable(call, call.text, volume);
    if (!NT_SUCCESS(status)) {
        if (!call.text.empty()) log_.Line("control: refused: " + call.text);
        call.output.clear();
        return status;
    }
    if (call.code == IOCTL_KVR_ALLOCATE_SWAP) BeginStorage(volume);
    if (volume == 0) guard.unlock();
    status = Send(call);
    Audit(call, status);
    return status;
}

NTSTATUS Server::Facts(const std::u16string& name, tool::wire::VolumeFacts& facts, std::string& clients) {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    machine::Volume* volume = on_ ? machine_->VolumeNamed(name) : nullptr;
    if (volume == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    const machine::VolumeDevice& device = *volume->device;
    facts.bytes = device.Length();
    facts.sectorBytes = device.SectorSize();
    facts.removable = device.Removable() ? 1 : 0;
    facts.clients = static_cast<std::uint32_t>(clients_.CountOn(device.Number(), device.DiskNumber()));
    facts.fileSystem = KindOf(volume->files.get());
    facts.freeBytes = facts.clients == 0 ? FreeBytesOf(volume->files.get()) : tool::wire::kUnknown;
    facts.disk = device.DiskNumber();
    facts.system = device.Number() == kSystemVolume ? 1 : 0;
    facts.diskOffset = device.Offset();
    clients = clients_.DescribeOn(device.Number(), device.DiskNumber());
    return STATUS_SUCCESS;
}

NTSTATUS Server::StorageRuns(const std::u16string& name, std::vector<tool::wire::StorageRun>& runs) {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    machine::Volume* volume = on_ ? machine_->VolumeNamed(name) : nullptr;
    if (volume == nullptr) return STATUS_NO_SUCH_DEVICE;
    if (clients_.CountOn(volume->device->Number(), volume->device->DiskNumber()) != 0)
        return STATUS_DEVICE_BUSY;
    auto* files = dynamic_cast<machine::MountedFileSystem*>(volume->files.get());
    if (files == nullptr) return STATUS_UNRECOGNIZED_VOLUME;
    for (unsigned file = 0; file <= kMostStorageFiles; ++file) {
        machine::FileRuns found;
        const NTSTATUS status = files->Runs(StorageFile(file), found);
        if (status == STATUS_OBJECT_NAME_NOT_FOUND && file > 1) break;
        if (!NT_SUCCESS(status)) return status;
        for (const machine::FileRun& run : found.All()) runs.push_back({run.volume, run.length});
    }
    return STATUS_SUCCESS;
}

std::vector<tool::wire::VolumeText> Server::Descriptions() {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    std::vector<tool::wire::VolumeText> volumes;
    if (!on_) return volumes;
    for (const auto& [number, text] : descriptions_) volumes.push_back(text);
    return volumes;
}

NTSTATUS Server::ReadRegistry(const std::u16string& key, const std::u16string& name,
                              std::vector<std::uint8_t>& data) {
    host::RegistryValue value;
    const NTSTATUS status = registry_->Query(key, name, value);
    if (NT_SUCCESS(status)) data.assign(value.data.begin(), value.data.end());
    return status;
}

// Between boots only: each has read one value or the other, and `hardening_` says which.
NTSTATUS Server::SetSwitch(const std::u16string& name, bool on) {
    if (!ctl::IsDriverSwitch(name)) return STATUS_INVALID_PARAMETER;
    const std::shared_lock hold(boot_);
    log_.Line(std::string("audit: a switch of the driver is set for the next boot: ") + (on ? "on" : "off"));
    return ctl::SetDriverSwitch(*registry_, name, on);
}

std::string Server::About() {
    const std::shared_lock hold(boot_);
    const std::lock_guard guard(clientsLock_);
    std::string text = "on=" + std::to_string(on_ ? 1 : 0) + " pid=" + std::to_string(getpid()) +
                       " boots=" + std::to_string(boots_) + " hardening=" + std::to_string(hardening_ ? 1 : 0) +
                       " minutes-east=" + std::to_string(minutesEast_) +
                       " disks=" + std::to_string(disks_.size()) +
                       " clients=" + std::to_string(clients_.Count()) + " folder=" + folder_.path;
    for (const std::string& warning : warnings_) text += "\nwarning: " + warning;
    text += SharedWriters() + StorageNotes();
    for (std::size_t number = 0; number < disks_.size(); ++number) {
        if (disks_[number]->LacksRoom())
            text += "\nwarning: the host has no room for disk" + std::to_string(number) + ", " +
                    folder_.DiskPath(folder_.disks[number]);
    }
    for (const std::string& note : notes_) text += "\nnote: " + note;
    return text + (on_ ? StorageFailure() : std::string());
}

}  // namespace nbd
