#include "machine/ntfs/mirror.h"
#include <algorithm>
#include <cstring>
#include <vector>
#include "machine/ntfs/library.h"

namespace machine {

using namespace ntfs_library;

namespace {

struct Layout {
    std::uint64_t records = 0, mirror = 0;  // byte offsets on the volume
    std::uint32_t recordSize = 0, count = 0;
};

std::uint32_t PowerOrCount(s8 code, std::uint32_t unit) {
    if (code > 0) return static_cast<std::uint32_t>(code) * unit;
    return code > -31 ? 1u << -code : 0;  // a negative code is the binary logarithm of the size
}

// False when the boot sector makes no sense.
bool ReadLayout(const NTFS_BOOT_SECTOR& boot, std::uint64_t volumeSize, Layout& layout) {
    const std::uint32_t sector = le16_to_cpu(boot.bpb.bytes_per_sector);
    const u8 perCluster = boot.bpb.sectors_per_cluster;
    const std::uint64_t cluster =
        perCluster <= 128 ? std::uint64_t{sector} * perCluster : std::uint64_t{sector} << (256 - perCluster);
    if (cluster == 0 || cluster > (1u << 21)) return false;
    layout.recordSize = PowerOrCount(boot.clusters_per_mft_record, static_cast<std::uint32_t>(cluster));
    if (layout.recordSize < 512 || layout.recordSize > 65536) return false;
    layout.count = std::max<std::uint32_t>(4, static_cast<std::uint32_t>(cluster / layout.recordSize));
    const std::uint64_t length = std::uint64_t{layout.count} * layout.recordSize;
    const auto first = static_cast<std::uint64_t>(sle64_to_cpu(boot.mft_lcn));
    const auto copy = static_cast<std::uint64_t>(sle64_to_cpu(boot.mftmirr_lcn));
    const std::uint64_t clusters = volumeSize / cluster;
    if (first >= clusters || copy >= clusters) return false;
    layout.records = first * cluster;
    layout.mirror = copy * cluster;
    return length <= volumeSize - layout.records && length <= volumeSize - layout.mirror;
}

// Whether all sectors of a record come from one and the same write of it.
bool IsWhole(const std::uint8_t* record, std::uint32_t size) {
    std::uint16_t at = 0, count = 0;
    std::memcpy(&at, record + 4, sizeof at);
    std::memcpy(&count, record + 6, sizeof count);
    const std::uint32_t blocks = size / 512;
    if (std::memcmp(record, "FILE", 4) != 0 || count != blocks + 1 || at + 2u * count > 510) return false;
    for (std::uint32_t block = 0; block < blocks; ++block)
        if (std::memcmp(record + block * 512 + 510, record + at, 2) != 0) return false;
    return true;
}

}  // namespace

NTSTATUS RepairNtfsMirror(VolumeIo& io, NtfsNames& names) {
    const std::uint32_t sector = io.SectorSize();
    std::vector<std::uint8_t> first(sector);
    NTSTATUS status = io.Read(0, first.data(), sector, nullptr);
    if (!NT_SUCCESS(status)) return status;
    NTFS_BOOT_SECTOR boot;
    std::memcpy(&boot, first.data(), sizeof boot);
    Layout layout;
    if (!ReadLayout(boot, io.Size(), layout)) return STATUS_DISK_CORRUPT_ERROR;

    const auto length = (layout.count * layout.recordSize + sector - 1) / sector * sector;
    std::vector<std::uint8_t> records(length), mirror(length);
    PFILE_OBJECT owner = names.ObjectOf(MetadataKind::Record);
    status = io.Read(layout.records, records.data(), length, owner);
    if (NT_SUCCESS(status)) status = io.Read(layout.mirror, mirror.data(), length, names.Mirror());
    if (!NT_SUCCESS(status)) return status;

    bool recordsChanged = false, mirrorChanged = false;
    for (std::uint32_t i = 0; i < layout.count; ++i) {
        std::uint8_t* record = records.data() + i * layout.recordSize;
        std::uint8_t* copy = mirror.data() + i * layout.recordSize;
        if (std::memcmp(record, copy, layout.recordSize) == 0) continue;
        if (IsWhole(record, layout.recordSize)) {
            std::memcpy(copy, record, layout.recordSize);
            mirrorChanged = true;
        } else if (IsWhole(copy, layout.recordSize)) {
            std::memcpy(record, copy, layout.recordSize);
            recordsChanged = true;
        } else {
            return STATUS_DISK_CORRUPT_ERROR;
        }
    }
    if (recordsChanged) status = io.Write(layout.records, records.data(), length, owner);
    if (NT_SUCCESS(status) && mirrorChanged)
        status = io.Write(layout.mirror, mirror.data(), length, names.Mirror());
    return status;
}

}  // namespace machine
