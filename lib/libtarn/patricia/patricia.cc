#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <tarn/patricia.h>

#include "libtarn/util/tarn_assert.h"

#define R2(x) x, x
#define R4(x) R2(x), R2(x)
#define R8(x) R4(x), R4(x)
#define R16(x) R8(x), R8(x)
#define R32(x) R16(x), R16(x)
#define R64(x) R32(x), R32(x)
#define R128(x) R64(x), R64(x)

extern "C" const uint8_t patricia_bit_masks[8] = {0x7F, 0xBF, 0xDF, 0xEF, 0xF7, 0xFB, 0xFD, 0xFE};

extern "C" const uint8_t patricia_hi_bit_table[256] = {
    0x00, 0x01, R2(0x02), R4(0x04), R8(0x08), R16(0x10), R32(0x20), R64(0x40), R128(0x80)};

#undef R2
#undef R4
#undef R8
#undef R16
#undef R32
#undef R64
#undef R128

namespace {

constexpr const char *kSource = "patricia";

// Returned by first_diff_bit when the compared bytes agree; greater than any
// bit position, so "length <= d" holds for it as well.
constexpr uint32_t kNoDiff = 0xFFFFFFFFu;

// Lengths and bit positions are handled as 32-bit values: a search key longer
// than PAT_MAXKEY then simply has a length no node can have, instead of
// wrapping onto a short one.
constexpr uint32_t length_of(uint32_t key_bytes)
{
    return ((key_bytes - 1) << 8) | 0xFF;
}

uint32_t prefix_bit(uint32_t plen)
{
    if (plen % 8 == 0) return length_of(plen / 8);
    return ((plen / 8) << 8) | patricia_bit_masks[plen % 8];
}

uint32_t root_length(const patricia_root *root)
{
    return root->key_bytes ? length_of(root->key_bytes) : 0;
}

uint32_t node_length(const patricia_root *root, const patricia_node *node)
{
    return node->length ? node->length : root_length(root);
}

// Inline keys may run past the node into the caller's record, so they are
// addressed from the node's own address rather than through the short array.
const uint8_t *key_of(const patricia_root *root, const patricia_node *node)
{
    if (root->key_is_ptr) return node->key_ptr + root->key_offset;
    return reinterpret_cast<const uint8_t *>(node) + offsetof(patricia_node, key) +
           root->key_offset;
}

// The low byte of a position is the complement of its mask, so ~bit selects
// the bit without a shift.
bool bit_set(const uint8_t *key, uint32_t length, uint32_t bit)
{
    return length > bit && (key[bit >> 8] & static_cast<uint8_t>(~bit)) != 0;
}

// First bit at which a and b differ within bytes 0..last_byte, or kNoDiff.
uint32_t first_diff_bit(const uint8_t *a, const uint8_t *b, uint32_t last_byte)
{
    for (uint32_t i = 0; i <= last_byte; ++i) {
        const uint8_t x = a[i] ^ b[i];
        if (x != 0) return (i << 8) | (0xFF ^ patricia_hi_bit_table[x]);
    }
    return kNoDiff;
}

// Walks down from `cur`, entered from a node testing `prev`, taking the side
// go_right(node) names, until a link leads up (or sideways): the node reached
// is the leaf that ends the walk.
template <typename GoRight>
const patricia_node *descend(const patricia_node *cur, uint32_t prev, GoRight &&go_right)
{
    while (cur->bit > prev) {
        prev = cur->bit;
        cur = go_right(cur) ? cur->right : cur->left;
    }
    return cur;
}

const patricia_node *descend_key(const patricia_node *top, const uint8_t *key, uint32_t length)
{
    return descend(top, PAT_NOBIT, [&](const patricia_node *n) {
        return bit_set(key, length, n->bit);
    });
}

// Smallest (right == false) or largest key below `top`.
const patricia_node *edge_leaf(const patricia_node *top, uint32_t prev, bool right)
{
    return descend(top, prev, [right](const patricia_node *) { return right; });
}

// The leaf after the one reached by going left at `turn` (or before it, for
// a right turn): the nearest key of the other subtree.
const patricia_node *successor(const patricia_node *turn)
{
    return edge_leaf(turn->right, turn->bit, false);
}

const patricia_node *predecessor(const patricia_node *turn)
{
    return edge_leaf(turn->left, turn->bit, true);
}

struct Walk {
    const patricia_node *leaf;
    const patricia_node *turn;  // the last node where the walk took `side`, or NULL
};

Walk walk_remembering(const patricia_root *root, const patricia_node *node, bool side)
{
    const uint8_t *key = key_of(root, node);
    Walk w{nullptr, nullptr};
    w.leaf = descend(root->root, PAT_NOBIT, [&](const patricia_node *n) {
        const bool right = bit_set(key, node->length, n->bit);
        if (right == side) w.turn = n;
        return right;
    });
    return w;
}

// getnext when the search key sorts before `leaf`, first differing at d.
const patricia_node *next_of_smaller(const patricia_node *top, const patricia_node *leaf,
                                     const patricia_node *last_right, const uint8_t *key,
                                     uint32_t length, uint32_t d)
{
    if (last_right == nullptr || last_right->bit < d) return leaf;
    // All keys that share the bits before d with the search key are greater
    // than it; the smallest of them is the leftmost of that subtree.
    return descend(top, PAT_NOBIT, [&](const patricia_node *n) {
        return n->bit < d && bit_set(key, length, n->bit);
    });
}

// getnext when the search key sorts after `leaf`, first differing at d.
const patricia_node *next_of_greater(const patricia_node *top, const patricia_node *last_left,
                                     const uint8_t *key, uint32_t length, uint32_t d)
{
    if (last_left == nullptr) return nullptr;
    if (last_left->bit <= d) return successor(last_left);
    // The whole subtree below d sorts before the key: go on from the last
    // left turn above it.
    const patricia_node *turn = nullptr;
    descend(top, PAT_NOBIT, [&](const patricia_node *n) {
        const bool right = bit_set(key, length, n->bit);
        if (!right && n->bit < d) turn = n;
        return right;
    });
    return turn ? successor(turn) : nullptr;
}

void take_out(patricia_node *node)
{
    node->bit = PAT_NOBIT;
    node->left = nullptr;
    node->right = nullptr;
}

void make_sole(patricia_node *node)
{
    node->bit = PAT_NOBIT;
    node->left = node;
    node->right = node;
}

patricia_node *writable(const patricia_node *node)
{
    return const_cast<patricia_node *>(node);
}

patricia_root *patricia_root_alloc()
{
    return static_cast<patricia_root *>(std::malloc(sizeof(patricia_root)));
}

void patricia_root_free(patricia_root *root)
{
    TARN_ASSERT_IN(kSource, root);
    std::free(root);
}

patricia_root_alloc_fn g_root_alloc = patricia_root_alloc;
patricia_root_free_fn g_root_free = patricia_root_free;

}  // namespace

