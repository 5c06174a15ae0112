// A hosted machine that is served in this process, from a folder of its own that goes with the process. The
// folder is made once and kept beside it as it was, so that an input can have it back.
#pragma once
#include <algorithm>
#include <filesystem>
#include <functional>
#include <unistd.h>
#include "fuzz/support.h"
#include "client/own_driver.h"
#include "client/wire_channel.h"
#include "machine/partition/subprocess.h"
#include "nbd/control_server.h"
#include "nbd/folder_maker.h"
#include "nbd/server.h"
#include "platform/host/sync/thread.h"
#include "platform/owners.h"

namespace fuzz {

inline tool::wire::VolumeName NameOf(const std::u16string& volume) {
    tool::wire::VolumeName name{};
    std::copy_n(volume.begin(), std::min(volume.size(), std::size(name.text) - 1), name.text);
    return name;
}

// Storage of that size on the first volumes of the machine that is on; they are protected from its next boot
// on.
inline void Protect(unsigned volumes, std::int64_t size, unsigned bootMode) {
    ctl::Client driver(std::make_unique<ctl::OwnDriver>(GENERIC_READ | FILE_WRITE_DATA));
    std::u16string text = config::GlobalSection(true, 0);
    for (unsigned number = 0; number < volumes; ++number) {
        driver.AllocateSwap(kVolumes[number], size);
        host::JoinSystemThreads();
        config::FixedVolumeText volume = {kVolumes[number]};
        volume.bootMode = bootMode;
        text += config::FixedSection(volume, number + 1);
    }
    driver.SetConfig(support::ConfigRecord(text));
}

class Folder {
public:
    // `prepare` gets the path of the folder that is made and may go on making.
    explicit Folder(nbd::NewMachine machine, const std::function<void(const std::string&)>& prepare = {}) {
        std::string name =
            (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/kvr-fuzz.XXXXXX");
        Require(mkdtemp(name.data()) != nullptr, "a scratch folder can be made");
        scratch_ = name;
        machine.path = scratch_ + "/made";
        nbd::MakeMachine(machine);
        if (prepare) prepare(machine.path);
        Restore();
    }
    ~Folder() { std::filesystem::remove_all(scratch_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string Path() const { return scratch_ + "/pc"; }
    std::string File(const std::string& name) const { return Path() + "/" + name; }
    // As it was made. Nothing serves it.
    void Restore() const {
        std::filesystem::remove_all(Path());
        const machine::ToolResult copied = machine::RunTool("cp", {"-r", scratch_ + "/made", Path()});
        Require(copied.exitCode == 0, copied.output);
    }

private:
    std::string scratch_;
};

// The server, with its control socket, of a folder.
class Served {
public:
    explicit Served(std::string path) : path_(std::move(path)) {}

    // False with the reason when the machine does not start.
    bool Start(std::string& why) {
        try {
            nbd::MachineFolder folder = nbd::MachineFolder::Read(path_);
            nbd::FolderLock lock(folder);
            server_ = std::make_unique<nbd::Server>(std::move(folder), std::move(lock));
            server_->Start();
            control_ = std::make_unique<nbd::ControlServer>(*server_, [this] { stopAsked_ = true; });
            return true;
        } catch (const nbd::Error& error) {
            why = error.what();
            Require(!why.empty(), "a machine that does not start says why");
            End();
            return false;
        }
    }
    void MustStart() {
        std::string why;
        Require(Start(why), why);
    }
    void End() {
        control_.reset();
        server_.reset();
        stopAsked_ = false;
    }
    bool IsOn() const { return server_ != nullptr; }
    bool StopAsked() const { return stopAsked_; }
    nbd::Server& Machine() { return *server_; }
    posix::File Connect() const {
        posix::File socket = tool::wire::ConnectToServer(path_);
        Require(socket.IsOpen(), "the control socket takes connections");
        return socket;
    }
    // The server's answer to a request that is whole; nothing of it is under way any more.
    tool::wire::Response Ask(const tool::wire::Request& request) const {
        tool::wire::Response response;
        tool::wire::Channel channel(Connect());
        Require(channel.Call(request, response), "a whole request is answered");
        channel.Finish();
        return response;
    }

private:
    const std::string path_;
    std::atomic<bool> stopAsked_{false};
    std::unique_ptr<nbd::Server> server_;
    std::unique_ptr<nbd::ControlServer> control_;
};

}  // namespace fuzz
