/*
 * libtarn - patricia tree: a radix tree over byte-string keys of 1 to
 * PAT_MAXKEY bytes that never allocates nodes.
 *
 * Ownership: the caller owns every node and embeds it in its own record; the
 * tree only links nodes in and out. Only a root may come from the library,
 * through the process-wide hooks of patricia_set_allocator, and goes back with
 * patricia_root_delete once the tree is empty.
 *
 * Keys: a node's key lives in the key area behind `right`. Inline keys start
 * key_offset bytes into that area, so the caller's record must extend over
 * key_offset + key length bytes from it; with key_is_ptr the area holds one
 * pointer (key_ptr) and the key starts key_offset bytes past it. A key must
 * stay unchanged, and readable, while its node is in a tree. Keys are ordered
 * as bit strings; where one is a proper prefix of the other the shorter sorts
 * first. A tree never holds two keys of which one is a prefix of the other.
 *
 * NULL: roots and nodes are required unless a function says otherwise.
 * Errors: ordinary outcomes are returned (false, NULL); contract violations
 * end the process through an assertion that names the function, the source
 * "patricia", the line and the failed expression.
 *
 * Threads: no locking; a tree belongs to one thread at a time, and the
 * allocator hooks should be set before the first root is made.
 */
#ifndef TARN_PATRICIA_H
#define TARN_PATRICIA_H

#include <stdbool.h>
#include <tarn/common.h>

TARN_BEGIN_DECLS

#define PAT_MAXKEY 256 /* longest key, in bytes */
#define PAT_NOBIT 0    /* bit of a node that tests nothing or is out of a tree */

/*
 * Bit positions are 16-bit values (byte index << 8) | (0xFF ^ mask), mask
 * being the bit inside the byte counted from the most significant; so they
 * compare in key order. A key of n bytes has the length ((n - 1) << 8) | 0xFF,
 * the position just past its last bit; 0 means "not set".
 */
typedef struct patricia_node {
    uint16_t length; /* key length as a bit position, or 0: the root's applies */
    uint16_t bit;    /* bit tested while in a tree, PAT_NOBIT otherwise */
    struct patricia_node *left;
    struct patricia_node *right;
    union {                          /* the key area */
        uint8_t key[sizeof(void *)]; /* inline key; continues past the node */
        const uint8_t *key_ptr;      /* with key_is_ptr: where the key is */
    };
} patricia_node;

typedef struct patricia_root {
    patricia_node *root; /* top node, NULL when the tree is empty */
    uint16_t key_bytes;  /* key length of nodes whose own length is 0 */
    uint8_t key_offset;  /* where the key starts inside the key area */
    uint8_t key_is_ptr;  /* 1: the key area holds a pointer to the key */
} patricia_root;

/* entry i is 0xFF ^ (0x80 >> i) */
TARN_API extern const uint8_t patricia_bit_masks[8];
/* entry x is the mask of the highest bit set in x, 0 for 0 */
TARN_API extern const uint8_t patricia_hi_bit_table[256];

typedef patricia_root *(*patricia_root_alloc_fn)(void);
typedef void (*patricia_root_free_fn)(patricia_root *root);

/* Sets the hooks that make and release roots; both are required. The
 * defaults use malloc and free. */
TARN_API void patricia_set_allocator(patricia_root_alloc_fn my_alloc,
                                     patricia_root_free_fn my_free);

/* Initialises `root` (or one from the allocator hook when NULL) for keys of
 * klen bytes (1..PAT_MAXKEY). NULL when the hook fails. */
TARN_API patricia_root *patricia_root_init(patricia_root *root, int key_is_ptr, uint16_t klen,
                                           uint8_t key_offset);
/* Gives an empty root back to the free hook; NULL is ignored. Nodes are the
 * caller's: they are never walked or freed. */
TARN_API void patricia_root_delete(patricia_root *root);

/* Prepares a node to be added: its own key length in bytes (0..PAT_MAXKEY,
 * 0 for the root's), out of any tree. */
TARN_API void patricia_node_init_length(patricia_node *node, uint16_t key_bytes);
TARN_API bool patricia_node_in_tree(const patricia_node *node);

/* false when the key, a prefix of it or a key it is a prefix of is already
 * in the tree; the tree is then unchanged. */
TARN_API bool patricia_add(patricia_root *root, patricia_node *node);
/* false when `node` is not in this tree. */
TARN_API bool patricia_delete(patricia_root *root, patricia_node *node);

/* The node whose key is exactly key_bytes bytes of `key`, or NULL. A
 * key_bytes of 0 aborts the process. */
TARN_API patricia_node *patricia_get(patricia_root *root, uint16_t key_bytes, const void *key);
/* The first node whose key is greater than the klen bytes of `key` (or equal
 * to them when eq), or NULL. klen must not be 0. */
TARN_API patricia_node *patricia_getnext(patricia_root *root, uint16_t klen, const void *key,
                                         bool eq);
/* The node after / before `node` in key order, the first / last with NULL. */
TARN_API patricia_node *patricia_find_next(patricia_root *root, patricia_node *node);
TARN_API patricia_node *patricia_find_prev(patricia_root *root, patricia_node *node);
/* The first node whose key begins with the first plen bits (1..PAT_MAXKEY * 8)
 * of `prefix`, or NULL. */
TARN_API patricia_node *patricia_subtree_match(patricia_root *root, uint16_t plen,
                                               const void *prefix);
/* The node after `node` if its key shares the first plen bits of node's key
 * (which must have at least plen bits), or NULL. */
TARN_API patricia_node *patricia_subtree_next(patricia_root *root, patricia_node *node,
                                              uint16_t plen);
/* -1, 0 or 1 as a's key sorts before, with or after b's; keys that agree
 * over the shorter one's length compare equal. */
TARN_API int patricia_compare_nodes(patricia_root *root, patricia_node *a, patricia_node *b);

/* The lookups above for read-only roots and nodes; they behave, and report
 * failed assertions, exactly as the functions they mirror. */
TARN_API const patricia_node *patricia_cons_get(const patricia_root *root, uint16_t key_bytes,
                                                const void *key);
TARN_API const patricia_node *patricia_cons_find_next(const patricia_root *root,
                                                      const patricia_node *node);
TARN_API const patricia_node *patricia_cons_find_prev(const patricia_root *root,
                                                      const patricia_node *node);
TARN_API const patricia_node *patricia_cons_subtree_match(const patricia_root *root,
                                                          uint16_t plen, const void *prefix);
TARN_API const patricia_node *patricia_cons_subtree_next(const patricia_root *root,
                                                         const patricia_node *node,
                                                         uint16_t plen);

TARN_END_DECLS

#endif /* TARN_PATRICIA_H */
