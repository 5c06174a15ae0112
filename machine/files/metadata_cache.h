// The sectors of metadata that one file system operation reads and changes.
//
// Nothing reaches the volume before Commit(): an operation that fails half-way is forgotten with Discard(), and
// leaves the volume as it was. The library underneath therefore never sees a failing write, whose clean-up it
// does badly. Commit() writes in an order in which a machine that stops between two requests leaves at worst
// clusters or records that nobody uses, never some that two files use or a name without its file.
//
// Not synchronised: the volume's lock guards it.
#pragma once
#include <cstdint>
#include <map>
#include <vector>
#include "machine/files/metadata_names.h"
#include "machine/files/volume_io.h"

namespace machine {

enum class CommitOrder {
    TakeFirst,    // operations that take space: bitmaps, then records, then directories
    RemoveFirst,  // operations that give space back: directories, then records, then bitmaps
};

class MetadataCache {
public:
    MetadataCache(VolumeIo& io, MetadataNames& names) : io_(io), names_(names) {}

    std::uint64_t Size() const { return io_.Size(); }
    bool Contains(std::uint64_t offset, std::uint64_t length) const {
        return offset <= Size() && length <= Size() - offset;
    }

    // Any byte range within the volume. The status is the failing request's; see also Failure().
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length);
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length);

    // Writes what changed. On a failure the rest is dropped and the failing request's status returned; what was
    // written before it stays written.
    [[nodiscard]] NTSTATUS Commit(CommitOrder order);
    void Discard();

    // The last failing request's status since Discard() or Commit(), STATUS_SUCCESS when all went well.
    NTSTATUS Failure() const { return failure_; }

private:
    struct Sector {
        std::vector<std::uint8_t> bytes;
        bool changed = false;
        bool directory = false;  // written as part of a directory's index block
    };
    struct Piece;

    [[nodiscard]] NTSTATUS Load(std::uint64_t first, std::uint64_t end);
    void Store(std::uint64_t sector, std::size_t at, const std::uint8_t* bytes, std::size_t length,
               bool directory);
    std::vector<Piece> ChangedPieces() const;
    [[nodiscard]] NTSTATUS WritePiece(const Piece& piece);

    VolumeIo& io_;
    MetadataNames& names_;
    std::map<std::uint64_t, Sector> sectors_;  // by sector number
    NTSTATUS failure_ = STATUS_SUCCESS;
};

}  // namespace machine
