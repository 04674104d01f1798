// The registry that follows the addresses of interfaces lending them to
// unnumbered interfaces. Per family, donors map to an entry holding the
// interested interfaces (index -> caller's cookie) and their count.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <tarn/idl.h>
#include <tarn/itable.h>
#include <tarn/rtslib_if.h>

#if defined(__SANITIZE_ADDRESS__)
#define TARN_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_LSAN 1
#endif
#endif
#ifdef TARN_LSAN
#include <sanitizer/lsan_interface.h>
#endif

struct rtslib_unnum {
    itable32 *families[3];  // AF_INET, AF_INET6, any other (never filled)
    rtslib_unnum_ifa_fn fn;
    rtslib_cookie *own;     // for the registry's requests of its own
    // The event saved between rtslib_unnum_ifa_save_msg and _report.
    uint32_t donor;
    uint8_t op;
    uint8_t family;
    uint8_t *address;
    uint16_t dest_bits;
    uint16_t flags;
    bool pending;
};

namespace {

struct DonorEntry {
    itable32 *interested;
    uint32_t count;
};

int family_slot(uint8_t family)
{
    return family == TARN_AF_INET ? 0 : family == TARN_AF_INET6 ? 1 : 2;
}

DonorEntry *donor_entry(const rtslib_unnum *u, uint8_t family, uint32_t donor)
{
    const itable32 *t = u->families[family_slot(family)];
    return t == nullptr ? nullptr : static_cast<DonorEntry *>(itable32_lookup(t, &donor));
}

// Donor entries outlive the registry (clean-up never frees them); keep the
// leak checker of sanitizer builds from reporting them.
void left_behind(const void *entry)
{
#ifdef TARN_LSAN
    __lsan_ignore_object(entry);
#else
    (void)entry;
#endif
}

int add_interest(rtslib_unnum *u, uint32_t ifl_index, uint32_t donor, uint8_t family,
                 void *cookie)
{
    itable32 *&table = u->families[family_slot(family)];
    if (table == nullptr && (table = itable32_create()) == nullptr) return ENOMEM;
    auto *entry = static_cast<DonorEntry *>(itable32_lookup(table, &donor));
    if (entry == nullptr) {
        entry = static_cast<DonorEntry *>(std::calloc(1, sizeof(DonorEntry)));
        if (entry == nullptr) return ENOMEM;
        if (itable32_insert(table, entry, &donor) != 0) {
            std::free(entry);
            return ENOMEM;
        }
        left_behind(entry);
    }
    if (entry->interested == nullptr && (entry->interested = itable32_create()) == nullptr)
        return ENOMEM;
    if (itable32_lookup(entry->interested, &ifl_index) != nullptr) return EEXIST;
    if (int rc = itable32_insert(entry->interested, cookie, &ifl_index); rc != 0)
        return rc == 1 ? EINVAL : rc;
    ++entry->count;
    return 0;
}

int remove_interest(rtslib_unnum *u, uint32_t ifl_index, uint32_t donor, uint8_t family)
{
    DonorEntry *entry = donor_entry(u, family, donor);
    if (entry == nullptr || entry->interested == nullptr ||
        itable32_lookup(entry->interested, &ifl_index) == nullptr)
        return ENOENT;
    itable32_remove(entry->interested, &ifl_index);
    --entry->count;
    return 0;
}

}  // namespace

