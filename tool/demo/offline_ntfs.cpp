#include "tool/demo/offline_ntfs.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
#undef min
#undef max
#include "posix/file_io.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr std::size_t kReadStep = 1024 * 1024;
constexpr int kNumberedSwapFiles = 16;

// The part of the image that is the volume, as the NTFS library's device.
struct Window {
    int file;
    std::uint64_t offset;
    std::uint64_t length;
    std::int64_t position;
};

Window* WindowOf(ntfs_device* device) {
    return static_cast<Window*>(device->d_private);
}

int OpenDevice(ntfs_device* device, int) {
    NDevSetOpen(device);
    NDevSetReadOnly(device);
    return 0;
}

int CloseDevice(ntfs_device* device) {
    NDevClearOpen(device);
    return 0;
}

s64 ReadDevice(ntfs_device* device, void* buffer, s64 count, s64 offset) {
    const Window& window = *WindowOf(device);
    if (offset < 0 || count < 0 || static_cast<std::uint64_t>(offset) > window.length) {
        errno = EINVAL;
        return -1;
    }
    const auto at = static_cast<std::uint64_t>(offset);
    const std::uint64_t length = std::min(static_cast<std::uint64_t>(count), window.length - at);
    if (!posix::ReadAt(window.file, buffer, static_cast<std::size_t>(length), window.offset + at)) {
        errno = EIO;
        return -1;
    }
    return static_cast<s64>(length);
}

s64 SeekDevice(ntfs_device* device, s64 offset, int whence) {
    Window& window = *WindowOf(device);
    const auto end = static_cast<std::int64_t>(window.length);
    const std::int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? window.position : end;
    if (base + offset < 0 || base + offset > end) {
        errno = EINVAL;
        return -1;
    }
    return window.position = base + offset;
}

s64 ReadOn(ntfs_device* device, void* buffer, s64 count) {
    const s64 done = ReadDevice(device, buffer, count, WindowOf(device)->position);
    if (done > 0) WindowOf(device)->position += done;
    return done;
}

s64 RefuseWrite(ntfs_device*, const void*, s64) {
    errno = EROFS;
    return -1;
}

s64 RefuseWriteAt(ntfs_device*, const void*, s64, s64) {
    errno = EROFS;
    return -1;
}

int SyncDevice(ntfs_device*) {
    return 0;
}

int StatDevice(ntfs_device* device, struct stat* info) {
    return fstat(WindowOf(device)->file, info);
}

int ControlDevice(ntfs_device*, unsigned long, void*) {
    errno = ENOTTY;
    return -1;
}

ntfs_device_operations& Operations() {
    static ntfs_device_operations operations = [] {
        ntfs_device_operations made{};
        made.open = OpenDevice;
        made.close = CloseDevice;
        made.seek = SeekDevice;
        made.read = ReadOn;
        made.write = RefuseWrite;
        made.pread = ReadDevice;
        made.pwrite = RefuseWriteAt;
        made.sync = SyncDevice;
        made.stat = StatDevice;
        made.ioctl = ControlDevice;
        return made;
    }();
    return operations;
}

struct Close {
    void operator()(ntfs_inode* inode) const { ntfs_inode_close(inode); }
    void operator()(ntfs_attr* data) const { ntfs_attr_close(data); }
};
using Inode = std::unique_ptr<ntfs_inode, Close>;
using Data = std::unique_ptr<ntfs_attr, Close>;

Data OpenData(ntfs_inode* inode) {
    return Data(ntfs_attr_open(inode, AT_DATA, AT_UNNAMED, 0));
}

bool ReadAll(ntfs_attr* data, std::vector<std::uint8_t>& content) {
    content.resize(static_cast<std::size_t>(data->data_size));
    for (std::size_t at = 0; at < content.size();) {
        const std::size_t step = std::min(content.size() - at, kReadStep);
        const s64 done = ntfs_attr_pread(data, static_cast<s64>(at), static_cast<s64>(step), &content[at]);
        if (done <= 0) return false;
        at += static_cast<std::size_t>(done);
    }
    return true;
}

struct Listed {
    std::u16string name;
    std::uint64_t record;
};

int AddListed(void* list, const ntfschar* name, const int length, const int type, const s64,
              const MFT_REF record, const unsigned) {
    constexpr int kShortNameOnly = 2;
    if ((type & 3) == kShortNameOnly || MREF(record) < FILE_first_user) return 0;
    std::u16string text(static_cast<std::size_t>(length), u'\0');
    for (int i = 0; i < length; ++i) text[static_cast<std::size_t>(i)] = le16_to_cpu(name[i]);
    if (text != u"." && text != u"..") static_cast<std::vector<Listed>*>(list)->push_back({text, MREF(record)});
    return 0;
}

