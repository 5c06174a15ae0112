// The acts of a proof, played on the driver as it is linked in: a hosted machine with NTFS, a boot for each,
// and the volume's own sectors looked at in the image between them.
#include <gtest/gtest.h>
#include <cstring>
#include <thread>
#include "formats/proof_acts.h"
#include "formats/proof_disk.h"
#include "machine/partition/formatter.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/host/io/user_mode.h"
#include "prove/acts.h"
#include "tests/support/scratch_folder.h"
#include "tool/demo/computer.h"
#include "tool/demo/offline_ntfs.h"

namespace {

using proof::Status;

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kStorage = 128 * kMiB;  // more than the driver keeps back

// The acts' own flags are in rows; this keeps what a test asks for.
class HostedGuest final : public proof::Guest {
public:
    explicit HostedGuest(tool::Computer& computer) : computer_(computer) {}

    Status Open(proof::Device device) override { return OpenAs(device, &device_); }
    Status OpenSecond() override {
        PFILE_OBJECT second = nullptr;
        const Status status = OpenAs(proof::Device::Link, &second);
        if (NT_SUCCESS(status)) host::CloseDevice(second);
        return status;
    }
    void Close() override {
        if (device_ != nullptr) host::CloseDevice(std::exchange(device_, nullptr));
    }
    Status Ask(std::uint32_t code, const void* input, std::uint32_t inputLength, void* output,
               std::uint32_t outputLength, std::uint32_t* returned) override {
        if (device_ == nullptr) return STATUS_INVALID_HANDLE;
        ULONG filled = 0;
        const Status status =
            host::DeviceIoControl(device_, code, input, inputLength, output, outputLength, filled);
        *returned = filled;
        return status;
    }
    const char16_t* VolumeName() override { return computer_.DataName().c_str(); }
    Status Write(const char16_t* path, std::uint64_t offset, const void* bytes, std::uint32_t length) override {
        return computer_.Data().WriteAt(path, offset, {static_cast<const std::uint8_t*>(bytes), length});
    }
    Status Flush(const char16_t*) override { return STATUS_SUCCESS; }
    Status Read(const char16_t* path, std::uint64_t offset, void* bytes, std::uint32_t length) override {
        std::vector<std::uint8_t> read;
        const Status status = computer_.Data().ReadAt(path, offset, length, read);
        if (NT_SUCCESS(status)) std::memcpy(bytes, read.data(), read.size());
        return NT_SUCCESS(status) && read.size() != length ? STATUS_END_OF_FILE : status;
    }
    Status OpenToRead(const char16_t* path) override {
        std::vector<std::uint8_t> read;
        return computer_.Data().ReadAt(path, 0, 1, read);
    }
    Status Delete(const char16_t* path) override { return computer_.Data().Delete(path); }
    Status RewriteFirstSector() override {
        std::vector<std::uint8_t> sector(512);
        host::Request request;
        request.buffer = sector.data();
        request.length = 512;
        if (!NT_SUCCESS(host::Send(host::TopOfStack(Volume()), request).status)) return STATUS_SUCCESS;
        const PFILE_OBJECT handle =
            computer_.Hardware().FileObjectOf(computer_.DataNumber(), u"", FO_VOLUME_OPEN);
        request.major = IRP_MJ_WRITE;
        request.originalFile = handle;
        request.stackFile = handle;
        return host::Send(host::TopOfStack(Volume()), request).status;
    }
    Status Trim() override {
        host::Control control{};
        control.code = IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES;
        return host::SendControl(host::TopOfStack(Volume()), control).status;
    }
    void Wait(std::uint32_t milliseconds) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds) / 20);
    }
    void WriteDuringShutdown(const char16_t* path) override { late_ = path; }
    void Report(const char* name, bool passed, Status status, std::uint64_t measured) override {
        ++rows;
        if (!passed)
            failed.push_back(std::string(name) + ", " + tool::StatusText(status) + ", " +
                             std::to_string(measured));
    }

    void Shutdown() {
        const std::u16string path = std::exchange(late_, {});
        if (path.empty()) return computer_.Shutdown();
        computer_.ShutdownDuring(machine::ShutdownStep::Notified, [&] {
            const std::vector<std::uint8_t> bytes(kMiB, 'e');
            tool::Require(computer_.Data().WriteFile(path, bytes), "writing in the shutdown");
        });
    }

    unsigned rows = 0;
    std::vector<std::string> failed;

