// What a device leaves to the thread that sent it a request: the thread does it when it would otherwise sleep
// in a wait for an event or a thread, so that it needs no other thread and no lock. A wait with a time-out may
// then last longer by one piece of that work.
#pragma once

namespace host {

// One piece. False: nothing was left to do.
using WaitWork = bool (*)();
inline constinit thread_local WaitWork gWaitWork = nullptr;

// Of the current thread, until its work says that nothing is left. The work must be short of locks: what the
// thread holds as it waits is held meanwhile.
inline void SetWaitWork(WaitWork work) {
    gWaitWork = work;
}
// One piece, if there is any. IRQL: APC_LEVEL or below.
inline bool DoWaitWork() {
    if (gWaitWork == nullptr) return false;
    if (gWaitWork()) return true;
    gWaitWork = nullptr;
    return false;
}

}  // namespace host
