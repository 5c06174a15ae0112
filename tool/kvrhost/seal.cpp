#include "tool/kvrhost/seal.h"
#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <unistd.h>
#include "nbd/sealing.h"
#include "tool/kvrctl/printable.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr std::size_t kMostPlaces = 100;  // that are listed of one volume

// With the machine off nobody powers it on meanwhile; with it on, what is protected stands still.
std::optional<nbd::FolderLock> KeepOff(const nbd::MachineFolder& folder) {
    try {
        return std::optional<nbd::FolderLock>(std::in_place, folder);
    } catch (const nbd::Error&) {
        std::puts(
            "The machine is on: its disks are read below the driver. A volume that is not protected may change "
            "meanwhile.");
        return std::nullopt;
    }
}

// A line that is drawn anew, on a terminal.
class ProgressLine {
public:
    ~ProgressLine() {
        if (drawn_) std::fputs("\r\033[K", stderr);
    }
    inspect::Progress For(const std::string& name) {
        return [this, name](const char* what, std::uint64_t done, std::uint64_t total) {
            const auto now = std::chrono::steady_clock::now();
            if (!shown_ || now < next_) return;
            next_ = now + std::chrono::milliseconds(100);
            std::fprintf(stderr, "\r\033[K%s: %s, %s", name.c_str(), what,
                         ctl::PercentText(done, total).c_str());
            drawn_ = true;
        };
    }

private:
    const bool shown_ = isatty(STDERR_FILENO) == 1;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point next_{};
};

std::string TimeText(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local{};
    char text[64] = "";
    localtime_r(&time, &local);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &local);
    return text;
}

std::string Listed(const std::vector<std::string>& owners) {
    std::string text;
    for (const std::string& owner : owners) text += (text.empty() ? "" : ", ") + ctl::Printable(owner);
    return text;
}

void PrintChanged(const nbd::Verified& verified) {
    std::size_t left = kMostPlaces;
    for (const inspect::Owned& owned : verified.changed) {
        if (left-- == 0) {
            std::printf("  ... and %zu places more\n", verified.changed.size() - kMostPlaces);
            return;
        }
        std::printf("  at byte %llu, %s: %s\n", static_cast<unsigned long long>(owned.place.offset),
                    ctl::SizeText(owned.place.length).c_str(), Listed(owned.owners).c_str());
    }
}

}  // namespace

int Seal(const std::string& path) {
    const nbd::MachineFolder folder = nbd::MachineFolder::Read(path);
    const std::optional<nbd::FolderLock> off = KeepOff(folder);
    ProgressLine line;
    const std::vector<inspect::PartSeal> parts = nbd::SealMachine(folder, line.For("sealing"));
    for (const inspect::PartSeal& part : parts)
        std::printf("%s: sealed, %s with %s of content\n", nbd::NameOf(part).c_str(),
                    ctl::SizeText(part.length).c_str(),
                    ctl::SizeText(part.groups.size() * inspect::kGroupBytes).c_str());
    return 0;
}

int Verify(const std::string& path) {
    const nbd::MachineFolder folder = nbd::MachineFolder::Read(path);
    const std::string file = folder.File(nbd::kSealFile);
    if (access(file.c_str(), F_OK) != 0) throw nbd::Error(path + " has no seal yet (kvrhost seal makes it)");
    const std::optional<nbd::FolderLock> off = KeepOff(folder);
    int result = 0;
    for (const inspect::PartSeal& part : inspect::LoadSeals(file)) {
        const std::string name = nbd::NameOf(part);
        if (part.merged) {
            std::printf("%s: was merged and has no new seal yet (it is taken while the machine is on)\n",
                        name.c_str());
            result = 1;
            continue;
        }
        nbd::Verified verified;
        {
            ProgressLine line;
            verified = nbd::VerifyPart(folder, part, line.For(name));
        }
        const std::string since = "since " + TimeText(part.takenAt);
        if (verified.changed.empty()) {
            std::printf("%s: no sector changed %s\n", name.c_str(), since.c_str());
            continue;
        }
        result = 1;
        std::printf("%s: CHANGED %s, %s in blocks of 4 KiB\n", name.c_str(), since.c_str(),
                    ctl::SizeText(verified.changedBytes).c_str());
        PrintChanged(verified);
    }
    return result;
}

}  // namespace tool
