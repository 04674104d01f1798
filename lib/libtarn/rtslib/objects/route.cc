#include <cerrno>
#include <cstring>

#include "libtarn/rtslib/objects/request.h"
#include <tarn/rtslib_msg.h>
#include <tarn/rtslib_route.h>

namespace {

using tarn::Answer;
using tarn::RequestBuffer;

// A route request with the fields every request sets.
rt_msg_t *new_route(RequestBuffer &rb, uint8_t op, uint16_t tid, uint8_t af,
                    uint8_t type, uint32_t flags)
{
    auto *rt = rb.record<rt_msg_t>();
    tarn::init_header(rt->hdr, RTS_ROUTE_VERSION, RTS_MSG_ROUTE, op, RTS_ROUTE_FIXED_LEN);
    rt->tid = tid;
    rt->af = af;
    rt->type = type;
    rt->flags = flags;
    return rt;
}

bool set_prefix(RequestBuffer &rb, rt_msg_t *rt, const uint8_t *prefix, uint16_t plen)
{
    uint32_t padded = 0;
    rt->prefix = tarn::place_prefix(rb, prefix, plen, &padded);
    rt->prefix_len = padded;
    rt->plen = plen;
    return rt->prefix != nullptr;
}

// The source address goes after the prefix as a one-element record array:
// the element pointer, the address record, then a copy of the address bytes
// that the record points at.
bool set_source(RequestBuffer &rb, rt_msg_t *rt, const rts_sockaddr *source)
{
    auto *slot = reinterpret_cast<idl_sockaddr_gen_t **>(
        rb.take(sizeof(idl_sockaddr_gen_t *), alignof(idl_sockaddr_gen_t *)));
    auto *sa = reinterpret_cast<idl_sockaddr_gen_t *>(
        rb.take(sizeof(idl_sockaddr_gen_t), alignof(idl_sockaddr_gen_t)));
    uint8_t *bytes = rb.take(source->sa_len, 1);
    if (slot == nullptr || sa == nullptr || bytes == nullptr) return false;
    std::memcpy(bytes, source, source->sa_len);
    sa->sa_len = source->sa_len;
    sa->sa_family = source->sa_family;
    sa->sa_addr = bytes;
    sa->sa_addr_len = source->sa_len;
    *slot = sa;
    rt->source = slot;
    rt->source_count = 1;
    return true;
}

// How the answer to a route request is read: answered operations read one
// message of any length, into the caller's arena when one is given.
Answer route_answer(uint8_t op, rt_msg_t **record_out, void **map_out, void *arena_base = nullptr,
                    uint32_t arena_size = 0)
{
    Answer a;
    if (!tarn::is_answered(op)) return a;
    a.read = Answer::Read::any_length;
    a.record_out = reinterpret_cast<void **>(record_out);
    a.map_out = map_out;
    a.arena_base = arena_base;
    a.arena_size = arena_size;
    return a;
}

// The caller's record with a new operation and sequence number.
int send_record(rtslib_cookie *h, rt_msg_t *record, uint8_t op, rt_msg_t **record_out,
                void **map_out, void *arena_base, uint32_t arena_size)
{
    const bool answered = tarn::is_answered(op);
    if (int rc = tarn::check_request(h, record != nullptr, answered, record_out); rc != 0)
        return rc;
    record->hdr.op = op;
    return tarn::send_idl(h, &record->hdr,
                          route_answer(op, record_out, map_out, arena_base, arena_size));
}

}  // namespace

