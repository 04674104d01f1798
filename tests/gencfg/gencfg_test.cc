// Configuration objects: peer masks, dependency lists, and the requests that
// carry them, checked on a socket pair (what was written, answers injected).
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gencfg_support.h"
#include "report_collector.h"
#include "request_layout.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::ReportCollector;
using testing::HasSubstr;

// Stand-in codec: the "compressed" form keeps every other byte, so a blob of
// doubled bytes halves and comes back whole, and any mix-up of pointers or
// lengths shows in the bytes.
int halve(void *out, uint32_t *out_len, const void *in, uint32_t in_len)
{
    if (in_len / 2 > *out_len) return ENOBUFS;
    for (uint32_t i = 0; i < in_len / 2; ++i)
        static_cast<uint8_t *>(out)[i] = static_cast<const uint8_t *>(in)[2 * i];
    *out_len = in_len / 2;
    return 0;
}
int twice(void *out, uint32_t *out_len, const void *in, uint32_t in_len)
{
    if (2 * in_len > *out_len) return ENOBUFS;
    for (uint32_t i = 0; i < 2 * in_len; ++i)
        static_cast<uint8_t *>(out)[i] = static_cast<const uint8_t *>(in)[i / 2];
    *out_len = 2 * in_len;
    return 0;
}
int failing(void *, uint32_t *, const void *, uint32_t)
{
    return 77;
}
int overclaiming(void *, uint32_t *out_len, const void *, uint32_t)
{
    *out_len += 1;
    return 0;
}

std::vector<uint8_t> doubled(uint32_t len)
{
    std::vector<uint8_t> v(len);
    for (uint32_t i = 0; i < len; ++i) v[i] = static_cast<uint8_t>(i / 2 * 7);
    return v;
}

// stderr while `fn` runs: reports without a handle go to the default sink.
template <typename Fn> std::string stderr_of(Fn &&fn)
{
    testing::internal::CaptureStderr();
    fn();
    return testing::internal::GetCapturedStderr();
}

gencfg_peerinfo_t *entry(const gencfg_msg_t &g, uint32_t i)
{
    return g.peers[i];
}

TEST(GencfgPeers, ListSizeIsCappedAtSixtyFour)
{
    gencfg_msg_t g{};
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(rtslib_gencfg_create_peerinfo(&g, 65), -1); }),
                HasSubstr("Number of peers exceeds 64\n"));
    EXPECT_EQ(g.peers, nullptr);
    ASSERT_EQ(rtslib_gencfg_create_peerinfo(&g, 64), 0);
    EXPECT_EQ(g.peer_capacity, 64);
    EXPECT_EQ(g.peers_count, 0u);
    for (uint16_t i = 0; i < 64; ++i) { rtslib_gencfg_peer p{16, 1, i}; ASSERT_EQ(rtslib_gencfg_add_peerinfo(&g, &p), 0); }
    rtslib_gencfg_peer extra{16, 1, 1};
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(rtslib_gencfg_add_peerinfo(&g, &extra), -1); }),
                HasSubstr("Number of gencfg peers exceeds 64\n"));
    EXPECT_EQ(entry(g, 63)->peer.word0, 63u);
    rtslib_gencfg_delete_peerinfo(&g);
    EXPECT_EQ(g.peers, nullptr);
    EXPECT_EQ(g.peers_count, 0u);
}

TEST(GencfgPeers, SingleIndexesOfMajorTypeFifteenMergeIntoOneMask)
{
    struct {
        uint8_t type;
        std::vector<uint16_t> indexes;
        uint32_t w0, w1, w2, w3;
    } const cases[] = {
        {16, {3, 7}, 1u << 15, 1u << 5, 0, 0},
        {1, {9}, 1u << 12, 0, 0, 0},            // slot 2, sub-unit 1
        {17, {9}, (1u << 10) | (1u << 12), 0, 0, 0},
        {16, {23}, 0, 0, 0, 1u << 25},          // last slot: word 3, bits 25-29
        {1, {95}, 0, 0, 0, 1u << 29},
        {16, {65532}, 0, 0, 0, 0},              // ignored, not refused
    };
    for (const auto &c : cases) {
        gencfg_msg_t g{};
        g.major_type = 15;
        ASSERT_EQ(rtslib_gencfg_create_peerinfo(&g, 4), 0);
        for (uint16_t i : c.indexes) {
            rtslib_gencfg_peer p{c.type, 0, i};
            ASSERT_EQ(rtslib_gencfg_add_peerinfo(&g, &p), 0) << int(c.type) << " " << i;
        }
        EXPECT_EQ(g.peers_count, 1u);
        const gencfg_peer_index_type_t *m = rtslib_gencfg_get_peer_info(&g);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->word0, c.w0);
        EXPECT_EQ(m->word1, c.w1);
        EXPECT_EQ(m->word2, c.w2);
        EXPECT_EQ(m->word3, c.w3);
        EXPECT_EQ(entry(g, 0)->peer_choice, 2u);
        rtslib_gencfg_delete_peerinfo(&g);
    }
}

