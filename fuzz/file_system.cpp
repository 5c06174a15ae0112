// NTFS and ext4 on a volume in memory whose metadata the input damages: it is mounted or is not, and what
// programs and the driver do with files on it is done or fails; the volume is asked for nothing outside of it.
#include "fuzz/support.h"
#include <algorithm>
#include <filesystem>
#include <fstream>
#include "machine/ext/format.h"
#include "machine/files/guest_files.h"
#include "machine/files/mounted_file_system.h"
#include "machine/ntfs/format.h"
#include "machine/partition/subprocess.h"
#include "platform/owners.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kVolumeBytes = 2 << 20;
constexpr std::size_t kSector = 512;
constexpr unsigned kMostRequests = 100000;

class Volume final : public machine::VolumeIo {
public:
    explicit Volume(Bytes bytes) : bytes_(std::move(bytes)) {}
    std::uint32_t SectorSize() const override { return kSector; }
    std::uint64_t Size() const override { return bytes_.size(); }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint32_t length, PFILE_OBJECT) override {
        Check(offset, length);
        std::memcpy(buffer, &bytes_[offset], length);
        return STATUS_SUCCESS;
    }
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint32_t length, PFILE_OBJECT) override {
        Check(offset, length);
        std::memcpy(&bytes_[offset], buffer, length);
        return STATUS_SUCCESS;
    }
    NTSTATUS Flush() override { return STATUS_SUCCESS; }
    void Trim(std::uint64_t offset, std::uint64_t length) override { Check(offset, length); }
    PDEVICE_OBJECT Device() const override { return nullptr; }
    PVPB Vpb() const override { return nullptr; }
    Bytes& Content() { return bytes_; }

private:
    void Check(std::uint64_t offset, std::uint64_t length) {
        fuzz::Require(offset % kSector == 0 && length % kSector == 0 && length != 0,
                      "whole sectors are asked for");
        fuzz::Require(offset < bytes_.size() && length <= bytes_.size() - offset,
                      "only the volume is asked for");
        fuzz::Require(++requests_ < kMostRequests, "the work is bounded");
    }
    Bytes bytes_;
    unsigned requests_ = 0;
};

class Mounted {
public:
    Mounted(bool ntfs, Volume& volume) {
        auto format = ntfs ? machine::MakeNtfsFormat(volume) : machine::MakeExtFormat(volume);
        const NTSTATUS status = machine::MountedFileSystem::Mount(std::move(format), system_);
        fuzz::Require(NT_SUCCESS(status) == (system_ != nullptr), "a status says whether it is mounted");
    }
    ~Mounted() {
        if (system_ != nullptr) KVR_DISCARD(system_->Dismount(), "what it says of a damaged volume is its own");
    }
    machine::MountedFileSystem* Get() const { return system_.get(); }

private:
    std::unique_ptr<machine::MountedFileSystem> system_;
};

// As a tool makes it, with folders, small and large files, and the driver's storage. Without checksums, which
// would keep most damage from being looked at.
Bytes Made(bool ntfs) {
    const std::string path = "/tmp/kvr-fuzz-volume." + std::to_string(getpid());
    std::ofstream(path).flush();
    std::filesystem::resize_file(path, kVolumeBytes);
    const auto made = ntfs ? machine::RunTool("mkntfs", {"-q", "-F", "-Q", "-s", "512", "-c", "4096", path})
                           : machine::RunTool("mke2fs", {"-q", "-F", "-t", "ext4", "-b", "1024", "-O",
                                                         "^metadata_csum", path});
    fuzz::Require(made.exitCode == 0, made.output);
    Bytes bytes(kVolumeBytes);
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(bytes.data()), kVolumeBytes);
    std::filesystem::remove(path);
    Volume volume(bytes);
    {
        const Mounted mounted(ntfs, volume);
        fuzz::Require(mounted.Get() != nullptr, "what a tool made is mounted");
        machine::GuestFiles files(*mounted.Get());
        fuzz::Require(NT_SUCCESS(files.MakeDirectory(u"\\folder")), "a folder is made");
        for (unsigned i = 0; i < 24; ++i) {
            const std::u16string name =
                u"\\folder\\a file with a name " + std::u16string(1, static_cast<char16_t>('a' + i));
            fuzz::Require(NT_SUCCESS(files.WriteFile(name, Bytes(i * 700, 7))), "a file is written");
        }
        fuzz::Require(NT_SUCCESS(files.WriteFile(u"\\kvr.SWP", Bytes(100000, 9))), "a file is written");
        fuzz::Require(NT_SUCCESS(files.WriteFile(u"\\kvr.MAP", Bytes(3000, 9))), "a file is written");
    }
    return volume.Content();
}

