// What became of a volume's files between two states of it: its fixed state and the present one.
#pragma once
#include "inspect/file_table.h"

namespace inspect {

struct Change {
    enum class Kind {
        Added,
        Deleted,
        Changed,
        Renamed,   // or moved; its content is as it was unless `contentToo`
        Settings,  // mode, owner, attributes, dates; its content is as it was
    };
    Kind kind = Kind::Added;
    bool contentToo = false;   // Renamed
    std::string path{};        // of the present state; the fixed one's for Deleted
    std::string pathBefore{};  // Renamed
    FileRecord::Type type = FileRecord::Type::File;
    std::uint64_t sizeBefore = 0, size = 0;  // bytes; 0 where there is no such file
    // Bytes in the sectors of the file's present place that are redirected, or hold something else than the
    // fixed state has there.
    std::uint64_t storage = 0;
};

struct ChangeReport {
    std::vector<Change> changes;       // what takes most first, then by path
    std::uint64_t fileStorage = 0;     // of `changes`, bytes
    std::uint64_t damagedRecords = 0;  // of both states
    std::string unwritten;             // as FileTable has it, of the present state
};

struct StatesOfVolume {
    VolumeView& fixedView;
    FileTable& fixed;
    VolumeView& presentView;
    FileTable& present;
    // Read every file in both states, for content that changed without a trace in its record; otherwise such a
    // change is found where something is known to be redirected.
    bool thorough = false;
};

// `redirected`: what is known to be redirected, Normalised; it may lack some, and be empty. `isOwn`: paths that
// are the driver's own and left out. Throws Error.
ChangeReport FindChanges(const StatesOfVolume& states, const std::vector<Extent>& redirected,
                         const std::function<bool(const std::string&)>& isOwn, const Progress& progress);

// The fixed state's file that became the present one's `path`: by its record, else by its path. And the other
// way round nothing.
std::optional<FileId> FixedOf(const StatesOfVolume& states, const std::string& path);

}  // namespace inspect
