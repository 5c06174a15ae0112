#include "nbd/log.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nbd {
namespace {

// "2026-05-01 12:00:00.123 "; returns its length.
std::size_t PutTimeStamp(char (&text)[40]) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto part = now.time_since_epoch() % std::chrono::seconds(1);
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
    std::snprintf(text + length, sizeof text - length, ".%03d ",
                  static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(part).count()));
    return std::strlen(text);
}

// In UTF-8 the second half of the control characters is C2 80 to C2 9F.
void MakePrintable(char* at, const char* end) {
    for (; at < end; ++at) {
        const auto byte = static_cast<unsigned char>(*at);
        const unsigned char next = at + 1 < end ? static_cast<unsigned char>(at[1]) : 0xFF;
        if (byte == 0xC2 && next >= 0x80 && next < 0xA0) *at++ = ' ', *at = ' ';
        if (byte < ' ' || byte == 0x7F) *at = ' ';
    }
}

}  // namespace

std::string Printable(std::string text) {
    MakePrintable(text.data(), text.data() + text.size());
    return text;
}

void Log::Open(const std::string& path) {
    const std::lock_guard hold(lock_);
    path_ = path;
    old_ = path + ".old";
    Begin();
}

void Log::Begin() {
    struct stat info;
    if (stat(path_.c_str(), &info) == 0 && static_cast<std::size_t>(info.st_size) > kMostBytes)
        (void)std::rename(path_.c_str(), old_.c_str());  // else it goes on growing
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    file_ = posix::File(open(path_.c_str(), kFlags, 0600));
    if (!file_.IsOpen() && errno == ELOOP) {  // a link that somebody put there is not written through
        unlink(path_.c_str());
        file_ = posix::File(open(path_.c_str(), kFlags, 0600));
    }
    bytes_ = fstat(file_.Get(), &info) == 0 ? static_cast<std::size_t>(info.st_size) : 0;
}

void Log::Line(std::string_view text, std::string_view more) noexcept {
    char line[40 + kMostLine + 1];
    char stamp[40];
    char* const begin = std::copy_n(stamp, PutTimeStamp(stamp), line);
    text = text.substr(0, kMostLine);
    more = more.substr(0, kMostLine - text.size());
    char* end = std::copy(more.begin(), more.end(), std::copy(text.begin(), text.end(), begin));
    MakePrintable(begin, end);
    *end++ = '\n';
    const std::lock_guard hold(lock_);
    if (!file_.IsOpen()) return;
    if (bytes_ > kMostBytes) Begin();
    const ssize_t written = write(file_.Get(), line, static_cast<std::size_t>(end - line));
    if (written > 0) bytes_ += static_cast<std::size_t>(written);
}

}  // namespace nbd
