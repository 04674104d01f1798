// The report formatter and the default sink.
#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "report_collector.h"
#include <tarn/rtslib.h>

namespace {

using tarn::test::Report;
using tarn::test::ReportCollector;

class ErrorReport : public ::testing::Test {
protected:
    void SetUp() override
    {
        h_ = rtslib_open_nc();
        ASSERT_NE(h_, nullptr);
        ASSERT_EQ(rtslib_lib_error_register(h_, &reports_, ReportCollector::sink), 0);
    }
    void TearDown() override { rtslib_close(h_); }

    rtslib_cookie *h_ = nullptr;
    ReportCollector reports_;
};

TEST_F(ErrorReport, EachLevelHasItsWord)
{
    struct {
        uint32_t level;
        const char *expected;
    } const cases[] = {
        {0, "rtslib: DEBUG x=1"},   {1, "rtslib: INFO x=1"},
        {2, "rtslib: WARNING x=1"}, {3, "rtslib: ERROR x=1"},
        {4, "rtslib: FATAL ERROR x=1"},
    };
    for (const auto &c : cases) {
        reports_.reports.clear();
        rtslib_err(h_, c.level, "x=%d", 1);
        ASSERT_EQ(reports_.reports.size(), 1u) << c.level;
        EXPECT_EQ(reports_.reports[0], (Report{static_cast<int>(c.level), c.expected}));
        EXPECT_EQ(reports_.handles[0], h_);
    }
}

TEST_F(ErrorReport, TextIsCutAt255Characters)
{
    const struct {
        uint32_t level;
        size_t body;
        const char *prefix;
        size_t kept;
    } cases[] = {
        {3, 400, "rtslib: ERROR ", 255 - 14},
        {2, 255 - 16, "rtslib: WARNING ", 255 - 16},  // exactly 255: kept whole
    };
    for (const auto &c : cases) {
        reports_.reports.clear();
        const std::string body(c.body, 'a');
        rtslib_err(h_, c.level, "%s", body.c_str());
        ASSERT_EQ(reports_.reports.size(), 1u);
        EXPECT_EQ(reports_.reports[0].text, c.prefix + body.substr(0, c.kept)) << c.body;
    }
}

TEST_F(ErrorReport, ErrnoIsPreservedAcrossTheSink)
{
    errno = ENOTCONN;
    rtslib_err(h_, 2, "anything");
    EXPECT_EQ(errno, ENOTCONN);  // the collector sets EDOM inside
}

TEST_F(ErrorReport, NullSinkDropsEveryLevelIncludingFatal)
{
    ASSERT_EQ(rtslib_lib_error_register(h_, nullptr, nullptr), 0);
    testing::internal::CaptureStderr();
    for (uint32_t level = 0; level <= 4; ++level) rtslib_err(h_, level, "dropped %u", level);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(reports_.reports.empty());
}

TEST_F(ErrorReport, ArgumentReachesTheSink)
{
    struct Seen {
        void *arg = nullptr;
    } seen;
    auto fn = [](rtslib_cookie *, void *arg, int, const char *) {
        static_cast<Seen *>(arg)->arg = arg;
        return 0;
    };
    rtslib_lib_error_register(h_, &seen, fn);
    rtslib_err(h_, 1, "hello");
    EXPECT_EQ(seen.arg, &seen);
}

// Without a handle the default sink prints to stderr, adds a line end even
// after one, returns what it printed and leaves errno alone.
TEST(DefaultSink, PrintsToStderrAndReturnsTheCount)
{
    errno = EPIPE;
    testing::internal::CaptureStderr();
    rtslib_err(nullptr, 2, "value %d of %s", 5, "ten");
    rtslib_err(nullptr, 3, "line\n");
    const int rc = rtslib_lib_error(nullptr, nullptr, 1, "abc");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rtslib: WARNING value 5 of ten\nrtslib: ERROR line\n\nabc\n");
    EXPECT_EQ(rc, 4);
    EXPECT_EQ(errno, EPIPE);
}

TEST(DefaultSinkDeathTest, FatalReportExitsWithStatusOne)
{
    EXPECT_EXIT(rtslib_err(nullptr, 4, "kernel gone %d", 7), testing::ExitedWithCode(1),
                "rtslib: FATAL ERROR kernel gone 7");
    EXPECT_EXIT(
        {
            rtslib_cookie *h = rtslib_open_nc();
            rtslib_err(h, 4, "fatal on handle");
        },
        testing::ExitedWithCode(1), "rtslib: FATAL ERROR fatal on handle");
}

}  // namespace
