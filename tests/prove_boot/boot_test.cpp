// `kvrhost prove` as it is for a user: qemu, firmware, and a guest that really boots, though no Windows.
#include <filesystem>
#include <gtest/gtest.h>
#include "machine/partition/subprocess.h"
#include "tests/prove/proof_run.h"
#include "tests/prove_boot/guest/guest.h"
#include "tool/demo/demo.h"

namespace {

using namespace proof_run;
using boot_guest::Mode;
using boot_guest::Told;

constexpr unsigned kSeconds = 100;                // that a boot may take on a busy machine
constexpr std::size_t kCode = 440, kTable = 512;  // of a first sector: what is code, and what ends it

std::vector<char> Guest(const char* name) {
    return TestFolder::Bytes(std::string(KVR_BOOT_GUESTS) + "/" + name);
}

void Tell(const std::string& image, bool efi, Mode mode, std::uint32_t act) {
    const Told told{boot_guest::kToldMagic, mode, act, FreePlace(efi) / boot_guest::kSector};
    const auto* bytes = reinterpret_cast<const char*>(&told);
    TestFolder::Put(image, boot_guest::kToldAt * boot_guest::kSector, {bytes, bytes + sizeof told});
}

// In front of the partitions, where nothing else lies.
void AddBiosGuest(const std::string& image) {
    const std::vector<char> guest = Guest("bios.bin");
    TestFolder::Put(image, 0, {guest.begin(), guest.begin() + kCode});
    TestFolder::Put(image, kTable, {guest.begin() + kTable, guest.end()});
}

// To the EFI system partition, where a firmware looks that knows of no other system.
void AddEfiGuest(const std::string& image) {
    const std::string partition = image + "@@1M", guest = std::string(KVR_BOOT_GUESTS) + "/efi.exe";
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"mmd", "-i", partition, "::/EFI/BOOT"},
          std::vector<std::string>{"mcopy", "-i", partition, guest, "::/EFI/BOOT/BOOTX64.EFI"}}) {
        const auto done = machine::RunTool(command[0], {command.begin() + 1, command.end()});
        ASSERT_EQ(done.exitCode, 0) << done.output;
    }
}

struct Case {
    Mode mode;
    std::uint32_t act;
    const char* bus;
    std::size_t failed;  // rows
    std::size_t played;  // acts
    std::string said;
};

const Case kCases[] = {
    {Mode::Honest, 0, "sata", 0, 10, "not one of "},
    {Mode::Fails, 2, "ide", 1, 10, "something must work"},
    {Mode::Lies, 2, "virtio", 1, 2, "4 KiB differ, at byte "},
    {Mode::Hangs, 1, "nvme", 1, 1,
     "did not power off in time and was ended; the last it said was 'the guest has booted'"},
    {Mode::Resets, 2, "sata", 1, 2, "restarted or powered off before the act was over"},
    {Mode::Panics, 1, "sata", 1, 1, "it stopped with a blue screen"},
};

void Expect(const Case& one, const TestFolder& folder, const std::string& image, bool efi) {
    SCOPED_TRACE(std::string(one.bus) + " " + std::to_string(static_cast<int>(one.mode)));
    Tell(image, efi, one.mode, one.act);
    const auto before = TestFolder::Bytes(image);
    tool::ProveOptions options = Options(folder, image);
    options.withoutKvm = true;
    options.memory = 512;
    options.bus = one.bus;
    options.seconds = one.mode == Mode::Hangs ? 3 : kSeconds;
    EXPECT_EQ(tool::Prove(options), one.failed == 0 ? 0 : tool::kExitFailed);
    const std::string rows = Rows(folder);
    EXPECT_EQ(CountOf(rows, "FAIL"), one.failed) << rows;
    EXPECT_NE(rows.find(one.said), rows.npos) << rows;
    EXPECT_EQ(CountOf(rows, "the guest played the act"), one.played) << rows;
    EXPECT_EQ(std::filesystem::exists(folder.File("proof/act-1.screen.ppm")), one.mode == Mode::Hangs);
    EXPECT_TRUE(TestFolder::Bytes(image) == before) << "the image was written to";
}

TEST(ProveBoot, SeesWhatABootedGuestDoes) {
    const TestFolder source;
    const std::string image = fake_windows::Make(source, {});
    AddBiosGuest(image);
    for (const Case& one : kCases) {
        const TestFolder folder;
        Expect(one, folder, image, false);
    }
}

TEST(ProveBoot, StartsByUefiToo) {
    const TestFolder source, folder;
    const std::string image = fake_windows::Make(source, {.efi = true});
    AddEfiGuest(image);
    Expect({Mode::Lies, 2, "nvme", 1, 2, "4 KiB differ"}, folder, image, true);
}

TEST(ProveBoot, TellsWhatQemuSaid) {
    const TestFolder source, folder;
    tool::ProveOptions options = Options(folder, fake_windows::Make(source, {}));
    options.withoutKvm = true;
    options.memory = 1u << 30;
    EXPECT_EQ(tool::Prove(options), tool::kExitFailed);
    EXPECT_NE(Rows(folder).find("qemu failed: qemu-system-x86_64: "), std::string::npos) << Rows(folder);
}

}  // namespace
