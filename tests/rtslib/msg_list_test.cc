// Message lists: built by adds, filled from raw and envelope buffers.
#include <cerrno>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::raw_message;

class MessageList : public testing::Test {
protected:
    void SetUp() override
    {
        h_ = rtslib_open_nc();
        ASSERT_NE(h_, nullptr);
        list_ = rtslib_msg_list_alloc(h_);
        ASSERT_NE(list_, nullptr);
    }
    void TearDown() override
    {
        rtslib_msg_list_free(h_, list_);
        rtslib_close(h_);
    }
    // A message in a block of its own, as adds require.
    void *owned(uint8_t type, uint32_t len = 32)
    {
        auto m = raw_message(len, 1, type);
        void *block = rtslib_size_alloc(h_, len);
        std::memcpy(block, m.data(), len);
        return block;
    }
    // Raw messages back to back in a buffer the list may take.
    uint8_t *buffer_of(const std::vector<uint32_t> &lengths, uint32_t &total)
    {
        total = 0;
        for (uint32_t l : lengths) total += l;
        auto *buf = static_cast<uint8_t *>(rtslib_size_alloc(h_, total));
        uint32_t off = 0;
        for (size_t i = 0; i < lengths.size(); ++i) {
            auto m = raw_message(lengths[i], static_cast<uint32_t>(i), static_cast<uint8_t>(5 + i));
            std::memcpy(buf + off, m.data(), m.size());
            off += lengths[i];
        }
        return buf;
    }

    rtslib_cookie *h_ = nullptr;
    rtslib_msg_list *list_ = nullptr;
};

TEST_F(MessageList, AddsShareVersionAndTypeAndGrowOnceToSixteen)
{
    ASSERT_EQ(rtslib_msg_list_add(h_, list_, owned(RTS_MSG_IFDEV)), 0);
    EXPECT_EQ(list_->kind, RTSLIB_MSG_LIST_ADDED);
    EXPECT_EQ(list_->type, RTS_MSG_IFDEV);
    EXPECT_EQ(list_->version, 'h');
    EXPECT_EQ(list_->free_slots, 16);

    void *route = owned(RTS_MSG_ROUTE);
    EXPECT_EQ(rtslib_msg_list_add(h_, list_, route), EINVAL);
    rtslib_msg_free(h_, route);
    EXPECT_EQ(list_->count, 1);

    for (int i = 1; i < 16; ++i) ASSERT_EQ(rtslib_msg_list_add(h_, list_, owned(RTS_MSG_IFDEV)), 0);
    EXPECT_EQ(list_->count, 16);
    EXPECT_EQ(list_->free_slots, 16);  // never lowered by adds
    void *extra = owned(RTS_MSG_IFDEV);
    EXPECT_EQ(rtslib_msg_list_add(h_, list_, extra), ENOBUFS);
    rtslib_msg_free(h_, extra);
}

TEST_F(MessageList, IndexBounds)
{
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, 0), nullptr);  // no array yet
    void *m = owned(RTS_MSG_IFDEV);
    ASSERT_EQ(rtslib_msg_list_add(h_, list_, m), 0);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, 0), m);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, 1), nullptr);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, -1), nullptr);
    EXPECT_EQ(rtslib_msg_list_get_by_index(nullptr, 0), nullptr);
}

TEST_F(MessageList, RequiredArguments)
{
    uint8_t b[4] = {};
    EXPECT_EQ(rtslib_msg_list_alloc(nullptr), nullptr);
    EXPECT_EQ(rtslib_msg_list_add(nullptr, list_, b), EINVAL);
    EXPECT_EQ(rtslib_msg_list_add(h_, nullptr, b), EINVAL);
    EXPECT_EQ(rtslib_msg_list_add(h_, list_, nullptr), EINVAL);
    EXPECT_EQ(rtslib_msg_list_fillin(h_, list_, 0, b), EINVAL);
    EXPECT_EQ(rtslib_msg_list_fillin(h_, list_, 4, nullptr), EINVAL);
    EXPECT_EQ(rtslib_msg_list_fillin(nullptr, list_, 4, b), EINVAL);
    rtslib_msg_list_free(h_, nullptr);
}

TEST_F(MessageList, RawBufferIsSplitInPlace)
{
    uint32_t total = 0;
    uint8_t *buf = buffer_of({40, 60, 24}, total);
    ASSERT_EQ(total, 124u);
    ASSERT_EQ(rtslib_msg_list_fillin(h_, list_, total, buf), 0);
    EXPECT_EQ(list_->kind, RTSLIB_MSG_LIST_RAW_BUFFER);
    ASSERT_EQ(list_->count, 3);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, 0), buf);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, 1), buf + 40);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list_, 2), buf + 100);
    EXPECT_EQ(list_->type, 7);  // taken from each message in turn: the last
    // The list owns the buffer now; TearDown frees it with the list.
}

