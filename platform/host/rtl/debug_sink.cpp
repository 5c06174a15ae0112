#include "platform/host/rtl/debug_sink.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/host/rtl/format.h"
#include "platform/host/sync/host_lock.h"
#include "platform/host/check/verifier.h"
#include "platform/host/nt/ntke.h"

namespace host {
namespace {

HostLock gLock;
char gRing[kDebugRingLines][kDebugLineLimit] KVR_GUARDED_BY(gLock);
std::atomic<ULONGLONG> gLineCount;  // line n, from 0, is in gRing[n % kDebugRingLines]
DebugFollower gFollower KVR_GUARDED_BY(gLock) = nullptr;
void* gFollowerContext KVR_GUARDED_BY(gLock) = nullptr;

std::atomic<bool> gCapture = true;
std::atomic<bool> gFollowed = false;

bool Listening() {
    return gCapture.load(std::memory_order_relaxed) || gFollowed.load(std::memory_order_relaxed);
}

void PutLine(const char* text, SIZE_T length) KVR_REQUIRES(gLock) {
    const ULONGLONG number = gLineCount.load(std::memory_order_relaxed);
    char* line = gRing[number % kDebugRingLines];
    length = std::min(length, kDebugLineLimit - 1);
    std::memcpy(line, text, length);
    line[length] = 0;
    gLineCount.store(number + 1, std::memory_order_release);
    if (gFollower != nullptr) gFollower(gFollowerContext, line);
}

ULONGLONG OldestLine() {
    const ULONGLONG count = gLineCount.load(std::memory_order_relaxed);
    return count > kDebugRingLines ? count - kDebugRingLines : 0;
}

}  // namespace

void FollowDebug(DebugFollower newFollower, void* context) {
    const HostGuard guard(gLock);
    gFollower = newFollower;
    gFollowerContext = context;
    gFollowed.store(newFollower != nullptr, std::memory_order_relaxed);
}

void SetDebugCapture(bool on) {
    gCapture.store(on, std::memory_order_relaxed);
}

ULONGLONG DebugMark() {
    return gLineCount.load(std::memory_order_acquire);
}

std::vector<std::string> DebugLinesSince(ULONGLONG mark) {
    const HostGuard guard(gLock);
    std::vector<std::string> lines;
    const ULONGLONG count = gLineCount.load(std::memory_order_relaxed);
    for (ULONGLONG n = std::max(mark, OldestLine()); n < count; ++n) {
        lines.emplace_back(gRing[n % kDebugRingLines]);
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
    const HostGuard guard(gLock);
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
    // Wide characters are converted by tables that are pageable.
    if (std::strstr(format, "%w") != nullptr) host::RequirePageable("DbgPrint of a wide text", APC_LEVEL);
    if (!host::Listening()) return STATUS_SUCCESS;
    char text[host::kDebugLineLimit];
    va_list arguments;
    va_start(arguments, format);
    host::FormatV(text, sizeof text, format, arguments);
    va_end(arguments);
    host::PutDebugLine(text);
    return STATUS_SUCCESS;
}
