// A disk as Windows installs it: what its volumes are said to be, and how they can be named.
#include <cstring>
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "machine/disk/image_disk.h"
#include "machine/partition/formatter.h"
#include "machine/partition/subprocess.h"
#include "nbd/volume_look.h"
#include "tests/nbd/served.h"
#include "tool/kvrctl/volumes.h"

namespace {

using namespace nbd_test;

constexpr std::uint64_t kTable = 2 * 512, kBackup = 33 * 512;  // the latter from the end
constexpr unsigned char kEfi[] = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                                  0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};
constexpr unsigned char kRecovery[] = {0xA4, 0xBB, 0x94, 0xDE, 0xD1, 0x06, 0x40, 0x4D,
                                       0xA1, 0x6A, 0xBF, 0xD5, 0x01, 0x79, 0xD6, 0xAC};

// Entries' types, in both copies of the table.
void SetTypes(std::vector<char>& disk, std::initializer_list<std::pair<unsigned, const unsigned char*>> types) {
    for (const std::uint64_t entries : {kTable, disk.size() - kBackup}) {
        for (const auto& [number, type] : types) std::memcpy(&disk[entries + number * 128], type, 16);
        char* header = entries == kTable ? &disk[512] : &disk[disk.size() - 512];
        const auto put = [&](std::size_t at, std::uint32_t value) {
            std::memcpy(header + at, &value, sizeof value);
        };
        put(88, machine::Crc32(&disk[entries], 128 * 128));
        put(16, 0);
        put(16, machine::Crc32(header, 92));
    }
}

// With the folders and the file by which Windows is known on its second volume.
std::string MakeDisk(const TestFolder& scratch) {
    machine::NewDisk made;
    made.path = scratch.File("windows.raw");
    made.size = 160 * kMiB;
    made.volumes = {{.size = 40 * kMiB, .fileSystem = FileSystemKind::None, .label = {}},
                    {.size = 60 * kMiB, .label = "Windows"},
                    {.size = 20 * kMiB, .label = "Data"},
                    {.size = 20 * kMiB, .fileSystem = FileSystemKind::Ext, .label = "data"}};
    std::string error;
    EXPECT_TRUE(machine::CreateDisk(made, error)) << error;
    std::vector<char> disk = TestFolder::Bytes(made.path);
    const std::string fat = scratch.Sparse("fat", 40 * kMiB);
    EXPECT_EQ(machine::RunTool("mkfs.vfat", {"-F", "32", "-n", "SYSTEM", fat}).exitCode, 0);
    const std::vector<char> bytes = TestFolder::Bytes(fat);
    std::copy(bytes.begin(), bytes.end(), disk.begin() + kMiB);
    SetTypes(disk, {{0, kEfi}, {2, kRecovery}});
    TestFolder::Put(made.path, 0, disk);

    machine::MachineOptions options;
    options.disks.push_back({.medium = machine::ImageDisk::Open(made.path, 512, error)});
    options.systemVolume = 0;
    options.fileSystem = [](const machine::VolumeDevice&) { return machine::AnyFileSystem(); };
    machine::Machine computer(std::move(options));
    EXPECT_EQ(computer.PowerOn(), STATUS_SUCCESS);
    machine::GuestFiles files(*machine::NtfsOn(computer, 2));
    EXPECT_EQ(files.MakeDirectory(u"\\Windows"), STATUS_SUCCESS);
    EXPECT_EQ(files.MakeDirectory(u"\\Windows\\System32"), STATUS_SUCCESS);
    EXPECT_EQ(files.WriteFile(u"\\Windows\\System32\\ntoskrnl.exe", {}), STATUS_SUCCESS);
    computer.Shutdown();
    return made.path;
}

struct Expected {
    const char *label, *fileSystem, *what;
} kExpected[] = {{"SYSTEM", "fat32", "EFI system partition, cannot hold storage"},
                 {"Windows", "ntfs", "looks like Windows' own"},
                 {"Data", "ntfs", "Windows' recovery"},
                 {"data", "ext", ""}};

TEST(Volumes, OfAWindowsDiskAreToldApartAndNamedByLabelAndGuid) {
    const TestFolder scratch;
    nbd::NewMachine made;
    made.path = scratch.File("pc");
    made.images = {MakeDisk(scratch)};
    const std::vector<char> before = TestFolder::Bytes(made.images[0]);
    nbd::MakeMachine(made);
    const auto looked = nbd::LookAtVolumes(nbd::MachineFolder::Read(made.path));
    EXPECT_TRUE(TestFolder::Bytes(made.images[0]) == before) << "looking writes";
    ASSERT_EQ(looked.size(), std::size(kExpected));

    const auto server = PoweredOn(made.path);
    const nbd::ControlServer control(*server, [] {});
    ctl::HostedWorld world(made.path);
    ctl::Client client(world.OpenDriver(ctl::Access::Read));
    const auto volumes = ctl::KnownVolumes(client);
    ASSERT_GT(volumes.size(), std::size(kExpected));
    for (std::size_t i = 0; i < std::size(kExpected); ++i) {
        const ctl::VolumeDescription& told = volumes[i].told;
        EXPECT_EQ(volumes[i].name, looked[i].name.text);
        EXPECT_EQ(told.label, kExpected[i].label);
        EXPECT_EQ(told.fileSystem, kExpected[i].fileSystem);
        EXPECT_EQ(told.what, kExpected[i].what);
        EXPECT_EQ(told.what, looked[i].what);
        EXPECT_EQ(ctl::FindVolume(volumes, told.partition).name, volumes[i].name) << told.partition;
    }
    EXPECT_EQ(ctl::FindVolume(volumes, "windows").name, volumes[1].name);
    EXPECT_EQ(ctl::FindVolume(volumes, "1").name, volumes[0].name);
    const std::string ambiguous = Complaint([&] { ctl::FindVolume(volumes, "data"); });
    EXPECT_NE(ambiguous.find("HarddiskVolume3 \"Data\", \\Device\\HarddiskVolume4 \"data\""), std::string::npos)
        << ambiguous;
    EXPECT_EQ(Complaint([&] { ctl::RequireRoomForStorage(volumes[0]); }),
              "HarddiskVolume1 (fat32) cannot hold storage; only NTFS and ext volumes can");
    EXPECT_EQ(Complaint([&] { ctl::RequireRoomForStorage(volumes[1]); }), "");
}

}  // namespace
