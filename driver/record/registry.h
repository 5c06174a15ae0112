// The driver's registry key and the one way in which values are read. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/owners.h"

// Opens "\\Registry\\Machine\\System\\kvr", creating it when missing.
[[nodiscard]] NTSTATUS OpenDriverKey(ACCESS_MASK access, KernelHandle* key);
// The value's data in a block of the caller's, its length in bytes in `length`. A value that is missing, empty
// or for which there is no memory is a failure status. The block holds at least `length` bytes, never more is
// read.
[[nodiscard]] NTSTATUS ReadDriverValue(PUNICODE_STRING name, PoolPtr<UCHAR>* data, ULONG* length);
// The same of a value that the system keeps about itself, in the key "Control" of its current control set.
[[nodiscard]] NTSTATUS ReadSystemValue(PCWSTR name, PoolPtr<UCHAR>* data, ULONG* length);
// Does that failure of a reading say that there is no such value, or none with data? Any other leaves open what
// the registry says.
[[nodiscard]] BOOLEAN IsValueAbsent(NTSTATUS status);
// Is the REG_DWORD value there, and not 0? A failure leaves that open; `on` is FALSE then.
[[nodiscard]] NTSTATUS ReadDriverSwitch(PCWSTR name, BOOLEAN* on);
// REG_BINARY value; with `flush` it is on disk when this returns.
[[nodiscard]] NTSTATUS WriteDriverValue(PUNICODE_STRING name, const void* data, ULONG length, BOOLEAN flush);
