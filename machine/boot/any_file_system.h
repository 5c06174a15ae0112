// Mounting what is there.
#pragma once
#include "machine/files/guest_file_system.h"

namespace machine {

// Looks at the volume through its stack and mounts ext2, ext3 or ext4 where one begins, else NTFS. What it
// mounts is a GuestFileSystem.
FileSystemDriver AnyFileSystem();

}  // namespace machine
