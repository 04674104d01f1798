// Fixed cases of the patricia tree: the bit tables and encodings, the shapes
// that matter (one node, the node that tests nothing), roots and allocator
// hooks, and every assertion with its exact report.
#include <bit>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
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

    std::vector<patricia_node *> in_order()
    {
        std::vector<patricia_node *> v;
        for (patricia_node *n = patricia_find_next(&root_, nullptr); n != nullptr;
             n = patricia_find_next(&root_, n))
            v.push_back(n);
        return v;
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

TEST(PatriciaNode, InTreeWhenAnyLinkOrBitIsSet)
{
    patricia_node n{};
    EXPECT_FALSE(patricia_node_in_tree(&n));
    n.bit = 0x7F;
    EXPECT_TRUE(patricia_node_in_tree(&n));
    n.bit = 0;
    n.right = &n;
    EXPECT_TRUE(patricia_node_in_tree(&n));
    n.right = nullptr;
    n.left = &n;
    EXPECT_TRUE(patricia_node_in_tree(&n));
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

TEST(PatriciaShape, OneNodeTreeLinksToItselfAndDeletingItEmptiesTheTree)
{
    Tree t;
    patricia_node *n = t.add({0x42});
    EXPECT_EQ(t.root()->root, n);
    EXPECT_EQ(n->bit, PAT_NOBIT);
    EXPECT_EQ(n->left, n);
    EXPECT_EQ(n->right, n);
    EXPECT_TRUE(patricia_node_in_tree(n));
    EXPECT_TRUE(patricia_delete(t.root(), n));
    EXPECT_EQ(t.root()->root, nullptr);
    EXPECT_FALSE(patricia_node_in_tree(n));
    EXPECT_EQ(patricia_find_next(t.root(), nullptr), nullptr);
    EXPECT_EQ(patricia_find_prev(t.root(), nullptr), nullptr);
}

TEST(PatriciaShape, DeletingTheBitlessNodeHandsTheRoleToItsUplinkParent)
{
    Tree t;
    patricia_node *first = t.add({0x10});  // tests nothing from now on
    t.add({0x90});
    t.add({0x50});
    t.add({0x30});
    ASSERT_EQ(first->bit, PAT_NOBIT);
    patricia_node *parent = nullptr;
    for (patricia_node *n : t.in_order())
        if (n != first && (n->left == first || n->right == first)) parent = n;
    ASSERT_NE(parent, nullptr);
    EXPECT_TRUE(patricia_delete(t.root(), first));
    EXPECT_EQ(parent->bit, PAT_NOBIT);
    EXPECT_EQ(parent->left, parent);
    EXPECT_EQ(parent->right, parent);
    std::vector<Key> keys;
    for (patricia_node *n : t.in_order()) keys.push_back({n->key[0]});
    EXPECT_EQ(keys, (std::vector<Key>{{0x30}, {0x50}, {0x90}}));
}

TEST(PatriciaAdd, EqualAndPrefixKeysAreRefusedAndChangeNothing)
{
    Tree t;
    t.add({0x0A, 0x0B});
    t.add({0x0A, 0x0C, 0x01});
    const patricia_node before = *t.root()->root;
    for (const Key &k : {Key{0x0A, 0x0B}, Key{0x0A}, Key{0x0A, 0x0B, 0x00}, Key{0x0A, 0x0C},
                         Key{0x0A, 0x0C, 0x01, 0xFF}}) {
        patricia_node *n = t.node(k);
        EXPECT_FALSE(patricia_add(t.root(), n)) << tarn_test::hex(k);
        EXPECT_FALSE(patricia_node_in_tree(n));
    }
    EXPECT_EQ(t.root()->root->bit, before.bit);
    EXPECT_EQ(t.root()->root->left, before.left);
    EXPECT_EQ(t.root()->root->right, before.right);
    EXPECT_EQ(t.in_order().size(), 2u);
}

TEST(PatriciaAdd, NodeWithoutLengthTakesTheRootKeyLength)
{
    Tree t({3, false, 0});
    patricia_node *n = t.node({1, 2, 3});
    ASSERT_EQ(n->length, 0);
    ASSERT_TRUE(patricia_add(t.root(), n));
    EXPECT_EQ(n->length, 0x02FF);
}

TEST(PatriciaDelete, NodeOfAnotherTreeOrAnEmptyTreeIsNotFound)
{
    Tree a, b;
    a.add({1});
    patricia_node *other = b.add({1});
    b.add({2});
    EXPECT_FALSE(patricia_delete(a.root(), other));  // same key, another node
    Tree empty;
    EXPECT_FALSE(patricia_delete(empty.root(), other));
    EXPECT_TRUE(patricia_node_in_tree(other));
}

TEST(PatriciaLookup, FindNextAndPrevWalkBothWaysAndStopAtTheEnds)
{
    Tree t;
    patricia_node *lo = t.add({0x01, 0x02});
    patricia_node *mid = t.add({0x01, 0x03, 0x00});
    patricia_node *hi = t.add({0xF0});
    EXPECT_EQ(patricia_find_next(t.root(), nullptr), lo);
    EXPECT_EQ(patricia_find_prev(t.root(), nullptr), hi);
    EXPECT_EQ(patricia_find_next(t.root(), lo), mid);
    EXPECT_EQ(patricia_find_next(t.root(), mid), hi);
    EXPECT_EQ(patricia_find_next(t.root(), hi), nullptr);
    EXPECT_EQ(patricia_find_prev(t.root(), hi), mid);
    EXPECT_EQ(patricia_find_prev(t.root(), lo), nullptr);
    EXPECT_EQ(patricia_cons_find_next(t.root(), lo), mid);
    EXPECT_EQ(patricia_cons_find_prev(t.root(), nullptr), hi);
}

TEST(PatriciaLookup, GetNeedsTheExactKeyAndLength)
{
    Tree t;
    patricia_node *n = t.add({0x0A, 0x0B});
    EXPECT_EQ(patricia_get(t.root(), 2, Key{0x0A, 0x0B}.data()), n);
    EXPECT_EQ(patricia_get(t.root(), 1, Key{0x0A}.data()), nullptr);
    EXPECT_EQ(patricia_get(t.root(), 3, Key{0x0A, 0x0B, 0x00}.data()), nullptr);
    EXPECT_EQ(patricia_get(t.root(), 2, Key{0x0A, 0x0C}.data()), nullptr);
    EXPECT_EQ(patricia_cons_get(t.root(), 2, Key{0x0A, 0x0B}.data()), n);
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

TEST(PatriciaLookup, GetnextEqualLongerAndGreater)
{
    Tree t;
    patricia_node *a = t.add({0x10, 0x00});
    patricia_node *b = t.add({0x10, 0x05, 0x01});
    patricia_node *c = t.add({0x80});
    const struct {
        Key key;
        bool eq;
        patricia_node *want;
    } cases[] = {
        {{0x10, 0x00}, true, a},          {{0x10, 0x00}, false, b},
        {{0x10}, false, a},               // a longer key beginning with it is greater
        {{0x10, 0x05}, true, b},          {{0x10, 0x05, 0x01}, false, c},
        {{0x10, 0x00, 0x00}, true, b},    {{0x00}, true, a},
        {{0x7F, 0xFF}, false, c},         {{0x80}, false, nullptr},
        {{0x80, 0x00}, true, nullptr},    {{0xFF}, true, nullptr},
    };
    for (const auto &c2 : cases)
        EXPECT_EQ(patricia_getnext(t.root(), static_cast<uint16_t>(c2.key.size()),
                                   c2.key.data(), c2.eq),
                  c2.want)
            << tarn_test::hex(c2.key) << (c2.eq ? " eq" : " gt");
    Tree empty;
    EXPECT_EQ(patricia_getnext(empty.root(), 1, Key{0}.data(), true), nullptr);
}

TEST(PatriciaLookup, SubtreeMatchCountsOnlyThePrefixBits)
{
    Tree t;
    patricia_node *a = t.add({0xA0, 0x01});
    patricia_node *b = t.add({0xA7, 0x02});
    patricia_node *c = t.add({0xB0});
    const struct {
        Key prefix;
        uint16_t plen;
        patricia_node *want;
    } cases[] = {
        {{0xA0}, 4, a},  {{0xAF}, 4, a},  // the low nibble lies past the prefix
        {{0xA4}, 6, b},  {{0xA6}, 7, b},  {{0xA7, 0x02}, 16, b},
        {{0xA7, 0x03}, 15, b}, {{0xA7, 0x03}, 16, nullptr},
        {{0xB0}, 8, c},  {{0x80}, 1, a},  {{0x00}, 1, nullptr},
        {{0xA0, 0x01, 0x00}, 24, nullptr},  // longer than every key with it
    };
    for (const auto &c2 : cases) {
        EXPECT_EQ(patricia_subtree_match(t.root(), c2.plen, c2.prefix.data()), c2.want)
            << tarn_test::hex(c2.prefix) << "/" << c2.plen;
        EXPECT_EQ(patricia_cons_subtree_match(t.root(), c2.plen, c2.prefix.data()), c2.want);
    }
    EXPECT_EQ(patricia_subtree_next(t.root(), a, 4), b);
    EXPECT_EQ(patricia_subtree_next(t.root(), b, 4), nullptr);
    EXPECT_EQ(patricia_subtree_next(t.root(), a, 3), b);
    EXPECT_EQ(patricia_subtree_next(t.root(), b, 3), c);
    EXPECT_EQ(patricia_cons_subtree_next(t.root(), a, 5), b);
    EXPECT_EQ(patricia_cons_subtree_next(t.root(), a, 6), nullptr);
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

TEST(PatriciaCompare, KeysAgreeingOverTheShorterLengthAreEqual)
{
    Tree t;
    const struct {
        Key a, b;
        int want;
    } cases[] = {
        {{1, 2}, {1, 2}, 0},  {{1, 2}, {1, 2, 3}, 0}, {{1, 2, 3}, {1}, 0},
        {{1, 2}, {1, 3}, -1}, {{0x80}, {0x7F, 0xFF}, 1}, {{0x00, 0xFF}, {0x01}, -1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(patricia_compare_nodes(t.root(), t.node(c.a), t.node(c.b)), c.want)
            << tarn_test::hex(c.a) << " vs " << tarn_test::hex(c.b);
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

using PatriciaDeathTest = testing::Test;

TEST_F(PatriciaDeathTest, AllocatorHooksAreRequired)
{
    EXPECT_ASSERTION(patricia_set_allocator(nullptr, default_free), "patricia_set_allocator",
                     "my_alloc");
    EXPECT_ASSERTION(patricia_set_allocator(default_alloc, nullptr), "patricia_set_allocator",
                     "my_free");
}

TEST_F(PatriciaDeathTest, RootKeyLengthMustBeOneToMaxkey)
{
    patricia_root r;
    EXPECT_ASSERTION(patricia_root_init(&r, 0, 0, 0), "patricia_root_init",
                     "klen && klen <= PAT_MAXKEY");
    EXPECT_ASSERTION(patricia_root_init(&r, 0, PAT_MAXKEY + 1, 0), "patricia_root_init",
                     "klen && klen <= PAT_MAXKEY");
}

TEST_F(PatriciaDeathTest, OnlyAnEmptyRootMayBeDeleted)
{
    Tree t;
    t.add({1});
    EXPECT_ASSERTION(patricia_root_delete(t.root()), "patricia_root_delete",
                     "root->root == NULL");
}

TEST_F(PatriciaDeathTest, NodeKeyLengthAboveMaxkey)
{
    patricia_node n{};
    EXPECT_ASSERTION(patricia_node_init_length(&n, PAT_MAXKEY + 1), "patricia_node_init_length",
                     "key_bytes <= PAT_MAXKEY");
}

TEST_F(PatriciaDeathTest, AddingANodeThatIsInATree)
{
    Tree t;
    patricia_node *n = t.add({1});
    EXPECT_ASSERTION(patricia_add(t.root(), n), "patricia_add",
                     "(node->bit == PAT_NOBIT) && (node->right == NULL) && (node->left == NULL)");
}

TEST_F(PatriciaDeathTest, DeletingANodeThatIsInNoTree)
{
    Tree t;
    t.add({1});
    patricia_node *n = t.node({2});
    EXPECT_ASSERTION(patricia_delete(t.root(), n), "patricia_delete", "node->left && node->right");
}

TEST_F(PatriciaDeathTest, GetWithoutKeyLengthAbortsSilently)
{
    Tree t;
    t.add({1});
    // Nothing of the library's own: under qemu-user the emulator itself adds
    // one line about the signal.
    EXPECT_EXIT(patricia_get(t.root(), 0, Key{1}.data()), testing::KilledBySignal(SIGABRT),
                "^(qemu: uncaught target signal 6 [^\n]*\n)?$");
}

TEST_F(PatriciaDeathTest, GetnextWithoutKeyLength)
{
    Tree t;
    EXPECT_ASSERTION(patricia_getnext(t.root(), 0, Key{1}.data(), true), "patricia_getnext",
                     "klen");
}

TEST_F(PatriciaDeathTest, NeighboursOfANodeInAnEmptyTree)
{
    Tree empty, other;
    patricia_node *n = other.add({1});
    EXPECT_ASSERTION(patricia_find_next(empty.root(), n), "patricia_find_next", "node == NULL");
    EXPECT_ASSERTION(patricia_find_prev(empty.root(), n), "patricia_find_prev", "node == NULL");
    // The read-only twins report under the same names.
    EXPECT_ASSERTION(patricia_cons_find_next(empty.root(), n), "patricia_find_next",
                     "node == NULL");
}

TEST_F(PatriciaDeathTest, NeighboursOfANodeOfAnotherTree)
{
    Tree t, other;
    t.add({1});
    t.add({3});
    patricia_node *n = other.add({2});
    EXPECT_ASSERTION(patricia_find_next(t.root(), n), "patricia_find_next", "current == node");
    EXPECT_ASSERTION(patricia_find_prev(t.root(), n), "patricia_find_prev", "current == node");
}

TEST_F(PatriciaDeathTest, SubtreeMatchPrefixLength)
{
    Tree t;
    const Key prefix(PAT_MAXKEY + 1, 0);
    EXPECT_ASSERTION(patricia_subtree_match(t.root(), 0, prefix.data()), "patricia_subtree_match",
                     "plen && plen <= (PAT_MAXKEY * 8)");
    EXPECT_ASSERTION(patricia_subtree_match(t.root(), PAT_MAXKEY * 8 + 1, prefix.data()),
                     "patricia_subtree_match", "plen && plen <= (PAT_MAXKEY * 8)");
}

TEST_F(PatriciaDeathTest, SubtreeNextContract)
{
    Tree t, empty, other;
    patricia_node *n = t.add({1, 2});
    t.add({1, 3});
    patricia_node *stranger = other.add({1, 4});
    EXPECT_ASSERTION(patricia_subtree_next(empty.root(), n, 8), "patricia_subtree_next",
                     "plen && current");
    EXPECT_ASSERTION(patricia_subtree_next(t.root(), n, 0), "patricia_subtree_next",
                     "plen && current");
    EXPECT_ASSERTION(patricia_subtree_next(t.root(), n, 17), "patricia_subtree_next",
                     "node->length >= p_bit");
    EXPECT_ASSERTION(patricia_subtree_next(t.root(), stranger, 8), "patricia_subtree_next",
                     "current == node");
}

}  // namespace
