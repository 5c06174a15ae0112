// A user without an administrator's rights against the fixed state of two volumes with NTFS: the system's,
// which holds the configuration, and a data volume. Each attempt is told as what the user does and whether it
// works without Hardening; what works then is listed in docs/limits.md. With Hardening none does.
//
// The machine's files have no owners. What the platform's do keep from such a user is left out: files in the
// root and in \Windows of the system volume. So is a write to the disk inside of a volume by somebody who may
// write to the disk at all: on the platform that takes an administrator, who is not kept out.
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "machine/disk/data_sets.h"
#include "machine/partition/partition_table.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/host/io/user_mode.h"
#include "platform/host/sync/thread.h"
#include "platform/owners.h"
#include "swap/swap.h"
#include "tests/machine/format_support.h"
#include "tests/support/protected_computer.h"
#include "tool/kvrctl/config_writer.h"

namespace {

using namespace format_test;
using Path = std::u16string;

constexpr unsigned kSystem = 1, kData = 2;
constexpr ACCESS_MASK kGenericWrite = 0x40000000;
constexpr std::uint64_t kDiskBytes = 128 * kMiB;
const Path kMine = u"\\Users\\me\\mine.bin";

struct Attempt {
    std::string what;
    bool works;                 // without Hardening
    std::function<bool()> act;  // true: it came to where no sector of a medium would tell
};

std::string Narrow(const Path& text) {
    return {text.begin(), text.end()};
}

// ---- the machine
// ---------------------------------------------------------------------------------------------

class HostileUser : public testing::TestWithParam<bool> {
protected:
    struct Side {
        const char16_t* volume;
        const char16_t* disk;
        std::shared_ptr<machine::MemoryDisk> medium{};
        std::uint64_t begin = 0;                            // of the volume
        std::uint64_t mineAt = 0;                           // where the user's file lies on it
        std::vector<machine::MemoryDisk::Range> storage{};  // what the driver writes, on the medium
        std::unique_ptr<machine::MemoryDisk> fixed{};       // the medium before the attempt
    };

