#include "tests/nbd/faults/host_faults.h"
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

// The C library's own allocator, by the names that it keeps for whoever stands before it.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace host_faults {
namespace {

std::atomic<Plan*> gPlan;
std::atomic<bool> gShortensSleeps;

// For addr2line.
void TellWhere() {
    void* frames[32];
    backtrace_symbols_fd(frames, backtrace(frames, 32), STDERR_FILENO);
}

bool StrikesAt(Plan& plan, Call call) {
    const std::uint64_t number = plan.seen[static_cast<std::uint32_t>(call)].fetch_add(1) + 1;
    if (plan.call != call || number < plan.nth || (number > plan.nth && plan.lasts == 0)) return false;
    plan.struck = 1;
    if (std::getenv("KVR_FAULT_TRACE") != nullptr) TellWhere();
    if (plan.error == 0) kill(getpid(), SIGKILL);
    errno = plan.error;
    return true;
}

bool ChangesStorage(Call call) {
    return call == Call::Write || call == Call::Sync || call == Call::Descriptor || call == Call::Name ||
           call == Call::Size;
}

// Whether the call that is about to be made fails, with errno.
bool Fails(Call call) {
    Plan* const plan = gPlan.load(std::memory_order_acquire);
    if (plan == nullptr || plan->armed == 0) return false;
    if (ChangesStorage(call) && StrikesAt(*plan, Call::Any)) return true;
    return StrikesAt(*plan, call);
}

bool AllocationFails(size_t bytes) {
    return Fails(bytes < kLargeAllocation ? Call::SmallAllocation : Call::LargeAllocation);
}

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The plan that a parent has laid into a file, for the one program that it means.
__attribute__((constructor)) void TakePlanOfEnvironment() {
    const char* path = std::getenv("KVR_FAULT_PLAN");
    if (path == nullptr || std::strcmp(program_invocation_short_name, "nbdkit") != 0) return;
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* plan = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (plan == MAP_FAILED) std::abort();
    close(file);
    gPlan.store(static_cast<Plan*>(plan), std::memory_order_release);
}

timespec Shortened(const timespec& asked) {
    const bool isLong = gShortensSleeps && (asked.tv_sec != 0 || asked.tv_nsec >= 10'000'000);
    return isLong ? timespec{0, 2'000'000} : asked;
}

}  // namespace

void UseFaultPlan(Plan* plan) {
    gPlan.store(plan, std::memory_order_release);
    gShortensSleeps = true;
}

}  // namespace host_faults

using host_faults::AllocationFails;
using host_faults::Call;
using host_faults::Fails;
using host_faults::Next;

