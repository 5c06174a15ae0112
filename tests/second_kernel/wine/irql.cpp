#include "irql.h"
#include "image.h"
#include "lines.h"
#include "shim.h"

namespace shim {
namespace {

// A word of the thread's environment block that neither Wine nor these drivers use.
constexpr ULONG kIrqlWord = 0x28;

constexpr LONG kGoOn = -1;    // EXCEPTION_CONTINUE_EXECUTION
constexpr LONG kNotMine = 0;  // EXCEPTION_CONTINUE_SEARCH

struct Cr8Access {
    bool isRead;
    ULONG gpr;     // in the order in which the context record holds the registers
    ULONG length;  // of the instruction
};

// mov reg,cr8 and mov cr8,reg: an optional REX prefix, 0F 20 or 0F 22, and the registers. False for all others.
bool DecodeCr8(const UCHAR* code, Cr8Access* access) {
    const UCHAR rex = (code[0] & 0xF0) == 0x40 ? *code++ : 0;
    if (code[0] != 0x0F || (code[1] != 0x20 && code[1] != 0x22)) return false;
    const ULONG control = ((code[2] >> 3) & 7) | ((rex & 4) << 1);
    const ULONG gpr = (code[2] & 7) | ((rex & 1) << 3);
    *access = {code[1] == 0x20, gpr, rex != 0 ? 4u : 3u};
    return control == 8;
}

LONG NTAPI OnException(EXCEPTION_POINTERS* exception) {
    const auto code = exception->ExceptionRecord->ExceptionCode;
    PCONTEXT context = exception->ContextRecord;
    const auto* at = reinterpret_cast<const UCHAR*>(context->Rip);
    Cr8Access access;
    if (code != STATUS_PRIVILEGED_INSTRUCTION || !DecodeCr8(at, &access)) {
        if (IsDriverCode(at)) PrintLine("exception %08x at kvr64.sys+%x\n", code, OffsetInDriver(at));
        return kNotMine;
    }
    ULONG64* gpr = &context->Rax + access.gpr;
    if (access.isRead) {
        *gpr = Irql();
    } else {
        SetIrql(static_cast<KIRQL>(*gpr));
    }
    context->Rip += access.length;
    return kGoOn;
}

}  // namespace

KIRQL Irql() {
    return static_cast<KIRQL>(__readgsqword(kIrqlWord));
}

void SetIrql(KIRQL irql) {
    __writegsqword(kIrqlWord, irql);
}

void RequireIrql(KIRQL highest, const char* what, const void* caller) {
    if (Irql() > highest) BrokenRule(what, caller);
}

// The routine is looked up since only a user-mode image could import it.
NTSTATUS StartIrqlModel(PDRIVER_OBJECT harness) {
    using AddHandler = PVOID(NTAPI*)(ULONG, LONG(NTAPI*)(EXCEPTION_POINTERS*));
    const auto add = reinterpret_cast<AddHandler>(
        FindExport(FindModule(harness, L"ntdll.dll"), "RtlAddVectoredExceptionHandler"));
    return add && add(1, OnException) ? STATUS_SUCCESS : STATUS_PROCEDURE_NOT_FOUND;
}

}  // namespace shim
