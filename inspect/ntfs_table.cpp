#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <sys/types.h>
extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/bitmap.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/runlist.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
#undef min
#undef max
#include "inspect/digest_of.h"
#include "inspect/file_table.h"
#include "posix/utf.h"

namespace inspect {
namespace {

constexpr FileId kFirstUserRecord = 24;

ByteReader& ReaderOf(ntfs_device* device) {
    return *static_cast<ByteReader*>(device->d_private);
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

s64 Refuse(int error) {
    errno = error;
    return -1;
}

s64 ReadAt(ntfs_device* device, void* buffer, s64 count, s64 offset) {
    ByteReader& reader = ReaderOf(device);
    const auto size = static_cast<s64>(reader.View().Size());
    if (count < 0 || offset < 0 || offset > size) return Refuse(EINVAL);
    count = std::min(count, size - offset);
    const bool read = reader.Read(static_cast<std::uint64_t>(offset), buffer, static_cast<std::size_t>(count));
    return read ? count : Refuse(EIO);
}

// The library seeks to learn whether a place exists; it never transfers from there.
s64 Seek(ntfs_device* device, s64 offset, int whence) {
    const auto size = static_cast<s64>(ReaderOf(device).View().Size());
    if (whence == SEEK_END) offset += size;
    return offset >= 0 && offset <= size ? offset : Refuse(EINVAL);
}

ntfs_device_operations gOperations = {
    .open = OpenDevice,
    .close = CloseDevice,
    .seek = Seek,
    .read = [](ntfs_device*, void*, s64) { return Refuse(ENOTSUP); },
    .write = [](ntfs_device*, const void*, s64) { return Refuse(EROFS); },
    .pread = ReadAt,
    .pwrite = [](ntfs_device*, const void*, s64, s64) { return Refuse(EROFS); },
    .sync = [](ntfs_device*) { return 0; },
    .stat = [](ntfs_device*, struct stat*) { return static_cast<int>(Refuse(ENOTSUP)); },
    .ioctl = [](ntfs_device*, unsigned long, void*) { return static_cast<int>(Refuse(ENOTTY)); },
};

struct Close {
    void operator()(ntfs_inode* inode) const { ntfs_inode_close(inode); }
    void operator()(ntfs_attr* data) const { ntfs_attr_close(data); }
    void operator()(ntfs_attr_search_ctx* search) const { ntfs_attr_put_search_ctx(search); }
    void operator()(ntfs_volume* volume) const { ntfs_umount(volume, FALSE); }
};
using Inode = std::unique_ptr<ntfs_inode, Close>;
using Data = std::unique_ptr<ntfs_attr, Close>;
using Search = std::unique_ptr<ntfs_attr_search_ctx, Close>;

// The library's records are packed: their characters may lie anywhere.
std::string TextAt(const void* characters, std::size_t length) {
    std::u16string text(length, u'\0');
    std::memcpy(text.data(), characters, length * sizeof(char16_t));
    return posix::ToUtf8(text);
}

// One file's record, attribute after attribute.
class Description {
public:
    Description(ntfs_volume* volume, FileRecord& record) : volume_(volume), record_(record) {}

    void Add(ATTR_RECORD* attribute) {
        if (attribute->type == AT_FILE_NAME)
            AddName(static_cast<const FILE_NAME_ATTR*>(ValueOf(attribute)));
        else if (attribute->non_resident)
            AddRuns(attribute);
        else
            AddResident(attribute);
    }
    void Finish() {
        std::sort(record_.names.begin(), record_.names.end());
        record_.settings = settings_.Value();
    }

private:
    static const void* ValueOf(const ATTR_RECORD* attribute) {
        return reinterpret_cast<const char*>(attribute) + le16_to_cpu(attribute->value_offset);
    }

    // A short name beside a long one is no name of its own.
    void AddName(const FILE_NAME_ATTR* name) {
        if (name->file_name_type == FILE_NAME_DOS) return;
        const char* characters = reinterpret_cast<const char*>(name) + offsetof(FILE_NAME_ATTR, file_name);
        record_.names.push_back({MREF_LE(name->parent_directory), TextAt(characters, name->file_name_length)});
    }

    void AddRuns(ATTR_RECORD* attribute) {
        const bool data = attribute->type == AT_DATA;
        if (data && attribute->name_length == 0 && attribute->lowest_vcn == 0)
            record_.size = static_cast<std::uint64_t>(sle64_to_cpu(attribute->data_size));
        runlist_element* runs = ntfs_mapping_pairs_decompress(volume_, attribute, nullptr);
        if (runs == nullptr) return;
        const auto cluster = static_cast<std::uint64_t>(volume_->cluster_size);
        for (const runlist_element* run = runs; run->length != 0; ++run) {
            if (run->lcn < 0) continue;
            (data ? record_.data : record_.tables)
                .push_back({static_cast<std::uint64_t>(run->lcn) * cluster,
                            static_cast<std::uint64_t>(run->length) * cluster});
        }
        std::free(runs);
    }

    void AddResident(const ATTR_RECORD* attribute) {
        const auto length = le32_to_cpu(attribute->value_length);
        const auto* value = static_cast<const char*>(ValueOf(attribute));
        if (attribute->type == AT_STANDARD_INFORMATION) {
            AddStandard(reinterpret_cast<const STANDARD_INFORMATION*>(value), length);
        } else if (attribute->type == AT_DATA) {
            if (attribute->name_length == 0) record_.size = length;
            const char* name = reinterpret_cast<const char*>(attribute) + le16_to_cpu(attribute->name_offset);
            record_.inlined += TextAt(name, attribute->name_length) + ":";
            record_.inlined.append(value, length);
        } else if (attribute->type != AT_INDEX_ROOT && attribute->type != AT_BITMAP &&
                   attribute->type != AT_ATTRIBUTE_LIST) {
            settings_.Add(value, length);
        }
    }

    void AddStandard(const STANDARD_INFORMATION* information, std::size_t length) {
        record_.modified = sle64_to_cpu(information->last_data_change_time);
        settings_.Add(&information->file_attributes, sizeof information->file_attributes);
        constexpr std::size_t kWithSecurity = offsetof(STANDARD_INFORMATION, security_id) + sizeof(u32);
        if (length >= kWithSecurity) settings_.Add(&information->security_id, sizeof(u32));
    }

    ntfs_volume* volume_;
    FileRecord& record_;
    DigestOf settings_;
};

class NtfsTable final : public FileTable {
public:
    explicit NtfsTable(VolumeView& view) : FileTable(view) {
        ntfs_log_set_handler(ntfs_log_handler_null);
        ntfs_device* device = ntfs_device_alloc("volume", 0, &gOperations, &reader_);
        if (device == nullptr) throw Error("out of memory");
        volume_.reset(ntfs_device_mount(device, NTFS_MNT_RDONLY | NTFS_MNT_FORENSIC));
        if (volume_ != nullptr) return;
        const int error = errno;
        ntfs_device_free(device);
        if (!view.Trouble().empty()) throw Error(view.Trouble());
        throw Error(std::string("the NTFS volume makes no sense: ") + std::strerror(error));
    }

    FileSystemKind Kind() const override { return FileSystemKind::Ntfs; }
    FileId Root() const override { return FILE_root; }
    FileId First() const override { return 0; }
    FileId End() const override {
        return static_cast<FileId>(volume_->mft_na->initialized_size) >> volume_->mft_record_size_bits;
    }
    std::uint32_t BlockBytes() const override { return volume_->cluster_size; }

    bool Read(FileId id, FileRecord& record) override {
        record = {};
        record.id = id;
        if (id >= End()) return false;
        const Inode inode(ntfs_inode_open(volume_.get(), id));
        if (inode == nullptr && errno != ENOENT) ++damaged_;
        if (inode == nullptr || inode->mrec->base_mft_record != 0) return false;
        record.birth = le16_to_cpu(inode->mrec->sequence_number);
        if ((inode->mrec->flags & MFT_RECORD_IS_DIRECTORY) != 0)
            record.type = FileRecord::Type::Directory;
        else if ((inode->flags & FILE_ATTR_REPARSE_POINT) != 0)
            record.type = FileRecord::Type::Other;
        const Search search(ntfs_attr_get_search_ctx(inode.get(), nullptr));
        if (search == nullptr) throw Error("out of memory");
        Description description(volume_.get(), record);
        while (ntfs_attrs_walk(search.get()) == 0) description.Add(search->attr);
        description.Finish();
        return true;
    }

    std::size_t Content(FileId id, std::uint64_t offset, void* buffer, std::size_t length) override {
        const Inode inode(ntfs_inode_open(volume_.get(), id));
        const Data data(inode == nullptr ? nullptr : ntfs_attr_open(inode.get(), AT_DATA, AT_UNNAMED, 0));
        if (data != nullptr && NAttrEncrypted(data.get())) throw Error("it is encrypted");
        const s64 done = data == nullptr ? -1
                                         : ntfs_attr_pread(data.get(), static_cast<s64>(offset),
                                                           static_cast<s64>(length), buffer);
        if (done < 0) throw Error(std::string("its content cannot be read: ") + std::strerror(errno));
        return static_cast<std::size_t>(done);
    }

    bool IsInUse(std::uint64_t offset) override {
        std::uint8_t bits = 0;
        const s64 cluster = static_cast<s64>(offset >> volume_->cluster_size_bits);
        const bool read = ntfs_attr_pread(volume_->lcnbmp_na, cluster / 8, 1, &bits) == 1;
        return !read || (bits >> (cluster % 8) & 1) != 0;
    }

    // The copy of the boot sector stands behind the last cluster.
    std::vector<std::pair<Extent, std::string>> Tables() override {
        const auto end = static_cast<std::uint64_t>(volume_->nr_clusters) << volume_->cluster_size_bits;
        const std::uint64_t size = reader_.View().Size();
        if (end >= size) return {};
        return {{{end, size - end}, "the copy of the boot sector"}};
    }

    std::uint32_t RecordBytes() const override { return volume_->mft_record_size; }

protected:
    bool RawRecords(FileId first, std::uint64_t count, std::uint8_t* bytes) override {
        const auto length = static_cast<s64>(count * RecordBytes());
        return ntfs_attr_pread(volume_->mft_na, static_cast<s64>(first * RecordBytes()), length, bytes) ==
               length;
    }

    // A file with many attributes has several records; all but the first name that one.
    void AddOwner(FileId id, const std::uint8_t* bytes, std::set<FileId>& ids) const override {
        MFT_RECORD record;
        std::memcpy(&record, bytes, sizeof record);
        const FileId base = MREF_LE(record.base_mft_record);
        ids.insert(id);
        if ((record.flags & MFT_RECORD_IN_USE) != 0 && base != 0) ids.insert(base);
    }

    // As it stands, else whatever the letters' case.
    std::optional<FileId> Lookup(FileId directory, const std::string& name) override {
        std::u16string text;
        const Inode inode(ntfs_inode_open(volume_.get(), directory));
        if (inode == nullptr || !posix::FromUtf8(name, text, posix::Halves::Kept)) return std::nullopt;
        if ((inode->mrec->flags & MFT_RECORD_IS_DIRECTORY) == 0) return std::nullopt;
        std::vector<ntfschar> characters;
        for (char16_t c : text) characters.push_back(cpu_to_le16(c));
        const auto look = [&] {
            return ntfs_inode_lookup_by_name(inode.get(), characters.data(),
                                             static_cast<int>(characters.size()));
        };
        constexpr auto kNone = static_cast<u64>(-1);
        u64 found = look();
        if (found == kNone) {
            if (volume_->locase == nullptr && ntfs_set_ignore_case(volume_.get()) != 0) return std::nullopt;
            NVolClearCaseSensitive(volume_.get());
            found = look();
            NVolSetCaseSensitive(volume_.get());
        }
        if (found == kNone) return std::nullopt;
        return MREF(found);
    }

    bool IsSystemId(FileId id) const override { return id < kFirstUserRecord && id != FILE_root; }
    bool IsBackslashSeparator() const override { return true; }

private:
    std::unique_ptr<ntfs_volume, Close> volume_;
};

}  // namespace

std::unique_ptr<FileTable> OpenNtfsTable(VolumeView& view) {
    ByteReader reader(view);
    char sector[512];
    if (!reader.Read(0, sector, sizeof sector))
        throw Error("the boot sector cannot be read: " + view.Trouble());
    if (std::memcmp(sector + 3, "NTFS    ", 8) != 0) return nullptr;
    return std::make_unique<NtfsTable>(view);
}

}  // namespace inspect
