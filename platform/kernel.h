// The one seam between the driver and a kernel.
//
// `kernel_target.h` is found on the include path of the build: platform/windows/ hands over the
// platform's own DDK headers, platform/host/ the host kernel's declarations of the same names. On top of
// the kernel's names both siblings provide exactly this much, with the contracts below:
//
//   W("text")                 a wide literal of 16-bit characters (WCHAR)
//   TryFinally(body, cleanup) runs body(), then cleanup() exactly once, also when an exception that the
//                             kernel raises leaves body(); the exception then goes on to the caller.
//                             cleanup() must not raise.
//   TryExcept(body)           runs body() -> NTSTATUS and returns its result, or the code of the exception
//                             that left it. No exception passes.
//   KvrFastFail(code)         stops the system at once; does not return.
//   KvrCurrentThread()        the current thread's object, unreferenced.
//   KvrThreadObjectType()     the object type to name when a thread handle is turned into an object.
//   KvrAnnounceHold(mutex)    from here to the release others may wait for this thread as they would for who
//   KvrAnnounceRelease(mutex) holds that fast mutex, which it does not itself: for a kernel that checks the
//                             order of locks, such as the host kernel; nothing elsewhere. The same thread at
//                             the same IRQL, at most APC_LEVEL.
//   KVR_CAPABILITY, KVR_SCOPED, KVR_GUARDED_BY, KVR_ACQUIRE, KVR_RELEASE, KVR_REQUIRES, KVR_NO_ANALYSIS
//                             thread-safety annotations; they say something to the analysing compiler of
//                             the host build and nothing elsewhere.
//
// Destructors do not run when a kernel exception crosses a frame of the driver (there is no unwinding of
// C++ objects on the platform), so whatever an exception may cross is released by TryFinally.
#pragma once
#include "kernel_target.h"
