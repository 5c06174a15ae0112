// What the tool needs of the computer on which it runs, where that is a POSIX one.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>
#include "client/failure.h"
#include "tool/kvrctl/host.h"

namespace ctl {
namespace {

volatile std::sig_atomic_t gInterrupted = 0;

void OnInterrupt(int) {
    gInterrupted = 1;
}

timespec Time(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000), static_cast<long>(time.count() % 1000) * 1000000};
}

const char* EditorCommand() {
    for (const char* name : {"VISUAL", "EDITOR"}) {
        const char* editor = std::getenv(name);
        if (editor && *editor) return editor;
    }
    return "vi";
}

}  // namespace

HostTerminal::HostTerminal(std::ostream& output, std::ostream& errors) : Terminal(output, errors) {
    isTerminal = isatty(STDOUT_FILENO) == 1;
    canAsk = isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
    const char* const plain = std::getenv("NO_COLOR");
    colour = isTerminal && (plain == nullptr || *plain == 0);
    winsize size{};
    if (isTerminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) width = size.ws_col;
}

void HostTerminal::CatchInterrupt() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The signals are open only inside the wait: one that comes between the test and the wait is not lost.
bool HostTerminal::Pause(std::chrono::milliseconds time) {
    sigset_t stops, before;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, &before);
    const timespec wait = Time(time);
    if (!gInterrupted) pselect(0, nullptr, nullptr, nullptr, &wait, &before);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return !gInterrupted;
}

std::string MakePrivateFolder() {
    std::string folder = (std::filesystem::temp_directory_path() / "kvrctl.XXXXXX").string();
    if (!mkdtemp(folder.data()))
        throw Failure("no temporary folder can be made: " + std::string(std::strerror(errno)));
    return folder;
}

void RunEditor(const std::string& path) {
    setenv("KVRCTL_FILE", path.c_str(), 1);
    const std::string command = std::string(EditorCommand()) + " \"$KVRCTL_FILE\"";
    const int result = std::system(command.c_str());
    if (result == -1 || !WIFEXITED(result) || WEXITSTATUS(result) != 0)
        throw Failure("the editor '" + std::string(EditorCommand()) + "' failed; nothing was stored");
}

}  // namespace ctl
