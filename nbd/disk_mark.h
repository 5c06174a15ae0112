// The mark on a disk that says which machine it belongs to, so that no other one writes to it by mistake: the
// volumes hold what a machine keeps, and only its own registry says where.
//
// An image file carries the mark in its extended attribute user.kvr.machine, which moves with it and with
// copies that keep attributes; where the file system has none, the file .NAME.kvr beside it holds the mark. A
// block device's and a remote disk's mark is a file of the user's state folder ($XDG_STATE_HOME/kvr/disks,
// /var/lib/kvr-disks, or ~/.local/state/kvr/disks), found by the device's lasting identity or the URI: nothing
// is written to the disk itself, of which every sector is the guest's. Such a mark is known to this host and
// user only.
#pragma once
#include <optional>
#include <string>
#include "nbd/error.h"

namespace nbd {

struct DiskMark {
    std::string machine;  // its identity, hexadecimal
    std::string folder;   // where it was then, an absolute path
};

// `disk`: an absolute path or a URI. Nothing for a disk without a mark. Throws Error when it cannot be told.
std::optional<DiskMark> ReadMark(const std::string& disk);
// Replaces the mark. Throws Error.
void WriteMark(const std::string& disk, const DiskMark& mark);
// The disk is nobody's any more. A mark that cannot be removed stays.
void EraseMark(const std::string& disk);

}  // namespace nbd
