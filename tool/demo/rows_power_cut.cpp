#include <atomic>
#include <chrono>
#include <thread>
#include "tool/demo/stage.h"

namespace tool {
namespace {

constexpr unsigned kWriters = 3;
constexpr unsigned kFilesEach = 24;
constexpr std::size_t kLargestFile = 160 * 1024;  // what is written before the cut fits into the swap storage
constexpr std::chrono::seconds kLongestWait{30};

struct Written {
    std::atomic<std::uint64_t> files{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<bool> enough{false};
};

// Makes, overwrites and deletes files until the power goes.
void KeepWriting(machine::GuestFiles volume, unsigned number, Written& written) {
    std::mt19937_64 random(number);
    while (!written.enough) {
        const std::u16string path =
            u"\\busy " + Widen(std::to_string(number)) + u" " + Widen(std::to_string(random() % kFilesEach));
        if (random() % 5 == 0) {
            const NTSTATUS status = volume.Delete(path);
            if (!NT_SUCCESS(status) && status != STATUS_OBJECT_NAME_NOT_FOUND) return;
            continue;
        }
        const auto bytes = RandomBytes(random, random() % kLargestFile);
        if (!NT_SUCCESS(volume.WriteFile(path, bytes))) return;
        ++written.files;
        written.bytes += bytes.size();
    }
}

// Overwrites files that belong to the fixed state as well: their sectors are the ones at stake.
void KeepOverwriting(machine::GuestFiles volume, const FileTable& files, Written& written) {
    std::mt19937_64 random(7);
    std::vector<std::pair<std::u16string, std::uint64_t>> targets;
    for (const auto& [path, file] : files) {
        if (file.plain && file.hashed && file.size != 0) targets.emplace_back(path, file.size);
    }
    while (!written.enough && !targets.empty()) {
        const auto& [path, size] = targets[random() % targets.size()];
        const auto bytes = RandomBytes(random, std::min<std::uint64_t>(size, kLargestFile));
        if (!NT_SUCCESS(volume.WriteAt(path, 0, bytes))) return;
        ++written.files;
        written.bytes += bytes.size();
    }
}

bool WaitForCut(machine::PowerSwitch& power) {
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (!power.IsCut() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return power.IsCut();
}

// Writes until the `nth` disk write, of which `kept` sectors still reach the disk; then the computer is off.
void CutAt(Stage& stage, std::uint64_t nth, std::uint32_t kept) {
    Written written;
    machine::PowerSwitch& power = stage.computer.Hardware().Power();
    machine::GuestFiles volume = stage.computer.Data();
    power.ArmCut(nth, kept);
    std::vector<std::thread> writers;
    for (unsigned i = 0; i < kWriters; ++i)
        writers.emplace_back([&volume, &written, i] { KeepWriting(volume, i, written); });
    writers.emplace_back([&] { KeepOverwriting(volume, stage.fixedFiles, written); });
    const bool cut = WaitForCut(power);
    written.enough = true;
    for (std::thread& writer : writers) writer.join();
    stage.computer.PowerCut();
    stage.report.Check("the power fails within disk write " + std::to_string(nth), cut,
                       "after " + Count(written.files, "file") + " with " + Bytes(written.bytes.load()) +
                           " by " + Count(writers.size(), "writer"));
}

}  // namespace

void ShowPowerCut(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));
    const struct {
        std::uint64_t write;
        std::uint32_t sectors;
    } cuts[] = {{40, 0}, {333, 1}, {2500, 5}};
    for (const auto& cut : cuts) {
        CutAt(stage, cut.write, cut.sectors);
        stage.CheckUnchanged("the volume is the old one bit for bit", "with the power off");
        stage.computer.Boot();
        stage.CheckFiles("the next boot shows the old files", stage.fixedFiles);
    }
    stage.computer.Shutdown();
    stage.CheckUnchanged("and leaves the volume as it is", "after the last boot");
}

}  // namespace tool
