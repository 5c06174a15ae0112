#include "nbd/adopter.h"
#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include "nbd/disk_owner.h"
#include "nbd/image_check.h"
#include "nbd/kept_changes.h"
#include "posix/utf.h"

namespace nbd {
namespace {

std::string ShortName(const KeptChanges& kept) {
    return posix::ToUtf8(kept.volume.substr(kept.volume.rfind(u'\\') + 1));
}

std::string Size(std::uint64_t bytes) {
    return std::to_string((bytes + 1023) / 1024) + " KiB";
}

bool IsAmong(const KeptChanges& kept, const std::vector<KeptChanges>& others) {
    return std::any_of(others.begin(), others.end(), [&](const KeptChanges& other) {
        return other.identity == kept.identity && other.place == kept.place;
    });
}

// What becomes of the changes on the disks, told before anything is done.
class Adoption {
public:
    // `own`: the machine that adopts, when it exists already, and the disk's index in it.
    void Add(const FolderDisk& disk, const std::string& path, const DiskMark& mark,
             const MachineFolder* own = nullptr, unsigned index = 0) {
        std::string error;
        const auto medium = machine::HostDisk::Open(path, disk.sectorBytes, error);
        if (medium == nullptr) throw Error(error);
        const auto mine = own != nullptr ? KeptChangesOn(*own, index, *medium) : std::vector<KeptChanges>();
        const auto theirs = OfTheOther(mark, path, *medium);
        for (const KeptChanges& kept : theirs) Judge(kept, path, IsAmong(kept, mine), mark.folder);
        for (const KeptChanges& kept : mine) {
            if (IsAmong(kept, theirs)) continue;
            Judge(kept, path, false, own->path);
            forgotten_.push_back(kept);
        }
        lines_.push_back("Disk " + path + " belonged to the machine in " + mark.folder);
    }

    void RequireNothingLost() const {
        if (!lost_.empty()) throw Error(lost_.front() + " would be lost; --drop-changes does it all the same");
    }
    const std::vector<KeptChanges>& Forgotten() const { return forgotten_; }
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines = lines_;
        for (const std::string& what : lost_) lines.push_back("Lost: " + what);
        for (const KeptChanges& kept : forgotten_)
            lines.push_back(ShortName(kept) + " has no storage any more; make it anew with kvrctl swap make");
        return lines;
    }

private:
    std::vector<KeptChanges> OfTheOther(const DiskMark& mark, const std::string& path,
                                        machine::HostDisk& medium) {
        const std::optional<MachineFolder> other = FindMachine(mark);
        if (!other) return {};
        const FolderLock lock(*other);  // off: what it keeps stands on its disks
        for (unsigned i = 0; i < other->disks.size(); ++i) {
            const std::string name = other->DiskPath(other->disks[i]);
            std::error_code ignored;
            if (name == path || std::filesystem::equivalent(name, path, ignored))
                return KeptChangesOn(*other, i, medium);
        }
        return {};
    }

    void Judge(const KeptChanges& kept, const std::string& path, bool known, const std::string& where) {
        if (kept.bytes == 0) return;
        const std::string what = Size(kept.bytes) + " of changes of the machine in " + where + " on its " +
                                 ShortName(kept) + ", disk " + path;
        if (known)
            lines_.push_back("Taken over: " + what);
        else
            lost_.push_back(what);
    }

    std::vector<std::string> lines_, lost_;
    std::vector<KeptChanges> forgotten_;
};

std::vector<std::string> AdoptIntoNew(NewMachine machine, bool dropChanges) {
    Adoption adoption;
    for (const std::string& image : machine.images) {
        const FolderDisk disk = CheckImage(image, machine.sectorBytes);
        const std::optional<DiskMark> mark = ReadMark(disk.path);
        if (mark) adoption.Add(disk, disk.path, *mark);
    }
    if (!dropChanges) adoption.RequireNothingLost();
    machine.takesOver = true;
    MakeMachine(machine);
    return adoption.Lines();
}

std::vector<std::string> AdoptInto(const std::string& path, bool dropChanges) {
    const MachineFolder folder = MachineFolder::Read(path);
    const FolderLock lock(folder);
    Adoption adoption;
    for (unsigned i = 0; i < folder.disks.size(); ++i) {
        const FolderDisk& disk = folder.disks[i];
        const std::optional<DiskMark> mark = OtherOwner(folder, disk);
        if (mark) adoption.Add(disk, folder.DiskPath(disk), *mark, &folder, i);
    }
    if (!dropChanges) adoption.RequireNothingLost();
    ForgetChanges(folder, adoption.Forgotten());
    MarkDisks(folder);
    return adoption.Lines();
}

}  // namespace

std::vector<std::string> Adopt(const NewMachine& machine, bool dropChanges) {
    return machine.images.empty() ? AdoptInto(machine.path, dropChanges) : AdoptIntoNew(machine, dropChanges);
}

}  // namespace nbd