    void SetUp() override {
        machine::MachineOptions options;
        for (Side& side : sides_) {
            MakeDisk(side);
            options.disks.push_back({side.medium});
        }
        options.driver = DriverEntry;
        options.fileSystem = [](const machine::VolumeDevice&) { return machine::AnyFileSystem(); };
        machine_ = std::make_unique<machine::Machine>(std::move(options));
        constexpr char16_t key[] = u"\\Registry\\Machine\\System\\kvr";
        ASSERT_EQ(STATUS_SUCCESS, machine_->Registry().CreateKey(key));
        ASSERT_EQ(STATUS_SUCCESS,
                  machine_->Registry().Set(key, u"Hardening", {REG_DWORD, {UCHAR{GetParam()}, 0, 0, 0}}));
        // The store lies on a volume of its own, as where the firmware starts from one.
        constexpr char16_t control[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Control";
        ASSERT_EQ(STATUS_SUCCESS, machine_->Registry().CreateKey(control));
        for (const auto& [name, digit] : {std::pair{u"FirmwareBootDevice", '1'}, {u"SystemBootDevice", '2'}})
            ASSERT_EQ(STATUS_SUCCESS,
                      machine_->Registry().Set(control, name, {REG_SZ, {UCHAR(digit), 0, 0, 0}}));
        Install();
        PowerOn();
        for (unsigned number : {kSystem, kData}) LearnStorage(number);
        Settle();
    }
    void TearDown() override { machine_.reset(); }

    static void MakeDisk(Side& side) {
        side.medium = std::make_shared<machine::MemoryDisk>(kDiskBytes, 512);
        std::vector<machine::NewPartition> parts;
        std::string error;
        ASSERT_TRUE(machine::LayOutPartitions(kDiskBytes, {0}, machine::TableKind::Gpt, parts, error)) << error;
        for (const machine::DiskPiece& piece : machine::MakeGpt(kDiskBytes, 512, parts, 1))
            ASSERT_EQ(STATUS_SUCCESS, side.medium->Write(piece.offset, piece.bytes.data(), piece.bytes.size()));
        side.begin = parts[0].offset;
        const Bytes& fresh = kNtfs.Fresh(parts[0].length);
        ASSERT_EQ(STATUS_SUCCESS, side.medium->Write(side.begin, fresh.data(), fresh.size()));
    }
    void PowerOn() {
        ASSERT_EQ(STATUS_SUCCESS, machine_->PowerOn());
        ASSERT_EQ(STATUS_SUCCESS, machine_->DriverStatus());
        host::JoinSystemThreads();
    }
    void Control(ULONG code, const void* input, ULONG length) {
        ULONG returned = 0;
        ASSERT_EQ(STATUS_SUCCESS,
                  machine_->Control(support::kControlDevice, code, input, length, nullptr, 0, returned));
        host::JoinSystemThreads();
    }
    // The fixed state: folders, the user's files, the configuration and storage on both volumes.
    void Install() {
        PowerOn();
        for (unsigned number : {kSystem, kData}) {
            for (const char16_t* folder : {u"\\Windows", u"\\Windows\\system32",
                                           u"\\Windows\\system32\\drivers", u"\\Users", u"\\Users\\me"})
                ASSERT_EQ(STATUS_SUCCESS, Files(number).MakeDirectory(folder));
            ASSERT_EQ(STATUS_SUCCESS, Files(number).WriteFile(kMine, mine_));
            ASSERT_EQ(STATUS_SUCCESS, Files(number).WriteFile(u"\\Users\\me\\gone.bin", Pattern(65536, 2)));
            FindMine(SideOf(number));
        }
        std::u16string text = config::GlobalSection(true, 0);
        for (unsigned number : {kSystem, kData})
            text += config::FixedSection({SideOf(number).volume, true}, number);
        Bytes bytes(KVR_CONFIG_BYTES);
        std::memcpy(bytes.data(), text.data(), text.size() * 2);
        Control(IOCTL_KVR_SET_CONFIG, bytes.data(), KVR_CONFIG_BYTES);
        for (Side& side : sides_) {
            const SWAP_CONFIG_REQUEST request = support::StorageRequest(side.volume, 64 * kMiB);
            Control(IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request));
        }
        machine_->Shutdown();
    }
    void FindMine(Side& side) {
        Bytes sector(512);
        for (side.mineAt = 0; side.begin + side.mineAt < kDiskBytes; side.mineAt += 512) {
            ASSERT_EQ(STATUS_SUCCESS, side.medium->Read(side.begin + side.mineAt, sector.data(), 512));
            if (std::memcmp(sector.data(), mine_.data(), 512) == 0) return;
        }
        FAIL() << "the user's file is not on the medium";
    }
    void LearnStorage(unsigned number) {
        PVOLUME_EXTENSION record = ::VolumeOf(host::TopOfStack(machine_->VolumeOf(number)->device->Device()));
        ASSERT_TRUE(record->IsProtected && record->SwapFile);
        Side& side = SideOf(number);
        FastMutexLock lock(record->SwapLock);
        const auto add = [&](std::uint64_t at, std::uint64_t length) {
            side.storage.push_back({side.begin + at, side.begin + at + length});
        };
        for (TREE_NODE* node = tree_first(&record->FreeChunks, record->FreeChunks.Root); node;
             node = tree_next(&record->FreeChunks, node)) {
            const auto* chunk = static_cast<const FREE_CHUNK*>(node->Record);
            add(static_cast<std::uint64_t>(chunk->liSwapOffset.QuadPart), chunk->uLength);
        }
        for (ULONG i = 0; i < record->ulMapLocationLength / sizeof(MAP_LOCATION_ENTRY); ++i)
            add(record->MapLocation[i].ulSector * std::uint64_t{512}, record->MapLocation[i].ulLength);
    }

    Side& SideOf(unsigned number) { return sides_[number - 1]; }
    machine::GuestFiles Files(unsigned number) {
        return machine::GuestFiles(*machine::NtfsOn(*machine_, number));
    }
    machine::StackVolumeIo& Io(unsigned number) { return *machine_->VolumeOf(number)->io; }

    // ---- one attempt
    // -----------------------------------------------------------------------------------------
    void Settle() {
        for (Side& side : sides_) side.fixed = side.medium->Clone();
    }
    // Sectors of both media that are not as they were, without those that are the driver's to write.
    std::uint64_t ChangedSectors() {
        std::uint64_t changed = 0;
        for (Side& side : sides_)
            for (const auto& range : side.medium->DifferencesFrom(*side.fixed))
                for (std::uint64_t at = range.begin; at < range.end; at += 512)
                    changed += std::none_of(side.storage.begin(), side.storage.end(),
                                            [&](const auto& own) { return own.begin <= at && at < own.end; });
        return changed;
    }
    void Try(const std::vector<Attempt>& attempts) {
        for (const Attempt& attempt : attempts) {
            const host::Program before = host::SetProgram({.process = {.isAdministrator = false}});
            const bool reached = attempt.act();
            KVR_DISCARD(host::SetProgram(before), "the user's");
            for (unsigned number : {kSystem, kData}) EXPECT_EQ(STATUS_SUCCESS, machine_->Flush(number));
            const std::uint64_t changed = ChangedSectors();
            EXPECT_EQ(attempt.works && !GetParam(), reached || changed != 0)
                << attempt.what << ": " << changed << " sectors changed";
            Settle();
        }
    }

