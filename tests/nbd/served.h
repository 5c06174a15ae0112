// A machine with one disk of two NTFS volumes, powered on, with its control socket.
#pragma once
#include <gtest/gtest.h>
#include <memory>
#include "nbd/control_server.h"
#include "nbd/folder_maker.h"
#include "tests/support/scratch_folder.h"
#include "tool/kvrctl/world_hosted.h"

namespace nbd_test {

inline constexpr std::uint64_t kMiB = 1024 * 1024;
inline constexpr char16_t kFirst[] = u"\\Device\\HarddiskVolume1";
inline constexpr char16_t kSecond[] = u"\\Device\\HarddiskVolume2";

class Served : public testing::Test {
protected:
    Served() {
        nbd::NewMachine machine;
        machine.path = Folder();
        machine.size = 256 * kMiB;
        machine.volumes = 2;
        nbd::MakeMachine(machine);
        PowerOn();
    }
    void PowerOn() {
        nbd::MachineFolder folder = nbd::MachineFolder::Read(Folder());
        nbd::FolderLock lock(folder);
        server = std::make_unique<nbd::Server>(std::move(folder), std::move(lock));
        server->Start();
        control = std::make_unique<nbd::ControlServer>(*server, [] {});
    }
    void Reboot() {
        std::string why;
        EXPECT_TRUE(server->Reboot(why)) << why;
    }
    std::unique_ptr<nbd::Server::Connection> Connect(const char* name) {
        return server->Connect(*nbd::Export::Parse(name), std::string("the test's ") + name);
    }
    NTSTATUS Transfer(const std::unique_ptr<nbd::Server::Connection>& client, nbd::Server::Action action,
                      std::uint64_t offset, std::vector<std::uint8_t>& bytes) {
        return server->Transfer(*client, action, offset, bytes.size(), bytes.data());
    }
    // The driver's record of the first volume.
    static ctl::FixedVolume FirstOf(ctl::Client& client) {
        for (const ctl::FixedVolume& volume : client.FixedVolumes())
            if (volume.name == kFirst) return volume;
        return {};
    }
    std::string Folder() const { return scratch.File("pc"); }

    // Members end in the reverse order: the control socket before the server that it speaks for.
    const TestFolder scratch;
    std::unique_ptr<nbd::Server> server;
    std::unique_ptr<nbd::ControlServer> control;
    ctl::HostedWorld world{Folder()};
};

}  // namespace nbd_test
