// What an on-disk format does its own way, for one volume: how its library's view of the volume comes and goes,
// and the steps of which operations consist. All that formats share stands above it: opens and sharing in
// MountedFileSystem, file data in FileData, operations that happen whole or not at all in MountedVolume.
//
// Every routine but the constructor is called under the volume's lock, those that do not say otherwise within
// an operation. A failing routine returns the failing request's own status if a request failed.
#pragma once
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>
#include "formats/file_system_kind.h"
#include "machine/files/directory_entry.h"
#include "machine/files/file_shape.h"
#include "machine/files/metadata_cache.h"

namespace machine {

// One file or directory in the course of time: its number on the volume, and what tells the number's users
// apart.
struct FileId {
    std::uint64_t number = 0;
    std::uint64_t generation = 0;
    bool operator==(const FileId&) const = default;
};

// One name of a file or directory.
struct FileLink {
    FileId parent;
    std::u16string name;
};

struct FormatTraits {
    FileSystemKind kind;
    // The driver's object name on volumes with this format; empty: as the machine's FileSystemDriver says.
    const char16_t* driverName;
    bool movesNames;          // renames, and removes directories
    bool writesSpecial;       // writes files that need the library for their data
    bool showsSizesInFolder;  // a directory keeps a copy of its files' sizes and times
    // A file's space goes in an operation of its own before its name does: a machine that stops in between
    // leaves an empty file, which a check removes without asking when even its name is gone.
    bool emptiesFirst;
};

// An error of a library, and the status that stands for it.
struct LibraryError {
    long error;
    NTSTATUS status;
};

class VolumeFormat {
public:
    virtual ~VolumeFormat() = default;
    VolumeFormat(const VolumeFormat&) = delete;
    VolumeFormat& operator=(const VolumeFormat&) = delete;

    const FormatTraits& Traits() const { return traits_; }
    VolumeIo& Io() const { return io_; }
    MetadataCache& Cache() { return cache_; }
    MetadataNames& Names() { return names_; }
    // Why nothing can be changed, one line without a full stop; empty when it can. As of the last Open().
    const std::string& ReadOnlyReason() const { return readOnly_; }

    // ---- the library's view; not within an operation -----------------------------------------------------
    // Opens the view. STATUS_UNRECOGNIZED_VOLUME when the volume holds no such format, STATUS_NOT_SUPPORTED
    // when it cannot be read here, STATUS_DISK_CORRUPT_ERROR when it is beyond use.
    [[nodiscard]] virtual NTSTATUS Open() = 0;
    virtual bool IsOpen() const = 0;
    // Forgets it, with whatever it has not stored.
    virtual void Drop() = 0;

    // ---- around an operation that changes the volume -----------------------------------------------------
    [[nodiscard]] virtual NTSTATUS BeginChange() { return STATUS_SUCCESS; }
    [[nodiscard]] virtual NTSTATUS Commit(CommitOrder order) = 0;

    // ---- names -------------------------------------------------------------------------------------------
    virtual FileId Root() const = 0;
    // Whether a path may have such a component.
    virtual bool IsName(std::u16string_view name) const = 0;
    // Looks a name up in its directory and spells it as the directory does. STATUS_NOT_A_DIRECTORY when it is
    // none, STATUS_ACCESS_DENIED for the file system's own files.
    [[nodiscard]] virtual NTSTATUS LookUp(FileLink& link, bool& exists, FileId& id) = 0;
    // Everything of `entry` but its name, and the generation where LookUp and ReadDirectory left it out.
    [[nodiscard]] virtual NTSTATUS Describe(FileId& id, DirectoryEntry& entry) = 0;
    struct Name {
        std::u16string name;
        FileId id;
    };
    // Without the file system's own files; names that no path can spell are left out.
    [[nodiscard]] virtual NTSTATUS ReadDirectory(const FileId& id, std::vector<Name>& names) = 0;
    // Makes an empty file or directory where nothing stands.
    [[nodiscard]] virtual NTSTATUS Create(const FileLink& link, bool directory, ULONG attributes,
                                          FileId& id) = 0;
    // Removes one name, and with the last one the file, or the directory, which must be empty.
    [[nodiscard]] virtual NTSTATUS Remove(const FileLink& link, const FileId& id) = 0;
    // With `emptiesFirst`: the space of a file that has one name.
    [[nodiscard]] virtual NTSTATUS EmptyForRemoval(const FileId&) { return STATUS_NOT_SUPPORTED; }
    // With `movesNames`: one more name, where nothing stands.
    [[nodiscard]] virtual NTSTATUS AddName(const FileLink&, const FileId&) { return STATUS_NOT_SUPPORTED; }
    // With `showsSizesInFolder`: brings the directory's copy up to date, and the times to now.
    [[nodiscard]] virtual NTSTATUS Refresh(const FileId&) { return STATUS_NOT_SUPPORTED; }
    [[nodiscard]] virtual NTSTATUS FreeSpace(std::uint64_t& bytes) = 0;
    // The volume's name for people, UTF-8; empty when it has none. While the view is open.
    virtual std::string Label() const = 0;

    // ---- one file's data ---------------------------------------------------------------------------------
    // STATUS_FILE_CORRUPT_ERROR also when the number is another file's by now.
    [[nodiscard]] virtual NTSTATUS LoadShape(const FileId& id, FileShape& shape) = 0;
    // A range within the size of a file whose shape has no runs.
    [[nodiscard]] virtual NTSTATUS ReadByLibrary(const FileId& id, std::uint64_t offset, void* buffer,
                                                 ULONG length) = 0;
    // With `writesSpecial`: any range of a special file.
    [[nodiscard]] virtual NTSTATUS WriteByLibrary(const FileId&, std::uint64_t, const void*, ULONG) {
        return STATUS_NOT_SUPPORTED;
    }
    // Takes space up to the end of a write past what is initialised, writes the data, and notes what finds it;
    // `shape` is the file's and becomes the new one.
    [[nodiscard]] virtual NTSTATUS Extend(const FileId& id, const FileWrite& write, FileShape& shape) = 0;
    // Gives back all of the file's space and sets its attributes.
    [[nodiscard]] virtual NTSTATUS Empty(const FileId& id, ULONG attributes) = 0;

protected:
    // `names` may be a member of the derived object: it is not used before that is whole.
    VolumeFormat(const FormatTraits& traits, VolumeIo& io, MetadataNames& names)
        : traits_(traits), io_(io), names_(names), cache_(io, names) {}
    // What a failing call of the library means: the failing request's own status, else what `known` makes of
    // the library's error, `unknown` for the others.
    NTSTATUS Failure(std::span<const LibraryError> known, long error, NTSTATUS unknown) const;

    std::string readOnly_;

private:
    const FormatTraits& traits_;
    VolumeIo& io_;
    MetadataNames& names_;
    MetadataCache cache_;
};

using FormatMaker = std::unique_ptr<VolumeFormat> (*)(VolumeIo& io);

}  // namespace machine
