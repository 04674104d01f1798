// Route tables, route statistics and multicast groups.
#include <cerrno>
#include <cstring>

#include "libtarn/rtslib/objects/request.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/rtslib_msg.h>
#include <tarn/rtslib_route.h>

namespace {

using tarn::Answer;
using tarn::RequestBuffer;

constexpr uint16_t kTableByName = 0xffff;

// Raw statistics request layout (the kernel's).
constexpr uint32_t kStatsA = 23;
constexpr uint32_t kStatsB = 26;
constexpr uint32_t kStatsE = 28;
constexpr uint32_t kStatsOne = 29;
constexpr uint32_t kStatsBits = 34;
constexpr uint32_t kStatsD = 36;
constexpr uint32_t kStatsFound = 40;

// Copies a name, cut at the longest the kernel keeps, with its terminator;
// the length counts the terminator.
bool place_name(RequestBuffer &rb, const char *name, uint8_t **at, uint32_t *len)
{
    const size_t n = strnlen(name, RTS_RTTABLE_NAME_MAX);
    *at = rb.take(static_cast<uint32_t>(n + 1));
    if (*at == nullptr) return false;
    std::memcpy(*at, name, n);
    *len = static_cast<uint32_t>(n + 1);
    return true;
}

rtb_msg_t *new_table(RequestBuffer &rb, uint8_t op)
{
    auto *rtb = rb.record<rtb_msg_t>();
    tarn::init_header(rtb->hdr, RTS_RTTABLE_VERSION, RTS_MSG_RTTABLE, op, RTS_RTTABLE_FIXED_LEN);
    return rtb;
}

// Writes a request and reads the one bounded answer it gets.
template <typename Record>
int ask(rtslib_cookie *h, rts_hdr_t *request, Record **record_out, void **map_out)
{
    Answer a;
    a.read = Answer::Read::bounded;
    a.record_out = reinterpret_cast<void **>(record_out);
    a.map_out = map_out;
    return tarn::send_idl(h, request, a);
}

}  // namespace

