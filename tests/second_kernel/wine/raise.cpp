#include "raise.h"

extern "C" __declspec(dllimport) void NTAPI RtlRaiseException(PEXCEPTION_RECORD record);

void shim::Raise(NTSTATUS status) {
    EXCEPTION_RECORD record{};
    record.ExceptionCode = status;
    record.ExceptionFlags = EXCEPTION_NONCONTINUABLE;
    RtlRaiseException(&record);
    __builtin_unreachable();
}
