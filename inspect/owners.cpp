#include "inspect/owners.h"
#include <algorithm>

namespace inspect {
namespace {

constexpr std::size_t kMostNamed = 8;  // of one place
constexpr FileId kMft = 0, kExtJournal = 8;

class Search {
public:
    Search(FileTable& table, std::vector<Owned>& found) : table_(table), found_(found) {}

    void Run() {
        for (FileId id = table_.First(); id < table_.End(); ++id) {
            FileRecord record;
            if (!table_.Read(id, record)) continue;
            for (const Extent& extent : record.data) Name(extent, [&] { return NameOf(record); });
            for (const Extent& extent : record.tables)
                Name(extent, [&] { return "what the file system keeps about " + NameOf(record); });
        }
        NameRecords();
        for (const auto& table : table_.Tables()) Name(table.first, [&] { return table.second; });
    }

private:
    template <class Text>
    void Name(const Extent& extent, const Text& text) {
        auto owned =
            std::upper_bound(found_.begin(), found_.end(), extent.offset,
                             [](std::uint64_t at, const Owned& other) { return at < other.place.End(); });
        for (; owned != found_.end() && owned->place.offset < extent.End(); ++owned) {
            if (owned->owners.size() < kMostNamed)
                owned->owners.push_back(text());
            else if (owned->owners.size() == kMostNamed)
                owned->owners.push_back("...");
        }
    }

    std::string NameOf(const FileRecord& record) {
        if (table_.Kind() == FileSystemKind::Ext && record.id == kExtJournal) return "the journal";
        if (record.id == table_.Root()) return "the root folder";
        if (record.names.empty() && table_.IsSystem(record)) return "the file system's own";
        if (record.names.empty()) return "file number " + std::to_string(record.id);
        const bool folder = record.type == FileRecord::Type::Directory;
        return table_.PathOf(record.names.front()) + (folder ? "/" : "");
    }

    // NTFS's table of files is a file: whose records lie there is told as well.
    void NameRecords() {
        FileRecord mft;
        if (table_.Kind() != FileSystemKind::Ntfs || !table_.Read(kMft, mft)) return;
        const std::uint32_t size = table_.RecordBytes();
        FileId id = 0;
        for (const Extent& extent : mft.data) {
            std::vector<Extent> places;
            for (const Owned& owned : found_) places.push_back(owned.place);
            for (const Extent& common : Common(extent, places))
                for (std::uint64_t at = common.offset / size * size; at < common.End(); at += size)
                    NameRecord({at, size}, id + (at - extent.offset) / size);
            id += extent.length / size;
        }
    }

    void NameRecord(const Extent& place, FileId id) {
        FileRecord record;
        if (id >= table_.End() || !table_.Read(id, record) || record.names.empty()) return;
        Name(place, [&] { return "the record of " + NameOf(record); });
    }

    FileTable& table_;
    std::vector<Owned>& found_;
};

// What stands at fixed places, for a volume that may not be readable any more.
std::string FixedPlace(const Extent& place, FileSystemKind kind) {
    constexpr std::uint64_t kSuperblock = 1024;
    if (kind == FileSystemKind::Ntfs && place.offset == 0) return "the boot sector";
    if (kind == FileSystemKind::Ext && place.offset <= kSuperblock && place.End() > kSuperblock)
        return "the superblock";
    return {};
}

}  // namespace

std::vector<Owned> OwnersOf(VolumeView& view, const std::vector<Extent>& places, FileSystemKind kind) {
    std::vector<Owned> found;
    for (const Extent& place : places) {
        found.push_back({place, {}});
        const std::string fixed = FixedPlace(place, kind);
        if (!fixed.empty()) found.back().owners.push_back(fixed);
    }
    std::unique_ptr<FileTable> table;
    std::string trouble = "no file system that is known here";
    try {
        table = FileTable::Open(view);
        if (table != nullptr) Search(*table, found).Run();
    } catch (const Error& error) {
        trouble = error.what();
    }
    for (Owned& owned : found) {
        if (!owned.owners.empty()) continue;
        bool used = false;
        const std::uint64_t step = table != nullptr ? table->BlockBytes() : owned.place.length;
        for (std::uint64_t at = owned.place.offset; table != nullptr && at < owned.place.End(); at += step)
            used |= table->IsInUse(at);
        owned.owners.push_back(table == nullptr ? trouble : used ? "the file system's own" : "free space");
    }
    return found;
}

}  // namespace inspect
