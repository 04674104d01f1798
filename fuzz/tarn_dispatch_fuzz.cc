// Arbitrary messages from a routing daemon fed to an accepted session over a
// socketpair. Input: records of a type byte, a 16-bit length and up to that
// many payload bytes, each sent as one well-framed message (the framing has
// its own target). Callbacks read every byte they are handed, so a reply
// whose counts overrun its payload shows up under the sanitizers; a record
// that breaks the callback contract aborts.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <tarn/tarn_lsping_query.h>

#include "libtarn/tarn_client/tarn_client_internal.h"

namespace {

volatile uint8_t g_sink;

void touch(const void *p, size_t n)
{
    const auto *b = static_cast<const uint8_t *>(p);
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i) x ^= b[i];
    g_sink = x;
}

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "tarn dispatch: %s\n", what);
    std::abort();
}

void on_record(tarn_session_handle *, const tarn_rt_record *r, size_t len)
{
    if (r->rr_nh_count > TARN_RT_MAX_NEXTHOPS || len < TARN_RT_RECORD_FIXED_LEN + 24u * r->rr_nh_count)
        fail("route record larger than its payload");
    touch(r, TARN_RT_RECORD_FIXED_LEN + 24u * r->rr_nh_count);
}

void on_private(tarn_session_handle *, uint32_t, uint32_t, const void *p, size_t len)
{
    if (len > TARN_MSG_MAX_PAYLOAD) fail("private record too long");
    touch(p, len);
}

tarn_session_funs make_funs()
{
    tarn_session_funs f{};
    f.tsf_connection_status = [](tarn_session_handle *, int, int) {};
    f.tsf_connection_lost = [](tarn_session_handle *, int, int) {};
    f.tsf_protocol_register = [](tarn_session_handle *, uint32_t, uint16_t, uint32_t, uint32_t) {};
    f.tsf_protocol_unregister = [](tarn_session_handle *, uint32_t, uint32_t) {};
    f.tsf_rt_add = [](tarn_session_handle *, uint32_t, uint32_t, const uint32_t *h, uint16_t n) {
        touch(h, 4u * n);
    };
    f.tsf_rt_delete = [](tarn_session_handle *, uint32_t, uint32_t) {};
    f.tsf_rt_record = on_record;
    f.tsf_rt_change_gateway = [](tarn_session_handle *, uint32_t, uint32_t, const uint32_t *t,
                                 uint16_t n) { touch(t, 4u * n); };
    f.tsf_rt_table_locate = [](tarn_session_handle *, uint32_t, uint32_t, uint32_t) {};
    f.tsf_alias_result = [](tarn_session_handle *, uint32_t, int kind, uint32_t code) {
        if (kind != TARN_RA_KIND_ADD && kind != TARN_RA_KIND_DELETE) fail("alias kind");
        if (code != 34 && code != 35 && code != 40 && code != 41 && code != 33 && code != 39)
            fail("alias code");
    };
    f.tsf_route_alias = [](tarn_session_handle *, int, const tarn_ra_record *r) { touch(r, sizeof *r); };
    f.tsf_local_as = [](tarn_session_handle *, const tarn_local_as_reply *r) { touch(r, sizeof *r); };
    f.tsf_flash_register = [](tarn_session_handle *, const tarn_flash_register_reply *r, size_t) {
        touch(r, sizeof *r);
    };
    return f;
}

// A query record: its labels within bounds, touched whole.
template <typename Rec> void on_info(tarn_session_handle *, uint32_t, uint32_t, const Rec *r, size_t)
{
    touch(r, sizeof *r);
}
void check_labels(const tarn_lsping_labels &lb)
{
    if (lb.lb_count > TARN_LSPING_MAX_LABELS) fail("label count over the limit");
}

