// A run of `kvrhost prove` with a guest that does what a case says.
#pragma once
#include <filesystem>
#include <string>
#include <gtest/gtest.h>
#include "tests/inject/fake_windows.h"
#include "tests/prove_boot/guest/guest.h"
#include "tool/demo/demo.h"
#include "tool/prove/prove.h"

namespace proof_run {

using boot_guest::Mode;

// A byte of the volume of Windows in which nothing lies.
constexpr std::uint64_t FreePlace(bool efi) {
    return fake_windows::VolumeOffset(efi) + fake_windows::kVolumeLength - (1 << 20);
}

// With a driver that is none, into the new folder "proof".
inline tool::ProveOptions Options(const TestFolder& folder, const std::string& image) {
    tool::ProveOptions options;
    options.image = image;
    options.folder = folder.File("proof");
    options.driver = fake_windows::HostFile(folder, "kvr64.sys", fake_windows::DriverImage());
    options.tool = options.proof = options.driver;
    options.allowUnsigned = true;
    options.withoutKvm = true;
    options.memory = 512;
    options.storageBytes = 1 << 20;
    options.seconds = 100;  // on a busy machine
    return options;
}

// What the guest that the image starts is to do at that act; `at`: the byte that a merge and a lie change.
inline void Tell(const std::string& image, Mode mode, std::uint32_t act, std::uint64_t at = FreePlace(false)) {
    const boot_guest::Told told{boot_guest::kToldMagic, mode, act, at / boot_guest::kSector};
    const auto* bytes = reinterpret_cast<const char*>(&told);
    TestFolder::Put(image, boot_guest::kToldAt * boot_guest::kSector, {bytes, bytes + sizeof told});
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

struct Case {
    Mode mode;
    std::uint32_t act;
    std::size_t failed;  // rows
    std::size_t played;  // acts
    std::string said;
    std::string bus = "sata";
};

inline void Expect(const Case& one, const std::string& image, const std::string& emulator, bool efi = false) {
    SCOPED_TRACE(one.bus + " " + std::to_string(static_cast<int>(one.mode)));
    const TestFolder folder;
    Tell(image, one.mode, one.act, FreePlace(efi));
    const auto before = TestFolder::Bytes(image);
    tool::ProveOptions options = Options(folder, image);
    options.emulator = emulator;
    options.bus = one.bus;
    if (one.mode == Mode::Hangs) options.seconds = 3;
    EXPECT_EQ(tool::Prove(options), one.failed == 0 ? 0 : tool::kExitFailed);
    const std::string rows = Rows(folder);
    EXPECT_EQ(CountOf(rows, "FAIL"), one.failed) << rows;
    EXPECT_NE(rows.find(one.said), rows.npos) << rows;
    EXPECT_EQ(CountOf(rows, "the guest played the act"), one.played) << rows;
    EXPECT_EQ(std::filesystem::exists(folder.File("proof/act-1.screen.ppm")),
              one.mode == Mode::Hangs && emulator.empty());
    EXPECT_FALSE(std::filesystem::exists(folder.File("proof/disk.raw")));
    EXPECT_TRUE(TestFolder::Bytes(image) == before) << "the image was written to";
}

}  // namespace proof_run
