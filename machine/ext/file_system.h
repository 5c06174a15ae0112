// ext2, ext3 and ext4 on one volume of the hosted machine: the file system that kernel opens share with whoever
// uses the volume from outside.
//
// The on-disk format is handled by the ext library, one operation at a time under the volume's lock; its
// metadata requests and our own data requests all go through VolumeIo, so every filter of the volume sees them
// with file objects of their own. Any number of threads may call at once; several mounted volumes work in
// parallel.
//
// Nothing is written before something is to be changed: mounting and dismounting leave the volume as it is. A
// volume that must not be changed is mounted read-only, with one line that says why (ReadOnlyReason, and the
// debugger's output): its journal is not empty, it was not unmounted cleanly or has errors, or it uses a
// feature that the library does not keep right.
//
// A call that fails for the device returns the failing request's own status (what a filter answered reaches the
// caller unchanged) and leaves the file as the volume has it. If it fails while it commits, the volume is left
// asking for its check and is read-only from then on.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "machine/files/guest_file_system.h"
#include "machine/files/volume_io.h"

namespace machine {

class ExtFileSystem : public GuestFileSystem {
public:
    // Mounts the volume behind `io`, which must live until Dismount(), Abandon() or the destructor.
    // STATUS_UNRECOGNIZED_VOLUME when it holds no ext file system, STATUS_NOT_SUPPORTED when it holds one that
    // cannot be read here, STATUS_DISK_CORRUPT_ERROR when it is beyond use, else the failing request's status.
    [[nodiscard]] static NTSTATUS Mount(VolumeIo& io, std::unique_ptr<ExtFileSystem>& fileSystem);

    // Dismounts; a failure cannot be reported from here.
    ~ExtFileSystem() override;
    ExtFileSystem(const ExtFileSystem&) = delete;
    ExtFileSystem& operator=(const ExtFileSystem&) = delete;

    // A file that is made with FILE_ATTRIBUTE_SYSTEM is immutable for the guest; opens and deletions that come
    // here are the kernel's, and not bound by that. STATUS_NOT_SUPPORTED for what is no plain file.
    [[nodiscard]] NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                                ULONG_PTR& information) override;
    // Deletes a file; directories stay (STATUS_FILE_IS_A_DIRECTORY). A file whose opens all share deletion goes
    // with its last close, and cannot be opened until then (STATUS_DELETE_PENDING).
    [[nodiscard]] NTSTATUS Delete(const std::u16string& path) override;

    // Not offered: STATUS_NOT_SUPPORTED.
    [[nodiscard]] NTSTATUS Rename(const std::u16string& from, const std::u16string& to) override;
    [[nodiscard]] NTSTATUS MakeDirectory(const std::u16string& path) override;
    [[nodiscard]] NTSTATUS List(const std::u16string& path, std::vector<DirectoryEntry>& entries) override;
    [[nodiscard]] NTSTATUS Query(const std::u16string& path, DirectoryEntry& entry) override;
    [[nodiscard]] NTSTATUS FreeSpace(std::uint64_t& bytes) override;
    bool ReadOnly() const override;
    std::u16string DriverName() const override { return u"\\FileSystem\\Ext4"; }
    // Why it is read-only, one line without a full stop; empty when it is not.
    std::string ReadOnlyReason() const;

    [[nodiscard]] NTSTATUS Flush() override;
    // Ends the mount: files still open answer STATUS_DEVICE_NOT_READY from now on, and `io` is not touched
    // again. Everything is released whatever the status, which is that of the flush at the end.
    NTSTATUS Dismount() override;
    // The same without a request to the volume.
    void Abandon() override;
    void Suspend() override;
    void Resume() override;

private:
    friend class ExtOpen;
    struct State;
    explicit ExtFileSystem(std::shared_ptr<State> state);
    NTSTATUS End(bool orderly);
    std::shared_ptr<State> state_;  // shared with the opens, which may outlive the mount
};

// ext2, ext3 and ext4 for a machine to mount its volumes with.
FileSystemFactory ExtFactory();
// Whether a volume begins as these do.
[[nodiscard]] NTSTATUS LooksLikeExt(VolumeIo& io, bool& ext);

}  // namespace machine
