#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtarn/rtslib/msg_io_internal.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/idl.h>
#include <tarn/rtslib_msg.h>

namespace {

using tarn::wire::is_envelope;
using tarn::wire::load_u32;

// A list built by adds grows once, to this many entries, and never again.
constexpr uint16_t kAddedListCapacity = 16;

// The length of the message at `off`, or 0 when the buffer is malformed
// there: too few bytes left for its header, a length shorter than its header
// or running past the end, or a message of the other kind (a buffer holds
// raw messages or envelopes, as its first message says, never both). The
// counting and the filling walk both step with this, so they cannot
// disagree, and every step moves forward.
uint32_t message_at(const uint8_t *buf, uint32_t len, uint32_t off, bool envelopes)
{
    const uint32_t left = len - off;
    const uint32_t header = envelopes ? RTS_IDL_ENVELOPE_HDR_LEN : RTS_HDR_MIN_LEN;
    if (left < 4 || is_envelope(buf + off) != envelopes) return 0;
    if (left < (envelopes ? 8u : header)) return 0;
    const uint64_t msg_len = tarn::wire::claimed_length(buf + off);
    if (msg_len < header || msg_len > left) return 0;
    return static_cast<uint32_t>(msg_len);
}

// The number of messages in the buffer, or 0 when it is malformed anywhere.
uint32_t count_messages(const uint8_t *buf, uint32_t len, bool envelopes)
{
    uint32_t count = 0;
    for (uint32_t off = 0; off < len; ++count) {
        const uint32_t msg_len = message_at(buf, len, off, envelopes);
        if (msg_len == 0) return 0;
        off += msg_len;
    }
    return count;
}

int fill_raw(rtslib_cookie *h, rtslib_msg_list *list, uint8_t *buf, uint32_t len)
{
    // Fewer than 4 bytes hold no header: the list is just the buffer.
    if (len < 4) {
        list->kind = RTSLIB_MSG_LIST_RAW_BUFFER;
        list->entries = static_cast<void **>(rtslib_size_alloc(h, sizeof(void *)));
        if (list->entries == nullptr) return ENOMEM;
        list->entries[0] = buf;
        list->count = 1;
        return 0;
    }
    const uint32_t count = count_messages(buf, len, false);
    if (count == 0 || count > UINT16_MAX) return EINVAL;
    list->kind = RTSLIB_MSG_LIST_RAW_BUFFER;
    list->entries = static_cast<void **>(rtslib_size_alloc(h, count * sizeof(void *)));
    if (list->entries == nullptr) return ENOMEM;
    for (uint32_t off = 0; list->count < count; off += message_at(buf, len, off, false)) {
        list->entries[list->count++] = buf + off;
        list->version = buf[off + RTS_HDR_VERSION_OFF];
        list->type = buf[off + RTS_HDR_TYPE_OFF];
    }
    return 0;
}

int fill_envelopes(rtslib_cookie *h, rtslib_msg_list *list, const uint8_t *buf, uint32_t len)
{
    const uint32_t count = count_messages(buf, len, true);
    if (count == 0 || count > UINT16_MAX) return EINVAL;
    list->kind = RTSLIB_MSG_LIST_FILLED;
    list->entries = static_cast<void **>(rtslib_size_alloc(h, count * sizeof(void *)));
    list->decode_args = static_cast<void **>(rtslib_size_alloc(h, count * sizeof(void *)));
    if (list->entries == nullptr || list->decode_args == nullptr) return ENOMEM;
    for (uint32_t off = 0; list->count < count;) {
        const uint32_t msg_len = message_at(buf, len, off, true);
        void *record = nullptr;
        void *map = nullptr;
        int rc = tarn::decode_record(h, buf + off, msg_len, &record, &map);
        if (rc != 0) return rc;
        const auto *hdr = static_cast<const rts_hdr_t *>(record);
        list->entries[list->count] = record;
        list->decode_args[list->count] = map;
        ++list->count;
        list->version = hdr->version;
        list->type = hdr->type;
        off += msg_len;
    }
    return 0;
}

}  // namespace

extern "C" {

rtslib_msg_list *rtslib_msg_list_alloc(rtslib_cookie *h)
{
    return static_cast<rtslib_msg_list *>(rtslib_size_alloc(h, sizeof(rtslib_msg_list)));
}

int rtslib_msg_list_add(rtslib_cookie *h, rtslib_msg_list *list, void *message)
{
    if (h == nullptr || list == nullptr || message == nullptr) return EINVAL;
    // Entries of a filled list live in a buffer or an arena, not in blocks of
    // their own; adding would mix ownership.
    if (list->kind == RTSLIB_MSG_LIST_RAW_BUFFER || list->kind == RTSLIB_MSG_LIST_FILLED)
        return EINVAL;
    const auto *msg = static_cast<const uint8_t *>(message);
    if (list->count > 0 &&
        (msg[RTS_HDR_VERSION_OFF] != list->version || msg[RTS_HDR_TYPE_OFF] != list->type))
        return EINVAL;
    // The array never grows past its first 16 entries; refuse rather than
    // write past them.
    if (list->count >= kAddedListCapacity) return ENOBUFS;
    list->kind = RTSLIB_MSG_LIST_ADDED;
    if (list->free_slots == 0) {
        auto **grown =
            static_cast<void **>(rtslib_size_alloc(h, kAddedListCapacity * sizeof(void *)));
        if (grown == nullptr) return ENOMEM;
        if (list->count > 0) std::memcpy(grown, list->entries, list->count * sizeof(void *));
        rtslib_msg_free(h, list->entries);
        list->entries = grown;
        list->free_slots = static_cast<uint16_t>(kAddedListCapacity - list->count);
    }
    if (list->count == 0) {
        list->version = msg[RTS_HDR_VERSION_OFF];
        list->type = msg[RTS_HDR_TYPE_OFF];
    }
    list->entries[list->count++] = message;
    return 0;
}

int rtslib_msg_list_fillin(rtslib_cookie *h, rtslib_msg_list *list, uint32_t len, void *buffer)
{
    if (h == nullptr || list == nullptr || len == 0 || buffer == nullptr) return EINVAL;
    std::memset(list, 0, sizeof *list);
    auto *buf = static_cast<uint8_t *>(buffer);
    if (len >= 4 && is_envelope(buf)) return fill_envelopes(h, list, buf, len);
    return fill_raw(h, list, buf, len);
}

void *rtslib_msg_list_get_by_index(rtslib_msg_list *list, int index)
{
    if (list == nullptr || list->entries == nullptr || index < 0 || index >= list->count)
        return nullptr;
    return list->entries[index];
}

void rtslib_msg_list_free(rtslib_cookie *h, rtslib_msg_list *list)
{
    if (list == nullptr) return;
    switch (list->kind) {
    case RTSLIB_MSG_LIST_RAW_BUFFER:
        // Raw entries point into one buffer, which the list owns.
        if (list->entries != nullptr) rtslib_msg_free(h, list->entries[0]);
        break;
    case RTSLIB_MSG_LIST_FILLED:
        for (uint16_t i = 0; i < list->count; ++i) rtslib_msg_idl_release(h, list->entries[i]);
        rtslib_msg_free(h, list->decode_args);
        break;
    default:
        for (uint16_t i = 0; i < list->count; ++i) rtslib_msg_free(h, list->entries[i]);
        break;
    }
    rtslib_msg_free(h, list->entries);
    rtslib_msg_free(h, list);
}

}  // extern "C"
