// A library that kvrhost loads into nbdkit before everything else, to keep one client's death from being
// everybody's.
//
// nbdkit 1.32 works on one connection with sixteen threads. The first of them that finds the connection broken
// (a read that fails, half a request, bytes that are no request, a reply that cannot be sent) marks it as dead
// and at once forgets its socket, under the lock of the mark. A thread with a reply looks at the mark, lets go
// of that lock, takes the one for replies and sends; when the socket was forgotten in between, it meets "assert
// (sock >= 0)" in raw_send_socket and the whole process ends. For the machine that is a power cut, and a
// virtual machine that is killed under load is enough for it. Later releases return an error there.
//
// Neither look nor lock can be moved from outside, and no wait is long enough for a thread that does not get
// the processor. But at that place everything is known: the thread has the lock for replies and nothing else,
// its connection is dead, and the next thing that a thread of a dead connection does is to end. Here it ends
// one step earlier. What it leaves behind is its name and, of a request for the state of blocks, the list: some
// bytes.
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>

namespace {

thread_local pthread_mutex_t* tLatest = nullptr;  // the mutex that this thread took last

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool IsForgottenSocket(const char* assertion, const char* function) {
    return function != nullptr && std::strcmp(function, "raw_send_socket") == 0 &&
           std::strcmp(assertion, "sock >= 0") == 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static auto* const next = Next<int(pthread_mutex_t*)>("pthread_mutex_lock");
    const int result = next(mutex);
    tLatest = mutex;
    return result;
}

// Not <cassert>'s, which may let nothing pass: a thread's end goes up through the frames of its callers.
[[noreturn]] __attribute__((visibility("default"))) void __assert_fail(const char* assertion, const char* file,
                                                                       unsigned line, const char* function) {
    using Fail = void(const char*, const char*, unsigned, const char*);
    if (IsForgottenSocket(assertion, function)) {
        pthread_mutex_unlock(tLatest);  // nothing on the way up lets go of it
        pthread_exit(nullptr);
    }
    Next<Fail>("__assert_fail")(assertion, file, line, function);
    __builtin_unreachable();
}

}  // extern "C"
