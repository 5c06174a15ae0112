// One mounted ext2, ext3 or ext4: the ext library's view of it, the lock that everything in the library needs,
// and operations that happen whole or not at all.
//
// An operation that fails throws the library's view away and opens a new one from the volume. While one
// commits, the superblock says that the volume is not clean: a machine that stops in between leaves a volume
// that asks for its check, which finds at worst space that nobody uses. The journal is not written; it is empty
// whenever anything is changed here.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "machine/ext/device.h"
#include "machine/ext/names.h"
#include "machine/files/metadata_cache.h"
#include "machine/files/volume_lock.h"

namespace machine {

// One operation on the mounted volume, as the code within it sees it. Only valid under the volume's lock.
class ExtOperation {
public:
    ExtOperation(struct_ext2_filsys& library, MetadataCache& cache, ExtNames& names, VolumeIo& io)
        : library_(library), cache_(cache), names_(names), io_(io) {}

    struct_ext2_filsys* Library() const { return &library_; }
    VolumeIo& Io() const { return io_; }
    // What a failing call of the library means: the failing request's own status if one failed, else its error
    // translated.
    NTSTATUS Failed(long error) const;
    // The operation has changed this directory. A failure is the library's error.
    [[nodiscard]] long DirectoryChanged(std::uint32_t inode) const;

private:
    struct_ext2_filsys& library_;
    MetadataCache& cache_;
    ExtNames& names_;
    VolumeIo& io_;
};

class ExtVolume {
public:
    explicit ExtVolume(VolumeIo& io);
    ~ExtVolume();
    ExtVolume(const ExtVolume&) = delete;
    ExtVolume& operator=(const ExtVolume&) = delete;

    // A file's content lock, where both are needed, is taken before it.
    VolumeLock& Lock() const KVR_ATTRIBUTE(lock_returned(lock_)) { return lock_; }
    VolumeIo& Io() { return io_; }

    [[nodiscard]] NTSTATUS Mount() KVR_REQUIRES(lock_);
    // For good: no operation succeeds afterwards, and `io` is not touched again.
    void Close() KVR_REQUIRES(lock_);
    bool Closed() const KVR_REQUIRES(lock_) { return closed_; }
    // Between the two every operation is STATUS_DEVICE_BUSY; the next one after them mounts anew.
    void Suspend() KVR_REQUIRES(lock_);
    void Resume() KVR_REQUIRES(lock_) { suspended_ = false; }
    // Why nothing can be changed, one line; empty when it can. As of the last mount.
    const std::string& ReadOnlyReason() const KVR_REQUIRES(lock_) { return readOnly_; }

    // Runs `body` (const ExtOperation&) -> NTSTATUS, which only looks. STATUS_DEVICE_NOT_READY after Close().
    // `other` owns the requests for what has no name of its own; null: the volume's extents.
    template <class Body>
    [[nodiscard]] NTSTATUS Look(PFILE_OBJECT other, const Body& body) KVR_REQUIRES(lock_) {
        NTSTATUS status = Begin();
        if (!NT_SUCCESS(status)) return status;
        names_.SetOther(other);
        status = body(ExtOperation(*library_, cache_, names_, io_));
        EndOperation();
        return status;
    }
    template <class Body>
    [[nodiscard]] NTSTATUS Look(const Body& body) KVR_REQUIRES(lock_) {
        return Look(nullptr, body);
    }

    // Runs `body` (const ExtOperation&) -> NTSTATUS, which changes the volume, and commits. On a failure of
    // either nothing of it remains in memory. STATUS_MEDIA_WRITE_PROTECTED while there is a ReadOnlyReason().
    template <class Body>
    [[nodiscard]] NTSTATUS Change(CommitOrder order, const Body& body) KVR_REQUIRES(lock_) {
        NTSTATUS status = BeginChange();
        if (!NT_SUCCESS(status)) return status;
        const ExtOperation operation(*library_, cache_, names_, io_);
        status = body(operation);
        if (NT_SUCCESS(status)) status = Commit(operation, order);
        if (!NT_SUCCESS(status)) Forget();
        EndOperation();
        return status;
    }

private:
    [[nodiscard]] NTSTATUS Begin() KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS BeginChange() KVR_REQUIRES(lock_);
    void EndOperation() KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS Commit(const ExtOperation& operation, CommitOrder order) KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS WriteThroughUnclean(CommitOrder order) KVR_REQUIRES(lock_);
    [[nodiscard]] long Open() KVR_REQUIRES(lock_);
    void Forget() KVR_REQUIRES(lock_);

    VolumeIo& io_;
    mutable VolumeLock lock_;
    ExtNames names_ KVR_GUARDED_BY(lock_);
    MetadataCache cache_ KVR_GUARDED_BY(lock_);
    ExtDevice device_ KVR_GUARDED_BY(lock_);
    std::vector<char> before_ KVR_GUARDED_BY(lock_);  // the descriptors when the present change began
    struct_ext2_filsys* library_ KVR_GUARDED_BY(lock_) = nullptr;  // null: opened by the next operation
    std::string readOnly_ KVR_GUARDED_BY(lock_);
    bool closed_ KVR_GUARDED_BY(lock_) = true;
    bool suspended_ KVR_GUARDED_BY(lock_) = false;
};

}  // namespace machine
