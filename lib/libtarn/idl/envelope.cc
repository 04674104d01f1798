// The rts_msg envelope: a 12-byte header in front of the member's encoding,
// the decode arena, and the rtslib_msg_idl_* entry points.
#include <cerrno>
#include <cstring>

#include <tarn/idl.h>

#include "libtarn/idl/runtime.h"

namespace {

using tarn::idl::ChoiceMember;
using tarn::idl::load_le;
using tarn::idl::rts_msg_choice;
using tarn::idl::store_le;

constexpr uint32_t kHeaderLen = RTS_IDL_ENVELOPE_HDR_LEN;
constexpr uint32_t kNoMessage = 0xFFFFFFFFu;
constexpr uint32_t kArenaStep = 1024;
// A hostile message can ask for far more memory than it occupies (an IDR
// string count is allocated before it is checked); growth stops here.
constexpr uint64_t kArenaPerByte = 128;
constexpr uint64_t kArenaSlack = 65536;
// Blocks are multiples of 4 bytes on the target; a 64-bit host needs its
// pointers aligned to 8.
constexpr uint64_t kArenaAlign = sizeof(void *) > 4 ? sizeof(void *) : 4;

const ChoiceMember *member_of(uint32_t type)
{
    return type < rts_msg_choice.limit ? rts_msg_choice.members[type] : nullptr;
}

// Header first so that a caller who looks only at the size still sees a
// consistent header when the body fitted.
template <class EncodeBody>
uint32_t encode_envelope(uint32_t magic, const rts_msg_t *msg, void *out, uint32_t out_len,
                         EncodeBody body)
{
    const ChoiceMember *m = msg ? member_of(msg->type) : nullptr;
    bool has_body = m && msg->member;
    if (out == nullptr || out_len < kHeaderLen)
        return kHeaderLen + (has_body ? body(*m, nullptr, 0) : 0);
    auto *o = static_cast<uint8_t *>(out);
    uint32_t blen = has_body ? body(*m, o + kHeaderLen, out_len - kHeaderLen) : 0;
    store_le(o, magic, 4);
    store_le(o + 4, blen, 4);
    store_le(o + 8, msg ? msg->type : 0, 4);
    return blen + kHeaderLen;
}

// The steps shared by both envelope decoders up to the member's allocation;
// decode_body runs the member's decoder.
template <class DecodeBody>
int32_t decode_envelope(uint32_t magic, rts_msg_t *msg, void **member_map, const void *in,
                        uint32_t in_len, tarn_idl_alloc_fn alloc, void *ctx, DecodeBody body)
{
    msg->type = kNoMessage;
    msg->member = nullptr;
    if (member_map) *member_map = nullptr;
    if (in == nullptr || in_len < kHeaderLen) return TARN_IDL_E_BUFSIZE;
    auto *p = static_cast<const uint8_t *>(in);
    if (load_le(p, 4) != magic) return TARN_IDL_E_MAGIC;
    auto blen = static_cast<int32_t>(load_le(p + 4, 4));
    if (blen >= -static_cast<int32_t>(kHeaderLen) && blen < 0) return TARN_IDL_E_GARBLED;
    uint64_t total = static_cast<uint64_t>(static_cast<uint32_t>(blen)) + kHeaderLen;
    if (in_len < total) return TARN_IDL_E_BUFSIZE;
    auto result = static_cast<int32_t>(total);
    msg->type = static_cast<uint32_t>(load_le(p + 8, 4));
    const ChoiceMember *m = member_of(msg->type);
    if (m == nullptr || m->record_size == 0) return result;
    if (alloc == nullptr) return TARN_IDL_E_ALLOC;
    void *rec = alloc(m->record_size, ctx);
    if (rec == nullptr) return TARN_IDL_E_ALLOC;
    std::memset(rec, 0, m->record_size);
    msg->member = rec;
    void *map = nullptr;
    if (member_map && m->map_size) {
        map = alloc(m->map_size, ctx);
        if (map == nullptr) return TARN_IDL_E_ALLOC;
        std::memset(map, 0, m->map_size);
        *member_map = map;
    }
    int32_t r = body(*m, rec, map, p + kHeaderLen, static_cast<uint32_t>(blen));
    if (r == TARN_IDL_E_CHOICE) return result;
    if (r < 0) return r;
    if (r != blen) return TARN_IDL_E_GARBLED;
    return result;
}

struct ResultName {
    const char *name;
    int error;
};

constexpr ResultName kResultNames[] = {
    {"Invalid Buffer Size", EINVAL}, {"Garbled Message", EINVAL}, {"Allocation Failure", ENOMEM},
    {"Invalid Magic", EINVAL},       {"Invalid Choice", EINVAL},  {"HOMOGENEOUS", EINVAL},
};
constexpr ResultName kUnknownResult = {"Unknown", EINVAL};

// TLV knows all six codes, IDR the first five.
const ResultName &result_entry(int32_t code, bool tlv)
{
    int32_t last = tlv ? 5 : 4;
    if (code > 0 || -code > last) return kUnknownResult;
    return kResultNames[-code];
}

// The member was decoded from an envelope of this magic and type, so its
// header says so, with the wire length, whatever the encoded header claimed:
// readers pick the record's layout by its type byte (a header naming another
// type would have them read a small record as a larger one), and tell a
// decoded record from a raw message by its magic word (0 in a raw one).
void set_header(void *member, uint32_t magic, uint32_t type, uint32_t len)
{
    auto *hdr = static_cast<rts_hdr_t *>(member);
    hdr->msg_magic = magic;
    hdr->type = static_cast<uint8_t>(type);
    hdr->msglen = len;
}

}  // namespace

