#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/async_internal.h"
#include "libtarn/rtslib/msg_io_internal.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/idl.h>
#include <tarn/rtslib_gencfg.h>
#include <tarn/rtslib_if.h>
#include <tarn/rtslib_msg.h>

namespace {

using tarn::wire::load_u32;

constexpr uint32_t kOpaqueFixedLen = 32;
constexpr uint32_t kOpaqueTagOff = 23;
constexpr uint32_t kOpaqueFlagsOff = 24;
constexpr uint32_t kOpaquePayloadLenOff = 28;
constexpr uint32_t kEnvelopeTypeOff = 8;

// Hands an address notification to the unnumbered-donor registry. A deleted
// donor address is reported before the handler runs, while the interested
// interfaces can still act on it; any other change after the handler has
// seen it. True when a report is still owed after the handler.
bool unnumbered_donor_intake(rtslib_cookie *h, void *record)
{
    const auto *ifa = static_cast<const ifa_msg_t *>(record);
    if (rtslib_unnum_ifa_save_msg(h, ifa) != 0) return false;
    if (ifa->hdr.op != RTS_OP_DELETE) return true;
    rtslib_unnum_ifa_report(h);
    return false;
}

void unnumbered_donor_report(rtslib_cookie *h)
{
    rtslib_unnum_ifa_report(h);
}

// A compressed configuration blob is inflated before its handler sees the
// record; the record may be replaced by the inflated copy.
int gencfg_intake(rtslib_cookie *h, void **record)
{
    return rtslib_gencfg_async(h, reinterpret_cast<gencfg_msg_t **>(record));
}

// What one pass has in hand; whatever is still held when the pass ends is
// released there.
struct Pass {
    rtslib_cookie *h;
    void *raw = nullptr;
    uint32_t raw_len = 0;
    void *record = nullptr;
};

// The handler for a type, or a report and the error that ends the pass.
int find_handler(rtslib_cookie *h, uint32_t type, const rtslib_async_entry **out)
{
    if (type >= RTS_MSG_TYPE_COUNT) {
        rtslib_err(h, RTSLIB_LOG_WARNING, "received async message of unknown type: %d\n",
                   static_cast<int>(type));
        return EOPNOTSUPP;
    }
    *out = h->async->slots[type];
    if (*out == nullptr) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "received async message with no handler: %d\n",
                   static_cast<int>(type));
        return ENOENT;
    }
    return 0;
}

int dispatch_raw(Pass &p)
{
    const rtslib_async_entry *entry = nullptr;
    const int rc = find_handler(p.h, static_cast<const uint8_t *>(p.raw)[RTS_HDR_TYPE_OFF], &entry);
    if (rc != 0) return rc;
    void *msg = p.raw;
    p.raw = nullptr;
    entry->fn(p.h, entry->arg, msg, nullptr);
    return 0;
}

int dispatch_record(Pass &p)
{
    rtslib_cookie *h = p.h;
    // An envelope whose type has no record decodes to nothing; its type is
    // still in the envelope.
    const uint32_t type = p.record != nullptr
                              ? static_cast<const rts_hdr_t *>(p.record)->type
                              : load_u32(static_cast<const uint8_t *>(p.raw) + kEnvelopeTypeOff);
    rtslib_msg_free(h, p.raw);
    p.raw = nullptr;
    // Envelopes carry no sequence check of their own; keep the counter
    // moving with the kernel's stream.
    ++h->seq;

    // A known type must bring its record: handlers are promised one. (An
    // unknown type is refused as such below.)
    if (p.record == nullptr && type < RTS_MSG_TYPE_COUNT) return tarn::missing_record(h, type);
    const rtslib_async_entry *entry = nullptr;
    int rc = find_handler(h, type, &entry);
    if (rc != 0) return rc;

    bool donor_report_owed = false;
    if (type == RTS_MSG_IFADDR && h->unnum != nullptr)
        donor_report_owed = unnumbered_donor_intake(h, p.record);
    if (type == RTS_MSG_GENCFG) {
        rc = gencfg_intake(h, &p.record);
        if (rc != 0) return rc;
    }
    void *record = p.record;
    p.record = nullptr;
    entry->fn(h, entry->arg, record, nullptr);
    if (donor_report_owed) unnumbered_donor_report(h);
    return 0;
}

// Reads and dispatches one message: 0, or the error that ends the pass.
int process_one(Pass &p)
{
    rtslib_cookie *h = p.h;
    int rc = rtslib_long_msg_read(h, &p.raw, &p.raw_len);
    if (rc != 0 && rc != RTSLIB_SEQ_MISMATCH) return rc;
    // Anything but an envelope goes out raw. The decoder would say so too
    // (EOPNOTSUPP), but only after sizing an arena from bytes that are no
    // envelope length.
    if (!tarn::wire::is_envelope(p.raw)) return dispatch_raw(p);
    rc = tarn::decode_to_new_block(h, p.raw, p.raw_len, &p.record, nullptr);
    if (rc != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Failed to decode the msg: error (%d)\n", rc);
        return rc;
    }
    return dispatch_record(p);
}