TEST(GencfgPeers, MaskRefusesPeersOutsideItsSlots)
{
    for (auto [type, index] : {std::pair<uint8_t, uint16_t>{16, 24}, {1, 96}, {17, 96}, {2, 0}}) {
        gencfg_msg_t g{};
        g.major_type = 15;
        ASSERT_EQ(rtslib_gencfg_create_peerinfo(&g, 2), 0);
        rtslib_gencfg_peer p{type, 0, index};
        EXPECT_THAT(stderr_of([&] { EXPECT_EQ(rtslib_gencfg_add_peerinfo(&g, &p), -1); }),
                    HasSubstr("Creation of gencfg peer mask failed \n"));
        EXPECT_EQ(g.peers_count, 0u);
        rtslib_gencfg_delete_peerinfo(&g);
    }
}

TEST(GencfgPeers, ChoicesMustAgreeWithTheFirstEntry)
{
    struct {
        uint16_t major;
        uint32_t first, next;
        const char *text;  // nullptr: accepted
    } const cases[] = {
        {1, 0, 0, nullptr},
        {1, 1, 1, nullptr},
        {1, 0, 1, "rtslib_gencfg_add_peerinfo: Peer Index choice mismatch 0 1\n"},
        {1, 1, 0, "rtslib_gencfg_add_peerinfo: Peer Index choice mismatch 1 0\n"},
        {1, 0, 2, "rtslib_gencfg_add_peerinfo: Peer Index choice mismatch 0 2\n"},
        {1, 0, 3, "OBJECT TYPE invalid\n"},
        {15, 0, 1, "rtslib_gencfg_add_peerinfo: Peer Index choice mismatch 2 1\n"},
        {15, 0, 0, nullptr},  // merged into the mask the first made
        {15, 0, 2, "OBJECT TYPE invalid\n"},
    };
    for (const auto &c : cases) {
        gencfg_msg_t g{};
        g.major_type = c.major;
        ASSERT_EQ(rtslib_gencfg_create_peerinfo(&g, 4), 0);
        rtslib_gencfg_peer first{16, c.first, 3};
        ASSERT_EQ(rtslib_gencfg_add_peerinfo(&g, &first), 0);
        rtslib_gencfg_peer next{16, c.next, 5};
        int rc = 0;
        const std::string err = stderr_of([&] { rc = rtslib_gencfg_add_peerinfo(&g, &next); });
        if (c.text == nullptr) {
            EXPECT_EQ(rc, 0) << c.first << "," << c.next;
            EXPECT_EQ(g.peers_count, c.major == 15 ? 1u : 2u);
        } else {
            EXPECT_EQ(rc, -1);
            EXPECT_THAT(err, HasSubstr(c.text));
        }
        rtslib_gencfg_delete_peerinfo(&g);
    }
}

