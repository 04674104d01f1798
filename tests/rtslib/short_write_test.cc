// A kernel that takes only part of a write. No real routing socket does that
// on demand, so this program stands in for the socket's send(): calls on the
// chosen descriptor get a scripted result, all others go to the system.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include <gtest/gtest.h>

#include "report_collector.h"
#include <tarn/tarn.h>

namespace {

int g_scripted_fd = -1;
ssize_t g_scripted_result = 0;
int g_scripted_errno = 0;

}  // namespace

extern "C" ssize_t send(int fd, const void *buf, size_t len, int flags)
{
    if (fd == g_scripted_fd) {
        errno = g_scripted_errno;
        return g_scripted_result;
    }
    return syscall(SYS_sendto, fd, buf, len, flags, nullptr, 0);
}

namespace {

using tarn::test::Report;
using tarn::test::ReportCollector;

TEST(ShortWrite, ReportsWhatTheKernelTookWithItsOddPlural)
{
    struct Case {
        uint32_t len;
        ssize_t taken;
        int err;
        int rc;
        std::vector<Report> reports;
    };
    const std::vector<Case> cases = {
        {1, 0, 0, 0, {{4, "rtslib: FATAL ERROR wrote 1 bytes to routing socket, got 0"}}},
        {100, 60, 0, 0, {{4, "rtslib: FATAL ERROR wrote 100 byte to routing socket, got 60"}}},
        {100, 100, 0, 0, {}},
        {64, -1, ENOBUFS, ENOBUFS, {}},
    };
    rtslib_cookie *h = rtslib_open_nc();
    ASSERT_NE(h, nullptr);
    ReportCollector reports;
    rtslib_lib_error_register(h, &reports, ReportCollector::sink);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
    h->fd = pair[0];
    g_scripted_fd = pair[0];
    const std::vector<uint8_t> buf(128, 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.len);
        reports.reports.clear();
        g_scripted_result = c.taken;
        g_scripted_errno = c.err;
        EXPECT_EQ(rtslib_write(h, buf.data(), c.len), c.rc);
        EXPECT_EQ(reports.reports, c.reports);
    }
    g_scripted_fd = -1;
    ::close(pair[1]);
    rtslib_close(h);
}

}  // namespace
