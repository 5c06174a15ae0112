// The server without nbdkit around it: what clients and control tools get of a machine, and of each other. What
// clients of other makers show is in proofs/.
#include <gtest/gtest.h>
#include <thread>
#include "nbd/idle_reboot.h"
#include "tests/nbd/served.h"

namespace {

using namespace nbd_test;
using ctl::Access;
using nbd::Server;

constexpr std::int64_t kSwap = 64 * 1024 * 1024;

TEST(Exports, NamesThatAreNone) {
    for (const char* name : {"disk", "disk00", "disk-1", "HarddiskVolume1x", "disk99999999999", "x"})
        EXPECT_FALSE(nbd::Export::Parse(name).has_value()) << name;
}

TEST_F(Served, TheControlDeviceAdmitsOneHandleUntilItIsClosedOrTheMachineReboots) {
    auto first = world.OpenDriver(Access::ReadWrite);
    EXPECT_EQ(world.OpenDriver(Access::ReadWrite), nullptr);
    EXPECT_FALSE(ctl::Client(std::move(first)).Enabled()) << "the refusal closes nobody's handle";
    // A client that has gone is nobody's obstacle any more, at once.
    for (int i = 0; i < 200; ++i) ASSERT_NE(world.OpenDriver(Access::ReadWrite), nullptr) << i;
    ctl::Client second(world.OpenDriver(Access::ReadWrite));
    Reboot();
    EXPECT_NE(Complaint([&] { second.Enabled(); }).find("booted anew"), std::string::npos);
    EXPECT_FALSE(ctl::Client(world.OpenDriver(Access::ReadWrite)).Enabled());
}

TEST_F(Served, WhatNeedsTheFileSystemIsRefusedWhileAClientHasTheVolume) {
    ctl::Client tool(world.OpenDriver(Access::ReadWrite));
    EXPECT_TRUE(world.Facts(kFirst)->freeBytes.has_value());
    for (const char* name : {"HarddiskVolume1", "disk0"}) {
        auto client = Connect(name);
        for (const std::string& refusal : {Complaint([&] { tool.AllocateSwap(kFirst, kSwap); }),
                                           Complaint([&] { tool.RemoveSwap(kFirst); })})
            EXPECT_NE(refusal.find(std::string("the test's ") + name), std::string::npos) << refusal;
        const ctl::VolumeFacts facts = *world.Facts(kFirst);
        EXPECT_FALSE(facts.freeBytes.has_value());
        EXPECT_NE(facts.clients.find("since"), std::string::npos);
        server->Disconnect(std::move(client));
    }
    EXPECT_EQ(world.Facts(kFirst)->clients, "");
    auto elsewhere = Connect("HarddiskVolume2");
    tool.AllocateSwap(kFirst, kSwap);
    // Storage grows through the file system that a client would take away.
    const std::string complaint = Complaint([&] { server->Disconnect(Connect("HarddiskVolume1")); });
    EXPECT_TRUE(complaint.empty() || complaint.find("swap storage is being made") != std::string::npos)
        << complaint;
    while (FirstOf(tool).swapStatus == ctl::kSwapProvisioning) std::this_thread::yield();
    EXPECT_EQ(FirstOf(tool).swapStatus, ctl::kSwapPresent);
    server->Disconnect(std::move(elsewhere));
}

// Several connections of one client are one; two that write to one disk are told of.
TEST_F(Served, ClientsThatShareADisk) {
    std::vector<std::uint8_t> sector(512);
    auto one = Connect("disk0"), same = Connect("disk0"), other = Connect("HarddiskVolume1");
    const std::string clients = world.Facts(kFirst)->clients;
    EXPECT_NE(clients.find("the test's disk0 on export disk0, 2 connections, since"), std::string::npos)
        << clients;
    EXPECT_EQ(clients.find("disk0 on", clients.find("disk0 on") + 1), std::string::npos) << clients;
    const auto isTold = [&] { return server->About().find("two clients write") != std::string::npos; };
    for (const auto* client : {&one, &same, &other}) {
        EXPECT_FALSE(isTold());
        EXPECT_EQ(Transfer(*client, Server::Action::Write, kMiB, sector), STATUS_SUCCESS);
    }
    EXPECT_TRUE(isTold());
    for (auto* client : {&one, &same, &other}) server->Disconnect(std::move(*client));
    EXPECT_FALSE(isTold());
}

TEST(StorageWatch, LevelsAreToldOnceAndRatesWhenTheyAreKnown) {
    nbd::StorageWatch watch;
    ctl::FixedVolume volume{kFirst, 2, 108 * static_cast<std::int64_t>(kMiB), 0, ctl::kSwapPresent};
    const struct {
        int seconds;
        std::int64_t used;  // MiB, of 100 that can be used
        std::size_t lines;
        std::int64_t rate;  // MiB a second; -1: not known
    } table[] = {{0, 0, 0, -1},   {5, 40, 0, -1},  {10, 80, 1, 8},  {20, 81, 0, 4}, {25, 96, 1, 3},
                 {30, 100, 1, 3}, {40, 100, 0, 2}, {45, 10, 0, -1}, {60, 85, 1, 5}};
    for (const auto& row : table) {
        volume.swapUsed = row.used * static_cast<std::int64_t>(kMiB);
        const auto time = nbd::StorageWatch::Clock::time_point(std::chrono::seconds(row.seconds));
        EXPECT_EQ(watch.Look(time, {volume}).size(), row.lines) << row.seconds;
        const auto rates = watch.BytesPerSecond();
        EXPECT_EQ(rates.empty() ? -1 : rates.at(kFirst) / static_cast<std::int64_t>(kMiB), row.rate)
            << row.seconds;
    }
}

// A client's NTFS is not written by the machine's own, neither meanwhile nor at shutdown.
TEST_F(Served, NobodyElseWritesToAVolumeThatAClientHas) {
    auto client = Connect("HarddiskVolume1");
    std::vector<std::uint8_t> before(client->size), after(client->size);
    ASSERT_EQ(Transfer(client, Server::Action::Read, 0, before), STATUS_SUCCESS);
    Reboot();
    server->Stop();
    EXPECT_EQ(Transfer(client, Server::Action::Read, 0, after), STATUS_DEVICE_POWERED_OFF);
    server->Disconnect(std::move(client));
    control.reset();
    server.reset();
    PowerOn();
    client = Connect("HarddiskVolume1");
    ASSERT_EQ(Transfer(client, Server::Action::Read, 0, after), STATUS_SUCCESS);
    EXPECT_TRUE(before == after);
    server->Disconnect(std::move(client));
}

// What a client makes of its volume is what the machine finds afterwards, whether or not the machine booted
// anew in between; nothing is remembered of before.
TEST_F(Served, TheMachineLooksAgainWhenAClientIsGone) {
    std::vector<std::uint8_t> start(kMiB);
    for (const bool reboot : {false, true}) {
        for (const Server::Action action : {Server::Action::Zero, Server::Action::Write}) {
            auto client = Connect("HarddiskVolume2");
            if (start[3] == 0) {
                EXPECT_EQ(Transfer(client, Server::Action::Read, 0, start), STATUS_SUCCESS);
            }
            if (reboot) Reboot();
            EXPECT_EQ(Transfer(client, action, 0, start), STATUS_SUCCESS);
            server->Disconnect(std::move(client));
            EXPECT_EQ(world.Facts(kSecond)->freeBytes.has_value(), action == Server::Action::Write);
        }
    }
}

// Two clients come and go; only when both are gone is there another boot.
TEST_F(Served, TheMachineRebootsWhenTheLastClientHasGone) {
    const auto boots = [&](unsigned number) {
        return server->About().find(" boots=" + std::to_string(number) + " ") != std::string::npos;
    };
    nbd::IdleReboot idle(*server, std::chrono::seconds(0));
    auto first = Connect("disk0"), second = Connect("HarddiskVolume2");
    server->Disconnect(std::move(first));
    idle.ClientLeft();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(server->RebootWhenIdle(), Server::Idle::InUse);
    EXPECT_TRUE(boots(1));
    server->Disconnect(std::move(second));
    idle.ClientLeft();
    while (!boots(2)) std::this_thread::yield();
}

}  // namespace
