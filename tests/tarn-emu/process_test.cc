// tarn-emu as a process: raw clients on its socket, scripted through its
// control path, with routes checked in its kernel emulator.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "frame.h"
#include "tarn_emulator.h"
#include "wire.h"

namespace tarn::test {
namespace {

using namespace temu;
using namespace temu::wire;

struct Client {
    int fd;
    explicit Client(int f) : fd(f) {}
    ~Client()
    {
        if (fd >= 0) ::close(fd);
    }
    void send(uint16_t type, const std::vector<uint8_t> &payload) const
    {
        const auto bytes = encode_frame(type, payload);
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // Exactly `n` bytes, fewer only at the end of the stream.
    std::vector<uint8_t> read(size_t n) const
    {
        std::vector<uint8_t> out(n);
        size_t got = 0;
        for (ssize_t r; got < n && (r = ::recv(fd, out.data() + got, n - got, 0)) > 0;) got += static_cast<size_t>(r);
        out.resize(got);
        return out;
    }
    // The next frame; type 0xffff when the stream ends before it does.
    Frame frame() const
    {
        Frame f{0xffff, {}};
        const auto head = read(kHeaderLen);
        uint16_t type = 0, len = 0;
        if (head.size() < kHeaderLen) return f;
        std::memcpy(&type, head.data() + 2, 2);
        std::memcpy(&len, head.data() + 4, 2);
        f.payload = read(len);
        if (f.payload.size() == len) f.type = type;
        return f;
    }
    uint32_t answer_code() const
    {
        Frame f = frame();
        return f.type == kConnectAnswer && f.payload.size() == 4 ? get32(f.payload.data(), 0) : 0xffff;
    }
};

std::vector<uint8_t> registration(const std::string &name)
{
    return PayloadWriter()
        .u32(1)
        .u32(2)
        .u32(static_cast<uint32_t>(name.size() + 1))
        .u32(0)
        .bytes(reinterpret_cast<const uint8_t *>(name.c_str()), name.size() + 1)
        .take();
}

std::vector<uint8_t> route_add(uint32_t gateway, uint32_t table, uint32_t ifl)
{
    PayloadWriter w;
    w.u32(9).u32(table).u32(gateway).u16(0).u8(0).u8(kFamilyInet).u8(10).u8(9).zeros(14);
    w.u16(16).u16(1).u32(5).u32(ifl).u8(kFamilyInet).zeros(3).u8(192).zeros(15);
    return w.take();
}

std::vector<uint8_t> named(const char *name)
{
    const size_t n = std::strlen(name) + 1;
    return PayloadWriter()
        .u32(3)
        .u16(static_cast<uint32_t>(n))
        .u16(0)
        .bytes(reinterpret_cast<const uint8_t *>(name), n)
        .take();
}

TEST(TarnEmuProcess, RoutesAndTablesGoThroughTheKernel)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    Client c(emu.connect_client());
    ASSERT_EQ(c.answer_code(), kAccepted);
    std::vector<uint8_t> name(kIdentifyLen);
    std::memcpy(name.data(), "ospfd", 5);
    c.send(kIdentify, name);
    c.send(kProtoRegister, registration("ospf"));
    Frame reg = c.frame();
    ASSERT_EQ(reg.type, kProtoRegisterReply);
    ASSERT_EQ(get32(reg.payload.data(), 0), kOk);
    const uint32_t gw = get32(reg.payload.data(), 8);

    const struct {
        uint16_t type;
        std::vector<uint8_t> payload;
        uint32_t code;
        const char *in_kernel;  // a line the kernel's dump has afterwards
    } steps[] = {
        {kTableLocate, named("default"), kOk, "table 0 af 2 name \"default\""},
        {kTableLocate, named("nosuch"), kTableNotFound, ""},
        {kRouteAdd, route_add(gw, 7, 4), kAddBadTable, ""},
        {kRouteAdd, route_add(gw, 0, 4), kOk, "route 0 af 2 0a09/16 type 1 nh 1 nhidx 4"},
        {kRouteAdd, route_add(gw, 0, 6), kOk, "route 0 af 2 0a09/16 type 1 nh 1 nhidx 6"},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.in_kernel);
        c.send(s.type, s.payload);
        Frame reply = c.frame();
        ASSERT_GE(reply.payload.size(), 12u);
        EXPECT_EQ(get32(reply.payload.data(), 0), s.code);
        EXPECT_NE(command(-1, "dump").find(s.in_kernel), std::string::npos) << command(-1, "dump");
    }
    const std::string dump = emu.control("dump");
    EXPECT_EQ(dump.rfind("ok\n", 0), 0u);
    EXPECT_NE(dump.find("client 1 \"ospfd\""), std::string::npos) << dump;
    EXPECT_NE(dump.find("route table 0 10.9.0.0/16 gateway 1 cookie 9"), std::string::npos) << dump;

