#include "redirect/segments.h"
#include <random>
#include "tests/support/loaded_driver.h"

namespace {

// A segment as it should come out.
struct Cut {
    LONGLONG volumeOffset, swapOffset;
    bool inSwap;
    ULONG firstSector, offset, length;
    bool operator==(const Cut&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Cut& r) {
    return out << "{" << r.volumeOffset << " " << (r.inSwap ? r.swapOffset : -1) << " #" << r.firstSector
               << " @" << r.offset << " +" << r.length << "}";
}

class Segments : public LoadedDriver {
protected:
    struct Chunk {
        LONGLONG volumeOffset, swapOffset;
        ULONG length;
    };

    static std::vector<Cut> Runs(const SEGMENT* list) {
        std::vector<Cut> runs;
        for (; list; list = list->pNext)
            runs.push_back({list->liVolumeOffset.QuadPart, list->liSwapOffset.QuadPart, list->bInSwap != 0,
                            list->ulFirstSector, list->uOffset, list->uLength});
        return runs;
    }
    std::vector<Cut> Build(LONGLONG offset, ULONG length) {
        SEGMENT* list = nullptr;
        const LARGE_INTEGER at = Large(offset);
        EXPECT_EQ(BuildSegments(volume, length, &at, &list), STATUS_SUCCESS);
        std::vector<Cut> runs = Runs(list);
        ReleaseSegmentChunks(volume, list, FALSE, 0);
        return runs;
    }
    const Chunk* ChunkAt(LONGLONG offset) const {
        for (const Chunk& c : chunks_)
            if (offset >= c.volumeOffset && offset < c.volumeOffset + c.length) return &c;
        return nullptr;
    }
    // The cut as one would make it looking at every sector by itself.
    std::vector<Cut> SectorBySector(LONGLONG offset, ULONG length) const {
        std::vector<Cut> runs;
        for (ULONG done = 0; length - done >= S; done += S) {
            const LONGLONG position = offset + done;
            const Chunk* c = ChunkAt(position);
            const LONGLONG at = c ? c->swapOffset + (position - c->volumeOffset) : 0;
            const Cut* last = runs.empty() ? nullptr : &runs.back();
            if (last && last->inSwap == (c != nullptr) && (!c || at == last->swapOffset + last->length))
                runs.back().length += S;
            else
                runs.push_back({position, at, c != nullptr, static_cast<ULONG>(position / S), done, S});
        }
        return runs;
    }
    void RandomMap(std::mt19937& random) {
        ForgetMaps();
        chunks_.clear();
        LONGLONG at = 0;
        LONGLONG swap = 10000 * S;
        for (int i = 0; i < 30; ++i) {
            at += random() % 3 ? 0 : (1 + random() % 5) * S;
            swap += random() % 3 ? 0 : (1 + random() % 5) * S;
            const ULONG length = (1 + random() % 4) * S;
            chunks_.push_back({at, swap, length});
            Redirect(at, swap, length);
            at += length;
            swap += length;
        }
    }
    std::vector<Chunk> chunks_;
};

// A list that was cut while nothing was in the swap is split like one that is cut afterwards.
TEST_F(Segments, AreThoseOfACutSectorBySector) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        ForgetMaps();
        SEGMENT* list = nullptr;
        const LARGE_INTEGER at = Large(4 * S);
        ASSERT_EQ(BuildSegments(volume, 60 * S, &at, &list), STATUS_SUCCESS);
        list->pNext = NewRecord<SEGMENT>().Release();  // a successor that must stay behind what is inserted
        list->pNext->uLength = S;
        RandomMap(random);
        for (int i = 0; i < 200; ++i) {
            const LONGLONG offset = (random() % 120) * S + (random() % 3 ? 0 : random() % S);
            const ULONG length = random() % (60 * S);
            ASSERT_EQ(Build(offset, length), SectorBySector(offset, length)) << offset << " " << length;
        }
        ASSERT_EQ(SplitSegmentBySwapRuns(volume, list), STATUS_SUCCESS);
        std::vector<Cut> runs = Runs(list);
        runs.pop_back();
        ASSERT_FALSE(runs.empty());
        const bool split = runs.front().inSwap;  // only the first sector decides
        EXPECT_EQ(split ? SectorBySector(4 * S, 60 * S).size() : 1u, runs.size());
        EXPECT_TRUE(!split || runs == SectorBySector(4 * S, 60 * S));
        ReleaseSegmentChunks(volume, list, FALSE, 0);
    }
}

TEST_F(Segments, RunsOfFourGigabytesSaturateToWholeSectors) {
    for (LONGLONG i = 0; i < 5; ++i) Redirect(i << 30, (i << 30) + (1ll << 40), 1 << 30);
    LONGLONG swap = 0;
    EXPECT_EQ(GetSwapRunLength(volume, 0), 0xFFFFFE00u);
    EXPECT_EQ(GetSwapRunLength(volume, 1ll << 30, &swap), 0xFFFFFE00u)
        << "exactly 4 GiB must not read as nothing";
    EXPECT_EQ(swap, (1ll << 40) + (1ll << 30));
    EXPECT_EQ(GetSwapRunLength(volume, (1ll << 30) + S), 0xFFFFFE00u);
    EXPECT_EQ(GetSwapRunLength(volume, 4ll << 30), 1u << 30);
    EXPECT_EQ(GetSwapRunLength(volume, 5ll << 30), 0u);
    EXPECT_EQ(Build(0, 0xFFFFFFFF).size(), 1u);
}

TEST_F(Segments, SplitByChunksGivesEachPieceItsPlace) {
    AddFree(20000 * S, 8 * S);
    AddFree(40000 * S, 60 << 20);
    SEGMENT* list = nullptr;
    const LARGE_INTEGER at = Large(100 * S);
    ASSERT_EQ(BuildSegments(volume, 32 * S, &at, &list), STATUS_SUCCESS);
    ASSERT_EQ(LockFreeChunks(volume, &at, 32 * S, &list->pChunk, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(SplitSegmentByChunks(volume, list), STATUS_SUCCESS);
    EXPECT_EQ(Runs(list),
              (std::vector<Cut>{{100 * S, 0, false, 100, 0, 8 * S}, {108 * S, 0, false, 108, 8 * S, 24 * S}}));
    volume->BytesPerSector = 0;
    EXPECT_EQ(SplitSegmentBySwapRuns(volume, list), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(SplitSegmentByChunks(volume, list), STATUS_DEVICE_NOT_READY);
    volume->BytesPerSector = S;
    ReleaseSegmentChunks(volume, list, FALSE, 0);
}

}  // namespace
