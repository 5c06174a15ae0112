// Frames as the driver has them: compiled freestanding and without exceptions, so that tests see kernel
// exceptions and ends of threads pass through them.
#pragma once
#include "platform/kernel.h"

// Calls `routine` from a frame that holds an object with a destructor, which counts itself in `destroyed`.
void CallThroughDriverFrame(void (*routine)(void*), void* context, int& destroyed);
// TryFinally round `routine`; `cleanups` counts the cleanups.
void CallInTryFinally(void (*routine)(void*), void* context, int& cleanups);
// TryExcept round `routine`.
NTSTATUS CallInTryExcept(void (*routine)(void*), void* context);
