// A session against a fake routing daemon, with every callback recorded as a
// line of text, and a kernel emulator for the session's routing-socket side.
#ifndef TARN_TESTS_TARN_CLIENT_CLIENT_FIXTURE_H
#define TARN_TESTS_TARN_CLIENT_CLIENT_FIXTURE_H

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tarn/tarn_client.h>

#include "fake_daemon.h"
#include "kernel_emulator.h"

namespace tarn::test {

struct Recorder {
    std::vector<std::string> calls;
    static Recorder &of(tarn_session_handle *s)
    {
        return *static_cast<Recorder *>(tarn_session_return_context(s));
    }
    __attribute__((format(printf, 2, 3))) static void add(tarn_session_handle *s,
                                                          const char *fmt, ...)
    {
        char buf[256];
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        of(s).calls.emplace_back(buf);
    }
};

inline std::string join_u32(const uint32_t *v, unsigned n)
{
    std::string out;
    for (unsigned i = 0; i < n; ++i) out += (i ? "," : "") + std::to_string(v[i]);
    return out;
}

inline tarn_session_funs recording_funs(bool queueing)
{
    tarn_session_funs f{};
    f.tsf_connection_status = [](tarn_session_handle *s, int z, int st) {
        Recorder::add(s, "status %d %d", z, st);
    };
    f.tsf_connection_lost = [](tarn_session_handle *s, int, int) { Recorder::add(s, "lost"); };
    f.tsf_protocol_register = [](tarn_session_handle *s, uint32_t vb, uint16_t idx, uint32_t gw,
                                 uint32_t rc) { Recorder::add(s, "preg %u %u %u %u", vb, idx, gw, rc); };
    f.tsf_protocol_unregister = [](tarn_session_handle *s, uint32_t rc, uint32_t v2) {
        Recorder::add(s, "punreg %u %u", rc, v2);
    };
    f.tsf_rt_add = [](tarn_session_handle *s, uint32_t cookie, uint32_t rc, const uint32_t *h,
                      uint16_t n) { Recorder::add(s, "add %u %u [%s]", cookie, rc, join_u32(h, n).c_str()); };
    f.tsf_rt_delete = [](tarn_session_handle *s, uint32_t cookie, uint32_t rc) {
        Recorder::add(s, "del %u %u", cookie, rc);
    };
    f.tsf_rt_record = [](tarn_session_handle *s, const tarn_rt_record *r, size_t len) {
        std::string hops;
        for (unsigned i = 0; i < r->rr_nh_count; ++i)
            hops += " " + std::to_string(r->rr_nexthops[i].nh_ifl_index) + "/" +
                    std::to_string(r->rr_nexthops[i].nh_gateway[0]);
        Recorder::add(s, "rec %u %u %u /%u f%u %u.%u pref%u gw%u ch%u len%zu%s", r->rr_result,
                      r->rr_cookie, r->rr_table_id, r->rr_prefix_len, r->rr_family, r->rr_prefix[0],
                      r->rr_prefix[3], r->rr_preference, r->rr_gw_handle, r->rr_change, len, hops.c_str());
    };
    f.tsf_rt_change_gateway = [](tarn_session_handle *s, uint32_t rc, uint32_t cookie,
                                 const uint32_t *t, uint16_t n) {
        Recorder::add(s, "chgw %u %u [%s]", rc, cookie, join_u32(t, n).c_str());
    };
    f.tsf_rt_table_locate = [](tarn_session_handle *s, uint32_t tid, uint32_t rc, uint32_t cookie) {
        Recorder::add(s, "table %u %u %u", tid, rc, cookie);
    };
    if (queueing) {
        f.tsf_want_write = [](tarn_session_handle *s) { Recorder::add(s, "want"); };
        f.tsf_write_drained = [](tarn_session_handle *s) { Recorder::add(s, "drained"); };
    }
    f.tsf_alias_result = [](tarn_session_handle *s, uint32_t id, int kind, uint32_t code) {
        Recorder::add(s, "alias %u %d %u", id, kind, code);
    };
    f.tsf_route_alias = [](tarn_session_handle *s, int kind, const tarn_ra_record *r) {
        Recorder::add(s, "ra %d %u %08x %u %u", kind, r->ra_word0, r->ra_word1, r->ra_bytes[15],
                      r->ra_extra[5]);
    };
    f.tsf_local_as = [](tarn_session_handle *s, const tarn_local_as_reply *r) {
        Recorder::add(s, "las %u %u %u %u %u", r->la_result, r->la_cookie, r->la_local_as,
                      r->la_table_id, r->la_confed_member);
    };
    f.tsf_flash_register = [](tarn_session_handle *s, const tarn_flash_register_reply *r, size_t) {
        Recorder::add(s, "flash %u %u %u", r->fr_result, r->fr_a, r->fr_table_id);
    };
    return f;
}

class ClientTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emu_.running()); }
    void TearDown() override { tarn_session_handle_free(s_); }

    // A session allocated with the recording table.
    void make_session(bool queueing = false)
    {
        funs_ = recording_funs(queueing);
        ASSERT_EQ(tarn_session_handle_alloc(&s_, &funs_), 0);
        tarn_session_set_context(s_, &rec_);
    }
    // A session connected to the daemon and accepted by it.
    void accept_session(bool queueing = false)
    {
        make_session(queueing);
        ASSERT_EQ(tarn_session_connect(s_, daemon_.address(), 0), 0);
        ASSERT_TRUE(daemon_.accept());
        daemon_.send(12, Bytes().u32(11));
        ASSERT_EQ(tarn_session_reply_get(s_), 0);
        ASSERT_EQ(rec_.calls, std::vector<std::string>{"status 0 0"});
        rec_.calls.clear();
    }
    // Delivers one frame from the daemon to the session.
    int deliver(uint16_t type, const std::vector<uint8_t> &payload)
    {
        daemon_.send(type, payload);
        return tarn_session_reply_get(s_);
    }

    KernelEmulator emu_;
    FakeDaemon daemon_;
    Recorder rec_;
    tarn_session_funs funs_{};
    tarn_session_handle *s_ = nullptr;
};

}  // namespace tarn::test

#endif  // TARN_TESTS_TARN_CLIENT_CLIENT_FIXTURE_H
