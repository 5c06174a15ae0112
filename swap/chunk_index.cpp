#include "swap/chunk_index.h"
#include "swap/chunk_maps.h"

namespace {

// The way from the root to a leaf.
struct INDEX_PATH {
    INDEX_INNER* inner[kMostIndexLevels];
    ULONG slot[kMostIndexLevels];
    ULONG count;  // of the inner levels
    INDEX_LEAF* leaf;
    ULONG at;  // entries of the leaf that are not behind the offset
};

// How many of the node's keys are at or below `offset`. All lines of the keys are asked for at once, so that a
// node costs one wait for memory.
template <class T>
ULONG CountUpTo(const INDEX_NODE<T>* node, LONGLONG offset) {
    constexpr ULONG keysPerLine = 64 / sizeof(LONGLONG);
    for (ULONG i = 0; i < kIndexFanOut; i += keysPerLine) __builtin_prefetch(node->Keys + i);
    ULONG low = 0;
    for (ULONG rest = node->Count; rest > 0;) {
        const ULONG half = (rest + 1) / 2;
        const bool isUpper = node->Keys[low + half - 1] <= offset;
        low = isUpper ? low + half : low;
        rest = isUpper ? rest - half : half - 1;
    }
    return low;
}

INDEX_PATH PathTo(const CHUNK_INDEX& index, LONGLONG offset) {
    INDEX_PATH path;
    path.count = index.Levels - 1;
    PVOID node = index.Root;
    for (ULONG i = 0; i < path.count; ++i) {
        path.inner[i] = static_cast<INDEX_INNER*>(node);
        const ULONG upTo = CountUpTo(path.inner[i], offset);
        path.slot[i] = upTo == 0 ? 0 : upTo - 1;
        node = path.inner[i]->Slots[path.slot[i]];
    }
    path.leaf = static_cast<INDEX_LEAF*>(node);
    path.at = CountUpTo(path.leaf, offset);
    return path;
}

template <class T>
INDEX_NODE<T>* NewNode(LONGLONG key, const T& slot) {
    auto* node = static_cast<INDEX_NODE<T>*>(AllocatePool(sizeof(INDEX_NODE<T>)));
    if (!node) return nullptr;
    node->Next = nullptr;
    node->Count = 1;
    node->Keys[0] = key;
    node->Slots[0] = slot;
    return node;
}

template <class T>
void PutAt(INDEX_NODE<T>* node, ULONG at, LONGLONG key, const T& slot) {
    RtlMoveMemory(node->Keys + at + 1, node->Keys + at, (node->Count - at) * sizeof(LONGLONG));
    RtlMoveMemory(node->Slots + at + 1, node->Slots + at, (node->Count - at) * sizeof(T));
    node->Keys[at] = key;
    node->Slots[at] = slot;
    ++node->Count;
}

// Puts an entry into a full node. The new node behind it, or null when there is no pool. One that is filled
// from its end on, as a load does, is left full.
template <class T>
INDEX_NODE<T>* Split(INDEX_NODE<T>* node, ULONG at, LONGLONG key, const T& slot) {
    INDEX_NODE<T>* upper = NewNode(key, slot);
    if (!upper) return nullptr;
    upper->Next = std::exchange(node->Next, upper);
    if (at == kIndexFanOut && !upper->Next) return upper;
    const ULONG half = kIndexFanOut / 2;
    upper->Count = kIndexFanOut - half;
    RtlCopyMemory(upper->Keys, node->Keys + half, upper->Count * sizeof(LONGLONG));
    RtlCopyMemory(upper->Slots, node->Slots + half, upper->Count * sizeof(T));
    node->Count = half;
    at <= half ? PutAt(node, at, key, slot) : PutAt(upper, at - half, key, slot);
    return upper;
}

// Tells the levels above of the new node behind the leaf. False when there is no pool.
[[nodiscard]] bool LinkAbove(CHUNK_INDEX& index, const INDEX_PATH& path, LONGLONG key, PVOID node) {
    for (ULONG i = path.count; i-- > 0;) {
        INDEX_INNER* inner = path.inner[i];
        if (inner->Count < kIndexFanOut) {
            PutAt(inner, path.slot[i] + 1, key, node);
            return true;
        }
        INDEX_INNER* upper = Split(inner, path.slot[i] + 1, key, node);
        if (!upper) return false;
        key = upper->Keys[0];
        node = upper;
    }
    INDEX_INNER* root = index.Levels < kMostIndexLevels ? NewNode(kBeforeAllOffsets, index.Root) : nullptr;
    if (!root) return false;
    PutAt(root, 1, key, node);
    index.Root = root;
    ++index.Levels;
    return true;
}

[[nodiscard]] bool AddEntry(CHUNK_INDEX& index, const INDEX_PATH& path, LONGLONG key,
                            const INDEXED_CHUNK& entry) {
    if (path.leaf->Count < kIndexFanOut) {
        PutAt(path.leaf, path.at, key, entry);
        return true;
    }
    INDEX_LEAF* upper = Split(path.leaf, path.at, key, entry);
    return upper && LinkAbove(index, path, upper->Keys[0], upper);
}

INDEXED_CHUNK EntryOf(TREE_NODE* node) {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(node->Record);
    return {chunk->liSwapOffset.QuadPart, chunk->uLength, chunk->bVolatile, node};
}

LONGLONG KeyOf(TREE_NODE* node) {
    return static_cast<const SWAPPED_CHUNK*>(node->Record)->liVolumeOffset.QuadPart;
}

// A walk that comes to the leaf finds its first lines in the cache; the rest follows by itself. Null is none.
void ExpectLeaf(const INDEX_LEAF* leaf) {
    if (!leaf) return;
    __builtin_prefetch(leaf);
    __builtin_prefetch(leaf->Slots);
}

// Releases a level's nodes.
template <class T>
void FreeLevel(INDEX_NODE<T>* node) {
    while (node) FreePool(std::exchange(node, node->Next));
}

void GiveUpIndex(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    DropChunkIndex(volume);
    volume->SwappedIndex.IsOff = TRUE;
}

void BuildIndex(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    CHUNK_INDEX& index = volume->SwappedIndex;
    TREE* tree = &volume->SwappedChunks;
    TREE_NODE* node = tree_first(tree, tree->Root);
    index.Root = NewNode(KeyOf(node), EntryOf(node));
    index.Levels = 1;
    bool isWhole = index.Root != nullptr;
    while (isWhole && (node = tree_next(tree, node)) != nullptr)
        isWhole = AddEntry(index, PathTo(index, KeyOf(node)), KeyOf(node), EntryOf(node));
    if (!isWhole) GiveUpIndex(volume);
}

NTSTATUS InsertWithIndex(PVOLUME_EXTENSION volume, PoolPtr<SWAPPED_CHUNK> record, bool* isNew)
    KVR_REQUIRES(volume->SwapLock) {
    const LONGLONG key = record->liVolumeOffset.QuadPart;
    const INDEX_PATH path = PathTo(volume->SwappedIndex, key);
    const INDEX_LEAF* leaf = path.leaf;
    const INDEX_LEAF* next = path.at < leaf->Count ? leaf : leaf->Next;
    TREE_NODE* after = next ? next->Slots[next == leaf ? path.at : 0].node : nullptr;
    TREE_NODE* before = path.at > 0 ? leaf->Slots[path.at - 1].node : nullptr;
    *isNew = !before || key >= leaf->Keys[path.at - 1] + leaf->Slots[path.at - 1].uLength;
    if (!*isNew) return STATUS_SUCCESS;
    TREE_NODE* node = tree_insert_between(&volume->SwappedChunks, record.Get(), before, after);
    *isNew = node != nullptr;
    if (!node) return STATUS_UNSUCCESSFUL;
    record.Release();
    if (!AddEntry(volume->SwappedIndex, path, key, EntryOf(node))) GiveUpIndex(volume);
    return STATUS_SUCCESS;
}

}  // namespace

