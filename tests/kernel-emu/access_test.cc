// Who may reach a kernel emulator, and what its control path takes.

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include <tarn/tarn.h>

namespace tarn::test {
namespace {

TEST(KernelEmuAccess, SocketFilesAreOwnerOnlyUnlessWidened)
{
    const struct {
        std::vector<std::string> args;
        unsigned mode;
    } cases[] = {{{}, 0600}, {{"--socket-mode", "0660"}, 0660}, {{"--socket-mode", "666"}, 0666}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mode);
        KernelEmulator emu(c.args);
        ASSERT_TRUE(emu.running());
        EXPECT_EQ(socket_file_mode(emu.socket_path()), c.mode);
        EXPECT_EQ(socket_file_mode(emu.socket_path() + ".ctl"), c.mode);
    }
}

TEST(KernelEmuAccess, MalformedControlLinesAreRefusedAndChangeNothing)
{
    KernelEmulator emu({"--log"});
    ASSERT_TRUE(emu.running());
    rtslib_cookie *h = rtslib_open(1);
    ASSERT_NE(h, nullptr);
    const struct {
        std::string line;
        int error;
        const char *logged;
    } cases[] = {
        {std::string(4097, 'x'), E2BIG, "command refused: command of 4097 bytes is longer than 4096"},
        {"route-add 0 2 0a000000 8 2 0 extra", EINVAL,
         "command refused: route-add takes at most 6 arguments"},
        {"drop-replies 1 1", EINVAL, "command refused: drop-replies takes at most 1 arguments"},
        {"count\x01", EINVAL, "command refused: byte 0x01 at offset 5 is not printable"},
        {std::string("route-add 0 2 0a000000 8 2 0\0", 29), EINVAL,
         "command refused: byte 0x00 at offset 28 is not printable"},
        {"dump \xc3\xa9", EINVAL, "command refused: byte 0xc3 at offset 5 is not printable"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.logged);
        int err = 0;
        command(h->fd, c.line, &err);
        EXPECT_EQ(err, c.error);
        EXPECT_TRUE(emu.wait_for_output(c.logged));
    }
    // Nothing was added and no answer is dropped: the next add is answered.
    EXPECT_EQ(command(-1, "count"), "routes 0\n");
    const uint8_t prefix[4] = {10, 0, 0, 0};
    uint32_t ack = 0;
    EXPECT_EQ(rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 5, 0, prefix, 8, nullptr, &ack),
              0);
    // The longest line taken is still taken.
    int err = -1;
    command(-1, "count" + std::string(4091, ' '), &err);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(command(-1, "count"), "routes 1\n");
    rtslib_close(h);
}

}  // namespace
}  // namespace tarn::test
