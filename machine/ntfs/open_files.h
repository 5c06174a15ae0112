// The open files of one mounted volume: one record per file however many opens it has, with the opens' share
// access and a pending deletion. Everything here is guarded by the volume's lock.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include "machine/ntfs/directory.h"
#include "machine/ntfs/file.h"
#include "machine/files/share_access.h"

namespace machine {

struct NtfsOpenFile {
    NtfsOpenFile(NtfsVolume& volume, std::uint64_t reference) : file(volume, reference) {}

    NtfsFile file;  // synchronises itself
    ShareAccess share;
    unsigned opens = 0;
    std::vector<std::uint64_t> above;    // record numbers of the directories that lead to it
    std::optional<NtfsLink> removeName;  // the name that goes with the last close
};

class NtfsOpenFiles {
public:
    explicit NtfsOpenFiles(VolumeIo& io) : volume(io) {}

    NtfsVolume volume;  // synchronises itself; its lock guards this object, too

    // The record of what stands at `place`, loaded if this is its first open. STATUS_DELETE_PENDING while the
    // file is about to go. It stays for the caller's opens: Enter() once for each, then Leave().
    [[nodiscard]] NTSTATUS Find(const NtfsPlace& place, std::shared_ptr<NtfsOpenFile>& file)
        KVR_REQUIRES(volume.Lock());
    // STATUS_SHARING_VIOLATION when the opens there are and this one do not go together.
    [[nodiscard]] NTSTATUS Enter(const std::shared_ptr<NtfsOpenFile>& file, const ShareClaim& claim)
        KVR_REQUIRES(volume.Lock());
    // The status is that of a deletion that was due with the last close, else success.
    NTSTATUS Leave(const std::shared_ptr<NtfsOpenFile>& file, const ShareClaim& claim)
        KVR_REQUIRES(volume.Lock());

    // Whether an open file lies below a directory.
    bool AnyBelow(std::uint64_t directory) const KVR_REQUIRES(volume.Lock());
    // Does for every file what its last close would do; their opens only let go of them afterwards. Returns
    // the files.
    std::vector<std::shared_ptr<NtfsOpenFile>> CloseAll() KVR_REQUIRES(volume.Lock());
    // Brings to the volume what the files' last closes would; deletions that are due are called off. Returns
    // the files, which stay open.
    std::vector<std::shared_ptr<NtfsOpenFile>> BringUpToDate() KVR_REQUIRES(volume.Lock());
    std::vector<std::shared_ptr<NtfsOpenFile>> All() const KVR_REQUIRES(volume.Lock());
    // The same as CloseAll without changing anything on the volume.
    std::vector<std::shared_ptr<NtfsOpenFile>> ForgetAll() KVR_REQUIRES(volume.Lock());

private:
    NTSTATUS LastClose(NtfsOpenFile& file) KVR_REQUIRES(volume.Lock());
    void RefreshEntry(NtfsOpenFile& file) KVR_REQUIRES(volume.Lock());

    std::map<std::uint64_t, std::shared_ptr<NtfsOpenFile>> files_
        KVR_GUARDED_BY(volume.Lock());  // by record number
};

}  // namespace machine