extern "C" {

int rtslib_unnum_ifa_register_callback(rtslib_cookie *h, rtslib_unnum_ifa_fn fn)
{
    if (h == nullptr || h->async == nullptr) return EINVAL;
    if (h->unnum == nullptr) {
        h->unnum = static_cast<rtslib_unnum *>(rtslib_size_alloc(h, sizeof(rtslib_unnum)));
        if (h->unnum == nullptr) return ENOMEM;
    }
    h->unnum->fn = fn;
    return 0;
}

int rtslib_unnum_ifa_register_interest(rtslib_cookie *h, uint32_t ifl_index, uint32_t donor_index,
                                       uint8_t family, int add, void *cookie)
{
    if (h == nullptr || h->unnum == nullptr ||
        (family != TARN_AF_INET && family != TARN_AF_INET6))
        return EINVAL;
    rtslib_unnum *u = h->unnum;
    if (u->own == nullptr && (u->own = rtslib_open(3)) == nullptr) return -1;
    if (add == 0) return remove_interest(u, ifl_index, donor_index, family);
    if (cookie == nullptr) return EINVAL;  // an empty slot would read as no interest
    return add_interest(u, ifl_index, donor_index, family, cookie);
}

int rtslib_unnum_ifa_save_msg(rtslib_cookie *h, const ifa_msg_t *msg)
{
    if (h == nullptr || h->unnum == nullptr || msg == nullptr) return -1;
    rtslib_unnum *u = h->unnum;
    if (msg->ifam_af != TARN_AF_INET && msg->ifam_af != TARN_AF_INET6) return -1;
    const DonorEntry *entry = donor_entry(u, msg->ifam_af, msg->ifam_index);
    if (entry == nullptr || entry->count == 0) return -1;
    if (u->pending) {
        rtslib_err(h, RTSLIB_LOG_WARNING,
                   "Async event arrived while processing pending for a previous event\n");
        return -1;
    }
    uint8_t *copy = nullptr;
    if (msg->ifam_local_len > 0 && msg->ifam_local != nullptr) {
        copy = static_cast<uint8_t *>(rtslib_size_alloc(h, msg->ifam_local_len));
        if (copy == nullptr) return -1;
        std::memcpy(copy, msg->ifam_local, msg->ifam_local_len);
    }
    u->donor = msg->ifam_index;
    u->op = msg->hdr.op;
    u->family = msg->ifam_af;
    u->address = copy;
    u->dest_bits = msg->ifam_dest_plen;
    u->flags = msg->ifam_flags;
    u->pending = true;
    return 0;
}

void rtslib_unnum_ifa_report(rtslib_cookie *h)
{
    if (h == nullptr || h->unnum == nullptr) return;
    rtslib_unnum *u = h->unnum;
    const DonorEntry *entry = u->pending ? donor_entry(u, u->family, u->donor) : nullptr;
    if (entry != nullptr && entry->count > 0 && entry->interested != nullptr && u->fn != nullptr) {
        // From index 1 on: an interest filed under 0 is never reported.
        uint32_t at = 0, next = 0;
        while (void *cookie = itable32_getnext(entry->interested, &at, &next)) {
            u->fn(cookie, u->op, u->family, u->address, u->dest_bits, u->flags);
            at = next;
        }
    }
    rtslib_msg_free(h, u->address);
    u->address = nullptr;
    u->pending = false;
}

void rtslib_unnum_ifa_cleanup(rtslib_cookie *h)
{
    if (h == nullptr || h->unnum == nullptr) return;
    rtslib_unnum *u = h->unnum;
    for (itable32 *table : u->families) {
        if (table == nullptr) continue;
        uint32_t at = 0, next = 0;
        while (auto *entry = static_cast<DonorEntry *>(itable32_getnext(table, &at, &next))) {
            itable32_destroy(entry->interested);
            entry->interested = nullptr;
            at = next;
        }
        itable32_destroy(table);
    }
    rtslib_close(u->own);
    rtslib_msg_free(h, u->address);
    rtslib_msg_free(h, u);
    h->unnum = nullptr;
}

int rtslib_unnum_get_donor_ifl_idx(rtslib_cookie *h, uint32_t ifl_index, uint8_t family,
                                   uint32_t *donor)
{
    if (donor == nullptr) return EINVAL;
    iff_msg_t *iff = nullptr;
    if (int rc = rtslib_iffm_get_by_index(h, ifl_index, family, RTS_OP_GET, &iff, nullptr);
        rc != 0)
        return rc;
    if (iff == nullptr) return ENOENT;
    int rc = EINVAL;
    if ((iff->iffm_flags & RTSLIB_IFF_UNNUMBERED) != 0) {
        // IDR carries every information member; a donor is one that is set.
        for (uint32_t i = 0; i < iff->hdr.info_count; ++i) {
            const rts_msg_info_t *info = iff->hdr.info[i];
            if (info != nullptr && info->unnum_donor.donor_ifl_index != 0)
                *donor = info->unnum_donor.donor_ifl_index;
        }
        rc = 0;
    }
    rtslib_msg_idl_release(h, iff);
    return rc;
}

}  // extern "C"
