// Who on this host uses a file or a block device that is to become a disk. What is mounted, swapped to or a
// part of something larger would be damaged by a machine's writes, and its user's writes would damage the
// machine.
#pragma once
#include <string>

namespace machine {

// One clause about an open regular file or block device, such as "it is mounted on /mnt" or "md0 is made of
// it"; empty when this host tells of nobody. Other programs' locks and mounts of other namespaces do not show
// here: an exclusive open of a block device finds them.
std::string HostUserOf(int file);

// What the contents make a disk a part of, such as "an LVM physical volume"; empty for none. Whoever
// assembles such parts takes this one at any time. Of an open regular file or block device.
std::string MembershipOf(int file);

}  // namespace machine
