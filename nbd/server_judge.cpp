// What a boot must have before clients may write: every disk's table, and every volume that the configuration
// protects. What is missing would leave the fixed state's own sectors open.
#include <algorithm>
#include <utility>
#include "client/control_client.h"
#include "client/status.h"
#include "machine/names.h"
#include "nbd/configured_volumes.h"
#include "nbd/server.h"
#include "platform/host/io/user_mode.h"

namespace nbd {
namespace {

std::u16string NameOf(unsigned number) {
    const std::string digits = std::to_string(number);
    return u"\\Device\\HarddiskVolume" + std::u16string(digits.begin(), digits.end());
}

std::string Shown(const std::u16string& name) {
    std::string text;
    for (const char16_t c : name.substr(name.rfind(u'\\') + 1))
        text += c < 0x7F && c >= 0x20 ? static_cast<char>(c) : '?';
    return text;
}

struct Configuration {
    std::vector<std::uint8_t> text;  // empty: there is none
    bool enabled = false;            // the driver has read one that switches it on
};

// The driver's own answers, over its control device, which nobody else has before the boot is up.
Configuration ReadConfiguration() {
    PFILE_OBJECT file = nullptr;
    const NTSTATUS opened = host::OpenDevice(kControlDevice, GENERIC_READ, file);
    if (!NT_SUCCESS(opened)) throw Error("the driver does not answer: " + ctl::Hex(opened));
    const auto ask = [file](ULONG code, void* output, ULONG length, ULONG& returned) {
        return host::DeviceIoControl(file, code, nullptr, 0, output, length, returned);
    };
    Configuration configuration;
    configuration.text.resize(KVR_CONFIG_BYTES);
    ULONG returned = 0, enabled = 0, unused = 0;
    const NTSTATUS read = ask(IOCTL_KVR_GET_CONFIG, configuration.text.data(), KVR_CONFIG_BYTES, returned);
    const NTSTATUS asked = ask(IOCTL_KVR_GET_ENABLED, &enabled, sizeof enabled, unused);
    host::CloseDevice(file);
    const bool none = read == STATUS_NO_SUCH_FILE || read == STATUS_END_OF_FILE;
    if (!NT_SUCCESS(read) && !none) throw Error("the configuration cannot be read: " + ctl::Hex(read));
    configuration.text.resize(NT_SUCCESS(read) ? returned : 0);
    configuration.enabled = NT_SUCCESS(asked) && enabled != 0;
    return configuration;
}

}  // namespace

// Throws Error when the boot lacks what a later one may have.
void Server::RequireBoot(NTSTATUS booted) {
    if (!NT_SUCCESS(booted)) throw Error("the machine does not start: " + ctl::Hex(booted));
    if (!NT_SUCCESS(machine_->DriverStatus()))
        throw Error("the driver does not load: " + ctl::Hex(machine_->DriverStatus()));
    for (std::size_t number = 0; number <= disks_.size(); ++number) {
        if (machine_->IsTableKnown(static_cast<unsigned>(number))) continue;
        const std::string image =
            number < disks_.size() ? folder_.DiskPath(folder_.disks[number]) : folder_.File(kSystemImage);
        throw Error("the partition table of " + image + " cannot be read");
    }
}

void Server::Warn(const std::string& sentence) {
    log_.Line("server: warning: " + sentence);
    warnings_.push_back(sentence);
}

// A disk on which the volume once was takes no writes; of one that was never seen nobody knows where it would
// be.
void Server::MissVolume(const std::u16string& name) {
    std::string sentence = Shown(name) + " is to be protected and is not there";
    for (const auto& [number, volume] : machine_->KnownVolumes()) {
        const bool served = volume.disk < disks_.size();
        if (!served || machine::FoldName(NameOf(number)) != machine::FoldName(name)) continue;
        disks_[volume.disk]->SetReadOnly(true);
        sentence += "; disk" + std::to_string(volume.disk) + " takes no writes";
    }
    Warn(sentence);
}

// Throws Error when the configuration cannot be read or was not followed.
void Server::JudgeVolumes() {
    warnings_.clear();
    for (const auto& disk : disks_) disk->SetReadOnly(false);
    const Configuration configuration = ReadConfiguration();
    const std::vector<std::u16string> names = ProtectedVolumes(configuration.text);
    if (!names.empty() && !configuration.enabled)
        throw Error("the driver could not read the configuration that says what is protected");
    for (const std::u16string& name : names) {
        if (machine_->VolumeNamed(name) == nullptr) MissVolume(name);
    }
}

}  // namespace nbd
