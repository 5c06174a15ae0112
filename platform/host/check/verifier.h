// Where the host kernel stops a misuse. A rule of the platform that a caller broke is not an error to
// report and survive: on the platform it corrupts memory or deadlocks later, so here it ends the run at the
// place where it happened, with one line that names the rule and the values.
#pragma once
#include "platform/host/nt/ntdef.h"

namespace host {

// Prints "Kvr host kernel: <rule>: <text>" on stderr and hands both to the handler; aborts when that returns.
// IRQL: any. `format` is the C library's printf.
[[noreturn]] __attribute__((format(printf, 2, 3))) void Violation(const char* rule, const char* format, ...);

// Called by Violation on the violating thread. It may leave by exit or abort, not by an exception. The default
// prints the last lines of the debug sink on stderr; null restores it.
using ViolationHandler = void (*)(const char* rule, const char* text);
void SetViolationHandler(ViolationHandler handler);

// Stops unless `current` <= `highest`; `routine` is the caller's name.
void RequireIrql(const char* routine, KIRQL highest);
// The same for what is pageable or needs files: it also stops while this thread serves a last-chance shutdown
// notification, when file systems and the paging file are gone.
void RequirePageable(const char* routine, KIRQL highest);

// RtlAssert prints, counts and goes on. Tests demand that the count stays 0.
ULONG AssertionCount();
void ResetAssertionCount();

}  // namespace host
