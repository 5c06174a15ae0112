#include "nbd/volume_description.h"
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include "machine/files/guest_files.h"
#include "machine/partition/partition_table.h"
#include "nbd/machine_folder.h"

namespace nbd {
namespace {

using machine::Guid;
using tool::wire::VolumeText;

constexpr Guid kEfiType = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                           0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};
constexpr Guid kRecoveryType = {0xA4, 0xBB, 0x94, 0xDE, 0xD1, 0x06, 0x40, 0x4D,
                                0xA1, 0x6A, 0xBF, 0xD5, 0x01, 0x79, 0xD6, 0xAC};
constexpr std::uint8_t kMbrEfi = 0xEF, kMbrRecovery = 0x27;

// What a volume begins with that the machine does not mount. Of NTFS too: it may be beyond a mount.
constexpr struct {
    std::size_t offset;
    std::string_view mark;
    const char* name;
    std::size_t labelAt;  // 11 bytes; 0: elsewhere
} kFileSystems[] = {
    {82, "FAT32   ", "fat32", 71}, {54, "FAT16   ", "fat16", 43},   {54, "FAT12   ", "fat12", 43},
    {3, "EXFAT   ", "exfat", 0},   {3, "-FVE-FS-", "bitlocker", 0}, {3, "NTFS    ", "ntfs", 0},
    {3, "ReFS", "refs", 0},        {0, "XFSB", "xfs", 0},           {512, "LABELONE", "lvm", 0},
};

template <std::size_t size>
void Put(char (&field)[size], std::string_view text) {
    std::size_t length = std::min(text.size(), size - 1);
    // Not in the middle of a character.
    while (length < text.size() && length != 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
        --length;
    std::memcpy(field, text.data(), length);
}

// The first three fields are numbers.
std::string GuidText(const std::uint8_t* guid) {
    constexpr std::array<int, 16> kOrder = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    std::string text;
    for (std::size_t i = 0; i < kOrder.size(); ++i) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", guid[kOrder[i]]);
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += digits.data();
    }
    return text;
}

// Space-padded, in the machine's 8-bit letters: what is none of ASCII is left out.
std::string FatLabel(const std::uint8_t* bytes) {
    std::string label;
    for (std::size_t i = 0; i < 11; ++i)
        if (bytes[i] >= 0x20 && bytes[i] < 0x7F) label += static_cast<char>(bytes[i]);
    label.erase(label.find_last_not_of(' ') + 1);
    return label == "NO NAME" ? "" : label;
}

void LookAtBytes(machine::Volume& volume, VolumeText& text) {
    std::vector<std::uint8_t> first(4096);
    if (volume.device->Length() < first.size() ||
        !NT_SUCCESS(volume.io->Read(0, first.data(), static_cast<std::uint32_t>(first.size()), nullptr)))
        return;
    for (const auto& known : kFileSystems) {
        if (std::memcmp(&first[known.offset], known.mark.data(), known.mark.size()) != 0) continue;
        Put(text.fileSystem, known.name);
        if (known.labelAt != 0) Put(text.label, FatLabel(&first[known.labelAt]));
        return;
    }
}

void LookAtFiles(machine::GuestFileSystem& files, VolumeText& text, std::string& what) {
    Put(text.fileSystem, files.Kind() == FileSystemKind::Ntfs ? "ntfs" : "ext");
    Put(text.label, files.Label());
    bool windows = false;
    const NTSTATUS status = machine::GuestFiles(files).Exists(u"\\Windows\\System32\\ntoskrnl.exe", windows);
    if (NT_SUCCESS(status) && windows) what = "looks like Windows' own";
}

std::string KindOf(const machine::Partition& partition) {
    if (partition.gptType == kEfiType || partition.mbrType == kMbrEfi) return "EFI system partition";
    if (partition.gptType == kRecoveryType || partition.mbrType == kMbrRecovery) return "Windows' recovery";
    return {};
}

const machine::Partition* PartitionAt(const machine::PartitionTable& table, std::uint64_t offset) {
    const auto found = std::find_if(table.partitions.begin(), table.partitions.end(),
                                    [&](const auto& partition) { return partition.offset == offset; });
    return found == table.partitions.end() ? nullptr : &*found;
}

machine::PartitionTable TableOf(machine::Disk& disk) {
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return NT_SUCCESS(disk.Read(offset, buffer, length));
    };
    return machine::ReadPartitionTable(read, disk.Size(), disk.SectorSize());
}

// Of a volume on which no file system is mounted; a raw one may get one.
std::string WhyNoStorage(const VolumeText& text) {
    if (text.fileSystem[0] == 0) return {};
    return std::string_view(text.fileSystem) == "ntfs" ? "cannot be mounted" : "cannot hold storage";
}

VolumeText Describe(machine::Volume& volume, const machine::Partition* partition) {
    VolumeText text{};
    const std::u16string& name = volume.device->Name();
    std::copy_n(name.begin(), std::min(name.size(), std::size(text.name.text) - 1), text.name.text);
    text.bytes = volume.device->Length();
    std::string what = partition != nullptr ? KindOf(*partition) : "", windows;
    if (partition != nullptr && partition->identity.size() == sizeof(Guid))
        Put(text.partition, GuidText(partition->identity.data()));
    const auto add = [&](const std::string& clause) {
        if (!clause.empty()) what += (what.empty() ? "" : ", ") + clause;
    };
    LookAtBytes(volume, text);
    auto* files = dynamic_cast<machine::GuestFileSystem*>(volume.files.get());
    if (files != nullptr) LookAtFiles(*files, text, windows);
    if (volume.device->Number() == kSystemVolume) windows = "the machine's own";
    add(windows);
    if (files == nullptr) add(WhyNoStorage(text));
    Put(text.what, what);
    return text;
}

}  // namespace

VolumeText DescribeVolume(machine::Machine& machine, machine::Volume& volume) {
    const machine::PartitionTable table = TableOf(machine.MediumOf(volume.device->DiskNumber()));
    return Describe(volume, PartitionAt(table, volume.device->Offset()));
}

}  // namespace nbd
