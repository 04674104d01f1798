// Helpers shared by the configuration-object tests.
#ifndef TARN_TESTS_GENCFG_SUPPORT_H
#define TARN_TESTS_GENCFG_SUPPORT_H

#include <gtest/gtest.h>

#include <tarn/tarn.h>

namespace tarn::test {

// A record carrying `blob` with `flags` as a daemon receives it: encoded,
// then decoded into a block of its own (rtslib_msg_idl_release).
inline gencfg_msg_t *received_gencfg(rtslib_cookie *h, uint32_t flags, const uint8_t *blob,
                                     uint32_t blob_len)
{
    gencfg_msg_t rec{};
    rec.hdr.type = RTS_MSG_GENCFG;
    rec.flags = flags;
    rec.blob = const_cast<uint8_t *>(blob);
    rec.blob_len = blob_len;
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_idl_encode(h, &rec, nullptr, &buf, &len), 0);
    void *out = nullptr;
    EXPECT_EQ(rtslib_msg_idl_decode(h, buf, len, &out, nullptr), 0);
    rtslib_msg_free(h, buf);
    return static_cast<gencfg_msg_t *>(out);
}

// A read of the object filed under major, minor and key.
inline gencfg_msg_t keyed_query(uint16_t major, uint16_t minor, uint8_t *key, uint32_t key_len)
{
    gencfg_msg_t q{};
    q.major_type = major;
    q.minor_type = minor;
    q.flags = RTSLIB_GENCFG_F_KEY;
    q.key = key;
    q.key_len = key_len;
    return q;
}

}  // namespace tarn::test

#endif  // TARN_TESTS_GENCFG_SUPPORT_H
