// What must hold for a tree at any time, and for a volume's chunk maps whenever SwapLock is free. Each check
// returns the first thing that is wrong, or an empty string.
#pragma once
#include <cstring>
#include <map>
#include <string>
#include "swap/chunk_index.h"
#include "swap/swap_file.h"

namespace support {

namespace invariants {

inline std::string At(const char* what, LONGLONG value) {
    return std::string(what) + " at " + std::to_string(value);
}

// Black nodes on each path below `node`; -1 when something is wrong. Recursion is fine here: trees are
// balanced, and one that is not is reported by its depth.
inline int BlackHeight(const TREE_NODE* node, const TREE_NODE* parent, int depth, std::string& wrong) {
    if (node == &TreeNil) return 1;
    if (depth > 64) wrong = "a path is too long";
    if (node->Parent != parent) wrong = "a parent link is wrong";
    if (node->Color > 1) wrong = "a colour is wrong";
    if (node->Color == 1 && (node->Left->Color == 1 || node->Right->Color == 1)) wrong = "red under red";
    if (!wrong.empty()) return -1;
    const int left = BlackHeight(node->Left, node, depth + 1, wrong);
    const int right = wrong.empty() ? BlackHeight(node->Right, node, depth + 1, wrong) : -1;
    if (wrong.empty() && left != right) wrong = "black heights differ";
    return left + (node->Color == 0);
}

}  // namespace invariants

inline std::string CheckTree(TREE* tree) {
    std::string wrong;
    if (TreeNil.Left != &TreeNil || TreeNil.Right != &TreeNil || TreeNil.Parent || TreeNil.Color != 0 ||
        TreeNil.Record)
        return "TreeNil was written";
    if (tree->Root->Color != 0) return "the root is red";
    invariants::BlackHeight(tree->Root, nullptr, 0, wrong);
    if (!wrong.empty()) return wrong;
    const void* last = nullptr;
    for (TREE_NODE* node = tree_first(tree, tree->Root); node; node = tree_next(tree, node)) {
        if (last && !tree->Less(last, node->Record)) return "the order is wrong";
        last = node->Record;
    }
    return {};
}

// That the index, where there is one, finds the tree's chunks: each by its first and its last byte, and the
// next by the byte behind it.
inline std::string CheckIndex(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    using invariants::At;
    if (!volume->SwappedIndex.Root) return {};
    TREE* tree = &volume->SwappedChunks;
    ChunkCursor walked(volume);
    for (TREE_NODE* node = tree_first(tree, tree->Root); node; node = tree_next(tree, node)) {
        const auto& chunk = *static_cast<const SWAPPED_CHUNK*>(node->Record);
        const LONGLONG start = chunk.liVolumeOffset.QuadPart;
        const LONGLONG end = start + chunk.uLength;
        if (!walked || std::memcmp(&*walked, &chunk, sizeof(chunk)) != 0) return At("not in the index", start);
        for (const LONGLONG at : {start, end - 1}) {
            const ChunkCursor found(volume, at);
            if (!found || std::memcmp(&*found, &chunk, sizeof(chunk)) != 0) return At("not found", at);
        }
        walked.Next();
        const ChunkCursor next(volume, end);
        if (!next != !walked || (next && next->liVolumeOffset.QuadPart != walked->liVolumeOffset.QuadPart))
            return At("what follows is not found", start);
    }
    return walked ? At("in the index alone", walked->liVolumeOffset.QuadPart) : "";
}

// The caller sees to it that the volume is quiet; SwapLock is taken.
inline std::string CheckMaps(PVOLUME_EXTENSION volume) {
    using invariants::At;
    FastMutexLock lock(volume->SwapLock);
    for (TREE* tree : {&volume->SwappedChunks, &volume->FreeChunks, &volume->MapFileChunks})
        if (std::string wrong = CheckTree(tree); !wrong.empty()) return wrong;
    if (std::string wrong = CheckIndex(volume); !wrong.empty()) return wrong;
    const ULONG unit = volume->BytesPerSector;
    std::map<LONGLONG, LONGLONG> space;  // swap ranges, begin to end
    // Whether the range is whole sectors of its own.
    const auto take = [&](LONGLONG start, ULONG length, ULONG64* sum) {
        *sum += length;
        return length != 0 && length % unit == 0 && space.emplace(start, start + length).second;
    };
    ULONG64 used = 0;
    ULONG64 free = 0;
    LONGLONG end = 0;
    TREE* swapped = &volume->SwappedChunks;
    for (TREE_NODE* node = tree_first(swapped, swapped->Root); node; node = tree_next(swapped, node)) {
        const auto* chunk = static_cast<const SWAPPED_CHUNK*>(node->Record);
        const LONGLONG start = chunk->liVolumeOffset.QuadPart;
        if (start < end) return At("redirected twice", start);
        end = start + chunk->uLength;
        if (start % unit != 0 || !take(chunk->liSwapOffset.QuadPart, chunk->uLength, &used))
            return At("no whole sectors, or swap space twice: redirected", start);
    }
    TREE* chunks = &volume->FreeChunks;
    for (TREE_NODE* node = tree_first(chunks, chunks->Root); node; node = tree_next(chunks, node)) {
        const auto* chunk = static_cast<const FREE_CHUNK*>(node->Record);
        if (!take(chunk->liSwapOffset.QuadPart, chunk->uLength, &free))
            return At("no whole sectors, or swap space twice: free", chunk->liSwapOffset.QuadPart);
    }
    end = 0;
    for (const auto& [from, to] : space) {
        if (from < end) return At("swap space overlaps", from);
        end = to;
    }
    if (used != volume->SwapUsedBytes) return At("SwapUsedBytes is not the sum", volume->SwapUsedBytes);
    if (free != volume->SwapFreeBytes) return At("SwapFreeBytes is not the sum", volume->SwapFreeBytes);
    SWAP_FILE* swapFile = volume->SwapFile;
    if (swapFile && swapFile->SwapVolume == volume && free < 0xFFFFFFFF && swapFile->ulFreeBytes != free)
        return At("ulFreeBytes is not the free space", swapFile->ulFreeBytes);
    return {};
}

}  // namespace support
