#include "tests/support/driver_ledger.h"
#include "config/protected_volumes.h"
#include "config/config_files.h"
#include "control/provision_control.h"
#include "platform/host/kernel_host.h"
#include "platform/host/memory/pool.h"
#include "platform/owners.h"
#include "redirect/write_cache.h"
#include "swap/chunk_index.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"

namespace support {

namespace {

struct DriverLedger {
    ULONGLONG poolBlocks = 0;  // tree nodes and records, locations, queued writes, objects of the lists
    ULONGLONG handles = 0;     // held files and threads
};

// A node and its record each.
ULONGLONG BlocksOf(TREE* tree) {
    ULONGLONG blocks = 0;
    for (TREE_NODE* node = tree_first(tree, tree->Root); node; node = tree_next(tree, node)) blocks += 2;
    return blocks;
}

template <class Node>
ULONGLONG NodesFrom(const Node* node) {
    ULONGLONG nodes = 0;
    for (; node; node = node->Next) ++nodes;
    return nodes;
}

ULONGLONG BlocksOf(const CHUNK_INDEX& index) {
    ULONGLONG blocks = 0;
    PVOID first = index.Root;
    for (ULONG level = index.Levels; level > 1; --level) {
        blocks += NodesFrom(static_cast<INDEX_INNER*>(first));
        first = static_cast<INDEX_INNER*>(first)->Slots[0];
    }
    return blocks + NodesFrom(static_cast<INDEX_LEAF*>(first));
}

void AddVolume(PVOLUME_EXTENSION volume, DriverLedger& ledger) {
    {
        FastMutexLock lock(volume->SwapLock);
        for (TREE* tree : {&volume->SwappedChunks, &volume->FreeChunks, &volume->MapFileChunks})
            ledger.poolBlocks += BlocksOf(tree);
        ledger.poolBlocks += BlocksOf(volume->SwappedIndex);
        ledger.poolBlocks += volume->MapBuffer != nullptr;
    }
    ledger.poolBlocks += volume->MapLocation != nullptr;
    KernelMutexLock lock(volume->StorageMutex);
    ledger.handles += volume->SwapFileHandle != nullptr;
    ledger.handles += volume->SwapMapFileHandle != nullptr;
    for (HANDLE handle : volume->SwapFileHandles) ledger.handles += handle != nullptr;
    ledger.handles += volume->ArmThreadHandle != nullptr;
}

void AddVolumes(DriverLedger& ledger) {
    for (PLIST_ENTRY link = gVolumeList.Flink; link != &gVolumeList; link = link->Flink)
        AddVolume(CONTAINING_RECORD(link, VOLUME_EXTENSION, ListEntry), ledger);
}

void AddSwapFiles(DriverLedger& ledger) {
    KernelMutexLock list(gSwapFileMutex);
    for (SWAP_FILE* swapFile = gSwapFileList; swapFile; swapFile = swapFile->pNext) {
        ++ledger.poolBlocks;
        KernelMutexLock queue(swapFile->CacheLock);
        for (PLIST_ENTRY link = swapFile->CacheList.Flink; link != &swapFile->CacheList; link = link->Flink)
            ledger.poolBlocks += 2;  // the entry and its data
    }
}

std::string Differs(const char* what, ULONGLONG held, ULONGLONG outstanding) {
    return std::to_string(outstanding) + " " + what + " are outstanding, of which the driver knows " +
           std::to_string(held);
}

DriverLedger CountDriverHoldings() {
    DriverLedger ledger;
    AddVolumes(ledger);
    AddSwapFiles(ledger);
    for (PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next) ++ledger.poolBlocks;
    ledger.handles += gConfigFileHandle != nullptr;
    ledger.handles += gDriverFileHandle != nullptr;
    return ledger;
}

}  // namespace

std::string CheckLedger() {
    const DriverLedger ledger = CountDriverHoldings();
    const host::LeakReport outstanding = host::CountLeaks();
    const ULONGLONG blocks = host::PoolUsage(kPoolTag).blocks;
    if (blocks != ledger.poolBlocks) return Differs("pool blocks", ledger.poolBlocks, blocks);
    if (outstanding.handles != ledger.handles) return Differs("handles", ledger.handles, outstanding.handles);
    if (outstanding.memory.irps != 0) return Differs("requests", 0, outstanding.memory.irps);
    if (outstanding.memory.lockedMdls != 0) return Differs("locked MDLs", 0, outstanding.memory.lockedMdls);
    if (outstanding.memory.mdls != 0) return Differs("MDLs", 0, outstanding.memory.mdls);
    if (gProvisionThread != nullptr) return "a provisioning thread is still published";
    return {};
}

}  // namespace support