    // ---- what the user does
    // ----------------------------------------------------------------------------------
    Bytes Next(std::size_t length = 65536) { return Pattern(length, ++seed_); }
    void MakeFolderOf(unsigned volume, const Path& name) {
        for (std::size_t at = name.find(u'\\', 1); at != Path::npos; at = name.find(u'\\', at + 1))
            KVR_DISCARD(Files(volume).MakeDirectory(name.substr(0, at)), "it may be there");
    }
    // Overwrites a file of the fixed state under another name.
    bool Rename(unsigned volume, const Path& name) {
        MakeFolderOf(volume, name);
        EXPECT_EQ(STATUS_SUCCESS, Files(volume).Rename(kMine, name));
        EXPECT_EQ(STATUS_SUCCESS, Files(volume).WriteAt(name, 0, Next()));
        EXPECT_EQ(STATUS_SUCCESS, Files(volume).Rename(name, kMine));
        return false;
    }
    bool Create(unsigned volume, const Path& name) {
        MakeFolderOf(volume, name);
        EXPECT_EQ(STATUS_SUCCESS, Files(volume).WriteFile(name, Next()));
        EXPECT_EQ(STATUS_SUCCESS, Files(volume).Delete(name));
        return false;
    }
    // Writes over the user's file, as its file system would for an open of that name.
    bool Send(unsigned volume, FILE_OBJECT* file) {
        const Bytes bytes = Next();
        KVR_DISCARD(Io(volume).Write(SideOf(volume).mineAt, bytes.data(), 65536, file), "the medium tells");
        return false;
    }
    // Another file where a left-over paging file's object and name lay.
    bool ReuseAddress() {
        machine::RawFile file{u"\\pagefile.sys"};
        file.object.DeviceObject = Io(kData).Device();
        file.object.FileName = {26, 26, file.name.data()};
        const Bytes nothing(512);
        KVR_DISCARD(Io(kData).Read(0, const_cast<std::uint8_t*>(nothing.data()), 512, &file.object), "");
        file.name.replace(0, 13, u"\\Users\\me.bin");
        return Send(kData, &file.object);
    }
    bool Open(const Path& device, ACCESS_MASK access) {
        PFILE_OBJECT file = nullptr;
        if (!NT_SUCCESS(host::OpenDevice(device, access, file))) return false;
        host::CloseDevice(file);
        return true;
    }
    bool WriteDisk(std::uint64_t at) {
        Bytes bytes = Next(512);
        KVR_DISCARD(host::Send(host::TopOfStack(machine_->DiskOf(kData - 1)->Device()),
                               {.major = IRP_MJ_WRITE,
                                .length = 512,
                                .offset = static_cast<LONGLONG>(at),
                                .buffer = bytes.data()}),
                    "the medium tells");
        return false;
    }
    bool Disturb(unsigned volume, const Path& held) {
        const bool written = NT_SUCCESS(Files(volume).WriteAt(held, 0, Next(512)));
        const bool moved = NT_SUCCESS(Files(volume).Rename(held, u"\\Users\\me\\taken"));
        return written || moved || NT_SUCCESS(Files(volume).Delete(held));
    }

