// Internal consistency checks: a condition that does not hold is reported with its text, source file and
// line through RtlAssert, and execution goes on as if it held.
#pragma once
#include "platform/kernel.h"

inline void ReportAssertion(const char* condition, const char* file, ULONG line) {
    RtlAssert(const_cast<char*>(condition), const_cast<char*>(file), line, nullptr);
}

#define KVR_ASSERT_AT(file, line, condition)                         \
    do {                                                             \
        if (!(condition)) ReportAssertion(#condition, (file), line); \
    } while (0)
#define KVR_ASSERT(file, condition) KVR_ASSERT_AT(file, __LINE__, condition)
