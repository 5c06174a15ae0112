// A file, a volume or a device of the system, opened by its full name in the object manager.
#pragma once
#include "prove/guest.h"
#include "prove/windows/ntdll.h"

namespace proof {

class NtFile {
public:
    enum class Use { Read, Write, Delete, Raw, Device };

    // Read and Raw bypass the system's cache: transfers are whole sectors in aligned memory. Write makes the
    // file where it is missing. Delete deletes it with the close. Device opens to read and write as programs
    // do.
    Status Open(const char16_t* name, Use use);
    void Close();
    NtFile() = default;
    ~NtFile() { Close(); }
    NtFile(const NtFile&) = delete;
    NtFile& operator=(const NtFile&) = delete;

    Status Read(std::uint64_t offset, void* bytes, std::uint32_t length);
    Status Write(std::uint64_t offset, const void* bytes, std::uint32_t length);
    Status Flush();
    Status Ask(std::uint32_t code, const void* input, std::uint32_t inputLength, void* output,
               std::uint32_t outputLength, std::uint32_t* returned);
    // The object's own name, links followed, into `name` with a 0 behind it; cut where it is longer.
    Status NameOf(char16_t* name, std::uint32_t units);

private:
    HANDLE handle_ = nullptr;
};

}  // namespace proof
