// Faults around live library handles: a kernel emulator restarted under a
// daemon, and a client vanishing with notifications queued for it.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "report_collector.h"
#include <tarn/tarn.h>

namespace tarn::test {
namespace {

int add_acked(rtslib_cookie *h, uint8_t net)
{
    const uint8_t prefix[4] = {10, net, 0, 0};
    uint32_t ack = 0;
    return rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 5, 0, prefix, 16, nullptr, &ack);
}

TEST(KernelEmuFaults, RestartUnderALiveDaemon)
{
    KernelEmulator emu;
    ASSERT_TRUE(emu.running());
    const std::string path = emu.socket_path();
    ReportCollector reports;
    rtslib_cookie *old = rtslib_open_set_liberr(1, &reports, ReportCollector::sink);
    ASSERT_NE(old, nullptr);
    ASSERT_EQ(add_acked(old, 1), 0);
    ASSERT_EQ(emu.stop(), 0);
    ASSERT_EQ(::setenv("TARN_KERNEL_SOCKET", path.c_str(), 1), 0);

    // The old handle's socket is gone for good: its requests fail with the
    // socket's error and reading finds the end of the connection.
    EXPECT_EQ(add_acked(old, 2), EPIPE);
    uint8_t buf[64];
    EXPECT_EQ(::recv(old->fd, buf, sizeof buf, MSG_DONTWAIT), 0);

    const pid_t restarted = start_kernel_emulator_at(path);
    ASSERT_GT(restarted, 0);
    EXPECT_EQ(add_acked(old, 3), EPIPE);  // no silent reconnection
    rtslib_cookie *fresh = rtslib_open_set_liberr(2, &reports, ReportCollector::sink);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(add_acked(fresh, 4), 0);
    // A restarted kernel starts empty: the route added before is not there.
    EXPECT_EQ(command(-1, "count"), "routes 1\n");
    // Each failed acknowledged add was reported on the old handle; the new
    // one reported nothing.
    const Report lost{3, "rtslib: ERROR  failed to get route add ack index\n"};
    EXPECT_EQ(reports.reports, std::vector<Report>({lost, lost}));
    EXPECT_EQ(reports.handles, std::vector<rtslib_cookie *>({old, old}));
    rtslib_close(fresh);
    rtslib_close(old);
    EXPECT_EQ(kemu::terminate(restarted), 0);
    ::unsetenv("TARN_KERNEL_SOCKET");
}

TEST(KernelEmuFaults, ListenerVanishingWithAFullQueueLeavesOthersServed)
{
    KernelEmulator emu({"--queue-bound", "8"});
    ASSERT_TRUE(emu.running());
    rtslib_cookie *writer = rtslib_open(1);
    rtslib_cookie *gone = rtslib_open(2);
    rtslib_cookie *watcher = rtslib_open(3);
    ASSERT_TRUE(writer != nullptr && gone != nullptr && watcher != nullptr);
    const uint32_t mask[2] = {~0u, 0};
    for (rtslib_cookie *h : {gone, watcher}) ASSERT_EQ(rtslib_setsockopt(h, ROUTE_LISTEN_MASK, mask, sizeof mask), 0);
    ASSERT_EQ(command(gone->fd, "pause"), "");
    for (uint8_t net = 0; net < 20; ++net) {
        ASSERT_EQ(add_acked(writer, net), 0);
        // The watcher keeps up; only the paused socket overflows.
        void *msg = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_long_msg_read(watcher, &msg, &len), 0);
        rtslib_msg_free(watcher, msg);
    }
    EXPECT_EQ(socket_state(gone->fd, "dropped"), "12");
    EXPECT_EQ(socket_state(watcher->fd, "dropped"), "0");
    const std::string before = command(-1, "sockets");
    rtslib_close(gone);
    // Once it has noticed, the emulator forgets the socket and its queue and
    // still serves the others.
    ASSERT_EQ(add_acked(writer, 100), 0);
    const std::string after = command(-1, "sockets");
    EXPECT_EQ(std::count(before.begin(), before.end(), '\n'), 3);
    EXPECT_EQ(std::count(after.begin(), after.end(), '\n'), 2);
    EXPECT_EQ(after.find("dropped 12"), std::string::npos);
    void *msg = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(rtslib_long_msg_read(watcher, &msg, &len), 0);
    rtslib_msg_free(watcher, msg);
    EXPECT_EQ(command(-1, "count"), "routes 21\n");
    rtslib_close(writer);
    rtslib_close(watcher);
}

}  // namespace
}  // namespace tarn::test
