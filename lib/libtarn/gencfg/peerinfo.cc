#include <cstdlib>

#include "libtarn/gencfg/gencfg_internal.h"

namespace {

constexpr uint32_t kSlotBits = 5;
constexpr uint32_t kWordBits = 30;  // six slots to a word; bits 30 and 31 stay clear
constexpr uint32_t kSubUnits = 4;
constexpr uint32_t kIgnoredIndex = 65531;

uint32_t &mask_word(gencfg_peer_index_type_t &m, uint32_t w)
{
    switch (w) {
    case 0: return m.word0;
    case 1: return m.word1;
    case 2: return m.word2;
    default: return m.word3;
    }
}

uint32_t mask_word(const gencfg_peer_index_type_t &m, uint32_t w)
{
    return mask_word(const_cast<gencfg_peer_index_type_t &>(m), w);
}

// Bit `offset` of slot `slot`: 0 is the slot itself, 1 + u sub-unit u.
uint32_t bit_of(uint32_t slot, uint32_t offset)
{
    return 1u << ((slot * kSlotBits) % kWordBits + offset);
}

bool test_bit(const gencfg_peer_index_type_t &m, uint32_t slot, uint32_t offset)
{
    return (mask_word(m, slot * kSlotBits / kWordBits) & bit_of(slot, offset)) != 0;
}

void set_bit(gencfg_peer_index_type_t &m, uint32_t slot, uint32_t offset)
{
    mask_word(m, slot * kSlotBits / kWordBits) |= bit_of(slot, offset);
}

bool is_slot_type(uint32_t t)
{
    return t == RTSLIB_GENCFG_PEER_SLOT;
}

bool set_mask_bit(gencfg_peerinfo_t &e, uint32_t index)
{
    const uint32_t t = e.peer_type;
    const uint32_t slot = index / kSubUnits;
    const uint32_t sub = index % kSubUnits;
    if (index > kIgnoredIndex) {
        // Out-of-range indexes are dropped silently: they name no peer.
    } else if ((t & RTSLIB_GENCFG_PEER_SLOT) && (t & RTSLIB_GENCFG_PEER_SUBUNIT)) {
        if (slot >= RTSLIB_GENCFG_MASK_SLOTS) return false;
        set_bit(e.peer, slot, 0);
        set_bit(e.peer, slot, 1 + sub);
    } else if (is_slot_type(t) && index < RTSLIB_GENCFG_MASK_SLOTS) {
        set_bit(e.peer, index, 0);
    } else if (t == RTSLIB_GENCFG_PEER_SUBUNIT && slot < RTSLIB_GENCFG_MASK_SLOTS) {
        set_bit(e.peer, slot, 1 + sub);
    } else {
        return false;
    }
    e.peer_choice = RTSLIB_GENCFG_CHOICE_MASK;
    return true;
}

bool choices_clash(uint32_t first, uint32_t next)
{
    switch (first) {
    case RTSLIB_GENCFG_CHOICE_INDEX:
        return next == RTSLIB_GENCFG_CHOICE_INDEX2 || next == RTSLIB_GENCFG_CHOICE_MASK;
    case RTSLIB_GENCFG_CHOICE_INDEX2:
        return next == RTSLIB_GENCFG_CHOICE_INDEX || next == RTSLIB_GENCFG_CHOICE_MASK;
    // A mask takes further single-index peers (merged in for major type 15).
    case RTSLIB_GENCFG_CHOICE_MASK: return next == RTSLIB_GENCFG_CHOICE_INDEX2;
    default: return true;
    }
}

// The first mask entry among the first `limit` entries, or nullptr.
gencfg_peerinfo_t *find_mask(const gencfg_msg_t *g, uint32_t limit)
{
    if (g->peers == nullptr) return nullptr;
    for (uint32_t i = 0; i < limit; ++i)
        if (g->peers[i] != nullptr && g->peers[i]->peer_choice == RTSLIB_GENCFG_CHOICE_MASK)
            return g->peers[i];
    return nullptr;
}

int merge_into_mask(gencfg_msg_t *g, const rtslib_gencfg_peer *peer)
{
    gencfg_peerinfo_t *e = g->peers_count > 0 ? find_mask(g, g->peers_count) : nullptr;
    const bool fresh = e == nullptr;
    if (fresh) {
        e = g->peers[g->peers_count];
        e->peer = gencfg_peer_index_type_t{};
    }
    e->peer_type = peer->peer_type;
    if (!set_mask_bit(*e, peer->index)) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "Creation of gencfg peer mask failed \n");
        return -1;
    }
    if (fresh) ++g->peers_count;
    return 0;
}

}  // namespace

extern "C" {

int rtslib_gencfg_create_peerinfo(gencfg_msg_t *g, uint32_t count)
{
    if (g == nullptr) return -1;
    if (count > RTSLIB_GENCFG_MAX_PEERS) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "Number of peers exceeds %d\n",
                   RTSLIB_GENCFG_MAX_PEERS);
        return -1;
    }
    // Pointer array first, the entries after it, in one block (at least one
    // byte, so that an empty list is still a list).
    const size_t slots = count * sizeof(gencfg_peerinfo_t *);
    auto *mem = static_cast<uint8_t *>(std::calloc(1, slots + count * sizeof(gencfg_peerinfo_t) + 1));
    if (mem == nullptr) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "Failed to allocate memory for gencfg_peerinfo_t\n");
        g->peers = nullptr;
        return -1;
    }
    auto **ptrs = reinterpret_cast<gencfg_peerinfo_t **>(mem);
    auto *entries = reinterpret_cast<gencfg_peerinfo_t *>(mem + slots);
    for (uint32_t i = 0; i < count; ++i) ptrs[i] = &entries[i];
    g->peers = ptrs;
    g->peers_count = 0;
    g->peer_capacity = static_cast<uint8_t>(count);
    return 0;
}

