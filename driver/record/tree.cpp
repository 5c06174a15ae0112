#include "driver/record/tree.h"
#include "platform/owners.h"

TREE_NODE TreeNil = {&TreeNil, &TreeNil, nullptr, 0, nullptr};

namespace {

constexpr ULONG kBlack = 0;
constexpr ULONG kRed = 1;

bool IsNil(const TREE_NODE* node) {
    return node == &TreeNil;
}

// TreeNil is shared by the trees of all volumes, which no common lock guards: a store into it, even of the
// value it has, would be a race.
void Paint(TREE_NODE* node, ULONG color) {
    if (!IsNil(node)) node->Color = color;
}

void Adopt(TREE_NODE* child, TREE_NODE* parent) {
    if (!IsNil(child)) child->Parent = parent;
}

// The repairs are symmetric; `right` names the side.
TREE_NODE*& ChildOn(TREE_NODE* node, bool right) {
    return right ? node->Right : node->Left;
}

// Puts `next` into the slot that leads to `node`.
void ReplaceInParent(TREE* tree, TREE_NODE* parent, TREE_NODE* node, TREE_NODE* next) {
    if (!parent || IsNil(parent))
        tree->Root = next;
    else
        ChildOn(parent, parent->Left != node) = next;
}

// Rotates at `x` towards the given side: the child on the other side takes its place.
void Rotate(TREE* tree, TREE_NODE* x, bool right) {
    TREE_NODE* y = ChildOn(x, !right);
    ChildOn(x, !right) = ChildOn(y, right);
    Adopt(ChildOn(y, right), x);
    y->Parent = x->Parent;
    ReplaceInParent(tree, x->Parent, x, y);
    ChildOn(y, right) = x;
    x->Parent = y;
}

void RepairInsert(TREE* tree, TREE_NODE* x) {
    while (x != tree->Root && x->Parent->Color == kRed) {
        TREE_NODE* grandparent = x->Parent->Parent;  // a red parent is never the root
        const bool right = x->Parent == grandparent->Right;
        TREE_NODE* uncle = ChildOn(grandparent, !right);
        if (uncle->Color == kRed) {
            x->Parent->Color = kBlack;
            uncle->Color = kBlack;
            grandparent->Color = kRed;
            x = grandparent;
            continue;
        }
        if (x == ChildOn(x->Parent, !right)) {
            x = x->Parent;
            Rotate(tree, x, right);
        }
        x->Parent->Color = kBlack;
        grandparent->Color = kRed;
        Rotate(tree, grandparent, !right);
    }
    tree->Root->Color = kBlack;
}

// Puts a new node into the empty slot on that side of `parent`, null in an empty tree.
void Attach(TREE* tree, TREE_NODE* node, TREE_NODE* parent, bool right) {
    node->Left = node->Right = &TreeNil;
    node->Parent = parent;
    node->Color = kRed;
    if (!parent)
        tree->Root = node;
    else
        ChildOn(parent, right) = node;
    RepairInsert(tree, node);
}

// One step with sibling `w` on the side away from x, for a sibling that has a red child.
void RotateSibling(TREE* tree, TREE_NODE* xp, TREE_NODE* w, bool right) {
    if (ChildOn(w, !right)->Color == kBlack) {
        Paint(ChildOn(w, right), kBlack);
        w->Color = kRed;
        Rotate(tree, w, !right);
        w = ChildOn(xp, !right);
    }
    w->Color = xp->Color;
    xp->Color = kBlack;
    Paint(ChildOn(w, !right), kBlack);
    Rotate(tree, xp, right);
}

// `x`, which may be TreeNil, took a black node's place under `xp`: its paths lack one black node.
void RepairDelete(TREE* tree, TREE_NODE* x, TREE_NODE* xp) {
    while (x != tree->Root && x->Color == kBlack) {
        const bool right = x != xp->Left;
        TREE_NODE* w = ChildOn(xp, !right);
        if (w->Color == kRed) {
            w->Color = kBlack;
            xp->Color = kRed;
            Rotate(tree, xp, right);
            w = ChildOn(xp, !right);
        }
        if (w->Left->Color == kBlack && w->Right->Color == kBlack) {
            Paint(w, kRed);
            x = xp;
            xp = x->Parent;
            continue;
        }
        RotateSibling(tree, xp, w, right);
        x = tree->Root;
    }
    Paint(x, kBlack);
}

// In a large tree every step down waits for memory: the children's lines are asked for while the record's is
// still on its way, so that the two waits are one.
void ExpectChildren(const TREE_NODE* node) {
    __builtin_prefetch(node->Left);
    __builtin_prefetch(node->Right);
}

// The node that matches, or null; `parent` is then the last node visited, null in an empty tree.
TREE_NODE* Search(TREE* tree, const void* probe, TREE_NODE** parent) {
    *parent = nullptr;
    TREE_NODE* node = tree->Root;
    while (!IsNil(node)) {
        ExpectChildren(node);
        // Equal first: it is what lets a chunk be found by an offset inside it.
        if (tree->Equal(probe, node->Record)) return node;
        *parent = node;
        node = tree->Less(probe, node->Record) ? node->Left : node->Right;
    }
    return nullptr;
}

template <class T>
T KeyOf(const void* record) {
    T key;
    RtlCopyMemory(&key, record, sizeof(key));
    return key;
}

}  // namespace

