#include "tool/kvrhost/serve.h"
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include "client/status.h"
#include "client/wire_channel.h"
#include "nbd/machine_folder.h"
#include "tool/error.h"
#include "tool/kvrhost/lines.h"
#include "tool/kvrhost/notify.h"
#include "tool/kvrhost/volume_lines.h"

namespace tool {
namespace {

using nbd::MachineFolder;
using wire::Command;

constexpr std::chrono::milliseconds kPollPeriod{10};
constexpr std::chrono::seconds kLongestStop{60};
constexpr char kPlugin[] = "nbdkit-kvr-plugin.so";
constexpr char kSendGuard[] = "kvr-send-guard.so";

// A library beside the tool as it was built or installed; empty when there is none.
std::string FindLibrary(const char* name) {
    std::array<char, 4096> self{};
    const ssize_t length = readlink("/proc/self/exe", self.data(), self.size() - 1);
    const std::string program(self.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::string folder = program.substr(0, program.rfind('/'));
    for (const char* place : {"/", "/../nbd/", "/../lib/kvr/"}) {
        std::string path = folder + place + name;
        if (access(path.c_str(), R_OK) == 0) return path;
    }
    return {};
}

// Else a name that nbdkit looks up among its own plugins.
std::string FindPlugin() {
    const std::string path = FindLibrary(kPlugin);
    return path.empty() ? "kvr" : path;
}

// ---- the child -------------------------------------------------------------------------------------------

std::vector<std::string> NbdkitArguments(const MachineFolder& folder, const ServeOptions& options, int lock) {
    std::vector<std::string> arguments = {"nbdkit", "--unix", folder.File(nbd::kNbdSocket)};
    if (!options.background) arguments.push_back("--foreground");
    arguments.push_back(FindPlugin());
    arguments.push_back("machine=" + folder.path);
    arguments.push_back("lock=" + std::to_string(lock));
    if (options.rebootWhenIdle) arguments.push_back("reboot-when-idle=" + std::to_string(options.idleSeconds));
    // Behind the plugin's name: nbdkit takes its options anywhere, but a filter's KEY=VALUE only there.
    arguments.insert(arguments.end(), options.further.begin(), options.further.end());
    return arguments;
}

// Behind what the user loads into programs.
void LoadSendGuard() {
    const std::string guard = FindLibrary(kSendGuard);
    if (guard.empty()) return;
    const char* others = std::getenv("LD_PRELOAD");
    const bool alone = others == nullptr || *others == 0;
    setenv("LD_PRELOAD", alone ? guard.c_str() : (others + (":" + guard)).c_str(), 1);
}

[[noreturn]] void BecomeNbdkit(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    LoadSendGuard();
    execvp(argv[0], argv.data());
    std::fprintf(stderr, "kvrhost: cannot start nbdkit: %s (it comes with the package nbdkit)\n",
                 std::strerror(errno));
    _exit(127);
}

// In the background nbdkit ends the process that is started here once it has found nothing wrong.
pid_t StartServer(const MachineFolder& folder, const ServeOptions& options) {
    const nbd::FolderLock lock(folder);
    // What a server that died left behind; the lock says that none lives.
    unlink(folder.File(nbd::kNbdSocket).c_str());
    unlink(folder.File(wire::kSocketName).c_str());
    const std::vector<std::string> arguments = NbdkitArguments(folder, options, lock.Descriptor());
    const pid_t child = fork();
    if (child < 0) throw Error(std::string("cannot start a process: ") + std::strerror(errno));
    if (child != 0) return child;
    fcntl(lock.Descriptor(), F_SETFD, 0);
    BecomeNbdkit(arguments);
}

// ---- the parent ------------------------------------------------------------------------------------------

volatile std::sig_atomic_t gChild = 0;

void PassOn(int signal) {
    if (gChild != 0) kill(gChild, signal);
}

void PassSignalsOn(pid_t child) {
    gChild = child;
    struct sigaction action {};
    action.sa_handler = PassOn;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
    // The terminal sends this one to the server as well.
    action.sa_handler = SIG_IGN;
    sigaction(SIGINT, &action, nullptr);
}

int ExitCodeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool IsAnswering(const MachineFolder& folder) {
    return wire::ConnectToServer(folder.path).IsOpen();
}

// The last line that the server left in its log.
std::string LastLogLine(const MachineFolder& folder) {
    std::ifstream log(folder.File(nbd::kLogFile));
    std::string line, last;
    while (std::getline(log, line)) last = line;
    return last;
}

bool IsServed(const MachineFolder& folder) {
    try {
        const nbd::FolderLock lock(folder);
        return false;
    } catch (const nbd::Error&) {
        return true;
    }
}

int WaitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return ExitCodeOf(status);
}

// False, with the exit code, when the server ended before it was ready. It has said why.
bool WaitUntilReady(const MachineFolder& folder, const ServeOptions& options, pid_t child, int& exitCode) {
    if (options.background) {
        exitCode = WaitFor(child);
        if (exitCode != 0) return false;
    }
    for (;;) {
        if (IsAnswering(folder)) return true;
        int status = 0;
        if (!options.background && waitpid(child, &status, WNOHANG) == child) {
            exitCode = ExitCodeOf(status);
            return false;
        }
        if (options.background && !IsServed(folder))
            throw Error("the server ended before it was ready: " + LastLogLine(folder));
        std::this_thread::sleep_for(kPollPeriod);
    }
}

// ---- a running server ------------------------------------------------------------------------------------

// Throws Error when it refuses. `room`: for an answer's output, bytes.
wire::Response Call(const MachineFolder& folder, Command command, std::uint32_t room = 0) {
    posix::File socket = wire::ConnectToServer(folder.path);
    if (!socket.IsOpen() && (errno == EACCES || errno == EPERM))
        throw Error("the machine in " + folder.path + " belongs to another user");
    if (!socket.IsOpen()) throw Error("the machine in " + folder.path + " is not being served");
    wire::Response response;
    if (!wire::Channel(std::move(socket)).Call({command, 0, {}, room}, response))
        throw Error("the server of " + folder.path + " ended without an answer");
    if (!ctl::IsSuccess(response.status))
        throw Error(response.text.empty() ? "the server answers " + ctl::StatusText(response.status)
                                          : response.text);
    return response;
}

// What it says beside its answer.
std::string Ask(const MachineFolder& folder, Command command) {
    return Call(folder, command).text;
}

void PrintVolumes(const MachineFolder& folder) {
    const std::vector<std::uint8_t> bytes = Call(folder, Command::Volumes, wire::kMaximumLength).output;
    std::vector<wire::VolumeText> volumes(bytes.size() / sizeof(wire::VolumeText));
    if (!volumes.empty()) std::memcpy(volumes.data(), bytes.data(), volumes.size() * sizeof(wire::VolumeText));
    std::fputs(VolumeLines(volumes).c_str(), stdout);
}

// What is not as configured, before anything else is said, and what the boot did with each volume's changes.
// The exit code says what is not as configured too. Notes are for the user to know and change no exit code.
int PrintBoot(const MachineFolder& folder) {
    std::istringstream lines(Ask(folder, Command::About));
    int exitCode = 0;
    std::string deeds;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string kind, volume, did, bytes, ranges, sentence;
        words >> kind;
        if (kind == "boot:" && words >> volume >> did >> bytes >> ranges &&
            std::getline(words >> std::ws, sentence))
            deeds += sentence + "\n";
        if (kind == "note:") std::printf("Note: %s.\n", line.c_str() + line.find(' ') + 1);
        if (kind != "warning:") continue;
        std::printf("WARNING: %s.\n", line.c_str() + line.find(' ') + 1);
        exitCode = kExitNotAsConfigured;
    }
    std::fputs(deeds.c_str(), stdout);
    std::fflush(stdout);
    return exitCode;
}

// Is it a line of the driver's own? "2026-05-01 12:00:00.123 driver: Kvr!..."
bool IsDrivers(const std::string& line) {
    constexpr std::size_t kTime = 24;
    return line.compare(std::min(kTime, line.size()), 8, "driver: ") == 0;
}

// Whole lines only: what is still being written is left for the next time.
void PrintLines(std::ifstream& log, bool withDriver) {
    for (;;) {
        const std::streampos begin = log.tellg();
        std::string line;
        if (!std::getline(log, line) || log.eof()) {
            log.clear();
            log.seekg(begin);
            break;
        }
        if (withDriver || !IsDrivers(line)) std::cout << line << "\n";
    }
    std::cout << std::flush;
}

}  // namespace

