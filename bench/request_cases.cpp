// Requests through the dispatch table, against the same requests sent straight to a stack without the driver.
#include <vector>
#include "bench/cases.h"
#include "bench/measure.h"
#include "bench/places.h"
#include "redirect/segments.h"

namespace bench {
namespace {

void Compare(Computer& computer, const std::string& name, double target, UCHAR major, ULONG length,
             const Offsets& offsets, unsigned batch = 256, unsigned rounds = 200) {
    Register({name, target, FromMiddle(computer, computer.BareProtected(), major, length, offsets),
              FromStart(computer, computer.Protected(), major, length, offsets), batch, rounds});
}

void RegisterPassThrough(Computer& computer) {
    const Offsets random = Shuffled(Places(0, kPage, 256 * kMiB / kPage));
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE}) {
        Register(
            {std::string("4 KiB ") + (major == IRP_MJ_READ ? "read" : "write") + ", unprotected volume, random",
             1.2, FromMiddle(computer, computer.BarePlain(), static_cast<UCHAR>(major), kPage, random),
             FromStart(computer, computer.Plain(), static_cast<UCHAR>(major), kPage, random)});
    }
}

void RegisterRedirected(Computer& computer) {
    const Layout& places = computer.Places();
    const auto chunks = Places(places.ScatteredBegin(), 2 * kPage, places.scattered);
    const Offsets random = Shuffled(chunks);
    const Offsets ordered = InOrder(chunks);
    Compare(computer, "4 KiB read, redirected, random", 3, IRP_MJ_READ, kPage, random);
    Compare(computer, "4 KiB read, redirected, sequential", 3, IRP_MJ_READ, kPage, ordered);
    Compare(computer, "4 KiB overwrite, redirected, random", 3, IRP_MJ_WRITE, kPage, random);
    Compare(computer, "4 KiB overwrite, redirected, sequential", 3, IRP_MJ_WRITE, kPage, ordered);
}

// Cutting alone, against moving the data.
void RegisterCutting(Computer& computer, const std::string& what, double target, const Offsets& offsets) {
    PVOLUME_EXTENSION volume = computer.Record();
    Register({"cutting 1 MiB, " + what, target,
              FromMiddle(computer, computer.BareProtected(), IRP_MJ_READ, kMiB, offsets),
              [=](unsigned n) {
                  LARGE_INTEGER offset;
                  offset.QuadPart = static_cast<LONGLONG>((*offsets)[n % offsets->size()]);
                  SEGMENT* list = nullptr;
                  Require(NT_SUCCESS(BuildSegments(volume, kMiB, &offset, &list)) && list && !list->pNext,
                          "one run is one segment");
                  ReleaseSegmentChunks(volume, list, FALSE, 0);
              },
              64, 100});
}

void RegisterLarge(Computer& computer) {
    const Layout& places = computer.Places();
    const Offsets untouched = Shuffled(Places(places.UntouchedBegin(), kMiB, Layout::kUntouchedBytes / kMiB));
    const Offsets chunks = Shuffled(Places(places.LargeBegin(), 2 * kMiB, places.large));
    const Offsets runs = Shuffled(Places(places.RunsBegin(), 2 * kMiB, places.runs));
    RegisterCutting(computer, "untouched range", 0.02, untouched);
    RegisterCutting(computer, "one run, a chunk of 1 MiB", 0.02, chunks);
    RegisterCutting(computer, "one run, 256 chunks of 4 KiB", 0.1, runs);
    Compare(computer, "1 MiB read, untouched range", 0, IRP_MJ_READ, kMiB, untouched, 16, 60);
    Compare(computer, "1 MiB read, redirected, one run", 0, IRP_MJ_READ, kMiB, chunks, 16, 60);
    Compare(computer, "1 MiB overwrite, redirected, one run", 0, IRP_MJ_WRITE, kMiB, chunks, 16, 60);
}

}  // namespace

void RegisterRequestCases(Computer& computer) {
    RegisterPassThrough(computer);
    RegisterRedirected(computer);
    RegisterLarge(computer);
}

// Each place is written once: half of the pages between the chunks in the order of the volume, the other half
// in any order.
void RegisterFirstWriteCases(Computer& computer) {
    constexpr unsigned batch = 256;
    constexpr unsigned rounds = 200;
    const Layout& places = computer.Places();
    const auto gaps = Places(places.ScatteredBegin() + kPage, 2 * kPage, places.scattered - 1);
    const auto middle = gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2);
    Compare(computer, "4 KiB first write, random", 5, IRP_MJ_WRITE, kPage, Shuffled({gaps.begin(), middle}),
            batch, rounds);
    Compare(computer, "4 KiB first write, sequential", 5, IRP_MJ_WRITE, kPage, InOrder({middle, gaps.end()}),
            batch, rounds);
}

}  // namespace bench
