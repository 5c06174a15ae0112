// A disk whose medium takes its time: which thread does what, and when.
#include <fcntl.h>
#include <cstring>
#include <gtest/gtest.h>
#include "driver/record/sector_io.h"
#include "machine/boot/machine.h"
#include "machine/disk/image_disk.h"
#include "platform/host/io/request.h"
#include "platform/owners.h"
#include "tests/support/scratch_folder.h"

namespace {

using namespace machine;

constexpr std::uint32_t kSector = 512;

// Each sector holds its number. What was not fetched has to be waited for; 'f' and 'r' tell when, 'b' and 'e'
// where the medium begins reads itself.
class SlowDisk final : public Disk {
public:
    std::uint64_t Size() const override { return 64 * kSector; }
    std::uint32_t SectorSize() const override { return kSector; }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override {
        Note('r', offset);
        if (offset == bad) return STATUS_IO_DEVICE_ERROR;
        std::memset(buffer, static_cast<int>(offset / kSector), length);
        return STATUS_SUCCESS;
    }
    NTSTATUS ReadAtOnce(std::uint64_t offset, void*, std::size_t) override {
        Note('f', offset);
        return STATUS_PENDING;
    }
    std::unique_ptr<ReadUnderWay> BeginRead(std::uint64_t offset, std::size_t length) override {
        if (!begins) return nullptr;
        Note('b', offset);
        return std::make_unique<Begun>(*this, offset, length);
    }
    NTSTATUS Write(std::uint64_t offset, const void*, std::size_t) override {
        Note('w', offset);
        return STATUS_SUCCESS;
    }
    NTSTATUS WriteAside(std::uint64_t offset, const void*, std::size_t) override {
        Note('a', offset);
        return STATUS_SUCCESS;
    }
    NTSTATUS Flush() override { return STATUS_SUCCESS; }

    std::string seen;
    std::uint64_t bad = ~0ull;
    bool begins = false;

private:
    struct Begun final : ReadUnderWay {
        Begun(SlowDisk& disk, std::uint64_t offset, std::size_t length)
            : disk(disk), offset(offset), length(length) {}
        NTSTATUS End(void* buffer) override {
            disk.Note('e', offset);
            std::memset(buffer, static_cast<int>(offset / kSector), length);
            return STATUS_SUCCESS;
        }
        SlowDisk& disk;
        const std::uint64_t offset;
        const std::size_t length;
    };
    void Note(char what, std::uint64_t offset) {
        seen += what + std::to_string(offset / kSector) + " ";
        EXPECT_GE(APC_LEVEL, KeGetCurrentIrql());
    }
};

class SlowDevice : public testing::Test {
protected:
    SlowDevice() : machine_(Options(medium_)) {
        EXPECT_EQ(STATUS_SUCCESS, machine_.PowerOn());
        medium_->seen.clear();
    }
    static MachineOptions Options(std::shared_ptr<Disk> medium) {
        MachineOptions options;
        options.disks = {{std::move(medium)}};
        return options;
    }
    void Begin(unsigned i, LONGLONG sector) {
        BeginTransfer(IRP_MJ_READ, machine_.DiskOf(0)->Device(), data_[i], kSector, sector * kSector,
                      &transfers_[i]);
    }

    std::shared_ptr<SlowDisk> medium_ = std::make_shared<SlowDisk>();
    Machine machine_;
    UCHAR data_[4][kSector] = {};
    TRANSFER transfers_[4];
};

TEST_F(SlowDevice, ReadsOfOneThreadAreUnderWayTogetherAndEndInOrderAsItWaits) {
    medium_->bad = 5 * kSector;
    for (unsigned i = 0; i < 3; ++i) Begin(i, 3 + i);
    EXPECT_EQ("f3 f4 f5 ", medium_->seen);
    EXPECT_EQ(STATUS_SUCCESS, EndTransfer(&transfers_[0]));
    Begin(3, 9);
    EXPECT_EQ("f3 f4 f5 r3 f9 ", medium_->seen) << "the others are left under way";
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, EndTransfer(&transfers_[2]));
    EXPECT_TRUE(IsTransferOver(&transfers_[1])) << "it was the older one";
    EXPECT_EQ(STATUS_SUCCESS, EndTransfer(&transfers_[1]));
    EXPECT_EQ(STATUS_SUCCESS, EndTransfer(&transfers_[3]));
    EXPECT_EQ("f3 f4 f5 r3 f9 r4 r5 r9 ", medium_->seen);
    EXPECT_EQ(4, data_[1][0]);
    EXPECT_EQ(9, data_[3][kSector - 1]);
}

