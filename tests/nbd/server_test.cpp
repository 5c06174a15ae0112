// The server without nbdkit around it: what clients and control tools get of a machine, and of each other.
#include <gtest/gtest.h>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include "formats/kvr_ioctl.h"
#include "folder_support.h"
#include "nbd/control_server.h"
#include "client/wire_channel.h"

namespace {

using namespace tool::wire;
using nbd::Server;
using nbd_test::Complaint;

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint32_t kReadWrite = 0xC0000000;
constexpr char16_t kFirst[] = u"\\Device\\HarddiskVolume1";
constexpr char16_t kSecond[] = u"\\Device\\HarddiskVolume2";

template <class Record>
std::vector<std::uint8_t> BytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return {bytes, bytes + sizeof record};
}

VolumeName NameOf(const char16_t* volume) {
    VolumeName name{};
    std::memcpy(name.text, volume, std::char_traits<char16_t>::length(volume) * sizeof(char16_t));
    return name;
}

// A control tool's connection.
class Tool {
public:
    explicit Tool(const std::string& folder) : channel_(ConnectToServer(folder)) {}

    Response Call(Command command, std::uint32_t code = 0, std::vector<std::uint8_t> input = {},
                  std::uint32_t room = 0) {
        Request request{command, code, std::move(input), room};
        Response response;
        EXPECT_TRUE(channel_.Call(request, response)) << "the connection broke";
        return response;
    }
    Response Swap(std::uint32_t code, const char16_t* volume, std::int64_t bytes) {
        SWAP_CONFIG_REQUEST request{};
        std::memcpy(request.VolumeName, NameOf(volume).text, sizeof request.VolumeName);
        request.SwapSize = bytes;
        return Call(Command::DeviceControl, code, BytesOf(request));
    }
    VolumeFacts Facts(const char16_t* volume, std::string* clients = nullptr) {
        const Response response = Call(Command::Facts, 0, BytesOf(NameOf(volume)), sizeof(VolumeFacts));
        EXPECT_EQ(response.status, STATUS_SUCCESS);
        VolumeFacts facts{};
        if (response.output.size() == sizeof facts) std::memcpy(&facts, response.output.data(), sizeof facts);
        if (clients != nullptr) *clients = response.text;
        return facts;
    }
    KVR_FIXED_VOLUME_STATUS StatusOf(const char16_t* volume) {
        const Response response =
            Call(Command::DeviceControl, IOCTL_KVR_GET_FIXED_VOLUMES, {}, 64 * sizeof(KVR_FIXED_VOLUME_STATUS));
        EXPECT_EQ(response.status, STATUS_SUCCESS);
        KVR_FIXED_VOLUME_STATUS status{};
        for (std::size_t at = 0; at + sizeof status <= response.output.size(); at += sizeof status) {
            std::memcpy(&status, response.output.data() + at, sizeof status);
            if (std::memcmp(status.VolumeName, NameOf(volume).text, sizeof status.VolumeName) == 0)
                return status;
        }
        ADD_FAILURE() << "the volume is not listed";
        return {};
    }
    void WaitForStorage(const char16_t* volume) {
        while (StatusOf(volume).SwapStatus == 1) std::this_thread::yield();
        EXPECT_EQ(StatusOf(volume).SwapStatus, 2u);
    }

private:
    Channel channel_;
};

// A machine with one disk of two NTFS volumes, powered on.
class Served : public testing::Test {
protected:
    Served() {
        nbd::NewMachine machine;
        machine.path = scratch_.Path("pc");
        machine.size = 512 * kMiB;
        machine.volumes = 2;
        nbd::MakeMachine(machine);
        PowerOn();
    }
    void PowerOn() {
        nbd::MachineFolder folder = nbd::MachineFolder::Read(scratch_.Path("pc"));
        nbd::FolderLock lock(folder);
        server = std::make_unique<Server>(std::move(folder), std::move(lock));
        server->Start();
        control = std::make_unique<nbd::ControlServer>(*server, [this] { stopAsked = true; });
    }
    std::unique_ptr<Server::Connection> Connect(const char* name) {
        return server->Connect(*nbd::Export::Parse(name), std::string("the test's ") + name);
    }
    std::string Folder() const { return scratch_.Path("pc"); }

    nbd_test::ScratchFolder scratch_;
    std::atomic<bool> stopAsked{false};
    std::unique_ptr<Server> server;
    std::unique_ptr<nbd::ControlServer> control;
};