extern "C" void patricia_set_allocator(patricia_root_alloc_fn my_alloc,
                                       patricia_root_free_fn my_free)
{
    TARN_ASSERT_IN(kSource, my_alloc);
    TARN_ASSERT_IN(kSource, my_free);
    g_root_alloc = my_alloc;
    g_root_free = my_free;
}

extern "C" patricia_root *patricia_root_init(patricia_root *root, int key_is_ptr, uint16_t klen,
                                             uint8_t key_offset)
{
    TARN_ASSERT_IN(kSource, klen && klen <= PAT_MAXKEY);
    if (root == nullptr) root = g_root_alloc();
    if (root == nullptr) return nullptr;
    root->root = nullptr;
    root->key_bytes = klen;
    root->key_offset = key_offset;
    root->key_is_ptr = key_is_ptr ? 1 : 0;
    return root;
}

extern "C" void patricia_root_delete(patricia_root *root)
{
    if (root == nullptr) return;
    TARN_ASSERT_IN(kSource, root->root == NULL);
    g_root_free(root);
}

extern "C" void patricia_node_init_length(patricia_node *node, uint16_t key_bytes)
{
    if (key_bytes != 0) TARN_ASSERT_IN(kSource, key_bytes <= PAT_MAXKEY);
    node->length = key_bytes ? static_cast<uint16_t>(length_of(key_bytes)) : 0;
    take_out(node);
}

extern "C" bool patricia_node_in_tree(const patricia_node *node)
{
    return node->bit != PAT_NOBIT || node->left != nullptr || node->right != nullptr;
}

