// The ordered tree: a red-black tree over opaque records with one sentinel node shared by all trees. It has no
// lock; whoever calls holds the lock that guards the tree across the call. Nothing here recurses: the
// kernel stack is small.
#pragma once
#include "platform/kernel.h"

struct TREE;
struct TREE_NODE {
    TREE_NODE* Left;
    TREE_NODE* Right;
    TREE_NODE* Parent;  // null at the root
    ULONG Color;        // 1 red, 0 black
    PVOID Record;
};

// The sentinel: stands for every missing child of every tree and is never written.
extern TREE_NODE TreeNil;

using TREE_ALLOCATE = TREE_NODE* (*)(TREE* tree, SIZE_T nodeSize, PVOID record);
using TREE_FREE = void (*)(TREE* tree, TREE_NODE* node);
using TREE_COMPARE = ULONG (*)(const void* probe, const void* record);
using TREE_VISITOR = ULONG (*)(PVOID record, PVOID context);

// The header. No node points back to it, so copying the header moves the tree.
struct TREE {
    TREE_NODE* Root;         // TreeNil when empty
    TREE_ALLOCATE Allocate;  // makes a node that holds the record, or null
    TREE_FREE Free;          // releases an unlinked node and the record it holds
    TREE_COMPARE Less;       // nonzero when the probe orders before the record
    TREE_COMPARE Equal;      // nonzero when the probe matches the record
    PVOID Context;           // the owning record; stored only
};

void tree_init(TREE* tree, TREE_ALLOCATE allocate, TREE_FREE free, TREE_COMPARE less, TREE_COMPARE equal,
               PVOID context);
// The node that now holds the record; or the existing node that matches it, the record not stored (compare
// the node's Record); or null when no node could be made.
[[nodiscard]] TREE_NODE* tree_insert(TREE* tree, PVOID record);
// tree_insert for a record whose place is known: it orders behind `before` and before `after`, which follow
// each other (null: there is none), and matches neither. Null when no node could be made.
[[nodiscard]] TREE_NODE* tree_insert_between(TREE* tree, PVOID record, TREE_NODE* before, TREE_NODE* after);
// A probe is any pointer whose first field is the key.
[[nodiscard]] TREE_NODE* tree_find(TREE* tree, const void* probe);
// The matching node, or else the node of the smallest record that the probe orders before, or null.
[[nodiscard]] TREE_NODE* tree_find_or_next(TREE* tree, const void* probe);
// Removes and releases the node's record. Node pointers do not survive it, but for the successor of the
// tree's smallest node when that smallest node is the one deleted.
void tree_delete(TREE* tree, TREE_NODE* node);
// Leftmost node of the subtree under `start`; null for TreeNil.
[[nodiscard]] TREE_NODE* tree_first(TREE* tree, TREE_NODE* start);
[[nodiscard]] TREE_NODE* tree_next(TREE* tree, TREE_NODE* node);
// The visitor may change record fields that do not order the tree; it must not insert or delete.
void tree_walk(TREE* tree, TREE_VISITOR visitor, PVOID context);
// Releases everything; the header stays usable.
void tree_destroy(TREE* tree);

// Callbacks of the driver's trees.
TREE_NODE* node_alloc(TREE* tree, SIZE_T nodeSize, PVOID record);
void node_free(TREE* tree, TREE_NODE* node);
ULONG key_less_i64(const void* probe, const void* record);
ULONG key_equal_i64(const void* probe, const void* record);
ULONG key_less_u32(const void* probe, const void* record);
ULONG key_equal_u32(const void* probe, const void* record);
ULONG count_items(PVOID record, PVOID counter);  // adds to the 32-bit counter
