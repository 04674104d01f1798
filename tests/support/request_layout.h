// A handle whose socket is one end of a pair, so a test can read exactly
// what the library wrote. The pair has room for the largest messages the
// library sends (configuration blobs of half a megabyte).
#ifndef TARN_TESTS_REQUEST_LAYOUT_H
#define TARN_TESTS_REQUEST_LAYOUT_H

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

namespace tarn::test {

class RequestLayout : public testing::Test {
protected:
    void SetUp() override
    {
        h_ = rtslib_open_nc();
        ASSERT_NE(h_, nullptr);
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair_), 0);
        const int big = 4 << 20;
        for (int fd : pair_) {
            ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        }
        h_->fd = pair_[0];
    }
    void TearDown() override
    {
        ::close(pair_[1]);
        rtslib_close(h_);
    }
    // The next request the library wrote, decoded; nullptr if none.
    template <typename Record> Record *written()
    {
        std::vector<uint8_t> buf(8u << 20);
        const ssize_t n = ::recv(pair_[1], buf.data(), buf.size(), MSG_DONTWAIT);
        if (n <= 0) return nullptr;
        void *rec = nullptr;
        EXPECT_EQ(rtslib_msg_idl_decode(h_, buf.data(), static_cast<uint32_t>(n), &rec, nullptr), 0);
        return static_cast<Record *>(rec);
    }

    rtslib_cookie *h_ = nullptr;
    int pair_[2] = {-1, -1};
};

}  // namespace tarn::test

#endif  // TARN_TESTS_REQUEST_LAYOUT_H
