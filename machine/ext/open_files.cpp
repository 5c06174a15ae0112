#include "machine/ext/open_files.h"
#include "machine/ext/inode.h"
#include "platform/owners.h"

namespace machine {

NTSTATUS ExtOpenFiles::Find(const ExtPlace& place, std::shared_ptr<ExtOpenFile>& file) {
    const auto found = files_.find(place.reference.inode);
    if (found != files_.end() && found->second->file.Reference() == place.reference) {
        file = found->second;
        return file->removeName ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
    }
    if (found != files_.end()) files_.erase(found);  // became another file while somebody else had the volume
    file = std::make_shared<ExtOpenFile>(volume, place.reference);
    return file->file.Load();
}

NTSTATUS ExtOpenFiles::Enter(const std::shared_ptr<ExtOpenFile>& file, const ShareClaim& claim) {
    if (!file->share.Allows(claim)) return STATUS_SHARING_VIOLATION;
    file->share.Admit(claim);
    ++file->opens;
    files_.emplace(file->file.Reference().inode, file);
    return STATUS_SUCCESS;
}

NTSTATUS ExtOpenFiles::Leave(const std::shared_ptr<ExtOpenFile>& file, const ShareClaim& claim) {
    file->share.Leave(claim);
    if (--file->opens > 0) return STATUS_SUCCESS;
    const auto found = files_.find(file->file.Reference().inode);
    if (found == files_.end() || found->second != file) return STATUS_SUCCESS;  // closed with the volume
    files_.erase(found);
    return LastClose(*file);
}

// The space first, then the name: a machine that stops in between leaves an empty file, which a check removes
// without asking when even its name is gone.
NTSTATUS ExtOpenFiles::LastClose(ExtOpenFile& file) {
    if (!file.removeName) return STATUS_SUCCESS;
    const std::uint32_t number = file.file.Reference().inode;
    NTSTATUS status = volume.Change(CommitOrder::RemoveFirst, [&](const ExtOperation& operation) {
        ExtInode inode(number);
        NTSTATUS emptied = inode.Load(operation);
        if (!NT_SUCCESS(emptied) || inode->i_links_count > 1) return emptied;
        emptied = inode.Empty(operation);
        return NT_SUCCESS(emptied) ? inode.Store(operation) : emptied;
    });
    if (!NT_SUCCESS(status)) return status;
    return volume.Change(CommitOrder::RemoveFirst, [&](const ExtOperation& operation) {
        return RemoveExtFile(operation, *file.removeName, number);
    });
}

std::vector<std::shared_ptr<ExtOpenFile>> ExtOpenFiles::All() const {
    std::vector<std::shared_ptr<ExtOpenFile>> all;
    for (const auto& item : files_) all.push_back(item.second);
    return all;
}

void ExtOpenFiles::CallOffDeletions() {
    for (const auto& item : files_) item.second->removeName.reset();
}

std::vector<std::shared_ptr<ExtOpenFile>> ExtOpenFiles::ForgetAll(bool remove) {
    for (const auto& item : files_)
        if (remove) KVR_DISCARD(LastClose(*item.second), "a close has nobody to report a failure to");
    std::vector<std::shared_ptr<ExtOpenFile>> all = All();
    files_.clear();
    return all;
}

}  // namespace machine