TEST_F(MessageList, MalformedRawBuffersAreRefusedWithoutOverrun)
{
    const std::vector<std::vector<uint32_t>> shapes = {{40, 60, 24}, {24}, {48}};
    const struct {
        size_t msg;      // which message's length word to change
        uint32_t claim;  // the lie
        uint32_t cut;    // bytes taken off the buffer's end
    } lies[] = {{1, 0, 0}, {1, 1000, 0}, {0, 8, 0}, {0, 23, 0}, {0, 24, 1}, {0, 48, 30}};
    for (const auto &lie : lies) {
        for (const auto &shape : shapes) {
            if (lie.msg >= shape.size()) continue;
            uint32_t total = 0;
            uint8_t *buf = buffer_of(shape, total);
            if (lie.cut >= total) {
                rtslib_msg_free(h_, buf);
                continue;
            }
            uint32_t off = 0;
            for (size_t i = 0; i < lie.msg; ++i) off += shape[i];
            if (lie.claim != shape[lie.msg])
                std::memcpy(buf + off + RTS_HDR_LEN_OFF, &lie.claim, 4);
            else if (lie.cut == 0)
                continue;
            EXPECT_EQ(rtslib_msg_list_fillin(h_, list_, total - lie.cut, buf), EINVAL)
                << "claim " << lie.claim << " cut " << lie.cut;
            EXPECT_EQ(list_->count, 0);
            rtslib_msg_free(h_, buf);
        }
    }
}

// A buffer holds raw messages or envelopes, as its first message says. Each
// case here once made the counting and the filling walk disagree (an endless
// walk writing past the entries), read past the buffer, or handed out a
// record that is not there. Buffers are exactly sized so ASan sees overreads.
TEST_F(MessageList, BuffersMixingKindsOrLackingRecordsAreRefused)
{
    using tarn::test::envelope;
    auto cat = [](std::vector<uint8_t> a, const std::vector<uint8_t> &b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    // An envelope of route type 2 whose type word (at the raw length
    // offset) reads as 0, and one of type 3, which has no record.
    std::vector<uint8_t> env_zero = envelope(RTS_IDL_MAGIC_IDR, 12, 12);
    env_zero[8] = 0;
    std::vector<uint8_t> env_type3 = envelope(RTS_IDL_MAGIC_IDR, 12, 12);
    env_type3[8] = 3;
    const struct {
        const char *what;
        std::vector<uint8_t> bytes;
        int result;
    } cases[] = {
        {"raw then envelope", cat(raw_message(24, 1), env_zero), EINVAL},
        {"envelope then raw", cat(env_type3, raw_message(24, 1)), EINVAL},
        {"envelope then 8 raw bytes", cat(env_type3, std::vector<uint8_t>(8, 0)), EINVAL},
        {"envelope then a short envelope", cat(env_type3, {0x22, 0x50, 0, 0, 0}), EINVAL},
        {"envelope without a record", env_type3, EIO},
    };
    for (const auto &c : cases) {
        auto *buf = static_cast<uint8_t *>(rtslib_size_alloc(h_, c.bytes.size()));
        std::memcpy(buf, c.bytes.data(), c.bytes.size());
        rtslib_msg_list *list = rtslib_msg_list_alloc(h_);
        EXPECT_EQ(rtslib_msg_list_fillin(h_, list, static_cast<uint32_t>(c.bytes.size()), buf),
                  c.result)
            << c.what;
        EXPECT_EQ(list->count, 0) << c.what;
        rtslib_msg_list_free(h_, list);
        rtslib_msg_free(h_, buf);
    }
}

TEST_F(MessageList, EnvelopesAreDecodedIntoRecords)
{
    // Three route-table messages encoded by the library, back to back.
    std::vector<uint8_t> all;
    for (uint16_t tid = 1; tid <= 3; ++tid) {
        rtb_msg_t rec{};
        rec.hdr.version = 'b';
        rec.hdr.type = RTS_MSG_RTTABLE;
        rec.tid = tid;
        void *enc = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(h_, &rec, nullptr, &enc, &len), 0);
        auto *p = static_cast<uint8_t *>(enc);
        all.insert(all.end(), p, p + len);
        rtslib_msg_free(h_, enc);
    }
    ASSERT_EQ(rtslib_msg_list_fillin(h_, list_, static_cast<uint32_t>(all.size()), all.data()), 0);
    EXPECT_EQ(list_->kind, RTSLIB_MSG_LIST_FILLED);
    ASSERT_EQ(list_->count, 3);
    EXPECT_EQ(list_->type, RTS_MSG_RTTABLE);
    EXPECT_EQ(list_->version, 'b');
    for (int i = 0; i < 3; ++i) {
        auto *rec = static_cast<rtb_msg_t *>(rtslib_msg_list_get_by_index(list_, i));
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(rec->tid, i + 1);
    }

    // A garbled second message (a TLV body of 4 stray bytes): the first
    // stays decoded, and the list releases it as usual.
    const std::vector<uint8_t> first(all.begin(), all.begin() + all.size() / 3);
    std::vector<uint8_t> bad = first;
    const uint8_t stray[16] = {0x11, 0x50, 0, 0, 4, 0, 0, 0, RTS_MSG_RTTABLE, 0, 0, 0};
    bad.insert(bad.end(), stray, stray + 16);
    rtslib_msg_list *partial = rtslib_msg_list_alloc(h_);
    EXPECT_EQ(rtslib_msg_list_fillin(h_, partial, static_cast<uint32_t>(bad.size()), bad.data()),
              EINVAL);
    EXPECT_EQ(partial->count, 1);
    rtslib_msg_list_free(h_, partial);
}

}  // namespace
