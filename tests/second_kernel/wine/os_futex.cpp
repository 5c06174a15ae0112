// Sleeping on a word of memory, for platform/host/os.
#include "platform/host/sync/futex.h"

#include <algorithm>
#include <cstddef>

// The system's own header has other types under the kernel's names.
extern "C" {
__declspec(dllimport) int WaitOnAddress(volatile void* address, void* compare, std::size_t bytes,
                                        unsigned long milliseconds);
__declspec(dllimport) void WakeByAddressSingle(void* address);
__declspec(dllimport) void WakeByAddressAll(void* address);
}

namespace host::futex {
namespace {

constexpr long long kForEver = 0xFFFFFFFF;
constexpr long long kLongestWait = 1 << 30;  // the caller sleeps again

long long MillisecondsUntil(const timespec& deadline) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long nanoseconds = deadline.tv_nsec - now.tv_nsec + 999'999;
    return (deadline.tv_sec - now.tv_sec) * 1000LL + nanoseconds / 1'000'000;
}

}  // namespace

bool Wait(std::atomic<LONG>& word, LONG expected, const timespec* deadline) {
    const auto longest =
        deadline != nullptr ? std::clamp(MillisecondsUntil(*deadline), 0LL, kLongestWait) : kForEver;
    if (WaitOnAddress(&word, &expected, sizeof word, static_cast<unsigned long>(longest)) != 0) return true;
    // A wake-up may have been spent on this sleeper as its time ran out: it is passed on.
    WakeOne(&word);
    return deadline == nullptr || MillisecondsUntil(*deadline) > 0;
}

void WakeOne(std::atomic<LONG>* word) {
    WakeByAddressSingle(word);
}

void WakeAll(std::atomic<LONG>* word) {
    WakeByAddressAll(word);
}

}  // namespace host::futex
