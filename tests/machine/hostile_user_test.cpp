// A user without an administrator's rights against the fixed state of two volumes with NTFS: the system's,
// which holds the configuration, and a data volume. Each attempt is told as what the user does and whether it
// works without Hardening; what works then is listed in docs/limits.md. With Hardening none does.
//
// The machine's files have no owners. What the platform's do keep from such a user is left out: files in the
// root and in \Windows of the system volume. So is a write to the disk inside of a volume by somebody who may
// write to the disk at all: on the platform that takes an administrator, who is not kept out.
#include "inspect/file_table.h"
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "machine/disk/data_sets.h"
#include "machine/partition/partition_table.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/host/io/user_mode.h"
#include "platform/host/sync/thread.h"
#include "platform/owners.h"
#include "tests/inspect/image_view.h"
#include "tests/support/protected_computer.h"
#include "tool/kvrctl/config_writer.h"

namespace {

using namespace format_test;
using Path = std::u16string;

constexpr unsigned kSystem = 1, kData = 2;
constexpr ACCESS_MASK kGenericWrite = 0x40000000;
constexpr std::uint64_t kDiskBytes = 128 * kMiB;
const Path kMine = u"\\Users\\me\\mine.bin";

std::string Narrow(const Path& text) {
    return {text.begin(), text.end()};
}

class HostileUser : public testing::TestWithParam<bool> {
protected:
    struct Side {
        const char16_t* volume;
        const char16_t* disk;
        std::shared_ptr<machine::MemoryDisk> medium{};
        std::uint64_t begin = 0;                       // of the volume
        std::uint64_t mineAt = 0;                      // where the user's file lies on it
        std::vector<inspect::Extent> storage{};        // what the driver writes, on the medium
        std::unique_ptr<machine::MemoryDisk> fixed{};  // the medium before the attempt
    };