// The sectors that hold something.
std::vector<std::size_t> Used(const Bytes& bytes) {
    std::vector<std::size_t> sectors;
    for (std::size_t at = 0; at < bytes.size(); at += kSector)
        if (std::any_of(&bytes[at], &bytes[at] + kSector,
                        [](std::uint8_t b) { return b != 0 && b != 7 && b != 9; }))
            sectors.push_back(at);
    return sectors;
}

struct Template {
    explicit Template(bool ntfs) : bytes(Made(ntfs)), used(Used(bytes)) {}
    const Bytes bytes;
    const std::vector<std::size_t> used;
};

void Damage(Bytes& bytes, const std::vector<std::size_t>& used, FuzzedDataProvider& input) {
    for (int count = input.ConsumeIntegralInRange(1, 10); count > 0; --count) {
        const std::size_t at = used[input.ConsumeIntegralInRange<std::size_t>(0, used.size() - 1)] +
                               input.ConsumeIntegralInRange<std::size_t>(0, kSector - 1);
        const Bytes patch = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(1, 9));
        std::copy_n(patch.begin(), std::min(patch.size(), bytes.size() - at), &bytes[at]);
    }
}

void Walk(machine::MountedFileSystem& system, const std::u16string& path, unsigned& left) {
    std::vector<machine::DirectoryEntry> entries;
    if (left == 0 || !NT_SUCCESS(system.List(path, entries))) return;
    for (const machine::DirectoryEntry& entry : entries) {
        if (left == 0 || --left == 0) return;
        Bytes content;
        const std::u16string name = (path == u"\\" ? u"" : path) + u"\\" + entry.name;
        machine::DirectoryEntry same;
        KVR_DISCARD(system.Query(name, same), "any answer");
        if (entry.size < kVolumeBytes)
            KVR_DISCARD(machine::GuestFiles(system).ReadFile(name, content), "any answer");
        if (path.size() < 200) Walk(system, name, left);
    }
}

void Change(machine::MountedFileSystem& system, FuzzedDataProvider& input) {
    machine::GuestFiles files(system);
    const std::u16string names[] = {u"\\kvr.SWP", u"\\kvr.MAP", u"\\folder\\a file with a name k",
                                    u"\\folder\\new", u"\\new"};
    for (int count = input.ConsumeIntegralInRange(0, 5); count > 0; --count) {
        const std::u16string& name = names[input.ConsumeIntegralInRange(0, 4)];
        NTSTATUS status = STATUS_SUCCESS;
        switch (input.ConsumeIntegralInRange(0, 4)) {
            case 0:
                status = files.Delete(name);
                break;
            case 1:
                status = system.Rename(name, names[input.ConsumeIntegralInRange(0, 4)]);
                break;
            case 2:
                status = system.MakeDirectory(name);
                break;
            default:
                status = files.WriteFile(name, Bytes(input.ConsumeIntegralInRange(0, 300000), 5));
        }
        KVR_DISCARD(status, "any answer");
    }
    std::uint64_t bytes = 0;
    KVR_DISCARD(system.FreeSpace(bytes), "any answer");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Template templates[] = {Template(false), Template(true)};
    FuzzedDataProvider input(data, size);
    const bool ntfs = input.ConsumeBool();
    Volume volume(templates[ntfs].bytes);
    Damage(volume.Content(), templates[ntfs].used, input);
    const Mounted mounted(ntfs, volume);
    if (mounted.Get() == nullptr) return 0;
    unsigned left = 40;
    Walk(*mounted.Get(), u"\\", left);
    Change(*mounted.Get(), input);
    return 0;
}
