// What stands between Wine's kernel and the host kernel, whose declarations do not go together.
#pragma once

namespace gate {

// Boots the host kernel's computer for the tool. False with a report on standard error.
[[nodiscard]] bool Boot();
// The control device, as a program opens it to read and write: Wine does not say what was asked for. What they
// return is a status.
[[nodiscard]] int Open(void*& file);
// `buffer` is input and output.
[[nodiscard]] int Control(void* file, unsigned code, void* buffer, unsigned inputLength, unsigned outputLength,
                          unsigned& returned);
void Close(void* file);

}  // namespace gate
