#include "machine/files/metadata_cache.h"
#include <algorithm>
#include <cstring>

namespace machine {
namespace {

constexpr std::uint64_t kLargestRequest = 1 << 20;  // bytes, a multiple of every sector size

// Within one rank the low addresses go first when space is given back and last when it is taken: directories
// are older than their files, and so a directory's own record lies before those of its files.
int RankOf(MetadataKind kind) {
    switch (kind) {
        case MetadataKind::State:  // not by its rank, see Commit()
        case MetadataKind::ClusterBitmap:
            return 0;
        case MetadataKind::RecordBitmap:
            return 1;
        case MetadataKind::Other:
            return 2;
        case MetadataKind::Record:
            return 3;
        case MetadataKind::RecordMirror:
            return 4;
        case MetadataKind::Directory:
            break;
    }
    return 5;
}

}  // namespace

// Sectors that go to the volume in one request.
struct MetadataCache::Piece {
    std::uint64_t sector;
    std::uint64_t count;
    MetadataKind kind;
};

NTSTATUS MetadataCache::Load(std::uint64_t first, std::uint64_t end) {
    const std::uint32_t size = io_.SectorSize();
    for (std::uint64_t sector = first; sector < end;) {
        if (sectors_.contains(sector)) {
            ++sector;
            continue;
        }
        std::uint64_t stop = sector + 1;
        const std::uint64_t most = sector + kLargestRequest / size;
        while (stop < end && stop < most && !sectors_.contains(stop)) ++stop;
        std::vector<std::uint8_t> buffer((stop - sector) * size);
        const NTSTATUS status =
            io_.Read(sector * size, buffer.data(), static_cast<std::uint32_t>(buffer.size()),
                     names_.ObjectOf(names_.KindAt(sector * size)));
        if (!NT_SUCCESS(status)) return failure_ = status;
        for (const std::uint8_t* from = buffer.data(); sector < stop; ++sector, from += size)
            sectors_[sector].bytes.assign(from, from + size);
    }
    return STATUS_SUCCESS;
}

NTSTATUS MetadataCache::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    const std::uint32_t size = io_.SectorSize();
    const NTSTATUS status = Load(offset / size, (offset + length + size - 1) / size);
    if (!NT_SUCCESS(status)) return status;
    auto* out = static_cast<std::uint8_t*>(buffer);
    while (length > 0) {
        const std::size_t at = offset % size;
        const std::size_t part = std::min<std::size_t>(length, size - at);
        std::memcpy(out, sectors_[offset / size].bytes.data() + at, part);
        out += part, offset += part, length -= part;
    }
    return STATUS_SUCCESS;
}

NTSTATUS MetadataCache::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    const std::uint32_t size = io_.SectorSize();
    const bool directory = names_.IsDirectoryData(buffer, length);
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    while (length > 0) {
        const std::size_t at = offset % size;
        const std::size_t part = std::min<std::size_t>(length, size - at);
        if (part < size) {
            const NTSTATUS status = Load(offset / size, offset / size + 1);
            if (!NT_SUCCESS(status)) return status;
        }
        Store(offset / size, at, from, part, directory);
        from += part, offset += part, length -= part;
    }
    return STATUS_SUCCESS;
}

// Bytes that are there already change nothing: the library writes whole windows of the bitmap back for one bit.
void MetadataCache::Store(std::uint64_t sector, std::size_t at, const std::uint8_t* bytes, std::size_t length,
                          bool directory) {
    Sector& target = sectors_[sector];
    target.directory = target.directory || directory;
    if (target.bytes.empty()) {
        target.bytes.assign(bytes, bytes + length);  // a whole sector that nobody read
        target.changed = true;
    } else if (std::memcmp(target.bytes.data() + at, bytes, length) != 0) {
        std::memcpy(target.bytes.data() + at, bytes, length);
        target.changed = true;
    }
}

std::vector<MetadataCache::Piece> MetadataCache::ChangedPieces() const {
    std::vector<Piece> pieces;
    const std::uint32_t size = io_.SectorSize();
    for (const auto& [number, sector] : sectors_) {
        if (!sector.changed) continue;
        const MetadataKind kind = sector.directory ? MetadataKind::Directory : names_.KindAt(number * size);
        const bool joins = !pieces.empty() && pieces.back().kind == kind &&
                           pieces.back().sector + pieces.back().count == number &&
                           pieces.back().count < kLargestRequest / size;
        if (joins)
            ++pieces.back().count;
        else
            pieces.push_back({number, 1, kind});
    }
    return pieces;
}

NTSTATUS MetadataCache::WritePiece(const Piece& piece) {
    const std::uint32_t size = io_.SectorSize();
    std::vector<std::uint8_t> buffer;
    buffer.reserve(piece.count * size);
    for (std::uint64_t sector = piece.sector; sector < piece.sector + piece.count; ++sector) {
        const std::vector<std::uint8_t>& bytes = sectors_[sector].bytes;
        buffer.insert(buffer.end(), bytes.begin(), bytes.end());
    }
    return io_.Write(piece.sector * size, buffer.data(), static_cast<std::uint32_t>(buffer.size()),
                     names_.ObjectOf(piece.kind));
}

NTSTATUS MetadataCache::Commit(CommitOrder order) {
    std::vector<Piece> pieces = ChangedPieces();
    const bool taking = order == CommitOrder::TakeFirst;
    std::sort(pieces.begin(), pieces.end(), [&](const Piece& a, const Piece& b) {
        if ((a.kind == MetadataKind::State) != (b.kind == MetadataKind::State))
            return a.kind == MetadataKind::State;
        const int left = RankOf(a.kind), right = RankOf(b.kind);
        if (left != right) return taking ? left < right : left > right;
        return taking ? a.sector > b.sector : a.sector < b.sector;
    });
    NTSTATUS status = STATUS_SUCCESS;
    for (const Piece& piece : pieces) {
        status = WritePiece(piece);
        if (!NT_SUCCESS(status)) break;
    }
    Discard();
    return failure_ = NT_SUCCESS(status) ? STATUS_SUCCESS : status;
}

void MetadataCache::Discard() {
    sectors_.clear();
    failure_ = STATUS_SUCCESS;
}

}  // namespace machine
