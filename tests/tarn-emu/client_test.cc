// The library's routing-daemon client against tarn-emu: both ends of the
// wire agree on every layout a session uses.
#include <poll.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <tarn/tarn_client.h>

#include "emu_client.h"
#include "tarn_emulator.h"

namespace tarn::test {
namespace {

// What the callbacks saw, per session.
struct Seen {
    int status = -1;
    uint32_t gw = 0, reg_result = 99, add_result = 99, delete_result = 99, flash_result = 99, as = 0, table = 99;
    std::vector<uint32_t> flash_kinds;
};

Seen &seen(tarn_session_handle *s)
{
    return *static_cast<Seen *>(tarn_session_return_context(s));
}

const tarn_session_funs kFuns = [] {
    tarn_session_funs f{};
    f.tsf_connection_status = [](tarn_session_handle *s, int, int status) { seen(s).status = status; };
    f.tsf_protocol_register = [](tarn_session_handle *s, uint32_t, uint16_t, uint32_t gw,
                                 uint32_t result) {
        seen(s).gw = gw;
        seen(s).reg_result = result;
    };
    f.tsf_rt_add = [](tarn_session_handle *s, uint32_t, uint32_t result, const uint32_t *, uint16_t) {
        seen(s).add_result = result;
    };
    f.tsf_rt_delete = [](tarn_session_handle *s, uint32_t, uint32_t result) {
        seen(s).delete_result = result;
    };
    f.tsf_rt_record = [](tarn_session_handle *s, const tarn_rt_record *r, size_t) {
        seen(s).flash_kinds.push_back(r->rr_change);
    };
    f.tsf_rt_table_locate = [](tarn_session_handle *s, uint32_t table, uint32_t, uint32_t) {
        seen(s).table = table;
    };
    f.tsf_local_as = [](tarn_session_handle *s, const tarn_local_as_reply *r) { seen(s).as = r->la_local_as; };
    f.tsf_flash_register = [](tarn_session_handle *s, const tarn_flash_register_reply *r, size_t) {
        seen(s).flash_result = r->fr_result;
    };
    return f;
}();

class ClientSession {
public:
    explicit ClientSession(const std::string &path)
    {
        if (tarn_session_handle_alloc(&s_, &kFuns) != 0) return;
        tarn_session_set_context(s_, &seen_);
        std::vector<uint8_t> addr(2 + path.size() + 1);
        addr[0] = static_cast<uint8_t>(addr.size());
        addr[1] = TARN_CONNECT_KIND_LOCAL;
        std::memcpy(addr.data() + 2, path.c_str(), path.size() + 1);
        tarn_session_connect(s_, addr.data(), 0);
    }
    ~ClientSession() { tarn_session_handle_free(s_); }
    tarn_session_handle *get() const { return s_; }
    Seen &seen() { return seen_; }
    // Dispatches one message, waiting for it; false when none comes. One
    // read may bring several, and the session hands out one per call.
    bool next()
    {
        pollfd p{tarn_session_handle_descriptor(s_), POLLIN, 0};
        for (;;) {
            if (tarn_session_reply_get(s_) == 0) return true;
            if ((errno != EAGAIN && errno != ENOMSG) || ::poll(&p, 1, 5000) != 1) return false;
        }
    }

private:
    tarn_session_handle *s_ = nullptr;
    Seen seen_;
};

TEST(TarnEmuClient, SessionRegistersAddsAndHearsFlashes)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    ClientSession a(emu.socket_path()), b(emu.socket_path());
    for (ClientSession *s : {&a, &b}) {
        ASSERT_NE(s->get(), nullptr);
        ASSERT_TRUE(s->next());
        ASSERT_EQ(s->seen().status, TARN_CONNECT_ACCEPTED);
    }
    ASSERT_EQ(tarn_client_identify(a.get(), "ospfd"), 0);
    ASSERT_EQ(tarn_session_protocol_register(a.get(), "ospf", nullptr, 1, 2), 0);
    ASSERT_TRUE(a.next());
    ASSERT_EQ(a.seen().reg_result, 0u);
    ASSERT_EQ(tarn_rt_flash_register_request(b.get(), 5, 1, 0, 0, 0, nullptr), 0);
    ASSERT_TRUE(b.next());
    EXPECT_EQ(b.seen().flash_result, 0u);

    tarn_rt_request rq{};
    rq.rt_cookie = 4;
    rq.rt_gw_handle = a.seen().gw;
    rq.rt_family = TARN_FAMILY_INET;
    rq.rt_prefix_len = 24;
    rq.rt_prefix[0] = 10;
    rq.rt_prefix[2] = 3;
    rq.rt_nh_count = 1;
    rq.rt_nexthops[0].nh_ifl_index = 2;
    rq.rt_nexthops[0].nh_family = TARN_FAMILY_INET;
    ASSERT_EQ(tarn_rt_add(a.get(), &rq), 0);
    ASSERT_TRUE(a.next());
    EXPECT_EQ(a.seen().add_result, 0u);
    ASSERT_EQ(tarn_rt_delete(a.get(), &rq), 0);
    ASSERT_TRUE(a.next());
    EXPECT_EQ(a.seen().delete_result, 0u);
    ASSERT_TRUE(b.next());
    ASSERT_TRUE(b.next());
    EXPECT_EQ(b.seen().flash_kinds, (std::vector<uint32_t>{TARN_RT_FLASH_ADDED, TARN_RT_FLASH_DELETED}));

    ASSERT_EQ(tarn_rt_table_locate(a.get(), "default", 1), 0);
    ASSERT_TRUE(a.next());
    EXPECT_EQ(a.seen().table, 0u);
    ASSERT_EQ(tarn_local_as_by_name(a.get(), "master", 1), 0);
    ASSERT_TRUE(a.next());
    EXPECT_EQ(a.seen().as, 64512u);
    EXPECT_NE(emu.control("dump").find("client 1 \"ospfd\""), std::string::npos);
}

}  // namespace
}  // namespace tarn::test
