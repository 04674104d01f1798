// Asynchronous contexts: creation, attachment, modes and their failures,
// destruction.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "async_test_support.h"

namespace {

using tarn::test::AsyncTest;
using tarn::test::listen_mask;
using tarn::test::Report;
using tarn::test::Seen;
using tarn::test::socket_option;

uint32_t option_u32(rtslib_cookie *h, int optname)
{
    const auto v = socket_option(h, optname, 4);
    uint32_t n = 0;
    std::memcpy(&n, v.data(), 4);
    return n;
}

class AsyncContext : public AsyncTest {};

TEST_F(AsyncContext, CreationTakesTheKernelsSequenceAndHappensOnce)
{
    uint32_t seq = 0;
    for (int i = 0; i < 3; ++i) rtslib_seq_get_next(h_, &seq);
    ASSERT_EQ(h_->seq, 4u);
    uint32_t kernel = 0;
    ASSERT_EQ(rtslib_get_async_seq_num(h_, &kernel), 0);
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    EXPECT_EQ(h_->seq, kernel);
    EXPECT_EQ(h_->num_read_msg, 10u);
    evContext ev{};
    EXPECT_EQ(rtslib_get_async_context(h_, &ev), 0);
    EXPECT_NE(ev.opaque, nullptr);
    EXPECT_EQ(rtslib_create_async_context(h_), EINVAL);
    EXPECT_EQ(rtslib_set_async_context(h_, ev), EINVAL);
    EXPECT_EQ(rtslib_set_async_info_nocontext(h_, nullptr), EINVAL);
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(AsyncContext, NoContextModeHasNoEventLoop)
{
    int fd = -1;
    ASSERT_EQ(rtslib_set_async_info_nocontext(h_, &fd), 0);
    EXPECT_EQ(fd, h_->fd);
    EXPECT_EQ(h_->num_read_msg, 0u);
    evContext ev{};
    EXPECT_EQ(rtslib_get_async_context(h_, &ev), EINVAL);
    EXPECT_EQ(rtslib_async_event_loop(h_), EINVAL);
    EXPECT_EQ(rtslib_async_event_loop_sighdl(h_), EINVAL);
    rtslib_cookie *bare = open();
    EXPECT_EQ(rtslib_async_event_loop(bare), EINVAL);
    EXPECT_EQ(rtslib_get_async_context(bare, &ev), EINVAL);
    rtslib_close(bare);
}

TEST_F(AsyncContext, ModeBitsAreCheckedBeforeTheyAreSent)
{
    EXPECT_EQ(rtslib_set_async_mode(h_, 0x1), EINVAL);  // no context yet
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    struct Case {
        uint32_t bits;
        int rc;
    };
    for (const Case c : {Case{0x3a1, EINVAL}, Case{0x39f, 0}, Case{0x2, EINVAL}, Case{0, 0},
                         Case{0x81, 0}}) {
        SCOPED_TRACE(c.bits);
        const uint32_t before = option_u32(h_, ROUTE_ASYNC_MODE);
        EXPECT_EQ(rtslib_set_async_mode(h_, c.bits), c.rc);
        EXPECT_EQ(option_u32(h_, ROUTE_ASYNC_MODE), c.rc == 0 ? c.bits : before);
    }
}

TEST_F(AsyncContext, OptionsReachTheSocket)
{
    ASSERT_EQ(rtslib_setup_master_mode(h_, 7), 0);
    ASSERT_EQ(rtslib_setup_slave_mode(h_, 8), 0);
    ASSERT_EQ(rtslib_setup_local_slave_mode(h_, 9), 0);
    EXPECT_EQ(option_u32(h_, ROUTE_MASTER_MODE), 7u);
    EXPECT_EQ(option_u32(h_, ROUTE_SLAVE_MODE), 8u);
    EXPECT_EQ(option_u32(h_, ROUTE_LOCAL_SLAVE_MODE), 9u);

    uint8_t filter[ROUTE_FILTER_DATA_LEN];
    for (size_t i = 0; i < sizeof filter; ++i) filter[i] = static_cast<uint8_t>(i * 7);
    EXPECT_EQ(rtslib_async_register_filters(h_, filter), EINVAL);  // needs a context
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    ASSERT_EQ(rtslib_input_async_register(h_), 0);
    Seen seen;
    ASSERT_EQ(rtslib_rtbm_async_register(h_, &seen, Seen::handler), 0);
    ASSERT_EQ(rtslib_async_register_filters(h_, filter), 0);
    std::vector<uint8_t> want = {0x00, 0x20, 0, 0, 0, 0, 0x20, 0};  // rttable, input
    want.insert(want.end(), filter, filter + sizeof filter);
    EXPECT_EQ(socket_option(h_, ROUTE_FILTERS, ROUTE_FILTERS_LEN), want);
    EXPECT_EQ(listen_mask(h_), 0x0020000000002000u);
}

// Ends the loop after the second route notification.
int break_after_two(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    auto *seen = static_cast<Seen *>(arg);
    Seen::handler(h, seen, msg, reserved);
    evContext ev{};
    if (seen->calls() == 2 && rtslib_get_async_context(h, &ev) == 0) evBreak(ev);
    return 0;
}

TEST_F(AsyncContext, TheEventLoopDispatchesWhatArrives)
{
    for (auto loop : {rtslib_async_event_loop, rtslib_async_event_loop_sighdl}) {
        rtslib_cookie *h = open();
        ASSERT_EQ(rtslib_create_async_context(h), 0);
        Seen seen;
        ASSERT_EQ(rtslib_rtm_async_register(h, &seen, break_after_two), 0);
        rtsllib_async_set_num_read_msg(h, 1);  // one per wake-up
        for (uint32_t i = 0; i < 2; ++i)
            ASSERT_EQ(tarn::test::inject(h->fd, tarn::test::raw_message(24, h->seq + i, 2)), 0);
        EXPECT_EQ(loop(h), 0);
        EXPECT_EQ(seen.calls(), 2);
        rtslib_close(h);
    }
}

// Tries to destroy the context from inside its own event loop.
int destroy_inside_loop(rtslib_cookie *h, void *arg, void *msg, void *)
{
    rtslib_msg_free(h, msg);
    *static_cast<int *>(arg) = rtslib_destroy_async_context(h);
    return 0;
}

TEST_F(AsyncContext, AnEventContextInUseIsNotDestroyed)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    int rc = 0;
    ASSERT_EQ(rtslib_rtm_async_register(h_, &rc, destroy_inside_loop), 0);
    push(tarn::test::raw_message(24, h_->seq, 2));
    rtslib_async_event_loop(h_);  // ends once the descriptor is deselected
    EXPECT_EQ(rc, -1);
    EXPECT_NE(h_->async, nullptr);
    EXPECT_EQ(reports_.reports,
              (std::vector<Report>{{3, "rtslib: ERROR async context destruction failed %"}}));
    EXPECT_EQ(rtslib_destroy_async_context(h_), 0);
    EXPECT_EQ(h_->async, nullptr);
}

class AsyncContextRefused : public AsyncTest {
protected:
    AsyncContextRefused()
        : AsyncTest({"--fail-option", "7", "--fail-option", "8", "--fail-option", "9",
                     "--fail-option", "10", "--fail-option", "11", "--fail-option", "16"})
    {
    }
};

TEST_F(AsyncContextRefused, EachRefusedOptionIsReported)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    uint8_t block[ROUTE_LISTEN_SUBTYPES_LEN] = {};
    uint8_t filter[ROUTE_FILTER_DATA_LEN] = {};
    EXPECT_EQ(rtslib_set_async_mode(h_, 0x39f), -1);
    EXPECT_EQ(rtslib_setup_master_mode(h_, 1), -1);
    EXPECT_EQ(rtslib_setup_slave_mode(h_, 1), -1);
    EXPECT_EQ(rtslib_setup_local_slave_mode(h_, 1), -1);
    EXPECT_EQ(rtslib_set_async_msg_subtype(h_, block), -1);
    EXPECT_EQ(rtslib_async_register_filters(h_, filter), -1);
    const std::string e = std::strerror(EINVAL);
    const std::vector<Report> want = {
        {3, "rtslib: ERROR failed to set async mode bits=0x39f, error=" + e},
        {3, "rtslib: ERROR failed to set master mode " + e},
        {3, "rtslib: ERROR failed to set slave mode " + e},
        {3, "rtslib: ERROR failed to set local slave mode " + e},
        {3, "rtslib: ERROR failed to set listen subtypes " + e},
        {3, "rtslib: ERROR failed to set listen bit " + e},
    };
    EXPECT_EQ(reports_.reports, want);
    EXPECT_EQ(socket_option(h_, ROUTE_ASYNC_MODE, 4), std::vector<uint8_t>(4, 0));
}

TEST_F(AsyncContext, DestroyReleasesRegistrationsAndAllowsANewContext)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    Seen seen;
    ASSERT_EQ(rtslib_cos_async_register(h_, &seen, Seen::handler), 0);
    ASSERT_EQ(rtslib_ifsclim_async_register(h_, &seen, Seen::handler), 0);
    ASSERT_EQ(rtslib_destroy_async_context(h_), 0);
    EXPECT_EQ(h_->async, nullptr);
    EXPECT_EQ(rtslib_destroy_async_context(h_), 0);
    ASSERT_EQ(rtslib_set_async_info_nocontext(h_, nullptr), 0);
    EXPECT_EQ(rtslib_cos_async_register(h_, &seen, Seen::handler), 0);
    // Closing with a context and registrations in place frees them (the
    // sanitizer build sees any leak).
}

}  // namespace
