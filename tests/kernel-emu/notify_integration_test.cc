// Notifications end to end: library handles on a real emulator, one
// changing routes, others listening.
#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::command;
using tarn::test::KernelEmulator;
using tarn::test::socket_state;

class Listeners : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emu_.running()); }
    void TearDown() override
    {
        for (rtslib_cookie *h : handles_) rtslib_close(h);
    }
    rtslib_cookie *open(uint32_t listen_low)
    {
        rtslib_cookie *h = rtslib_open(static_cast<uint8_t>(handles_.size() + 1));
        EXPECT_NE(h, nullptr);
        if (h == nullptr) return nullptr;
        handles_.push_back(h);
        const uint32_t mask[2] = {listen_low, 0};
        if (listen_low != 0) {
            EXPECT_EQ(rtslib_setsockopt(h, ROUTE_LISTEN_MASK, mask, sizeof mask), 0);
        }
        return h;
    }
    // Adds 10.net/16 with an acknowledgement, so that by the time it returns
    // the emulator has sent every notification of the change.
    static void add(rtslib_cookie *h, uint8_t net)
    {
        const uint8_t prefix[4] = {10, net, 0, 0};
        uint32_t ack = 0;
        ASSERT_EQ(rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 5, 0, prefix, 16,
                                 nullptr, &ack),
                  0);
    }
    // The next message on `h`, decoded; its header fields and prefix.
    struct Note {
        uint32_t magic;
        uint8_t type, op;
        uint32_t seq;
        std::vector<uint8_t> prefix;
    };
    static Note next(rtslib_cookie *h)
    {
        void *msg = nullptr;
        uint32_t len = 0;
        Note n{};
        EXPECT_EQ(rtslib_long_msg_read(h, &msg, &len), 0);
        if (msg == nullptr) return n;
        rtslib_idl_peek_magic(&n.magic, msg, len);
        void *rec = nullptr;
        EXPECT_EQ(rtslib_msg_idl_decode(h, msg, len, &rec, nullptr), 0);
        rtslib_msg_free(h, msg);
        if (rec == nullptr) return n;
        const auto *rt = static_cast<const rt_msg_t *>(rec);
        n.type = rt->hdr.type;
        n.op = rt->hdr.op;
        n.seq = rt->hdr.seq;
        if (n.type == RTS_MSG_ROUTE) n.prefix.assign(rt->prefix, rt->prefix + rt->prefix_len);
        rtslib_msg_idl_release(h, rec);
        return n;
    }
    static bool nothing_waiting(rtslib_cookie *h)
    {
        return rtslib_peek_pkt_len(h->fd) == -1 && errno == EAGAIN;
    }

    KernelEmulator emu_;
    std::vector<rtslib_cookie *> handles_;
};

TEST_F(Listeners, ListenerReadsTheRouteAnotherHandleAdded)
{
    rtslib_cookie *changer = open(0);
    rtslib_cookie *listener = open(0x200380);
    ASSERT_TRUE(changer != nullptr && listener != nullptr);
    EXPECT_EQ(socket_state(listener->fd, "listen-mask"), "0x0000000000200380");
    EXPECT_EQ(socket_state(listener->fd, "sender-id"), "2");
    add(changer, 1);
    Note n = next(listener);
    EXPECT_EQ(n.type, RTS_MSG_ROUTE);
    EXPECT_EQ(n.op, RTS_OP_ADD);
    EXPECT_EQ(n.seq, 1u);
    EXPECT_EQ(n.prefix, (std::vector<uint8_t>{10, 1, 0, 0}));
    EXPECT_EQ(socket_state(listener->fd, "kernel-seq"), "2");
    EXPECT_TRUE(nothing_waiting(changer));

    // A change made through the control path arrives as TLV.
    int err = -1;
    command(-1, "route-delete 0 2 0a01 16", &err);
    ASSERT_EQ(err, 0);
    n = next(listener);
    EXPECT_EQ(n.magic, RTS_IDL_MAGIC_TLV);
    EXPECT_EQ(n.op, RTS_OP_DELETE);
    EXPECT_EQ(n.seq, 2u);
    EXPECT_TRUE(nothing_waiting(listener));
}

TEST_F(Listeners, StalledListenerLosesNotificationsOthersDoNot)
{
    rtslib_cookie *changer = open(0);
    rtslib_cookie *stalled = open(0x200);
    rtslib_cookie *reader = open(0x200);
    ASSERT_TRUE(changer != nullptr && stalled != nullptr && reader != nullptr);
    ASSERT_EQ(command(stalled->fd, "pause"), "");
    ASSERT_EQ(command(stalled->fd, "queue-bound 1"), "");
    for (uint8_t net : {1, 2, 3}) add(changer, net);  // every answer arrived
    for (uint8_t net : {1, 2, 3})
        EXPECT_EQ(next(reader).prefix, (std::vector<uint8_t>{10, net, 0, 0}));
    EXPECT_EQ(socket_state(stalled->fd, "queued"), "1");
    EXPECT_EQ(socket_state(stalled->fd, "dropped"), "2");
    EXPECT_TRUE(nothing_waiting(stalled));
    ASSERT_EQ(command(stalled->fd, "resume"), "");
    const Note n = next(stalled);
    EXPECT_EQ(n.prefix, (std::vector<uint8_t>{10, 1, 0, 0}));
    EXPECT_EQ(n.seq, 1u);
    EXPECT_TRUE(nothing_waiting(stalled));
    // The dropped ones used up their numbers: the reader sees the gap.
    EXPECT_EQ(socket_state(stalled->fd, "kernel-seq"), "4");
}

}  // namespace