extern "C" {

uint32_t rtslib_msglen = 0;

void *rtslib_idl_arena_alloc(uint32_t size, void *ctx)
{
    auto *a = static_cast<rtslib_idl_arena *>(ctx);
    uint64_t rounded = (uint64_t{size} + kArenaAlign - 1) / kArenaAlign * kArenaAlign;
    if (a == nullptr || uint64_t{a->used} + rounded > a->size) return nullptr;
    void *p = a->base + a->used;
    a->used += static_cast<uint32_t>(rounded);
    return p;
}

const char *rtslib_idl_result_name(int32_t code)
{
    return result_entry(code, true).name;
}

uint32_t *rtslib_idl_peek_magic(uint32_t *out, const void *buf, uint32_t len)
{
    if (len < 4 || out == nullptr || buf == nullptr) return nullptr;
    *out = static_cast<uint32_t>(load_le(static_cast<const uint8_t *>(buf), 4));
    return out;
}

uint32_t *rtslib_idl_peek_length(uint32_t *out, const void *buf, uint32_t len)
{
    if (len < 8 || out == nullptr || buf == nullptr) return nullptr;
    *out = static_cast<uint32_t>(load_le(static_cast<const uint8_t *>(buf) + 4, 4)) + kHeaderLen;
    return out;
}

uint32_t tlv_encode_rts_msg_0(const rts_msg_t *msg, const rts_msg_map_t *map, void *out,
                              uint32_t out_len)
{
    const void *member_map = map ? map->member_map : nullptr;
    return encode_envelope(RTS_IDL_MAGIC_TLV, msg, out, out_len,
                           [&](const ChoiceMember &m, void *o, uint32_t l) {
                               return m.tlv_encode(msg->member, member_map, o, l);
                           });
}

uint32_t idr_encode_rts_msg_0(const rts_msg_t *msg, void *out, uint32_t out_len)
{
    return encode_envelope(RTS_IDL_MAGIC_IDR, msg, out, out_len,
                           [&](const ChoiceMember &m, void *o, uint32_t l) {
                               return m.idr_encode(msg->member, o, l);
                           });
}

int32_t tlv_decode_rts_msg_0(rts_msg_t *msg, rts_msg_map_t *map_out, const void *in,
                             uint32_t in_len, tarn_idl_alloc_fn alloc, void *alloc_ctx)
{
    return decode_envelope(RTS_IDL_MAGIC_TLV, msg, map_out ? &map_out->member_map : nullptr, in,
                           in_len, alloc, alloc_ctx,
                           [&](const ChoiceMember &m, void *rec, void *map, const void *body,
                               uint32_t blen) {
                               return m.tlv_decode(rec, map, body, blen, alloc, alloc_ctx);
                           });
}

int32_t idr_decode_rts_msg_0(rts_msg_t *msg, const void *in, uint32_t in_len,
                             tarn_idl_alloc_fn alloc, void *alloc_ctx)
{
    return decode_envelope(RTS_IDL_MAGIC_IDR, msg, nullptr, in, in_len, alloc, alloc_ctx,
                           [&](const ChoiceMember &m, void *rec, void *, const void *body,
                               uint32_t blen) {
                               return m.idr_decode(rec, body, blen, alloc, alloc_ctx);
                           });
}

// The member, its map and everything below them go back to free_fn; the
// envelope record itself belongs to the caller.
void tlv_release_rts_msg_0(rts_msg_t *msg, rts_msg_map_t *map, tarn_idl_free_fn free_fn,
                           void *free_ctx)
{
    if (msg == nullptr) return;
    const ChoiceMember *m = member_of(msg->type);
    void *member_map = map ? map->member_map : nullptr;
    if (m && msg->member) {
        m->tlv_release(msg->member, member_map, free_fn, free_ctx);
        if (free_fn) free_fn(msg->member, free_ctx);
    }
    if (member_map && free_fn) free_fn(member_map, free_ctx);
    msg->member = nullptr;
    if (map) map->member_map = nullptr;
}

void idr_release_rts_msg_0(rts_msg_t *msg, tarn_idl_free_fn free_fn, void *free_ctx)
{
    if (msg == nullptr) return;
    const ChoiceMember *m = member_of(msg->type);
    if (m && msg->member) {
        m->idr_release(msg->member, free_fn, free_ctx);
        if (free_fn) free_fn(msg->member, free_ctx);
    }
    msg->member = nullptr;
}

int rtslib_msg_idl_encode(rtslib_cookie *handle, const void *message, const void *map,
                          void **out_buf, uint32_t *out_len)
{
    if (out_buf) *out_buf = nullptr;
    if (out_len) *out_len = 0;
    if (message == nullptr || out_buf == nullptr || out_len == nullptr) return EINVAL;
    const auto *hdr = static_cast<const rts_hdr_t *>(message);
    rts_msg_t msg{hdr->type, const_cast<void *>(message)};
    rts_msg_map_t msg_map{const_cast<void *>(map)};
    uint32_t size = RTS_MSG_MAX;
    for (;;) {
        void *buf = rtslib_size_alloc(handle, size);
        if (buf == nullptr) {
            rtslib_err(handle, RTSLIB_LOG_ERROR, "Allocation Failure for (%d) bytes",
                       static_cast<int>(size));
            return ENOMEM;
        }
        uint32_t need = map ? tlv_encode_rts_msg_0(&msg, &msg_map, buf, size)
                            : idr_encode_rts_msg_0(&msg, buf, size);
        if (need <= size) {
            *out_buf = buf;
            *out_len = need;
            rtslib_msglen = need;
            return 0;
        }
        rtslib_msg_free(handle, buf);
        size = need;
    }
}

int rtslib_msg_idl_encode_pa(rtslib_cookie *handle, const void *message, void *buf,
                             uint32_t *len_inout)
{
    if (buf == nullptr || len_inout == nullptr || *len_inout == 0 || message == nullptr) {
        rtslib_err(handle, RTSLIB_LOG_ERROR, "Invalid parameters");
        return EINVAL;
    }
    const auto *hdr = static_cast<const rts_hdr_t *>(message);
    rts_msg_t msg{hdr->type, const_cast<void *>(message)};
    uint32_t need = idr_encode_rts_msg_0(&msg, buf, *len_inout);
    if (need > *len_inout) return ENOMEM;
    *len_inout = need;
    return 0;
}

int rtslib_msg_idl_decode_pa(rtslib_cookie *handle, const void *buf, uint32_t len,
                             void **out_msg, void **map_out, void *arena_base, uint32_t arena_size)
{
    if (len < 4 || buf == nullptr || out_msg == nullptr) return EINVAL;
    rtslib_idl_arena arena{static_cast<uint8_t *>(arena_base), arena_base ? arena_size : 0, 0};
    uint32_t magic = static_cast<uint32_t>(load_le(static_cast<const uint8_t *>(buf), 4));
    rts_msg_t msg{};
    rts_msg_map_t msg_map{};
    int32_t r;
    bool tlv = magic == RTS_IDL_MAGIC_TLV;
    if (tlv)
        r = tlv_decode_rts_msg_0(&msg, map_out ? &msg_map : nullptr, buf, len,
                                 &rtslib_idl_arena_alloc, &arena);
    else if (magic == RTS_IDL_MAGIC_IDR)
        r = idr_decode_rts_msg_0(&msg, buf, len, &rtslib_idl_arena_alloc, &arena);
    else
        return EOPNOTSUPP;
    if (r <= 0) {
        const ResultName &e = result_entry(r, tlv);
        rtslib_err(handle, RTSLIB_LOG_ERROR, tlv ? "IDL TLV Decode Error %d(%s)"
                                                 : "IDL IDR Decode Error %d(%s)",
                   static_cast<int>(r), e.name);
        return e.error;
    }
    if (msg.member) set_header(msg.member, magic, msg.type, len);
    *out_msg = msg.member;
    if (map_out && tlv) *map_out = msg_map.member_map;
    return 0;
}

int rtslib_msg_idl_decode(rtslib_cookie *handle, const void *buf, uint32_t len, void **out_msg,
                          void **map_out)
{
    uint32_t magic = 0, total = 0;
    if (rtslib_idl_peek_magic(&magic, buf, len) == nullptr) {
        rtslib_err(handle, RTSLIB_LOG_ERROR, "Failed to peek magic");
        return EOPNOTSUPP;
    }
    if (magic == 0) return EOPNOTSUPP;
    if (rtslib_idl_peek_length(&total, buf, len) == nullptr) {
        rtslib_err(handle, RTSLIB_LOG_ERROR, "Failed to peek message");
        return EOPNOTSUPP;
    }
    // An unknown magic or a body longer than the bytes given fails in the
    // decoder before it allocates anything (with the decoder's own result
    // and report); do not size an arena from such a length first.
    if ((magic != RTS_IDL_MAGIC_TLV && magic != RTS_IDL_MAGIC_IDR) || total > len)
        return rtslib_msg_idl_decode_pa(handle, buf, len, out_msg, map_out, nullptr, 0);
    // The size is the 32-bit sum, as on the wire: a body length of -8 asks
    // for 4 bytes and fails in the decoder as garbled, not here.
    uint64_t size = total <= RTS_MSG_MAX ? RTS_MSG_MAX : uint64_t{total} + kArenaStep;
    uint64_t limit = uint64_t{len} * kArenaPerByte + kArenaSlack;
    for (;;) {
        void *block = size <= UINT32_MAX
                          ? rtslib_size_alloc(handle, static_cast<uint32_t>(size))
                          : nullptr;
        if (block == nullptr) {
            rtslib_err(handle, RTSLIB_LOG_ERROR, "Allocation Failure");
            return ENOMEM;
        }
        int r = rtslib_msg_idl_decode_pa(handle, buf, len, out_msg, map_out, block,
                                         static_cast<uint32_t>(size));
        if (r == 0) {
            // A type without a member leaves nothing in the block to hand out.
            if (*out_msg == nullptr) rtslib_msg_free(handle, block);
            return 0;
        }
        rtslib_msg_free(handle, block);
        if (r != ENOMEM) return r;
        size += kArenaStep;
        if (size > limit) {
            rtslib_err(handle, RTSLIB_LOG_ERROR, "Allocation Failure");
            return ENOMEM;
        }
    }
}

void rtslib_msg_idl_release(rtslib_cookie *handle, void *msg)
{
    rtslib_msg_free(handle, msg);
}

}  // extern "C"
