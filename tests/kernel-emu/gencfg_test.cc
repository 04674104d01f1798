// Configuration objects in the emulated kernel, without processes: answers
// and notifications per operation, what tells objects apart, refusals, and
// lists and compressed blobs going back out exactly as they came in.
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_config.h"
#include "kernel.h"
#include <tarn/tarn.h>

namespace {

using namespace tarn::kemu;

constexpr uint64_t kGencfgListen = uint64_t{0x1} << 32;  // high word, bit 0x1

using Bytes = std::vector<uint8_t>;

class GencfgModel : public testing::Test {
protected:
    GencfgModel()
    {
        asker_ = kernel_.open_socket("asker");
        listener_ = kernel_.open_socket("listener");
        kernel_.socket(listener_)->state.listen_mask = kGencfgListen;
    }
    ~GencfgModel() override { rtslib_close(codec_); }

    const gencfg_msg_t *decode(const Bytes &bytes)
    {
        auto &arena = arenas_.emplace_back(bytes.size() + 64 * 1024);
        void *rec = nullptr;
        EXPECT_EQ(rtslib_msg_idl_decode_pa(codec_, bytes.data(), static_cast<uint32_t>(bytes.size()),
                                           &rec, nullptr, arena.data(),
                                           static_cast<uint32_t>(arena.size())),
                  0);
        return static_cast<const gencfg_msg_t *>(rec);
    }
    std::vector<Outgoing> send(const gencfg_msg_t &req, const void *map = nullptr)
    {
        const Bytes bytes = encode_envelope(&req, map, map ? Encoding::kTlv : Encoding::kIdr);
        return kernel_.handle_message(asker_, bytes.data(), bytes.size());
    }

