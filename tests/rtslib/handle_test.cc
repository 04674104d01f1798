// The handle record and the calls that need no kernel.
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include <gtest/gtest.h>

#include "libtarn/rtslib/handle_internal.h"
#include "report_collector.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::Report;
using tarn::test::ReportCollector;

#if UINTPTR_MAX == 0xffffffffu
// On the target ABI the record is fifteen 32-bit words in this order.
static_assert(sizeof(rtslib_cookie) == 60);
static_assert(offsetof(rtslib_cookie, fd) == 0);
static_assert(offsetof(rtslib_cookie, seq) == 4);
static_assert(offsetof(rtslib_cookie, version_info) == 8);
static_assert(offsetof(rtslib_cookie, read_buffer) == 12);
static_assert(offsetof(rtslib_cookie, async) == 16);
static_assert(offsetof(rtslib_cookie, lib_error_fn) == 20);
static_assert(offsetof(rtslib_cookie, lib_error_arg) == 24);
static_assert(offsetof(rtslib_cookie, seq_error_fn) == 28);
static_assert(offsetof(rtslib_cookie, seq_error_arg) == 32);
static_assert(offsetof(rtslib_cookie, reserved) == 36);
static_assert(offsetof(rtslib_cookie, unnum) == 40);
static_assert(offsetof(rtslib_cookie, kbt) == 44);
static_assert(offsetof(rtslib_cookie, blob_compress_fn) == 48);
static_assert(offsetof(rtslib_cookie, blob_decompress_fn) == 52);
static_assert(offsetof(rtslib_cookie, num_read_msg) == 56);
#endif

TEST(HandleRecord, FreshHandleHasItsDocumentedInitialState)
{
    rtslib_cookie *h = rtslib_open_nc();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->fd, -1);
    EXPECT_EQ(h->seq, 1u);
    EXPECT_EQ(h->version_info, nullptr);
    EXPECT_NE(h->read_buffer, nullptr);
    EXPECT_EQ(h->async, nullptr);
    EXPECT_EQ(h->lib_error_fn, &rtslib_lib_error);
    EXPECT_EQ(h->lib_error_arg, nullptr);
    EXPECT_EQ(h->seq_error_fn, nullptr);
    EXPECT_EQ(h->unnum, nullptr);
    EXPECT_EQ(h->kbt, 0u);
    EXPECT_EQ(h->num_read_msg, 0u);
    EXPECT_EQ(rtslib_get_rtsock_version_info(h), nullptr);
    rtslib_close(h);
}

TEST(HandleRecord, SequenceCounterIncrementsBeforeHandingOut)
{
    rtslib_cookie *h = rtslib_open_nc();
    uint32_t v = 0;
    ASSERT_EQ(rtslib_seq_get_next(h, &v), 0);
    EXPECT_EQ(v, 2u);
    ASSERT_EQ(rtslib_seq_get_next(h, &v), 0);
    EXPECT_EQ(v, 3u);
    EXPECT_EQ(h->seq, 3u);
    EXPECT_EQ(rtslib_seq_get_next(h, nullptr), EINVAL);
    EXPECT_EQ(h->seq, 3u);
    h->seq = UINT32_MAX;
    ASSERT_EQ(rtslib_seq_get_next(h, &v), 0);
    EXPECT_EQ(v, 0u);  // wraps like the kernel's counter
    rtslib_close(h);
}

int dummy_seq_hook(rtslib_cookie *, void *, uint32_t, uint32_t)
{
    return 0;
}
int dummy_blob_hook(void *, uint32_t *, const void *, uint32_t)
{
    return 0;
}

