/*
 * The demo's conversation with the routing daemon: a session driven by the
 * same eventlib loop as a kernel listener. Connect, wait for the daemon's
 * answer, identify, register a protocol, add a route through the daemon,
 * and watch the route arrive in the kernel as a notification; register for
 * route changes in its table and print the flash notification of a second
 * route; ask the RSVP and LDP LSP-ping queries and print their answers with
 * their texts. Run against
 * tarn-emu (TARN_EMU_SOCKET names its socket) with tarn-kernel-emu behind it.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarn/tarn.h>
#include <tarn/tarn_lsping_query.h>

#include "demo.h"

struct tarn_demo {
    evContext ev;
    evFileID read_id;
    evFileID write_id;
    int reading;
    int writing;
    tarn_session_handle *session;
    rtslib_cookie *listener;
    int route_seen;  /* the kernel told the listener about our route */
    int reply_seen;  /* the daemon answered the route add */
    uint32_t gw_handle;
    int flash_seen;  /* the flash notification of the second route */
    int answers;     /* LSP-ping answers */
};

static const uint8_t demo_prefix[4] = {203, 0, 113, 0};

static struct tarn_demo *demo_of(tarn_session_handle *s)
{
    return tarn_session_return_context(s);
}

static void stop_when_done(struct tarn_demo *d)
{
    if (d->route_seen && d->reply_seen && d->flash_seen && d->answers == 2) evBreak(d->ev);
}

static void fill_route(tarn_rt_request *rq, uint32_t cookie, uint32_t gw_handle, uint8_t third)
{
    memset(rq, 0, sizeof *rq);
    rq->rt_cookie = cookie;
    rq->rt_table_id = 0;
    rq->rt_gw_handle = gw_handle;
    rq->rt_family = TARN_FAMILY_INET;
    rq->rt_prefix_len = 24;
    memcpy(rq->rt_prefix, demo_prefix, sizeof demo_prefix);
    rq->rt_prefix[2] = third;
    rq->rt_preference = 5;
    rq->rt_nh_count = 1;
    rq->rt_nexthops[0].nh_ifl_index = 2;
    rq->rt_nexthops[0].nh_family = TARN_FAMILY_INET;
    rq->rt_nexthops[0].nh_gateway[0] = 192;
    rq->rt_nexthops[0].nh_gateway[1] = 0;
    rq->rt_nexthops[0].nh_gateway[2] = 2;
    rq->rt_nexthops[0].nh_gateway[3] = 1;
}

/* The session socket is readable: every complete message is dispatched, one
 * per call, until the library says nothing more is there. */
static void on_readable(evContext ev, void *uap, int fd, int events)
{
    struct tarn_demo *d = uap;
    (void)ev;
    (void)fd;
    (void)events;
    while (d->session != NULL && tarn_session_reply_get(d->session) == 0) {
    }
}

static void on_writable(evContext ev, void *uap, int fd, int events)
{
    struct tarn_demo *d = uap;
    (void)fd;
    (void)events;
    /* Deselect first: the write callback asks again (want write) while
     * messages remain. */
    evDeselectFD(ev, d->write_id);
    d->writing = 0;
    tarn_session_write_callback(d->session);
}

static void want_write(tarn_session_handle *s)
{
    struct tarn_demo *d = demo_of(s);
    if (d->writing) return;
    if (evSelectFD(d->ev, tarn_session_handle_descriptor(s), EV_WRITE, on_writable, d,
                   &d->write_id) == 0)
        d->writing = 1;
}

static void write_drained(tarn_session_handle *s)
{
    (void)s;
}

static void connection_status(tarn_session_handle *s, int zero, int status)
{
    struct tarn_demo *d = demo_of(s);
    (void)zero;
    if (status != TARN_CONNECT_ACCEPTED) {
        printf("  the routing daemon %s the session\n",
               status == TARN_CONNECT_REFUSED ? "refused" : "could not take");
        evBreak(d->ev);
        return;
    }
    printf("  session accepted by the routing daemon\n");
    printf("  identify as \"demo\":                          %s\n",
           tarn_client_identify(s, "demo") == 0 ? "sent" : strerror(errno));
    printf("  register protocol \"demo-static\":             %s\n",
           tarn_session_protocol_register(s, "demo-static", NULL, 1, 77) == 0 ? "sent"
                                                                               : strerror(errno));
}

static void connection_lost(tarn_session_handle *s, int a, int b)
{
    (void)a;
    (void)b;
    printf("  connection to the routing daemon lost\n");
    evBreak(demo_of(s)->ev);
}

