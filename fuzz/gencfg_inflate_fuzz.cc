// Received configuration records with compressed blobs, inflated by the real
// zlib and zstd hooks. Input: byte 0 bit 0 picks the codec (zlib, zstd) and
// bit 1 what follows: 0, the blob of an otherwise well-formed record; 1, a
// whole message envelope, which need not hold a gencfg record at all.
// Properties beyond "no crash, no leak": an inflated record keeps its other
// fields, holds at most the inflation limit and is no longer flagged; a
// failed one is left without a blob.
#include <cerrno>
#include <cstring>
#include <vector>

#include "idl_fuzz_support.h"
#include <tarn/compress.h>
#include <tarn/tarn.h>

namespace {

int quiet(rtslib_cookie *, void *, int, const char *)
{
    return 0;
}

// A record around `blob` as it would arrive: encoded, then decoded.
void *received_with_blob(rtslib_cookie *h, const uint8_t *blob, uint32_t len)
{
    static uint8_t key[3] = {1, 2, 3};
    gencfg_msg_t rec{};
    rec.hdr.type = RTS_MSG_GENCFG;
    rec.major_type = 15;
    rec.flags = RTSLIB_GENCFG_F_COMPRESSED | RTSLIB_GENCFG_F_KEY;
    rec.blob = const_cast<uint8_t *>(blob);
    rec.blob_len = len;
    rec.key = key;
    rec.key_len = sizeof key;
    void *buf = nullptr;
    uint32_t buf_len = 0;
    if (rtslib_msg_idl_encode(h, &rec, nullptr, &buf, &buf_len) != 0) return nullptr;
    void *out = nullptr;
    rtslib_msg_idl_decode(h, buf, buf_len, &out, nullptr);
    rtslib_msg_free(h, buf);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > (1u << 20)) return 0;
    rtslib_cookie *h = rtslib_open_nc();
    if (h == nullptr) return 0;
    h->lib_error_fn = quiet;
    if (data[0] & 1) rtslib_init_blob_compression(h, tarn_zstd_compress, tarn_zstd_decompress);
    else rtslib_init_blob_compression(h, tarn_zlib_compress, tarn_zlib_decompress);

    void *rec = nullptr;
    const auto len = static_cast<uint32_t>(size - 1);
    if (data[0] & 2) {
        if (rtslib_msg_idl_decode(h, data + 1, len, &rec, nullptr) != 0) rec = nullptr;
    } else {
        rec = received_with_blob(h, data + 1, len);
    }
    auto *msg = static_cast<gencfg_msg_t *>(rec);
    if (msg != nullptr && msg->hdr.type == RTS_MSG_GENCFG) {
        const gencfg_msg_t before = *msg;
        // The received record is freed when it is replaced: keep its key.
        const std::vector<uint8_t> key(msg->key, msg->key + (msg->key != nullptr ? msg->key_len : 0));
        const int rc = rtslib_gencfg_async(h, &msg);
        if (rc == 0 && (before.flags & RTSLIB_GENCFG_F_COMPRESSED)) {
            FUZZ_CHECK(msg->blob_len <= RTSLIB_GENCFG_BLOB_INFLATED_MAX);
            FUZZ_CHECK((msg->flags & RTSLIB_GENCFG_F_COMPRESSED) == 0);
            FUZZ_CHECK(msg->key_len == before.key_len && msg->deps_count == before.deps_count &&
                         msg->peers_count == before.peers_count);
            if (!key.empty()) FUZZ_CHECK(std::memcmp(msg->key, key.data(), key.size()) == 0);
        } else if (rc != 0) {
            FUZZ_CHECK(msg->blob_len == 0);
        }
        // The peer lookups a handler would make stay inside what arrived.
        FUZZ_CHECK(msg->peer_capacity <= msg->peers_count);
        rtslib_gencfg_is_peer_present_in_peerinfo(msg, RTSLIB_GENCFG_PEER_SLOT, 3);
        rtslib_gencfg_get_peer_info(msg);
        for (uint32_t i = 0; i < msg->peers_count; ++i) rtslib_gencfg_get_peer_index(msg, msg->peers[i]);
    }
    rtslib_msg_idl_release(h, msg);
    rtslib_close(h);
    return 0;
}
