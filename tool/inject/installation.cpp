#include "tool/inject/installation.h"
#include <algorithm>
#include <cstdio>
#include "machine/partition/partition_format.h"
#include "machine/partition/partition_table.h"
#include "tool/error.h"

namespace tool {
namespace {

using namespace machine::table;

constexpr std::uint32_t kSector = 512;
constexpr machine::Guid kEfiSystemType = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                                          0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};
constexpr std::uint8_t kActive = 0x80;
constexpr std::uint32_t kMostControlSet = 999;

// Which byte the partition of an MBR disk begins with, where the firmware starts from.
std::uint64_t ActiveOffset(const ImageEdit& image) {
    std::uint8_t sector[kSector];
    image.Read(0, sector, sizeof sector);
    for (std::size_t i = 0; i < 4; ++i) {
        const std::uint8_t* entry = sector + kMbrEntries + i * kMbrEntrySize;
        if (entry[0] == kActive) return std::uint64_t{Get32(entry + kMbrEntryStart)} * kSector;
    }
    return 0;
}

std::string HiveFile(const std::string& name) {
    return "System32\\config\\" + name;
}

}  // namespace

Installation::Installation(ImageEdit& image, const std::string& root) : image_(image), root_(root) {
    ReadPartitions();
    FindVolume();
    OpenSystem();
}

void Installation::ReadPartitions() {
    const auto read = [this](std::uint64_t offset, void* buffer, std::uint32_t length) {
        image_.Read(offset, buffer, length);
        return true;
    };
    const machine::PartitionTable table =
        machine::ReadPartitionTable(read, image_.Size() / kSector * kSector, kSector);
    if (!table.problems.empty())
        throw Error("the disk's partition table is not sound: " + table.problems.front());
    if (table.kind == machine::TableKind::None)
        throw Error("the image has no partition table: a whole disk is needed");
    const std::uint64_t active = table.kind == machine::TableKind::Mbr ? ActiveOffset(image_) : 0;
    for (const machine::Partition& partition : table.partitions) {
        partitions_.push_back({{partition.offset, partition.length},
                               partition.gptType == kEfiSystemType,
                               active != 0 && partition.offset == active});
    }
}

// Null where there is no Windows; `why` gains what speaks against it.
std::unique_ptr<NtfsTree> Installation::TryVolume(std::size_t number, std::string& why) const {
    const DiskRange& range = partitions_[number - 1].range;
    try {
        auto volume = std::make_unique<NtfsTree>(image_, range.offset, range.length);
        if (volume->Exists(Path(HiveFile("SYSTEM")))) return volume;
    } catch (const Error& error) {
        why += "; partition " + std::to_string(number) + ": " + error.what();
    }
    return nullptr;
}

// Why the other volumes are not it is told only when none is.
void Installation::FindVolume() {
    std::string why;
    std::size_t found = 0;
    for (std::size_t number = 1; number <= partitions_.size(); ++number) {
        auto volume = TryVolume(number, why);
        if (volume == nullptr) continue;
        if (found != 0)
            throw Error("partitions " + std::to_string(found) + " and " + std::to_string(number) +
                        " of the disk both have a Windows in \\" + root_ + "; which is meant cannot be told");
        found = number;
        volume_ = std::move(volume);
        range_ = partitions_[number - 1].range;
    }
    if (found == 0) throw Error("no volume of the disk has a Windows in \\" + root_ + why);
}

std::unique_ptr<Hive> Installation::Load(const std::string& name) {
    return std::make_unique<Hive>(name, volume_->Read(Path(HiveFile(name))));
}

void Installation::OpenSystem() {
    system_ = Load("SYSTEM");
    const auto current = NumberOf(system_->Get("Select", "Current"));
    if (!current || *current == 0 || *current > kMostControlSet)
        throw Error("the hive SYSTEM does not say which control set is the current one");
    char name[24];
    std::snprintf(name, sizeof name, "ControlSet%03u", *current);
    controlSet_ = name;
    if (!system_->HasKey(controlSet_)) throw Error("the hive SYSTEM has no " + controlSet_);
    const auto processor =
        TextOf(system_->Get(Current("Control\\Session Manager\\Environment"), "PROCESSOR_ARCHITECTURE"));
    if (!processor) throw Error("the hive SYSTEM does not say which processor this Windows is for");
    if (SameName(*processor, "x86")) throw Error("this is a 32-bit Windows; Kvr is for 64-bit ones");
    if (!SameName(*processor, "AMD64")) throw Error("this Windows is for " + *processor + ", Kvr for AMD64");
}

Hive& Installation::Software() {
    if (software_ == nullptr) software_ = Load("SOFTWARE");
    return *software_;
}

BootVolume Installation::Boot() const {
    const auto isEfi = [](const Partition& partition) { return partition.efi; };
    if (std::count_if(partitions_.begin(), partitions_.end(), isEfi) > 1)
        throw Error("the disk has more than one EFI system partition");
    for (const Partition& partition : partitions_) {
        if (partition.efi || partition.active) return {partition.range, partition.efi};
    }
    throw Error("the disk has neither an EFI system partition nor an active one, so no boot store");
}

void Installation::Store(const std::string& name, std::unique_ptr<Hive>& hive) {
    if (hive != nullptr && hive->IsChanged()) volume_->Write(Path(HiveFile(name)), hive->Save());
}

void Installation::StoreHives() {
    Store("SOFTWARE", software_);
    Store("SYSTEM", system_);
}

}  // namespace tool
