// Faults on library sessions against tarn-emu: what the session reports, and
// that the emulator keeps serving the other clients.
#include <cerrno>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "session_client.h"
#include "tarn_emulator.h"

namespace tarn::test {
namespace {

// One route add and delete on `s`, both answered with success.
void round_trip(SessionClient &s, uint32_t host)
{
    const tarn_rt_request rq = s.route(host);
    ASSERT_EQ(tarn_rt_add(s.get(), &rq), 0);
    ASSERT_EQ(s.next(), 0);
    EXPECT_EQ(s.seen().add_result, 0u);
    ASSERT_EQ(tarn_rt_delete(s.get(), &rq), 0);
    ASSERT_EQ(s.next(), 0);
    EXPECT_EQ(s.seen().delete_result, 0u);
}

TEST(TarnEmuFaults, LostConnectionsAreReportedAndOthersKeepBeingServed)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    const struct {
        const char *fault;  // control command, CLIENT appended
        bool unread;        // the victim's last request is left unread
        int error;          // what the victim's next read reports
    } cases[] = {
        {"truncate", false, EPIPE},  // closes mid-frame
        // A local socket closed with input unread is reset, like a TCP one
        // with linger 0.
        {"reset", true, ECONNRESET},
    };
    SessionClient bystander(emu.socket_path());
    ASSERT_TRUE(bystander.start("bystander"));
    const tarn_rt_request kept = bystander.route(1);
    ASSERT_EQ(tarn_rt_add(bystander.get(), &kept), 0);
    ASSERT_EQ(bystander.next(), 0);
    int client = 1;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        SessionClient victim(emu.socket_path());
        ++client;
        ASSERT_TRUE(victim.start("victim"));
        const tarn_rt_request rq = victim.route(100);
        ASSERT_EQ(tarn_rt_add(victim.get(), &rq), 0);
        ASSERT_EQ(victim.next(), 0);
        ASSERT_EQ(command(-1, "count"), "routes 2\n");
        if (c.unread) {
            ASSERT_EQ(emu.control("stall " + std::to_string(client)), "ok\n");
            ASSERT_EQ(tarn_rt_delete(victim.get(), &rq), 0);
        }
        ASSERT_EQ(emu.control(std::string(c.fault) + " " + std::to_string(client)), "ok\n");
        EXPECT_EQ(victim.next(), c.error);
        EXPECT_EQ(victim.seen().losses, 1);
        EXPECT_EQ(tarn_session_close(victim.get()), 0);
        // The victim's route goes with its connection; the bystander's stays,
        // and it is served on as before.
        EXPECT_TRUE(emu.wait_for_log("client " + std::to_string(client) + ": closed"));
        round_trip(bystander, 2);
        EXPECT_EQ(command(-1, "count"), "routes 1\n");
    }
    SessionClient late(emu.socket_path());
    EXPECT_TRUE(late.start("late"));
}

TEST(TarnEmuFaults, SlowReaderGetsEveryAnswerOnceResumed)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    SessionClient slow(emu.socket_path()), other(emu.socket_path());
    ASSERT_TRUE(slow.start("slow"));
    ASSERT_TRUE(other.start("other"));
    ASSERT_EQ(emu.control("stall 1"), "ok\n");
    constexpr uint32_t kRequests = 40;
    for (uint32_t i = 0; i < kRequests; ++i) {
        const tarn_rt_request rq = slow.route(i);
        ASSERT_EQ(tarn_rt_add(slow.get(), &rq), 0);
    }
    // Not read while stalled: no answer can exist yet.
    EXPECT_EQ(slow.next(50), ETIMEDOUT);
    round_trip(other, 1000);
    ASSERT_EQ(emu.control("resume 1"), "ok\n");
    for (uint32_t i = 0; i < kRequests; ++i) ASSERT_EQ(slow.next(), 0);
    EXPECT_EQ(slow.seen().adds, kRequests);
    EXPECT_EQ(slow.seen().add_result, 0u);
    EXPECT_EQ(slow.seen().losses, 0);
    EXPECT_EQ(command(-1, "count"), "routes " + std::to_string(kRequests) + "\n");
}

}  // namespace
}  // namespace tarn::test
