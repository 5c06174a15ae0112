// A machine with one disk, as a rule of two NTFS volumes, powered on, with its control socket.
#pragma once
#include <gtest/gtest.h>
#include "nbd/control_server.h"
#include "nbd/folder_maker.h"
#include "tests/nbd/powered.h"
#include "tests/support/scratch_folder.h"

namespace nbd_test {

inline constexpr char16_t kSecond[] = u"\\Device\\HarddiskVolume2";

class Served : public testing::Test {
protected:
    Served(FileSystemKind fileSystem = FileSystemKind::Ntfs, unsigned volumes = 2) {
        nbd::NewMachine machine;
        machine.path = Folder();
        machine.size = volumes * 128 * kMiB;
        machine.volumes = volumes;
        machine.fileSystem = fileSystem;
        nbd::MakeMachine(machine);
        PowerOn();
    }
    void PowerOn() {
        server = PoweredOn(Folder());
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
    std::string Folder() const { return scratch.File("pc"); }

    // Members end in the reverse order: the control socket before the server that it speaks for.
    const TestFolder scratch;
    std::unique_ptr<nbd::Server> server;
    std::unique_ptr<nbd::ControlServer> control;
    ctl::HostedWorld world{Folder()};
};

}  // namespace nbd_test