    // Gone with its client: withdrawn from the kernel too.
    ::close(c.fd);
    c.fd = -1;
    ASSERT_TRUE(emu.wait_for_log("client 1: gone"));
    EXPECT_EQ(command(-1, "dump").find("0a09/16"), std::string::npos);
}

TEST(TarnEmuProcess, ScriptedRefusalThenClose)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    EXPECT_EQ(emu.control("refuse 1 70"), "ok\n");
    Client refused(emu.connect_client());
    EXPECT_EQ(refused.answer_code(), 70u);
    EXPECT_TRUE(refused.read(1).empty());
    Client next(emu.connect_client());
    EXPECT_EQ(next.answer_code(), kAccepted);
}

TEST(TarnEmuProcess, ConnectionFaults)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    struct Case {
        const char *verb;
        const char *args;
        size_t bytes;  // what arrives after the connection answer
        int error;     // how the stream ends: 0 end of file, else the errno
    };
    // A local socket closed with input unread is reset like a TCP one with
    // linger 0; so the reset case leaves a request unread.
    const Case cases[] = {
        {"truncate", "", kHeaderLen + 8, 0},
        {"garbage", " 0102ff", 3, EAGAIN},
        {"reset", "", 0, ECONNRESET},
    };
    int id = 0;
    for (const auto &k : cases) {
        SCOPED_TRACE(k.verb);
        Client c(emu.connect_client());
        ++id;
        ASSERT_EQ(c.answer_code(), kAccepted);
        if (k.error == ECONNRESET) {
            ASSERT_EQ(emu.control("stall " + std::to_string(id)), "ok\n");
            c.send(kMasterIndication, {});
        }
        ASSERT_EQ(emu.control(std::string(k.verb) + " " + std::to_string(id) + k.args), "ok\n");
        EXPECT_EQ(c.read(k.bytes).size(), k.bytes);
        if (k.error == EAGAIN) continue;  // still open
        char b;
        const ssize_t n = ::recv(c.fd, &b, 1, 0);
        EXPECT_EQ(n, k.error == 0 ? 0 : -1);
        if (k.error != 0) {
            EXPECT_EQ(errno, k.error);
        }
    }
}

TEST(TarnEmuProcess, OversizedHeaderEndsTheConnection)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    Client c(emu.connect_client());
    ASSERT_EQ(c.answer_code(), kAccepted);
    auto head = encode_frame(kRouteAdd, {});
    const uint16_t len = kMaxPayload + 1;
    std::memcpy(head.data() + 4, &len, 2);
    ASSERT_EQ(::send(c.fd, head.data(), head.size(), MSG_NOSIGNAL), 8);
    EXPECT_TRUE(c.read(1).empty());
    EXPECT_TRUE(emu.wait_for_log("client 1: header announces more than 8184 bytes"));
}

TEST(TarnEmuProcess, StalledReaderBacksUpTheClientUntilResumed)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    Client c(emu.connect_client());
    ASSERT_EQ(c.answer_code(), kAccepted);
    ASSERT_EQ(emu.control("stall 1"), "ok\n");
    const auto frame = encode_frame(kMasterIndication, {});
    unsigned sent = 0;
    while (::send(c.fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) ++sent;
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(emu.control("resume 1"), "ok\n");
    c.send(kLocalAs, named("master"));
    Frame as = c.frame();
    ASSERT_EQ(as.type, kLocalAsReply);
    EXPECT_EQ(get32(as.payload.data(), 8), 64512u);
    EXPECT_NE(emu.control("dump").find("counter master-indication " + std::to_string(sent) + "\n"),
              std::string::npos);
}

TEST(TarnEmuProcess, ClientThatNeverReadsIsDroppedAtTheQueueBound)
{
    TarnEmulator emu({"--queue-bound", "4096"});
    ASSERT_TRUE(emu.running());
    Client c(emu.connect_client());
    const auto lookup = encode_frame(kRouteLookup, std::vector<uint8_t>(kRouteFixedLen));
    // Answers pile up in the socket, then in the emulator, until it gives up.
    int n = 0;
    while (n < 100000 && ::send(c.fd, lookup.data(), lookup.size(), MSG_NOSIGNAL) > 0) ++n;
    EXPECT_LT(n, 100000);
    EXPECT_TRUE(emu.wait_for_log("client 1: output queue over 4096 bytes"));
}

TEST(TarnEmuProcess, TcpPortAndControlShutdown)
{
    TarnEmulator emu({"--tcp", "0"});
    ASSERT_TRUE(emu.running());
    std::smatch m;
    const std::string log = emu.log();
    ASSERT_TRUE(std::regex_search(log, m, std::regex("listening on 127.0.0.1 port (\\d+)")));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(std::stoi(m[1])));
    Client c(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(c.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(c.answer_code(), kAccepted);
    EXPECT_NE(emu.control("help").find("stall CLIENT [MS]"), std::string::npos);
    EXPECT_EQ(emu.control("nonsense").rfind("error ", 0), 0u);
    EXPECT_EQ(emu.control("shutdown"), "ok\n");
    EXPECT_EQ(emu.stop(), 0);
}

}  // namespace
}  // namespace tarn::test