TEST(GencfgPeers, LookupsReadTheMask)
{
    gencfg_msg_t g{};
    g.major_type = 15;
    ASSERT_EQ(rtslib_gencfg_create_peerinfo(&g, 3), 0);
    for (uint16_t i : {22, 13, 9}) {
        rtslib_gencfg_peer p{1, 0, i};
        ASSERT_EQ(rtslib_gencfg_add_peerinfo(&g, &p), 0);
    }
    EXPECT_EQ(rtslib_gencfg_get_peer_index(&g, entry(g, 0)), 9);
    const gencfg_peer_index_type_t *m = rtslib_gencfg_get_peer_info(&g);
    EXPECT_EQ(rtslib_gencfg_get_peer_index_from_peer_mask(m, 1, 5, 2), 22);
    EXPECT_EQ(rtslib_gencfg_get_peer_index_from_peer_mask(m, 1, 5, 1), -1);
    EXPECT_EQ(rtslib_gencfg_get_peer_index_from_peer_mask(m, 16, 5, 0), -1);
    EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(&g, 1, 13), 1);
    EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(&g, 1, 14), 0);
    EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(&g, 16, 3), 0);
    EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(&g, 2, 13), 0);
    // The presence search goes by capacity: a mask entry no longer counted
    // as in use is still found.
    g.peers_count = 0;
    EXPECT_EQ(rtslib_gencfg_get_peer_info(&g), nullptr);
    EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(&g, 1, 22), 1);
    rtslib_gencfg_delete_peerinfo(&g);

    gencfg_peerinfo_t slots{};
    slots.peer_type = 16;
    slots.peer_choice = 2;
    slots.peer.word2 = 1u << 20;  // slot 16
    EXPECT_EQ(rtslib_gencfg_get_peer_index(nullptr, &slots), 16);
    slots.peer_choice = 1;
    slots.peer.word0 = 0x1234;
    EXPECT_EQ(rtslib_gencfg_get_peer_index(nullptr, &slots), 0x1234);
    slots.peer_choice = 3;
    EXPECT_EQ(rtslib_gencfg_get_peer_index(nullptr, &slots), -1);
}

TEST(GencfgDepends, DataAreaAndEntryLimits)
{
    const std::vector<uint8_t> data(RTSLIB_GENCFG_DEP_DATA + 1, 0xab);
    struct {
        std::vector<uint32_t> lengths;  // all but the last succeed
        uint8_t last_type;
    } const cases[] = {
        {{3134, 1}, 0},
        {{3135}, 0},
        {{3000, 133, 1}, 0},  // 3000 + 136 used: one byte more no longer fits
        {{1, 54}, 54},        // type 54 does not exist
        {{1, 0}, 0},          // nor does an empty dependency
    };
    for (const auto &c : cases) {
        gencfg_msg_t g{};
        ASSERT_EQ(rtslib_gencfg_create_depend(&g), 0);
        EXPECT_EQ(g.flags, RTSLIB_GENCFG_F_DEPS);
        for (size_t i = 0; i < c.lengths.size(); ++i) {
            const bool last = i + 1 == c.lengths.size();
            const uint8_t type = last ? c.last_type : 3;
            EXPECT_EQ(rtslib_gencfg_add_depinfo(&g, type, 7, 8, c.lengths[i], data.data(), 9),
                      last ? -1 : 0)
                << c.lengths[i];
        }
        EXPECT_EQ(g.deps_count, c.lengths.size() - 1);
        rtslib_gencfg_delete_depend(&g);
    }

    gencfg_msg_t g{};
    ASSERT_EQ(rtslib_gencfg_create_depend(&g), 0);
    for (int i = 0; i < RTSLIB_GENCFG_DEP_ENTRIES; ++i)
        ASSERT_EQ(rtslib_gencfg_add_depinfo(&g, 53, uint16_t(i), 2, 5, data.data(), 1), 0);
    EXPECT_EQ(rtslib_gencfg_add_depinfo(&g, 53, 1, 2, 1, data.data(), 1), -1);
    const gencfg_depinfo_t *d = g.deps[39];
    EXPECT_EQ(d->value1, 39);
    EXPECT_EQ(d->data_len, 5u);
    EXPECT_EQ(d->data - g.deps[0]->data, 39 * 8);
    rtslib_gencfg_delete_depend(&g);
    EXPECT_EQ(rtslib_gencfg_add_depinfo(&g, 1, 1, 1, 1, data.data(), 1), -1);
}

// A handle writing into a socket pair, its reports collected.
class GencfgRequest : public tarn::test::RequestLayout {
protected:
    void SetUp() override
    {
        RequestLayout::SetUp();
        h_->lib_error_fn = ReportCollector::sink;
        h_->lib_error_arg = &errors_;
    }
    gencfg_msg_t *written() { return RequestLayout::written<gencfg_msg_t>(); }
    // Queues the answer to the next request.
    void answer(gencfg_msg_t rec)
    {
        rec.hdr.version = RTS_GENCFG_VERSION;
        rec.hdr.type = RTS_MSG_GENCFG;
        rec.hdr.seq = h_->seq + 1;
        void *buf = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(h_, &rec, nullptr, &buf, &len), 0);
        ASSERT_EQ(::send(pair_[1], buf, len, 0), static_cast<ssize_t>(len));
        rtslib_msg_free(h_, buf);
    }
    bool reported(const std::string &text) const
    {
        for (const auto &r : errors_.reports)
            if (r.text.find(text) != std::string::npos) return true;
        return false;
    }

    ReportCollector errors_;
};

