// A Windows installation on a raw disk that is not running: where its volume and its boot volume lie, and its
// hives.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include "tool/inject/hive.h"
#include "tool/inject/image_edit.h"
#include "tool/inject/ntfs_tree.h"

namespace tool {

struct DiskRange {
    std::uint64_t offset = 0;  // bytes on the disk
    std::uint64_t length = 0;
};

// Where the boot store is looked for: the EFI system partition, else the active one.
struct BootVolume {
    DiskRange range;
    bool efi = false;
};

class Installation {
public:
    // Finds the one volume with a Windows below `root` (its folder's path, "Windows" for example) and mounts
    // it. Throws Error with the cause: no partition table, no such volume or several, what NtfsTree refuses,
    // hives that Hive refuses, a Windows that is not one for x86-64.
    Installation(ImageEdit& image, const std::string& root);

    NtfsTree& Volume() { return *volume_; }
    const DiskRange& Range() const { return range_; }
    // Throws Error when the disk has none, or several.
    BootVolume Boot() const;

    Hive& System() { return *system_; }
    // Opened with the first call. Throws Error as Hive does.
    Hive& Software();
    // "ControlSet001\\" and the path: a key of the current control set in System().
    std::string Current(const std::string& path) const { return controlSet_ + "\\" + path; }

    // A file below the root: "System32\\drivers\\kvr64.sys".
    std::string Path(const std::string& below) const { return root_ + "\\" + below; }

    // Puts the hives that were edited into their files.
    void StoreHives();

private:
    struct Partition {
        DiskRange range;
        bool efi, active;
    };

    void ReadPartitions();
    void FindVolume();
    std::unique_ptr<NtfsTree> TryVolume(std::size_t number, std::string& why) const;
    void OpenSystem();
    std::unique_ptr<Hive> Load(const std::string& name);
    void Store(const std::string& name, std::unique_ptr<Hive>& hive);

    ImageEdit& image_;
    const std::string root_;
    std::vector<Partition> partitions_;
    DiskRange range_;
    std::unique_ptr<NtfsTree> volume_;
    std::unique_ptr<Hive> system_, software_;
    std::string controlSet_;
};

}  // namespace tool
