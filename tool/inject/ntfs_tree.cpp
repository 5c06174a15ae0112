#include "tool/inject/ntfs_tree.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>
#include <sys/stat.h>
#include <sys/types.h>
extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/security.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
#undef min
#undef max
#include "posix/utf.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kMostFileBytes = 1ull << 30;

// The part of the image that is the volume, as the library's device.
struct Window {
    ImageEdit& image;
    std::uint64_t offset;
    std::uint64_t length;
};

s64 Refuse(int error) {
    errno = error;
    return -1;
}

template <class Transfer>
s64 Moved(ntfs_device* device, s64 count, s64 offset, const Transfer& transfer) {
    const Window& window = *static_cast<Window*>(device->d_private);
    const auto length = static_cast<s64>(window.length);
    if (offset < 0 || count < 0 || offset > length) return Refuse(EINVAL);
    count = std::min(count, length - offset);
    try {
        transfer(window.image, window.offset + static_cast<std::uint64_t>(offset),
                 static_cast<std::size_t>(count));
    } catch (const Error&) {
        return Refuse(EIO);
    }
    return count;
}

int OpenDevice(ntfs_device* device, int) {
    NDevSetOpen(device);
    return 0;
}

int CloseDevice(ntfs_device* device) {
    NDevClearOpen(device);
    return 0;
}

// The library seeks to learn whether a place exists; it never transfers from there.
s64 SeekDevice(ntfs_device* device, s64 offset, int whence) {
    const auto size = static_cast<s64>(static_cast<Window*>(device->d_private)->length);
    if (whence == SEEK_END) offset += size;
    return offset >= 0 && offset <= size ? offset : Refuse(EINVAL);
}

s64 ReadOn(ntfs_device*, void*, s64) {
    return Refuse(ENOTSUP);
}

s64 WriteOn(ntfs_device*, const void*, s64) {
    return Refuse(ENOTSUP);
}

s64 ReadDevice(ntfs_device* device, void* buffer, s64 count, s64 offset) {
    return Moved(device, count, offset, [&](ImageEdit& image, std::uint64_t at, std::size_t length) {
        image.Read(at, buffer, length);
    });
}

s64 WriteDevice(ntfs_device* device, const void* buffer, s64 count, s64 offset) {
    return Moved(device, count, offset, [&](ImageEdit& image, std::uint64_t at, std::size_t length) {
        image.Write(at, buffer, length);
    });
}

int SyncDevice(ntfs_device*) {
    return 0;
}

int StatDevice(ntfs_device*, struct stat*) {
    return static_cast<int>(Refuse(ENOTSUP));
}

int ControlDevice(ntfs_device*, unsigned long, void*) {
    return static_cast<int>(Refuse(ENOTTY));
}

ntfs_device_operations gOperations = {OpenDevice, CloseDevice, SeekDevice, ReadOn,     WriteOn,
                                      ReadDevice, WriteDevice, SyncDevice, StatDevice, ControlDevice};

struct Close {
    void operator()(ntfs_inode* inode) const { ntfs_inode_close(inode); }
    void operator()(ntfs_attr* data) const { ntfs_attr_close(data); }
};
using Inode = std::unique_ptr<ntfs_inode, Close>;
using Data = std::unique_ptr<ntfs_attr, Close>;

[[noreturn]] void Fail(const std::string& what) {
    throw Error(what + ": " + std::strerror(errno));
}

std::vector<ntfschar> Characters(const std::string& name) {
    std::u16string text;
    if (!posix::FromUtf8(name, text) || text.empty() || text.size() > 255)
        throw Error("\"" + name + "\" is no file's name");
    std::vector<ntfschar> characters;
    for (const char16_t c : text) characters.push_back(cpu_to_le16(c));
    return characters;
}

// The folder and the name in it.
std::pair<std::string, std::string> Split(const std::string& path) {
    const std::size_t last = path.rfind('\\');
    if (last == std::string::npos) return {"", path};
    return {path.substr(0, last), path.substr(last + 1)};
}