TEST_F(GencfgRequest, BlobsBelowTheLimitTravelWhole)
{
    for (uint32_t len : {511999u, 512000u}) {
        std::vector<uint8_t> blob = doubled(len);
        gencfg_msg_t g{};
        g.major_type = 4;
        g.blob = blob.data();
        g.blob_len = len;
        const int rc = rtslib_gencfg_add(h_, &g);
        gencfg_msg_t *w = written();
        if (len < RTSLIB_GENCFG_BLOB_MAX) {
            EXPECT_EQ(rc, 0);
            ASSERT_NE(w, nullptr);
            EXPECT_EQ(w->hdr.op, RTSLIB_GENCFG_OP_ADD);
            EXPECT_EQ(w->hdr.version, RTS_GENCFG_VERSION);
            EXPECT_EQ(w->major_type, 4);
            ASSERT_EQ(w->blob_len, len);
            EXPECT_EQ(std::memcmp(w->blob, blob.data(), len), 0);
            rtslib_msg_idl_release(h_, w);
        } else {
            EXPECT_EQ(rc, ENOSPC);
            EXPECT_EQ(w, nullptr);
            EXPECT_TRUE(reported("Gencfg blob is too large (512000 bytes)\n"));
        }
    }
}

TEST_F(GencfgRequest, CompressedAddSendsTheHookOutputAndRestoresTheBlob)
{
    std::vector<uint8_t> blob = doubled(1000);
    gencfg_msg_t g{};
    g.flags = RTSLIB_GENCFG_F_COMPRESSED;
    g.blob = blob.data();
    g.blob_len = 1000;

    EXPECT_EQ(rtslib_gencfg_add(h_, &g), EOPNOTSUPP);
    EXPECT_EQ(written(), nullptr);
    EXPECT_TRUE(reported("Compression was not initialized for rtslib\n"));

    rtslib_init_blob_compression(h_, failing, twice);
    EXPECT_EQ(rtslib_gencfg_change(h_, &g), 77);
    EXPECT_EQ(written(), nullptr);
    EXPECT_TRUE(reported("Failed to compress gencfg blob of 1000 bytes (rc 77)\n"));
    rtslib_init_blob_compression(h_, overclaiming, twice);
    EXPECT_EQ(rtslib_gencfg_change(h_, &g), EOVERFLOW);
    EXPECT_EQ(written(), nullptr);

    rtslib_init_blob_compression(h_, halve, twice);
    EXPECT_EQ(rtslib_gencfg_add(h_, &g), 0);
    EXPECT_EQ(g.blob, blob.data());
    EXPECT_EQ(g.blob_len, 1000u);
    EXPECT_TRUE(reported("Gencfg blob was compressed from 1000 to 500 bytes (rc 0)\n"));
    gencfg_msg_t *w = written();
    ASSERT_NE(w, nullptr);
    ASSERT_EQ(w->blob_len, 500u);
    for (uint32_t i = 0; i < 500; ++i) ASSERT_EQ(w->blob[i], blob[2 * i]);
    EXPECT_EQ(w->flags, RTSLIB_GENCFG_F_COMPRESSED);
    rtslib_msg_idl_release(h_, w);

    // A delete carries no blob worth compressing.
    rtslib_init_blob_compression(h_, failing, failing);
    EXPECT_EQ(rtslib_gencfg_delete(h_, &g), 0);
    w = written();
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(w->blob_len, 1000u);
    rtslib_msg_idl_release(h_, w);
}