    EmuConfig cfg_;
    EmuLog log_{false};
    Kernel kernel_{cfg_, log_};
    uint64_t asker_ = 0, listener_ = 0;
    rtslib_cookie *codec_ = rtslib_open_nc();
    std::deque<Bytes> arenas_;
};

gencfg_msg_t request(uint8_t op, uint16_t minor, Bytes &key, Bytes &blob, uint32_t seq = 7)
{
    gencfg_msg_t m{};
    m.hdr.version = kGencfgVersion;
    m.hdr.type = RTS_MSG_GENCFG;
    m.hdr.op = op;
    m.hdr.seq = seq;
    m.major_type = 15;
    m.minor_type = minor;
    if (!key.empty()) m.flags |= kGencfgFlagKey;
    m.key = key.data();
    m.key_len = static_cast<uint32_t>(key.size());
    m.blob = blob.data();
    m.blob_len = static_cast<uint32_t>(blob.size());
    return m;
}

Bytes bytes_of(const uint8_t *p, uint32_t len)
{
    return p == nullptr ? Bytes{} : Bytes(p, p + len);
}

TEST_F(GencfgModel, OperationsAnswerAndNotify)
{
    Bytes k1{'a'}, k2{'a', 'b'}, k3{'z'}, none;
    Bytes b1{1, 1}, b2{2, 2, 2}, b3{3}, b4{4, 4, 4, 4};
    struct Step {
        uint8_t op;
        uint16_t minor;
        Bytes *key, *blob;
        int answer_error;        // -1: no answer
        const Bytes *answer_key, *answer_blob;
        int notify_op;           // 0: listeners hear nothing
        const Bytes *notify_blob;
    };
    const Step steps[] = {
        {4, 1, &k1, &none, 2, &k1, &none, 0, nullptr},       // get of an unknown object
        {1, 1, &k1, &b1, -1, nullptr, nullptr, 1, &b1},      // add: heard, not answered
        {1, 1, &k1, &b2, -1, nullptr, nullptr, 0, nullptr},  // add over it: refused quietly
        {8, 1, &k1, &b2, 17, &k1, &none, 0, nullptr},        // add-and-get over it: EEXIST
        {8, 1, &k2, &b2, 0, &k2, &b2, 1, &b2},               // longer key: another object
        {1, 2, &k1, &b3, -1, nullptr, nullptr, 1, &b3},      // other minor: another object
        {4, 1, &k1, &none, 0, &k1, &b1, 0, nullptr},
        {4, 2, &k1, &none, 0, &k1, &b3, 0, nullptr},
        {2, 1, &k3, &b4, -1, nullptr, nullptr, 0, nullptr},  // change of an unknown one
        {9, 1, &k3, &b4, 2, &k3, &none, 0, nullptr},
        {9, 1, &k1, &b4, 0, &k1, &b4, 2, &b4},
        {5, 1, &none, &none, 0, &k1, &b4, 0, nullptr},       // walk from the minor's start
        {5, 1, &k1, &none, 0, &k2, &b2, 0, nullptr},
        {5, 1, &k2, &none, 0, &k1, &b3, 0, nullptr},         // on into the next minor
        {5, 2, &k1, &none, 2, &k1, &none, 0, nullptr},       // end of the major type
        {3, 1, &k1, &none, -1, nullptr, nullptr, 3, &b4},    // delete: heard with its blob
        {3, 1, &k1, &none, -1, nullptr, nullptr, 0, nullptr},
        {4, 1, &k1, &none, 2, &k1, &none, 0, nullptr},
    };
    uint32_t seq = 100;
    for (const Step &s : steps) {
        SCOPED_TRACE("op " + std::to_string(s.op) + " seq " + std::to_string(seq));
        const auto out = send(request(s.op, s.minor, *s.key, *s.blob, seq));
        size_t i = 0;
        if (s.answer_error >= 0) {
            ASSERT_GT(out.size(), i);
            EXPECT_EQ(out[i].socket, asker_);
            const gencfg_msg_t *a = decode(out[i++].bytes);
            ASSERT_NE(a, nullptr);
            EXPECT_EQ(a->hdr.error, static_cast<uint32_t>(s.answer_error));
            EXPECT_EQ(a->hdr.op, s.op);
            EXPECT_EQ(a->hdr.seq, seq);
            EXPECT_EQ(bytes_of(a->key, a->key_len), *s.answer_key);
            EXPECT_EQ(bytes_of(a->blob, a->blob_len), *s.answer_blob);
        }
        if (s.notify_op != 0) {
            ASSERT_GT(out.size(), i);
            EXPECT_EQ(out[i].socket, listener_);
            EXPECT_TRUE(out[i].notification);
            const gencfg_msg_t *n = decode(out[i++].bytes);
            ASSERT_NE(n, nullptr);
            EXPECT_EQ(n->hdr.op, s.notify_op);
            EXPECT_EQ(bytes_of(n->blob, n->blob_len), *s.notify_blob);
        }
        EXPECT_EQ(out.size(), i);
        ++seq;
    }
    EXPECT_EQ(kernel_.gencfg().size(), 2u);
}

TEST_F(GencfgModel, RefusalsCarryTheKernelsErrors)
{
    Bytes key{'k'}, none;
    Bytes big(kGencfgMaxBlob), biggest(kGencfgMaxBlob - 1, 0x5a);
    gencfg_depinfo_t dep{};
    std::vector<gencfg_depinfo_t *> many(41, &dep);
    struct Case {
        const char *what;
        gencfg_msg_t req;
        uint32_t error;
    } cases[] = {
        {"blob at the limit", request(8, 1, key, big), 28},
        {"key flag without a key", request(8, 1, none, none), 22},
        {"dependency flag without a list", request(8, 1, key, none), 22},
        {"more dependencies than a list holds", request(8, 1, key, none), 22},
        {"largest blob", request(8, 1, key, biggest), 0},
    };
    cases[1].req.flags |= kGencfgFlagKey;
    cases[2].req.flags |= kGencfgFlagDeps;
    cases[3].req.flags |= kGencfgFlagDeps;
    cases[3].req.deps = many.data();
    cases[3].req.deps_count = static_cast<uint32_t>(many.size());
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const auto out = send(c.req);
        ASSERT_FALSE(out.empty());
        const gencfg_msg_t *a = decode(out[0].bytes);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->hdr.error, c.error);
        // Only what was stored is heard, and a stored blob comes back whole.
        EXPECT_EQ(out.size(), c.error == 0 ? 2u : 1u);
        if (c.error == 0) {
            EXPECT_EQ(bytes_of(a->blob, a->blob_len), biggest);
        }
    }
}

