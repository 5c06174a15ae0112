// What becomes of a served machine when the host fails it: the n-th call of one kind fails, or the process is
// killed at it, for every n of a start, of clients' requests, of a save, a reboot and a stop. Behind each the
// protected volume's own sectors are as they were, the server lives or has ended with a reason that it named,
// what was promised is there or its loss is said, and the next start works. A single call that fails costs
// nothing that was kept, said or not.
//
//   KVR_LONG=1           every n; otherwise a few of each kind
//   KVR_FAULT_TRACE=1    tells the place of each call that fails
//   fault_sweep [PHASE [KIND [N [LASTS]]]]  prints what the processes of a single point say
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include "tests/nbd/faults/victim.h"
#include "tool/demo/offline_ntfs.h"

namespace fault_sweep {
namespace {

using host_faults::Call;

struct Phase {
    const char* name;
    void (Victim::*run)();
};
constexpr Phase kPhases[] = {{"start", &Victim::Start},
                             {"requests", &Victim::Requests},
                             {"save", &Victim::Save},
                             {"reboot", &Victim::Reboot},
                             {"stop", &Victim::Stop}};

struct Kind {
    const char* name;
    Call call;
    int error;        // 0: killed there
    unsigned sample;  // how many points of a phase the short run takes
};
constexpr Kind kKinds[] = {{"read", Call::Read, EIO, 3},
                           {"write", Call::Write, EIO, 3},
                           {"write-full", Call::Write, ENOSPC, 2},
                           {"sync", Call::Sync, EIO, 2},
                           {"descriptor", Call::Descriptor, EMFILE, 2},
                           {"thread", Call::Thread, EAGAIN, 3},
                           {"small-allocation", Call::SmallAllocation, ENOMEM, 5},
                           {"large-allocation", Call::LargeAllocation, ENOMEM, 3},
                           {"map", Call::Map, ENOMEM, 2},
                           {"name", Call::Name, EIO, 2},
                           {"size", Call::Size, ENOSPC, 1},
                           {"killed", Call::Any, 0, 5}};

template <class Record>
Record& Share() {
    void* memory = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return *new (memory) Record{};
}

struct Ending {
    int status;
    std::string said;
    bool Exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

class Sweep {
public:
    Sweep() {
        const Ending made = Run([&] {
            MakeTemplate(original_);
            return kLived;
        });
        if (!made.Exited(kLived)) throw std::runtime_error("no machine to try: " + made.said);
        offset_ = kVolumeOffset;
        const std::uint64_t size = std::filesystem::file_size(original_ + "/disk0.img");
        const tool::OfflineVolume volume(original_ + "/disk0.img", offset_, size - offset_);
        own_ = tool::DriverFileExtents(volume);
        for (tool::Extent& extent : own_) extent.offset += offset_;
        base_ = Digest(original_);
    }
    ~Sweep() {
        if (verbose) std::system(("tail -n 40 " + folder_ + "/log").c_str());
        std::filesystem::remove_all(scratch_);
    }
    Sweep(const Sweep&) = delete;
    Sweep& operator=(const Sweep&) = delete;

    // Empty, or what is broken. `struck`: the phase had that many calls.
    std::string Try(const Phase& phase, const Kind& kind, std::uint64_t nth, bool lasts, bool& struck);
    // How many points a phase has, and failures of the run without a fault.
    std::uint64_t Count(const Phase& phase, const Kind& kind);
    bool verbose = false;

private:
    static constexpr std::uint64_t kVolumeOffset = 1024 * 1024;

    template <class Body>
    Ending Run(const Body& body);
    tool::VolumeHash Digest(const std::string& folder) const {
        const std::string image = folder + "/disk0.img";
        return tool::HashVolume(image, 0, std::filesystem::file_size(image), own_);
    }
    void Renew() const {
        std::filesystem::remove_all(folder_);
        if (std::system(("cp -r --sparse=auto " + original_ + " " + folder_).c_str()) != 0) std::abort();
    }
    Ending Strike(const Phase& phase);

