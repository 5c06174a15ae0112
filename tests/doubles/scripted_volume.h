// What a scripted file system keeps of its volume, and the script: where files lie. A
// test owns it, so files outlive boots; nothing of it is on the volume but the files' data.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>
#include "machine/disk/fault_disk.h"
#include "machine/files/share_access.h"

namespace machine {

struct Extent {
    std::uint64_t offset;  // bytes on the volume, whole clusters
    std::uint64_t length;  // bytes, likewise
    bool operator==(const Extent&) const = default;
};

// Thread-safe.
class ScriptedVolume {
public:
    // Files are placed in bytes [begin, end) of the volume, in whole clusters.
    ScriptedVolume(std::uint64_t begin, std::uint64_t end);

    // ---- files -----------------------------------------------------------------------------------------
    std::vector<Extent> ExtentsOf(std::u16string_view path) const;
    std::vector<std::u16string> Paths() const;
    // Forgets every file and every change since, as when the volume went back to an earlier state.
    struct Snapshot;
    std::shared_ptr<const Snapshot> Save() const;
    void Restore(const Snapshot& snapshot);

    // The directory stands still once `power` is cut: what needs it fails with STATUS_DEVICE_POWERED_OFF. Null:
    // the power never fails. The switch must outlive its use here.
    void FollowPower(const PowerSwitch* power);
    // What a file system with a journal may show after the cut instead of the directory's last state: creations
    // and deletions since the last write that went through to the disk did not reach the journal.
    void RestoreJournaled();

    // ---- script ----------------------------------------------------------------------------------------
    // New space comes in pieces of at most `piece` bytes with `gap` bytes between them. 0: as large as it gets.
    void SetPlacement(std::uint64_t piece, std::uint64_t gap);

    // ---- for the file system ---------------------------------------------------------------------------
    struct File {
        std::u16string path;
        std::vector<Extent> extents;
        std::uint64_t size = 0;
        ULONG attributes = 0;
        ShareAccess share;
    };
    [[nodiscard]] NTSTATUS Open(std::u16string_view path, ULONG disposition, ULONG attributes,
                                const ShareClaim& claim, std::shared_ptr<File>& file, ULONG_PTR& information);
    void Close(File& file, const ShareClaim& claim);
    [[nodiscard]] NTSTATUS Delete(std::u16string_view path);
    // Makes room for `size` bytes; the file's size stays.
    [[nodiscard]] NTSTATUS Reserve(File& file, std::uint64_t size);
    // The places of bytes [offset, offset + length) of the file, in order; they end where its space ends.
    std::vector<Extent> PlacesOf(const File& file, std::uint64_t offset, std::uint64_t length) const;
    std::uint64_t SizeOf(const File& file) const;
    void Grew(File& file, std::uint64_t size);  // the size is at least `size` now
    // After a restart nobody holds a file open.
    void ForgetOpens();

private:
    using Files = std::map<std::u16string, std::shared_ptr<File>>;  // by folded path

    bool IsPowerGone() const { return power_ != nullptr && power_->IsCut(); }
    const File* Find(std::u16string_view path) const;
    NTSTATUS OpenExisting(File& file, ULONG disposition, ULONG attributes, const ShareClaim& claim,
                          ULONG_PTR& information);
    bool TakePiece(std::uint64_t wanted, Extent& piece);
    void GiveBack(std::vector<Extent>& extents);

    const std::uint64_t begin_;
    static constexpr std::uint32_t kCluster = 4096;  // a multiple of every sector size
    mutable std::recursive_mutex lock_;              // guards what follows
    Files files_;
    std::map<std::uint64_t, std::uint64_t> free_;  // offset to length, without overlaps
    std::uint64_t cursor_;                         // where the search for a piece begins
    std::uint64_t piece_ = 0, gap_ = 0;
    const PowerSwitch* power_ = nullptr;
    std::shared_ptr<const Snapshot> journaled_;
};

struct ScriptedVolume::Snapshot {
    std::vector<File> files;
    std::map<std::uint64_t, std::uint64_t> free;
    std::uint64_t cursor;
};

}  // namespace machine
