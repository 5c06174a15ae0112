#include "nbd/log.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nbd {
namespace {

// 2026-05-01 12:00:00.123
std::string TimeStamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto part = now.time_since_epoch() % std::chrono::seconds(1);
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
    std::snprintf(text + length, sizeof text - length, ".%03d ",
                  static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(part).count()));
    return text;
}

}  // namespace

void Log::Open(const std::string& path) {
    const std::lock_guard hold(lock_);
    path_ = path;
    Begin();
}

void Log::Begin() {
    struct stat info;
    if (stat(path_.c_str(), &info) == 0 && static_cast<std::size_t>(info.st_size) > kMostBytes)
        (void)std::rename(path_.c_str(), (path_ + ".old").c_str());  // else it goes on growing
    file_ = posix::File(open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    bytes_ = fstat(file_.Get(), &info) == 0 ? static_cast<std::size_t>(info.st_size) : 0;
}

void Log::Line(const std::string& text) {
    std::string line = TimeStamp() + text;
    // Names that clients choose must not speak to the reader's terminal.
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, ' ');
    line += '\n';
    const std::lock_guard hold(lock_);
    if (!file_.IsOpen()) return;
    if (bytes_ > kMostBytes) Begin();
    const ssize_t written = write(file_.Get(), line.data(), line.size());
    if (written > 0) bytes_ += static_cast<std::size_t>(written);
}

}  // namespace nbd