// The sequence hook is exercised in msg_io_test; here only the compression
// pair's rule that a half pair is ignored.
TEST(HandleRecord, CompressionHooksAreTakenOnlyAsAPair)
{
    rtslib_cookie *h = rtslib_open_nc();
    rtslib_init_blob_compression(h, dummy_blob_hook, nullptr);
    EXPECT_EQ(h->blob_compress_fn, nullptr);
    rtslib_init_blob_compression(h, dummy_blob_hook, dummy_blob_hook);
    EXPECT_EQ(h->blob_decompress_fn, &dummy_blob_hook);
    rtslib_init_blob_compression(nullptr, dummy_blob_hook, dummy_blob_hook);  // no crash
    rtslib_close(h);
}

TEST(HandleRecord, NullHandleIsRefusedEverywhere)
{
    uint8_t byte = 0;
    uint32_t v = 0;
    EXPECT_EQ(rtslib_setsockopt(nullptr, ROUTE_SENDER_ID, &byte, 1), EINVAL);
    EXPECT_EQ(rtslib_set_buffers(nullptr, 1024, 1024), EINVAL);
    EXPECT_EQ(rtslib_set_sender_id(nullptr, 1), EINVAL);
    EXPECT_EQ(rtslib_set_lr_id(nullptr, 1), EINVAL);
    EXPECT_EQ(rtslib_seq_get_next(nullptr, &v), EINVAL);
    EXPECT_EQ(rtslib_seq_error_register(nullptr, nullptr, dummy_seq_hook), EINVAL);
    EXPECT_EQ(rtslib_lib_error_register(nullptr, nullptr, nullptr), EINVAL);
    EXPECT_EQ(rtslib_get_rtsock_version_info(nullptr), nullptr);
    EXPECT_EQ(tarn::negotiate_versions(nullptr), EINVAL);
    rtslib_close(nullptr);
}

TEST(Buffers, AllocationNeedsAHandleAndIsZeroFilled)
{
    rtslib_cookie *h = rtslib_open_nc();
    EXPECT_EQ(rtslib_size_alloc(nullptr, 16), nullptr);
    EXPECT_EQ(rtslib_msg_malloc(nullptr), nullptr);
    auto *msg = static_cast<unsigned char *>(rtslib_msg_malloc(h));
    ASSERT_NE(msg, nullptr);
    for (size_t i = 0; i < RTS_MSG_MAX; ++i) ASSERT_EQ(msg[i], 0) << i;
    rtslib_msg_free(h, msg);
    rtslib_msg_free(h, nullptr);
    rtslib_close(h);
}

TEST(Negotiation, WithoutASocketTheVersionReadFailsFatally)
{
    rtslib_cookie *h = rtslib_open_nc();
    ReportCollector reports;
    rtslib_lib_error_register(h, &reports, ReportCollector::sink);
    EXPECT_EQ(tarn::negotiate_versions(h), -1);
    ASSERT_EQ(reports.reports.size(), 1u);
    EXPECT_EQ(reports.reports[0].level, RTSLIB_LOG_FATAL);
    EXPECT_EQ(reports.reports[0].text.rfind("rtslib: FATAL ERROR version sockopt failed: ", 0), 0u)
        << reports.reports[0].text;
    EXPECT_EQ(h->version_info, nullptr);
    rtslib_close(h);
}

TEST(MessageTypes, NamesCoverEveryTypeAndEndWithNull)
{
    EXPECT_STREQ(rtm_types[RTS_MSG_NOP], "nop");
    EXPECT_STREQ(rtm_types[RTS_MSG_ROUTE], "route");
    EXPECT_STREQ(rtm_types[RTS_MSG_PK_CRYPTO_SYS_REPLY], "pk-crypto-sys reply");
    EXPECT_STREQ(rtm_types[RTS_MSG_NH_COMP], "NH-comp");
    EXPECT_STREQ(rtm_types[RTS_MSG_UNKNOWN], "unknown");
    EXPECT_EQ(RTS_MSG_UNKNOWN, 101);
    for (int t = 0; t < RTS_MSG_TYPE_COUNT; ++t) EXPECT_NE(rtm_types[t], nullptr) << t;
    EXPECT_EQ(rtm_types[RTS_MSG_TYPE_COUNT], nullptr);
}

}  // namespace
