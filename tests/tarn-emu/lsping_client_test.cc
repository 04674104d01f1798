// LSP-ping queries from the library to tarn-emu and back: both ends agree on
// the request and reply layouts of several kinds.
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn_lsping_query.h>

#include "tarn_emulator.h"

namespace tarn::test {
namespace {

std::vector<std::string> &seen(tarn_session_handle *s)
{
    return *static_cast<std::vector<std::string> *>(tarn_session_return_context(s));
}
void note(tarn_session_handle *s, std::string line) { seen(s).push_back(std::move(line)); }
std::string labels(const tarn_lsping_labels &l)
{
    std::string out;
    for (uint32_t i = 0; i < l.lb_count; ++i) out += " " + std::to_string(l.lb_labels[i]);
    return out;
}
std::string u(uint32_t v) { return std::to_string(v); }

const tarn_session_funs kFuns = [] {
    tarn_session_funs f{};
    f.tsf_connection_status = [](tarn_session_handle *s, int, int st) { note(s, "status " + u(st)); };
    return f;
}();

const tarn_private_funs kPrivate = [] {
    tarn_private_funs p{};
    p.tpf_rsvp_lsp = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_rsvp_lsp_info *r, size_t) {
        note(s, "rsvp " + u(c) + " " + u(rc) + " kind " + u(r->ri_path_kind) + " ifl " +
                    u(r->ri_nexthop.nh_ifl_index) + labels(r->ri_labels));
    };
    p.tpf_ldp_fec = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const void *rest, size_t) {
        tarn_ldp_fec_info fi;
        std::memcpy(&fi, rest, sizeof fi);
        note(s, "ldp " + u(c) + " " + u(rc) + " /" + u(fi.fi_prefix_len) + " labels " + u(fi.fi_label_count) +
                    " first " + u(fi.fi_labels[0]));
    };
    p.tpf_vpn_pfx = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_vpn_pfx_info *r, size_t) {
        note(s, "vpn " + u(c) + " " + u(rc) + labels(r->vi_labels));
    };
    p.tpf_rsvp_p2mp_lsp = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_p2mp_info *r, size_t) {
        note(s, "p2mp " + u(c) + " " + u(rc) + " id " + u(r->pi_id) + " branches " + u(r->pi_branch_count) +
                    (r->pi_branch_count ? labels(r->pi_branches[1].pb_labels) : ""));
    };
    p.tpf_static_lsp = [](tarn_session_handle *s, uint32_t c, uint32_t rc, const tarn_static_lsp_info *r, size_t) {
        note(s, "static " + u(c) + " " + u(rc) + " state " + u(r->si_state));
    };
    return p;
}();

// Dispatches one message, waiting for it; false when none comes.
bool next(tarn_session_handle *s)
{
    pollfd p{tarn_session_handle_descriptor(s), POLLIN, 0};
    for (;;) {
        if (tarn_session_reply_get(s) == 0) return true;
        if ((errno != EAGAIN && errno != ENOMSG) || ::poll(&p, 1, 5000) != 1) return false;
    }
}

TEST(TarnEmuLsping, QueriesReachTheDaemonAndRecordsComeBack)
{
    TarnEmulator emu;
    ASSERT_TRUE(emu.running());
    std::vector<std::string> calls;
    tarn_session_handle *s = nullptr;
    ASSERT_EQ(tarn_session_handle_alloc(&s, &kFuns), 0);
    tarn_session_set_context(s, &calls);
    ASSERT_EQ(tarn_session_bind_private_funs(s, &kPrivate), 0);
    const std::string &path = emu.socket_path();
    std::vector<uint8_t> addr(2 + path.size() + 1);
    addr[0] = static_cast<uint8_t>(addr.size());
    addr[1] = TARN_CONNECT_KIND_LOCAL;
    std::memcpy(addr.data() + 2, path.c_str(), path.size() + 1);
    tarn_session_connect(s, addr.data(), 0);
    ASSERT_TRUE(next(s));

    const tarn_lsping_fec fec{0x0a000002, 32, 0};
    const uint8_t red[16] = {192, 168, 1, 0};
    ASSERT_EQ(emu.control("force 49 2"), "ok\n");
    ASSERT_EQ(tarn_rsvp_lsp_lookup(s, "to-pe2", nullptr, nullptr, 0, 1), 0);
    ASSERT_EQ(tarn_rsvp_lsp_lookup(s, "to-pe2", "backup", nullptr, TARN_RSVP_LSP_STANDBY, 2), 0);
    ASSERT_EQ(tarn_rsvp_lsp_lookup(s, "nowhere", nullptr, nullptr, 0, 3), 0);
    ASSERT_EQ(tarn_ldp_fec_lookup(s, &fec, "", 4), 0);
    ASSERT_EQ(tarn_ldp_fec_lookup(s, &fec, "red", 5), 0);
    ASSERT_EQ(tarn_vpn_pfx_lookup(s, TARN_FAMILY_INET, red, 24, "red", 6), 0);
    ASSERT_EQ(tarn_rsvp_p2mp_lsp_lookup(s, "tree1", nullptr, 7), 0);
    ASSERT_EQ(tarn_static_lsp_lookup(s, "st1", 8), 0);
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(next(s)) << i;
    tarn_session_handle_free(s);

    EXPECT_EQ(calls, (std::vector<std::string>{
                         "status 0",
                         "rsvp 1 12 kind 13 ifl 5 300016",
                         "rsvp 2 12 kind 14 ifl 5 300016",
                         "rsvp 3 1 kind 0 ifl 0",
                         "ldp 4 4 /32 labels 1 first 299776",
                         "ldp 5 4 /32 labels 1 first 299800",
                         "vpn 6 7 299776 16",
                         "p2mp 7 12 id 7 branches 2 300101 16",
                         "static 8 2 state 0",
                     }));
}

}  // namespace
}  // namespace tarn::test