    host_faults::Plan& plan_ = Share<host_faults::Plan>();
    Promises& promises_ = Share<Promises>();
    const std::string scratch_ = [] {
        std::string name =
            std::filesystem::exists("/dev/shm") ? "/dev/shm/kvr-faults.XXXXXX" : "/tmp/kvr-faults.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) std::abort();
        return name;
    }();
    const std::string original_ = scratch_ + "/original", folder_ = scratch_ + "/pc",
                      said_ = scratch_ + "/said";
    std::uint64_t offset_ = 0;
    std::vector<tool::Extent> own_;  // of the disk: what protection may change
    tool::VolumeHash base_;
};

// Runs `body` in a process of its own and returns its end; a process that hangs is ended after a while.
template <class Body>
Ending Sweep::Run(const Body& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) std::abort();
    if (child == 0) {
        alarm(60);
        const int file = open(said_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        dup2(file, 1);
        dup2(file, 2);
        host_faults::UseFaultPlan(&plan_);
        int code = kBroken;
        try {
            code = body();
        } catch (const Broken& broken) {
            std::fprintf(stderr, "BROKEN: %s\n", broken.what());
        } catch (const nbd::Error& error) {
            std::fprintf(stderr, "ended: %s\n", error.what());
            code = kNamed;
        }
        plan_.armed = 0;
        std::fflush(nullptr);
        _exit(code);
    }
    Ending ending{};
    waitpid(child, &ending.status, 0);
    std::ostringstream text;
    text << std::ifstream(said_).rdbuf();
    ending.said = text.str();
    if (verbose) std::printf("status %x: %s\n", ending.status, ending.said.c_str());
    return ending;
}

Ending Sweep::Strike(const Phase& phase) {
    for (auto& seen : plan_.seen) seen = 0;
    plan_.struck = plan_.armed = 0;
    promises_.durable = 1;
    Renew();
    return Run([&] {
        Victim victim(folder_, plan_, promises_);
        (victim.*phase.run)();
        if (phase.run != &Victim::Stop) victim.CheckServes();
        return kLived;
    });
}

std::uint64_t Sweep::Count(const Phase& phase, const Kind& kind) {
    plan_.nth = ~0ull;
    const Ending ending = Strike(phase);
    if (!ending.Exited(kLived)) {
        std::printf("%s without a fault: %s\n", phase.name, ending.said.c_str());
        return 0;
    }
    return plan_.seen[static_cast<std::uint32_t>(kind.call)];
}

std::string Sweep::Try(const Phase& phase, const Kind& kind, std::uint64_t nth, bool lasts, bool& struck) {
    plan_.call = kind.call;
    plan_.error = kind.error;
    plan_.nth = nth;
    plan_.lasts = lasts;
    const Ending ending = Strike(phase);
    struck = plan_.struck != 0;
    plan_.armed = 0;
    plan_.nth = ~0ull;
    if (ending.Exited(kBroken)) return ending.said;
    const bool killed = kind.error == 0 && WIFSIGNALED(ending.status) && WTERMSIG(ending.status) == SIGKILL;
    const bool named = ending.Exited(kNamed) || ending.said.find("Kvr host kernel: ") != std::string::npos ||
                       ending.said.find("Fatal glibc error") != std::string::npos;
    if (!ending.Exited(kLived) && !named && !killed)
        return "ends with status " + std::to_string(ending.status) + ": " + ending.said;
    const Ending next = Run([&] {
        CheckNextStart(folder_, promises_, ending.Exited(kLived));
        return kLived;
    });
    if (!next.Exited(kLived)) return "behind it: status " + std::to_string(next.status) + ": " + next.said;
    if (!(Digest(folder_) == base_)) return "the base has changed";
    if (promises_.lost != 0 && kind.error != 0) return "kept changes are gone: " + ending.said;
    return {};
}

struct Totals {
    std::uint64_t points = 0, broken = 0;
};

void SweepOver(Sweep& sweep, const Phase& phase, const Kind& kind, bool everyOne, Totals& totals) {
    const std::uint64_t calls = sweep.Count(phase, kind);
    const std::uint64_t stride = everyOne ? 1 : std::max<std::uint64_t>(1, calls / kind.sample);
    const auto began = std::chrono::steady_clock::now();
    std::uint64_t points = 0, broken = 0;
    for (std::uint64_t nth = everyOne ? 1 : 1 + stride / 2; nth <= calls; nth += stride) {
        bool struck = false;
        const std::string trouble = sweep.Try(phase, kind, nth, false, struck);
        points += struck;
        broken += !trouble.empty();
        if (!trouble.empty())
            std::printf("FAILED: %s %s %llu: %s\n", phase.name, kind.name, static_cast<unsigned long long>(nth),
                        trouble.c_str());
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf("%-9s %-17s %6llu calls, %6llu points, %llu broken, %.1f s\n", phase.name, kind.name,
                static_cast<unsigned long long>(calls), static_cast<unsigned long long>(points),
                static_cast<unsigned long long>(broken), took.count());
    std::fflush(stdout);
    totals.points += points;
    totals.broken += broken;
}

int Main(int argc, char** argv) {
    Sweep sweep;
    Totals totals;
    const bool everyOne = std::getenv("KVR_LONG") != nullptr;
    for (const Phase& phase : kPhases) {
        if (argc > 1 && std::strcmp(argv[1], "all") != 0 && std::strcmp(argv[1], phase.name) != 0) continue;
        for (const Kind& kind : kKinds) {
            if (argc > 2 && std::strcmp(argv[2], kind.name) != 0) continue;
            if (argc > 3) {
                sweep.verbose = true;
                bool struck = false;
                std::printf(
                    "%s\n",
                    sweep.Try(phase, kind, std::strtoull(argv[3], nullptr, 10), argc > 4, struck).c_str());
                std::printf("struck: %d\n", struck);
                continue;
            }
            SweepOver(sweep, phase, kind, everyOne, totals);
        }
    }
    std::printf("%llu points, %llu broken\n", static_cast<unsigned long long>(totals.points),
                static_cast<unsigned long long>(totals.broken));
    return totals.broken == 0 ? 0 : 1;
}

}  // namespace
}  // namespace fault_sweep

int main(int argc, char** argv) {
    return fault_sweep::Main(argc, argv);
}
