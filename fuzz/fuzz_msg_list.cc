// Message-list fill-in over arbitrary buffers, raw or enveloped. Properties
// beyond "no crash, no leak": a filled raw list points at consecutive
// messages inside the buffer that tile it exactly; a filled envelope list
// holds one record per message, all of the list's version and type; and a
// list left half-filled by a failure is released like any other.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <tarn/tarn.h>

#include "idl_fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size > (1u << 16)) return 0;
    static rtslib_cookie *h = rtslib_open_nc();
    const auto len = static_cast<uint32_t>(size);
    auto *buf = static_cast<uint8_t *>(rtslib_size_alloc(h, len));
    FUZZ_CHECK(buf != nullptr);
    std::memcpy(buf, data, size);
    rtslib_msg_list *list = rtslib_msg_list_alloc(h);
    FUZZ_CHECK(list != nullptr);

    const int rc = rtslib_msg_list_fillin(h, list, len, buf);
    const bool list_owns_buffer = rc == 0 && list->kind == RTSLIB_MSG_LIST_RAW_BUFFER;
    if (rc == 0) {
        FUZZ_CHECK(list->count > 0);
        if (list->kind == RTSLIB_MSG_LIST_RAW_BUFFER && len >= 4) {
            uint32_t off = 0;
            for (int i = 0; i < list->count; ++i) {
                const auto *m = static_cast<const uint8_t *>(rtslib_msg_list_get_by_index(list, i));
                FUZZ_CHECK(m == buf + off);
                uint32_t mlen = 0;
                std::memcpy(&mlen, m + RTS_HDR_LEN_OFF, 4);
                FUZZ_CHECK(mlen >= RTS_HDR_MIN_LEN && mlen <= len - off);
                off += mlen;
            }
            FUZZ_CHECK(off == len);
        } else if (list->kind == RTSLIB_MSG_LIST_FILLED) {
            for (int i = 0; i < list->count; ++i) {
                const auto *hdr = static_cast<const rts_hdr_t *>(rtslib_msg_list_get_by_index(list, i));
                FUZZ_CHECK(hdr != nullptr);
                if (i == list->count - 1)
                    FUZZ_CHECK(hdr->type == list->type && hdr->version == list->version);
            }
        }
    }
    rtslib_msg_list_free(h, list);
    if (!list_owns_buffer) rtslib_msg_free(h, buf);
    return 0;
}