// Writes and reads of every alignment over a range that holds the end of one volume and the start of the next,
// through the disk's export; the volumes' exports see the same bytes.
TEST_F(Served, ADiskAndItsVolumesAreOneRangeOfBytes) {
    auto disk = Connect("disk0");
    auto second = Connect("HarddiskVolume2");
    Tool tool(Folder());
    const std::uint64_t border = tool.Facts(kSecond).diskOffset;
    const std::uint64_t base = border - 64 * 1024, length = 128 * 1024;
    std::vector<std::uint8_t> model(length), read(length);
    ASSERT_EQ(server->Transfer(*disk, Server::Action::Read, base, length, model.data()), STATUS_SUCCESS);
    std::mt19937 random(3);
    for (int round = 0; round < 300; ++round) {
        const std::uint64_t offset = random() % length, part = 1 + random() % (length - offset);
        std::vector<std::uint8_t> data(part, static_cast<std::uint8_t>(random()));
        const bool zero = round % 5 == 0;
        if (zero) std::fill(data.begin(), data.end(), std::uint8_t{0});
        ASSERT_EQ(server->Transfer(*disk, zero ? Server::Action::Zero : Server::Action::Write, base + offset,
                                   part, data.data()),
                  STATUS_SUCCESS);
        std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    ASSERT_EQ(server->Transfer(*disk, Server::Action::Read, base, length, read.data()), STATUS_SUCCESS);
    EXPECT_TRUE(read == model);
    const std::uint64_t tail = length - 64 * 1024;
    ASSERT_EQ(server->Transfer(*second, Server::Action::Read, 0, tail, read.data()), STATUS_SUCCESS);
    EXPECT_TRUE(
        std::equal(read.begin(), read.begin() + static_cast<std::ptrdiff_t>(tail), model.begin() + 64 * 1024));
    EXPECT_EQ(server->Transfer(*disk, Server::Action::Flush, 0, 0, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(server->Transfer(*second, Server::Action::Read, second->size - 10, 20, read.data()),
              STATUS_INVALID_PARAMETER);
    server->Disconnect(std::move(disk));
    server->Disconnect(std::move(second));
}

TEST_F(Served, ExportsAreTheDisksAndTheUsersVolumes) {
    std::vector<std::string> names;
    for (const auto& line : server->Exports()) names.push_back(line.name);
    EXPECT_EQ(names, (std::vector<std::string>{"disk0", "HarddiskVolume1", "HarddiskVolume2"}));
    for (const char* name : {"disk1", "HarddiskVolume3", "HarddiskVolume1000"})
        EXPECT_NE(Complaint([&] { Connect(name); }).find("no export"), std::string::npos) << name;
    for (const char* name : {"disk", "disk00", "disk-1", "HarddiskVolume1x", "disk99999999999"})
        EXPECT_FALSE(nbd::Export::Parse(name).has_value()) << name;
}

TEST_F(Served, TheControlDeviceAdmitsOneHandleUntilItIsClosedOrTheMachineReboots) {
    auto first = std::make_unique<Tool>(Folder());
    Tool second(Folder());
    const auto getConfig = [](Tool& tool) {
        return tool.Call(Command::DeviceControl, IOCTL_KVR_GET_ENABLED, {}, 4).status;
    };
    EXPECT_EQ(getConfig(*first), STATUS_INVALID_HANDLE);
    EXPECT_EQ(first->Call(Command::Open, kReadWrite).status, STATUS_SUCCESS);
    EXPECT_EQ(getConfig(*first), STATUS_SUCCESS);
    EXPECT_EQ(second.Call(Command::Open, kReadWrite).status, STATUS_DEVICE_ALREADY_ATTACHED);
    EXPECT_EQ(getConfig(*first), STATUS_SUCCESS) << "the refusal closes nobody's handle";
    first.reset();
    // The server sees the end of the connection when it does.
    while (second.Call(Command::Open, kReadWrite).status != STATUS_SUCCESS) std::this_thread::yield();
    EXPECT_EQ(second.Call(Command::Reboot).status, STATUS_SUCCESS);
    EXPECT_EQ(getConfig(second), STATUS_INVALID_HANDLE);
    EXPECT_EQ(second.Call(Command::Open, kReadWrite).status, STATUS_SUCCESS);
}

TEST_F(Served, WhatNeedsTheFileSystemIsRefusedWhileAClientHasTheVolume) {
    Tool tool(Folder());
    ASSERT_EQ(tool.Call(Command::Open, kReadWrite).status, STATUS_SUCCESS);
    EXPECT_NE(tool.Facts(kFirst).freeBytes, kUnknown);
    for (const char* name : {"HarddiskVolume1", "disk0"}) {
        auto client = Connect(name);
        for (const std::uint32_t code : {IOCTL_KVR_ALLOCATE_SWAP, IOCTL_KVR_REMOVE_SWAP}) {
            const Response refused = tool.Swap(code, kFirst, 64 * static_cast<std::int64_t>(kMiB));
            EXPECT_EQ(refused.status, STATUS_DEVICE_BUSY);
            EXPECT_NE(refused.text.find(std::string("the test's ") + name), std::string::npos) << refused.text;
        }
        std::string clients;
        const VolumeFacts facts = tool.Facts(kFirst, &clients);
        EXPECT_EQ(facts.clients, 1u);
        EXPECT_EQ(facts.freeBytes, kUnknown);
        EXPECT_NE(clients.find("since"), std::string::npos);
        server->Disconnect(std::move(client));
    }
    EXPECT_EQ(tool.Facts(kFirst).clients, 0u);
    auto elsewhere = Connect("HarddiskVolume2");
    EXPECT_EQ(tool.Swap(IOCTL_KVR_ALLOCATE_SWAP, kFirst, 64 * static_cast<std::int64_t>(kMiB)).status,
              STATUS_SUCCESS);
    // Storage grows through the file system that a client would take away.
    const std::string complaint = Complaint([&] { server->Disconnect(Connect("HarddiskVolume1")); });
    EXPECT_TRUE(complaint.empty() || complaint.find("swap storage is being made") != std::string::npos)
        << complaint;
    tool.WaitForStorage(kFirst);
    server->Disconnect(std::move(elsewhere));
}

// A client's NTFS is not written by the machine's own, neither meanwhile nor at shutdown.
TEST_F(Served, NobodyElseWritesToAVolumeThatAClientHas) {
    auto client = Connect("HarddiskVolume1");
    std::vector<std::uint8_t> before(client->size), after(client->size);
    ASSERT_EQ(server->Transfer(*client, Server::Action::Read, 0, client->size, before.data()), STATUS_SUCCESS);
    Tool tool(Folder());
    ASSERT_EQ(tool.Call(Command::Reboot).status, STATUS_SUCCESS);
    server->Stop();
    EXPECT_EQ(server->Transfer(*client, Server::Action::Read, 0, 512, after.data()), STATUS_DEVICE_POWERED_OFF);
    server->Disconnect(std::move(client));
    control.reset();
    server.reset();
    PowerOn();
    client = Connect("HarddiskVolume1");
    ASSERT_EQ(server->Transfer(*client, Server::Action::Read, 0, client->size, after.data()), STATUS_SUCCESS);
    EXPECT_TRUE(before == after);
    server->Disconnect(std::move(client));
}

// What a client makes of its volume is what the machine finds afterwards, whether or not the machine booted
// anew in between; nothing is remembered of before.
TEST_F(Served, TheMachineLooksAgainWhenAClientIsGone) {
    Tool tool(Folder());
    std::vector<std::uint8_t> start(kMiB);
    const auto rewrite = [&](Server::Action action, bool reboot) {
        auto client = Connect("HarddiskVolume2");
        if (start[3] == 0) {
            ASSERT_EQ(server->Transfer(*client, Server::Action::Read, 0, kMiB, start.data()), STATUS_SUCCESS);
        }
        if (reboot) {
            ASSERT_EQ(tool.Call(Command::Reboot).status, STATUS_SUCCESS);
        }
        ASSERT_EQ(server->Transfer(*client, action, 0, kMiB, start.data()), STATUS_SUCCESS);
        server->Disconnect(std::move(client));
    };
    EXPECT_NE(tool.Facts(kSecond).freeBytes, kUnknown);
    for (const bool reboot : {false, true}) {
        rewrite(Server::Action::Zero, reboot);
        EXPECT_EQ(tool.Facts(kSecond).freeBytes, kUnknown);
        rewrite(Server::Action::Write, false);
        EXPECT_NE(tool.Facts(kSecond).freeBytes, kUnknown);
    }
}

std::vector<std::uint8_t> Configuration() {
    const std::u16string text =
        u"[Global]\r\nProtection = 1\r\nFVBootMode = 0\r\n"
        u"[FV 1]\r\nID = \\Device\\HarddiskVolume1\r\nProtectionMode = 1\r\nBootMode = 0\r\n";
    std::vector<std::uint8_t> image(KVR_CONFIG_BYTES);
    std::memcpy(image.data(), text.data(), text.size() * sizeof(char16_t));
    return image;
}

// A machine that protects its first volume: writes are seen until the reboot, which clients that go on working
// only notice by what they read.
TEST_F(Served, AProtectedVolumeReturnsAtARebootUnderItsClients) {
    Tool tool(Folder());
    ASSERT_EQ(tool.Call(Command::Open, kReadWrite).status, STATUS_SUCCESS);
    ASSERT_EQ(tool.Call(Command::DeviceControl, IOCTL_KVR_SET_CONFIG, Configuration()).status, STATUS_SUCCESS);
    ASSERT_EQ(tool.Swap(IOCTL_KVR_ALLOCATE_SWAP, kFirst, 100 * static_cast<std::int64_t>(kMiB)).status,
              STATUS_SUCCESS);
    tool.WaitForStorage(kFirst);
    ASSERT_EQ(tool.Call(Command::Reboot).status, STATUS_SUCCESS);
    ASSERT_EQ(tool.Call(Command::Open, kReadWrite).status, STATUS_SUCCESS);
    ASSERT_EQ(tool.StatusOf(kFirst).State, 2u);

    auto client = Connect("HarddiskVolume1");
    const std::uint64_t place = client->size - kMiB;
    std::vector<std::uint8_t> data(3000, 0xA5), read(3000);
    ASSERT_EQ(server->Transfer(*client, Server::Action::Write, place + 100, data.size(), data.data()),
              STATUS_SUCCESS);
    ASSERT_EQ(server->Transfer(*client, Server::Action::Read, place + 100, read.size(), read.data()),
              STATUS_SUCCESS);
    EXPECT_TRUE(read == data);
    std::atomic<bool> ends{false};
    std::atomic<unsigned> failures{0}, reads{0};
    std::thread busy([&] {
        std::vector<std::uint8_t> some(4096);
        while (!ends) {
            if (!NT_SUCCESS(server->Transfer(*client, Server::Action::Read, 0, some.size(), some.data())))
                ++failures;
            ++reads;
        }
    });
    while (reads == 0) std::this_thread::yield();
    EXPECT_EQ(tool.Call(Command::Reboot).status, STATUS_SUCCESS);
    const unsigned then = reads;
    while (reads == then) std::this_thread::yield();
    ends = true;
    busy.join();
    EXPECT_EQ(failures, 0u);
    ASSERT_EQ(server->Transfer(*client, Server::Action::Read, place + 100, read.size(), read.data()),
              STATUS_SUCCESS);
    EXPECT_TRUE(read == std::vector<std::uint8_t>(3000)) << "the boot throws the change away";
    EXPECT_EQ(tool.Facts(kFirst).clients, 1u);
    server->Disconnect(std::move(client));
}

// What breaks the layout ends that connection and no other; Stop answers when the machine is off.
TEST_F(Served, TheSocketOutlivesNonsenseAndEndsWithStop) {
    Tool tool(Folder());
    EXPECT_EQ(tool.Call(static_cast<Command>(99)).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(tool.Call(Command::Facts, 0, {1, 2, 3}, 100).status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(tool.Call(Command::Facts, 0, BytesOf(NameOf(u"\\Device\\None")), 100).status,
              STATUS_OBJECT_NAME_NOT_FOUND);
    SectorsAt beyond{NameOf(kFirst), tool.Facts(kFirst).bytes, 512, 0};
    EXPECT_EQ(tool.Call(Command::ReadSectors, 0, BytesOf(beyond), 512).status, STATUS_INVALID_PARAMETER);
    beyond.offset = 0;
    const Response boot = tool.Call(Command::ReadSectors, 0, BytesOf(beyond), 512);
    ASSERT_EQ(boot.output.size(), 512u);
    EXPECT_EQ(std::memcmp(boot.output.data() + 3, "NTFS", 4), 0);
    {
        const posix::File raw = ConnectToServer(Folder());
        const char nonsense[20] = "GET / HTTP/1.0\r\n\r\n";
        ASSERT_EQ(write(raw.Get(), nonsense, sizeof nonsense), 20);
        char answer;
        EXPECT_EQ(read(raw.Get(), &answer, 1), 0);
    }
    EXPECT_NE(tool.Call(Command::About).text.find("on=1"), std::string::npos);
    EXPECT_EQ(tool.Call(Command::Stop).status, STATUS_SUCCESS);
    EXPECT_NE(tool.Call(Command::About).text.find("on=0"), std::string::npos);
    EXPECT_TRUE(stopAsked);
}

}  // namespace
