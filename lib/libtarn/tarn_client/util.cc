// Result-code texts and small helpers of the routing-daemon client.
#include <sys/uio.h>

#include <cstddef>
#include <cstring>

#include "libtarn/tarn_client/tarn_client_internal.h"

namespace {

// The wire records are naturally aligned, so their sizes and offsets are the
// same on every build; the routing daemon reads exactly these.
static_assert(sizeof(tarn_rt_nexthop) == 24);
static_assert(sizeof(tarn_wire_rt_request) == 40);
static_assert(offsetof(tarn_wire_rt_request, rq_prefix_len) == 32);
static_assert(sizeof(tarn_wire_rt_add_reply) == 16);
static_assert(sizeof(tarn_wire_rt_delete_reply) == 16);
static_assert(offsetof(tarn_rt_record, rr_nexthops) == TARN_RT_RECORD_FIXED_LEN);
static_assert(offsetof(tarn_rt_record, rr_change) == 40);
static_assert(sizeof(tarn_wire_name_request) == 8);
static_assert(sizeof(tarn_wire_table_reply) == 12);
static_assert(sizeof(tarn_wire_proto_register) == 16);
static_assert(sizeof(tarn_wire_proto_register_reply) == 16);
static_assert(sizeof(tarn_wire_proto_unregister) == 8);
static_assert(sizeof(tarn_wire_chgw_request) == 32);
static_assert(sizeof(tarn_wire_chgw_reply) == 12);
static_assert(sizeof(tarn_local_as_reply) == 20);
static_assert(sizeof(tarn_bw_record) == 8);
static_assert(sizeof(tarn_nbr_record) == 24);
static_assert(sizeof(tarn_flash_register_reply) == 12);
static_assert(sizeof(tarn_ra_record) == 32);

struct CodeText {
    uint32_t code;
    const char *text;
};

// Searched in this order; 18 stands before 17.
constexpr CodeText kCodeTexts[] = {
    {0, "Success"},
    {1, "protocol register not found"},
    {2, "protocol register address invalid"},
    {3, "protocol register in use"},
    {4, "protocol unregister protocol different"},
    {5, "protocol unregister protocol not found"},
    {6, "table not found"},
    {7, "local AS not found"},
    {8, "route add failed"},
    {9, "route add invalid table identifier"},
    {10, "route add invalid IFL index"},
    {11, "route add invalid local address"},
    {12, "route add invalid prefix"},
    {13, "route add invalid gateway handle"},
    {14, "route add dynamic IFL create failed"},
    {15, "route add mask too short"},
    {16, "route add bad next hop"},
    {18, "route add mask too long"},
    {17, "route add nexthop ecmp limit"},
    {19, "route add table not ready"},
    {20, "route delete route not found"},
    {21, "route delete table not found"},
    {22, "route delete mask too short"},
    {23, "route delete mask too long"},
    {24, "route delete cookie mismatch"},
    {25, "route lookup table not found"},
    {26, "route lookup invalid prefix"},
    {27, "route lookup prefix not found"},
    {28, "route lookup mask too short"},
    {29, "route lookup mask too long"},
    {30, "route change gateway invalid gateway-handle"},
    {31, "route change gateway invalid interface index"},
    {32, "route change gateway dynamic interface create failed"},
    {33, "alias add route add request failed"},
    {34, "alias add route add reply failed"},
    {35, "alias add interface lookup failue"},
    {36, "alias delete no default route"},
    {37, "alias delete default route discarded"},
    {38, "alias delete interface delete failed"},
    {39, "alias delete route delete request failed"},
    {40, "alias delete route delete reply failure"},
    {41, "alias delete interface address family not found"},
    {42, "rsvp lsp info lsp not found"},
    {43, "message flash invalid register table id"},
    {44, "message flash invalid register operation"},
    {45, "flash register delete not found"},
    {46, "message flash invalid register filter"},
};

// Skips whole entries of a list until `offset` falls inside one: the index of
// that entry (== count when the list is used up) with `offset` made relative
// to it.
int place_cursor(const iovec *iov, int count, size_t &offset)
{
    int i = 0;
    while (i < count && offset >= iov[i].iov_len) offset -= iov[i++].iov_len;
    return i;
}

}  // namespace

extern "C" {

TARN_API const char *tarn_rt_get_error_code_string(uint32_t code)
{
    for (const CodeText &ct : kCodeTexts)
        if (ct.code == code) return ct.text;
    return "invalid error code";
}

TARN_API int iovcpy(const struct iovec *dst, int dst_count, size_t dst_offset,
                    const struct iovec *src, int src_count, size_t src_offset)
{
    if (dst == nullptr || src == nullptr) return 0;
    size_t copied = 0;
    for (;;) {
        const int di = place_cursor(dst, dst_count, dst_offset);
        const int si = place_cursor(src, src_count, src_offset);
        if (di >= dst_count || si >= src_count) break;
        dst += di;
        dst_count -= di;
        src += si;
        src_count -= si;
        size_t n = dst->iov_len - dst_offset;
        if (src->iov_len - src_offset < n) n = src->iov_len - src_offset;
        std::memcpy(static_cast<char *>(dst->iov_base) + dst_offset,
                    static_cast<const char *>(src->iov_base) + src_offset, n);
        copied += n;
        dst_offset += n;
        src_offset += n;
    }
    return static_cast<int>(copied);
}

TARN_API int tag_p2mp_pvc_appl_id_is_vpls(uint8_t id)
{
    return id == 3 || id == 5 ? 1 : 0;
}

}  // extern "C"
