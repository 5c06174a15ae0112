// A small file system for tests that need files at known places, in chosen pieces or with chosen failures. It
// has no folders (a path is just a name), keeps its directory in a ScriptedVolume and sends file data down the
// volume's stack as one request per piece, with the file object of the open.
#pragma once
#include <memory>
#include "machine/files/file_system.h"
#include "tests/doubles/scripted_volume.h"

namespace machine {

class ScriptedFileSystem final : public FileSystem {
public:
    // `io` must outlive the object.
    ScriptedFileSystem(VolumeIo& io, std::shared_ptr<ScriptedVolume> volume);
    ~ScriptedFileSystem() override;

    [[nodiscard]] NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                                ULONG_PTR& information) override;
    [[nodiscard]] NTSTATUS Delete(const std::u16string& path) override;
    [[nodiscard]] NTSTATUS Dismount() override;
    void Abandon() override;

private:
    friend class ScriptedOpen;
    struct State;
    std::shared_ptr<State> state_;  // shared with the opens, which may outlive the mount
};

// Mounts scripted files on the volume: reads its first sector, as any file system does, and fails as that does.
// `name` is the file system driver's.
FileSystemDriver ScriptedDriver(std::shared_ptr<ScriptedVolume> volume,
                                std::u16string name = u"\\FileSystem\\Ntfs");

}  // namespace machine