void tree_init(TREE* tree, TREE_ALLOCATE allocate, TREE_FREE free, TREE_COMPARE less, TREE_COMPARE equal,
               PVOID context) {
    if (!tree) return;
    *tree = {&TreeNil, allocate, free, less, equal, context};
}

TREE_NODE* tree_insert(TREE* tree, PVOID record) {
    TREE_NODE* parent;
    if (TREE_NODE* match = Search(tree, record, &parent)) return match;
    TREE_NODE* node = tree->Allocate(tree, sizeof(TREE_NODE), record);
    if (node) Attach(tree, node, parent, parent && !tree->Less(record, parent->Record));
    return node;
}

TREE_NODE* tree_insert_between(TREE* tree, PVOID record, TREE_NODE* before, TREE_NODE* after) {
    TREE_NODE* node = tree->Allocate(tree, sizeof(TREE_NODE), record);
    const bool right = before && IsNil(before->Right);  // else what is on its right begins with `after`
    if (node) Attach(tree, node, right ? before : after, right);
    return node;
}

TREE_NODE* tree_find(TREE* tree, const void* probe) {
    TREE_NODE* parent;
    return Search(tree, probe, &parent);
}

TREE_NODE* tree_find_or_next(TREE* tree, const void* probe) {
    TREE_NODE* next = nullptr;
    TREE_NODE* node = tree->Root;
    while (!IsNil(node)) {
        ExpectChildren(node);
        if (tree->Equal(probe, node->Record)) return node;
        const bool less = tree->Less(probe, node->Record) != 0;
        if (less) next = node;
        node = ChildOn(node, !less);
    }
    return next;
}

void tree_delete(TREE* tree, TREE_NODE* node) {
    if (!node || IsNil(node)) return;
    TREE_NODE* y = IsNil(node->Left) || IsNil(node->Right) ? node : tree_first(tree, node->Right);
    TREE_NODE* x = IsNil(y->Left) ? y->Right : y->Left;
    TREE_NODE* xp = y->Parent;
    Adopt(x, xp);
    ReplaceInParent(tree, xp, y, x);
    if (y != node) std::swap(y->Record, node->Record);
    if (y->Color == kBlack) RepairDelete(tree, x, xp);
    tree->Free(tree, y);
}

TREE_NODE* tree_first(TREE*, TREE_NODE* start) {
    if (!start || IsNil(start)) return nullptr;
    while (!IsNil(start->Left)) {
        // A walk comes back to it.
        __builtin_prefetch(start->Record);
        start = start->Left;
    }
    return start;
}

TREE_NODE* tree_next(TREE* tree, TREE_NODE* node) {
    if (!node || IsNil(node)) return nullptr;
    if (!IsNil(node->Right)) return tree_first(tree, node->Right);
    TREE_NODE* parent = node->Parent;
    while (parent && node == parent->Right) {
        node = parent;
        parent = node->Parent;
    }
    return parent;
}

void tree_walk(TREE* tree, TREE_VISITOR visitor, PVOID context) {
    if (!tree) return;
    for (TREE_NODE* node = tree_first(tree, tree->Root); node; node = tree_next(tree, node))
        KVR_DISCARD(visitor(node->Record, context), "a walk visits every record, whatever the visitor says");
}

void tree_destroy(TREE* tree) {
    TREE_NODE* node = tree->Root;
    while (node && !IsNil(node)) {
        if (!IsNil(node->Left)) {
            node = node->Left;
        } else if (!IsNil(node->Right)) {
            node = node->Right;
        } else {
            TREE_NODE* parent = node->Parent;
            if (parent) ChildOn(parent, parent->Left != node) = &TreeNil;
            tree->Free(tree, node);
            node = parent;
        }
    }
    tree->Root = &TreeNil;
}

TREE_NODE* node_alloc(TREE*, SIZE_T nodeSize, PVOID record) {
    auto* node = static_cast<TREE_NODE*>(AllocatePool(nodeSize));
    if (node) node->Record = record;
    return node;
}

void node_free(TREE*, TREE_NODE* node) {
    if (node->Record) FreePool(node->Record);
    FreePool(node);
}

ULONG key_less_i64(const void* probe, const void* record) {
    return KeyOf<LONGLONG>(probe) < KeyOf<LONGLONG>(record);
}

ULONG key_equal_i64(const void* probe, const void* record) {
    return KeyOf<LONGLONG>(probe) == KeyOf<LONGLONG>(record);
}

ULONG key_less_u32(const void* probe, const void* record) {
    return KeyOf<ULONG>(probe) < KeyOf<ULONG>(record);
}

ULONG key_equal_u32(const void* probe, const void* record) {
    return KeyOf<ULONG>(probe) == KeyOf<ULONG>(record);
}

ULONG count_items(PVOID record, PVOID counter) {
    if (record) ++*static_cast<ULONG*>(counter);
    return 0;
}
