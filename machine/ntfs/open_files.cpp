#include "machine/ntfs/open_files.h"
#include <algorithm>
#include "platform/owners.h"

namespace machine {

NTSTATUS NtfsOpenFiles::Find(const NtfsPlace& place, std::shared_ptr<NtfsOpenFile>& file) {
    const auto found = files_.find(RecordOf(place.reference));
    if (found != files_.end() && found->second->file.Reference() != place.reference) {
        files_.erase(found);  // its record became another file's while somebody else had the volume
    } else if (found != files_.end()) {
        file = found->second;
        return file->removeName ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
    }
    file = std::make_shared<NtfsOpenFile>(volume, place.reference);
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

NTSTATUS NtfsOpenFiles::LastClose(NtfsOpenFile& file) {
    const std::uint64_t reference = file.file.Reference();
    if (file.removeName)
        return volume.Change(CommitOrder::RemoveFirst, volume.DirectoryObject(),
                             [&](const NtfsOperation& operation) {
                                 return RemoveNtfsEntry(operation, *file.removeName, reference);
                             });
    RefreshEntry(file);
    return STATUS_SUCCESS;
}

void NtfsOpenFiles::RefreshEntry(NtfsOpenFile& file) {
    if (!file.file.Touched()) return;
    const std::uint64_t reference = file.file.Reference();
    KVR_DISCARD(
        volume.Change(CommitOrder::TakeFirst, volume.DirectoryObject(),
                      [&](const NtfsOperation& operation) { return RefreshNtfsEntry(operation, reference); }),
        "the sizes and times that the directory shows are a convenience");
}

std::vector<std::shared_ptr<NtfsOpenFile>> NtfsOpenFiles::BringUpToDate() {
    for (const auto& item : files_) {
        RefreshEntry(*item.second);
        item.second->removeName.reset();  // what the name will be then, nobody knows
    }
    return All();
}

std::vector<std::shared_ptr<NtfsOpenFile>> NtfsOpenFiles::All() const {
    std::vector<std::shared_ptr<NtfsOpenFile>> all;
    for (const auto& item : files_) all.push_back(item.second);
    return all;
}

bool NtfsOpenFiles::AnyBelow(std::uint64_t directory) const {
    return std::any_of(files_.begin(), files_.end(), [&](const auto& item) {
        const std::vector<std::uint64_t>& above = item.second->above;
        return std::find(above.begin(), above.end(), RecordOf(directory)) != above.end();
    });
}

std::vector<std::shared_ptr<NtfsOpenFile>> NtfsOpenFiles::CloseAll() {
    for (const auto& item : files_)
        KVR_DISCARD(LastClose(*item.second), "a close has nobody to report a failure to");
    return ForgetAll();
}

std::vector<std::shared_ptr<NtfsOpenFile>> NtfsOpenFiles::ForgetAll() {
    std::vector<std::shared_ptr<NtfsOpenFile>> all = All();
    files_.clear();
    return all;
}

}  // namespace machine
