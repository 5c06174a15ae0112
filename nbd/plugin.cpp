// nbdkit-kvr-plugin: a hosted machine's disks and volumes as nbdkit's exports.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include "client/status.h"
#include "client/version.h"
#include "nbd/control_server.h"
#include "nbd/end_watch.h"
#include "nbd/idle_reboot.h"
#include "nbd/server.h"

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

namespace {

using nbd::Server;

std::string gFolder;
int gLock = -1;
int gIdleSeconds = -1;  // negative: nobody's going reboots the machine
std::unique_ptr<Server> gServer;
std::unique_ptr<nbd::EndWatch> gEnd;
std::unique_ptr<nbd::ControlServer> gControl;
std::unique_ptr<nbd::IdleReboot> gIdle;

// Runs `body`, which may throw; false with the reason told to nbdkit.
template <class Body>
bool Guarded(const Body& body) {
    try {
        body();
        return true;
    } catch (const std::bad_alloc&) {
        nbdkit_error("the host has no memory for it");
    } catch (const std::exception& error) {
        nbdkit_error("%s", error.what());
    }
    return false;
}

// ---- start and end ---------------------------------------------------------------------------------------

int Config(const char* key, const char* value) {
    if (std::strcmp(key, "machine") == 0) {
        char* path = nbdkit_realpath(value);
        if (path == nullptr) return -1;
        gFolder = path;
        std::free(path);
        return 0;
    }
    if (std::strcmp(key, "lock") == 0) return nbdkit_parse_int("lock", value, &gLock);
    if (std::strcmp(key, "reboot-when-idle") == 0) return nbdkit_parse_int(key, value, &gIdleSeconds);
    nbdkit_error("unknown parameter '%s'; the plugin takes machine=FOLDER", key);
    return -1;
}

int ConfigComplete() {
    if (!gFolder.empty()) return 0;
    nbdkit_error("which machine? (machine=FOLDER, made by kvrhost create)");
    return -1;
}

// Everything that can be wrong with the folder is found while nbdkit still has the terminal.
int GetReady() {
    const bool ready = Guarded([] {
        nbd::MachineFolder folder = nbd::MachineFolder::Read(gFolder);
        if (gLock >= 0) {
            fcntl(gLock, F_SETFD, FD_CLOEXEC);
            umask(0177);  // kvrhost's socket, which nbdkit is about to make, is for its owner alone
        }
        nbd::FolderLock lock = gLock >= 0 ? nbd::FolderLock(gLock) : nbd::FolderLock(folder);
        gServer = std::make_unique<Server>(std::move(folder), std::move(lock));
    });
    return ready ? 0 : -1;
}

void RemoveSockets() {
    unlink(gServer->Folder().File(tool::wire::kSocketName).c_str());
    if (gLock >= 0) unlink(gServer->Folder().File(nbd::kNbdSocket).c_str());
}

void End() {
    gServer->Stop();
    nbdkit_shutdown();
}

// The machine is off; what is left is nbdkit's, which waits for a client.
void GiveUp() {
    gServer->Log().Line("server: ends with clients connected");
    RemoveSockets();
    _exit(0);
}

// The machine's kernel makes threads, which a fork would lose.
int AfterFork() {
    const bool started = Guarded([] {
        gEnd = std::make_unique<nbd::EndWatch>(End, GiveUp);
        gServer->Start();
        gControl = std::make_unique<nbd::ControlServer>(*gServer, [] { gEnd->Ask(); });
        if (gIdleSeconds >= 0)
            gIdle = std::make_unique<nbd::IdleReboot>(*gServer, std::chrono::seconds(gIdleSeconds));
    });
    return started ? 0 : -1;
}

// No connection is left when nbdkit comes here.
void Cleanup() {
    gIdle.reset();
    gControl.reset();
    if (gServer != nullptr) RemoveSockets();
    gEnd.reset();
    gServer.reset();
}

// ---- connections -----------------------------------------------------------------------------------------

std::string ProgramOf(std::int64_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return (name.empty() ? "a program" : nbd::Printable(name)) + " (pid " + std::to_string(pid) + ")";
}

// The client at the other end of this thread's connection.
std::string Peer() {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (nbdkit_peer_name(reinterpret_cast<sockaddr*>(&address), &length) != 0) return "a client";
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_UNIX) {
        const std::int64_t pid = nbdkit_peer_pid();
        return pid > 0 ? ProgramOf(pid) : "a program";
    }
    if (address.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&address)->sin_addr, text, sizeof text);
    if (address.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr, text, sizeof text);
    return text[0] != 0 ? std::string("a client at ") + text : "a client";
}

