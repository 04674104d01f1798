// Fixed cases of the patricia tree: the bit tables and encodings, the longest
// keys, roots and allocator hooks, and every assertion with its exact report.
// Lookups, walks and the tree's shape after every change are checked against
// a model in patricia_model_test.cc.
#include <bit>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/patricia.h>

#include "patricia_checker.h"

namespace {

using tarn_test::Key;
using tarn_test::PatriciaConfig;
using tarn_test::Record;

// The target's record layouts.
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(patricia_root) == 8);
static_assert(offsetof(patricia_root, root) == 0);
static_assert(offsetof(patricia_root, key_bytes) == 4);
static_assert(offsetof(patricia_root, key_offset) == 6);
static_assert(offsetof(patricia_root, key_is_ptr) == 7);
static_assert(offsetof(patricia_node, length) == 0);
static_assert(offsetof(patricia_node, bit) == 2);
static_assert(offsetof(patricia_node, left) == 4);
static_assert(offsetof(patricia_node, right) == 8);
static_assert(offsetof(patricia_node, key) == 12);
static_assert(offsetof(patricia_node, key_ptr) == 12);
static_assert(sizeof(patricia_node) == 16);
#endif
// Inline keys continue from the node into the caller's record without a gap.
static_assert(offsetof(patricia_node, key) + sizeof(void *) == sizeof(patricia_node));