ChunkCursor::ChunkCursor(PVOLUME_EXTENSION volume, LONGLONG offset) : m_tree(&volume->SwappedChunks) {
    const CHUNK_INDEX& index = volume->SwappedIndex;
    if (!index.Root) {
        m_node = tree_find_or_next(m_tree, &offset);
        Read();
        return;
    }
    const INDEX_PATH path = PathTo(index, offset);
    m_leaf = path.leaf;
    m_at = path.at == 0 ? 0 : path.at - 1;
    Read();
    if (path.at != 0 && ChunkEnd(&m_chunk) <= offset) Next();
}

void ChunkCursor::Read() {
    if (m_leaf) {
        if (m_at == 0) ExpectLeaf(m_leaf->Next);
        const INDEXED_CHUNK& entry = m_leaf->Slots[m_at];
        m_chunk = {
            {.QuadPart = m_leaf->Keys[m_at]}, {.QuadPart = entry.swapOffset}, entry.uLength, entry.bVolatile};
    } else if (m_node) {
        m_chunk = *static_cast<const SWAPPED_CHUNK*>(m_node->Record);
    }
}

void ChunkCursor::Next() {
    if (m_node) {
        m_node = tree_next(m_tree, m_node);
    } else if (++m_at == m_leaf->Count) {
        m_leaf = m_leaf->Next;
        m_at = 0;
    }
    Read();
}

void WalkSwappedChunks(PVOLUME_EXTENSION volume, TREE_VISITOR visitor, PVOID context) {
    for (ChunkCursor cursor(volume); cursor; cursor.Next()) {
        SWAPPED_CHUNK chunk = *cursor;
        KVR_DISCARD(visitor(&chunk, context), "a walk visits every record, whatever the visitor says");
    }
}

NTSTATUS InsertSwappedChunk(PVOLUME_EXTENSION volume, PoolPtr<SWAPPED_CHUNK> record, bool* isNew) {
    CHUNK_INDEX& index = volume->SwappedIndex;
    if (index.Root) return InsertWithIndex(volume, std::move(record), isNew);
    const NTSTATUS status = StoreRecord(&volume->SwappedChunks, std::move(record), isNew);
    if (*isNew && ++index.Chunks >= kIndexFrom && !index.IsOff) BuildIndex(volume);
    return status;
}

void DropChunkIndex(PVOLUME_EXTENSION volume) {
    CHUNK_INDEX& index = volume->SwappedIndex;
    PVOID first = index.Root;
    for (ULONG level = index.Levels; first && level > 1; --level) {
        auto* inner = static_cast<INDEX_INNER*>(first);
        first = inner->Slots[0];
        FreeLevel(inner);
    }
    if (first) FreeLevel(static_cast<INDEX_LEAF*>(first));
    index = {};
}
