#include "platform/host/rtl/debug_sink.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/host/rtl/format.h"

namespace host {
namespace {

std::mutex sinkLock;
char ring[DebugRingLines][DebugLineLimit];
std::atomic<ULONGLONG> lineCount;  // line n, from 0, is in ring[n % DebugRingLines]
DebugFollower follower = nullptr;
void* followerContext = nullptr;

std::atomic<bool> capture = true;
std::atomic<bool> followed = false;

bool Listening() {
    return capture.load(std::memory_order_relaxed) || followed.load(std::memory_order_relaxed);
}

// Under sinkLock.
void PutLine(const char* text, SIZE_T length) {
    const ULONGLONG number = lineCount.load(std::memory_order_relaxed);
    char* line = ring[number % DebugRingLines];
    length = std::min(length, DebugLineLimit - 1);
    std::memcpy(line, text, length);
    line[length] = 0;
    lineCount.store(number + 1, std::memory_order_release);
    if (follower != nullptr) follower(followerContext, line);
}

ULONGLONG OldestLine() {
    const ULONGLONG count = lineCount.load(std::memory_order_relaxed);
    return count > DebugRingLines ? count - DebugRingLines : 0;
}

}  // namespace

void FollowDebug(DebugFollower newFollower, void* context) {
    const std::lock_guard guard(sinkLock);
    follower = newFollower;
    followerContext = context;
    followed.store(newFollower != nullptr, std::memory_order_relaxed);
}

void SetDebugCapture(bool on) {
    capture.store(on, std::memory_order_relaxed);
}

ULONGLONG DebugMark() {
    return lineCount.load(std::memory_order_acquire);
}

std::vector<std::string> DebugLinesSince(ULONGLONG mark) {
    const std::lock_guard guard(sinkLock);
    std::vector<std::string> lines;
    const ULONGLONG count = lineCount.load(std::memory_order_relaxed);
    for (ULONGLONG n = std::max(mark, OldestLine()); n < count; ++n) {
        lines.emplace_back(ring[n % DebugRingLines]);
    }
    return lines;
}

bool DebugSaid(ULONGLONG mark, const char* part) {
    const auto lines = DebugLinesSince(mark);
    return std::any_of(lines.begin(), lines.end(),
                       [part](const std::string& line) { return line.find(part) != std::string::npos; });
}

void PutDebugLine(const char* text) {
    if (!Listening()) return;
    const std::lock_guard guard(sinkLock);
    while (*text != 0) {
        const SIZE_T length = std::strcspn(text, "\n");
        if (length != 0) PutLine(text, length);
        text += length + (text[length] == '\n' ? 1 : 0);
    }
}

void DumpDebugLines(SIZE_T lines) {
    const ULONGLONG count = DebugMark();
    for (const std::string& line : DebugLinesSince(count > lines ? count - lines : 0)) {
        std::fprintf(stderr, "    %s\n", line.c_str());
    }
}

}  // namespace host

ULONG DbgPrint(PCSTR format, ...) {
    if (!host::Listening()) return STATUS_SUCCESS;
    char text[host::DebugLineLimit];
    va_list arguments;
    va_start(arguments, format);
    host::FormatV(text, sizeof text, format, arguments);
    va_end(arguments);
    host::PutDebugLine(text);
    return STATUS_SUCCESS;
}