extern "C" bool patricia_add(patricia_root *root, patricia_node *node)
{
    TARN_ASSERT_IN(kSource,
                   (node->bit == PAT_NOBIT) && (node->right == NULL) && (node->left == NULL));
    if (node->length == 0) node->length = static_cast<uint16_t>(root_length(root));
    if (root->root == nullptr) {
        make_sole(node);
        root->root = node;
        return true;
    }
    const uint8_t *key = key_of(root, node);
    const uint32_t length = node->length;
    const patricia_node *leaf = descend_key(root->root, key, length);
    const uint32_t min = length < leaf->length ? length : leaf->length;
    // Equal keys, and keys of which one is a prefix of the other, cannot both
    // be leaves: no bit tells them apart.
    const uint32_t d = first_diff_bit(key, key_of(root, leaf), min >> 8);
    if (min <= d) return false;

    patricia_node **link = &root->root;
    uint32_t prev = PAT_NOBIT;
    while ((*link)->bit > prev && (*link)->bit < d) {
        prev = (*link)->bit;
        link = bit_set(key, length, prev) ? &(*link)->right : &(*link)->left;
    }
    node->bit = static_cast<uint16_t>(d);
    if (bit_set(key, length, d)) {
        node->left = *link;
        node->right = node;
    } else {
        node->right = *link;
        node->left = node;
    }
    *link = node;
    return true;
}

extern "C" bool patricia_delete(patricia_root *root, patricia_node *node)
{
    TARN_ASSERT_IN(kSource, node->left && node->right);
    if (root->root == nullptr) return false;

    const uint8_t *key = key_of(root, node);
    patricia_node **inner_link = nullptr;   // link to the node's inner position
    patricia_node **parent_link = nullptr;  // link to the last inner node
    patricia_node **link = &root->root;
    uint32_t prev = PAT_NOBIT;
    while ((*link)->bit > prev) {
        patricia_node *cur = *link;
        if (cur == node) inner_link = link;
        parent_link = link;
        prev = cur->bit;
        link = bit_set(key, node->length, prev) ? &cur->right : &cur->left;
    }
    if (*link != node) return false;

    if (root->root->bit == PAT_NOBIT) {
        TARN_ASSERT_IN(kSource, node->bit == PAT_NOBIT);
        root->root = nullptr;
        take_out(node);
        return true;
    }
    // The inner node whose link reached the target leaf gives up its inner
    // position to its other child; it then either replaces the target in
    // the target's inner position or, when the target had none, becomes the
    // node that tests nothing.
    patricia_node *parent = *parent_link;
    *parent_link = link == &parent->left ? parent->right : parent->left;
    if (inner_link == nullptr) {
        TARN_ASSERT_IN(kSource, node->bit == PAT_NOBIT);
        make_sole(parent);
    } else if (parent != node) {
        parent->left = node->left;
        parent->right = node->right;
        parent->bit = node->bit;
        *inner_link = parent;
    }
    take_out(node);
    return true;
}

extern "C" patricia_node *patricia_get(patricia_root *root, uint16_t key_bytes, const void *key)
{
    if (key_bytes == 0) std::abort();
    if (root->root == nullptr) return nullptr;
    const auto *k = static_cast<const uint8_t *>(key);
    const uint32_t length = length_of(key_bytes);
    const patricia_node *leaf = descend_key(root->root, k, length);
    if (leaf->length != length) return nullptr;
    if (std::memcmp(key_of(root, leaf), k, key_bytes) != 0) return nullptr;
    return writable(leaf);
}

extern "C" patricia_node *patricia_getnext(patricia_root *root, uint16_t klen, const void *key,
                                           bool eq)
{
    TARN_ASSERT_IN(kSource, klen);
    if (root->root == nullptr) return nullptr;
    const auto *k = static_cast<const uint8_t *>(key);
    const uint32_t length = length_of(klen);
    const patricia_node *last_left = nullptr;
    const patricia_node *last_right = nullptr;
    const patricia_node *leaf = descend(root->root, PAT_NOBIT, [&](const patricia_node *n) {
        const bool right = bit_set(k, length, n->bit);
        (right ? last_right : last_left) = n;
        return right;
    });
    const uint32_t min = length < leaf->length ? length : leaf->length;
    const uint32_t d = first_diff_bit(k, key_of(root, leaf), min >> 8);
    if (min <= d) {
        // One key begins with the other: a longer leaf sorts after the key.
        if (length < leaf->length) return writable(leaf);
        if (eq && length == leaf->length) return writable(leaf);
        return last_left ? writable(successor(last_left)) : nullptr;
    }
    if (!bit_set(k, length, d))
        return writable(next_of_smaller(root->root, leaf, last_right, k, length, d));
    return writable(next_of_greater(root->root, last_left, k, length, d));
}