static void protocol_registered(tarn_session_handle *s, uint32_t value_b, uint16_t index,
                                uint32_t gw_handle, uint32_t result)
{
    tarn_rt_request rq;
    (void)value_b;
    printf("  registration answered: %s (protocol %u, gateway handle %u)\n",
           tarn_rt_get_error_code_string(result), index, gw_handle);
    if (result != TARN_RC_SUCCESS) {
        evBreak(demo_of(s)->ev);
        return;
    }
    demo_of(s)->gw_handle = gw_handle;
    fill_route(&rq, 1001, gw_handle, 113);
    printf("  add 203.0.113.0/24 via 192.0.2.1 (cookie 1001): %s\n",
           tarn_rt_add(s, &rq) == 0 ? "sent" : strerror(errno));
}

static void route_added(tarn_session_handle *s, uint32_t cookie, uint32_t result,
                        const uint32_t *handles, uint16_t count)
{
    struct tarn_demo *d = demo_of(s);
    printf("  route add answered (cookie %u): %s, %u route handle%s", cookie,
           tarn_rt_get_error_code_string(result), count, count == 1 ? "" : "s");
    if (count > 0) printf(", first %u", handles[0]);
    printf("\n");
    if (cookie != 1001) return;
    d->reply_seen = 1;
    if (result != TARN_RC_SUCCESS) {
        evBreak(d->ev);
        return;
    }
    /* Route changes in table 0: a = our value echoed, b = 1 (register),
     * c = the table; no filter. */
    printf("  register for route changes in table 0:        %s\n",
           tarn_rt_flash_register_request(s, 77, 1, 0, 0, 0, NULL) == 0 ? "sent"
                                                                         : strerror(errno));
}

static void flash_registered(tarn_session_handle *s, const tarn_flash_register_reply *r,
                             size_t len)
{
    tarn_rt_request rq;
    (void)len;
    printf("  flash registration answered: %s (table %u)\n",
           tarn_rt_get_error_code_string(r->fr_result), r->fr_table_id);
    if (r->fr_result != TARN_RC_SUCCESS) {
        evBreak(demo_of(s)->ev);
        return;
    }
    fill_route(&rq, 1002, demo_of(s)->gw_handle, 114);
    printf("  add 203.0.114.0/24 (cookie 1002):             %s\n",
           tarn_rt_add(s, &rq) == 0 ? "sent" : strerror(errno));
}

/* Flash notifications (and lookup answers) arrive as route records. */
static void route_record(tarn_session_handle *s, const tarn_rt_record *r, size_t len)
{
    struct tarn_demo *d = demo_of(s);
    static const char *const kinds[] = {"looked up", "added", "changed", "deleted"};
    tarn_lsping_fec fec;
    (void)len;
    printf("  flash notification: %u.%u.%u.%u/%u in table %u %s\n", r->rr_prefix[0],
           r->rr_prefix[1], r->rr_prefix[2], r->rr_prefix[3], r->rr_prefix_len, r->rr_table_id,
           r->rr_change <= 3 ? kinds[r->rr_change] : "?");
    if (d->flash_seen++ > 0) return;
    /* Now what an LSP ping would need: an RSVP LSP and an LDP FEC. */
    printf("  RSVP query for LSP \"to-pe2\":                %s\n",
           tarn_rsvp_lsp_lookup(s, "to-pe2", NULL, NULL, 0, 2001) == 0 ? "sent"
                                                                         : strerror(errno));
    fec.fec_address = (10u << 24) | 2u;
    fec.fec_prefix_len = 32;
    fec.fec_pad = 0;
    printf("  LDP query for FEC 10.0.0.2/32:                %s\n",
           tarn_ldp_fec_lookup(s, &fec, "", 2002) == 0 ? "sent" : strerror(errno));
}

static void rsvp_answer(tarn_session_handle *s, uint32_t cookie, uint32_t result,
                        const struct tarn_rsvp_lsp_info *info, size_t len)
{
    struct tarn_demo *d = demo_of(s);
    (void)len;
    printf("  RSVP answer (cookie %u): %s", cookie, rsvp_lsping_info_strerr((int)result));
    if (result == TARN_LSPING_RSVP_OK && info != NULL)
        printf("; %s, %u label%s, first %u", rsvp_lsping_info_strerr((int)info->ri_path_kind),
               info->ri_labels.lb_count, info->ri_labels.lb_count == 1 ? "" : "s",
               info->ri_labels.lb_count > 0 ? info->ri_labels.lb_labels[0] : 0);
    printf("\n");
    d->answers++;
    stop_when_done(d);
}

