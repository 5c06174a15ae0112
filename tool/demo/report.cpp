#include "tool/demo/report.h"

namespace tool {
namespace {

constexpr std::chrono::seconds kPlainProgress{1};

}  // namespace

Report::Report(std::FILE* out, bool terminal)
    : out_(out), terminal_(terminal), start_(std::chrono::steady_clock::now()) {}

void Report::Heading(const std::string& text) {
    EndProgress();
    std::fprintf(out_, "\n%s\n", text.c_str());
    std::fflush(out_);
}

void Report::Note(const std::string& text) {
    EndProgress();
    std::fprintf(out_, "        %s\n", text.c_str());
    std::fflush(out_);
}

bool Report::Check(const std::string& name, bool passed, const std::string& measured) {
    EndProgress();
    ++checks_;
    if (passed) ++passed_;
    std::fprintf(out_, "  %s  %s: %s\n", passed ? "PASS" : "FAIL", name.c_str(), measured.c_str());
    std::fflush(out_);
    return passed;
}

void Report::Progress(const std::string& text) {
    if (!terminal_) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastPlain_ < kPlainProgress) return;
        lastPlain_ = now;
        Note(text);
        return;
    }
    std::fprintf(out_, "\r\033[K        %s", text.c_str());
    std::fflush(out_);
    progressShown_ = true;
}

void Report::Summary(const std::string& program) {
    EndProgress();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start_;
    std::fprintf(out_, "\n%.1f seconds\n%s: %d of %d checks passed\n", took.count(), program.c_str(), passed_,
                 checks_);
    std::fflush(out_);
}

void Report::EndProgress() {
    if (!progressShown_) return;
    std::fputs("\r\033[K", out_);
    progressShown_ = false;
}

}  // namespace tool
