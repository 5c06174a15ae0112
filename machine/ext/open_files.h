// The open files of one mounted ext volume: one record per file however many opens it has, with the opens'
// share access and a pending deletion. Everything here is guarded by the volume's lock.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>
#include "machine/ext/directory.h"
#include "machine/ext/file.h"
#include "machine/files/share_access.h"

namespace machine {

struct ExtOpenFile {
    ExtOpenFile(ExtVolume& volume, ExtReference reference) : file(volume, reference) {}

    ExtFile file;  // synchronises itself
    ShareAccess share;
    unsigned opens = 0;
    std::optional<ExtLink> removeName;  // the name that goes with the last close
};

class ExtOpenFiles {
public:
    explicit ExtOpenFiles(VolumeIo& io) : volume(io) {}

    ExtVolume volume;  // synchronises itself; its lock guards this object, too

    // The record of what stands at `place`, loaded if this is its first open. STATUS_DELETE_PENDING while the
    // file is about to go. It stays for the caller's opens: Enter() once for each, then Leave().
    [[nodiscard]] NTSTATUS Find(const ExtPlace& place, std::shared_ptr<ExtOpenFile>& file)
        KVR_REQUIRES(volume.Lock());
    // STATUS_SHARING_VIOLATION when the opens there are and this one do not go together.
    [[nodiscard]] NTSTATUS Enter(const std::shared_ptr<ExtOpenFile>& file, const ShareClaim& claim)
        KVR_REQUIRES(volume.Lock());
    // The status is that of a deletion that was due with the last close, else success.
    NTSTATUS Leave(const std::shared_ptr<ExtOpenFile>& file, const ShareClaim& claim)
        KVR_REQUIRES(volume.Lock());

    std::vector<std::shared_ptr<ExtOpenFile>> All() const KVR_REQUIRES(volume.Lock());
    // Deletions that are due are called off: what the names will be then, nobody knows.
    void CallOffDeletions() KVR_REQUIRES(volume.Lock());
    // Lets go of every file, having removed those that are due to go if `remove`; their opens only let go of
    // them afterwards. Returns the files.
    std::vector<std::shared_ptr<ExtOpenFile>> ForgetAll(bool remove) KVR_REQUIRES(volume.Lock());

private:
    NTSTATUS LastClose(ExtOpenFile& file) KVR_REQUIRES(volume.Lock());

    std::map<std::uint32_t, std::shared_ptr<ExtOpenFile>> files_ KVR_GUARDED_BY(volume.Lock());  // by inode
};

}  // namespace machine
