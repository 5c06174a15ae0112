#include "platform/host/sync/futex.h"

#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace host::futex {

static_assert(sizeof(std::atomic<LONG>) == 4);

bool Wait(std::atomic<LONG>& word, LONG expected, const timespec* deadline) {
    const long result = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, deadline, nullptr,
                                FUTEX_BITSET_MATCH_ANY);
    return !(result == -1 && errno == ETIMEDOUT);
}

void WakeOne(std::atomic<LONG>* word) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void WakeAll(std::atomic<LONG>* word) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace host::futex
