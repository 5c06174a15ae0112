// A lock that many may share and that does not let those who want it alone starve: who comes to share it waits
// behind them. A thread must not take it twice.
#pragma once
#include <pthread.h>

namespace nbd {

class FairLock {
public:
    FairLock() {
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock_, &attributes);
        pthread_rwlockattr_destroy(&attributes);
    }
    ~FairLock() { pthread_rwlock_destroy(&lock_); }
    FairLock(const FairLock&) = delete;
    FairLock& operator=(const FairLock&) = delete;

    // The names are those that std::unique_lock and std::shared_lock call.
    void lock() { pthread_rwlock_wrlock(&lock_); }
    void unlock() { pthread_rwlock_unlock(&lock_); }
    void lock_shared() { pthread_rwlock_rdlock(&lock_); }
    void unlock_shared() { pthread_rwlock_unlock(&lock_); }

private:
    pthread_rwlock_t lock_;
};

}  // namespace nbd
