// The zlib and zstd blob hooks, alone and behind the library's inflation of
// received records.
#include <cerrno>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/compress.h>
#include <tarn/tarn.h>

namespace {

struct Codec {
    const char *name;
    rtslib_blob_hook_fn compress, decompress;
};
const Codec kCodecs[] = {
    {"zlib", tarn_zlib_compress, tarn_zlib_decompress},
    {"zstd", tarn_zstd_compress, tarn_zstd_decompress},
};

std::vector<uint8_t> packed(const Codec &c, const std::vector<uint8_t> &plain)
{
    std::vector<uint8_t> out(plain.size() + 1024);
    uint32_t n = static_cast<uint32_t>(out.size());
    EXPECT_EQ(c.compress(out.data(), &n, plain.data(), static_cast<uint32_t>(plain.size())), 0);
    out.resize(n);
    return out;
}

TEST(GencfgCompress, HooksRoundTripAndRefuseBadInput)
{
    std::vector<uint8_t> plain(20000);
    for (size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<uint8_t>(i % 251 ^ i / 300);
    for (const Codec &c : kCodecs) {
        SCOPED_TRACE(c.name);
        const std::vector<uint8_t> z = packed(c, plain);
        ASSERT_LT(z.size(), plain.size());
        const auto zlen = static_cast<uint32_t>(z.size());

        std::vector<uint8_t> back(plain.size());
        uint32_t n = static_cast<uint32_t>(back.size());
        ASSERT_EQ(c.decompress(back.data(), &n, z.data(), zlen), 0);
        EXPECT_EQ(n, plain.size());
        EXPECT_EQ(back, plain);

        n = static_cast<uint32_t>(plain.size() - 1);
        EXPECT_EQ(c.decompress(back.data(), &n, z.data(), zlen), ENOBUFS);
        EXPECT_EQ(n, plain.size() - 1);
        n = 8;
        EXPECT_EQ(c.compress(back.data(), &n, plain.data(), uint32_t(plain.size())), ENOBUFS);

        n = static_cast<uint32_t>(back.size());
        EXPECT_EQ(c.decompress(back.data(), &n, z.data(), zlen / 2), EBADMSG);
        std::vector<uint8_t> bad = z;
        bad[0] ^= 0xff;
        EXPECT_EQ(c.decompress(back.data(), &n, bad.data(), zlen), EBADMSG);
        EXPECT_EQ(c.decompress(nullptr, &n, z.data(), zlen), EINVAL);
    }
}

// A received record whose blob inflates to exactly the limit is accepted; one
// byte more is refused and the record left without a blob.
TEST(GencfgCompress, ReceivedBlobsInflateUpToTheLimit)
{
    rtslib_cookie *h = rtslib_open_nc();
    ASSERT_NE(h, nullptr);
    h->lib_error_fn = nullptr;
    for (const Codec &c : kCodecs) {
        SCOPED_TRACE(c.name);
        rtslib_init_blob_compression(h, c.compress, c.decompress);
        for (uint32_t size : {RTSLIB_GENCFG_BLOB_INFLATED_MAX, RTSLIB_GENCFG_BLOB_INFLATED_MAX + 1}) {
            const std::vector<uint8_t> z = packed(c, std::vector<uint8_t>(size, 0x5a));
            gencfg_msg_t rec{};
            rec.hdr.type = RTS_MSG_GENCFG;
            rec.flags = RTSLIB_GENCFG_F_COMPRESSED;
            rec.blob = const_cast<uint8_t *>(z.data());
            rec.blob_len = static_cast<uint32_t>(z.size());
            void *buf = nullptr;
            uint32_t len = 0;
            ASSERT_EQ(rtslib_msg_idl_encode(h, &rec, nullptr, &buf, &len), 0);
            void *out = nullptr;
            ASSERT_EQ(rtslib_msg_idl_decode(h, buf, len, &out, nullptr), 0);
            rtslib_msg_free(h, buf);
            auto *msg = static_cast<gencfg_msg_t *>(out);
            const int rc = rtslib_gencfg_async(h, &msg);
            if (size == RTSLIB_GENCFG_BLOB_INFLATED_MAX) {
                ASSERT_EQ(rc, 0);
                ASSERT_EQ(msg->blob_len, size);
                EXPECT_EQ(msg->blob[size - 1], 0x5a);
            } else {
                EXPECT_EQ(rc, ENOBUFS);
                EXPECT_EQ(msg->blob_len, 0u);
            }
            rtslib_msg_idl_release(h, msg);
        }
    }
    rtslib_close(h);
}

}  // namespace
