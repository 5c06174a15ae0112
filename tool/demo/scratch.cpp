#include "tool/demo/scratch.h"
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include "posix/file_io.h"
#include "tool/demo/report.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};

std::string ParentFolder(const std::string& parent) {
    if (!parent.empty()) return parent;
    const char* variable = std::getenv("TMPDIR");
    return variable != nullptr && *variable != 0 ? variable : "/tmp";
}

void RequireRoom(const std::string& folder, std::uint64_t needed) {
    struct statvfs info;
    if (statvfs(folder.c_str(), &info) != 0)
        throw Error("cannot use " + folder + " for the disk images: " + std::strerror(errno));
    const std::uint64_t free = static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
    if (free < needed)
        throw Error(folder + " has " + Bytes(free) + " free, the disk images need " + Bytes(needed));
}

class Folder {
public:
    explicit Folder(const std::string& parent) : path_(parent + "/kvrhost.XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr)
            throw Error("cannot make a folder in " + parent + ": " + std::strerror(errno));
    }
    ~Folder() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
        if (error)
            std::fprintf(stderr, "kvrhost: cannot remove %s: %s\n", path_.c_str(), error.message().c_str());
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// Holds back the signals that end a process, and a child's end, until WaitForSignal asks for them.
class HeldSignals {
public:
    HeldSignals() {
        sigemptyset(&held_);
        for (int signal : kEndingSignals) sigaddset(&held_, signal);
        sigaddset(&held_, SIGCHLD);
        sigprocmask(SIG_BLOCK, &held_, &before_);
    }
    ~HeldSignals() { Release(); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    void Release() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    int Wait() {
        int signal = 0;
        sigwait(&held_, &signal);
        return signal;
    }

private:
    sigset_t held_{};
    sigset_t before_{};
};

[[noreturn]] void RunChild(HeldSignals& signals, pid_t parent, const std::string& folder,
                           const std::function<int(const std::string&)>& work) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(128 + SIGKILL);  // it ended before the line above
    signals.Release();
    const int code = work(folder);
    std::fflush(nullptr);
    _exit(code);
}

// The child's wait status; a signal that came first ends the child and is returned in `signal`.
int WaitForChild(HeldSignals& signals, pid_t child, int& signal) {
    int status = 0;
    signal = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        const int came = signals.Wait();
        if (came == SIGCHLD) continue;
        signal = came;
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        break;
    }
    return status;
}

}  // namespace

int RunInScratch(const std::string& parent, std::uint64_t needed,
                 const std::function<int(const std::string& folder)>& work) {
    const std::string place = ParentFolder(parent);
    RequireRoom(place, needed);
    HeldSignals signals;
    const Folder folder(place);
    std::fflush(nullptr);
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child < 0) throw Error(std::string("cannot start a process: ") + std::strerror(errno));
    if (child == 0) RunChild(signals, self, folder.Path(), work);
    int signal = 0;
    const int status = WaitForChild(signals, child, signal);
    if (signal != 0) return 128 + signal;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    std::fprintf(stderr, "kvrhost: stopped by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
    return 128 + WTERMSIG(status);
}

}  // namespace tool
