// The NTFS library's declarations, in a namespace of their own: its headers declare many names of the kernel's
// interfaces once more (access masks, TRUE, GUID), so both could not stand in one file otherwise. Only the
// ntfs_*.cpp files include this; headers name the library's records by the forward declarations below.
#pragma once
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/param.h>
#include <sys/stat.h>
#include <sys/types.h>

#pragma push_macro("TRUE")
#pragma push_macro("FALSE")
#undef TRUE
#undef FALSE
namespace ntfs_library {
extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/bitmap.h>
#include <ntfs-3g/bootsect.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/mft.h>
#include <ntfs-3g/mst.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
}  // namespace ntfs_library
#undef min
#undef max
#pragma pop_macro("TRUE")
#pragma pop_macro("FALSE")
