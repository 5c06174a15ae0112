#include "tests/nbd/faults/victim.h"
#include <fstream>
#include <sstream>
#include <thread>
#include "client/failure.h"
#include "nbd/folder_maker.h"
#include "tests/nbd/powered.h"

namespace fault_sweep {
namespace {

using namespace nbd_test;
using nbd::Server;

constexpr char kExport[] = "HarddiskVolume1";
constexpr char16_t kConfiguration[] =
    u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume1\nProtectionMode=1\nBootMode=1\n";
constexpr std::uint64_t kMarkBytes = 4096;
constexpr unsigned kMarks = 4;

// Free places of the volume.
std::uint64_t PlaceOf(unsigned mark) {
    return 45 * kMiB + mark * 3 * kMarkBytes;
}

std::vector<std::uint8_t> ContentOf(unsigned mark) {
    return std::vector<std::uint8_t>(kMarkBytes, static_cast<std::uint8_t>(0xA0 + mark));
}

void Require(bool holds, const std::string& what) {
    if (!holds) throw Broken(what);
}

ctl::FixedVolume VolumeIn(ctl::HostedWorld& world) {
    ctl::Client tool(world.OpenDriver(ctl::Access::Read));
    return FirstOf(tool);
}

// What the server, now or earlier, said of changes that are not kept.
bool SaysLoss(const std::string& folder) {
    std::ostringstream log;
    log << std::ifstream(folder + "/log").rdbuf();
    for (const char* words : {"warning: HarddiskVolume1", "last flush failed", "is not saved"})
        if (log.str().find(words) != std::string::npos) return true;
    return false;
}

}  // namespace

void MakeTemplate(const std::string& folder) {
    nbd::NewMachine machine;
    machine.path = folder;
    machine.size = 64 * kMiB;
    nbd::MakeMachine(machine);
    const auto server = PoweredOn(folder);
    nbd::ControlServer control(*server, [] {});
    ctl::HostedWorld world(folder);
    ctl::Client(world.OpenDriver(ctl::Access::ReadWrite)).AllocateSwap(kFirst, 16 * kMiB);
    while (VolumeIn(world).swapStatus == ctl::kSwapProvisioning) std::this_thread::yield();
    Configure(world, kConfiguration);
    std::string why;
    Require(server->Reboot(why), why);
    auto client = server->Connect(*nbd::Export::Parse(kExport), "the first client");
    std::vector<std::uint8_t> content = ContentOf(0);
    Require(
        NT_SUCCESS(server->Transfer(*client, Server::Action::Write, PlaceOf(0), kMarkBytes, content.data())),
        "the first mark is refused");
    server->Disconnect(std::move(client));
    Require(VolumeIn(world).state != 0 && !SaysLoss(folder), "the volume is not protected");
}

// ---- the victim ------------------------------------------------------------------------------------------

// From here to the end of the block the plan strikes.
class Victim::Armed {
public:
    explicit Armed(Victim& victim) : plan_(victim.plan_) { plan_.armed = 1; }
    ~Armed() { plan_.armed = 0; }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;

private:
    host_faults::Plan& plan_;
};

Victim::Victim(std::string folder, host_faults::Plan& plan, Promises& promises)
    : folder_(std::move(folder)), plan_(plan), promises_(promises) {}

Victim::~Victim() {
    CloseAll();
    control_.reset();
}

void Victim::PowerOn() {
    server_ = PoweredOn(folder_);
    control_ = std::make_unique<nbd::ControlServer>(*server_, [] {});
}

void Victim::Open(const char* name) {
    clients_.push_back(server_->Connect(*nbd::Export::Parse(name), "a client"));
}

void Victim::CloseAll() {
    for (auto& client : clients_) server_->Disconnect(std::move(client));
    clients_.clear();
}

NTSTATUS Victim::Mark(unsigned mark) {
    std::vector<std::uint8_t> content = ContentOf(mark);
    const NTSTATUS status =
        server_->Transfer(*clients_.back(), Server::Action::Write, PlaceOf(mark), kMarkBytes, content.data());
    if (!NT_SUCCESS(status)) return status;
    const NTSTATUS flushed = server_->Transfer(*clients_.back(), Server::Action::Flush, 0, 0, nullptr);
    if (NT_SUCCESS(flushed)) promises_.durable |= 1u << mark;
    return flushed;
}

bool Victim::Holds(unsigned mark) {
    std::vector<std::uint8_t> found(kMarkBytes);
    const NTSTATUS status =
        server_->Transfer(*clients_.back(), Server::Action::Read, PlaceOf(mark), kMarkBytes, found.data());
    Require(NT_SUCCESS(status), "a mark cannot be read: " + ctl::Hex(status));
    return found == ContentOf(mark);
}

void Victim::AskTool() {
    ctl::HostedWorld world(folder_);
    static_cast<void>(VolumeIn(world));
    static_cast<void>(world.Facts(kFirst));
    ctl::Client(world.OpenDriver(ctl::Access::Read)).GetConfig();
}

void Victim::Start() {
    const Armed armed(*this);
    try {
        PowerOn();
    } catch (const std::bad_alloc&) {
        throw nbd::Error("the host has no memory for it");  // as the plugin says
    }
}

// A client's own want of memory, or of an answer, is its own trouble.
template <class Body>
static void AsClient(const Body& body) {
    try {
        body();
    } catch (const nbd::Error&) {
    } catch (const ctl::Failure&) {
    } catch (const std::bad_alloc&) {
    }
}

void Victim::Use(unsigned mark) {
    std::vector<std::uint8_t> bytes(70000);
    for (const char* name : {"disk0", kExport}) AsClient([&] { Open(name); });
    if (clients_.empty() || clients_.back()->target.wholeDisk) return;
    static_cast<void>(Mark(mark));
    Server::Connection& client = *clients_.back();
    const auto transfer = [&](Server::Action action, std::uint64_t at) {
        return server_->Transfer(client, action, at, bytes.size(), bytes.data());
    };
    static_cast<void>(transfer(Server::Action::Read, 20 * kMiB + 100));
    static_cast<void>(transfer(Server::Action::Write, 24 * kMiB + 100));
    static_cast<void>(transfer(Server::Action::Zero, 25 * kMiB));
}

void Victim::Requests() {
    PowerOn();
    {
        const Armed armed(*this);
        AsClient([&] { AskTool(); });
        AsClient([&] { Use(1); });
        AsClient([&] { CloseAll(); });
    }
    CloseAll();
}

void Victim::Save() {
    PowerOn();
    Open(kExport);
    const Armed armed(*this);
    AsClient([&] { static_cast<void>(Mark(1)); });  // a boot's first write has the map saved
    AsClient([&] {
        ctl::HostedWorld world(folder_);
        Configure(world, std::u16string(kConfiguration) + u";\n");
        world.WriteSwitch(u"ConfigShareRead", true);
    });
}

// A boot's first write has the map saved, the second one waits for the shutdown's save.
void Victim::WorkBeforeTheEnd() {
    PowerOn();
    for (const char* name : {"disk0", kExport}) Open(name);
    Require(NT_SUCCESS(Mark(1)) && NT_SUCCESS(Mark(3)), "a write is refused");
}

void Victim::Reboot() {
    WorkBeforeTheEnd();
    bool up = false;
    std::string why;
    {
        const Armed armed(*this);
        up = server_->Reboot(why);
    }
    if (!up && why.empty()) throw Broken("a reboot fails without a reason");
    if (!up) throw nbd::Error(why);
}

void Victim::Stop() {
    WorkBeforeTheEnd();
    const Armed armed(*this);
    server_->Stop();
    CloseAll();
    control_.reset();
    server_.reset();
}

void Victim::CheckServes() {
    AskTool();
    // A volume left raw by one fault would cost what is kept there.
    const auto facts = ctl::HostedWorld(folder_).Facts(kFirst);
    Require(facts && facts->fileSystem == FileSystemKind::Ntfs, "the volume is not mounted");
    Open(kExport);
    const NTSTATUS status = Mark(2);
    Require(NT_SUCCESS(status) || SaysLoss(folder_), "a write is refused: " + ctl::Hex(status));
    CheckPromises();
    CloseAll();
}

void Victim::CheckPromises() {
    for (unsigned mark = 0; mark < kMarks; ++mark) {
        if ((promises_.durable & 1u << mark) == 0 || Holds(mark)) continue;
        promises_.lost |= 1u << mark;
        Require(SaysLoss(folder_), "mark " + std::to_string(mark) + " is lost");
    }
}

// ---- the one behind it -----------------------------------------------------------------------------------

void CheckNextStart(const std::string& folder, Promises& promises, bool inOrder) {
    host_faults::Plan none{};
    if (!inOrder) promises.durable = 1;
    promises.lost = 0;
    Victim next(folder, none, promises);
    try {
        next.Start();
    } catch (const std::exception& error) {
        throw Broken(std::string("the next start fails: ") + error.what());
    }
    {
        ctl::HostedWorld world(folder);
        Require(VolumeIn(world).state != 0 || SaysLoss(folder), "the volume is protected no more");
    }
    next.CheckServes();
}

}  // namespace fault_sweep
