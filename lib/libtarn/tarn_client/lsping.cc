// LSP-ping information queries: the requests, and the decoding of their
// replies into aligned host-order records for the private slots. Replies are
// read field by field through a bounded cursor, so a count that claims more
// than the payload carries stops the read instead of running past it.
#include <cerrno>
#include <cstring>

#include <tarn/tarn_lsping_query.h>

#include "libtarn/tarn_client/tarn_client_internal.h"

using namespace tarn::client;

namespace {

iovec piece(const void *base, size_t len)
{
    return iovec{const_cast<void *>(base), len};
}

// A string of a query: its length with the NUL, 0 for an absent optional one.
struct Str {
    const char *s;
    uint16_t len;
};

bool take_string(const char *s, bool optional, Str &out)
{
    out = {s, 0};
    if (s == nullptr) return optional;
    const size_t n = ::strnlen(s, TARN_LSPING_NAME_MAX + 1);
    if (n > TARN_LSPING_NAME_MAX) return false;
    out.len = static_cast<uint16_t>(n + 1);
    return true;
}

// Sends the fixed part then each non-empty string as its own piece.
int send_query(tarn_session_handle *s, uint16_t type, const unsigned char *fixed, size_t fixed_len,
               const Str *strs, int nstr)
{
    iovec iov[4];
    int n = 0;
    iov[n++] = piece(fixed, fixed_len);
    for (int i = 0; i < nstr; ++i)
        if (strs[i].len != 0) iov[n++] = piece(strs[i].s, strs[i].len);
    return send_message(s, type, iov, n);
}

int invalid()
{
    errno = EINVAL;
    return -1;
}

// The queries keyed by an FEC and an instance name (LDP, BGP).
int fec_query(tarn_session_handle *s, uint16_t type, const tarn_lsping_fec *fec,
              const char *instance, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str name;
    if (fec == nullptr || !take_string(instance, false, name)) return invalid();
    unsigned char fixed[12] = {};
    store32(fixed, cookie);
    store32(fixed + 4, fec->fec_address);
    store16(fixed + 8, fec->fec_prefix_len);
    store16(fixed + 10, name.len);
    return send_query(s, type, fixed, sizeof fixed, &name, 1);
}

// The queries keyed by a prefix and a name (VPN prefix, end point).
int prefix_query(tarn_session_handle *s, uint16_t type, uint8_t family, const uint8_t *prefix,
                 uint8_t plen, const char *name, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str str;
    const bool inet = family == TARN_FAMILY_INET;
    if ((!inet && family != TARN_FAMILY_INET6) || prefix == nullptr || plen > (inet ? 32 : 128) ||
        !take_string(name, false, str))
        return invalid();
    unsigned char fixed[24] = {};
    store32(fixed, cookie);
    fixed[4] = family;
    fixed[5] = plen;
    store16(fixed + 6, str.len);
    std::memcpy(fixed + 8, prefix, inet ? 4 : 16);
    return send_query(s, type, fixed, sizeof fixed, &str, 1);
}

// The queries keyed by one name alone (LSP monitor, static LSP).
int name_query(tarn_session_handle *s, uint16_t type, const char *name, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str str;
    if (!take_string(name, false, str)) return invalid();
    unsigned char fixed[8] = {};
    store32(fixed, cookie);
    store16(fixed + 4, str.len);
    return send_query(s, type, fixed, sizeof fixed, &str, 1);
}

int cookie_query(tarn_session_handle *s, uint16_t type, uint32_t cookie)
{
    unsigned char fixed[4];
    store32(fixed, cookie);
    return send_query(s, type, fixed, sizeof fixed, nullptr, 0);
}

int rsvp_query(tarn_session_handle *s, uint16_t type, const char *lsp, const char *path,
               const char *ifl, uint32_t flags, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str strs[3];
    if (!take_string(lsp, false, strs[0]) || !take_string(path, true, strs[1]) ||
        !take_string(ifl, true, strs[2]))
        return invalid();
    unsigned char fixed[16] = {};
    store32(fixed, cookie);
    store32(fixed + 4, flags);
    for (int i = 0; i < 3; ++i) store16(fixed + 8 + 2 * i, strs[i].len);
    return send_query(s, type, fixed, sizeof fixed, strs, 3);
}

// ---------------------------------------------------------------------------
// Replies.

class Cursor {
public:
    Cursor(const unsigned char *p, size_t len) : p_(p), len_(len) {}
    bool ok() const { return ok_; }
    bool has(size_t n)
    {
        if (len_ - off_ < n) ok_ = false;
        return ok_;
    }
    uint32_t u32()
    {
        if (!has(4)) return 0;
        const uint32_t v = load32(p_ + off_);
        off_ += 4;
        return v;
    }
    uint16_t u16()
    {
        if (!has(2)) return 0;
        const uint16_t v = load16(p_ + off_);
        off_ += 2;
        return v;
    }
    void bytes(void *out, size_t n)
    {
        if (!has(n)) return;
        std::memcpy(out, p_ + off_, n);
        off_ += n;
    }
    void nexthop(tarn_lsping_nexthop &nh)
    {
        nh.nh_ifl_index = u32();
        if (!has(20)) return;
        nh.nh_family = p_[off_];
        off_ += 4;
        bytes(nh.nh_address, sizeof nh.nh_address);
    }
    // The tail most records share: where the path leaves and what it pushes.
    void path(tarn_lsping_nexthop &nh, tarn_lsping_labels &lb)
    {
        nexthop(nh);
        labels(lb);
    }
    // u8 count, 3 bytes of padding, the labels.
    void labels(tarn_lsping_labels &lb)
    {
        if (!has(4)) return;
        lb.lb_count = p_[off_];
        off_ += 4;
        if (lb.lb_count > TARN_LSPING_MAX_LABELS) {
            ok_ = false;
            return;
        }
        for (uint32_t i = 0; i < lb.lb_count; ++i) lb.lb_labels[i] = u32();
    }

private:
    const unsigned char *p_;
    size_t len_;
    size_t off_ = 0;
    bool ok_ = true;
};

// Branches of a P2MP reply: at least a destination, a next hop and a label
// count each, so a payload can hold no more than this many.
constexpr size_t kBranchMin = 4 + 24 + 4;
constexpr size_t kMaxBranches = TARN_MSG_MAX_PAYLOAD / kBranchMin;

template <typename Slot, typename Rec>
void deliver(tarn_session_handle *s, Slot slot, uint32_t cookie, uint32_t result, const Cursor &c,
             const Rec &rec, size_t len)
{
    if (c.ok()) slot(s, cookie, result, &rec, len);
}

void decode(tarn_session_handle *s, const tarn_private_funs *pf, uint16_t type,
            const unsigned char *p, size_t len)
{
    const uint32_t cookie = load32(p), result = load32(p + 4);
    const size_t rest = len - 8;
    Cursor c(p + 8, rest);
    switch (type) {
    case TARN_MSG_RSVP_LSP_REPLY: {
        if (pf->tpf_rsvp_lsp == nullptr) return;
        tarn_rsvp_lsp_info r{};
        r.ri_path_kind = c.u32();
        r.ri_source = c.u32();
        r.ri_destination = c.u32();
        r.ri_tunnel_id = c.u32();
        r.ri_lsp_id = c.u32();
        c.path(r.ri_nexthop, r.ri_labels);
        return deliver(s, pf->tpf_rsvp_lsp, cookie, result, c, r, rest);
    }
    case TARN_MSG_RSVP_P2MP_LSP_REPLY:
    case TARN_MSG_LDP_P2MP_FEC_REPLY: {
        auto slot = type == TARN_MSG_RSVP_P2MP_LSP_REPLY ? pf->tpf_rsvp_p2mp_lsp : pf->tpf_ldp_p2mp_fec;
        if (slot == nullptr) return;
        tarn_p2mp_branch branches[kMaxBranches];
        tarn_p2mp_info r{};
        r.pi_id = c.u32();
        r.pi_branch_count = c.u16();
        c.u16();
        if (r.pi_branch_count > kMaxBranches) return;
        for (uint32_t i = 0; i < r.pi_branch_count && c.ok(); ++i) {
            tarn_p2mp_branch &b = branches[i];
            b = tarn_p2mp_branch{};
            b.pb_destination = c.u32();
            c.nexthop(b.pb_nexthop);
            c.labels(b.pb_labels);
        }
        r.pi_branches = branches;
        return deliver(s, slot, cookie, result, c, r, rest);
    }
    case TARN_MSG_VPN_PFX_REPLY: {
        if (pf->tpf_vpn_pfx == nullptr) return;
        tarn_vpn_pfx_info r{};
        c.bytes(r.vi_rd, sizeof r.vi_rd);
        r.vi_protocol_nexthop = c.u32();
        c.path(r.vi_nexthop, r.vi_labels);
        return deliver(s, pf->tpf_vpn_pfx, cookie, result, c, r, rest);
    }
    case TARN_MSG_ENDPT_REPLY: {
        if (pf->tpf_endpt == nullptr) return;
        tarn_endpt_info r{};
        r.ei_protocol = c.u32();
        c.path(r.ei_nexthop, r.ei_labels);
        return deliver(s, pf->tpf_endpt, cookie, result, c, r, rest);
    }
    case TARN_MSG_LSPMON_REPLY: {
        if (pf->tpf_lspmon == nullptr) return;
        tarn_lspmon_info r{};
        r.mi_state = c.u32();
        r.mi_source = c.u32();
        r.mi_destination = c.u32();
        r.mi_uptime = c.u32();
        return deliver(s, pf->tpf_lspmon, cookie, result, c, r, rest);
    }
    case TARN_MSG_L2VPN_REPLY:
    case TARN_MSG_L2VPN_FEC129_REPLY: {
        if (pf->tpf_l2vpn == nullptr) return;
        tarn_l2vpn_info r{};
        c.bytes(r.li_rd, sizeof r.li_rd);
        r.li_remote_pe = c.u32();
        r.li_cw_flags = c.u32();
        c.path(r.li_nexthop, r.li_labels);
        return deliver(s, pf->tpf_l2vpn, cookie, result, c, r, rest);
    }
    case TARN_MSG_L2CKT_REPLY: {
        if (pf->tpf_l2ckt == nullptr) return;
        tarn_l2ckt_info r{};
        r.ci_encapsulation = c.u32();
        r.ci_cw_flags = c.u32();
        c.path(r.ci_nexthop, r.ci_labels);
        return deliver(s, pf->tpf_l2ckt, cookie, result, c, r, rest);
    }
    case TARN_MSG_TDMPW_REPLY: {
        if (pf->tpf_tdmpw == nullptr) return;
        tarn_tdmpw_info r{};
        r.ti_pw_id = c.u32();
        r.ti_neighbour = c.u32();
        r.ti_state = c.u32();
        return deliver(s, pf->tpf_tdmpw, cookie, result, c, r, rest);
    }
    case TARN_MSG_STATIC_LSP_REPLY: {
        if (pf->tpf_static_lsp == nullptr) return;
        tarn_static_lsp_info r{};
        r.si_state = c.u32();
        c.path(r.si_nexthop, r.si_labels);
        return deliver(s, pf->tpf_static_lsp, cookie, result, c, r, rest);
    }
    case TARN_MSG_BGP_FEC_REPLY: {
        if (pf->tpf_bgp_fec == nullptr) return;
        tarn_bgp_fec_info r{};
        r.bi_address = c.u32();
        r.bi_prefix_len = c.u32();
        c.path(r.bi_nexthop, r.bi_labels);
        return deliver(s, pf->tpf_bgp_fec, cookie, result, c, r, rest);
    }
    case TARN_MSG_MDIAGD_P2MP_REPLY: {
        if (pf->tpf_mdiagd_p2mp == nullptr) return;
        uint32_t ids[TARN_MSG_MAX_PAYLOAD / 4];
        tarn_mdiagd_p2mp_info r{};
        r.di_count = c.u32();
        if (!c.ok() || r.di_count > (rest - 4) / 4) return;
        for (uint32_t i = 0; i < r.di_count; ++i) ids[i] = c.u32();
        r.di_ids = ids;
        return deliver(s, pf->tpf_mdiagd_p2mp, cookie, result, c, r, rest);
    }
    default:
        return;
    }
}

}  // namespace

