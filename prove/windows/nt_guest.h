// The acts' system, through ntdll, and the answers' disk.
#pragma once
#include "formats/proof_disk.h"
#include "prove/windows/nt_file.h"

namespace proof {

inline constexpr std::uint32_t kPathUnits = 256;

// Finds the disk whose reserved sectors hold an order, waiting a little for disks that come late; `given`: the
// name of that disk instead, or null. False when there is none, or the order is damaged.
[[nodiscard]] bool FindOrder(const char16_t* given, NtFile* disk, Order* order);

class NtGuest final : public Guest {
public:
    // `disk` outlives it; it writes the answer to `order` there.
    NtGuest(NtFile& disk, const Order& order);
    NtGuest(const NtGuest&) = delete;
    NtGuest& operator=(const NtGuest&) = delete;

    // The volume that Windows runs from. `volume`, `root`: others instead, or null; files lie in the root.
    Status UseVolume(const char16_t* volume, const char16_t* root);
    // The answer is whole.
    void End();
    // The file that is to be written during the shutdown; empty for none.
    const char16_t* LateFile() const { return late_; }

    Status Open(Device device) override;
    Status OpenSecond() override;
    void Close() override { device_.Close(); }
    Status Ask(std::uint32_t code, const void* input, std::uint32_t inputLength, void* output,
               std::uint32_t outputLength, std::uint32_t* returned) override {
        return device_.Ask(code, input, inputLength, output, outputLength, returned);
    }
    const char16_t* VolumeName() override { return volume_; }
    Status Write(const char16_t* path, std::uint64_t offset, const void* bytes, std::uint32_t length) override;
    Status Flush(const char16_t* path) override;
    Status Read(const char16_t* path, std::uint64_t offset, void* bytes, std::uint32_t length) override;
    Status OpenToRead(const char16_t* path) override;
    Status Delete(const char16_t* path) override;
    Status RewriteFirstSector() override;
    Status Trim() override;
    void Wait(std::uint32_t milliseconds) override;
    void WriteDuringShutdown(const char16_t* path) override;
    void Report(const char* name, bool passed, Status status, std::uint64_t measured) override;

private:
    const char16_t* PathOf(const char16_t* path);
    Status OpenFile(const char16_t* path, NtFile::Use use, NtFile* file) {
        return file->Open(PathOf(path), use);
    }
    void Save();

    NtFile& disk_;
    NtFile device_;
    char16_t volume_[kPathUnits] = {}, root_[kPathUnits] = {}, path_[kPathUnits] = {}, late_[kPathUnits] = {};
};

void Pause(std::uint32_t milliseconds);

}  // namespace proof