std::string escape_regex(const std::string &s)
{
    std::string out;
    for (char c : s) {
        if (std::string(".[]()*+?{}|^$\\").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

std::string assertion(const std::string &function, const std::string &expr)
{
    return "Assertion failed: " + escape_regex("(" + expr + "), function " + function +
                                               ", file patricia, line ") +
           "[0-9]+\\.";
}

#define EXPECT_ASSERTION(stmt, function, expr) \
    EXPECT_EXIT(stmt, testing::KilledBySignal(SIGABRT), assertion(function, expr))

// A tree with records it owns; keys are given as byte lists.
class Tree {
public:
    explicit Tree(PatriciaConfig cfg = {0, false, 0}) : cfg_(cfg)
    {
        patricia_root_init(&root_, cfg.key_is_ptr, cfg.key_bytes ? cfg.key_bytes : 4,
                           cfg.key_offset);
    }
    ~Tree()
    {
        for (auto &r : records_)
            if (patricia_node_in_tree(r->node())) patricia_delete(&root_, r->node());
    }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    patricia_root *root() { return &root_; }

    patricia_node *node(const Key &k)
    {
        records_.push_back(std::make_unique<Record>(cfg_, k, cfg_.key_bytes == 0));
        return records_.back()->node();
    }

    patricia_node *add(const Key &k)
    {
        patricia_node *n = node(k);
        EXPECT_TRUE(patricia_add(&root_, n)) << tarn_test::hex(k);
        return n;
    }

private:
    PatriciaConfig cfg_;
    patricia_root root_{};
    std::vector<std::unique_ptr<Record>> records_;
};

TEST(PatriciaTables, BitMasksClearOneBitFromTheTop)
{
    const uint8_t want[8] = {0x7F, 0xBF, 0xDF, 0xEF, 0xF7, 0xFB, 0xFD, 0xFE};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(patricia_bit_masks[i], want[i]) << i;
}

TEST(PatriciaTables, HiBitTableHoldsTheHighestSetBit)
{
    for (unsigned x = 0; x < 256; ++x)
        EXPECT_EQ(patricia_hi_bit_table[x], std::bit_floor(x)) << x;
}

TEST(PatriciaNode, InitLengthEncodesBytesAsTheBitPastTheKey)
{
    const struct {
        uint16_t bytes;
        uint16_t length;
    } cases[] = {{0, 0}, {1, 0x00FF}, {2, 0x01FF}, {4, 0x03FF}, {16, 0x0FFF}, {256, 0xFFFF}};
    for (const auto &c : cases) {
        patricia_node n{};
        n.bit = 7;
        n.left = &n;
        n.right = &n;
        patricia_node_init_length(&n, c.bytes);
        EXPECT_EQ(n.length, c.length) << c.bytes;
        EXPECT_EQ(n.bit, PAT_NOBIT);
        EXPECT_EQ(n.left, nullptr);
        EXPECT_EQ(n.right, nullptr);
        EXPECT_FALSE(patricia_node_in_tree(&n));
    }
}

TEST(PatriciaShape, TheInnerNodeTestsTheFirstDifferingBit)
{
    const struct {
        Key a, b;
        uint16_t bit;
    } cases[] = {
        {{0x00}, {0x80}, 0x007F},          // first bit of byte 0
        {{0x00}, {0x01}, 0x00FE},          // last bit of byte 0
        {{0x01, 0x00}, {0x01, 0x40}, 0x01BF},
        {{0xAB, 0xCD, 0x00}, {0xAB, 0xCD, 0x01}, 0x02FE},
    };
    for (const auto &c : cases) {
        Tree t;
        t.add(c.a);
        patricia_node *second = t.add(c.b);
        EXPECT_EQ(t.root()->root, second);
        EXPECT_EQ(second->bit, c.bit) << tarn_test::hex(c.b);
    }
}

TEST(PatriciaAdd, NodeWithoutLengthTakesTheRootKeyLength)
{
    Tree t({3, false, 0});
    patricia_node *n = t.node({1, 2, 3});
    ASSERT_EQ(n->length, 0);
    ASSERT_TRUE(patricia_add(t.root(), n));
    EXPECT_EQ(n->length, 0x02FF);
}

TEST(PatriciaLookup, GetAndGetnextTakeKeysLongerThanAnyInTheTree)
{
    Tree t;
    t.add({0x10});
    patricia_node *big = t.add({0x20});
    // An exactly sized buffer: any read past it is caught under ASan.
    const Key longer(PAT_MAXKEY + 44, 0x10);
    const auto klen = static_cast<uint16_t>(longer.size());
    EXPECT_EQ(patricia_get(t.root(), klen, longer.data()), nullptr);
    EXPECT_EQ(patricia_getnext(t.root(), klen, longer.data(), true), big);
}

TEST(PatriciaLookup, LongestKeysAndFullLengthPrefix)
{
    Tree t;
    Key k1(PAT_MAXKEY, 0x33), k2(PAT_MAXKEY, 0x33);
    k2.back() = 0x34;
    patricia_node *a = t.add(k1);
    patricia_node *b = t.add(k2);
    EXPECT_EQ(b->bit, 0xFFFB);
    EXPECT_EQ(patricia_get(t.root(), PAT_MAXKEY, k2.data()), b);
    EXPECT_EQ(patricia_subtree_match(t.root(), PAT_MAXKEY * 8, k1.data()), a);
    EXPECT_EQ(patricia_subtree_match(t.root(), PAT_MAXKEY * 8 - 3, k2.data()), a);
    EXPECT_EQ(patricia_getnext(t.root(), PAT_MAXKEY, k1.data(), false), b);
}

TEST(PatriciaCompare, NodesWithoutLengthUseTheRootKeyLength)
{
    Tree t({2, true, 1});
    EXPECT_EQ(patricia_compare_nodes(t.root(), t.node({5, 1}), t.node({5, 2})), -1);
    EXPECT_EQ(patricia_compare_nodes(t.root(), t.node({5, 2}), t.node({5, 2})), 0);
}

// --- roots and hooks -------------------------------------------------------

int g_allocs = 0;
int g_frees = 0;
patricia_root g_static_root;

patricia_root *counting_alloc()
{
    ++g_allocs;
    return &g_static_root;
}

void counting_free(patricia_root *root)
{
    ++g_frees;
    EXPECT_EQ(root, &g_static_root);
}

patricia_root *failing_alloc()
{
    return nullptr;
}

// Put the defaults back: the tests share one process.
patricia_root *default_alloc()
{
    return static_cast<patricia_root *>(std::malloc(sizeof(patricia_root)));
}

void default_free(patricia_root *root)
{
    std::free(root);
}

TEST(PatriciaRoot, InitSetsEveryField)
{
    patricia_root r;
    std::memset(&r, 0xA5, sizeof r);
    EXPECT_EQ(patricia_root_init(&r, 5, 16, 3), &r);
    EXPECT_EQ(r.root, nullptr);
    EXPECT_EQ(r.key_bytes, 16);
    EXPECT_EQ(r.key_offset, 3);
    EXPECT_EQ(r.key_is_ptr, 1);
    patricia_root_init(&r, 0, PAT_MAXKEY, 0);
    EXPECT_EQ(r.key_is_ptr, 0);
    EXPECT_EQ(r.key_bytes, PAT_MAXKEY);
}

TEST(PatriciaRoot, AllocatorHooksMakeAndTakeBackRoots)
{
    g_allocs = g_frees = 0;
    patricia_set_allocator(counting_alloc, counting_free);
    patricia_root *r = patricia_root_init(nullptr, 0, 4, 0);
    EXPECT_EQ(r, &g_static_root);
    EXPECT_EQ(g_allocs, 1);
    patricia_root_delete(r);
    EXPECT_EQ(g_frees, 1);
    patricia_root_delete(nullptr);
    EXPECT_EQ(g_frees, 1);
    patricia_set_allocator(failing_alloc, counting_free);
    EXPECT_EQ(patricia_root_init(nullptr, 0, 4, 0), nullptr);
    patricia_set_allocator(default_alloc, default_free);
}

// --- assertions ------------------------------------------------------------

// Each broken contract aborts with the report naming the function and the
// failed condition. Every call builds its own trees: it runs in a child.
TEST(PatriciaDeathTest, EveryContractAbortsWithItsReport)
{
    const Key maxkey_plus_one(PAT_MAXKEY + 1, 0);
    const struct {
        const char *function, *expr;
        std::function<void()> call;
    } cases[] = {
        {"patricia_set_allocator", "my_alloc", [] { patricia_set_allocator(nullptr, default_free); }},
        {"patricia_set_allocator", "my_free", [] { patricia_set_allocator(default_alloc, nullptr); }},
        {"patricia_root_init", "klen && klen <= PAT_MAXKEY",
         [] { patricia_root r; patricia_root_init(&r, 0, 0, 0); }},
        {"patricia_root_init", "klen && klen <= PAT_MAXKEY",
         [] { patricia_root r; patricia_root_init(&r, 0, PAT_MAXKEY + 1, 0); }},
        {"patricia_root_delete", "root->root == NULL",
         [] { Tree t; t.add({1}); patricia_root_delete(t.root()); }},
        {"patricia_node_init_length", "key_bytes <= PAT_MAXKEY",
         [] { patricia_node n{}; patricia_node_init_length(&n, PAT_MAXKEY + 1); }},
        {"patricia_add", "(node->bit == PAT_NOBIT) && (node->right == NULL) && (node->left == NULL)",
         [] { Tree t; patricia_add(t.root(), t.add({1})); }},
        {"patricia_delete", "node->left && node->right",
         [] { Tree t; t.add({1}); patricia_delete(t.root(), t.node({2})); }},
        {"patricia_getnext", "klen", [] { Tree t; patricia_getnext(t.root(), 0, Key{1}.data(), true); }},
        // In an empty tree; the read-only twins report under the same names.
        {"patricia_find_next", "node == NULL",
         [] { Tree empty, other; patricia_find_next(empty.root(), other.add({1})); }},
        {"patricia_find_prev", "node == NULL",
         [] { Tree empty, other; patricia_find_prev(empty.root(), other.add({1})); }},
        {"patricia_find_next", "node == NULL",
         [] { Tree empty, other; patricia_cons_find_next(empty.root(), other.add({1})); }},
        // A node of another tree.
        {"patricia_find_next", "current == node",
         [] { Tree t, other; t.add({1}); t.add({3}); patricia_find_next(t.root(), other.add({2})); }},
        {"patricia_find_prev", "current == node",
         [] { Tree t, other; t.add({1}); t.add({3}); patricia_find_prev(t.root(), other.add({2})); }},
        {"patricia_subtree_match", "plen && plen <= (PAT_MAXKEY * 8)",
         [&] { Tree t; patricia_subtree_match(t.root(), 0, maxkey_plus_one.data()); }},
        {"patricia_subtree_match", "plen && plen <= (PAT_MAXKEY * 8)",
         [&] { Tree t; patricia_subtree_match(t.root(), PAT_MAXKEY * 8 + 1, maxkey_plus_one.data()); }},
        {"patricia_subtree_next", "plen && current",
         [] { Tree t, empty; patricia_subtree_next(empty.root(), t.add({1, 2}), 8); }},
        {"patricia_subtree_next", "plen && current",
         [] { Tree t; patricia_subtree_next(t.root(), t.add({1, 2}), 0); }},
        {"patricia_subtree_next", "node->length >= p_bit",
         [] { Tree t; patricia_node *n = t.add({1, 2}); t.add({1, 3}); patricia_subtree_next(t.root(), n, 17); }},
        {"patricia_subtree_next", "current == node",
         [] { Tree t, other; t.add({1, 2}); t.add({1, 3}); patricia_subtree_next(t.root(), other.add({1, 4}), 8); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.function) + ": " + c.expr);
        EXPECT_ASSERTION(c.call(), c.function, c.expr);
    }
    // A get without key length aborts without a report of the library's own;
    // under qemu-user the emulator itself adds one line about the signal.
    EXPECT_EXIT(
        {
            Tree t;
            t.add({1});
            patricia_get(t.root(), 0, Key{1}.data());
        },
        testing::KilledBySignal(SIGABRT), "^(qemu: uncaught target signal 6 [^\n]*\n)?$");
}

}  // namespace