Server::Connection& ConnectionOf(void* handle) {
    return *static_cast<Server::Connection*>(handle);
}

void* Open(int) {
    std::unique_ptr<Server::Connection> connection;
    try {
        const std::string name = nbdkit_export_name();
        const std::optional<nbd::Export> target = nbd::Export::Parse(name);
        if (!target) throw nbd::Error("there is no export '" + nbd::Printable(name) + "'");
        connection = gServer->Connect(*target, Peer());
    } catch (const std::bad_alloc&) {
        nbdkit_error("the host has no memory for another client");
        gServer->NoMemory("client: refused");
    } catch (const std::exception& error) {
        nbdkit_error("%s", error.what());
        gServer->Log().Line("client: refused: ", error.what());
    }
    return connection.release();
}

void Close(void* handle) {
    gServer->Disconnect(std::unique_ptr<Server::Connection>(&ConnectionOf(handle)));
    if (gIdle != nullptr) gIdle->ClientLeft();
}

int ListExports(int, int, nbdkit_exports* exports) {
    int result = 0;
    const bool listed = Guarded([&] {
        for (const Server::ExportLine& line : gServer->Exports()) {
            if (result == 0) result = nbdkit_add_export(exports, line.name.c_str(), line.description.c_str());
        }
    });
    return listed ? result : -1;
}

const char* DefaultExport(int, int) {
    return nbd::kDefaultExport;
}

const char* ExportDescription(void* handle) {
    const bool wholeDisk = ConnectionOf(handle).target.wholeDisk;
    return wholeDisk ? "a disk of a hosted machine" : "a volume of a hosted machine";
}

std::int64_t GetSize(void* handle) {
    return static_cast<std::int64_t>(ConnectionOf(handle).size);
}

// Clients that are told of a minimum refuse whatever is smaller by themselves; here parts of sectors are
// served.
int BlockSize(void*, std::uint32_t* minimum, std::uint32_t* preferred, std::uint32_t* maximum) {
    *minimum = 1;
    *preferred = 4096;
    *maximum = 32 * 1024 * 1024;
    return 0;
}

int Yes(void*) {
    return 1;
}

int No(void*) {
    return 0;
}

int NativeFua(void*) {
    return NBDKIT_FUA_NATIVE;
}

// ---- requests --------------------------------------------------------------------------------------------

// The errno that says most nearly what the status does; the protocol knows a handful.
int ErrnoOf(NTSTATUS status) {
    switch (status) {
        case STATUS_DISK_FULL:
            return ENOSPC;
        case STATUS_ACCESS_DENIED:
        case STATUS_MEDIA_WRITE_PROTECTED:
            return EPERM;
        case STATUS_INSUFFICIENT_RESOURCES:
            return ENOMEM;
        case STATUS_INVALID_PARAMETER:
            return EINVAL;
        case STATUS_NOT_SUPPORTED:
        case STATUS_INVALID_DEVICE_REQUEST:
            return ENOTSUP;
        case STATUS_DEVICE_POWERED_OFF:
            return ESHUTDOWN;
        default:
            return EIO;
    }
}