// One line for each call: what it is counted as, what it answers when it fails, its result, name and
// parameters.
#define KVR_FAULTY(kind, failed, Result, name, parameters, arguments) \
    extern "C" Result name parameters {                               \
        static auto* const next = Next<Result parameters>(#name);     \
        return Fails(Call::kind) ? failed : next arguments;           \
    }

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
KVR_FAULTY(Read, -1, ssize_t, pread, (int f, void* b, size_t n, off_t o), (f, b, n, o))
KVR_FAULTY(Read, -1, ssize_t, pread64, (int f, void* b, size_t n, off64_t o), (f, b, n, o))
KVR_FAULTY(Write, -1, ssize_t, pwrite, (int f, const void* b, size_t n, off_t o), (f, b, n, o))
KVR_FAULTY(Write, -1, ssize_t, pwrite64, (int f, const void* b, size_t n, off64_t o), (f, b, n, o))
KVR_FAULTY(Write, -1, ssize_t, write, (int f, const void* b, size_t n), (f, b, n))
KVR_FAULTY(Sync, -1, int, fsync, (int f), (f))
KVR_FAULTY(Sync, -1, int, fdatasync, (int f), (f))
KVR_FAULTY(Descriptor, nullptr, FILE*, fopen, (const char* p, const char* m), (p, m))
KVR_FAULTY(Descriptor, nullptr, FILE*, fopen64, (const char* p, const char* m), (p, m))
KVR_FAULTY(Descriptor, -1, int, socket, (int d, int t, int p) noexcept, (d, t, p))
KVR_FAULTY(Descriptor, -1, int, accept4, (int s, sockaddr* a, socklen_t* l, int f), (s, a, l, f))
KVR_FAULTY(Descriptor, -1, int, eventfd, (unsigned n, int f) noexcept, (n, f))
KVR_FAULTY(Descriptor, -1, int, signalfd, (int f, const sigset_t* s, int g) noexcept, (f, s, g))
KVR_FAULTY(Name, -1, int, rename, (const char* a, const char* b) noexcept, (a, b))
KVR_FAULTY(Name, -1, int, unlink, (const char* p) noexcept, (p))
KVR_FAULTY(Name, -1, int, mkdir, (const char* p, mode_t m) noexcept, (p, m))
KVR_FAULTY(Name, -1, int, bind, (int s, const sockaddr* a, socklen_t n) noexcept, (s, a, n))
KVR_FAULTY(Size, -1, int, ftruncate, (int f, off_t n) noexcept, (f, n))
KVR_FAULTY(Size, -1, int, ftruncate64, (int f, off64_t n) noexcept, (f, n))
KVR_FAULTY(Size, -1, int, fallocate, (int f, int m, off_t o, off_t n), (f, m, o, n))
KVR_FAULTY(Map, MAP_FAILED, void*, mmap, (void* a, size_t n, int p, int g, int f, off_t o) noexcept,
           (a, n, p, g, f, o))
KVR_FAULTY(Thread, errno, int, pthread_create,
           (pthread_t * t, const pthread_attr_t* a, void* (*r)(void*), void* c) noexcept, (t, a, r, c))
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#define KVR_FAULTY_OPEN(name, parameters, arguments)           \
    extern "C" int name parameters {                           \
        static auto* const next = Next<int parameters>(#name); \
        mode_t mode = 0;                                       \
        if ((flags & (O_CREAT | O_TMPFILE)) != 0) {            \
            va_list rest;                                      \
            va_start(rest, flags);                             \
            mode = va_arg(rest, mode_t);                       \
            va_end(rest);                                      \
        }                                                      \
        return Fails(Call::Descriptor) ? -1 : next arguments;  \
    }
KVR_FAULTY_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
KVR_FAULTY_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
KVR_FAULTY_OPEN(openat, (int at, const char* path, int flags, ...), (at, path, flags, mode))
KVR_FAULTY_OPEN(openat64, (int at, const char* path, int flags, ...), (at, path, flags, mode))

extern "C" void* malloc(size_t bytes) noexcept {
    return AllocationFails(bytes) ? nullptr : __libc_malloc(bytes);
}
extern "C" void* calloc(size_t count, size_t bytes) noexcept {
    return AllocationFails(count * bytes) ? nullptr : __libc_calloc(count, bytes);
}
extern "C" void* realloc(void* memory, size_t bytes) noexcept {
    return AllocationFails(bytes) ? nullptr : __libc_realloc(memory, bytes);
}
extern "C" void* aligned_alloc(size_t alignment, size_t bytes) noexcept {
    return AllocationFails(bytes) ? nullptr : __libc_memalign(alignment, bytes);
}
extern "C" void* memalign(size_t alignment, size_t bytes) noexcept {
    return AllocationFails(bytes) ? nullptr : __libc_memalign(alignment, bytes);
}
extern "C" int posix_memalign(void** memory, size_t alignment, size_t bytes) noexcept {
    if (AllocationFails(bytes)) return ENOMEM;
    *memory = __libc_memalign(alignment, bytes);
    return *memory == nullptr ? ENOMEM : 0;
}

extern "C" int nanosleep(const timespec* asked, timespec* left) {
    static auto* const next = Next<int(const timespec*, timespec*)>("nanosleep");
    const timespec shortened = host_faults::Shortened(*asked);
    return next(&shortened, left);
}
extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* asked, timespec* left) {
    static auto* const next = Next<int(clockid_t, int, const timespec*, timespec*)>("clock_nanosleep");
    const timespec shortened = flags == 0 ? host_faults::Shortened(*asked) : *asked;
    return next(clock, flags, &shortened, left);
}
