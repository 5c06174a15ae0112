#include "machine/files/open_files.h"
#include <algorithm>
#include "platform/owners.h"

namespace machine {

using Owner = MountedVolume::Owner;

NTSTATUS OpenFiles::Find(const FilePlace& place, std::shared_ptr<SharedFile>& file) {
    const auto found = files_.find(place.id.number);
    if (found != files_.end() && found->second->data.Id() == place.id) {
        file = found->second;
        return file->removeName ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
    }
    if (found != files_.end()) files_.erase(found);  // became another file while somebody else had the volume
    file = std::make_shared<SharedFile>(volume, place);
    return file->data.Load();
}

NTSTATUS OpenFiles::Enter(const std::shared_ptr<SharedFile>& file, const ShareClaim& claim) {
    if (!file->share.Allows(claim)) return STATUS_SHARING_VIOLATION;
    files_.emplace(file->data.Id().number, file);
    file->share.Admit(claim);
    ++file->opens;
    return STATUS_SUCCESS;
}

NTSTATUS OpenFiles::Leave(const std::shared_ptr<SharedFile>& file, const ShareClaim& claim) {
    file->share.Leave(claim);
    if (--file->opens > 0) return STATUS_SUCCESS;
    const auto found = files_.find(file->data.Id().number);
    if (found == files_.end() || found->second != file) return STATUS_SUCCESS;  // closed with the volume
    files_.erase(found);
    return LastClose(*file);
}

NTSTATUS OpenFiles::LastClose(SharedFile& file) {
    if (file.removeName) return Remove(file);
    RefreshEntry(file);
    return STATUS_SUCCESS;
}

NTSTATUS OpenFiles::Remove(SharedFile& file) {
    const FileId& id = file.data.Id();
    if (volume.Traits().emptiesFirst) {
        const NTSTATUS status = volume.Change(CommitOrder::RemoveFirst, Owner::Directory,
                                              [&](VolumeFormat& format) { return format.EmptyForRemoval(id); });
        if (!NT_SUCCESS(status)) return status;
    }
    const NTSTATUS status =
        volume.Change(CommitOrder::RemoveFirst, Owner::Directory,
                      [&](VolumeFormat& format) { return format.Remove(*file.removeName, id); });
    if (!NT_SUCCESS(status)) return status;
    FileShape left;  // of a file that has another name
    if (!NT_SUCCESS(volume.Look([&](VolumeFormat& format) { return format.LoadShape(id, left); })))
        file.data.Trim();
    return status;
}

void OpenFiles::RefreshEntry(SharedFile& file) {
    if (!volume.Traits().showsSizesInFolder || !file.data.Touched()) return;
    KVR_DISCARD(volume.Change(CommitOrder::TakeFirst, Owner::Directory,
                              [&](VolumeFormat& format) { return format.Refresh(file.data.Id()); }),
                "the sizes and times that the directory shows are a convenience");
}

SharedFiles OpenFiles::BringUpToDate() {
    for (const auto& item : files_) {
        RefreshEntry(*item.second);
        item.second->removeName.reset();  // what the name will be then, nobody knows
    }
    return All();
}

SharedFiles OpenFiles::All() const {
    SharedFiles all;
    for (const auto& item : files_) all.push_back(item.second);
    return all;
}

bool OpenFiles::AnyBelow(const FileId& directory) const {
    return std::any_of(files_.begin(), files_.end(), [&](const auto& item) {
        const std::vector<std::uint64_t>& above = item.second->above;
        return std::find(above.begin(), above.end(), directory.number) != above.end();
    });
}

SharedFiles OpenFiles::ForgetAll(bool orderly) {
    for (const auto& item : files_)
        if (orderly) KVR_DISCARD(LastClose(*item.second), "a close has nobody to report a failure to");
    SharedFiles all = All();
    files_.clear();
    return all;
}

}  // namespace machine
