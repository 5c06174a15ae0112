// What dispatch routines return, held against what became of their requests.
#pragma once
#include "platform/kernel.h"

namespace shim {

// A dispatch routine that runs on this thread; lies on the thread's stack while it does.
struct CallFrame {
    CallFrame* previous;
    PIRP request;
    CCHAR location;  // that the routine was given
    bool completed;  // on this thread; what other threads complete is not judged
    bool pending;
    NTSTATUS status;
};

// For a thread that begins.
void ClearFrames();
void EnterFrame(CallFrame* frame, PIRP request);
void LeaveFrame(const CallFrame* frame);
// The request passes a stack location whose flags were `control`.
void MarkFrames(PIRP request, UCHAR control);
// The rule that the routine broke by returning `returned`; null for none.
const char* BrokenByReturn(const CallFrame& frame, NTSTATUS returned);

}  // namespace shim
