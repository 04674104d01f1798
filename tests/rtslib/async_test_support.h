// Shared pieces of the asynchronous-notification tests: a handle with a
// context on a fresh emulator, a handler that records and releases what it
// is given, and reads of the socket state the emulator keeps.
#ifndef TARN_TESTS_RTSLIB_ASYNC_TEST_SUPPORT_H
#define TARN_TESTS_RTSLIB_ASYNC_TEST_SUPPORT_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "libtarn/os/os.h"
#include "report_collector.h"
#include <tarn/tarn.h>

namespace tarn::test {

// What a handler saw: per message its type byte, header length and, for raw
// messages, its bytes. The handler releases each message as its contract
// says (decoded records with rtslib_msg_idl_release, raw with rtslib_msg_free).
struct Seen {
    bool decoded = false;
    std::vector<int> types;
    std::vector<std::vector<uint8_t>> raw;
    int calls() const { return static_cast<int>(types.size()); }

    static int handler(rtslib_cookie *h, void *arg, void *msg, void *reserved)
    {
        auto *s = static_cast<Seen *>(arg);
        EXPECT_EQ(reserved, nullptr);
        const auto *b = static_cast<const uint8_t *>(msg);
        s->types.push_back(b != nullptr ? b[RTS_HDR_TYPE_OFF] : -1);
        if (s->decoded) {
            rtslib_msg_idl_release(h, msg);
            return 0;
        }
        uint32_t len = 0;
        std::memcpy(&len, b + RTS_HDR_LEN_OFF, 4);
        s->raw.emplace_back(b, b + len);
        rtslib_msg_free(h, msg);
        return 0;
    }
};

// The bytes of a routing-socket option as the emulator keeps them.
inline std::vector<uint8_t> socket_option(rtslib_cookie *h, int optname, uint32_t size)
{
    std::vector<uint8_t> v(size);
    uint32_t len = size;
    EXPECT_EQ(tarn::os::route_getsockopt(h->fd, optname, v.data(), &len), 0);
    v.resize(len);
    return v;
}

// The listen mask in the emulator's typed socket state (high word first).
inline uint64_t listen_mask(rtslib_cookie *h)
{
    const std::string v = socket_state(h->fd, "listen-mask");
    EXPECT_EQ(v.size(), 18u) << v;
    return v.size() == 18 ? std::stoull(v, nullptr, 16) : ~uint64_t{0};
}

inline size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A handle on its own emulator with a library-made event context.
class AsyncTest : public testing::Test {
protected:
    explicit AsyncTest(std::vector<std::string> args = {"--log"}) : emu_(std::move(args)) {}
    void SetUp() override
    {
        ASSERT_TRUE(emu_.running());
        h_ = open();
        ASSERT_NE(h_, nullptr);
    }
    void TearDown() override { rtslib_close(h_); }

    rtslib_cookie *open() { return rtslib_open_set_liberr(1, &reports_, ReportCollector::sink); }
    void push(const std::vector<uint8_t> &m)
    {
        ASSERT_EQ(inject(h_->fd, m), 0) << std::strerror(errno);
    }

    KernelEmulator emu_;
    ReportCollector reports_;
    rtslib_cookie *h_ = nullptr;
};

}  // namespace tarn::test

#endif  // TARN_TESTS_RTSLIB_ASYNC_TEST_SUPPORT_H
