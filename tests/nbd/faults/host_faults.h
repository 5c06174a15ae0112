// Host calls that fail, or at which the process is killed: a library that stands before the C library, linked
// into the sweep or preloaded into nbdkit. It does nothing until it is given a plan.
#pragma once
#include <atomic>
#include <cstdint>

namespace host_faults {

enum class Call : std::uint32_t {
    Read,             // pread
    Write,            // pwrite, write
    Sync,             // fsync, fdatasync
    Descriptor,       // open, openat, fopen, socket, accept4, eventfd, signalfd
    Thread,           // pthread_create
    SmallAllocation,  // malloc and its like, and operator new with them, below kLargeAllocation
    LargeAllocation,  // from there on
    Map,              // mmap, of the program's own
    Name,             // rename, unlink, bind, mkdir
    Size,             // ftruncate, fallocate
    Any,              // each of those that may change what is stored: Write, Sync, Descriptor, Name, Size
};
inline constexpr std::uint32_t kCalls = 11;
inline constexpr std::uint64_t kLargeAllocation = 16 * 1024;

// Shared between the process that plans and the one that is struck; all zeros is a plan of nothing.
struct Plan {
    std::atomic<std::uint32_t> armed;
    std::atomic<Call> call;
    std::atomic<std::uint64_t> nth;    // counted from 1, over all threads
    std::atomic<std::int32_t> error;   // errno; 0: the process is killed instead, before the call
    std::atomic<std::uint32_t> lasts;  // every call from the n-th on fails
    std::atomic<std::uint32_t> struck;
    std::atomic<std::uint64_t> seen[kCalls];  // while armed
};

// Takes effect in this process and those that it forks; also shortens sleeps of 10 ms and more. An nbdkit that
// has the library preloaded takes the plan in the file KVR_FAULT_PLAN, whose layout faults.py knows.
extern "C" void UseFaultPlan(Plan* plan);

static_assert(sizeof(Plan) == 32 + 8 * kCalls);

}  // namespace host_faults