int Report(void* handle, const char* what, std::uint64_t offset, std::uint64_t length, NTSTATUS status) {
    if (NT_SUCCESS(status)) return 0;
    const std::string line = std::string(what) + " of " + std::to_string(length) + " bytes at " +
                             std::to_string(offset) + " of " + ConnectionOf(handle).target.Name() +
                             " fails: " + ctl::Hex(status);
    gServer->Log().Line("client: " + line);
    nbdkit_error("%s", line.c_str());
    nbdkit_set_error(ErrnoOf(status));
    return -1;
}

// Carries a request out and answers it. For want of memory it fails, and nothing else ends.
template <class Work>
int Answer(void* handle, const char* what, std::uint64_t offset, std::uint64_t length, const Work& work) {
    try {
        return Report(handle, what, offset, length, work());
    } catch (const std::bad_alloc&) {
        gServer->NoMemory("client");
        nbdkit_set_error(ENOMEM);
        return -1;
    }
}

NTSTATUS Transfer(void* handle, Server::Action action, std::uint64_t offset, std::uint64_t length,
                  void* buffer = nullptr) {
    return gServer->Transfer(ConnectionOf(handle), action, offset, length, buffer);
}

// What must be on the disk before the client is answered.
NTSTATUS FlushIfAsked(void* handle, std::uint32_t flags, NTSTATUS status) {
    if (!NT_SUCCESS(status) || (flags & NBDKIT_FLAG_FUA) == 0) return status;
    return Transfer(handle, Server::Action::Flush, 0, 0);
}

int Read(void* handle, void* buffer, std::uint32_t count, std::uint64_t offset, std::uint32_t) {
    return Answer(handle, "read", offset, count,
                  [&] { return Transfer(handle, Server::Action::Read, offset, count, buffer); });
}

int Write(void* handle, const void* buffer, std::uint32_t count, std::uint64_t offset, std::uint32_t flags) {
    // Only a read fills the buffer.
    void* const data = const_cast<void*>(buffer);
    return Answer(handle, "write", offset, count, [&] {
        return FlushIfAsked(handle, flags, Transfer(handle, Server::Action::Write, offset, count, data));
    });
}

int Zero(void* handle, std::uint32_t count, std::uint64_t offset, std::uint32_t flags) {
    return Answer(handle, "write of zeros", offset, count, [&] {
        return FlushIfAsked(handle, flags, Transfer(handle, Server::Action::Zero, offset, count));
    });
}

int Flush(void* handle, std::uint32_t) {
    return Answer(handle, "flush", 0, 0, [&] { return Transfer(handle, Server::Action::Flush, 0, 0); });
}

nbdkit_plugin MakePlugin() {
    nbdkit_plugin plugin{};
    plugin.name = "kvr";
    plugin.version = ctl::Version();
    plugin.longname = "Kvr: disks of a hosted machine";
    plugin.description = "Serves the disks and volumes of a hosted machine through the Kvr driver.";
    plugin.config = Config;
    plugin.config_complete = ConfigComplete;
    plugin.config_help =
        "machine=FOLDER         (required) The machine's folder, made by kvrhost create.\n"
        "reboot-when-idle=N     Reboot it when its last client has been gone for N seconds.";
    plugin.magic_config_key = "machine";
    plugin.get_ready = GetReady;
    plugin.after_fork = AfterFork;
    plugin.cleanup = Cleanup;
    plugin.open = Open;
    plugin.close = Close;
    plugin.list_exports = ListExports;
    plugin.default_export = DefaultExport;
    plugin.export_description = ExportDescription;
    plugin.get_size = GetSize;
    plugin.block_size = BlockSize;
    plugin.can_write = Yes;
    plugin.can_flush = Yes;
    plugin.can_fua = NativeFua;
    plugin.can_multi_conn = Yes;
    plugin.can_zero = Yes;
    plugin.can_fast_zero = No;
    plugin.can_trim = No;
    plugin.is_rotational = No;
    plugin.pread = Read;
    plugin.pwrite = Write;
    plugin.zero = Zero;
    plugin.flush = Flush;
    return plugin;
}

nbdkit_plugin gPlugin = MakePlugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(gPlugin)
