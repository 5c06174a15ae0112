// The open files of one mounted volume: one record per file however many opens it has, with the opens' share
// access and a pending deletion. Everything here is guarded by the volume's lock.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>
#include "machine/files/file_data.h"
#include "machine/files/paths.h"
#include "machine/files/share_access.h"

namespace machine {

struct SharedFile {
    SharedFile(MountedVolume& volume, const FilePlace& place) : data(volume, place.id), above(place.above) {}

    FileData data;  // synchronises itself
    ShareAccess share;
    unsigned opens = 0;
    std::vector<std::uint64_t> above;    // numbers of the directories that lead to it
    std::optional<FileLink> removeName;  // the name that goes with the last close
};

using SharedFiles = std::vector<std::shared_ptr<SharedFile>>;

class OpenFiles {
public:
    explicit OpenFiles(std::unique_ptr<VolumeFormat> format) : volume(std::move(format)) {}

    MountedVolume volume;  // synchronises itself; its lock guards this object, too

    // The record of what stands at `place`, loaded if this is its first open. STATUS_DELETE_PENDING while the
    // file is about to go. It stays for the caller's opens: Enter() once for each, then Leave().
    [[nodiscard]] NTSTATUS Find(const FilePlace& place, std::shared_ptr<SharedFile>& file)
        KVR_REQUIRES(volume.Lock());
    // STATUS_SHARING_VIOLATION when the opens there are and this one do not go together.
    [[nodiscard]] NTSTATUS Enter(const std::shared_ptr<SharedFile>& file, const ShareClaim& claim)
        KVR_REQUIRES(volume.Lock());
    // The status is that of a deletion that was due with the last close, else success.
    NTSTATUS Leave(const std::shared_ptr<SharedFile>& file, const ShareClaim& claim)
        KVR_REQUIRES(volume.Lock());

    // Whether an open file lies below a directory.
    bool AnyBelow(const FileId& directory) const KVR_REQUIRES(volume.Lock());
    SharedFiles All() const KVR_REQUIRES(volume.Lock());
    // Lets go of every file; with `orderly` it does first what each file's last close would do. Their opens
    // only let go of them afterwards. Returns the files.
    SharedFiles ForgetAll(bool orderly) KVR_REQUIRES(volume.Lock());
    // Brings to the volume what the files' last closes would; deletions that are due are called off. Returns
    // the files, which stay open.
    SharedFiles BringUpToDate() KVR_REQUIRES(volume.Lock());

private:
    NTSTATUS LastClose(SharedFile& file) KVR_REQUIRES(volume.Lock());
    NTSTATUS Remove(SharedFile& file) KVR_REQUIRES(volume.Lock());
    void RefreshEntry(SharedFile& file) KVR_REQUIRES(volume.Lock());

    std::map<std::uint64_t, std::shared_ptr<SharedFile>> files_ KVR_GUARDED_BY(volume.Lock());  // by number
};

}  // namespace machine
