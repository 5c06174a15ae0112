#include "nbd/log.h"
#include <algorithm>
#include <cerrno>
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

// In UTF-8 the second half of the control characters is C2 80 to C2 9F.
std::string Printable(std::string text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = [&](std::size_t i) {
            return i < text.size() ? static_cast<unsigned char>(text[i]) : 0xFFu;
        };
        if (byte(at) < ' ' || byte(at) == 0x7F) text[at] = ' ';
        if (byte(at) == 0xC2 && byte(at + 1) >= 0x80 && byte(at + 1) < 0xA0) text.replace(at, 2, "  ");
    }
    return text;
}

void Log::Open(const std::string& path) {
    const std::lock_guard hold(lock_);
    path_ = path;
    Begin();
}

void Log::Begin() {
    struct stat info;
    if (stat(path_.c_str(), &info) == 0 && static_cast<std::size_t>(info.st_size) > kMostBytes)
        (void)std::rename(path_.c_str(), (path_ + ".old").c_str());  // else it goes on growing
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    file_ = posix::File(open(path_.c_str(), kFlags, 0600));
    if (!file_.IsOpen() && errno == ELOOP) {  // a link that somebody put there is not written through
        unlink(path_.c_str());
        file_ = posix::File(open(path_.c_str(), kFlags, 0600));
    }
    bytes_ = fstat(file_.Get(), &info) == 0 ? static_cast<std::size_t>(info.st_size) : 0;
}

void Log::Line(const std::string& text) {
    const std::string line = TimeStamp() + Printable(text) + '\n';
    const std::lock_guard hold(lock_);
    if (!file_.IsOpen()) return;
    if (bytes_ > kMostBytes) Begin();
    const ssize_t written = write(file_.Get(), line.data(), line.size());
    if (written > 0) bytes_ += static_cast<std::size_t>(written);
}

}  // namespace nbd
