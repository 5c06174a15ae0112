#include "machine/boot/any_file_system.h"
#include "machine/ext/format.h"
#include "machine/ntfs/format.h"

namespace machine {

FileSystemDriver AnyFileSystem() {
    FileSystemDriver driver;
    driver.mount = [](VolumeIo& io, NTSTATUS& status) -> std::unique_ptr<FileSystem> {
        bool ext = false;
        status = LooksLikeExt(io, ext);
        if (!NT_SUCCESS(status)) return nullptr;
        return ext ? ExtFactory()(io, status) : NtfsFactory()(io, status);
    };
    return driver;
}

}  // namespace machine