tarn_private_funs make_private()
{
    tarn_private_funs p{};
    tarn_private_reply_fn *slots[] = {&p.tpf_reply_77, &p.tpf_reply_60_78, &p.tpf_reply_61,
                                      &p.tpf_reply_75_76, &p.tpf_reply_72_73};
    for (auto *slot : slots) *slot = on_private;
    p.tpf_rsvp_lsp = [](tarn_session_handle *, uint32_t, uint32_t, const tarn_rsvp_lsp_info *r, size_t) {
        check_labels(r->ri_labels);
    };
    p.tpf_rsvp_p2mp_lsp = p.tpf_ldp_p2mp_fec = [](tarn_session_handle *, uint32_t, uint32_t,
                                                  const tarn_p2mp_info *r, size_t len) {
        if (r->pi_branch_count > len / 32) fail("more branches than the payload holds");
        for (uint32_t i = 0; i < r->pi_branch_count; ++i) check_labels(r->pi_branches[i].pb_labels);
        touch(r->pi_branches, sizeof *r->pi_branches * r->pi_branch_count);
    };
    p.tpf_vpn_pfx = on_info<tarn_vpn_pfx_info>;
    p.tpf_l2vpn = on_info<tarn_l2vpn_info>;
    p.tpf_l2ckt = on_info<tarn_l2ckt_info>;
    p.tpf_endpt = on_info<tarn_endpt_info>;
    p.tpf_bgp_fec = on_info<tarn_bgp_fec_info>;
    p.tpf_lspmon = on_info<tarn_lspmon_info>;
    p.tpf_static_lsp = on_info<tarn_static_lsp_info>;
    p.tpf_tdmpw = on_info<tarn_tdmpw_info>;
    p.tpf_mdiagd_p2mp = [](tarn_session_handle *, uint32_t, uint32_t, const tarn_mdiagd_p2mp_info *r,
                           size_t len) {
        if (r->di_count > len / 4) fail("more ids than the payload holds");
        touch(r->di_ids, 4u * r->di_count);
    };
    p.tpf_ldp_fec = [](tarn_session_handle *, uint32_t, uint32_t, const void *rest, size_t len) {
        touch(rest, len);
    };
    return p;
}

// Writes what the pipe holds; the peer end is never read, and the few
// alias requests fit its buffer.
int plain_writer(tarn_session_handle *s)
{
    int rc = ipc_pipe_write(s->pipe, 0);
    ipc_pipe_write_discard(s->pipe);
    return rc;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 16384) return 0;
    static const tarn_session_funs funs = make_funs();
    static const tarn_private_funs private_funs = make_private();

    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) fail("socketpair");
    ::fcntl(sv[0], F_SETFL, O_NONBLOCK);
    auto *s = static_cast<tarn_session_handle *>(std::calloc(1, sizeof(tarn_session_handle)));
    s->pipe = ipc_pipe_create(TARN_SESSION_BUFSIZE);
    s->fd = sv[0];
    s->family = tarn::client::kDomainLocal;
    s->funs = &funs;
    s->private_funs = (data[0] & 1) ? &private_funs : nullptr;
    s->state = tarn::client::kAccepted;
    s->writer = plain_writer;
    s->queue_tail = &s->queue_head;
    s->rtsock = -1;
    s->alias_tree = patricia_root_init(nullptr, 0, 2, 0);
    if (s->pipe == nullptr || s->alias_tree == nullptr || ipc_pipe_attach_socket(s->pipe, sv[0]) != 0)
        fail("session");

    // Pending alias operations for keys 0-3, two per key, so that flagged
    // replies find something to act on.
    for (uint16_t key = 0; key < 4; ++key) {
        tarn::client::AliasRequest req{};
        req.key = key;
        req.family = static_cast<uint8_t>(key & 1 ? TARN_FAMILY_INET6 : TARN_FAMILY_INET);
        for (uint32_t id = 0; id < 2; ++id)
            tarn::client::alias_enqueue(s, &req, id, id == 0 ? TARN_RA_KIND_ADD : TARN_RA_KIND_DELETE);
    }

    std::string stream;
    for (size_t off = 1; off + 3 <= size;) {
        const uint8_t type = data[off];
        size_t len = static_cast<size_t>(data[off + 1]) << 8 | data[off + 2];
        off += 3;
        if (len > size - off) len = size - off;
        if (len > TARN_MSG_MAX_PAYLOAD) len = TARN_MSG_MAX_PAYLOAD;
        ipc_msg_t h{};
        h.type = type;
        h.length = static_cast<uint16_t>(len);
        stream.append(reinterpret_cast<const char *>(&h), sizeof h);
        stream.append(reinterpret_cast<const char *>(data + off), len);
        off += len;
    }
    if (::write(sv[1], stream.data(), stream.size()) != static_cast<ssize_t>(stream.size()))
        fail("write");
    while (tarn_session_reply_get(s) == 0) {
    }
    tarn_session_handle_free(s);
    ::close(sv[1]);
    return 0;
}