extern "C" {

int rtslib_rtbm_add_lr(rtslib_cookie *h, const char *name, uint16_t tid, uint8_t af,
                       const char *lr_name, uint8_t lr_byte, uint8_t byte7)
{
    if (int rc = tarn::check_request(h, true); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rtb_msg_t *rtb = new_table(rb, RTS_OP_ADD);
    rtb->hdr.op_flags = byte7;
    rtb->hdr.msglen = RTS_RTTABLE_FIXED_LEN;
    rtb->tid = tid;
    rtb->af = af;
    rtb->count = 1;
    rtb->lr_byte = lr_byte;
    if (name == nullptr) {
        name = "default";
        rtb->table_flags |= RTS_RTTABLE_FLAG_DEFAULT;
    }
    if (!place_name(rb, name, &rtb->name, &rtb->name_len)) return EINVAL;
    if (lr_name != nullptr && !place_name(rb, lr_name, &rtb->lr_name, &rtb->lr_name_len))
        return EINVAL;
    const int rc = tarn::send_idl(h, &rtb->hdr, Answer{});
    // The add hands its request to the decoded-message release rather than
    // the buffer free every other request uses; both free the same block.
    rtslib_msg_idl_release(h, rb.release());
    return rc;
}

int rtslib_rtbm_add(rtslib_cookie *h, const char *name, uint16_t tid, uint8_t af, uint8_t byte7)
{
    return rtslib_rtbm_add_lr(h, name, tid, af, "null", 0, byte7);
}

int rtslib_rtbm_update(rtslib_cookie *h, uint16_t tid, uint8_t af, uint32_t word1,
                       const char *name, uint32_t word2, uint16_t half, uint8_t op)
{
    if (int rc = tarn::check_request(h, true); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rtb_msg_t *rtb = new_table(rb, op);
    rtb->tid = tid;
    rtb->af = af;
    rtb->table_id_ext = word1;
    rtb->table_attr = word2;
    rtb->table_attr_ext = half;
    if (name != nullptr && !place_name(rb, name, &rtb->name, &rtb->name_len)) return EINVAL;
    return tarn::send_idl(h, &rtb->hdr, Answer{});
}

int rtslib_rtbm_get_by_index(rtslib_cookie *h, uint8_t af, uint16_t tid, uint8_t op,
                             rtb_msg_t **record_out, void **map_out)
{
    if (int rc = tarn::check_request(h, true, true, record_out); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rtb_msg_t *rtb = new_table(rb, op);
    rtb->tid = tid;
    rtb->af = af;
    return ask(h, &rtb->hdr, record_out, map_out);
}

int rtslib_rtbm_get_by_name(rtslib_cookie *h, uint8_t af, const char *name,
                            rtb_msg_t **record_out, void **map_out)
{
    if (int rc = tarn::check_request(h, name != nullptr, true, record_out); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rtb_msg_t *rtb = new_table(rb, RTS_OP_GET);
    rtb->tid = kTableByName;
    rtb->af = af;
    if (!place_name(rb, name, &rtb->name, &rtb->name_len)) return EINVAL;
    return ask(h, &rtb->hdr, record_out, map_out);
}

int rtslib_rtstats_get(rtslib_cookie *h, uint8_t a, uint16_t b, uint8_t e, uint32_t d,
                       uint16_t bits, const uint32_t *prefix,
                       uint32_t stats_out[RTS_RTSTATS_COUNTERS])
{
    using namespace tarn::wire;
    if (int rc = tarn::check_request(h, prefix != nullptr && stats_out != nullptr); rc != 0)
        return rc;
    const uint32_t prefix_bytes = tarn::padded_prefix_len(bits);
    const uint32_t total = RTS_RTSTATS_FIXED_LEN + prefix_bytes;
    RequestBuffer rb(h);
    uint8_t *req = rb.take(total);
    if (req == nullptr) return ENOMEM;
    req[RTS_HDR_VERSION_OFF] = RTS_RTSTATS_VERSION;
    req[RTS_HDR_TYPE_OFF] = RTS_MSG_RTSTATS;
    req[RTS_HDR_OP_OFF] = RTS_OP_GET;
    store_u32(req + RTS_HDR_LEN_OFF, total);
    store_u16(req + RTS_HDR_FIXED_LEN_OFF, RTS_RTSTATS_FIXED_LEN);
    req[kStatsA] = a;
    store_u16(req + kStatsB, b);
    req[kStatsE] = e;
    req[kStatsOne] = 1;
    store_u16(req + kStatsBits, bits);
    store_u32(req + kStatsD, d);
    std::memcpy(req + RTS_RTSTATS_FIXED_LEN, prefix, (bits + 7u) / 8u);

    // The socket is non-blocking, but this call deliberately waits for the
    // kernel's answer.
    void *answer_buf = nullptr;
    uint32_t len = 0;
    int rc = tarn::send_raw(h, req, total, &answer_buf, &len);
    if (rc != 0) return rc;
    const auto *answer = static_cast<const uint8_t *>(answer_buf);
    // The answer repeats the request and carries the counters after it; it
    // belongs to this request only if it is exactly that long and says the
    // prefix was found.
    const uint32_t counters_at = load_u16(answer + RTS_HDR_FIXED_LEN_OFF) + prefix_bytes;
    const uint32_t counters_len = RTS_RTSTATS_COUNTERS * 4;
    if (len != total + counters_len || answer[kStatsFound] == 0 ||
        counters_at > len - counters_len) {
        rc = ENOENT;
    } else {
        std::memcpy(stats_out, answer + counters_at, counters_len);
    }
    rtslib_msg_free(h, answer_buf);
    return rc;
}

int rtslib_mgrm_get(rtslib_cookie *h, uint16_t tid, uint8_t af, const void *group, uint16_t bits,
                    uint8_t op, mgr_msg_t **record_out, void **map_out)
{
    const bool answered = tarn::is_answered(op);
    if (int rc = tarn::check_request(h, group != nullptr || bits == 0, answered, record_out);
        rc != 0)
        return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    auto *mgr = rb.record<mgr_msg_t>();
    tarn::init_header(mgr->hdr, RTS_MGROUP_VERSION, RTS_MSG_MGROUP, op, RTS_MGROUP_FIXED_LEN);
    mgr->af = af;
    mgr->tid = tid;
    if (bits > 0) {
        mgr->grp_plen = bits;
        mgr->group = tarn::place_prefix(rb, group, bits, &mgr->group_len);
        if (mgr->group == nullptr) return EINVAL;
    }
    if (!answered) return tarn::send_idl(h, &mgr->hdr, Answer{});
    return ask(h, &mgr->hdr, record_out, map_out);
}

}  // extern "C"
