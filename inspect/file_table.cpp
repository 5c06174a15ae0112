#include "inspect/file_table.h"
#include <algorithm>
#include <cstring>

namespace inspect {
namespace {

constexpr std::uint64_t kRecordsAtOnce = 1024;
constexpr unsigned kDeepest = 512;

}  // namespace

std::unique_ptr<FileTable> FileTable::Open(VolumeView& view) {
    std::unique_ptr<FileTable> table = OpenNtfsTable(view);
    return table != nullptr ? std::move(table) : OpenExtTable(view);
}

bool FileTable::CompareRecords(FileTable& other, FileId first, std::uint64_t count, std::set<FileId>& ids) {
    const std::size_t size = RecordBytes();
    std::vector<std::uint8_t> mine(count * size), others(count * size);
    if (!RawRecords(first, count, mine.data()) || !other.RawRecords(first, count, others.data())) return false;
    if (mine == others) return true;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint8_t *left = &mine[i * size], *right = &others[i * size];
        if (std::memcmp(left, right, size) == 0) continue;
        AddOwner(first + i, left, ids);
        other.AddOwner(first + i, right, ids);
    }
    return true;
}

std::set<FileId> FileTable::Suspects(FileTable& other, const Progress& progress) {
    if (Kind() != other.Kind() || RecordBytes() != other.RecordBytes())
        throw Error("the volume was formatted anew since its fixed state");
    std::set<FileId> ids;
    const FileId both = std::min(End(), other.End()), all = std::max(End(), other.End());
    for (FileId first = First(); first < both; first += kRecordsAtOnce) {
        progress("comparing the tables of files", first, all);
        if (!CompareRecords(other, first, std::min<std::uint64_t>(kRecordsAtOnce, both - first), ids))
            throw Error("the volume's table of files cannot be read");
    }
    for (FileId id = both; id < all; ++id) ids.insert(id);
    AddRenamed(other, ids);
    return ids;
}

std::optional<FileId> FileTable::Find(const std::string& path) {
    const char* separators = IsBackslashSeparator() ? "/\\" : "/";
    std::optional<FileId> id = Root();
    for (std::size_t at = 0; id && at < path.size();) {
        const std::size_t end = std::min(path.find_first_of(separators, at), path.size());
        if (end > at) id = Lookup(*id, path.substr(at, end - at));
        at = end + 1;
    }
    return id;
}

const std::string& FileTable::DirectoryPath(FileId directory, unsigned depth) {
    const auto known = directories_.find(directory);
    if (known != directories_.end()) return known->second;
    FileRecord record;
    std::string path = "/(lost)";
    if (directory == Root())
        path.clear();
    else if (depth < kDeepest && Read(directory, record) && !record.names.empty())
        path = DirectoryPath(record.names[0].parent, depth + 1) + "/" + record.names[0].name;
    return directories_[directory] = path;
}

std::string FileTable::PathOf(const FileName& name) {
    return DirectoryPath(name.parent, 0) + "/" + name.name;
}

bool FileTable::IsSystem(const FileRecord& record) {
    if (record.id == Root()) return false;
    if (IsSystemId(record.id)) return true;
    FileId id = record.names.empty() ? Root() : record.names[0].parent;
    for (unsigned depth = 0; id != Root() && depth < kDeepest; ++depth) {
        if (IsSystemId(id)) return true;
        FileRecord parent;
        if (!Read(id, parent) || parent.names.empty()) return false;
        id = parent.names[0].parent;
    }
    return false;
}

}  // namespace inspect
