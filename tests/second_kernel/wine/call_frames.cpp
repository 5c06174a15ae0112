#include "call_frames.h"

namespace shim {
namespace {

// A word of the thread's environment block that is the program's own: the innermost frame.
constexpr ULONG kFrameWord = 0xE8;

CallFrame* Innermost() {
    return reinterpret_cast<CallFrame*>(__readgsqword(kFrameWord));
}

void SetInnermost(const CallFrame* frame) {
    __writegsqword(kFrameWord, reinterpret_cast<ULONG64>(frame));
}

}  // namespace

void ClearFrames() {
    SetInnermost(nullptr);
}

void EnterFrame(CallFrame* frame, PIRP request) {
    *frame = {Innermost(), request, request->CurrentLocation, false, false, STATUS_SUCCESS};
    --frame->location;  // the call takes the next one
    SetInnermost(frame);
}

void LeaveFrame(const CallFrame* frame) {
    SetInnermost(frame->previous);
}

// Several frames when filters skipped their locations. Frames further out wait for higher locations.
void MarkFrames(PIRP request, UCHAR control) {
    for (CallFrame* frame = Innermost(); frame; frame = frame->previous) {
        if (frame->request != request || frame->completed) continue;
        if (frame->location > request->CurrentLocation) return;
        frame->completed = true;
        frame->pending = (control & SL_PENDING_RETURNED) != 0;
        frame->status = request->IoStatus.Status;
    }
}

const char* BrokenByReturn(const CallFrame& frame, NTSTATUS returned) {
    if (!frame.completed) return nullptr;
    if (frame.pending != (returned == STATUS_PENDING))
        return frame.pending ? "request marked pending, but STATUS_PENDING not returned"
                             : "STATUS_PENDING returned for a request not marked pending";
    if (frame.pending || returned == frame.status) return nullptr;
    return "dispatch routine returned another status than it completed with";
}

}  // namespace shim