    // ---- the attempts
    // ----------------------------------------------------------------------------------------
    std::vector<Attempt> Names() {
        std::vector<Attempt> attempts;
        const auto add = [&](unsigned volume, const Path& name, bool works) {
            const std::string where = std::to_string(volume) + Narrow(name);
            attempts.push_back({"renamed " + where, works, [=, this] { return Rename(volume, name); }});
            attempts.push_back({"created " + where, works, [=, this] { return Create(volume, name); }});
        };
        for (const char16_t* name :
             {u"\\Users\\me\\bootstat.dat", u"\\Windows\\BootStat.dat", u"\\pagefile.sys", u"\\HIBERFIL.SYS",
              u"\\hibernate.sys", u"\\Boot\\BCD", u"\\Users\\me\\system32\\drivers\\kvr.cfg"})
            add(kData, name, true);
        for (const char16_t* name : {u"\\swapfile.sys", u"\\kvr.swp.77", u"\\Users\\me\\kvr.map",
                                     u"\\Users\\me\\pagefile.sys", u"\\Users\\me\\$Mft"})
            add(kData, name, false);
        add(kSystem, u"\\Users\\me\\bootstat.dat", true);
        add(kSystem, u"\\Boot\\BCD", true);  // folders in the root are anybody's to make
        add(kSystem, u"\\Users\\me\\system32\\drivers\\kvr.cfg", false);
        return attempts;
    }
    // The machine's file systems have no streams; the platform's send a stream's writes under such names.
    std::vector<Attempt> Streams() {
        std::vector<Attempt> attempts;
        for (const char16_t* name :
             {u"\\Users\\me\\mine.bin:bootstat.dat", u"\\bootstat.dat:s", u"\\pagefile.sys:s",
              u"\\hiberfil.sys::$DATA", u"\\Boot\\BCD:s", u"\\kvr.map:s", u"\\kvr.swp:ab"})
            attempts.push_back(
                {Narrow(name), false, [=, this] { return Send(kData, machine_->FileObjectOf(kData, name)); }});
        return attempts;
    }
    std::vector<Attempt> Sizes() {
        return {
            {"grown", false, [this] { return Files(kData).WriteAt(kMine, 500000, Next()) != STATUS_SUCCESS; }},
            {"cut", false, [this] { return Files(kData).WriteFile(kMine, Next(512)) != STATUS_SUCCESS; }},
            {"address", true, [this] { return ReuseAddress(); }}};
    }
    std::vector<Attempt> Handles() {
        std::vector<Attempt> attempts;
        for (const Side& side : sides_)
            for (const char16_t* device : {side.volume, side.disk})
                for (ACCESS_MASK access : {kGenericWrite, GENERIC_READ | kGenericWrite})
                    attempts.push_back({Narrow(device), false, [=, this] { return Open(device, access); }});
        for (const char16_t* device : {u"\\Device\\kvr", u"\\DosDevices\\kvr"})
            attempts.push_back({"control device", false, [=, this] { return Open(device, SYNCHRONIZE); }});
        attempts.push_back({"a volume's handle that was lent", false, [this] {
                                return Send(kData, machine_->FileObjectOf(kData, u"", FO_VOLUME_OPEN));
                            }});
        attempts.push_back({"the disk's first sector", false, [this] { return WriteDisk(0); }});
        attempts.push_back({"its table", true, [this] { return WriteDisk(512); }});
        attempts.push_back({"its table's copy", true, [this] { return WriteDisk(kDiskBytes - 512); }});
        return attempts;
    }
    std::vector<Attempt> HeldFiles() {
        std::vector<Attempt> attempts;
        const auto add = [&](unsigned volume, const Path& held) {
            attempts.push_back({Narrow(held), false, [=, this] { return Disturb(volume, held); }});
        };
        for (unsigned volume : {kSystem, kData})
            for (const char16_t* held : {u"\\kvr.swp", u"\\kvr.map"}) add(volume, held);
        add(kSystem, u"\\Windows\\system32\\drivers\\kvr.cfg");
        return attempts;
    }
    std::vector<Attempt> Deletions() {
        const auto remove = [this](unsigned volume) {
            EXPECT_EQ(STATUS_SUCCESS, Files(volume).Delete(u"\\Users\\me\\gone.bin"));
            return false;
        };
        for (unsigned number : {kSystem, kData}) machine_->DiskOf(number - 1)->HonourTrim();
        return {{"deleted", true, [=] { return remove(kData); }},
                {"deleted on the system's", true, [=] { return remove(kSystem); }}};
    }
    // Until nothing is left, and then into what the fixed state has.
    std::vector<Attempt> Floods() {
        return {{"storage used up", false, [this] {
                     NTSTATUS status = STATUS_SUCCESS;
                     for (std::uint64_t at = 0; NT_SUCCESS(status) && at < 80 * kMiB; at += kMiB)
                         status = Files(kData).WriteAt(u"\\Users\\me\\flood", at, Next(kMiB));
                     EXPECT_FALSE(NT_SUCCESS(status));
                     KVR_DISCARD(Files(kData).WriteAt(kMine, 0, Next()), "the medium tells");
                     return false;
                 }}};
    }

    const Bytes mine_ = Pattern(262144, 1);
    unsigned seed_ = 100;
    Side sides_[2] = {{u"\\Device\\HarddiskVolume1", u"\\Device\\Harddisk0\\DR0"},
                      {u"\\Device\\HarddiskVolume2", u"\\Device\\Harddisk1\\DR1"}};
    std::unique_ptr<machine::Machine> machine_;
};

TEST_P(HostileUser, ChangesNothingOfTheFixedState) {
    Try(Names());
    Try(Streams());
    Try(Sizes());
    Try(Handles());
    Try(HeldFiles());
    Try(Deletions());
    Try(Floods());
}

INSTANTIATE_TEST_SUITE_P(Hardening, HostileUser, testing::Bool());

}  // namespace
