// Who may reach tarn-emu, and what its control path takes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <regex>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "tarn_emulator.h"
#include "wire.h"

namespace tarn::test {
namespace {

// The type of the next frame on `fd` (of a fresh connection: the connection
// answer).
int first_frame_type(int fd)
{
    uint8_t head[temu::wire::kHeaderLen];
    size_t got = 0;
    for (ssize_t n; got < sizeof head && (n = ::recv(fd, head + got, sizeof head - got, 0)) > 0;)
        got += static_cast<size_t>(n);
    if (got < sizeof head) return -1;
    uint16_t type = 0;
    std::memcpy(&type, head + 2, 2);
    return type;
}

TEST(TarnEmuAccess, SocketFilesAreOwnerOnlyUnlessWidened)
{
    for (const auto &[args, mode] : std::vector<std::pair<std::vector<std::string>, unsigned>>{
             {{}, 0600}, {{"--socket-mode", "0666"}, 0666}}) {
        SCOPED_TRACE(mode);
        TarnEmulator emu(args);
        ASSERT_TRUE(emu.running());
        EXPECT_EQ(socket_file_mode(emu.socket_path()), mode);
        EXPECT_EQ(socket_file_mode(emu.control_path()), mode);
    }
}

TEST(TarnEmuAccess, TcpListensOnLoopbackUnlessGivenAnAddress)
{
    const struct {
        std::vector<std::string> args;
        const char *address;
        int family;
    } cases[] = {
        {{"--tcp", "0"}, "127.0.0.1", AF_INET},
        {{"--tcp", "0", "--tcp-address", "::1"}, "::1", AF_INET6},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.address);
        TarnEmulator emu(c.args);
        ASSERT_TRUE(emu.running());
        std::smatch m;
        const std::string log = emu.log();
        ASSERT_TRUE(std::regex_search(log, m, std::regex("listening on ([0-9a-f.:]+) port (\\d+)")));
        EXPECT_EQ(m[1], c.address);
        sockaddr_storage addr{};
        auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
        addr.ss_family = static_cast<sa_family_t>(c.family);
        const auto port = htons(static_cast<uint16_t>(std::stoi(m[2])));
        if (c.family == AF_INET) v4->sin_port = port; else v6->sin6_port = port;
        ASSERT_EQ(::inet_pton(c.family, c.address, c.family == AF_INET ? static_cast<void *>(&v4->sin_addr)
                                                                       : &v6->sin6_addr),
                  1);
        const int fd = ::socket(c.family, SOCK_STREAM, 0);
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(first_frame_type(fd), temu::wire::kConnectAnswer);
        ::close(fd);
    }
}

TEST(TarnEmuAccess, MalformedControlLinesAreRefusedWithTheReason)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    const int client = emu.connect_client();
    ASSERT_EQ(first_frame_type(client), temu::wire::kConnectAnswer);
    const std::string too_long = "error Argument list too long\ncommand line longer than 4096 bytes\n";
    const struct {
        std::string line;
        std::string answer;
    } cases[] = {
        {std::string(4097, 'x'), too_long},
        // Far more than is read before the refusal: the rest is read and
        // thrown away so that the answer is not lost to a reset.
        {"dump " + std::string(300000, 'y'), too_long},
        {"resume 1 2", "error Invalid argument\nresume takes at most 1 arguments\n"},
        {"help\x7f", "error Invalid argument\nbyte 0x7f at offset 4 is not printable\n"},
        {"stall 1 \x1b[A", "error Invalid argument\nbyte 0x1b at offset 8 is not printable\n"},
        {"frobnicate", "error Operation not supported\nunknown command; \"help\" lists them\n"},
        {"stall 1" + std::string(4089, ' '), "ok\n"},
        {"resume 1", "ok\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line.substr(0, 20));
        EXPECT_EQ(emu.control(c.line), c.answer);
    }
    EXPECT_EQ(emu.control("dump").rfind("ok\nconnection 1 queued 0 stalled 0\n", 0), 0u);
    const int next = emu.connect_client();
    EXPECT_EQ(first_frame_type(next), temu::wire::kConnectAnswer);
    ::close(next);
    ::close(client);
}

}  // namespace
}  // namespace tarn::test