namespace tarn::client {

void lsping_reply(tarn_session_handle *s, uint16_t type, unsigned char *p, size_t len)
{
    const tarn_private_funs *pf = s->private_funs;
    if (pf == nullptr || len < 8) return;
    decode(s, pf, type, p, len);
}

void lsping_unsolicited(tarn_session_handle *s, tarn_private_reply_fn fn, unsigned char *p,
                        size_t len)
{
    if (fn == nullptr || len < 8) return;
    fn(s, load32(p), load32(p + 4), p + 8, len - 8);
}

}  // namespace tarn::client

extern "C" {

TARN_API int tarn_rsvp_lsp_lookup(tarn_session_handle *s, const char *lsp, const char *path,
                                  const char *ifl, uint32_t flags, uint32_t cookie)
{
    return rsvp_query(s, TARN_MSG_RSVP_LSP_LOOKUP, lsp, path, ifl, flags, cookie);
}

TARN_API int tarn_rsvp_p2mp_lsp_lookup(tarn_session_handle *s, const char *lsp, const char *path,
                                       uint32_t cookie)
{
    return rsvp_query(s, TARN_MSG_RSVP_P2MP_LSP_LOOKUP, lsp, path, nullptr, 0, cookie);
}

TARN_API int tarn_ldp_fec_lookup(tarn_session_handle *s, const tarn_lsping_fec *fec,
                                 const char *instance, uint32_t cookie)
{
    return fec_query(s, TARN_MSG_LDP_FEC_LOOKUP, fec, instance, cookie);
}

TARN_API int tarn_bgp_fec_lookup(tarn_session_handle *s, const tarn_lsping_fec *fec,
                                 const char *instance, uint32_t cookie)
{
    return fec_query(s, TARN_MSG_BGP_FEC_LOOKUP, fec, instance, cookie);
}

TARN_API int tarn_vpn_pfx_lookup(tarn_session_handle *s, uint8_t family, const uint8_t prefix[16],
                                 uint8_t plen, const char *vpn, uint32_t cookie)
{
    return prefix_query(s, TARN_MSG_VPN_PFX_LOOKUP, family, prefix, plen, vpn, cookie);
}

TARN_API int tarn_endpt_lookup(tarn_session_handle *s, uint8_t family, const uint8_t prefix[16],
                               uint8_t plen, const char *instance, uint32_t cookie)
{
    return prefix_query(s, TARN_MSG_ENDPT_LOOKUP, family, prefix, plen, instance, cookie);
}

TARN_API int tarn_lspmon_lookup(tarn_session_handle *s, const char *lsp, uint32_t cookie)
{
    return name_query(s, TARN_MSG_LSPMON_LOOKUP, lsp, cookie);
}

TARN_API int tarn_static_lsp_lookup(tarn_session_handle *s, const char *lsp, uint32_t cookie)
{
    return name_query(s, TARN_MSG_STATIC_LSP_LOOKUP, lsp, cookie);
}

TARN_API int tarn_l2vpn_lookup(tarn_session_handle *s, const char *vpn, uint16_t local_site,
                               uint16_t remote_site, const char *ifname, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str strs[2];
    if (!take_string(vpn, false, strs[0]) || !take_string(ifname, true, strs[1])) return invalid();
    unsigned char fixed[12] = {};
    store32(fixed, cookie);
    store16(fixed + 4, local_site);
    store16(fixed + 6, remote_site);
    store16(fixed + 8, strs[0].len);
    store16(fixed + 10, strs[1].len);
    return send_query(s, TARN_MSG_L2VPN_LOOKUP, fixed, sizeof fixed, strs, 2);
}

TARN_API int tarn_l2vpn_fec129_lookup(tarn_session_handle *s, const char *vpn, const char *sai,
                                      const char *tai, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str strs[3];
    if (!take_string(vpn, false, strs[0]) || !take_string(sai, false, strs[1]) ||
        !take_string(tai, false, strs[2]))
        return invalid();
    unsigned char fixed[12] = {};
    store32(fixed, cookie);
    for (int i = 0; i < 3; ++i) store16(fixed + 4 + 2 * i, strs[i].len);
    return send_query(s, TARN_MSG_L2VPN_FEC129_LOOKUP, fixed, sizeof fixed, strs, 3);
}

TARN_API int tarn_l2ckt_lookup(tarn_session_handle *s, uint32_t neighbour, uint32_t vc_id,
                               const char *ifname, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str str;
    if (!take_string(ifname, true, str)) return invalid();
    unsigned char fixed[16] = {};
    store32(fixed, cookie);
    store32(fixed + 4, neighbour);
    store32(fixed + 8, vc_id);
    store16(fixed + 12, str.len);
    return send_query(s, TARN_MSG_L2CKT_LOOKUP, fixed, sizeof fixed, &str, 1);
}

TARN_API int tarn_ldp_p2mp_fec_lookup(tarn_session_handle *s, uint32_t root, uint32_t opaque_id,
                                      const char *instance, uint32_t cookie)
{
    if (check_session(s) != 0) return -1;
    Str str;
    if (!take_string(instance, false, str)) return invalid();
    unsigned char fixed[16] = {};
    store32(fixed, cookie);
    store32(fixed + 4, root);
    store32(fixed + 8, opaque_id);
    store16(fixed + 12, str.len);
    return send_query(s, TARN_MSG_LDP_P2MP_FEC_LOOKUP, fixed, sizeof fixed, &str, 1);
}

TARN_API int tarn_tdmpw_lookup(tarn_session_handle *s, uint32_t cookie)
{
    return cookie_query(s, TARN_MSG_TDMPW_LOOKUP, cookie);
}

TARN_API int tarn_mdiagd_p2mp_request(tarn_session_handle *s, uint32_t cookie)
{
    return cookie_query(s, TARN_MSG_MDIAGD_P2MP_REQUEST, cookie);
}

}  // extern "C"
