#include "platform/host/check/verifier.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/host/rtl/debug_sink.h"
#include "platform/host/nt/seam.h"

namespace host {
namespace {

constexpr SIZE_T kLinesOfContext = 40;
std::atomic<ViolationHandler> gViolationHandler;
std::atomic<ULONG> gAssertions;

}  // namespace

void Violation(const char* rule, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "Kvr host kernel: %s: %s\n", rule, text);
    const ViolationHandler handler = gViolationHandler.load();
    if (handler != nullptr) {
        handler(rule, text);
    } else {
        DumpDebugLines(kLinesOfContext);
    }
    std::fflush(nullptr);
    std::abort();
}

void SetViolationHandler(ViolationHandler handler) {
    gViolationHandler.store(handler);
}

ULONG AssertionCount() {
    return gAssertions.load();
}

void ResetAssertionCount() {
    gAssertions.store(0);
}

}  // namespace host

void RtlAssert(PVOID condition, PVOID file, ULONG line, PCHAR message) {
    host::gAssertions.fetch_add(1);
    DbgPrint("\n*** Assertion failed: %s%s\n***   Source File: %s, line %lu\n",
             message != nullptr ? message : "", static_cast<const char*>(condition),
             static_cast<const char*>(file), line);
}

void KvrFastFail(ULONG code) {
    host::Violation("fast fail", "the system was stopped with code %u", code);
}

void KeBugCheckEx(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4) {
    host::Violation("bug check", "%08x (%zx, %zx, %zx, %zx)", code, p1, p2, p3, p4);
}
