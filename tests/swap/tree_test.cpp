#include <gtest/gtest.h>
#include <map>
#include <random>
#include "platform/host/memory/pool.h"
#include "tests/support/map_invariants.h"

namespace {

FREE_CHUNK* MakeRecord(LONGLONG key, ULONG value) {
    FREE_CHUNK* record = NewRecord<FREE_CHUNK>().Release();
    record->liSwapOffset.QuadPart = key;
    record->uLength = value;
    return record;
}

FREE_CHUNK* RecordOf(TREE_NODE* node) {
    return static_cast<FREE_CHUNK*>(node->Record);
}

class TreeTest : public testing::Test {
protected:
    TreeTest() { tree_init(&tree_, node_alloc, node_free, key_less_i64, key_equal_i64, nullptr); }
    ~TreeTest() override {
        tree_destroy(&tree_);
        EXPECT_EQ(tree_.Root, &TreeNil);
        EXPECT_EQ(host::PoolUsage(kPoolTag).blocks, blocks_);
    }
    std::vector<LONGLONG> Keys() {
        std::vector<LONGLONG> keys;
        tree_walk(
            &tree_,
            [](PVOID record, PVOID to) -> ULONG {
                static_cast<std::vector<LONGLONG>*>(to)->push_back(
                    static_cast<FREE_CHUNK*>(record)->liSwapOffset.QuadPart);
                return 1;  // means nothing
            },
            &keys);
        return keys;
    }

    TREE tree_{};
    ULONGLONG blocks_ = host::PoolUsage(kPoolTag).blocks;
};

TEST_F(TreeTest, BehavesAsASortedMapUnderRandomOperations) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
        std::mt19937 random(seed);
        std::map<LONGLONG, ULONG> model;
        for (int step = 0; step < 4000; ++step) {
            const LONGLONG key = static_cast<LONGLONG>(random() % 400) - 200;
            const bool grow = step < 1500 || (step < 2800 && random() % 2);
            if (grow) {
                FREE_CHUNK* record = MakeRecord(key, step);
                TREE_NODE* node = tree_insert(&tree_, record);
                ASSERT_NE(node, nullptr);
                const bool stored = node->Record == record;
                ASSERT_EQ(stored, model.emplace(key, step).second);
                if (!stored) FreePool(record);
            } else {
                TREE_NODE* node = tree_find(&tree_, &key);
                ASSERT_EQ(node != nullptr, model.contains(key));
                if (node) {
                    ASSERT_EQ(RecordOf(node)->uLength, model[key]);
                }
                tree_delete(&tree_, node);
                model.erase(key);
            }
            TREE_NODE* next = tree_find_or_next(&tree_, &key);
            const auto expected = model.lower_bound(key);
            ASSERT_EQ(next == nullptr, expected == model.end());
            if (next) {
                ASSERT_EQ(RecordOf(next)->liSwapOffset.QuadPart, expected->first);
            }
            if (step % 16 == 0 || model.size() < 8) {
                ASSERT_EQ(support::CheckTree(&tree_), "") << "seed " << seed << " step " << step;
            }
        }
        std::vector<LONGLONG> keys;
        for (const auto& [key, value] : model) keys.push_back(key);
        EXPECT_EQ(Keys(), keys);
        TREE moved = tree_;  // the header is all there is to move
        tree_init(&tree_, node_alloc, node_free, key_less_i64, key_equal_i64, nullptr);
        EXPECT_EQ(support::CheckTree(&moved), "");
        tree_destroy(&moved);
        EXPECT_EQ(support::CheckTree(&moved), "");
    }
}

TEST(TreeKeys, ChunksAreFoundByTheOffsetsInsideThem) {
    const LONGLONG top = 0x7FFFFFFFFFFFFE00;
    const SWAPPED_CHUNK last = {{.QuadPart = top}, {}, 511, 0};
    const auto in = [](LONGLONG probe, const SWAPPED_CHUNK& c) { return key_in_chunk(&probe, &c) != 0; };
    EXPECT_FALSE(in(-1, last));
    EXPECT_TRUE(in(top + 510, last));
    const ULONG low = 1;
    const MAP_LOCATION_ENTRY high = {0x80000000, 0};
    EXPECT_TRUE(key_less_u32(&low, &high));  // sectors are not signed
    EXPECT_FALSE(key_less_u32(&high, &high));
    TREE empty;
    tree_init(&empty, node_alloc, node_free, key_less_i64, key_equal_i64, nullptr);
    tree_delete(&empty, &TreeNil);
    EXPECT_EQ(nullptr, tree_next(&empty, &TreeNil));
}

}  // namespace
