#include <numeric>
#include <random>
#include "redirect/segments.h"
#include "tests/support/loaded_driver.h"
#include "tests/support/paged_out_text.h"

namespace {

class ChunkMaps : public LoadedDriver {
protected:
    static std::vector<Piece> Pieces(const PENDING_CHUNK* chain) {
        std::vector<Piece> pieces;
        for (; chain; chain = chain->pNext)
            pieces.push_back({chain->liVolumeOffset.QuadPart, chain->liSwapOffset.QuadPart, chain->uLength});
        return pieces;
    }
    // A request as the gate sees one: with the file object that it was made for.
    NTSTATUS LockFor(PCWSTR name, bool associated = false) {
        FILE_OBJECT file{};
        RtlInitUnicodeString(&file.FileName, name);
        IRP master{}, irp{};
        (associated ? master : irp).Tail.Overlay.OriginalFileObject = &file;
        irp.Flags = associated ? IRP_ASSOCIATED_IRP : 0;
        irp.AssociatedIrp.MasterIrp = associated ? &master : nullptr;
        PENDING_CHUNK* chain = nullptr;
        const NTSTATUS status = Lock(0, S, &chain, &irp);
        EXPECT_EQ(status == STATUS_SUCCESS, chain != nullptr);
        EXPECT_EQ(UnlockFreeChunks(volume, chain), STATUS_SUCCESS);
        return status;
    }
};

constexpr ULONG K = 1024;
constexpr LONGLONG M = 1 << 20;

TEST_F(ChunkMaps, SpaceComesFromTheLowestChunksAndGoesBack) {
    AddFree(200 * M, 80 * M);
    AddFree(100 * M, 16 * K);
    AddFree(100 * M, 16 * K);  // a record that is there already is not counted twice
    const ULONG64 before = Free();
    EXPECT_EQ(before, 80 * M + 16 * K);
    PENDING_CHUNK* chain = nullptr;
    ASSERT_EQ(Lock(0x10000, 64 * K, &chain), STATUS_SUCCESS);
    EXPECT_EQ(Pieces(chain),
              (std::vector<Piece>{{0x10000, 100 * M, 16 * K}, {0x10000 + 16 * K, 200 * M, 48 * K}}));
    EXPECT_EQ(FreeSpace(), (FreeList{{200 * M + 48 * K, 80 * M - 48 * K}}));
    // A second attempt with the same chain gives the first one's space back first.
    ASSERT_EQ(Lock(0x10000, 32 * K, &chain), STATUS_SUCCESS);
    EXPECT_EQ(Free(), before - 32 * K);
    ASSERT_EQ(UnlockFreeChunks(volume, chain), STATUS_SUCCESS);
    EXPECT_EQ(Free(), before);
    EXPECT_GT(FreeSpace().size(), 2u) << "pieces that come back are not merged";
}

TEST_F(ChunkMaps, LowSpaceIsKeptForMetadata) {
    AddFree(100 * M, 48 * M);
    EXPECT_EQ(LockFor(W("\\pagefile.sys")), STATUS_SUCCESS);  // at the limit
    PENDING_CHUNK* held = nullptr;
    ASSERT_EQ(Lock(0, 8 * M, &held), STATUS_SUCCESS);  // 40 MiB left
    for (PCWSTR name : {W("\\$mft"), W("\\$MFTMIRR"), W("\\$Directory"), W("\\$bitmap"),
                        W("\\system volume information\\tracking.log"), W("\\System Volume Information")})
        EXPECT_EQ(LockFor(name), STATUS_SUCCESS);
    for (PCWSTR name : {W("\\pagefile.sys"), W(""), W("\\$Mft2"), W("\\System Volume"), W("\\a\\$Mft")})
        EXPECT_EQ(LockFor(name), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(LockFor(W("\\$Mft"), true), STATUS_SUCCESS);
    EXPECT_EQ(LockFor(W("\\x"), true), STATUS_MEDIA_WRITE_PROTECTED) << "the master's file object counts";
    IRP part{};  // of a request that is not there, and one that is no part though the field is set
    part.Flags = IRP_ASSOCIATED_IRP;
    FILE_OBJECT unnamed{};
    IRP whole{}, other{};
    other.Tail.Overlay.OriginalFileObject = &unnamed;
    whole.AssociatedIrp.MasterIrp = &other;
    for (IRP* request : {&part, &whole}) {
        PENDING_CHUNK* taken = nullptr;
        EXPECT_EQ(Lock(0, S, &taken, request), STATUS_SUCCESS) << "made for no file";
        EXPECT_EQ(UnlockFreeChunks(volume, taken), STATUS_SUCCESS);
    }
    PENDING_CHUNK *chain = nullptr, *last = nullptr, *none = nullptr;
    EXPECT_EQ(Lock(0, 32 * M, &chain), STATUS_SUCCESS);  // without a request; 8 MiB are left
    EXPECT_EQ(Lock(0, S, &last), STATUS_SUCCESS) << "at the limit";
    EXPECT_EQ(Lock(0, S, &none), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(LockFor(W("\\$Mft")), STATUS_MEDIA_WRITE_PROTECTED);
    for (PENDING_CHUNK* each : {last, chain, held}) EXPECT_EQ(UnlockFreeChunks(volume, each), STATUS_SUCCESS);
}

// Else the read that brings the name in would wait for the lock that its reader holds.
TEST_F(ChunkMaps, AFileNameIsLookedAtWithoutTheLock) {
    AddFree(100 * M, 40 * M);
    support::PagedOutText name(u"\\$Mft");
    FILE_OBJECT file{};
    file.FileName = name.string;
    IRP irp{};
    irp.Tail.Overlay.OriginalFileObject = &file;
    PENDING_CHUNK* chain = nullptr;
    EXPECT_EQ(Lock(0, S, &chain, &irp), STATUS_SUCCESS);
    EXPECT_EQ(UnlockFreeChunks(volume, chain), STATUS_SUCCESS);
    EXPECT_EQ(1, name.faults);
    EXPECT_EQ(0, name.locksHeld);
}

TEST_F(ChunkMaps, AggregationMergesUpToABlockOrNothing) {
    const auto aggregate = [&] {
        FastMutexLock lock(volume->SwapLock);
        AggregateFreeChunks(volume);
        return FreeSpace();
    };
    for (LONGLONG at : {20, 21, 22}) AddFree(at * M / 2, M / 2);
    AddFree(20 * M, 16 * K);
    const FreeList before = FreeSpace();
    for (const ULONGLONG n : {1, 2, 3, 4, 5, 6}) EXPECT_EQ(Starved(n, aggregate), before);
    EXPECT_EQ(TimesSaid(mark, "Kvr!AggregateFreeChunks ["), 6u);
    EXPECT_FALSE(Said("Kvr!AggregateFreeChunks: before"));
    aggregate();
    EXPECT_TRUE(Said("Kvr!AggregateFreeChunks: before 4"));
    EXPECT_TRUE(Said("Kvr!AggregateFreeChunks: after 3"));
    EXPECT_EQ(FreeSpace(), (FreeList{{10 * M, M}, {11 * M, M / 2}, {20 * M, 16 * K}}));
    // Chunks near 4 GiB, as a map may hold, must not merge by a sum that wrapped.
    AddFree(1ll << 40, 0xFFFFFE00);
    AddFree((1ll << 40) + 0xFFFFFE00, 0x400);
    EXPECT_EQ(aggregate().size(), 5u);
    const LARGE_INTEGER place = Large(M);
    EXPECT_EQ(AddSwapFreeChunk(volume, &place, 0), STATUS_SUCCESS) << "nothing to record";
}

// Every operation on the maps marks them as changed, and none but those that change them.
TEST_F(ChunkMaps, WhatChangesTheMapsIsSavedNextTime) {
    AddFree(100 * M, 60 * M);
    Redirect(0, 7000 * S, 4 * S);
    PENDING_CHUNK* chain = nullptr;
    const std::function<void()> changes[] = {
        [&] { AddFree(300 * M, S); },
        [&] { EXPECT_EQ(Lock(0x10000, S, &chain), STATUS_SUCCESS); },
        [&] { EXPECT_EQ(UnlockFreeChunks(volume, chain), STATUS_SUCCESS); },
        [&] { Redirect(0x20000, 8000 * S, S); },
        [&] {
            AddSwapMapChunk(volume, M, 4096);
            DiscardSwappedChunks(volume);
            FastMutexLock lock(volume->SwapLock);
            EXPECT_EQ(volume->MapFileChunks.Root, &TreeNil);
        },
        [&] { MergeSwapIntoVolume(volume->FilterDevice); },
        [&] { ForgetMaps(); },
    };
    for (const auto& change : changes) {
        volume->MapDirty = FALSE;
        change();
        EXPECT_TRUE(volume->MapDirty) << &change - changes;
    }
}

TEST_F(ChunkMaps, RunsOfTheMapFileThatNoLocationCanNameAreLeftOut) {
    const struct {
        LONGLONG offset;
        ULONG length, unit;
        bool recorded;
    } cases[] = {{S, 1, S, true},
                 {0, 4096, S, false},
                 {-1, 4096, S, false},
                 {2 * S, 0, S, false},
                 {3 * S, 4096, 0, false},
                 {0xFFFFFFFFll * S, 4096, S, true},
                 {0x100000000ll * S, 4096, S, false}};
    ULONG expected = 0;
    AddSwapMapChunk(volume, S, 4096);  // the first case's, once more
    for (const auto& c : cases) {
        volume->BytesPerSector = c.unit;
        AddSwapMapChunk(volume, c.offset, c.length);
        volume->BytesPerSector = S;
        expected += c.recorded;
        ULONG count = 0;
        FastMutexLock lock(volume->SwapLock);
        tree_walk(&volume->MapFileChunks, count_items, &count);
        EXPECT_EQ(count, expected) << c.offset;
    }
}

// The n-th allocation fails: the record's, or its node's. The chain is settled all the same.
TEST_F(ChunkMaps, ShortMemoryIsToldAndLosesNoMoreThanOneRecord) {
    AddFree(100 * M, 60 * M);
    LONGLONG at = 0;  // no two rounds meet
    const auto pending = [&] {
        PENDING_CHUNK* chain = CreatePendingChunk();
        *chain = {Large(at), Large(9000 * S + at), S, CreatePendingChunk()};
        *chain->pNext = {Large(at + 8 * S), Large(9000 * S + at + 8 * S), S, nullptr};
        return chain;
    };
    constexpr NTSTATUS record = STATUS_INSUFFICIENT_RESOURCES, node = STATUS_UNSUCCESSFUL;
    LARGE_INTEGER place = Large(400 * M);
    PENDING_CHUNK* chain = nullptr;
    struct {
        const char* said;
        std::function<NTSTATUS()> operate;
    } const cases[] = {
        {"Kvr!AddSwapFreeChunk [", [&] { return AddSwapFreeChunk(volume, &place, S); }},
        {"Kvr!UnlockFreeChunks [", [&] { return UnlockFreeChunks(volume, chain); }},
        {"Kvr!CommitChunks [", [&] { return CommitChunks(volume, chain, 0); }},
    };
    for (const auto& c : cases) {
        for (const ULONGLONG n : {1, 2}) {
            SCOPED_TRACE(c.said + std::to_string(n));
            at += 1000 * S;
            Redirect(at + 100 * S, 9100 * S + at, 4 * S);
            chain = pending();
            if (&c == cases) {
                EXPECT_EQ(UnlockFreeChunks(volume, std::exchange(chain, nullptr)), STATUS_SUCCESS);
            }
            const SIZE_T before = TimesSaid(mark, c.said);
            volume->MapDirty = FALSE;
            EXPECT_EQ(Starved(n, c.operate), n == 1 ? record : node);
            EXPECT_TRUE(&c != cases || (volume->MapDirty != FALSE) == (n == 2)) << "what was not recorded";
            EXPECT_EQ(TimesSaid(mark, c.said), before + 1);
            const char* status = n == 1 ? "STATUS_INSUFFICIENT_RESOURCES" : "STATUS_UNSUCCESSFUL";
            EXPECT_NE(LastSaid().find(status), std::string::npos);
            EXPECT_EQ(support::CheckMaps(volume), "");
        }
    }
    chain = nullptr;
    EXPECT_EQ(Starved(1, [&] { return Lock(0, S, &chain); }), record);
    EXPECT_EQ(chain, nullptr);
    EXPECT_EQ(Lock(0, 0x7FFFFE00, &chain), STATUS_MEDIA_WRITE_PROTECTED) << "space that runs out";
    EXPECT_EQ(Free(), 0u);
    EXPECT_EQ(UnlockFreeChunks(volume, chain), STATUS_SUCCESS);
}

// Chunks of many lengths, in an order that leads to inner nodes of every shape, against a sorted map; with the
// index given up half way for want of pool, and made anew when the map has been emptied.
TEST_F(ChunkMaps, ALargeMapFindsWhatASmallOneFinds) {
    constexpr LONGLONG kStride = 16 * S;
    constexpr LONGLONG kPlaces = 9000;
    const auto volatileAt = [](LONGLONG place) { return place % 7 == 3; };
    for (int order = 0; order < 4; ++order) {
        SCOPED_TRACE(order);
        std::vector<LONGLONG> places(kPlaces);
        std::iota(places.begin(), places.end(), 1);
        if (order == 1) std::reverse(places.begin(), places.end());
        if (order >= 2) std::shuffle(places.begin(), places.end(), std::mt19937(order));
        const SIZE_T starved = order == 3 ? places.size() / 2 : places.size();
        for (SIZE_T n = 0; n < places.size(); ++n) {
            const LONGLONG place = places[n];
            const LONGLONG start = place * kStride;
            const auto length = static_cast<ULONG>(1 + place % 16) * S;
            PENDING_CHUNK* chunk = CreatePendingChunk();
            *chunk = {Large(start), Large((1ll << 40) + start), length, nullptr};
            ASSERT_EQ(STATUS_SUCCESS, Starved(n < starved ? 0 : 3,
                                              [&] { return CommitChunks(volume, chunk, volatileAt(place)); }));
            const MAP_RUN run = LookupRun(volume, start + length - S, 2 * S);
            ASSERT_TRUE(run.bInSwap && run.swapOffset == (1ll << 40) + start + length - S) << place;
        }
        Redirect(kStride, 1ll << 50, kStride * kPlaces);  // what is there keeps its place: the gaps alone
        ASSERT_EQ(support::CheckMaps(volume), "");
        {
            FastMutexLock lock(volume->SwapLock);
            EXPECT_EQ(volume->SwappedIndex.Root != nullptr, order != 3);
            EXPECT_TRUE(order == 3 || volume->SwappedIndex.Levels == 3);
        }
        EXPECT_EQ(Used(), static_cast<ULONG64>(kStride * kPlaces));
        ForgetMaps();
    }
}

}  // namespace