int Serve(const ServeOptions& options) {
    const MachineFolder folder = MachineFolder::Read(options.folder);
    const pid_t child = StartServer(folder, options);
    if (!options.background) PassSignalsOn(child);
    int exitCode = 0;
    if (!WaitUntilReady(folder, options, child, exitCode)) return exitCode;
    exitCode = PrintBoot(folder);
    PrintVolumes(folder);
    std::printf("%s", LinesToPaste(folder).c_str());
    std::fflush(stdout);
    NotifyReady();
    return options.background ? exitCode : WaitFor(child);
}

int Reboot(const std::string& path) {
    const MachineFolder folder = MachineFolder::Read(path);
    Ask(folder, Command::Reboot);
    return PrintBoot(folder);
}

int Stop(const std::string& path) {
    const MachineFolder folder = MachineFolder::Read(path);
    Ask(folder, Command::Stop);
    const auto end = std::chrono::steady_clock::now() + kLongestStop;
    while (IsServed(folder)) {
        if (std::chrono::steady_clock::now() > end)
            throw Error("the machine in " + folder.path + " is off, but its server does not end");
        std::this_thread::sleep_for(kPollPeriod);
    }
    return 0;
}

int ShowLog(const std::string& path, bool follow, bool withDriver) {
    const MachineFolder folder = MachineFolder::Read(path);
    std::ifstream log(folder.File(nbd::kLogFile));
    if (!log && access(folder.File(nbd::kLogFile).c_str(), F_OK) == 0)
        throw Error("the log of " + folder.path + " cannot be read: " + std::strerror(errno));
    if (!log) throw Error("the machine in " + folder.path + " has no log; it was never served");
    for (;;) {
        PrintLines(log, withDriver);
        if (!follow || !std::cout) return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

}  // namespace tool