TEST_F(GencfgModel, CompressedBlobAndListsPassThroughUntouched)
{
    // Not a valid compressed stream: the kernel must not try to inflate it.
    Bytes key{0, 1, 2}, blob{0xde, 0xad, 0xbe, 0xef, 0x00, 0xff};
    Bytes dep_data{9, 8, 7};
    gencfg_msg_t req = request(8, 3, key, blob);
    req.flags |= kGencfgFlagCompressed | kGencfgFlagDeps | kGencfgFlagExtra;
    req.extra_value = 0x12345678;
    req.value3 = 33;
    req.value4 = 44;
    gencfg_depinfo_t dep{5, 53, 100, 200, 0, 0, 0, dep_data.data(), 3};
    gencfg_depinfo_t *deps[] = {&dep};
    gencfg_peerinfo_t peer{0, 16, 2, {0x88, 0, 0, 0}};
    gencfg_peerinfo_t *peers[] = {&peer};
    req.deps = deps;
    req.deps_count = 1;
    req.peers = peers;
    req.peers_count = 1;
    gencfg_msg_map_t map{};
    gencfg_depinfo_map_t dep_map{0xff};
    gencfg_peerinfo_map_t peer_map{0xf, {0xf}};
    map.bits = 0x3fff;
    map.hdr.bits = (1u << RTS_HDR_BIT_INFO) - 1;
    map.deps = &dep_map;
    map.peers = &peer_map;
    for (const void *m : {static_cast<const void *>(&map), static_cast<const void *>(nullptr)}) {
        SCOPED_TRACE(m ? "TLV" : "IDR");
        const auto out = send(req, m);
        ASSERT_EQ(out.size(), 2u);
        for (const auto &o : out) {
            const gencfg_msg_t *a = decode(o.bytes);
            ASSERT_NE(a, nullptr);
            EXPECT_EQ(a->hdr.error, 0u);
            EXPECT_EQ(a->flags, req.flags);
            EXPECT_EQ(bytes_of(a->blob, a->blob_len), blob);
            EXPECT_EQ(a->extra_value, 0x12345678u);
            EXPECT_EQ(a->value3 * 100 + a->value4, 3344);
            ASSERT_EQ(a->deps_count, 1u);
            EXPECT_EQ(a->deps[0]->dep_type, 53);
            EXPECT_EQ(a->deps[0]->value2, 200);
            EXPECT_EQ(bytes_of(a->deps[0]->data, a->deps[0]->data_len), dep_data);
            ASSERT_EQ(a->peers_count, 1u);
            EXPECT_EQ(a->peers[0]->peer_choice, 2u);
            EXPECT_EQ(a->peers[0]->peer.word0, 0x88u);
        }
        // The second round finds it stored: delete it for the next.
        Bytes none;
        EXPECT_EQ(send(request(3, 3, key, none)).size(), 1u);
    }
}

TEST_F(GencfgModel, ControlCommands)
{
    struct Case {
        const char *command;
        int error;
        const char *output;  // substring; "" for none expected
        size_t heard;
    } cases[] = {
        {"gencfg-add 15 1 6b65 0102 0x20000", 0, "", 1},
        {"gencfg-add 15 1 6b65 03", EEXIST, "", 0},
        {"gencfg-add 15 1 6b65", EINVAL, "", 0},
        {"gencfg-add 70000 1 6b65 03", EINVAL, "", 0},
        {"gencfg-add 15 2 - 03", 0, "", 1},
        {"gencfg-list", 0, "gencfg 15 1 6b65 flags 0x20002 blob 2 peers 0 deps 0\ngencfg 15 2 -", 0},
        {"dump", 0, "gencfg 15 2 - flags 0x0 blob 1", 0},
        {"gencfg-show 15 1 6b65", 0, "key 6b65\nmajor 15\nminor 1\n", 0},
        {"gencfg-show 15 1 6b65", 0, "blob 0102\n", 0},
        {"gencfg-show 15 9 6b65", ENOENT, "", 0},
        {"gencfg-delete 15 1 6b65", 0, "", 1},
        {"gencfg-delete 15 1 6b65", ENOENT, "", 0},
        {"help", 0, "gencfg-show MAJOR MINOR KEYHEX\n", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        std::string out;
        EXPECT_EQ(kernel_.command(0, c.command, out), c.error);
        EXPECT_NE(out.find(c.output), std::string::npos) << out;
        auto &q = kernel_.socket(listener_)->queue;
        EXPECT_EQ(q.size(), c.heard);
        for (; !q.empty(); q.pop()) {
            const gencfg_msg_t *n = decode(q.front());
            ASSERT_NE(n, nullptr);
            EXPECT_EQ(n->hdr.op, std::string(c.command).find("delete") == std::string::npos ? 1 : 3);
        }
    }
}

}  // namespace
