// A program that needs nothing but ntdll, in this process: what it calls is served by the host kernel, its
// files by whatever is mounted there.
#pragma once
#include <string>
#include "platform/kernel.h"

namespace native {

enum class End { Trouble, Ended, PowerOff };

// Maps the image that lies beside this program and runs its first thread here until it ends the process, with
// `status`, or powers off. Its other threads go on. Trouble, said on standard error: it could not be run.
[[nodiscard]] End Run(const std::string& image, const std::u16string& commandLine, NTSTATUS& status);
// Lets no thread of it make another call, and waits until they have ended.
void EndThreads();

}  // namespace native
