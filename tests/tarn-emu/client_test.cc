// The library's routing-daemon client against tarn-emu: both ends of the
// wire agree on every layout a session uses.
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <tarn/tarn_client.h>

#include "emu_client.h"
#include "session_client.h"
#include "tarn_emulator.h"

namespace tarn::test {
namespace {

using ClientSession = SessionClient;

TEST(TarnEmuClient, SessionRegistersAddsAndHearsFlashes)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    ClientSession a(emu.socket_path()), b(emu.socket_path());
    for (ClientSession *s : {&a, &b}) {
        ASSERT_NE(s->get(), nullptr);
        ASSERT_EQ(s->next(), 0);
        ASSERT_EQ(s->seen().status, TARN_CONNECT_ACCEPTED);
    }
    ASSERT_EQ(tarn_client_identify(a.get(), "ospfd"), 0);
    ASSERT_EQ(tarn_session_protocol_register(a.get(), "ospf", nullptr, 1, 2), 0);
    ASSERT_EQ(a.next(), 0);
    ASSERT_EQ(a.seen().reg_result, 0u);
    ASSERT_EQ(tarn_rt_flash_register_request(b.get(), 5, 1, 0, 0, 0, nullptr), 0);
    ASSERT_EQ(b.next(), 0);
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
    ASSERT_EQ(a.next(), 0);
    EXPECT_EQ(a.seen().add_result, 0u);
    ASSERT_EQ(tarn_rt_delete(a.get(), &rq), 0);
    ASSERT_EQ(a.next(), 0);
    EXPECT_EQ(a.seen().delete_result, 0u);
    ASSERT_EQ(b.next(), 0);
    ASSERT_EQ(b.next(), 0);
    EXPECT_EQ(b.seen().flash_kinds, (std::vector<uint32_t>{TARN_RT_FLASH_ADDED, TARN_RT_FLASH_DELETED}));

    ASSERT_EQ(tarn_rt_table_locate(a.get(), "default", 1), 0);
    ASSERT_EQ(a.next(), 0);
    EXPECT_EQ(a.seen().table, 0u);
    ASSERT_EQ(tarn_local_as_by_name(a.get(), "master", 1), 0);
    ASSERT_EQ(a.next(), 0);
    EXPECT_EQ(a.seen().as, 64512u);
    EXPECT_NE(emu.control("dump").find("client 1 \"ospfd\""), std::string::npos);
}

}  // namespace
}  // namespace tarn::test
