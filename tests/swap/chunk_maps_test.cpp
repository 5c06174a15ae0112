#include "tests/support/paged_out_text.h"
#include "tests/swap/swap_volume.h"

namespace support {
namespace {

class ChunkMaps : public SwapVolumeTest {
protected:
    struct Piece {
        LONGLONG volumeOffset, swapOffset;
        ULONG length;
        bool operator==(const Piece&) const = default;
    };
    static std::vector<Piece> Pieces(const PENDING_CHUNK* chain) {
        std::vector<Piece> pieces;
        for (; chain; chain = chain->pNext)
            pieces.push_back({chain->liVolumeOffset.QuadPart, chain->liSwapOffset.QuadPart, chain->uLength});
        return pieces;
    }
    std::vector<Piece> Swapped() KVR_NO_ANALYSIS {
        std::vector<Piece> pieces;
        for (TREE_NODE* n = tree_first(&v->SwappedChunks, v->SwappedChunks.Root); n;
             n = tree_next(&v->SwappedChunks, n)) {
            const auto* c = static_cast<const SWAPPED_CHUNK*>(n->Record);
            pieces.push_back({c->liVolumeOffset.QuadPart, c->liSwapOffset.QuadPart, c->uLength});
        }
        return pieces;
    }
    std::vector<std::pair<LONGLONG, ULONG>> FreeList() KVR_NO_ANALYSIS {
        std::vector<std::pair<LONGLONG, ULONG>> list;
        for (TREE_NODE* n = tree_first(&v->FreeChunks, v->FreeChunks.Root); n;
             n = tree_next(&v->FreeChunks, n)) {
            const auto* c = static_cast<const FREE_CHUNK*>(n->Record);
            list.emplace_back(c->liSwapOffset.QuadPart, c->uLength);
        }
        return list;
    }
    NTSTATUS Lock(LONGLONG offset, ULONG length, PENDING_CHUNK** chain, PIRP request = nullptr) {
        const LARGE_INTEGER at = Large(offset);
        return LockFreeChunks(v, &at, length, chain, request);
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
        EXPECT_EQ(UnlockFreeChunks(v, chain), STATUS_SUCCESS);
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
    EXPECT_EQ(FreeList(), (std::vector<std::pair<LONGLONG, ULONG>>{{200 * M + 48 * K, 80 * M - 48 * K}}));
    EXPECT_EQ(CheckMaps(v), "");
    // A second attempt with the same chain gives the first one's space back first.
    ASSERT_EQ(Lock(0x10000, 32 * K, &chain), STATUS_SUCCESS);
    EXPECT_EQ(Free(), before - 32 * K);
    ASSERT_EQ(UnlockFreeChunks(v, chain), STATUS_SUCCESS);
    EXPECT_EQ(Free(), before);
    EXPECT_GT(FreeList().size(), 2u) << "pieces that come back are not merged";
}

TEST_F(ChunkMaps, SpaceThatCouldNotBeRecordedLeavesNothingToSave) {
    const LARGE_INTEGER at = Large(200 * M);
    for (const ULONGLONG call : {1, 2}) {
        v->MapDirty = FALSE;
        host::FailCall(host::FaultsOf({host::Fault::Allocate}), call);
        EXPECT_FALSE(NT_SUCCESS(AddSwapFreeChunk(v, &at, 16 * K)));
        host::DisarmFaults();
        EXPECT_EQ(v->MapDirty != FALSE, call == 2) << "the record, then its node";
    }
}

TEST_F(ChunkMaps, LowSpaceIsKeptForMetadata) {
    AddFree(100 * M, 48 * M);
    EXPECT_EQ(LockFor(W("\\pagefile.sys")), STATUS_SUCCESS);  // at the limit
    PENDING_CHUNK* held = nullptr;
    ASSERT_EQ(Lock(0, 8 * M, &held), STATUS_SUCCESS);  // 40 MiB left
    for (PCWSTR name : {W("\\$mft"), W("\\$MFTMIRR"), W("\\$Directory"), W("\\$bitmap"),
                        W("\\system volume information\\tracking.log")})
        EXPECT_EQ(LockFor(name), STATUS_SUCCESS);
    for (PCWSTR name : {W("\\pagefile.sys"), W(""), W("\\$Mft2"), W("\\System Volume"), W("\\a\\$Mft")})
        EXPECT_EQ(LockFor(name), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(LockFor(W("\\$Mft"), true), STATUS_SUCCESS);
    EXPECT_EQ(LockFor(W("\\x"), true), STATUS_MEDIA_WRITE_PROTECTED) << "the master's file object counts";
    PENDING_CHUNK* chain = nullptr;
    EXPECT_EQ(Lock(0, 32 * M + S, &chain), STATUS_SUCCESS);  // without a request; below 8 MiB from here on
    PENDING_CHUNK* none = nullptr;
    EXPECT_EQ(Lock(0, S, &none), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(LockFor(W("\\$Mft")), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(UnlockFreeChunks(v, chain), STATUS_SUCCESS);
    EXPECT_EQ(UnlockFreeChunks(v, held), STATUS_SUCCESS);
}

// Else the read that brings the name in would wait for the lock that its reader holds.
TEST_F(ChunkMaps, AFileNameIsLookedAtWithoutTheLock) {
    AddFree(100 * M, 40 * M);
    PagedOutText name(u"\\$Mft");
    FILE_OBJECT file{};
    file.FileName = name.string;
    IRP irp{};
    irp.Tail.Overlay.OriginalFileObject = &file;
    PENDING_CHUNK* chain = nullptr;
    EXPECT_EQ(Lock(0, S, &chain, &irp), STATUS_SUCCESS);
    EXPECT_EQ(UnlockFreeChunks(v, chain), STATUS_SUCCESS);
    EXPECT_EQ(1, name.faults);
    EXPECT_EQ(0, name.locksHeld);
}

TEST_F(ChunkMaps, CommitKeepsWhatAnotherWriteHasRedirectedMeanwhile) {
    Redirect(100 * S, 7000 * S, 4 * S, 1);
    Redirect(110 * S, 7100 * S, 2 * S);
    // [98, 120) over both, its own space from 8000 on: three stretches are new, two come back.
    Redirect(98 * S, 8000 * S, 22 * S);
    EXPECT_EQ(Swapped(), (std::vector<Piece>{{98 * S, 8000 * S, 2 * S},
                                             {100 * S, 7000 * S, 4 * S},
                                             {104 * S, 8006 * S, 6 * S},
                                             {110 * S, 7100 * S, 2 * S},
                                             {112 * S, 8014 * S, 8 * S}}));
    EXPECT_EQ(FreeList(), (std::vector<std::pair<LONGLONG, ULONG>>{{8002 * S, 4 * S}, {8012 * S, 2 * S}}));
    EXPECT_EQ(CheckMaps(v), "");
    Redirect(101 * S, 9000 * S, 2 * S);  // wholly inside: all of it comes back
    Redirect(119 * S, 9100 * S, 2 * S);  // over an end
    EXPECT_EQ(Swapped().size(), 6u);
    EXPECT_EQ(Swapped().back(), (Piece{120 * S, 9101 * S, S}));
    EXPECT_EQ(Used(), 23u * S);
    EXPECT_EQ(Free(), 9u * S);
}

TEST_F(ChunkMaps, AggregationMergesUpToABlock) {
    for (LONGLONG at : {20, 21, 22}) AddFree(at * M / 2, M / 2);
    AddFree(20 * M, 16 * K);
    {
        FastMutexLock lock(v->SwapLock);
        AggregateFreeChunks(v);
    }
    EXPECT_TRUE(Said("Kvr!AggregateFreeChunks: before 4"));
    EXPECT_TRUE(Said("Kvr!AggregateFreeChunks: after 3"));
    EXPECT_EQ(FreeList(),
              (std::vector<std::pair<LONGLONG, ULONG>>{{10 * M, M}, {11 * M, M / 2}, {20 * M, 16 * K}}));
    // Chunks near 4 GiB, as a map may hold, must not merge by a sum that wrapped.
    AddFree(1ll << 40, 0xFFFFFE00);
    AddFree((1ll << 40) + 0xFFFFFE00, 0x400);
    FastMutexLock lock(v->SwapLock);
    AggregateFreeChunks(v);
    EXPECT_EQ(FreeList().size(), 5u);
}

}  // namespace
}  // namespace support
