// The server when the host fails it, and when a client rewrites a disk's table.
#include <filesystem>
#include <fstream>
#include <thread>
#include <sys/mount.h>
#include "machine/partition/partition_table.h"
#include "platform/host/sync/thread.h"
#include "tests/nbd/served.h"

namespace {

using namespace nbd_test;
using nbd::Server;

class HostFault : public Served {
protected:
    std::string Image() const { return scratch.File("pc/disk0.img"); }
    NTSTATUS Write(const std::unique_ptr<Server::Connection>& client, std::uint64_t offset,
                   std::vector<std::uint8_t> bytes) {
        return Transfer(client, Server::Action::Write, offset, bytes);
    }
};

// An image that is cut short cannot be read; it is whole again as soon as its bytes are back.
TEST_F(HostFault, ATableThatCannotBeReadOpensNothing) {
    auto client = Connect("disk0");
    const std::vector<char> before = TestFolder::Bytes(Image());
    const auto restore = [&] { TestFolder::Put(Image(), 0, before); };
    std::filesystem::resize_file(Image(), 0);
    std::thread soon([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        restore();
    });
    Reboot();
    soon.join();
    EXPECT_EQ(Write(client, 0, std::vector<std::uint8_t>(before.begin(), before.begin() + 512)),
              STATUS_SUCCESS);
    std::filesystem::resize_file(Image(), 0);
    std::string why;
    EXPECT_FALSE(server->Reboot(why));
    EXPECT_NE(why.find("disk0.img cannot be read"), std::string::npos) << why;
    EXPECT_EQ(Write(client, 0, std::vector<std::uint8_t>(512)), STATUS_DEVICE_POWERED_OFF);
    restore();
    EXPECT_TRUE(TestFolder::Bytes(Image()) == before);
    server->Disconnect(std::move(client));
    control.reset();
    server.reset();
    std::filesystem::resize_file(Image(), 0);
    EXPECT_THROW(PoweredOn(Folder()), nbd::Error);
}

// Settings belong to the partition that they were made for: one that takes its place has another number, and
// while the first is gone its disk is closed.
TEST_F(HostFault, ANewPartitionHasItsOwnNumberAndNotTheOldOnesSettings) {
    auto client = Connect("disk0");
    Configure(world, u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume2\nProtectionMode=1\n");
    std::vector<machine::NewPartition> partitions;
    std::string error;
    ASSERT_TRUE(machine::LayOutPartitions(client->size, {0, 0}, machine::TableKind::Gpt, partitions, error))
        << error;
    for (const machine::DiskPiece& piece : machine::MakeGpt(client->size, 512, partitions, 4711))
        ASSERT_EQ(Write(client, piece.offset, piece.bytes), STATUS_SUCCESS);
    Reboot();
    EXPECT_NE(
        server->About().find("\nwarning: HarddiskVolume2 is to be protected and is not there; disk0 takes no"),
        std::string::npos)
        << server->About();
    EXPECT_FALSE(world.Facts(kFirst).has_value() || world.Facts(kSecond).has_value());
    EXPECT_TRUE(world.Facts(u"\\Device\\HarddiskVolume3").has_value());
    EXPECT_EQ(Write(client, 40 * kMiB, std::vector<std::uint8_t>(512)), STATUS_MEDIA_WRITE_PROTECTED);
    Configure(world, u"[Global]\nProtection=1\n");
    Reboot();
    EXPECT_EQ(server->About().find("warning"), std::string::npos) << server->About();
    EXPECT_TRUE(world.Facts(u"\\Device\\HarddiskVolume3").has_value()) << "as it was first numbered";
    EXPECT_EQ(Write(client, 40 * kMiB, std::vector<std::uint8_t>(512)), STATUS_SUCCESS);
    server->Disconnect(std::move(client));
}

// What a client was told is written stays; what the host has no room for is told as that.
TEST_F(HostFault, AFullHostIsToldAndNothingAcknowledgedIsLost) {
    control.reset();
    server.reset();
    const std::string place = scratch.File("small");
    std::filesystem::create_directory(place);
    if (mount("none", place.c_str(), "tmpfs", 0, "size=32m") != 0) GTEST_SKIP() << "may not mount here";
    ASSERT_EQ(std::system(("cp --sparse=always " + Image() + " " + place).c_str()), 0);
    std::ofstream(scratch.File("pc/machine")) << "disk 512 " << place << "/disk0.img\n";
    PowerOn();
    auto client = Connect("HarddiskVolume2");
    std::vector<std::uint8_t> piece(kMiB, 0x5A), back(kMiB);
    std::uint64_t written = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (; NT_SUCCESS(status) && written < 64 * kMiB; written += NT_SUCCESS(status) ? kMiB : 0)
        status = Transfer(client, Server::Action::Write, 16 * kMiB + written, piece);
    EXPECT_EQ(status, STATUS_DISK_FULL);
    EXPECT_NE(server->About().find("no room for disk0"), std::string::npos);
    for (std::uint64_t at = 0; at < written; at += kMiB) {
        ASSERT_EQ(Transfer(client, Server::Action::Read, 16 * kMiB + at, back), STATUS_SUCCESS);
        EXPECT_TRUE(back == piece) << at;
    }
    server->Disconnect(std::move(client));
    EXPECT_EQ(world.WhyUnfinished(kFirst), "");
    ctl::Client(world.OpenDriver(ctl::Access::ReadWrite)).AllocateSwap(kFirst, 16 * kMiB);
    host::JoinSystemThreads();
    EXPECT_EQ(world.WhyUnfinished(kFirst),
              "the host does not write disk0, " + place + "/disk0.img: No space left on device");
    control.reset();
    server.reset();
    EXPECT_EQ(umount(place.c_str()), 0);
}

}  // namespace