TEST_F(SlowDevice, WhoDoesNotWaitIsAnsweredToo) {
    host::Request request;
    request.buffer = data_[0];
    request.length = kSector;
    request.offset = 7 * kSector;
    host::Outcome outcome{STATUS_PENDING, 0};
    host::SendAsync(
        machine_.DiskOf(0)->Device(), request,
        [](void* context, host::Outcome end) { *static_cast<host::Outcome*>(context) = end; }, &outcome);
    EXPECT_EQ(STATUS_SUCCESS, outcome.status);
    EXPECT_EQ(kSector, outcome.information);
    EXPECT_EQ(7, data_[0][0]);
}

TEST_F(SlowDevice, WhatIsUnderWayWhenThePowerGoesFails) {
    Begin(0, 1);
    medium_->begins = true;
    Begin(1, 2);
    Begin(2, 3);
    EXPECT_EQ(STATUS_SUCCESS, EndTransfer(&transfers_[1]));
    EXPECT_EQ(2, data_[1][kSector - 1]);
    machine_.Power().Cut();
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, EndTransfer(&transfers_[2]));
    EXPECT_EQ("f1 f2 b2 f3 b3 r1 e2 ", medium_->seen);
}

TEST_F(SlowDevice, WhatNoBufferIsToHoldIsWrittenAside) {
    const PDEVICE_OBJECT device = machine_.DiskOf(0)->Device();
    for (const ULONG flags : {ULONG{0}, FO_NO_INTERMEDIATE_BUFFERING}) {
        FILE_OBJECT file{};
        file.Flags = flags;
        const host::Request write{.major = IRP_MJ_WRITE,
                                  .length = kSector,
                                  .offset = 3 * kSector,
                                  .buffer = data_[0],
                                  .stackFile = &file};
        EXPECT_EQ(STATUS_SUCCESS, host::Send(device, write).status);
    }
    EXPECT_EQ("w3 a3 ", medium_->seen);
    machine_.Power().Cut();
}

// What the host's memory holds is read at once, the rest later or at once, as its file system can. What is
// written aside leaves the memory, but for a part, where the file system can tell.
TEST(ImageDisk, WhatIsWrittenAsideIsThereAndLeavesTheHostsMemory) {
    constexpr std::size_t kPiece = 1 << 20, kPieces = 64;
    const TestFolder folder;
    const std::string path = folder.Path() + "/disk.img";
    std::string error;
    ASSERT_TRUE(ImageDisk::Create(path, kPieces * kPiece, error)) << error;
    const auto disk = ImageDisk::Open(path, kSector, error);
    ASSERT_NE(nullptr, disk) << error;
    std::vector<std::uint8_t> read(kPiece);
    const auto pieceOf = [](std::size_t i) {
        return std::vector<std::uint8_t>(kPiece, static_cast<std::uint8_t>(i + 1));
    };
    for (std::size_t i = 0; i < kPieces; ++i)
        ASSERT_EQ(STATUS_SUCCESS, disk->WriteAside(i * kPiece, pieceOf(i).data(), kPiece));
    ASSERT_EQ(STATUS_SUCCESS, disk->Flush());
    std::size_t held = 0;
    for (std::size_t i = kPieces; i-- > 0;) {
        const NTSTATUS status = disk->ReadAtOnce(i * kPiece, read.data(), kPiece);
        EXPECT_TRUE(status == STATUS_PENDING || (status == STATUS_SUCCESS && read == pieceOf(i))) << i;
        held += status == STATUS_SUCCESS;
    }
    ASSERT_EQ(STATUS_SUCCESS, disk->Write(0, pieceOf(0).data(), kPiece));
    EXPECT_EQ(STATUS_SUCCESS, disk->ReadAtOnce(0, read.data(), kPiece));
    EXPECT_TRUE(read == pieceOf(0));
    ASSERT_EQ(STATUS_SUCCESS, disk->Flush());
    const posix::File file(open(path.c_str(), O_RDONLY));
    ASSERT_EQ(0, posix_fadvise(file.Get(), 0, kPiece, POSIX_FADV_DONTNEED));
    const bool tells = disk->ReadAtOnce(0, read.data(), kPiece) == STATUS_PENDING;
    EXPECT_LE(held, tells ? kPieces / 2 + 1 : kPieces);
    for (std::size_t i = 0; i < kPieces; ++i) {
        EXPECT_EQ(STATUS_SUCCESS, disk->Read(i * kPiece, read.data(), kPiece));
        EXPECT_TRUE(read == pieceOf(i)) << i;
    }
}

}  // namespace