TEST_F(GencfgRequest, FlaggedPartsMustBePresent)
{
    const uint8_t dep[4] = {1, 2, 3, 4};
    gencfg_msg_t g{};
    ASSERT_EQ(rtslib_gencfg_create_depend(&g), 0);
    EXPECT_EQ(rtslib_gencfg_delete(h_, &g), EINVAL);  // flagged, but empty
    ASSERT_EQ(rtslib_gencfg_add_depinfo(&g, 5, 6, 7, 4, dep, 8), 0);
    EXPECT_EQ(rtslib_gencfg_delete(h_, &g), 0);
    gencfg_msg_t *w = written();
    ASSERT_NE(w, nullptr);
    ASSERT_EQ(w->deps_count, 1u);
    EXPECT_EQ(w->deps[0]->dep_type, 5);
    EXPECT_EQ(w->deps[0]->value0, 8);
    EXPECT_EQ(std::memcmp(w->deps[0]->data, dep, 4), 0);
    rtslib_msg_idl_release(h_, w);
    rtslib_gencfg_delete_depend(&g);
    EXPECT_EQ(rtslib_gencfg_delete(h_, &g), EINVAL);
    EXPECT_EQ(written(), nullptr);

    uint8_t key[3] = {9, 9, 9};
    gencfg_msg_t *reply = nullptr;
    struct {
        uint8_t op;
        uint8_t *key;
        uint32_t key_len;
        int rc;
    } const cases[] = {
        {RTSLIB_GENCFG_OP_ADD, key, 0, EINVAL},
        {RTSLIB_GENCFG_OP_ADD, nullptr, 3, EINVAL},
        {RTSLIB_GENCFG_OP_GET, nullptr, 0, EINVAL},
        {RTSLIB_GENCFG_OP_GETNEXT, nullptr, 3, EINVAL},
        {RTSLIB_GENCFG_OP_GETNEXT, nullptr, 0, 0},
        {RTSLIB_GENCFG_OP_ADD, key, 3, 0},
    };
    for (const auto &c : cases) {
        gencfg_msg_t k{};
        k.flags = RTSLIB_GENCFG_F_KEY;
        k.key = c.key;
        k.key_len = c.key_len;
        if (c.rc == 0 && c.op == RTSLIB_GENCFG_OP_GETNEXT) answer(gencfg_msg_t{});
        EXPECT_EQ(rtslib_gencfg_get(h_, &k, c.op, &reply, nullptr), c.rc) << int(c.op);
        gencfg_msg_t *sent = written();
        EXPECT_EQ(sent != nullptr, c.rc == 0);
        if (sent != nullptr) rtslib_msg_idl_release(h_, sent);
        rtslib_msg_idl_release(h_, reply);
    }
    EXPECT_EQ(rtslib_gencfg_add(nullptr, &g), EINVAL);
}

TEST_F(GencfgRequest, ReadAnswersAreInflatedAndCopiedIntoTheObject)
{
    std::vector<uint8_t> plain = doubled(4000);
    std::vector<uint8_t> packed(2000);
    for (uint32_t i = 0; i < 2000; ++i) packed[i] = plain[2 * i];
    uint8_t key[2] = {0x11, 0x22};
    gencfg_msg_t reply_rec{};
    reply_rec.major_type = 15;
    reply_rec.minor_type = 6;
    reply_rec.value3 = 33;
    reply_rec.flags = RTSLIB_GENCFG_F_COMPRESSED | RTSLIB_GENCFG_F_KEY | RTSLIB_GENCFG_F_EXTRA;
    reply_rec.blob = packed.data();
    reply_rec.blob_len = 2000;
    reply_rec.key = key;
    reply_rec.key_len = 2;
    reply_rec.extra_value = 0xfeed;

    struct {
        uint8_t op;
        rtslib_blob_hook_fn inflate;
        int rc;
        uint32_t blob_len;  // of the object afterwards
    } const cases[] = {
        {RTSLIB_GENCFG_OP_GET, twice, 0, 4000},
        {RTSLIB_GENCFG_OP_GET, failing, 77, 0},
        {RTSLIB_GENCFG_OP_GETNEXT, failing, 0, 0},  // kept, without its blob
        {RTSLIB_GENCFG_OP_GET, overclaiming, EOVERFLOW, 0},
        {RTSLIB_GENCFG_OP_ADD_GET, twice, 0, 0},  // the object is not touched
    };
    for (const auto &c : cases) {
        rtslib_init_blob_compression(h_, halve, c.inflate);
        answer(reply_rec);
        gencfg_msg_t g{};
        gencfg_msg_t *reply = nullptr;
        EXPECT_EQ(rtslib_gencfg_get(h_, &g, c.op, &reply, nullptr), c.rc) << int(c.op);
        gencfg_msg_t *sent = written();
        ASSERT_NE(sent, nullptr);
        EXPECT_EQ(sent->hdr.op, c.op);
        rtslib_msg_idl_release(h_, sent);
        EXPECT_EQ(g.blob_len, c.blob_len);
        if (c.rc != 0) {
            EXPECT_EQ(reply, nullptr);
            continue;
        }
        ASSERT_NE(reply, nullptr);
        if (c.inflate == twice) {
            ASSERT_EQ(reply->blob_len, 4000u);
            EXPECT_EQ(std::memcmp(reply->blob, plain.data(), 4000), 0);
            EXPECT_EQ(reply->flags & RTSLIB_GENCFG_F_COMPRESSED, 0u);
            ASSERT_EQ(reply->key_len, 2u);
            EXPECT_EQ(reply->key[1], 0x22);
        }
        if (c.op == RTSLIB_GENCFG_OP_GET || c.op == RTSLIB_GENCFG_OP_GETNEXT) {
            EXPECT_EQ(g.major_type, 15);
            EXPECT_EQ(g.minor_type, 6);
            EXPECT_EQ(g.value3, 33);
            EXPECT_EQ(g.extra_value, 0xfeedu);
            EXPECT_EQ(g.key, reply->key);
        }
        rtslib_msg_idl_release(h_, reply);
    }
}

