#include "machine/partition/subprocess.h"
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace machine {
namespace {

constexpr std::size_t kMostOutput = 64 * 1024;

// Formatting tools live in folders that an ordinary user's PATH leaves out.
std::string FindTool(const std::string& tool) {
    const char* path = std::getenv("PATH");
    std::string folders = path != nullptr ? path : "";
    folders += ":/usr/sbin:/sbin:/usr/bin:/bin";
    for (std::size_t at = 0; at <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', at), folders.size());
        const std::string candidate = folders.substr(at, end - at) + "/" + tool;
        if (end != at && access(candidate.c_str(), X_OK) == 0) return candidate;
        at = end + 1;
    }
    return {};
}

std::string ReadAll(int file) {
    std::string output;
    char part[4096];
    for (;;) {
        const ssize_t done = read(file, part, sizeof part);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return output;
        // Read on past the limit: the tool must not be stopped by a full pipe.
        output.append(part, std::min(static_cast<std::size_t>(done), kMostOutput - output.size()));
    }
}

bool Spawn(const std::string& program, const std::vector<std::string>& arguments, int output, pid_t& child) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return false;
    const bool ready = posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0) == 0 &&
                       posix_spawn_file_actions_adddup2(&actions, output, 1) == 0 &&
                       posix_spawn_file_actions_adddup2(&actions, output, 2) == 0;
    const bool started =
        ready && posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    return started;
}

}  // namespace

ToolResult RunTool(const std::string& tool, const std::vector<std::string>& arguments) {
    ToolResult result{false, 0, {}};
    const std::string program = FindTool(tool);
    int ends[2];
    if (program.empty() || pipe2(ends, O_CLOEXEC) != 0) return result;
    pid_t child = 0;
    result.started = Spawn(program, arguments, ends[1], child);
    close(ends[1]);
    if (result.started) result.output = ReadAll(ends[0]);
    close(ends[0]);
    int status = 0;
    while (result.started && waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) break;
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace machine
