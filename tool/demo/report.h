// The tool: what a user starts. It builds a hosted machine, uses it as software and its administrator would,
// and looks at the disk images from outside. Start with demo.h; this header is what the user sees.
//
// A report is a list of checks under headings. Each check says what was measured and whether that is what it
// must be; the last line counts them.
#pragma once
#include <chrono>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <string>
#include "tool/text.h"

namespace tool {

class Report {
public:
    // Lines go to `out`; `terminal` says whether a line may be rewritten while something is in progress.
    Report(std::FILE* out, bool terminal);

    void Heading(const std::string& text);
    void Note(const std::string& text);
    // One row. Returns `passed`, so that a caller can stop where going on makes no sense.
    bool Check(const std::string& name, bool passed, const std::string& measured);
    // On a terminal a line that the next output replaces; otherwise a plain line, at most one a second.
    void Progress(const std::string& text);
    // The last line.
    void Summary(const std::string& program);

    bool AllPassed() const { return checks_ != 0 && passed_ == checks_; }

private:
    void EndProgress();

    std::FILE* out_;
    bool terminal_;
    bool progressShown_ = false;
    std::chrono::steady_clock::time_point lastPlain_{};
    int checks_ = 0;
    int passed_ = 0;
    std::chrono::steady_clock::time_point start_;
};

// "1.5 MiB", "812 KiB", "0 bytes"; what is negative is nothing.
std::string Bytes(std::integral auto bytes) {
    return ctl::SizeText(bytes > 0 ? static_cast<std::uint64_t>(bytes) : 0);
}
// "1 file", "3 files".
inline std::string Count(std::uint64_t number, const std::string& thing) {
    return ctl::CountText(number, thing);
}

}  // namespace tool
