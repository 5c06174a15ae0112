// Completions that pend: while one lives, the memory devices keep their transfers, flushes and starts, and two
// threads of its own carry them out and complete them, at DISPATCH_LEVEL as devices do and not always in the
// order in which they came. One at a time.
#pragma once
#include <thread>
#include "platform/kernel.h"

class PendedCompletions {
public:
    // Nothing is completed before `together` requests are kept at once, so that they overlap in time; then, or
    // after five seconds, all goes its way.
    explicit PendedCompletions(ULONG together = 0);
    // From then on the devices complete at once; waits until nothing is kept any more.
    ~PendedCompletions();
    PendedCompletions(const PendedCompletions&) = delete;
    PendedCompletions& operator=(const PendedCompletions&) = delete;

private:
    std::thread m_threads[2];
};

// For the devices: keeps the request, marked pending, and returns true; or returns false when it must be
// carried out at once. `carry` carries it out and leaves its result for the completion.
[[nodiscard]] bool PendRequest(PIRP irp, void (*carry)(PIRP irp));
// How many requests the last of them kept.
[[nodiscard]] ULONG PendedRequests();