static void ldp_answer(tarn_session_handle *s, uint32_t cookie, uint32_t result,
                       const void *rest, size_t len)
{
    struct tarn_demo *d = demo_of(s);
    tarn_ldp_fec_info info;
    printf("  LDP answer (cookie %u): %s", cookie, ldp_lsping_info_strerr((int)result));
    if (result == TARN_LSPING_LDP_OK && len >= TARN_LDP_FEC_REPLY_MIN - 8) {
        memset(&info, 0, sizeof info);
        memcpy(&info, rest, len < sizeof info ? len : sizeof info);
        printf("; next hop on interface %u, %u label%s, first %u", info.fi_nh_ifl_index,
               info.fi_label_count, info.fi_label_count == 1 ? "" : "s",
               info.fi_label_count > 0 ? info.fi_labels[0] : 0);
    }
    printf("\n");
    d->answers++;
    stop_when_done(d);
}

/* The kernel listener: our route, as the kernel announces it. */
static int on_kernel_route(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    struct tarn_demo *d = arg;
    const rt_msg_t *rt = msg;
    (void)reserved;
    if (rt->plen == 24 && rt->prefix != NULL && rt->prefix_len >= sizeof demo_prefix &&
        memcmp(rt->prefix, demo_prefix, sizeof demo_prefix) == 0) {
        printf("  kernel notification: route 203.0.113.0/24 %s, owner id %u\n",
               rt->hdr.op == RTS_OP_DELETE ? "deleted" : "added", rt->owner_id);
        d->route_seen = 1;
        stop_when_done(d);
    }
    rtslib_msg_idl_release(h, msg);
    return 0;
}

static void give_up(evContext ev, void *uap, struct timespec due, struct timespec inter)
{
    (void)uap;
    (void)due;
    (void)inter;
    printf("  (stopped waiting after three seconds)\n");
    evBreak(ev);
}

void demo_routing_daemon(struct report_log *log)
{
    static const tarn_session_funs funs = {
        .tsf_connection_status = connection_status,
        .tsf_connection_lost = connection_lost,
        .tsf_protocol_register = protocol_registered,
        .tsf_rt_add = route_added,
        .tsf_rt_record = route_record,
        .tsf_flash_register = flash_registered,
        .tsf_want_write = want_write,
        .tsf_write_drained = write_drained,
    };
    static tarn_private_funs private_funs;
    const char *path = getenv("TARN_EMU_SOCKET");
    struct tarn_demo d;
    uint8_t address[2 + 108];
    size_t plen;
    int rc;

    printf("Routing daemon:\n");
    if (path == NULL || (plen = strlen(path)) + 3 > sizeof address) {
        printf("  not shown (TARN_EMU_SOCKET does not name a tarn-emu socket)\n\n");
        return;
    }
    memset(&d, 0, sizeof d);
    d.listener = rtslib_open_set_liberr(44, log, demo_sink);
    if (d.listener == NULL || evCreate(&d.ev) != 0) {
        printf("  cannot set up: %s\n\n", strerror(errno));
        rtslib_close(d.listener);
        return;
    }
    rtslib_set_async_context(d.listener, d.ev);
    rc = rtslib_rtm_async_register(d.listener, &d, on_kernel_route);
    printf("  kernel listener for routes:                  %s\n", ok_or(rc));

    if (tarn_session_handle_alloc(&d.session, &funs) != 0) {
        printf("  no session: %s\n\n", strerror(errno));
        goto out;
    }
    tarn_session_set_context(d.session, &d);
    memset(&private_funs, 0, sizeof private_funs);
    private_funs.tpf_rsvp_lsp = rsvp_answer;
    private_funs.tpf_ldp_fec = ldp_answer;
    tarn_session_bind_private_funs(d.session, &private_funs);
    /* Byte 0 the record's length, byte 1 the kind, then the path. */
    address[0] = (uint8_t)(plen + 3);
    address[1] = TARN_CONNECT_KIND_LOCAL;
    memcpy(address + 2, path, plen + 1);
    rc = tarn_session_connect(d.session, address, 0);
    printf("  connect to %s: %s\n", path,
           rc == 0 ? "connected" : errno == EINPROGRESS ? "in progress" : strerror(errno));
    if (rc != 0 && errno != EINPROGRESS) goto out;
    if (evSelectFD(d.ev, tarn_session_handle_descriptor(d.session), EV_READ, on_readable, &d,
                   &d.read_id) != 0) {
        printf("  cannot watch the session: %s\n", strerror(errno));
        goto out;
    }
    evSetTimer(d.ev, give_up, NULL, evAddTime(evNowTime(), evConsTime(3, 0)), evConsTime(0, 0),
               NULL);
    d.reading = 1;
    rtslib_async_event_loop(d.listener);

out:
    /* The loop's selections go before the descriptor they watch. */
    if (d.reading) evDeselectFD(d.ev, d.read_id);
    if (d.writing) evDeselectFD(d.ev, d.write_id);
    tarn_session_handle_free(d.session);
    rtslib_close(d.listener);
    evDestroy(d.ev);
    printf("\n");
}
