#include "tests/second_kernel/wine/traps.h"
#include <windows.h>
#include <cstdio>

namespace traps {
namespace {

constexpr ULONG_PTR kSharedTime = 0xFFFFF780'00000014;

const unsigned char* gImage;
std::size_t gBytes;
image::Kernel gKernel;

// Where a value is loaded to: a register, in the order in which the context record holds them; and the bytes of
// the instruction.
struct Load {
    unsigned gpr;
    unsigned length;
};

// mov reg64,cr8 is REX.R 0F 20 /r with the register in the last three bits.
bool IsCr8Read(const unsigned char* code, Load& load) {
    load = {(code[3] & 7u) | ((code[0] & 1u) << 3), 4};
    return (code[0] & 0xFE) == 0x44 && code[1] == 0x0F && code[2] == 0x20 && (code[3] & 0xF8) == 0xC0;
}

// mov reg64,[reg64] is REX.W 8B /r with the register in the middle three bits.
bool IsPlainLoad(const unsigned char* code, Load& load) {
    load = {((code[2] >> 3) & 7u) | ((code[0] & 4u) << 1), 3};
    const unsigned base = code[2] & 7;  // 4 and 5 stand for other forms
    return (code[0] & 0xF8) == 0x48 && code[1] == 0x8B && (code[2] & 0xC0) == 0 && base != 4 && base != 5;
}

LONG CALLBACK OnException(EXCEPTION_POINTERS* exception) {
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    CONTEXT& context = *exception->ContextRecord;
    const auto* at = reinterpret_cast<const unsigned char*>(context.Rip);
    if (at < gImage || at >= gImage + gBytes) return EXCEPTION_CONTINUE_SEARCH;
    Load load{};
    ULONG64 value = 0;
    if (record.ExceptionCode == STATUS_PRIVILEGED_INSTRUCTION && IsCr8Read(at, load)) {
        value = gKernel.irql();
    } else if (record.ExceptionCode == STATUS_ACCESS_VIOLATION &&
               record.ExceptionInformation[1] == kSharedTime && IsPlainLoad(at, load)) {
        value = static_cast<ULONG64>(gKernel.systemTime());
    } else {
        std::fprintf(stderr, "exception %08lx at kvr64.sys+%llx\n", record.ExceptionCode,
                     static_cast<unsigned long long>(at - gImage));
        return EXCEPTION_CONTINUE_SEARCH;
    }
    (&context.Rax)[load.gpr] = value;
    context.Rip += load.length;
    return EXCEPTION_CONTINUE_EXECUTION;
}

// Without it the system would start a debugger.
LONG CALLBACK OnCrash(EXCEPTION_POINTERS* exception) {
    std::fprintf(stderr, "exception %08lx ends the program\n", exception->ExceptionRecord->ExceptionCode);
    std::fflush(nullptr);
    TerminateProcess(GetCurrentProcess(), 3);
    return EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

void Watch(const unsigned char* image, std::size_t bytes, const image::Kernel& kernel) {
    [[maybe_unused]] static const PVOID handler = AddVectoredExceptionHandler(1, OnException);
    SetUnhandledExceptionFilter(OnCrash);
    gImage = image;
    gBytes = bytes;
    gKernel = kernel;
}

}  // namespace traps
