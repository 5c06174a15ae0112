// `kvrhost prove` as it is for a user: qemu, firmware, and a guest that really boots, though no Windows.
#include "machine/partition/subprocess.h"
#include "tests/prove/proof_run.h"

namespace {

using namespace proof_run;
constexpr std::size_t kCode = 440, kTable = 512;  // of a first sector: what is code, and what ends it

std::vector<char> Guest(const char* name) {
    return TestFolder::Bytes(std::string(KVR_BOOT_GUESTS) + "/" + name);
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

TEST(ProveBoot, SeesWhatABootedGuestDoes) {
    const TestFolder source;
    const std::string image = fake_windows::Make(source, {});
    AddBiosGuest(image);
    const Case cases[] = {
        {Mode::Honest, 0, 0, 10, "not one of "},
        {Mode::Fails, 2, 1, 10, "something must work", "ide"},
        {Mode::Lies, 2, 1, 2, "4 KiB differ, at byte ", "virtio"},
        {Mode::Hangs, 1, 1, 1,
         "did not power off in time and was ended; the last it said was 'the guest has booted'", "nvme"},
        {Mode::Resets, 2, 1, 2, "restarted or powered off before the act was over"},
        {Mode::Panics, 1, 1, 1, "it stopped with a blue screen"},
    };
    for (const Case& one : cases) Expect(one, image, "");
}

TEST(ProveBoot, StartsByUefiToo) {
    const TestFolder source;
    const std::string image = fake_windows::Make(source, {.efi = true});
    AddEfiGuest(image);
    Expect({Mode::Lies, 2, 1, 2, "4 KiB differ", "nvme"}, image, "", true);
}

TEST(ProveBoot, TellsWhatQemuSaid) {
    const TestFolder source, folder;
    tool::ProveOptions options = Options(folder, fake_windows::Make(source, {}));
    options.memory = 1u << 30;
    EXPECT_EQ(tool::Prove(options), tool::kExitFailed);
    EXPECT_NE(Rows(folder).find("qemu failed: qemu-system-x86_64: "), std::string::npos) << Rows(folder);
}

}  // namespace