struct Io {
    std::vector<std::vector<uint8_t>> writes;
    int allocs = 0, frees = 0;
    static void *alloc(void *ctx, uint32_t size)
    {
        ++static_cast<Io *>(ctx)->allocs;
        return std::malloc(size);
    }
    static void release(void *ctx, void *p)
    {
        ++static_cast<Io *>(ctx)->frees;
        std::free(p);
    }
    static int write(void *ctx, const void *buf, uint32_t len)
    {
        auto *b = static_cast<const uint8_t *>(buf);
        static_cast<Io *>(ctx)->writes.emplace_back(b, b + len);
        return 0;
    }
};

TEST_F(GencfgRequest, CallersOwnPathAndCounter)
{
    Io io;
    uint32_t seq = 41;
    gencfg_msg_t g{};
    g.major_type = 2;
    const uint32_t handle_seq = h_->seq;
    EXPECT_EQ(rtslib_gencfg_op_export(h_, &g, RTSLIB_GENCFG_OP_CHANGE, nullptr, nullptr, &seq, &io,
                                      Io::alloc, Io::release, Io::write, nullptr),
              0);
    EXPECT_EQ(seq, 42u);
    EXPECT_EQ(h_->seq, handle_seq);
    EXPECT_EQ(io.allocs, 1);
    EXPECT_EQ(io.frees, 1);
    ASSERT_EQ(io.writes.size(), 1u);
    EXPECT_EQ(written(), nullptr);
    void *rec = nullptr;
    ASSERT_EQ(rtslib_msg_idl_decode(h_, io.writes[0].data(), uint32_t(io.writes[0].size()), &rec,
                                    nullptr),
              0);
    EXPECT_EQ(static_cast<gencfg_msg_t *>(rec)->hdr.seq, 42u);
    EXPECT_EQ(static_cast<gencfg_msg_t *>(rec)->hdr.op, RTSLIB_GENCFG_OP_CHANGE);
    rtslib_msg_idl_release(h_, rec);
}

TEST_F(GencfgRequest, AsyncIntakeInflatesOnlyFlaggedRecords)
{
    std::vector<uint8_t> packed = {1, 2, 3};
    auto received = [&](uint32_t flags) {
        return tarn::test::received_gencfg(h_, flags, packed.data(), 3);
    };
    gencfg_msg_t *m = received(0);
    gencfg_msg_t *const plain = m;
    m->peer_capacity = 9;  // a sender's capacity; no entries came with it
    EXPECT_EQ(rtslib_gencfg_async(h_, &m), 0);
    EXPECT_EQ(m, plain);
    EXPECT_EQ(m->peer_capacity, 0);
    rtslib_msg_idl_release(h_, m);

    m = received(RTSLIB_GENCFG_F_COMPRESSED);
    EXPECT_EQ(rtslib_gencfg_async(h_, &m), EOPNOTSUPP);
    EXPECT_EQ(m->blob_len, 0u);
    rtslib_msg_idl_release(h_, m);

    rtslib_init_blob_compression(h_, halve, twice);
    m = received(RTSLIB_GENCFG_F_COMPRESSED);
    ASSERT_EQ(rtslib_gencfg_async(h_, &m), 0);
    ASSERT_EQ(m->blob_len, 6u);
    EXPECT_EQ(std::vector<uint8_t>(m->blob, m->blob + 6), (std::vector<uint8_t>{1, 1, 2, 2, 3, 3}));
    EXPECT_TRUE(reported("Gencfg blob was decompressed from 3 to 6 bytes (rc 0)\n"));
    rtslib_msg_idl_release(h_, m);
}

}  // namespace
