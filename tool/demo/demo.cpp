#include "tool/demo/demo.h"
#include <chrono>
#include <cstdio>
#include <thread>
#include <unistd.h>
#include "machine/partition/formatter.h"
#include "platform/host/rtl/debug_sink.h"
#include "tool/error.h"
#include "tool/demo/image_source.h"
#include "tool/demo/offline_ntfs.h"
#include "tool/demo/scratch.h"
#include "tool/demo/sparse_file.h"
#include "tool/demo/stage.h"

namespace tool {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kSystemVolume = 64 * kMiB;
constexpr std::uint64_t kDataVolume = 1024 * kMiB;
constexpr std::int64_t kSwap = 256 * static_cast<std::int64_t>(kMiB);
constexpr std::uint64_t kScratchBesidesImage = 1024 * kMiB;
constexpr std::chrono::seconds kProvisioningStands{30};

struct Places {
    Place system, data;
    std::int64_t swapBytes = kSwap;
};

Place PartitionOf(const std::string& image, std::size_t index) {
    machine::PartitionTable table;
    std::string error;
    if (!machine::ReadImagePartitions(image, 512, table, error)) throw Error(error);
    const machine::Partition& partition = table.partitions.at(index);
    return {image, partition.offset, partition.length, 512};
}

void MakeDisk(const std::string& path, std::vector<machine::NewVolume> volumes) {
    machine::NewDisk disk;
    disk.path = path;
    disk.volumes = std::move(volumes);
    disk.size = 2 * machine::kPartitionAlignment;
    for (const auto& volume : disk.volumes) disk.size += volume.size;
    std::string error;
    if (!machine::CreateDisk(disk, error)) throw Error(error);
}

machine::NewVolume NewVolume(std::uint64_t size, const char* label) {
    machine::NewVolume volume;
    volume.size = size;
    volume.label = label;
    return volume;
}

Places MakePlaces(const std::string& folder, Report& report) {
    const std::string disk = folder + "/disk.img";
    MakeDisk(disk, {NewVolume(kSystemVolume, "SYSTEM"), NewVolume(kDataVolume, "DATA")});
    report.Note("a GPT disk with an NTFS system volume of " + Bytes(kSystemVolume) +
                " and an NTFS data volume of " + Bytes(kDataVolume));
    return {PartitionOf(disk, 0), PartitionOf(disk, 1)};
}

// The image's own volume is the protected one; the configuration lives on a small system disk beside it.
Places CopyPlaces(const std::string& folder, const std::string& image, const Place& found, const SwapPlan& plan,
                  Report& report) {
    MakeDisk(folder + "/system.img", {NewVolume(kSystemVolume, "SYSTEM")});
    CopySparse(image, folder + "/disk.img");
    const std::uint32_t sectors = OfflineVolume::SectorBytes(image, found.offset);
    const std::string larger = sectors == found.sectorBytes
                                   ? ""
                                   : ", with larger sectors than its disk (" + std::to_string(sectors) + ")";
    report.Note("a copy of " + image + ": its NTFS volume of " + Bytes(found.length) + " at " +
                Bytes(found.offset) + larger + ", beside a system disk");
    Places places{PartitionOf(folder + "/system.img", 0), found, plan.swapBytes};
    places.data.image = folder + "/disk.img";
    return places;
}

// ---- preparing -------------------------------------------------------------------------------------------

void MakeSystemFolders(machine::GuestFiles system) {
    for (const char16_t* folder : {u"\\Windows\\system32", u"\\Windows\\system32\\drivers"})
        Require(system.MakeDirectory(folder), "the system's folders cannot be made");
}

// Nothing is protected yet: what does not start now is no fault of the driver's work.
void StartFirstTime(Computer& computer) {
    computer.SetClock(2031, 5, 4, 8, 0);
    try {
        computer.Boot();
    } catch (const StepFailed& failure) {
        throw Error(failure.what());
    }
}

void FirstBoot(Stage& stage) {
    StartFirstTime(stage.computer);
    const std::string why = stage.computer.WhyDataIsReadOnly();
    if (!why.empty()) throw Error("the NTFS volume can only be read: " + why);
    MakeSystemFolders(stage.computer.System());
    std::u16string folder = u"\\kvr demonstration";
    bool exists = true;
    while (NT_SUCCESS(stage.computer.Data().Exists(folder, exists)) && exists) folder += u"+";
    Populate(stage.computer.Data(), folder, 1);
    const bool enabled = stage.computer.IsProtecting();
    const FixedVolume status = stage.computer.DataStatus();
    stage.report.Check("the first boot protects nothing",
                       !enabled && status.state == 0 && status.swapTotal == 0,
                       std::string("enabled ") + (enabled ? "1" : "0") + ", state " +
                           std::to_string(status.state) + ", no configuration is known yet");
}

void WriteConfiguration(Stage& stage) {
    const std::u16string configuration = stage.Protecting(config::kBootModeDiscard);
    stage.computer.Configure(configuration);
    const std::u16string text = stage.computer.ConfigurationInForce();
    stage.report.Check("the configuration is written", text == configuration,
                       Count(text.size(), "character") + " through the control device, read back the same");
}

// Waits for the provisioning thread. False when it stopped moving.
bool WatchProvisioning(Stage& stage, std::int64_t bytes, FixedVolume& status) {
    auto moved = std::chrono::steady_clock::now();
    std::int64_t before = -1;
    for (;;) {
        status = stage.computer.DataStatus();
        if (status.swapStatus != ctl::kSwapProvisioning && (status.swapStatus != 0 || before >= 0)) return true;
        stage.report.Progress("making swap storage: " + Bytes(status.swapTotal) + " of " + Bytes(bytes));
        const auto now = std::chrono::steady_clock::now();
        if (status.swapStatus == ctl::kSwapProvisioning && status.swapTotal != before) {
            before = status.swapTotal;
            moved = now;
        }
        if (now - moved > kProvisioningStands) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void MakeSwapStorage(Stage& stage, std::int64_t bytes) {
    stage.computer.MakeSwap(bytes);
    FixedVolume status{};
    const bool ended = WatchProvisioning(stage, bytes, status);
    const bool made = ended && status.swapStatus == ctl::kSwapPresent && status.swapTotal >= bytes;
    stage.report.Check(
        "swap storage is made", made,
        Bytes(status.swapTotal) + " of " + Bytes(bytes) + ", status " + std::to_string(status.swapStatus));
    if (!made) throw StepFailed("without swap storage nothing can be shown");
    stage.computer.Shutdown();
    stage.TakeFixedState();
    const OfflineVolume volume(stage.data.image, stage.data.offset, stage.data.length);
    std::uint64_t inImage = 0;
    const auto runs = SwapFileExtents(volume);
    for (const Extent& run : runs) inImage += run.length;
    stage.report.Check(
        "the driver learnt all of it", inImage == static_cast<std::uint64_t>(status.swapTotal),
        "kvr.SWP takes " + Bytes(inImage) + " in " + Count(runs.size(), "run") + " of the image");
}

void SecondBoot(Stage& stage, std::int64_t bytes) {
    stage.computer.Boot();
    const bool enabled = stage.computer.IsProtecting();
    const FixedVolume status = stage.computer.DataStatus();
    stage.report.Check(
        "the next boot protects the volume",
        enabled && status.state == 2 && status.swapStatus == ctl::kSwapPresent && status.swapTotal >= bytes,
        std::string("enabled ") + (enabled ? "1" : "0") + ", state " + std::to_string(status.state) + ", " +
            Bytes(status.SwapFree()) + " of swap storage free");
}

bool Prepare(Stage& stage, std::int64_t swapBytes) {
    stage.report.Heading("preparing");
    try {
        FirstBoot(stage);
        WriteConfiguration(stage);
        MakeSwapStorage(stage, swapBytes);
        SecondBoot(stage, swapBytes);
        return true;
    } catch (const StepFailed& failure) {
        stage.report.Check("preparing", false, failure.what());
        return false;
    }
}

// ---- the rows --------------------------------------------------------------------------------------------

struct Row {
    const char* title;
    void (*show)(Stage&);
    bool onAnyImage;
};

constexpr Row kRows[] = {
    {"1. discard: changes are gone after a reboot", ShowDiscard, true},
    {"2. keep until a date", ShowKeep, true},
    {"3. merge: one boot makes the changes the volume's own", ShowMerge, true},
    {"4. power cut in the middle of heavy writes", ShowPowerCut, true},
    {"5. storage full", ShowStorageFull, false},
    {"6. refused", ShowRefused, false},
    {"7. what is written in the course of a shutdown", ShowShutdown, true},
    {"8. files renamed to names of the system's", ShowRenamed, false},
    {"9. a volume that is unlocked after the start", ShowLocked, true},
};

void ShowRows(Stage& stage, bool givenImage) {
    for (const Row& row : kRows) {
        if (givenImage && !row.onAnyImage) continue;
        stage.report.Heading(row.title);
        try {
            row.show(stage);
        } catch (const StepFailed& failure) {
            stage.report.Check("a step failed", false, failure.what());
            stage.computer.PowerCut();
        }
    }
}

void FollowDriver() {
    host::FollowDebug([](void*, const char* line) { std::fprintf(stderr, "%s\n", line); }, nullptr);
}

int ShowAll(const std::string& folder, const Places& places, const DemoOptions& options, Report& report) {
    if (options.verbose) FollowDriver();
    Computer computer(places.system, places.data);
    Stage stage{report, computer, places.data, folder, {}, {}, {}};
    if (Prepare(stage, places.swapBytes)) ShowRows(stage, !options.image.empty());
    report.Summary("kvrhost demo");
    return report.AllPassed() ? 0 : kExitFailed;
}

// What `work` does; an Error becomes its sentence and exit code.
template <class Function>
int Guarded(const Function& work) {
    try {
        return work();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kvrhost: %s\n", error.what());
        return kExitError;
    }
}

}  // namespace

int RunDemo(const DemoOptions& options) {
    Report report(stdout, isatty(STDOUT_FILENO) != 0);
    if (options.image.empty()) {
        return RunInScratch(options.scratch, kScratchBesidesImage, [&](const std::string& folder) {
            return Guarded([&] {
                report.Heading("the computer");
                return ShowAll(folder, MakePlaces(folder, report), options, report);
            });
        });
    }
    const Place found = FindVolume(options.image);
    const SwapPlan plan =
        PlanSwap(options.image, OfflineVolume(options.image, found.offset, found.length).FreeBytes());
    const std::uint64_t room = 2 * AllocatedBytes(options.image) + kScratchBesidesImage;
    return RunInScratch(options.scratch, room, [&](const std::string& folder) {
        return Guarded([&] {
            report.Heading("the computer");
            return ShowAll(folder, CopyPlaces(folder, options.image, found, plan, report), options, report);
        });
    });
}

}  // namespace tool