    // ---- the machine
    // -------------------------------------------------------------------------------------------

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
        for (Side& side : sides_) FindFiles(side);
        PowerOn();
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
        std::u16string text = config::GlobalSection(true, 0);
        for (unsigned number : {kSystem, kData}) {
            for (const char16_t* folder : {u"\\Windows", u"\\Windows\\system32",
                                           u"\\Windows\\system32\\drivers", u"\\Users", u"\\Users\\me"})
                ASSERT_EQ(STATUS_SUCCESS, Files(number).MakeDirectory(folder));
            ASSERT_EQ(STATUS_SUCCESS, Files(number).WriteFile(kMine, Pattern(262144, 1)));
            ASSERT_EQ(STATUS_SUCCESS, Files(number).WriteFile(u"\\Users\\me\\gone.bin", Pattern(65536, 2)));
            text += config::FixedSection({SideOf(number).volume, true}, number);
        }
        Bytes bytes(KVR_CONFIG_BYTES);
        std::memcpy(bytes.data(), text.data(), text.size() * 2);
        Control(IOCTL_KVR_SET_CONFIG, bytes.data(), KVR_CONFIG_BYTES);
        for (Side& side : sides_) {
            const SWAP_CONFIG_REQUEST request = support::StorageRequest(side.volume, 64 * kMiB);
            Control(IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request));
        }
        machine_->Shutdown();
    }
    static void FindFiles(Side& side) {
        Bytes bytes(kDiskBytes - side.begin);
        ASSERT_EQ(STATUS_SUCCESS, side.medium->Read(side.begin, bytes.data(), bytes.size()));
        inspect_test::ImageView view(bytes);
        const auto table = inspect::FileTable::Open(view);
        const auto placesOf = [&](const char* path) {
            inspect::FileRecord record;
            const auto id = table->Find(path);
            EXPECT_TRUE(id && table->Read(*id, record)) << path;
            return record.data;
        };
        side.mineAt = placesOf("/Users/me/mine.bin").at(0).offset;
        for (const char* path : {"/kvr.SWP", "/kvr.MAP"})
            for (const inspect::Extent& place : placesOf(path))
                side.storage.push_back({side.begin + place.offset, place.length});
        side.storage = inspect::Normalised(std::move(side.storage), kDiskBytes);
    }

    Side& SideOf(unsigned number) { return sides_[number - 1]; }
    machine::GuestFiles Files(unsigned number) {
        return machine::GuestFiles(*machine::NtfsOn(*machine_, number));
    }
    machine::StackVolumeIo& Io(unsigned number) { return *machine_->VolumeOf(number)->io; }

    // ---- one attempt
    // -------------------------------------------------------------------------------------------

    void Settle() {
        for (Side& side : sides_) side.fixed = side.medium->Clone();
    }
    // Of both media, without those that are the driver's to write.
    std::uint64_t ChangedSectors() {
        std::uint64_t bytes = 0;
        for (Side& side : sides_)
            for (const auto& [begin, end] : side.medium->DifferencesFrom(*side.fixed))
                bytes += inspect::TotalLength(inspect::Without({begin, end - begin}, side.storage));
        return bytes / 512;
    }
    // `works`: without Hardening. The attempt sets `reached_` when it came to where no sector of a medium would
    // tell.
    void Try(const std::string& what, bool works, const std::function<void()>& act) {
        reached_ = false;
        const host::Program before = host::SetProgram({.process = {.isAdministrator = false}});
        act();
        KVR_DISCARD(host::SetProgram(before), "the user's");
        for (unsigned number : {kSystem, kData}) EXPECT_EQ(STATUS_SUCCESS, machine_->Flush(number));
        const std::uint64_t changed = ChangedSectors();
        EXPECT_EQ(works && !GetParam(), reached_ || changed != 0)
            << what << ": " << changed << " sectors changed";
        Settle();
    }
    Bytes Next(std::size_t length = 65536) { return Pattern(length, ++seed_); }
    // Writes over the user's file, as its file system would for an open of that name.
    void Send(FILE_OBJECT* file) {
        const Bytes bytes = Next();
        KVR_DISCARD(Io(kData).Write(SideOf(kData).mineAt, bytes.data(), 65536, file), "the medium tells");
    }

    // ---- what the user does
    // ------------------------------------------------------------------------------------

    // Overwrites a file of the fixed state under another name, and makes one of that name.
    void TryName(unsigned volume, const Path& name, bool works) {
        const std::string where = std::to_string(volume) + Narrow(name);
        const auto makeFolder = [&] {
            for (std::size_t at = name.find(u'\\', 1); at != Path::npos; at = name.find(u'\\', at + 1))
                KVR_DISCARD(Files(volume).MakeDirectory(name.substr(0, at)), "it may be there");
        };
        Try("renamed " + where, works, [&] {
            makeFolder();
            EXPECT_EQ(STATUS_SUCCESS, Files(volume).Rename(kMine, name));
            EXPECT_EQ(STATUS_SUCCESS, Files(volume).WriteAt(name, 0, Next()));
            EXPECT_EQ(STATUS_SUCCESS, Files(volume).Rename(name, kMine));
        });
        Try("created " + where, works, [&] {
            EXPECT_EQ(STATUS_SUCCESS, Files(volume).WriteFile(name, Next()));
            EXPECT_EQ(STATUS_SUCCESS, Files(volume).Delete(name));
        });
    }
    void TryNames() {
        for (const char16_t* name :
             {u"\\Users\\me\\bootstat.dat", u"\\Windows\\BootStat.dat", u"\\pagefile.sys", u"\\HIBERFIL.SYS",
              u"\\hibernate.sys", u"\\Boot\\BCD", u"\\Users\\me\\system32\\drivers\\kvr.cfg"})
            TryName(kData, name, true);
        for (const char16_t* name : {u"\\swapfile.sys", u"\\kvr.swp.77", u"\\Users\\me\\kvr.map",
                                     u"\\Users\\me\\pagefile.sys", u"\\Users\\me\\$Mft"})
            TryName(kData, name, false);
        TryName(kSystem, u"\\Users\\me\\bootstat.dat", true);
        TryName(kSystem, u"\\Boot\\BCD", true);  // folders in the root are anybody's to make
        TryName(kSystem, u"\\Users\\me\\system32\\drivers\\kvr.cfg", false);
    }
    // The machine's file systems have no streams; the platform's send a stream's writes under such names.
    void TryStreams() {
        for (const char16_t* name :
             {u"\\Users\\me\\mine.bin:bootstat.dat", u"\\bootstat.dat:s", u"\\pagefile.sys:s",
              u"\\hiberfil.sys::$DATA", u"\\Boot\\BCD:s", u"\\kvr.map:s", u"\\kvr.swp:ab"})
            Try(Narrow(name), false, [&] { Send(machine_->FileObjectOf(kData, name)); });
    }
    void TrySizes() {
        Try("grown", false, [&] { EXPECT_EQ(STATUS_SUCCESS, Files(kData).WriteAt(kMine, 500000, Next())); });
        Try("cut", false, [&] { EXPECT_EQ(STATUS_SUCCESS, Files(kData).WriteFile(kMine, Next(512))); });
    }
    void TryHandles() {
        const auto open = [this](const Path& device, ACCESS_MASK access) {
            PFILE_OBJECT file = nullptr;
            reached_ = NT_SUCCESS(host::OpenDevice(device, access, file));
            if (reached_) host::CloseDevice(file);
        };
        for (const Side& side : sides_)
            for (const char16_t* device : {side.volume, side.disk})
                for (ACCESS_MASK access : {kGenericWrite, GENERIC_READ | kGenericWrite})
                    Try(Narrow(device), false, [&] { open(device, access); });
        for (const char16_t* device : {u"\\Device\\kvr", u"\\DosDevices\\kvr"})
            Try("control device", false, [&] { open(device, SYNCHRONIZE); });
        Try("a volume's handle that was lent", false,
            [&] { Send(machine_->FileObjectOf(kData, u"", FO_VOLUME_OPEN)); });
        Try("another file where a left-over paging file's object and name lay", true, [&] {
            machine::RawFile file{u"\\pagefile.sys"};
            file.object.DeviceObject = Io(kData).Device();
            file.object.FileName = {26, 26, file.name.data()};
            Bytes nothing(512);
            KVR_DISCARD(Io(kData).Read(0, nothing.data(), 512, &file.object), "it is to be seen");
            file.name.replace(0, 13, u"\\Users\\me.bin");
            Send(&file.object);
        });
    }
    void TryDisk() {
        const auto write = [this](std::uint64_t at) {
            Bytes bytes = Next(512);
            KVR_DISCARD(host::Send(host::TopOfStack(machine_->DiskOf(kData - 1)->Device()),
                                   {.major = IRP_MJ_WRITE,
                                    .length = 512,
                                    .offset = static_cast<LONGLONG>(at),
                                    .buffer = bytes.data()}),
                        "the medium tells");
        };
        Try("the disk's first sector", false, [&] { write(0); });
        Try("its table", true, [&] { write(512); });
        Try("its table's copy", true, [&] { write(kDiskBytes - 512); });
    }
    void TryHeldFile(unsigned volume, const Path& held) {
        Try(Narrow(held), false, [&] {
            reached_ = NT_SUCCESS(Files(volume).WriteAt(held, 0, Next(512)));
            reached_ |= NT_SUCCESS(Files(volume).Rename(held, u"\\Users\\me\\taken"));
            reached_ |= NT_SUCCESS(Files(volume).Delete(held));
        });
    }
    void TryDeletions() {
        for (unsigned volume : {kSystem, kData}) {
            machine_->DiskOf(volume - 1)->HonourTrim();
            Try("deleted", true,
                [&] { EXPECT_EQ(STATUS_SUCCESS, Files(volume).Delete(u"\\Users\\me\\gone.bin")); });
        }
    }
    // Until nothing is left, and then into what the fixed state has.
    void TryFlood() {
        Try("storage used up", false, [&] {
            NTSTATUS status = STATUS_SUCCESS;
            for (std::uint64_t at = 0; NT_SUCCESS(status) && at < 80 * kMiB; at += kMiB)
                status = Files(kData).WriteAt(u"\\Users\\me\\flood", at, Next(kMiB));
            EXPECT_FALSE(NT_SUCCESS(status));
            KVR_DISCARD(Files(kData).WriteAt(kMine, 0, Next()), "the medium tells");
        });
    }

    unsigned seed_ = 100;
    bool reached_ = false;
    Side sides_[2] = {{u"\\Device\\HarddiskVolume1", u"\\Device\\Harddisk0\\DR0"},
                      {u"\\Device\\HarddiskVolume2", u"\\Device\\Harddisk1\\DR1"}};
    std::unique_ptr<machine::Machine> machine_;
};

TEST_P(HostileUser, ChangesNothingOfTheFixedState) {
    TryNames();
    TryStreams();
    TrySizes();
    TryHandles();
    TryDisk();
    for (unsigned volume : {kSystem, kData})
        for (const char16_t* held : {u"\\kvr.swp", u"\\kvr.map"}) TryHeldFile(volume, held);
    TryHeldFile(kSystem, u"\\Windows\\system32\\drivers\\kvr.cfg");
    TryDeletions();
    TryFlood();
}

INSTANTIATE_TEST_SUITE_P(Hardening, HostileUser, testing::Bool());

}  // namespace
