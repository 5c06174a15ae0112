// What a boot must have before clients may write: every disk's table, and every volume that the configuration
// protects, protected. What is missing would leave the fixed state's own sectors open.
#include <algorithm>
#include <utility>
#include "client/own_driver.h"
#include "client/status.h"
#include "machine/names.h"
#include "nbd/configured_volumes.h"
#include "nbd/server.h"

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

// The driver's own answers, over its control device, which nobody else has before the boot is up.
struct Report {
    std::vector<std::uint8_t> configuration;  // empty: there is none
    bool enabled = false;                     // the driver has read one that switches it on
    std::vector<ctl::FixedVolume> volumes;
};

Report AskDriver() {
    try {
        ctl::Client driver(std::make_unique<ctl::OwnDriver>(GENERIC_READ));
        return {driver.GetConfig(), driver.Enabled(), driver.FixedVolumes()};
    } catch (const ctl::Failure& failure) {
        throw Error(std::string("the driver does not say what is protected: ") + failure.what());
    }
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

// Of a volume that is there and is to be protected.
void Server::JudgeVolume(const std::u16string& name, const std::vector<ctl::FixedVolume>& present) {
    const auto same = [&](const ctl::FixedVolume& volume) {
        return machine::FoldName(volume.name) == machine::FoldName(name);
    };
    const auto volume = std::find_if(present.begin(), present.end(), same);
    const bool isProtected = volume != present.end() && volume->state != 0;
    std::string trouble = volume == present.end() ? "" : ctl::StorageTrouble(*volume, hardening_);
    if (trouble.empty() && !isProtected) trouble = "is to be protected and is not";
    if (!trouble.empty()) Warn(Shown(name) + " " + trouble);
}

// Throws Error when the configuration cannot be read or was not followed.
void Server::JudgeVolumes() {
    warnings_.clear();
    for (const auto& disk : disks_) disk->SetReadOnly(false);
    const Report report = AskDriver();
    const std::vector<std::u16string> names = ProtectedVolumes(report.configuration);
    if (!names.empty() && !report.enabled)
        throw Error("the driver could not read the configuration that says what is protected");
    for (const std::u16string& name : names) {
        if (machine_->VolumeNamed(name) == nullptr)
            MissVolume(name);
        else
            JudgeVolume(name, report.volumes);
    }
    AuditConfiguration(report.configuration);
    TellBoot(report.volumes);
    storage_.Begin();
}

}  // namespace nbd