extern "C" patricia_node *patricia_find_next(patricia_root *root, patricia_node *node)
{
    if (root->root == nullptr) {
        TARN_ASSERT_IN(kSource, node == NULL);
        return nullptr;
    }
    if (node == nullptr) return writable(edge_leaf(root->root, PAT_NOBIT, false));
    const Walk w = walk_remembering(root, node, false);
    const patricia_node *current = w.leaf;
    TARN_ASSERT_IN(kSource, current == node);
    return w.turn ? writable(successor(w.turn)) : nullptr;
}

extern "C" patricia_node *patricia_find_prev(patricia_root *root, patricia_node *node)
{
    if (root->root == nullptr) {
        TARN_ASSERT_IN(kSource, node == NULL);
        return nullptr;
    }
    if (node == nullptr) return writable(edge_leaf(root->root, PAT_NOBIT, true));
    const Walk w = walk_remembering(root, node, true);
    const patricia_node *current = w.leaf;
    TARN_ASSERT_IN(kSource, current == node);
    return w.turn ? writable(predecessor(w.turn)) : nullptr;
}

extern "C" patricia_node *patricia_subtree_match(patricia_root *root, uint16_t plen,
                                                 const void *prefix)
{
    TARN_ASSERT_IN(kSource, plen && plen <= (PAT_MAXKEY * 8));
    if (root->root == nullptr) return nullptr;
    const auto *p = static_cast<const uint8_t *>(prefix);
    const uint32_t p_bit = prefix_bit(plen);
    // Bits past the prefix are clear to the walk, so it ends at the leftmost
    // key of the prefix's subtree, if there is one.
    const patricia_node *leaf = descend_key(root->root, p, p_bit);
    if (leaf->length < p_bit) return nullptr;
    const uint32_t d = first_diff_bit(p, key_of(root, leaf), p_bit >> 8);
    return p_bit <= d ? writable(leaf) : nullptr;
}

extern "C" patricia_node *patricia_subtree_next(patricia_root *root, patricia_node *node,
                                                uint16_t plen)
{
    const patricia_node *current = root->root;
    TARN_ASSERT_IN(kSource, plen && current);
    const uint32_t p_bit = prefix_bit(plen);
    TARN_ASSERT_IN(kSource, node->length >= p_bit);
    const Walk w = walk_remembering(root, node, false);
    current = w.leaf;
    TARN_ASSERT_IN(kSource, current == node);
    // The next key differs from this one at the last left turn's bit; it is
    // outside the prefix when that bit lies inside it.
    if (w.turn == nullptr || w.turn->bit < p_bit) return nullptr;
    return writable(successor(w.turn));
}

extern "C" int patricia_compare_nodes(patricia_root *root, patricia_node *a, patricia_node *b)
{
    const uint32_t la = node_length(root, a);
    const uint32_t lb = node_length(root, b);
    const uint32_t min = la < lb ? la : lb;
    const uint8_t *ka = key_of(root, a);
    const uint32_t d = first_diff_bit(ka, key_of(root, b), min >> 8);
    if (min <= d) return 0;
    return bit_set(ka, la, d) ? 1 : -1;
}

// The read-only lookups share the writable ones, which change nothing, so
// that both behave (and report) alike.
extern "C" const patricia_node *patricia_cons_get(const patricia_root *root, uint16_t key_bytes,
                                                  const void *key)
{
    return patricia_get(const_cast<patricia_root *>(root), key_bytes, key);
}

extern "C" const patricia_node *patricia_cons_find_next(const patricia_root *root,
                                                        const patricia_node *node)
{
    return patricia_find_next(const_cast<patricia_root *>(root), writable(node));
}

extern "C" const patricia_node *patricia_cons_find_prev(const patricia_root *root,
                                                        const patricia_node *node)
{
    return patricia_find_prev(const_cast<patricia_root *>(root), writable(node));
}

extern "C" const patricia_node *patricia_cons_subtree_match(const patricia_root *root,
                                                            uint16_t plen, const void *prefix)
{
    return patricia_subtree_match(const_cast<patricia_root *>(root), plen, prefix);
}

extern "C" const patricia_node *patricia_cons_subtree_next(const patricia_root *root,
                                                           const patricia_node *node,
                                                           uint16_t plen)
{
    return patricia_subtree_next(const_cast<patricia_root *>(root), writable(node), plen);
}
