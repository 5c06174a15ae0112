// The server's log: lines with the time (UTC) in front, in a file that is put aside when it has grown.
#pragma once
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include "posix/file_io.h"

namespace nbd {

// The text with a blank for each control character: names that clients choose must not speak to a terminal.
std::string Printable(std::string text);

// Thread-safe. A line that cannot be written is lost: the log must not stop what it tells about.
class Log {
public:
    // Appends to `path`; a log of more than kMostBytes becomes `path`.old first, here and later.
    void Open(const std::string& path);
    // Needs no memory; a line of more than kMostLine bytes loses its end.
    void Line(std::string_view text) noexcept { Line(text, {}); }
    void Line(std::string_view text, std::string_view more) noexcept;

    static constexpr std::size_t kMostLine = 4096;
    static constexpr std::size_t kMostBytes = 4 * 1024 * 1024;

private:
    void Begin();

    std::mutex lock_;  // guards what follows
    std::string path_, old_;
    posix::File file_;
    std::size_t bytes_ = 0;
};

}  // namespace nbd
