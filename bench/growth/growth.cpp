// What a map of a given size costs: `kvr_growth CHUNKS` makes a volume with that many redirected chunks of 4
// KiB and prints one figure per line, its name and its value. bench/growth draws them over the sizes.
#include <atomic>
#include <cstdio>
#include <thread>
#include "bench/cases.h"
#include "bench/places.h"
#include "config/protected_volumes.h"
#include "platform/host/memory/pool.h"
#include "platform/host/rtl/debug_sink.h"
#include "platform/owners.h"
#include "swap/map_boot.h"
#include "swap/swap.h"

namespace bench {
namespace {

constexpr double kSecond = 1e9;
constexpr double kMillisecond = 1e6;

void Print(const char* name, double value) {
    std::printf("%s\t%.6g\n", name, value);
    std::fflush(stdout);
}

template <class Step>
double Took(const Step& step) {
    const double start = Now();
    step();
    return Now() - start;
}

// The longest time that a request of another thread waits during `step`, in nanoseconds.
template <class Step>
double LongestWait(Computer& computer, const Offsets& places, const Step& step) {
    std::atomic<bool> ends{false};
    std::atomic<bool> runs{false};
    double longest = 0;
    std::thread reader([&] {
        alignas(kPage) static std::uint8_t page[kPage];
        for (std::size_t n = 0; !ends; ++n) {
            const double wait = Took([&] {
                computer.Transfer(computer.Protected(), IRP_MJ_READ, (*places)[n % places->size()], kPage,
                                  page);
            });
            longest = std::max(longest, wait);
            runs = true;
        }
    });
    while (!runs) std::this_thread::yield();
    step();
    ends = true;
    reader.join();
    return longest;
}

void PrintSave(Computer& computer, const Offsets& places, const char* save, const char* pause) {
    std::vector<double> saves, pauses;
    for (int i = 0; i < 5; ++i) {
        saves.push_back(SaveMap(computer.Record()));
        pauses.push_back(LongestWait(computer, places, [&] { SaveMap(computer.Record()); }));
    }
    Print(save, Median(saves) / kSecond);
    // Of these the least: whatever else the computer does can only add to a wait on the clock.
    Print(pause, *std::min_element(pauses.begin(), pauses.end()) / kMillisecond);
}

void PrintRequests(const char* name, const Case& measured) {
    Rounds rounds(measured);
    for (unsigned i = 0; i < measured.rounds; ++i) rounds.Run();
    const Rounds::Result result = rounds.Median();
    Print(name, result.subject);
    Print((std::string(name) + ", floor").c_str(), result.floor);
    Print((std::string(name) + ", ratio").c_str(), result.ratio);
}

Case Requests(Computer& computer, UCHAR major, const Offsets& places, unsigned rounds) {
    return {"",
            0,
            FromMiddle(computer, computer.BareProtected(), major, kPage, places),
            FromStart(computer, computer.Protected(), major, kPage, places),
            256,
            rounds};
}

// Space taken and recorded, without the request around it.
void Commit(PVOLUME_EXTENSION volume, std::uint64_t place) {
    LARGE_INTEGER offset;
    offset.QuadPart = static_cast<LONGLONG>(place);
    PENDING_CHUNK* chain = nullptr;
    Require(NT_SUCCESS(LockFreeChunks(volume, &offset, kPage, &chain, nullptr)) &&
                NT_SUCCESS(CommitChunks(volume, chain, 0)),
            "the chunk is recorded");
}

// A quarter more chunks at most, half of them each way.
void PrintGrowing(Computer& computer) {
    const Layout& layout = computer.Places();
    const Offsets gaps = Shuffled(Places(layout.ScatteredBegin() + kPage, 2 * kPage, layout.scattered - 1));
    const unsigned rounds = std::clamp(layout.scattered / 8 / 256, 1u, 100u);
    const auto half = gaps->begin() + static_cast<std::ptrdiff_t>(gaps->size() / 2);
    const unsigned batch = std::min(layout.scattered / 8, 256u);
    Case writes = Requests(computer, IRP_MJ_WRITE, InOrder({gaps->begin(), half}), rounds);
    writes.batch = batch;
    PrintRequests("4 KiB first write", writes);
    Case commits = Requests(computer, IRP_MJ_WRITE, InOrder({half, gaps->end()}), rounds);
    commits.batch = batch;
    PVOLUME_EXTENSION volume = computer.Record();
    commits.subject = [=, offsets = InOrder({half, gaps->end()})](unsigned n) {
        Commit(volume, (*offsets)[n]);
    };
    PrintRequests("commit", commits);
}

// The saved map, loaded with an action that gives every redirection up, after the way there is back.
void PrintBootAction(Computer& computer, const char* name, ULONG action) {
    PVOLUME_EXTENSION volume = computer.Record();
    ResetSwapMaps(volume->FilterDevice);
    volume->BootAction = action;
    const double time =
        Took([&] { KVR_DISCARD(PreloadSwapMap(volume->FilterDevice), "looked at by its trees"); });
    volume->BootAction = 0;
    Require(CountSwapped(volume) == 0 && volume->SwapState == kSwapUsable, "the redirections are given up");
    Print(name, time / kSecond);
}

void Measure(ULONG chunks) {
    Computer computer({0, 0, chunks, 256 * kMiB + chunks / 4 * std::uint64_t{kPage}});
    const Layout& layout = computer.Places();
    const Offsets random = Shuffled(Places(layout.ScatteredBegin(), 2 * kPage, chunks));
    computer.SwapChunks(false);
    PrintSave(computer, random, "save, written at random", "pause, written at random");
    Print("boot", computer.Restart() / kSecond);
    PVOLUME_EXTENSION volume = computer.Record();
    Require(CountSwapped(volume) == chunks, "the boot loaded every chunk");
    const unsigned rounds = 200;
    PrintRequests("4 KiB read", Requests(computer, IRP_MJ_READ, random, rounds));
    PrintRequests("4 KiB overwrite", Requests(computer, IRP_MJ_WRITE, random, rounds));
    PrintSave(computer, random, "save", "pause");
    Print("pool per chunk", BytesPerChunk(volume, chunks));
    std::vector<double> loads;
    for (int i = 0; i < 3; ++i) loads.push_back(LoadMap(volume, chunks));
    Print("load", Median(loads) / kSecond);
    // Loaded and emptied in one order, the map finds the pool as a boot does; behind a growing one it would
    // not.
    PrintBootAction(computer, "discard", PV_ACTION_DISCARD);
    computer.SwapChunks(true);
    SaveMap(volume);
    PrintBootAction(computer, "merge", PV_ACTION_MERGE);
    computer.SwapChunks(true);
    PrintGrowing(computer);
}

}  // namespace
}  // namespace bench

int main(int count, char** arguments) {
    const long chunks = count == 2 ? std::atol(arguments[1]) : 0;
    if (chunks < 1000 || chunks > 10'000'000) {
        std::fprintf(stderr, "usage: kvr_growth CHUNKS (1000 to 10000000)\n");
        return 2;
    }
    host::SetDebugCapture(false);
    bench::Measure(static_cast<ULONG>(chunks));
    return 0;
}
