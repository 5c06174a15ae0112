// All files of a volume as its file system's own tables have them: NTFS's master file table, ext's inode
// tables. Read-only, and lenient: a volume that is in use is seen as a power cut would leave it, and what makes
// no sense in it is left out and counted.
#pragma once
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include "formats/file_system_kind.h"
#include "inspect/volume_view.h"

namespace inspect {

using FileId = std::uint64_t;  // the number of a file's record or inode

struct FileName {
    FileId parent;
    std::string name;  // UTF-8, as a rule; ext keeps any bytes but a slash
    bool operator==(const FileName&) const = default;
    auto operator<=>(const FileName&) const = default;
};

struct FileRecord {
    enum class Type { File, Directory, Other };

    FileId id = 0;
    std::uint64_t birth = 0;  // tells a file from a later one with the same number
    Type type = Type::File;
    std::uint64_t size = 0;       // bytes
    std::int64_t modified = 0;    // in the format's own units
    std::uint64_t settings = 0;   // a digest of modes, owners, attributes, access lists
    std::vector<FileName> names;  // ascending; none: nobody reaches it
    std::vector<Extent> data;     // where its content lies, in its order; holes are left out
    std::vector<Extent> tables;   // where what the file system keeps about it lies, outside the record
    std::string inlined;          // content that lies in the record
};

// `done` of `total` steps.
using Progress = std::function<void(const char* what, std::uint64_t done, std::uint64_t total)>;

class FileTable {
public:
    // Null for a volume that holds neither file system. Throws Error for one that cannot be read. The view
    // outlives the table.
    static std::unique_ptr<FileTable> Open(VolumeView& view);
    virtual ~FileTable() = default;
    FileTable(const FileTable&) = delete;
    FileTable& operator=(const FileTable&) = delete;

    virtual FileSystemKind Kind() const = 0;
    virtual FileId Root() const = 0;
    // Numbers lie in [First(), End()).
    virtual FileId First() const = 0;
    virtual FileId End() const = 0;
    virtual std::uint32_t BlockBytes() const = 0;
    // A sentence when changes stand in the file system's journal alone, where they are not looked for.
    virtual std::string Unwritten() const { return {}; }

    // False when no file has that number, or its record makes no sense (which Damaged() counts).
    [[nodiscard]] virtual bool Read(FileId id, FileRecord& record) = 0;
    std::uint64_t Damaged() const { return damaged_; }

    // The files whose record or name is another one in `other`, a state of the same volume; some that are the
    // same may be among them. Throws Error.
    std::set<FileId> Suspects(FileTable& other, const Progress& progress);

    // `path` with slashes, or backslashes where they are no characters of a name.
    std::optional<FileId> Find(const std::string& path);
    // With slashes, from the root, beginning with one.
    std::string PathOf(const FileName& name);
    // The file system's own and what lies in its own directories.
    bool IsSystem(const FileRecord& record);

    // A file's content from `offset` on; fewer bytes at its end. Throws Error.
    virtual std::size_t Content(FileId id, std::uint64_t offset, void* buffer, std::size_t length) = 0;
    // False for blocks that belong to nothing.
    virtual bool IsInUse(std::uint64_t offset) = 0;
    // Where the file system's tables lie that belong to no file, with what each is.
    virtual std::vector<std::pair<Extent, std::string>> Tables() { return {}; }

    // Of a stored record or inode.
    virtual std::uint32_t RecordBytes() const = 0;

protected:
    explicit FileTable(VolumeView& view) : reader_(view) {}

    // The records [first, first + count) as they are stored. False when they cannot be read.
    [[nodiscard]] virtual bool RawRecords(FileId first, std::uint64_t count, std::uint8_t* bytes) = 0;
    // Adds the file to which a stored record belongs.
    virtual void AddOwner(FileId id, const std::uint8_t*, std::set<FileId>& ids) const { ids.insert(id); }
    // Adds the files that have other names in `other`, where names lie outside the records.
    virtual void AddRenamed(FileTable&, std::set<FileId>&) {}
    virtual std::optional<FileId> Lookup(FileId directory, const std::string& name) = 0;
    virtual bool IsSystemId(FileId id) const = 0;
    virtual bool IsBackslashSeparator() const = 0;

    ByteReader reader_;
    std::uint64_t damaged_ = 0;

private:
    bool CompareRecords(FileTable& other, FileId first, std::uint64_t count, std::set<FileId>& ids);
    const std::string& DirectoryPath(FileId directory, unsigned depth);

    std::map<FileId, std::string> directories_;  // known paths, without a slash at the end
};

std::unique_ptr<FileTable> OpenNtfsTable(VolumeView& view);  // as Open; null for a volume that is not NTFS
std::unique_ptr<FileTable> OpenExtTable(VolumeView& view);

}  // namespace inspect
