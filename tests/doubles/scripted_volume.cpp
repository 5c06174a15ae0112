#include "tests/doubles/scripted_volume.h"
#include <algorithm>
#include "machine/names.h"

namespace machine {

ScriptedVolume::ScriptedVolume(std::uint64_t begin, std::uint64_t end) : begin_(begin), cursor_(begin) {
    free_[begin] = end - begin;
}

// ---- files -----------------------------------------------------------------------------------------------

const ScriptedVolume::File* ScriptedVolume::Find(std::u16string_view path) const {
    const auto found = files_.find(FoldName(path));
    return found == files_.end() ? nullptr : found->second.get();
}

std::vector<Extent> ScriptedVolume::ExtentsOf(std::u16string_view path) const {
    std::lock_guard hold(lock_);
    const File* file = Find(path);
    return file != nullptr ? file->extents : std::vector<Extent>{};
}

std::vector<std::u16string> ScriptedVolume::Paths() const {
    std::lock_guard hold(lock_);
    std::vector<std::u16string> paths;
    for (const auto& [folded, file] : files_) paths.push_back(file->path);
    return paths;
}

std::shared_ptr<const ScriptedVolume::Snapshot> ScriptedVolume::Save() const {
    std::lock_guard hold(lock_);
    auto snapshot = std::make_shared<Snapshot>();
    for (const auto& [folded, file] : files_) snapshot->files.push_back(*file);
    snapshot->free = free_;
    snapshot->cursor = cursor_;
    return snapshot;
}

void ScriptedVolume::Restore(const Snapshot& snapshot) {
    std::lock_guard hold(lock_);
    files_.clear();
    for (const File& file : snapshot.files) {
        auto restored = std::make_shared<File>(file);
        restored->share = ShareAccess();
        files_[FoldName(file.path)] = std::move(restored);
    }
    free_ = snapshot.free;
    cursor_ = snapshot.cursor;
    if (power_ != nullptr) journaled_ = Save();
}

void ScriptedVolume::FollowPower(const PowerSwitch* power) {
    std::lock_guard hold(lock_);
    power_ = power;
    journaled_ = power != nullptr ? Save() : nullptr;
}

void ScriptedVolume::RestoreJournaled() {
    std::lock_guard hold(lock_);
    if (journaled_ != nullptr) Restore(Snapshot(*journaled_));
}

void ScriptedVolume::ForgetOpens() {
    std::lock_guard hold(lock_);
    for (auto& [folded, file] : files_) file->share = ShareAccess();
}

// ---- script ----------------------------------------------------------------------------------------------

void ScriptedVolume::SetPlacement(std::uint64_t piece, std::uint64_t gap) {
    std::lock_guard hold(lock_);
    piece_ = piece;
    gap_ = gap;
}

// ---- opens -----------------------------------------------------------------------------------------------

NTSTATUS ScriptedVolume::Open(std::u16string_view path, ULONG disposition, ULONG attributes,
                              const ShareClaim& claim, std::shared_ptr<File>& file, ULONG_PTR& information) {
    std::lock_guard hold(lock_);
    if (IsPowerGone()) return STATUS_DEVICE_POWERED_OFF;
    const std::u16string folded = FoldName(path);
    const auto found = files_.find(folded);
    if (found != files_.end()) {
        const NTSTATUS status = OpenExisting(*found->second, disposition, attributes, claim, information);
        if (NT_SUCCESS(status)) file = found->second;
        return status;
    }
    if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
    file = std::make_shared<File>();
    file->path = path;
    file->attributes = attributes;
    file->share.Admit(claim);
    files_[folded] = file;
    information = FILE_CREATED;
    return STATUS_SUCCESS;
}

NTSTATUS ScriptedVolume::OpenExisting(File& file, ULONG disposition, ULONG attributes, const ShareClaim& claim,
                                      ULONG_PTR& information) {
    if (disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    if (claim.write && (file.attributes & FILE_ATTRIBUTE_READONLY) != 0) return STATUS_ACCESS_DENIED;
    if (!file.share.Allows(claim)) return STATUS_SHARING_VIOLATION;
    if (disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF) {
        // A hidden or system file is only overwritten by one who says that it is one.
        if ((file.attributes & ~attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) != 0) {
            return STATUS_ACCESS_DENIED;
        }
        GiveBack(file.extents);
        file.size = 0;
        file.attributes = attributes;
        information = FILE_OVERWRITTEN;
    } else {
        information = FILE_OPENED;
    }
    file.share.Admit(claim);
    return STATUS_SUCCESS;
}

void ScriptedVolume::Close(File& file, const ShareClaim& claim) {
    std::lock_guard hold(lock_);
    file.share.Leave(claim);
}

NTSTATUS ScriptedVolume::Delete(std::u16string_view path) {
    std::lock_guard hold(lock_);
    if (IsPowerGone()) return STATUS_DEVICE_POWERED_OFF;
    const auto found = files_.find(FoldName(path));
    if (found == files_.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    File& file = *found->second;
    if ((file.attributes & FILE_ATTRIBUTE_READONLY) != 0) return STATUS_CANNOT_DELETE;
    if (!file.share.Allows(MakeShareClaim(DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))) {
        return STATUS_SHARING_VIOLATION;
    }
    GiveBack(file.extents);
    file.size = 0;
    files_.erase(found);
    return STATUS_SUCCESS;
}

// ---- space -----------------------------------------------------------------------------------------------

NTSTATUS ScriptedVolume::Reserve(File& file, std::uint64_t size) {
    std::lock_guard hold(lock_);
    if (IsPowerGone()) return STATUS_DEVICE_POWERED_OFF;
    std::uint64_t have = 0;
    for (const Extent& extent : file.extents) have += extent.length;
    std::vector<Extent> taken;
    while (have < size) {
        Extent piece;
        if (!TakePiece(size - have, piece)) {
            GiveBack(taken);
            return STATUS_DISK_FULL;
        }
        have += piece.length;
        taken.push_back(piece);
    }
    for (const Extent& piece : taken) {
        Extent* last = file.extents.empty() ? nullptr : &file.extents.back();
        if (last != nullptr && last->offset + last->length == piece.offset) {
            last->length += piece.length;
        } else {
            file.extents.push_back(piece);
        }
    }
    return STATUS_SUCCESS;
}

// The lowest free space at or after the cursor, else the lowest of all.
bool ScriptedVolume::TakePiece(std::uint64_t wanted, Extent& piece) {
    if (free_.empty()) return false;
    auto range = free_.upper_bound(cursor_);
    if (range != free_.begin() && std::prev(range)->first + std::prev(range)->second > cursor_) --range;
    if (range == free_.end()) {
        range = free_.begin();
        cursor_ = range->first;
    }
    const std::uint64_t end = range->first + range->second;
    const std::uint64_t start = std::max(range->first, cursor_);
    std::uint64_t length = (wanted + kCluster - 1) / kCluster * kCluster;
    if (piece_ != 0) length = std::min(length, piece_);
    length = std::min(length, end - start);
    const std::uint64_t before = start - range->first;
    if (before == 0) {
        free_.erase(range);
    } else {
        range->second = before;
    }
    if (start + length < end) free_[start + length] = end - start - length;
    cursor_ = start + length + gap_;
    piece = {start, length};
    return true;
}

// Neighbours stay apart in the list of free space; what is taken from them is joined again.
void ScriptedVolume::GiveBack(std::vector<Extent>& extents) {
    for (const Extent& extent : extents) free_[extent.offset] = extent.length;
    extents.clear();
    cursor_ = begin_;
}

std::vector<Extent> ScriptedVolume::PlacesOf(const File& file, std::uint64_t offset,
                                             std::uint64_t length) const {
    std::lock_guard hold(lock_);
    std::vector<Extent> places;
    for (const Extent& extent : file.extents) {
        if (length == 0) break;
        if (offset >= extent.length) {
            offset -= extent.length;
            continue;
        }
        const std::uint64_t part = std::min(length, extent.length - offset);
        places.push_back({extent.offset + offset, part});
        offset = 0;
        length -= part;
    }
    return places;
}

std::uint64_t ScriptedVolume::SizeOf(const File& file) const {
    std::lock_guard hold(lock_);
    return file.size;
}

void ScriptedVolume::Grew(File& file, std::uint64_t size) {
    std::lock_guard hold(lock_);
    if (IsPowerGone()) return;
    file.size = std::max(file.size, size);
    if (power_ != nullptr) journaled_ = Save();
}

}  // namespace machine
