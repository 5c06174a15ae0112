// NTFS on one volume of the hosted machine: the file system that kernel opens and the guest's programs share.
//
// The on-disk format is handled by the NTFS library, one operation at a time under the volume's lock; its
// metadata requests and our own data requests all go through VolumeIo, so every filter of the volume sees them
// with the file objects that the platform's file system would use. Any number of threads may call at once;
// several mounted volumes work in parallel.
//
// A call that fails for the device returns the failing request's own status (what a filter answered reaches the
// caller unchanged) and leaves the file as the volume has it.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "platform/kernel.h"
#include "machine/files/guest_file_system.h"
#include "machine/files/volume_io.h"

namespace machine {

class NtfsFileSystem : public GuestFileSystem {
public:
    // Mounts the volume behind `io`, which must live until Dismount(), Abandon() or the destructor.
    // STATUS_UNRECOGNIZED_VOLUME when it holds no NTFS, STATUS_DISK_CORRUPT_ERROR when its metadata is beyond
    // use, else the failing request's status. A volume that another system left unclean is mounted read-only.
    [[nodiscard]] static NTSTATUS Mount(VolumeIo& io, std::unique_ptr<NtfsFileSystem>& fileSystem);

    // Dismounts; a failure cannot be reported from here.
    ~NtfsFileSystem() override;
    NtfsFileSystem(const NtfsFileSystem&) = delete;
    NtfsFileSystem& operator=(const NtfsFileSystem&) = delete;

    [[nodiscard]] NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                                ULONG_PTR& information) override;
    // Deletes a file, or a directory that is empty. A file whose opens all share deletion goes with its last
    // close, and cannot be opened until then (STATUS_DELETE_PENDING).
    [[nodiscard]] NTSTATUS Delete(const std::u16string& path) override;

    [[nodiscard]] NTSTATUS Rename(const std::u16string& from, const std::u16string& to) override;
    [[nodiscard]] NTSTATUS MakeDirectory(const std::u16string& path) override;
    [[nodiscard]] NTSTATUS List(const std::u16string& path, std::vector<DirectoryEntry>& entries) override;
    [[nodiscard]] NTSTATUS Query(const std::u16string& path, DirectoryEntry& entry) override;
    [[nodiscard]] NTSTATUS FreeSpace(std::uint64_t& bytes) override;
    bool ReadOnly() const override;
    [[nodiscard]] NTSTATUS Flush() override;

    // Ends the mount: files still open answer STATUS_DEVICE_NOT_READY from now on, and `io` is not touched
    // again. Everything is released whatever the status, which is that of the flush at the end.
    NTSTATUS Dismount() override;
    // The same without a request to the volume.
    void Abandon() override;
    void Suspend() override;
    void Resume() override;

private:
    friend class NtfsOpen;
    struct State;
    explicit NtfsFileSystem(std::shared_ptr<State> state);
    NTSTATUS End(bool orderly);
    std::shared_ptr<State> state_;  // shared with the opens, which may outlive the mount
};

// NTFS for a machine to mount its volumes with.
FileSystemFactory NtfsFactory();

}  // namespace machine
