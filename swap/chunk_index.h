// An index over SwappedChunks: a tree of wide nodes that holds a copy of every chunk, next to its neighbours. A
// search reads two or three lines of memory where the ordered tree reads one or two per level, and a walk reads
// memory in a row. For swap/ and redirect/; the caller holds SwapLock.
//
// SwappedChunks stays what the map is: the index is made when it has become large, follows every chunk that is
// recorded, and goes with it. Chunks are never changed nor removed singly. Where there is no pool for the index
// it goes, without a word, and everything is found in the tree until the map is emptied.
#pragma once
#include "platform/owners.h"
#include "swap/swap.h"

inline constexpr ULONG kIndexFrom = 256;   // chunks; a smaller tree is in the caches anyway
inline constexpr ULONG kIndexFanOut = 62;  // a leaf and the pool's own bytes are 2 KiB
inline constexpr ULONG kMostIndexLevels = 8;
inline constexpr LONGLONG kBeforeAllOffsets = -0x7FFFFFFFFFFFFFFF - 1;

// `Count` entries, ascending by key. What is in a node's slot has keys from the node's key on and below the
// next one's; only the first of a level may have smaller ones.
template <class T>
struct INDEX_NODE {
    INDEX_NODE* Next;  // of the same level
    ULONG Count;       // 1 to kIndexFanOut
    LONGLONG Keys[kIndexFanOut];
    T Slots[kIndexFanOut];
};

// A chunk, by its volume offset.
struct INDEXED_CHUNK {
    LONGLONG swapOffset;
    ULONG uLength;
    ULONG bVolatile;
    TREE_NODE* node;
};
using INDEX_LEAF = INDEX_NODE<INDEXED_CHUNK>;
using INDEX_INNER = INDEX_NODE<PVOID>;  // nodes of the level below
static_assert(sizeof(INDEX_LEAF) <= 2048 - 16);

// A place in the order of the redirected ranges. Valid until one is recorded or SwapLock is released.
class ChunkCursor {
public:
    // The chunk that holds the offset, or else the first one behind it.
    explicit ChunkCursor(PVOLUME_EXTENSION volume, LONGLONG offset = kBeforeAllOffsets)
        KVR_REQUIRES(volume->SwapLock);
    // Is there one?
    explicit operator bool() const { return m_leaf || m_node; }
    const SWAPPED_CHUNK& operator*() const { return m_chunk; }
    const SWAPPED_CHUNK* operator->() const { return &m_chunk; }
    void Next();

private:
    void Read();

    TREE* m_tree;
    const INDEX_LEAF* m_leaf = nullptr;  // null without an index, and at the end
    ULONG m_at = 0;
    TREE_NODE* m_node = nullptr;  // without an index
    SWAPPED_CHUNK m_chunk{};
};

// tree_walk over SwappedChunks; the record that the visitor gets is a copy.
void WalkSwappedChunks(PVOLUME_EXTENSION volume, TREE_VISITOR visitor, PVOID context)
    KVR_REQUIRES(volume->SwapLock);
// The record joins SwappedChunks, unless it begins inside a chunk that is there: then `isNew` is false, and the
// record goes. STATUS_UNSUCCESSFUL: no node.
[[nodiscard]] NTSTATUS InsertSwappedChunk(PVOLUME_EXTENSION volume, PoolPtr<SWAPPED_CHUNK> record, bool* isNew)
    KVR_REQUIRES(volume->SwapLock);
// Releases the index of a tree that is being emptied.
void DropChunkIndex(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);
