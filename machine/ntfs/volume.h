// One mounted volume: the NTFS library's mount, the lock that everything in the library needs, and operations
// that happen whole or not at all.
//
// An operation that fails throws the library's mount away and makes a new one from the volume: what the library
// holds in memory after a failure is not to be trusted, and a mount costs a few reads.
#pragma once
#include <cstdint>
#include <memory>
#include "machine/ntfs/device.h"
#include "machine/files/metadata_cache.h"
#include "machine/ntfs/names.h"
#include "machine/files/volume_lock.h"

namespace machine {

// One operation on the mounted volume, as the code within it sees it. Only valid under the volume's lock.
class NtfsOperation {
public:
    NtfsOperation(ntfs_library::_ntfs_volume& library, MetadataCache& cache, VolumeIo& io)
        : library_(library), cache_(cache), io_(io) {}

    ntfs_library::_ntfs_volume* Library() const { return &library_; }
    VolumeIo& Io() const { return io_; }
    // What a failing call of the library means: the failing request's own status if one failed, else `error`,
    // which is errno right after the call, translated.
    NTSTATUS Failed(int error) const;

private:
    ntfs_library::_ntfs_volume& library_;
    MetadataCache& cache_;
    VolumeIo& io_;
};

class NtfsVolume {
public:
    explicit NtfsVolume(VolumeIo& io);
    ~NtfsVolume();
    NtfsVolume(const NtfsVolume&) = delete;
    NtfsVolume& operator=(const NtfsVolume&) = delete;

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
    bool ReadOnly() const KVR_REQUIRES(lock_) { return readOnly_; }
    // Who owns requests for a directory's metadata, for Change().
    PFILE_OBJECT DirectoryObject() KVR_REQUIRES(lock_) { return names_.Directory(); }
    // The same for a file's own metadata outside its record.
    PFILE_OBJECT AttributeListObject() KVR_REQUIRES(lock_) { return names_.AttributeList(); }

    // Runs `body` (NtfsOperation&) -> NTSTATUS, which only looks. STATUS_DEVICE_NOT_READY after Close().
    // `other` owns the requests for what has no name of its own.
    template <class Body>
    [[nodiscard]] NTSTATUS Look(PFILE_OBJECT other, const Body& body) KVR_REQUIRES(lock_) {
        NTSTATUS status = Begin();
        if (!NT_SUCCESS(status)) return status;
        NtfsOperation operation(*volume_, cache_, io_);
        status = Run(operation, other, body);
        cache_.Discard();
        return status;
    }
    template <class Body>
    [[nodiscard]] NTSTATUS Look(const Body& body) KVR_REQUIRES(lock_) {
        return Look(names_.Directory(), body);
    }

    // Runs `body` (NtfsOperation&) -> NTSTATUS, which changes the volume, and commits; all of its inodes must
    // be closed when it returns. On a failure of either nothing of it remains in memory.
    // STATUS_MEDIA_WRITE_PROTECTED on a volume mounted read-only, where the library would only pretend.
    template <class Body>
    [[nodiscard]] NTSTATUS Change(CommitOrder order, PFILE_OBJECT other, const Body& body) KVR_REQUIRES(lock_) {
        NTSTATUS status = Begin();
        if (!NT_SUCCESS(status)) return status;
        if (readOnly_) return STATUS_MEDIA_WRITE_PROTECTED;
        NtfsOperation operation(*volume_, cache_, io_);
        status = Run(operation, other, body);
        if (NT_SUCCESS(status)) status = Commit(order, other);
        if (!NT_SUCCESS(status)) Forget();
        return status;
    }

private:
    template <class Body>
    NTSTATUS Run(NtfsOperation& operation, PFILE_OBJECT other, const Body& body) KVR_REQUIRES(lock_) {
        const OtherScope scope(names_, other);
        return body(operation);
    }
    [[nodiscard]] NTSTATUS Begin() KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS Commit(CommitOrder order, PFILE_OBJECT other) KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS MountOnce() KVR_REQUIRES(lock_);
    void Forget() KVR_REQUIRES(lock_);

    VolumeIo& io_;
    mutable VolumeLock lock_;
    NtfsNames names_ KVR_GUARDED_BY(lock_);
    MetadataCache cache_ KVR_GUARDED_BY(lock_);
    NtfsDevice device_ KVR_GUARDED_BY(lock_);
    ntfs_library::_ntfs_volume* volume_ KVR_GUARDED_BY(lock_) = nullptr;  // null: mounted by the next operation
    bool readOnly_ KVR_GUARDED_BY(lock_) = false;
    bool closed_ KVR_GUARDED_BY(lock_) = true;
    bool suspended_ KVR_GUARDED_BY(lock_) = false;
};

}  // namespace machine