extern "C" {

int rtslib_rtm_add(rtslib_cookie *h, uint16_t tid, uint8_t af, uint8_t type, uint16_t flags,
                   uint8_t nh, uint8_t nhflags, uint8_t word3, uint32_t word1, uint32_t word2,
                   uint32_t nhidx, uint8_t byte47, const uint8_t *prefix, uint16_t plen,
                   const rts_sockaddr *source, uint32_t *ack_index)
{
    if (int rc = tarn::check_request(h, prefix != nullptr || plen == 0); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rt_msg_t *rt = new_route(rb, ack_index != nullptr ? RTS_OP_ADD_ACK : RTS_OP_ADD, tid, af,
                             type, flags);
    if (ack_index != nullptr) rt->hdr.op_flags = RTS_OP_FLAG_ACK;
    rt->nh = nh;
    rt->nhflags = nhflags;
    rt->lookup_flags = byte47;
    rt->instance_id = word1;
    rt->nhidx = nhidx;
    rt->owner_id = word2;
    rt->route_tag = word3;
    if (!set_prefix(rb, rt, prefix, plen)) return EINVAL;
    if (source != nullptr && source->sa_len > 0 && !set_source(rb, rt, source)) return EINVAL;

    if (ack_index == nullptr) return tarn::send_idl(h, &rt->hdr, Answer{});

    rt_msg_t *reply = nullptr;
    Answer ack;
    ack.read = Answer::Read::any_length;
    ack.record_out = reinterpret_cast<void **>(&reply);
    int rc = tarn::send_idl(h, &rt->hdr, ack);
    if (rc != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, " failed to get route add ack index\n");
        return rc;
    }
    *ack_index = reply->ack_index;
    rtslib_msg_idl_release(h, reply);
    return 0;
}

int rtslib_rtm_delete(rtslib_cookie *h, rt_msg_t *record)
{
    if (h == nullptr || record == nullptr) return EINVAL;
    record->hdr.op = RTS_OP_DELETE;
    // The caller numbered this record; the kernel sends nothing back.
    Answer none;
    none.stamp = false;
    return tarn::send_idl(h, &record->hdr, none);
}

int rtslib_rtm_delete_prefix(rtslib_cookie *h, uint16_t tid, uint8_t af, uint8_t type,
                             uint16_t flags, const uint8_t *prefix, uint16_t plen, uint32_t word2)
{
    if (int rc = tarn::check_request(h, prefix != nullptr || plen == 0); rc != 0) return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rt_msg_t *rt = new_route(rb, RTS_OP_DELETE, tid, af, type, flags);
    rt->owner_id = word2;
    if (!set_prefix(rb, rt, prefix, plen)) return EINVAL;
    return tarn::send_idl(h, &rt->hdr, Answer{});
}

int rtslib_rtm_get(rtslib_cookie *h, uint16_t tid, uint8_t af, const uint8_t *prefix,
                   uint16_t plen, uint8_t type, uint8_t flags, uint32_t word1, uint8_t byte47,
                   uint8_t op, rt_msg_t **record_out, void **map_out)
{
    if (int rc = tarn::check_request(h, prefix != nullptr || plen == 0, tarn::is_answered(op),
                                     record_out);
        rc != 0)
        return rc;
    RequestBuffer rb(h);
    if (!rb.ok()) return ENOMEM;
    rt_msg_t *rt = new_route(rb, op, tid, af, type, flags);
    rt->instance_id = word1;
    rt->lookup_flags = byte47;
    if (plen > 0 && !set_prefix(rb, rt, prefix, plen)) return EINVAL;
    return tarn::send_idl(h, &rt->hdr, route_answer(op, record_out, map_out));
}

int rtslib_rtm_get_by_type(rtslib_cookie *h, uint8_t af, uint8_t type, uint8_t op,
                           rt_msg_t **record_out, void **map_out)
{
    return rtslib_rtm_get(h, 0, af, nullptr, 0, type, 0, 0, 0, op, record_out, map_out);
}

int rtslib_rtm_get_by_prefix(rtslib_cookie *h, uint8_t af, const uint8_t *prefix, uint16_t plen,
                             uint8_t op, rt_msg_t **record_out, void **map_out)
{
    return rtslib_rtm_get(h, 0, af, prefix, plen, 0, 0, 0, 0, op, record_out, map_out);
}

int rtslib_rtm_get_with_msg_pa(rtslib_cookie *h, rt_msg_t *record, uint8_t op,
                               rt_msg_t **record_out, void **map_out, void *arena_base,
                               uint32_t arena_size)
{
    if (arena_base == nullptr) return EINVAL;
    return send_record(h, record, op, record_out, map_out, arena_base, arena_size);
}

int rtslib_rtm_get_with_msg(rtslib_cookie *h, rt_msg_t *record, uint8_t op, rt_msg_t **record_out,
                            void **map_out)
{
    return send_record(h, record, op, record_out, map_out, nullptr, 0);
}

}  // extern "C"
