// The largest configuration object through a real emulator: the request and
// its answer each travel as one SEQPACKET message, whole.
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "kernel_emulator.h"
#include <tarn/tarn.h>

namespace {

TEST(EmuGencfgSocket, LargestBlobStoredAndReturnedWhole)
{
    tarn::test::KernelEmulator kemu;
    ASSERT_TRUE(kemu.running());
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, kemu.socket_path().c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    // Our side of the message must fit our send buffer as well.
    const int sndbuf = 1 << 20;
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf), 0);
    // An answer the emulator failed to send must fail the test, not hang it.
    const timeval patience{30, 0};
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);

    std::vector<uint8_t> blob(511999);
    for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<uint8_t>(i * 7 + i / 251);
    uint8_t key[] = {'b', 'i', 'g'};
    gencfg_msg_t req{};
    req.hdr.version = 105;
    req.hdr.type = RTS_MSG_GENCFG;
    req.hdr.op = 8;  // add, answered with the object
    req.hdr.seq = 5;
    req.major_type = 15;
    req.flags = 0x2;
    req.key = key;
    req.key_len = sizeof key;
    req.blob = blob.data();
    req.blob_len = static_cast<uint32_t>(blob.size());
    rts_msg_t env{RTS_MSG_GENCFG, &req};
    std::vector<uint8_t> bytes(idr_encode_rts_msg_0(&env, nullptr, 0));
    ASSERT_EQ(idr_encode_rts_msg_0(&env, bytes.data(), static_cast<uint32_t>(bytes.size())),
              bytes.size());
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));

    std::vector<uint8_t> in(2 * bytes.size());
    const ssize_t n = ::recv(fd, in.data(), in.size(), MSG_TRUNC);
    ASSERT_GT(n, 0);
    ASSERT_LE(static_cast<size_t>(n), in.size());
    rtslib_cookie *codec = rtslib_open_nc();
    std::vector<uint8_t> arena(static_cast<size_t>(n) + 64 * 1024);
    void *rec = nullptr;
    ASSERT_EQ(rtslib_msg_idl_decode_pa(codec, in.data(), static_cast<uint32_t>(n), &rec, nullptr,
                                       arena.data(), static_cast<uint32_t>(arena.size())),
              0);
    const auto *a = static_cast<const gencfg_msg_t *>(rec);
    EXPECT_EQ(a->hdr.error, 0u);
    EXPECT_EQ(a->hdr.seq, 5u);
    ASSERT_EQ(a->blob_len, blob.size());
    EXPECT_EQ(std::memcmp(a->blob, blob.data(), blob.size()), 0);
    rtslib_close(codec);
    ::close(fd);
}

}  // namespace
