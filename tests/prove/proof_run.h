// What every run of `kvrhost prove` in a test needs.
#pragma once
#include <string>
#include "tests/inject/fake_windows.h"
#include "tool/prove/prove.h"

namespace proof_run {

// A byte of the volume of Windows in which nothing lies.
constexpr std::uint64_t FreePlace(bool efi) {
    return fake_windows::VolumeOffset(efi) + fake_windows::kVolumeLength - (1 << 20);
}

inline std::string HostFile(const TestFolder& folder, const std::string& name,
                            const fake_windows::Bytes& bytes) {
    TestFolder::Put(folder.Sparse(name, 0), 0, {bytes.begin(), bytes.end()});
    return folder.File(name);
}

// With a driver that is none, into the new folder "proof".
inline tool::ProveOptions Options(const TestFolder& folder, const std::string& image) {
    tool::ProveOptions options;
    options.image = image;
    options.folder = folder.File("proof");
    options.driver = HostFile(folder, "kvr64.sys", fake_windows::DriverImage());
    options.tool = options.proof = options.driver;
    options.allowUnsigned = true;
    options.storageBytes = 1 << 20;
    options.seconds = 20;
    return options;
}

inline std::string Rows(const TestFolder& folder) {
    const auto bytes = TestFolder::Bytes(folder.File("proof/proof.txt"));
    return {bytes.begin(), bytes.end()};
}

inline std::size_t CountOf(const std::string& text, const std::string& word) {
    std::size_t count = 0;
    for (std::size_t at = text.find(word); at != text.npos; at = text.find(word, at + 1)) ++count;
    return count;
}

}  // namespace proof_run