Data OpenData(const Inode& inode, const std::string& path) {
    if (inode == nullptr) throw Error("there is no \\" + path);
    Data data(ntfs_attr_open(inode.get(), AT_DATA, AT_UNNAMED, 0));
    if (data == nullptr) Fail("cannot open \\" + path);
    return data;
}

const char* WhyNotMounted(int error) {
    switch (error) {
        case EPERM:
            return "Windows is hibernated in it (fast start-up counts): shut it down with shutdown /s /t 0";
        case EOPNOTSUPP:
            return "its file system was not dismounted cleanly: start Windows and shut it down";
        case EINVAL:
            return "its file system is damaged or none that can be read";
        default:
            return std::strerror(error);
    }
}

void CheckBootSector(const ImageEdit& image, std::uint64_t offset) {
    std::uint8_t sector[kSector];
    image.Read(offset, sector, sizeof sector);
    if (std::memcmp(sector + 3, "-FVE-FS-", 8) == 0)
        throw Error("the volume is encrypted with BitLocker: decrypt it first");
    if (std::memcmp(sector + 3, "NTFS    ", 8) != 0) throw Error("the volume has no NTFS");
    if ((sector[11] | sector[12] << 8) != kSector)
        throw Error("the volume has sectors of other than 512 bytes, from which Kvr reads no configuration");
}

}  // namespace

struct NtfsTree::Mount {
    Mount(ImageEdit& image, std::uint64_t offset, std::uint64_t length) : window{image, offset, length} {}
    ~Mount() {
        if (volume != nullptr) ntfs_umount(volume, TRUE);
    }

    // Null when there is none.
    Inode Find(const std::string& path) const {
        Inode inode(ntfs_inode_open(volume, FILE_root));
        for (std::size_t at = 0; inode != nullptr && at < path.size();) {
            const std::size_t end = std::min(path.find('\\', at), path.size());
            inode = Step(inode, path.substr(at, end - at));
            at = end + 1;
        }
        return inode;
    }

    Inode Step(const Inode& folder, const std::string& name) const {
        if ((folder->mrec->flags & MFT_RECORD_IS_DIRECTORY) == 0) return nullptr;
        const std::vector<ntfschar> text = Characters(name);
        const u64 record = ntfs_inode_lookup_by_name(folder.get(), text.data(), static_cast<int>(text.size()));
        return Inode(record == static_cast<u64>(-1) ? nullptr : ntfs_inode_open(volume, MREF(record)));
    }

    // With the permissions that a file made there by Windows would have: the library's own default would let
    // everybody replace the driver.
    Inode Create(const std::string& path) const {
        const auto [folderPath, name] = Split(path);
        const Inode folder = Find(folderPath);
        if (folder == nullptr) throw Error("there is no folder \\" + folderPath);
        PERMISSIONS_CACHE* cache = nullptr;
        SECURITY_CONTEXT context{};
        context.vol = volume;
        context.pseccache = &cache;
        const le32 security = ntfs_inherited_id(&context, folder.get(), FALSE);
        if (security == 0) Fail("cannot take over the permissions of \\" + folderPath);
        const std::vector<ntfschar> text = Characters(name);
        Inode made(ntfs_create(folder.get(), security, text.data(), static_cast<u8>(text.size()), S_IFREG));
        if (made == nullptr) Fail("cannot make \\" + path);
        return made;
    }

    Window window;
    ntfs_volume* volume = nullptr;
};

NtfsTree::NtfsTree(ImageEdit& image, std::uint64_t offset, std::uint64_t length)
    : mount_(std::make_unique<Mount>(image, offset, length)) {
    CheckBootSector(image, offset);
    ntfs_log_set_handler(ntfs_log_handler_null);
    ntfs_device* device = ntfs_device_alloc("volume", 0, &gOperations, &mount_->window);
    if (device == nullptr) throw Error("out of memory");
    mount_->volume = ntfs_device_mount(device, 0);
    if (mount_->volume == nullptr) {
        const int error = errno;
        ntfs_device_free(device);
        throw Error(WhyNotMounted(error));
    }
    if ((mount_->volume->flags & VOLUME_IS_DIRTY) != 0) throw Error(WhyNotMounted(EOPNOTSUPP));
    if (ntfs_set_ignore_case(mount_->volume) != 0) throw Error("out of memory");
}

