// One mounted volume: the library's view of it, the lock that everything in a library needs, and operations
// that happen whole or not at all.
//
// An operation that fails throws the library's view away and the next one makes a new one from the volume: what
// a library holds in memory after a failure is not to be trusted, and a view costs a few reads.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include "machine/files/volume_format.h"
#include "platform/host/sync/host_lock.h"

namespace machine {

class MountedVolume {
public:
    explicit MountedVolume(std::unique_ptr<VolumeFormat> format)
        : io_(format->Io()), traits_(format->Traits()), format_(std::move(format)) {}
    ~MountedVolume();
    MountedVolume(const MountedVolume&) = delete;
    MountedVolume& operator=(const MountedVolume&) = delete;

    // A file's content lock, where both are needed, is taken before it.
    host::HostLock& Lock() const KVR_ATTRIBUTE(lock_returned(lock_)) { return lock_; }
    VolumeIo& Io() const { return io_; }
    const FormatTraits& Traits() const { return traits_; }

    [[nodiscard]] NTSTATUS Mount() KVR_REQUIRES(lock_);
    // For good: no operation succeeds afterwards, and `io` is not touched again.
    void Close() KVR_REQUIRES(lock_);
    bool Closed() const KVR_REQUIRES(lock_) { return closed_; }
    // Between the two every operation is STATUS_DEVICE_BUSY; the next one after them mounts anew.
    void Suspend() KVR_REQUIRES(lock_);
    void Resume() KVR_REQUIRES(lock_) { suspended_ = false; }
    // Why nothing can be changed, one line; empty when it can. As of the last mount.
    const std::string& ReadOnlyReason() const KVR_REQUIRES(lock_) { return format_->ReadOnlyReason(); }

    // What an operation does; within it the lock is held.
    using Body = std::function<NTSTATUS(VolumeFormat& format)>;
    // Whose are the requests of an operation for what has no name of its own.
    enum class Owner {
        Directory,
        FileMetadata,  // of a file, outside of its record
    };

    // Runs a body that only looks. STATUS_DEVICE_NOT_READY after Close().
    [[nodiscard]] NTSTATUS Look(const Body& body) KVR_REQUIRES(lock_);
    // Such requests are those of `file`.
    [[nodiscard]] NTSTATUS Look(PFILE_OBJECT file, const Body& body) KVR_REQUIRES(lock_);
    // Runs a body that changes the volume, and commits. On a failure of either nothing of it remains in memory.
    // STATUS_MEDIA_WRITE_PROTECTED while there is a ReadOnlyReason().
    [[nodiscard]] NTSTATUS Change(CommitOrder order, Owner owner, const Body& body) KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS Change(CommitOrder order, PFILE_OBJECT file, const Body& body) KVR_REQUIRES(lock_);

private:
    [[nodiscard]] NTSTATUS Begin() KVR_REQUIRES(lock_);
    [[nodiscard]] NTSTATUS ChangeWithin(CommitOrder order, const Body& body) KVR_REQUIRES(lock_);
    void EndOperation() KVR_REQUIRES(lock_);
    void Forget() KVR_REQUIRES(lock_);

    VolumeIo& io_;
    const FormatTraits& traits_;
    mutable host::HostLock lock_;  // requests go down the volume's stack under it
    const std::unique_ptr<VolumeFormat> format_ KVR_GUARDED_BY(lock_);
    bool closed_ KVR_GUARDED_BY(lock_) = true;
    bool suspended_ KVR_GUARDED_BY(lock_) = false;
};

}  // namespace machine