private:
    static Status OpenAs(proof::Device device, PFILE_OBJECT* opened) {
        return host::OpenDevice(device == proof::Device::Control ? u"\\Device\\kvr" : u"\\DosDevices\\kvr",
                                FILE_READ_DATA | FILE_WRITE_DATA, *opened);
    }
    PDEVICE_OBJECT Volume() { return computer_.Hardware().VolumeOf(computer_.DataNumber())->device->Device(); }

    tool::Computer& computer_;
    PFILE_OBJECT device_ = nullptr;
    std::u16string late_;
};

struct Disk {
    explicit Disk(const TestFolder& folder) {
        machine::NewDisk disk;
        disk.path = folder.File("disk.img");
        disk.volumes.resize(2);
        disk.volumes[0].size = 32 * kMiB;
        disk.volumes[1].size = 256 * kMiB;
        disk.size = 288 * kMiB + 2 * machine::kPartitionAlignment;
        std::string error;
        EXPECT_TRUE(machine::CreateDisk(disk, error)) << error;
        machine::PartitionTable table;
        EXPECT_TRUE(machine::ReadImagePartitions(disk.path, 512, table, error)) << error;
        for (const unsigned i : {0u, 1u})
            places[i] = {disk.path, table.partitions.at(i).offset, table.partitions.at(i).length, 512};
    }
    tool::VolumeHash Hash() const {
        const tool::OfflineVolume volume(places[1].image, places[1].offset, places[1].length);
        return tool::HashVolume(places[1].image, places[1].offset, places[1].length,
                                tool::DriverFileExtents(volume));
    }
    tool::Place places[2];
};

void MakeSystem(tool::Computer& computer) {
    computer.Boot();
    for (const char16_t* folder : {u"\\Windows\\system32", u"\\Windows\\system32\\drivers"})
        tool::Require(computer.System().MakeDirectory(folder), "the system's folders");
    computer.Shutdown();
}

TEST(ProofActs, EachPassesOnTheDriverAndTheSectorsAreAsItsTableSays) {
    const TestFolder folder;
    const Disk disk(folder);
    tool::Computer computer(disk.places[0], disk.places[1]);
    MakeSystem(computer);
    tool::VolumeHash fixed;
    for (std::uint32_t act = 1; act <= proof::kActCount; ++act) {
        SCOPED_TRACE(proof::kActs[act - 1].name);
        computer.Boot();
        HostedGuest guest(computer);
        proof::Play(guest, act, kStorage);
        EXPECT_EQ(guest.failed, std::vector<std::string>());
        EXPECT_GE(guest.rows, 5u);
        EXPECT_LE(guest.rows, proof::kMostRows);
        guest.Shutdown();
        const tool::VolumeHash now = disk.Hash();
        const proof::Sectors sectors = proof::kActs[act - 1].sectors;
        EXPECT_TRUE(sectors == proof::Sectors::Free || (now == fixed) == (sectors == proof::Sectors::Same));
        fixed = now;
    }
}

// Without the acts before it none can pass but the last, which finds nothing to do; nor one that there is not.
TEST(ProofActs, FailOnAMachineThatIsNotPrepared) {
    const TestFolder folder;
    const Disk disk(folder);
    tool::Computer computer(disk.places[0], disk.places[1]);
    MakeSystem(computer);
    computer.Boot();
    for (std::uint32_t act = 2; act <= proof::kActCount + 1; ++act) {
        HostedGuest guest(computer);
        proof::Play(guest, act, kStorage);
        EXPECT_EQ(guest.failed.empty(), act == proof::kActCount) << act;
    }
}

}  // namespace
