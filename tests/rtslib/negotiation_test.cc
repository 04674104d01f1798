// Opening handles against a real kernel emulator process: negotiation
// outcomes, socket options, failures, many clients.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kernel_emulator.h"
#include "libtarn/os/os.h"
#include "libtarn/rtslib/handle_internal.h"
#include "report_collector.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::KernelEmulator;
using tarn::test::Report;
using tarn::test::ReportCollector;

const std::string kAdvice = ",a reboot or software upgrade may be required\n";

// A failed open leaves the read buffer and the descriptor behind on purpose;
// such opens run in a child that ends with _exit, so the leak checker never
// sees memory the test cannot free.
template <typename Fn> void run_in_child(Fn fn)
{
    EXPECT_EXIT(
        {
            fn();
            std::fflush(stdout);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

uint8_t read_u8_option(rtslib_cookie *h, int opt)
{
    uint8_t v = 0xee;
    uint32_t len = sizeof v;
    EXPECT_EQ(tarn::os::route_getsockopt(h->fd, opt, &v, &len), 0) << std::strerror(errno);
    return v;
}

TEST(OpenWithoutEmulator, FailsCleanlyWithAReport)
{
    ::setenv("TARN_KERNEL_SOCKET", "/nonexistent/tarn/kernel.sock", 1);
    run_in_child([] {
        ReportCollector reports;
        errno = 0;
        rtslib_cookie *h = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
        EXPECT_EQ(h, nullptr);
        EXPECT_EQ(errno, ENOENT);
        ASSERT_EQ(reports.reports.size(), 1u);
        EXPECT_EQ(reports.reports[0],
                  (Report{RTSLIB_LOG_ERROR,
                          "rtslib: ERROR routing socket open failed: No such file or directory"}));
    });
    ::unsetenv("TARN_KERNEL_SOCKET");
}

TEST(OpenAgainstEmulator, MatchingKernelOpensSilently)
{
    KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    ReportCollector reports;
    rtslib_cookie *h = rtslib_open_set_liberr(42, &reports, ReportCollector::sink);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(reports.reports.empty()) << reports.reports[0];
    EXPECT_GE(h->fd, 0);
    EXPECT_EQ(h->seq, 1u);
    EXPECT_NE(::fcntl(h->fd, F_GETFL) & O_NONBLOCK, 0);

    const uint8_t *info = rtslib_get_rtsock_version_info(h);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info[0], RTS_MSG_TYPE_COUNT);
    EXPECT_EQ(info[1], RTS_INTERFACE_VERSION);
    EXPECT_EQ(info[1 + RTS_MSG_ROUTE], 'h');
    EXPECT_EQ(info[1 + RTS_MSG_UNKNOWN], 'b');

    EXPECT_EQ(read_u8_option(h, ROUTE_SENDER_ID), 42);
    int sndbuf = 0;
    socklen_t len = sizeof sndbuf;
    ASSERT_EQ(::getsockopt(h->fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, &len), 0);
    EXPECT_GE(sndbuf, 65536);

    EXPECT_EQ(tarn::negotiate_versions(h), EINVAL);  // once per handle
    rtslib_close(h);
}

TEST(OpenAgainstEmulator, InterfaceVersionMismatchRefusesTheOpen)
{
    KernelEmulator emu({"--interface-version", "97"});
    ASSERT_TRUE(emu.running());
    run_in_child([] {
        ReportCollector reports;
        const int next_fd = ::dup(0);
        ::close(next_fd);
        rtslib_cookie *h = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
        EXPECT_EQ(h, nullptr);
        EXPECT_EQ(errno, ECONNREFUSED);
        ASSERT_EQ(reports.reports.size(), 1u);
        EXPECT_EQ(reports.reports[0],
                  (Report{RTSLIB_LOG_FATAL,
                          "rtslib: FATAL ERROR interface version mismatch: kernel=97 library=98" +
                              kAdvice}));
        // The failed open keeps its descriptor open: only the record is freed.
        EXPECT_NE(::fcntl(next_fd, F_GETFD), -1);
    });
}

TEST(OpenAgainstEmulatorDeathTest, InterfaceMismatchWithDefaultSinkExits)
{
    KernelEmulator emu({"--interface-version", "99"});
    ASSERT_TRUE(emu.running());
    EXPECT_EXIT(rtslib_open(1), testing::ExitedWithCode(1),
                "rtslib: FATAL ERROR interface version mismatch: kernel=99 library=98");
}

// Kernels that differ from the library in ways it can live with: each
// difference is reported once, in type order, and the open goes on.
TEST(OpenAgainstEmulator, TolerableDifferencesAreReportedAndTheOpenGoesOn)
{
    const struct {
        std::vector<std::string> args;
        std::vector<Report> reports;
    } cases[] = {
        {{"--types", "103"},
         {{RTSLIB_LOG_WARNING,
           "rtslib: WARNING kernel has new unknown messages: expected 102 got 103" + kAdvice}}},
        {{"--types", "101"},
         {{RTSLIB_LOG_ERROR,
           "rtslib: ERROR kernel does not support all messages: expected 102 got 101" + kAdvice}}},
        // Given out of order; 9 expects version 0 and is compared like the rest.
        {{"--type-version", "40=1", "--type-version", "2=200", "--type-version", "9=5",
          "--type-version", "101=0"},
         {{2, "rtslib: WARNING version mismatch for msg route: expected 104 got 200" + kAdvice},
          {2, "rtslib: WARNING version mismatch for msg ifstats: expected 0 got 5" + kAdvice},
          {2, "rtslib: WARNING version mismatch for msg sampling: expected 99 got 1" + kAdvice},
          {2, "rtslib: WARNING version mismatch for msg unknown: expected 98 got 0" + kAdvice}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        KernelEmulator emu(c.args);
        ASSERT_TRUE(emu.running());
        ReportCollector reports;
        rtslib_cookie *h = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(reports.reports, c.reports);
        // The handle keeps the kernel's own block.
        EXPECT_EQ(rtslib_get_rtsock_version_info(h)[1 + RTS_MSG_ROUTE],
                  c.args[1] == "40=1" ? 200 : 'h');
        rtslib_close(h);
    }
}

TEST(SocketOptions, RefusedSenderIdIsOnlyAWarning)
{
    KernelEmulator emu({"--fail-option", "4"});
    ASSERT_TRUE(emu.running());
    ReportCollector reports;
    rtslib_cookie *h = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
    ASSERT_NE(h, nullptr);  // the open survives its sender id being refused
    const Report refused{2, "rtslib: WARNING setsockopt(ROUTE_SENDER_ID) failed, Invalid argument"};
    ASSERT_EQ(reports.reports, std::vector<Report>{refused});
    EXPECT_EQ(rtslib_set_sender_id(h, 9), 0);
    EXPECT_EQ(reports.reports.size(), 2u);
    EXPECT_EQ(reports.reports.back(), refused);
    rtslib_close(h);
}

TEST(SocketOptions, RefusedLogicalRouterIdReportsTheSenderIdText)
{
    KernelEmulator emu({"--fail-option", "20"});
    ASSERT_TRUE(emu.running());
    ReportCollector reports;
    rtslib_cookie *h = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(rtslib_set_lr_id(h, 7), 0);
    EXPECT_EQ(reports.reports,
              std::vector<Report>(
                  {{2, "rtslib: WARNING setsockopt(ROUTE_SENDER_ID) failed, Invalid argument"}}));
    EXPECT_EQ(rtslib_set_sender_id(h, 9), 0);  // other options still work
    EXPECT_EQ(reports.reports.size(), 1u);
    EXPECT_EQ(read_u8_option(h, ROUTE_SENDER_ID), 9);
    rtslib_close(h);
}

TEST(SocketOptions, KernelKeepsEachOptionPerSocket)
{
    KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    rtslib_cookie *a = rtslib_open(10);
    rtslib_cookie *b = rtslib_open(20);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(rtslib_set_lr_id(a, 0x1234), 0);
    const uint32_t mask[2] = {0x11, 0x200000};
    ASSERT_EQ(rtslib_setsockopt(b, ROUTE_LISTEN_MASK, mask, sizeof mask), 0);

    EXPECT_EQ(read_u8_option(a, ROUTE_SENDER_ID), 10);
    EXPECT_EQ(read_u8_option(b, ROUTE_SENDER_ID), 20);
    uint16_t lr = 0;
    uint32_t len = sizeof lr;
    ASSERT_EQ(tarn::os::route_getsockopt(a->fd, ROUTE_LR_ID, &lr, &len), 0);
    EXPECT_EQ(lr, 0x1234);
    ASSERT_EQ(tarn::os::route_getsockopt(b->fd, ROUTE_LR_ID, &lr, &len), 0);
    EXPECT_EQ(lr, 0);
    uint32_t got[2] = {};
    len = sizeof got;
    ASSERT_EQ(tarn::os::route_getsockopt(b->fd, ROUTE_LISTEN_MASK, got, &len), 0);
    EXPECT_EQ(len, sizeof got);
    EXPECT_EQ(got[0], mask[0]);
    EXPECT_EQ(got[1], mask[1]);
    uint32_t kseq = 0;
    len = sizeof kseq;
    ASSERT_EQ(tarn::os::route_getsockopt(a->fd, ROUTE_KERNEL_SEQ, &kseq, &len), 0);
    EXPECT_EQ(kseq, 1u);

    // Wrong sizes, read-only and unknown options are refused like a kernel would.
    const uint32_t word = 1;
    EXPECT_EQ(rtslib_setsockopt(a, ROUTE_LR_ID, &word, sizeof word), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(rtslib_setsockopt(a, ROUTE_KERNEL_SEQ, &word, sizeof word), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(rtslib_setsockopt(a, 99, &word, sizeof word), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
    rtslib_close(a);
    rtslib_close(b);
}

TEST(SocketOptions, BufferSizesFollowTheCaller)
{
    KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    rtslib_cookie *h = rtslib_open(1);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(rtslib_set_buffers(h, 200000, 300000), 0);
    int rcv = 0;
    socklen_t len = sizeof rcv;
    ASSERT_EQ(::getsockopt(h->fd, SOL_SOCKET, SO_RCVBUF, &rcv, &len), 0);
    EXPECT_GE(rcv, 300000);
    rtslib_close(h);
}

TEST(Lifecycle, EmulatorVanishingMidSessionGivesErrorsNotCrashes)
{
    KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    ReportCollector reports;
    rtslib_cookie *h = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(emu.stop(), 0);

    EXPECT_EQ(rtslib_set_lr_id(h, 3), 0);
    ASSERT_EQ(reports.reports.size(), 1u);
    EXPECT_EQ(reports.reports[0].text.rfind("rtslib: WARNING setsockopt(ROUTE_SENDER_ID) failed, ", 0),
              0u);
    const uint8_t id = 3;
    EXPECT_EQ(rtslib_setsockopt(h, ROUTE_SENDER_ID, &id, 1), -1);
    EXPECT_NE(errno, 0);
    rtslib_close(h);
}

TEST(Lifecycle, ManyClientProcessesAtOnce)
{
    KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    constexpr int kProcesses = 4;
    constexpr int kHandlesEach = 8;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = ::fork();
        if (pid == 0) {
            std::vector<rtslib_cookie *> handles;
            bool ok = true;
            for (int i = 0; i < kHandlesEach; ++i) {
                rtslib_cookie *h = rtslib_open(static_cast<uint8_t>(p * kHandlesEach + i));
                ok = ok && h != nullptr;
                if (h != nullptr) handles.push_back(h);
            }
            for (int i = 0; ok && i < kHandlesEach; ++i) {
                uint8_t v = 0;
                uint32_t len = 1;
                ok = tarn::os::route_getsockopt(handles[i]->fd, ROUTE_SENDER_ID, &v, &len) == 0 &&
                     v == p * kHandlesEach + i;
            }
            for (auto *h : handles) rtslib_close(h);
            _exit(ok ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
}

TEST(Emulator, LogsConnectionsAndOptionsAndRemovesItsSockets)
{
    KernelEmulator emu({"--log"});
    ASSERT_TRUE(emu.running());
    rtslib_cookie *h = rtslib_open(5);
    ASSERT_NE(h, nullptr);
    rtslib_close(h);
    EXPECT_TRUE(emu.wait_for_output("socket 1: closed")) << emu.output();
    const std::string path = emu.socket_path();
    EXPECT_EQ(emu.stop(), 0);
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    EXPECT_NE(::access((path + ".ctl").c_str(), F_OK), 0);
    const std::string out = emu.output();
    EXPECT_NE(out.find("socket 1: opened by @"), std::string::npos) << out;
    EXPECT_NE(out.find("socket 1: get version-info -> ok, 103 bytes"), std::string::npos) << out;
    EXPECT_NE(out.find("socket 1: set sender-id 5 -> ok"), std::string::npos) << out;
}

}  // namespace
