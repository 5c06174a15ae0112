// A file system on one volume of the hosted machine: what the kernel opens files with and the guest's programs
// share, on any format.
//
// The on-disk format is handled by its library, one operation at a time under the volume's lock; its metadata
// requests and our own data requests all go through VolumeIo, so every filter of the volume sees them with the
// file objects that the platform's file system would use. Any number of threads may call at once; several
// mounted volumes work in parallel.
//
// A call that fails for the device returns the failing request's own status (what a filter answered reaches the
// caller unchanged) and leaves the file as the volume has it.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "machine/files/file_runs.h"
#include "machine/files/guest_file_system.h"
#include "machine/files/volume_format.h"

namespace machine {

class MountedFileSystem final : public GuestFileSystem {
public:
    // Mounts the volume behind `format`, whose VolumeIo must live until Dismount(), Abandon() or the
    // destructor. The failures are those of VolumeFormat::Open().
    [[nodiscard]] static NTSTATUS Mount(std::unique_ptr<VolumeFormat> format,
                                        std::unique_ptr<MountedFileSystem>& fileSystem);

    // Dismounts; a failure cannot be reported from here.
    ~MountedFileSystem() override;
    MountedFileSystem(const MountedFileSystem&) = delete;
    MountedFileSystem& operator=(const MountedFileSystem&) = delete;

    // STATUS_NOT_SUPPORTED for what is foreign (DirectoryEntry).
    [[nodiscard]] NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                                ULONG_PTR& information) override;
    // Deletes a file, or a directory that is empty; where the format does not move names, directories stay
    // (STATUS_FILE_IS_A_DIRECTORY). A file whose opens all share deletion goes with its last close, and cannot
    // be opened until then (STATUS_DELETE_PENDING).
    [[nodiscard]] NTSTATUS Delete(const std::u16string& path) override;

    [[nodiscard]] NTSTATUS Rename(const std::u16string& from, const std::u16string& to) override;
    [[nodiscard]] NTSTATUS MakeDirectory(const std::u16string& path) override;
    [[nodiscard]] NTSTATUS List(const std::u16string& path, std::vector<DirectoryEntry>& entries) override;
    [[nodiscard]] NTSTATUS Query(const std::u16string& path, DirectoryEntry& entry) override;
    [[nodiscard]] NTSTATUS FreeSpace(std::uint64_t& bytes) override;
    std::string Label() override;
    std::string ReadOnlyReason() const override;
    // Where the file's data lies; none for data that the format keeps in another form than runs.
    [[nodiscard]] NTSTATUS Runs(const std::u16string& path, FileRuns& runs);
    FileSystemKind Kind() const override;
    std::u16string DriverName() const override;
    [[nodiscard]] NTSTATUS Flush() override;

    // Ends the mount: files still open answer STATUS_DEVICE_NOT_READY from now on, and `io` is not touched
    // again. Everything is released whatever the status, which is that of the flush at the end.
    NTSTATUS Dismount() override;
    // The same without a request to the volume.
    void Abandon() override;
    void Suspend() override;
    void Resume() override;

private:
    friend class MountedOpen;
    struct State;
    explicit MountedFileSystem(std::shared_ptr<State> state);
    NTSTATUS End(bool orderly);
    std::shared_ptr<State> state_;  // shared with the opens, which may outlive the mount
};

// Mounts what `make` knows.
FileSystemFactory FactoryOf(FormatMaker make);

}  // namespace machine
