// The zlib and zstd blob hooks, alone, behind the library's inflation of
// received records, and end to end through the kernel emulator.
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "gencfg_support.h"
#include "kernel_emulator.h"
#include "report_collector.h"
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
            gencfg_msg_t *msg = tarn::test::received_gencfg(h, RTSLIB_GENCFG_F_COMPRESSED, z.data(),
                                                            static_cast<uint32_t>(z.size()));
            ASSERT_NE(msg, nullptr);
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

struct Seen {
    std::vector<uint8_t> blob;
    uint32_t flags = 0;
    uint32_t deps = 0, peers = 0;
    int calls = 0;
};

int remember(rtslib_cookie *h, void *arg, void *msg, void *)
{
    auto *seen = static_cast<Seen *>(arg);
    const auto *g = static_cast<const gencfg_msg_t *>(msg);
    seen->blob.assign(g->blob, g->blob + g->blob_len);
    seen->flags = g->flags;
    seen->deps = g->deps_count;
    seen->peers = g->peers_count;
    ++seen->calls;
    rtslib_msg_idl_release(h, msg);
    return 0;
}

// One daemon exports a compressed object with dependencies and a peer mask;
// a listening one gets it inflated, and a read gives it back whole.
TEST(GencfgThroughTheKernel, CompressedObjectsArriveInflated)
{
    tarn::test::KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    tarn::test::ReportCollector reports;
    rtslib_cookie *sender = rtslib_open_set_liberr(1, &reports, tarn::test::ReportCollector::sink);
    rtslib_cookie *listener = rtslib_open_set_liberr(2, &reports, tarn::test::ReportCollector::sink);
    ASSERT_NE(sender, nullptr);
    ASSERT_NE(listener, nullptr);
    Seen seen;
    ASSERT_EQ(rtslib_create_async_context(listener), 0);
    ASSERT_EQ(rtslib_gencfg_async_register(listener, &seen, remember), 0);

    std::vector<uint8_t> blob(400000);
    for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<uint8_t>(i / 1000);
    uint8_t key[4] = {'c', 'f', 'g', '1'};
    const uint8_t dep[6] = {1, 2, 3, 4, 5, 6};
    gencfg_msg_t g{};
    g.major_type = 15;
    g.minor_type = 3;
    g.flags = RTSLIB_GENCFG_F_COMPRESSED | RTSLIB_GENCFG_F_KEY;
    g.key = key;
    g.key_len = sizeof key;
    g.blob = blob.data();
    g.blob_len = static_cast<uint32_t>(blob.size());
    ASSERT_EQ(rtslib_gencfg_create_depend(&g), 0);
    ASSERT_EQ(rtslib_gencfg_add_depinfo(&g, 2, 10, 11, sizeof dep, dep, 1), 0);
    ASSERT_EQ(rtslib_gencfg_create_peerinfo(&g, 2), 0);
    for (uint16_t peer : {3, 7}) {
        rtslib_gencfg_peer p{16, 0, peer};
        ASSERT_EQ(rtslib_gencfg_add_peerinfo(&g, &p), 0);
    }

    for (const Codec &c : kCodecs) {
        SCOPED_TRACE(c.name);
        rtslib_init_blob_compression(sender, c.compress, c.decompress);
        rtslib_init_blob_compression(listener, c.compress, c.decompress);
        seen = Seen{};
        ASSERT_EQ(c.compress == tarn_zlib_compress ? rtslib_gencfg_add(sender, &g)
                                                   : rtslib_gencfg_change(sender, &g),
                  0);
        EXPECT_EQ(g.blob, blob.data());
        pollfd p{listener->fd, POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 5000), 1);
        ASSERT_EQ(rtslib_async_event_process(listener), 0);
        ASSERT_EQ(seen.calls, 1);
        EXPECT_EQ(seen.blob, blob);
        EXPECT_EQ(seen.flags & RTSLIB_GENCFG_F_COMPRESSED, 0u);
        EXPECT_EQ(seen.deps, 1u);
        EXPECT_EQ(seen.peers, 1u);

        gencfg_msg_t ask = tarn::test::keyed_query(15, 3, key, sizeof key);
        gencfg_msg_t *reply = nullptr;
        ASSERT_EQ(rtslib_gencfg_get(listener, &ask, RTSLIB_GENCFG_OP_GET, &reply, nullptr), 0);
        ASSERT_NE(reply, nullptr);
        ASSERT_EQ(ask.blob_len, blob.size());
        EXPECT_EQ(std::memcmp(ask.blob, blob.data(), blob.size()), 0);
        ASSERT_EQ(ask.deps_count, 1u);
        EXPECT_EQ(std::memcmp(ask.deps[0]->data, dep, sizeof dep), 0);
        EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(reply, 16, 7), 1);
        EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(reply, 16, 8), 0);
        ASSERT_EQ(ask.peers_count, 1u);
        EXPECT_EQ(ask.peers[0]->peer.word1, 1u << 5);
        rtslib_msg_idl_release(listener, reply);
    }
    // The largest blob travels whole, uncompressed, both ways.
    std::vector<uint8_t> largest(RTSLIB_GENCFG_BLOB_MAX - 1, 0xc3);
    g.flags &= ~RTSLIB_GENCFG_F_COMPRESSED;
    g.blob = largest.data();
    g.blob_len = static_cast<uint32_t>(largest.size());
    ASSERT_EQ(rtslib_gencfg_change(sender, &g), 0);
    gencfg_msg_t ask = tarn::test::keyed_query(15, 3, key, sizeof key);
    gencfg_msg_t *big = nullptr;
    ASSERT_EQ(rtslib_gencfg_get(sender, &ask, RTSLIB_GENCFG_OP_GET, &big, nullptr), 0);
    ASSERT_EQ(ask.blob_len, largest.size());
    EXPECT_EQ(ask.blob[largest.size() - 1], 0xc3);
    rtslib_msg_idl_release(sender, big);

    gencfg_msg_t absent{};
    gencfg_msg_t *reply = nullptr;
    EXPECT_EQ(rtslib_gencfg_get(sender, &absent, RTSLIB_GENCFG_OP_GET, &reply, nullptr), ENOENT);
    EXPECT_EQ(reply, nullptr);
    rtslib_gencfg_delete_depend(&g);
    rtslib_gencfg_delete_peerinfo(&g);
    rtslib_close(listener);
    rtslib_close(sender);
}

}  // namespace
