// The current thread's object, at the cost of one thread-local load. For the host kernel's own files.
#pragma once
#include "platform/host/sync/thread.h"

namespace host {

extern constinit thread_local PKTHREAD gCurrentThread;
// Makes the object of a thread that is no system thread.
PKTHREAD AdoptCurrentThread();

inline PKTHREAD CurrentThread() {
    return gCurrentThread != nullptr ? gCurrentThread : AdoptCurrentThread();
}

}  // namespace host
