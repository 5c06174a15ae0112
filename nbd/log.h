// The server's log: lines with the time (UTC) in front, in a file that is put aside when it has grown.
#pragma once
#include <cstddef>
#include <mutex>
#include <string>

namespace nbd {

// Thread-safe. A line that cannot be written is lost: the log must not stop what it tells about.
class Log {
public:
    Log() = default;
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Appends to `path`; a log of more than kMostBytes becomes `path`.old first, here and later.
    void Open(const std::string& path);
    void Line(const std::string& text);

    static constexpr std::size_t kMostBytes = 4 * 1024 * 1024;

private:
    void Begin();

    std::mutex lock_;  // guards what follows
    std::string path_;
    int file_ = -1;
    std::size_t bytes_ = 0;
};

}  // namespace nbd
