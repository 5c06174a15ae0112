// Host memory and threads that cannot be had. What the host's library throws for it must not cross a driver's
// frames, which unwind without a cleanup: each routine that a driver calls ends it there. A body that needs
// locks says so itself, and stands where they are held.
#pragma once
#include <chrono>
#include <new>
#include <system_error>
#include <thread>
#include "platform/host/check/verifier.h"
#include "platform/host/nt/annotations.h"
#include "platform/host/nt/ntstatus.h"

namespace host {

// What `body` answers, or `without` where the host has no memory or no thread for it.
template <class Result, class Body>
Result WithinMemory(Result without, const Body& body) KVR_NO_ANALYSIS {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return without;
    } catch (const std::system_error&) {
        return without;
    }
}

template <class Body>
[[nodiscard]] NTSTATUS WithinMemory(const Body& body) KVR_NO_ANALYSIS {
    return WithinMemory(STATUS_INSUFFICIENT_RESOURCES, body);
}

// For what nobody can be refused, an end or a notification: tried until it works. A host without memory for
// seconds stops the machine, by that name. `body` must bear to be run again where it threw.
template <class Body>
auto Insist(const char* what, const Body& body) KVR_NO_ANALYSIS {
    for (int left = 500;; --left) {
        try {
            return body();
        } catch (const std::bad_alloc&) {
            if (left == 0) Violation("host memory", "none for %s", what);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace host