NtfsTree::~NtfsTree() = default;

bool NtfsTree::Exists(const std::string& path) const {
    return mount_->Find(path) != nullptr;
}

std::vector<std::uint8_t> NtfsTree::Read(const std::string& path) const {
    const Inode inode = mount_->Find(path);
    const Data data = OpenData(inode, path);
    if (data->data_size < 0 || static_cast<std::uint64_t>(data->data_size) > kMostFileBytes)
        throw Error("\\" + path + " is larger than what is read of a file");
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(data->data_size));
    for (std::size_t at = 0; at < bytes.size();) {
        const s64 done =
            ntfs_attr_pread(data.get(), static_cast<s64>(at), static_cast<s64>(bytes.size() - at), &bytes[at]);
        if (done <= 0) Fail("cannot read \\" + path);
        at += static_cast<std::size_t>(done);
    }
    return bytes;
}

void NtfsTree::Write(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    Inode inode = mount_->Find(path);
    if (inode == nullptr) inode = mount_->Create(path);
    const Data data = OpenData(inode, path);
    const auto size = static_cast<s64>(bytes.size());
    if (ntfs_attr_truncate(data.get(), size) != 0) Fail("cannot make room for \\" + path);
    for (s64 at = 0; at < size;) {
        const s64 done = ntfs_attr_pwrite(data.get(), at, size - at, &bytes[static_cast<std::size_t>(at)]);
        if (done <= 0) Fail("cannot write \\" + path);
        at += done;
    }
    NInoSetDirty(inode.get());
    ntfs_inode_update_times(inode.get(),
                            static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MTIME | NTFS_UPDATE_CTIME));
}

void NtfsTree::Remove(const std::string& path) {
    const auto [folderPath, name] = Split(path);
    Inode inode = mount_->Find(path);
    if (inode == nullptr) return;
    Inode folder = mount_->Find(folderPath);
    const std::vector<ntfschar> text = Characters(name);
    // Both are closed by the call, whatever becomes of it.
    if (ntfs_delete(mount_->volume, nullptr, inode.release(), folder.release(), text.data(),
                    static_cast<u8>(text.size())) != 0)
        Fail("cannot delete \\" + path);
}

std::vector<std::int64_t> NtfsTree::SectorOffsets(const std::string& path) const {
    const Inode inode = mount_->Find(path);
    const Data data = OpenData(inode, path);
    if (!NAttrNonResident(data.get()) || NAttrCompressed(data.get()) || NAttrEncrypted(data.get()) ||
        NAttrSparse(data.get()))
        throw Error("\\" + path + " is compressed or encrypted, as its folder is: Kvr needs it as it is");
    if (ntfs_attr_map_whole_runlist(data.get()) != 0) Fail("cannot read where \\" + path + " lies");
    const auto cluster = static_cast<std::int64_t>(mount_->volume->cluster_size);
    std::vector<std::int64_t> offsets;
    for (const runlist_element* run = data->rl; run->length != 0; ++run) {
        if (run->lcn < 0) throw Error("\\" + path + " has a hole");
        for (std::int64_t at = 0; at < run->length * cluster; at += kSector)
            offsets.push_back(run->lcn * cluster + at);
    }
    offsets.resize(
        std::min(offsets.size(), static_cast<std::size_t>((data->data_size + kSector - 1) / kSector)));
    return offsets;
}

std::uint64_t NtfsTree::FreeBytes() const {
    ntfs_volume* volume = mount_->volume;
    if (ntfs_volume_get_free_space(volume) != 0) Fail("cannot read which room the volume has");
    return static_cast<std::uint64_t>(volume->free_clusters) * volume->cluster_size;
}

void NtfsTree::Close() {
    ntfs_volume* volume = std::exchange(mount_->volume, nullptr);
    if (volume != nullptr && ntfs_umount(volume, FALSE) != 0) Fail("cannot end the edit of the volume");
}

}  // namespace tool
