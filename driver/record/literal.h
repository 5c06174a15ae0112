// A counted string over a wide literal, made at compile time: literals that are shared by many threads are
// never initialised while the driver runs. Nothing ever writes through Buffer.
#pragma once
#include "platform/kernel.h"

template <size_t N>
constexpr UNICODE_STRING Literal(const WCHAR (&text)[N]) {
    return {(N - 1) * sizeof(WCHAR), N * sizeof(WCHAR), const_cast<PWSTR>(text)};
}
