// A file system as the machine mounts it on a volume: what the host kernel's file calls reach, how it stands
// back while somebody else works on the volume, and the two ways in which its time ends.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include "formats/file_system_kind.h"
#include "machine/files/volume_io.h"
#include "platform/host/object/file_provider.h"

namespace machine {

class FileSystem : public host::FileProvider {
public:
    virtual FileSystemKind Kind() const { return FileSystemKind::Other; }
    // For a mount that finds out what it mounts; empty: as the FileSystemDriver says.
    virtual std::u16string DriverName() const { return {}; }
    // Brings everything to the top of the volume's stack and ends. From then on every call, also through
    // files that are still open, fails without I/O; the open files' objects stay valid until they are closed.
    [[nodiscard]] virtual NTSTATUS Dismount() = 0;
    // The power failed: ends without I/O, otherwise as Dismount.
    virtual void Abandon() = 0;

    // Somebody else is about to use the volume below this file system. What is due is brought to the stack,
    // what memory holds of the volume is dropped, and until Resume() nothing is written (Dismount included),
    // every open, deletion and transfer through an open file is STATUS_DEVICE_BUSY; open files stay valid
    // objects that can be closed. Calls under way have ended when it returns.
    virtual void Suspend() {}
    // The volume is this file system's again: the next call finds it as it is now. A file that is still open
    // and whose record is gone answers STATUS_DEVICE_NOT_READY; a volume that holds no such file system any
    // more answers what a mount of it would. The defaults of both are for a file system that keeps its
    // directory somewhere else.
    virtual void Resume() {}
};

// Mounts on the volume behind `io`, which outlives the file system. Null and a failure in `status` when the
// volume holds nothing that it knows or cannot be read.
using FileSystemFactory = std::function<std::unique_ptr<FileSystem>(VolumeIo& io, NTSTATUS& status)>;

// The name under which a file system's driver is known on the volumes that it mounts, and how it mounts. A file
// system that has a DriverName() of its own goes by that.
struct FileSystemDriver {
    std::u16string name = u"\\FileSystem\\Ntfs";
    FileSystemFactory mount;
};

}  // namespace machine