uint32_t round_up4(uint32_t n)
{
    return (n + 3u) & ~3u;
}

}  // namespace

namespace tarn::async {

int dispatch_subtype(rtslib_cookie *h, void *arg, void *msg, void *)
{
    const auto *table = static_cast<const rtslib_async_subtypes *>(arg);
    const auto *bytes = static_cast<const uint8_t *>(msg);
    const uint32_t type = bytes != nullptr ? bytes[RTS_HDR_TYPE_OFF] : uint32_t{RTS_MSG_IFSCLINFO};
    const uint32_t len = bytes != nullptr ? load_u32(bytes + RTS_HDR_LEN_OFF) : 0;
    if (len < table->offset + 1) {
        rtslib_err(h, RTSLIB_LOG_ERROR,
                   "received async message with length < needed for subtype msg_type = %d "
                   "subtype offset=%d msglen=%d\n",
                   static_cast<int>(type), static_cast<int>(table->offset), static_cast<int>(len));
    } else {
        const uint8_t subtype = bytes[table->offset];
        if (subtype >= table->count) {
            rtslib_err(h, RTSLIB_LOG_ERROR,
                       "received async message with invalid subtype msg_type = %d subtype "
                       "offset=%d msglen=%d subtype = %d\n",
                       static_cast<int>(type), static_cast<int>(table->offset),
                       static_cast<int>(len), subtype);
        } else if (const rtslib_async_entry &e = table->entries[subtype]; e.fn != nullptr) {
            return e.fn(h, e.arg, msg, nullptr);
        }
    }
    // Raw messages and decoded records come from the same allocator, so one
    // free serves both.
    rtslib_msg_free(h, msg);
    return 0;
}

}  // namespace tarn::async

extern "C" {

int rtslib_async_event_process(rtslib_cookie *h)
{
    if (h == nullptr || h->async == nullptr) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "async event callback with invalid cookie!\n");
        errno = EINVAL;
        return -1;
    }
    Pass pass{h};
    uint32_t handled = 0;
    int err;
    while ((err = process_one(pass)) == 0) {
        // A handler may have destroyed the context; nothing is left to
        // dispatch to.
        if (++handled >= h->num_read_msg || h->async == nullptr) return 0;
    }
    rtslib_msg_free(h, pass.raw);
    if (pass.record != nullptr) rtslib_msg_idl_release(h, pass.record);
    errno = err;
    return err == EAGAIN && handled > 0 ? 0 : -1;
}

int rtslib_async_opaque_handle(rtslib_cookie *h, uint8_t op, const void *data, uint32_t len,
                               void **reply_out, uint8_t tag, uint16_t flags)
{
    if (reply_out != nullptr) *reply_out = nullptr;
    if (h == nullptr || reply_out == nullptr || (data == nullptr && len != 0)) return EINVAL;
    if (len > RTS_MSG_MAX - kOpaqueFixedLen) return EINVAL;
    const uint32_t total = round_up4(len) + kOpaqueFixedLen;
    if (total > RTS_MSG_MAX) return EINVAL;

    auto *msg = static_cast<uint8_t *>(rtslib_msg_malloc(h));
    if (msg == nullptr) return ENOMEM;
    // The reply's buffer is had before the request goes: a reply that could
    // not be read would wait on the socket, to be taken for a later answer.
    const bool want_reply = (flags & RTSLIB_ASYNC_OPAQUE_WANT_REPLY) != 0;
    void *reply = want_reply ? rtslib_msg_malloc(h) : nullptr;
    if (want_reply && reply == nullptr) {
        rtslib_msg_free(h, msg);
        return ENOMEM;
    }
    uint32_t seq = 0;
    rtslib_seq_get_next(h, &seq);
    msg[RTS_HDR_VERSION_OFF] = RTS_INTERFACE_VERSION;
    msg[RTS_HDR_TYPE_OFF] = RTS_MSG_ASYNC_OPAQUE;
    msg[RTS_HDR_OP_OFF] = op;
    tarn::wire::store_u32(msg + RTS_HDR_LEN_OFF, total);
    tarn::wire::store_u32(msg + RTS_HDR_SEQ_OFF, seq);
    tarn::wire::store_u16(msg + RTS_HDR_FIXED_LEN_OFF, kOpaqueFixedLen);
    msg[kOpaqueTagOff] = tag;
    tarn::wire::store_u16(msg + kOpaqueFlagsOff, flags);
    tarn::wire::store_u32(msg + kOpaquePayloadLenOff, len & 0xffffu);
    if (len != 0) std::memcpy(msg + kOpaqueFixedLen, data, len);

    int rc = rtslib_write(h, msg, total);
    rtslib_msg_free(h, msg);
    // The reply comes from whoever the kernel hands the message to, later.
    if (rc == 0 && want_reply) rc = tarn::os::await_answer(h->fd, tarn::os::AnswerWait::blocking);
    if (rc == 0 && want_reply) rc = rtslib_msg_read(h, reply, nullptr);
    if (rc != 0) {
        rtslib_msg_free(h, reply);
        return rc;
    }
    *reply_out = reply;
    return 0;
}

}  // extern "C"