int rtslib_gencfg_add_peerinfo(gencfg_msg_t *g, const rtslib_gencfg_peer *peer)
{
    if (g == nullptr || peer == nullptr) return -1;
    if (g->peers_count >= g->peer_capacity) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "Number of gencfg peers exceeds %d\n",
                   static_cast<int>(g->peer_capacity));
        return -1;
    }
    if (g->peers == nullptr) return -1;
    if (g->peers_count > 0) {
        const uint32_t first = g->peers[0]->peer_choice;
        if (choices_clash(first, peer->choice)) {
            rtslib_err(nullptr, RTSLIB_LOG_ERROR, "%s: Peer Index choice mismatch %d %d\n",
                       "rtslib_gencfg_add_peerinfo", static_cast<int>(first),
                       static_cast<int>(peer->choice));
            return -1;
        }
    }
    if (peer->choice != RTSLIB_GENCFG_CHOICE_INDEX && peer->choice != RTSLIB_GENCFG_CHOICE_INDEX2) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "OBJECT TYPE invalid\n");
        return -1;
    }
    if (peer->choice == RTSLIB_GENCFG_CHOICE_INDEX && g->major_type == RTSLIB_GENCFG_MAJOR_MASKED)
        return merge_into_mask(g, peer);
    gencfg_peerinfo_t *e = g->peers[g->peers_count];
    *e = gencfg_peerinfo_t{};
    e->peer_type = peer->peer_type;
    e->peer_choice = peer->choice;
    e->peer.word0 = peer->index;
    ++g->peers_count;
    return 0;
}

void rtslib_gencfg_delete_peerinfo(gencfg_msg_t *g)
{
    if (g == nullptr) return;
    std::free(g->peers);
    g->peers = nullptr;
    g->peers_count = 0;
}

const gencfg_peer_index_type_t *rtslib_gencfg_get_peer_info(const gencfg_msg_t *g)
{
    if (g == nullptr || g->peers_count == 0) return nullptr;
    const gencfg_peerinfo_t *e = find_mask(g, g->peers_count);
    return e != nullptr ? &e->peer : nullptr;
}

int rtslib_gencfg_is_peer_present_in_peerinfo(const gencfg_msg_t *g, uint8_t peer_type,
                                              uint32_t index)
{
    if (g == nullptr) return 0;
    // Every allocated entry is searched, not only those in use: an entry
    // whose peers were all taken away keeps its mask.
    const gencfg_peerinfo_t *e = find_mask(g, g->peer_capacity);
    if (e == nullptr) return 0;
    if (peer_type == RTSLIB_GENCFG_PEER_SLOT)
        return index < RTSLIB_GENCFG_MASK_SLOTS && test_bit(e->peer, index, 0) ? 1 : 0;
    if (peer_type == RTSLIB_GENCFG_PEER_SUBUNIT) {
        const uint32_t slot = index / kSubUnits;
        return slot < RTSLIB_GENCFG_MASK_SLOTS && test_bit(e->peer, slot, 1 + index % kSubUnits)
                   ? 1
                   : 0;
    }
    return 0;
}

int rtslib_gencfg_get_peer_index_from_peer_mask(const gencfg_peer_index_type_t *mask,
                                                uint8_t peer_type, uint32_t slot, uint32_t sub)
{
    if (mask == nullptr || slot >= RTSLIB_GENCFG_MASK_SLOTS || sub >= kSubUnits) return -1;
    if (is_slot_type(peer_type)) return test_bit(*mask, slot, 0) ? static_cast<int>(slot) : -1;
    if (peer_type & 1u)
        return test_bit(*mask, slot, 1 + sub) ? static_cast<int>(slot * kSubUnits + sub) : -1;
    return -1;
}

int rtslib_gencfg_get_peer_index(const gencfg_msg_t *, const gencfg_peerinfo_t *e)
{
    if (e == nullptr) return -1;
    if (e->peer_choice == RTSLIB_GENCFG_CHOICE_INDEX || e->peer_choice == RTSLIB_GENCFG_CHOICE_INDEX2)
        return static_cast<int>(e->peer.word0 & 0xffffu);
    if (e->peer_choice != RTSLIB_GENCFG_CHOICE_MASK) return -1;
    const bool slots_only = is_slot_type(e->peer_type);
    if (!slots_only && (e->peer_type & 1u) == 0) return -1;
    for (uint32_t slot = 0; slot < RTSLIB_GENCFG_MASK_SLOTS; ++slot) {
        if (slots_only) {
            if (test_bit(e->peer, slot, 0)) return static_cast<int>(slot);
            continue;
        }
        for (uint32_t sub = 0; sub < kSubUnits; ++sub)
            if (test_bit(e->peer, slot, 1 + sub)) return static_cast<int>(slot * kSubUnits + sub);
    }
    return -1;
}

}  // extern "C"