std::vector<Listed> List(ntfs_inode* directory) {
    std::vector<Listed> entries;
    s64 position = 0;
    if (ntfs_readdir(directory, &position, &entries, AddListed) != 0)
        throw Error(std::string("cannot list a folder of the volume: ") + std::strerror(errno));
    std::sort(entries.begin(), entries.end(), [](auto& a, auto& b) { return a.name < b.name; });
    return entries;
}

bool IsPlain(ntfs_inode* inode, ntfs_attr* data) {
    const auto apart = FILE_ATTR_REPARSE_POINT | FILE_ATTR_READONLY | FILE_ATTR_SYSTEM;
    return !NAttrCompressed(data) && !NAttrEncrypted(data) && !NAttrSparse(data) && (inode->flags & apart) == 0;
}

}  // namespace

struct OfflineVolume::Mount {
    explicit Mount(const std::string& image) : file(open(image.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~Mount() {
        if (volume != nullptr) ntfs_umount(volume, FALSE);
    }

    // Looks names up without regard to case.
    ntfs_inode* Find(const std::u16string& path) const {
        if (volume->locase == nullptr)
            ntfs_set_ignore_case(volume);  // makes a table with each call
        else
            NVolClearCaseSensitive(volume);
        ntfs_inode* inode = ntfs_inode_open(volume, FILE_root);
        for (std::size_t at = 1; inode != nullptr && at < path.size();) {
            const std::size_t end = std::min(path.find(u'\\', at), path.size());
            inode = Step(inode, path.substr(at, end - at));
            at = end + 1;
        }
        NVolSetCaseSensitive(volume);  // otherwise listings show all names in lower case
        return inode;
    }

    // The entry `name` of `directory`, which is closed.
    ntfs_inode* Step(ntfs_inode* directory, const std::u16string& name) const {
        const Inode close(directory);
        if ((directory->mrec->flags & MFT_RECORD_IS_DIRECTORY) == 0) return nullptr;
        std::vector<ntfschar> text;
        for (char16_t c : name) text.push_back(cpu_to_le16(c));
        const u64 record = ntfs_inode_lookup_by_name(directory, text.data(), static_cast<int>(text.size()));
        return record == static_cast<u64>(-1) ? nullptr : ntfs_inode_open(volume, MREF(record));
    }

    struct Search {
        std::uint64_t budget;  // bytes that may still be hashed
        const std::function<bool(const std::u16string&)>& skip;
        std::vector<OfflineFile> files;
        std::map<std::uint64_t, std::size_t> byRecord;  // the first file found with a record
    };

    void Walk(ntfs_inode* directory, const std::u16string& path, Search& search) const {
        for (const Listed& entry : List(directory)) {
            const std::u16string name = path + u"\\" + entry.name;
            if (search.skip(name)) continue;
            const Inode inode(ntfs_inode_open(volume, entry.record));
            if (inode == nullptr) throw Error("a file of the volume cannot be opened: its metadata is damaged");
            OfflineFile file{.path = name, .directory = (inode->mrec->flags & MFT_RECORD_IS_DIRECTORY) != 0};
            if (!file.directory) Describe(inode.get(), search.budget, file);
            const auto [first, isFirst] = search.byRecord.emplace(entry.record, search.files.size());
            if (!isFirst) file.plain = search.files[first->second].plain = false;
            search.files.push_back(file);
            if (file.directory && (inode->flags & FILE_ATTR_REPARSE_POINT) == 0)
                Walk(inode.get(), name, search);
        }
    }

    static void Describe(ntfs_inode* inode, std::uint64_t& budget, OfflineFile& file) {
        const Data data = OpenData(inode);
        if (data == nullptr) return;
        file.size = static_cast<std::uint64_t>(data->data_size);
        file.plain = IsPlain(inode, data.get());
        std::vector<std::uint8_t> content;
        if (NAttrEncrypted(data.get()) || (inode->flags & FILE_ATTR_REPARSE_POINT) != 0) return;
        if (file.size > budget || !ReadAll(data.get(), content)) return;
        budget -= file.size;
        file.digest = inspect::DigestOfBytes(content.data(), content.size());
        file.hashed = true;
    }

    posix::File file;
    Window window{};
    ntfs_volume* volume = nullptr;
};

std::uint32_t OfflineVolume::SectorBytes(const std::string& image, std::uint64_t offset) {
    const posix::File file(open(image.c_str(), O_RDONLY | O_CLOEXEC));
    std::uint8_t sector[512];
    if (!file.IsOpen() || !posix::ReadAt(file.Get(), sector, sizeof sector, offset)) return 0;
    std::uint64_t sectors = 0;
    for (int i = 7; i >= 0; --i) sectors = sectors << 8 | sector[40 + i];
    const auto bytes = static_cast<std::uint32_t>(sector[11] | sector[12] << 8);
    const bool sound = std::memcmp(sector + 3, "NTFS    ", 8) == 0 && bytes >= 256 && bytes <= 4096 &&
                       sectors != 0 && sectors >> 50 == 0;
    return sound ? bytes : 0;
}

OfflineVolume::OfflineVolume(const std::string& image, std::uint64_t offset, std::uint64_t length)
    : mount_(std::make_unique<Mount>(image)) {
    if (!mount_->file.IsOpen()) throw Error("cannot read " + image + ": " + std::strerror(errno));
    if (SectorBytes(image, offset) == 0) throw Error(image + " holds no NTFS volume");
    ntfs_log_set_handler(ntfs_log_handler_null);
    mount_->window = {mount_->file.Get(), offset, length, 0};
    ntfs_device* device = ntfs_device_alloc("volume", 0, &Operations(), &mount_->window);
    if (device == nullptr) throw Error("out of memory");
    mount_->volume = ntfs_device_mount(device, NTFS_MNT_RDONLY | NTFS_MNT_FORENSIC);
    if (mount_->volume != nullptr) return;
    const std::string why = errno == EINVAL ? "it is no valid NTFS volume" : std::strerror(errno);
    ntfs_device_free(device);
    throw Error("cannot read the NTFS volume of " + image + ": " + why);
}

OfflineVolume::~OfflineVolume() = default;

std::uint64_t OfflineVolume::FreeBytes() const {
    ntfs_volume* volume = mount_->volume;
    if (ntfs_volume_get_free_space(volume) != 0) throw Error("cannot read the volume's cluster map");
    return static_cast<std::uint64_t>(volume->free_clusters) * volume->cluster_size;
}

std::vector<Extent> OfflineVolume::Extents(const std::u16string& path) const {
    std::vector<Extent> extents;
    const Inode inode(mount_->Find(path));
    if (inode == nullptr) return extents;
    const Data data = OpenData(inode.get());
    if (data == nullptr || !NAttrNonResident(data.get())) return extents;
    if (ntfs_attr_map_whole_runlist(data.get()) != 0)
        throw Error("cannot read where a file of the volume lies");
    const auto cluster = static_cast<std::uint64_t>(mount_->volume->cluster_size);
    for (const runlist_element* run = data->rl; run->length != 0; ++run) {
        if (run->lcn < 0) continue;
        extents.push_back({static_cast<std::uint64_t>(run->lcn) * cluster,
                           static_cast<std::uint64_t>(run->length) * cluster});
    }
    return extents;
}

std::vector<OfflineFile> OfflineVolume::Files(std::uint64_t budget,
                                              const std::function<bool(const std::u16string&)>& skip) const {
    const Inode root(ntfs_inode_open(mount_->volume, FILE_root));
    if (root == nullptr) throw Error("cannot read the volume's root folder");
    Mount::Search search{budget, skip, {}, {}};
    mount_->Walk(root.get(), u"", search);
    return std::move(search.files);
}

std::vector<Extent> SwapFileExtents(const OfflineVolume& volume) {
    std::vector<Extent> extents = volume.Extents(u"\\kvr.SWP");
    for (int number = 1; number <= kNumberedSwapFiles; ++number) {
        const auto more =
            volume.Extents(std::u16string(u"\\kvr.SWP.") + static_cast<char16_t>(u'0' + number / 10) +
                           static_cast<char16_t>(u'0' + number % 10));
        extents.insert(extents.end(), more.begin(), more.end());
    }
    return extents;
}

std::vector<Extent> DriverFileExtents(const OfflineVolume& volume) {
    std::vector<Extent> extents = SwapFileExtents(volume);
    for (const auto& path : {u"\\kvr.MAP", u"\\Windows\\system32\\drivers\\kvr.cfg"}) {
        const auto more = volume.Extents(path);
        extents.insert(extents.end(), more.begin(), more.end());
    }
    return extents;
}

bool IsDriverStorage(const std::u16string& path) {
    std::u16string folded = path;
    for (char16_t& c : folded) c = c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 32) : c;
    return folded == u"\\KVR.MAP" || folded == u"\\KVR.SWP" ||
           (folded.starts_with(u"\\KVR.SWP.") && folded.size() == 12);
}

}  // namespace tool
