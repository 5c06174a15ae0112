#include "machine/ntfs_open_files.h"
#include <algorithm>

namespace machine {

NTSTATUS NtfsOpenFiles::Find(const NtfsPlace& place, std::shared_ptr<NtfsOpenFile>& file) {
    const auto found = files_.find(RecordOf(place.reference));
    if (found != files_.end()) {
        file = found->second;
        return file->removeName ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
    }
    file = std::make_shared<NtfsOpenFile>(volume_, place.reference);
    file->above = place.above;
    return file->file.Load();
}

NTSTATUS NtfsOpenFiles::Enter(const std::shared_ptr<NtfsOpenFile>& file, const ShareClaim& claim) {
    if (!file->share.Allows(claim)) return STATUS_SHARING_VIOLATION;
    file->share.Admit(claim);
    ++file->opens;
    files_.emplace(RecordOf(file->file.Reference()), file);
    return STATUS_SUCCESS;
}

NTSTATUS NtfsOpenFiles::Leave(const std::shared_ptr<NtfsOpenFile>& file, const ShareClaim& claim) {
    file->share.Leave(claim);
    if (--file->opens > 0) return STATUS_SUCCESS;
    const auto found = files_.find(RecordOf(file->file.Reference()));
    if (found == files_.end() || found->second != file) return STATUS_SUCCESS;  // closed with the volume
    files_.erase(found);
    return LastClose(*file);
}

// The sizes that the directory shows are a convenience: a failure to refresh them has nobody to be told to.
NTSTATUS NtfsOpenFiles::LastClose(NtfsOpenFile& file) {
    const std::uint64_t reference = file.file.Reference();
    if (file.removeName)
        return volume_.Change(CommitOrder::RemoveFirst, volume_.DirectoryObject(), [&](const NtfsOperation& operation) {
            return RemoveNtfsEntry(operation, *file.removeName, reference);
        });
    if (file.file.Touched())
        (void)volume_.Change(CommitOrder::TakeFirst, volume_.DirectoryObject(), [&](const NtfsOperation& operation) {
            return RefreshNtfsEntry(operation, reference);
        });
    return STATUS_SUCCESS;
}

bool NtfsOpenFiles::AnyBelow(std::uint64_t directory) const {
    return std::any_of(files_.begin(), files_.end(), [&](const auto& item) {
        const std::vector<std::uint64_t>& above = item.second->above;
        return std::find(above.begin(), above.end(), RecordOf(directory)) != above.end();
    });
}

std::vector<std::shared_ptr<NtfsOpenFile>> NtfsOpenFiles::All() const {
    std::vector<std::shared_ptr<NtfsOpenFile>> all;
    for (const auto& item : files_) all.push_back(item.second);
    return all;
}

void NtfsOpenFiles::CloseAll() {
    for (const auto& item : files_) (void)LastClose(*item.second);
    files_.clear();
}

}  // namespace machine
