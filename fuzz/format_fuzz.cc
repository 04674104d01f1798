// The formatter over arbitrary messages. The input's first two bytes choose
// the buffer size and the mode; the rest is a message: an envelope decoded by
// the library's decoder (any member type), or, when it is not one, a raw
// message of a type without a record, copied to a block of exactly its
// length word (at least the header) so that the sanitizers see any read past
// it. The walker also reads every decoded record. Checked beyond "no
// crash": nothing is written past the buffer, the text is terminated inside
// it, and the message is unchanged.
#include <cstring>
#include <vector>

#include <tarn/tarn.h>

#include "idl_fuzz_support.h"

namespace {

constexpr size_t kCanary = 16;

void format_checked(rtslib_cookie *h, const void *msg, size_t msg_size, int size, int brief)
{
    std::vector<uint8_t> before(static_cast<const uint8_t *>(msg),
                                static_cast<const uint8_t *>(msg) + msg_size);
    std::vector<char> buf(static_cast<size_t>(size) + kCanary, '\xa5');
    int rc = rtslib_format_output(h, buf.data(), size, brief, msg);
    FUZZ_CHECK(rc == 0 || rc == -1);
    FUZZ_CHECK(std::memchr(buf.data(), 0, static_cast<size_t>(size)) != nullptr);
    for (size_t i = 0; i < kCanary; ++i) FUZZ_CHECK(buf[static_cast<size_t>(size) + i] == '\xa5');
    FUZZ_CHECK(std::memcmp(before.data(), msg, msg_size) == 0);
}

// Reads everything the walker hands out, so that the sanitizers check it.
int touch(void *ctx, int, const tarn_idl_value *v)
{
    auto *sum = static_cast<uint64_t *>(ctx);
    *sum += v->scalar + v->count + v->index;
    for (uint32_t i = 0; i < v->length; ++i) *sum += v->bytes[i];
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 16)) return 0;
    int buf_size = 1 + ((data[0] | (data[1] & 0x0f) << 8) % 4096);
    int brief = data[1] >> 7;
    data += 2;
    size -= 2;

    rtslib_cookie *h = rtslib_open_nc();
    FUZZ_CHECK(h != nullptr);
    rtslib_lib_error_register(h, nullptr, nullptr);  // silent
    void *msg = nullptr, *map = nullptr;
    auto len = static_cast<uint32_t>(size);
    if (rtslib_msg_idl_decode(h, data, len, &msg, &map) == 0 && msg) {
        const uint8_t type = static_cast<const uint8_t *>(msg)[5];
        size_t rec_size = tarn_idl_type_size(tarn_idl_type_for_msg(type));
        FUZZ_CHECK(rec_size >= sizeof(rts_hdr_t));
        format_checked(h, msg, rec_size, buf_size, brief);
        format_checked(h, msg, rec_size, RTSLIB_FORMAT_BRIEF_SIZE, 1);
        uint64_t sum = 0;
        FUZZ_CHECK(tarn_idl_walk(tarn_idl_type_for_msg(type), msg, touch, &sum) == 0);
        rtslib_msg_idl_release(h, msg);
    } else if (size >= RTS_HDR_MIN_LEN && tarn_idl_type_for_msg(data[5]) == nullptr) {
        uint32_t msglen;
        std::memcpy(&msglen, data + 8, 4);
        if (msglen <= len) {
            std::vector<uint8_t> raw(data, data + (msglen < RTS_HDR_MIN_LEN ? RTS_HDR_MIN_LEN : msglen));
            format_checked(h, raw.data(), raw.size(), buf_size, brief);
        }
    }
    rtslib_close(h);
    return 0;
}
