/*
 * A minimal daemon's conversation with the kernel: open a routing-socket
 * handle, let the library negotiate message versions, show what the kernel
 * reported, take sequence numbers, set the sender and logical-router ids,
 * change routes and tables, watch the changes arrive as notifications on a
 * second handle in an eventlib loop, list the interfaces and their
 * addresses, look names and indexes up, add an address and hear about it,
 * close. Run it against tarn-kernel-emu (TARN_KERNEL_SOCKET names its
 * socket).
 */
#define _POSIX_C_SOURCE 200809L
#include <ctype.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarn/tarn.h>
#ifdef TARN_DEMO_HAVE_COMPRESS
#include <tarn/compress.h>
#endif

#include "demo.h"

/* Our own error sink: the library's reports are shown indented, and a fatal
 * one does not end the process, so the demo can explain what happened. */
int demo_sink(rtslib_cookie *handle, void *arg, int level, const char *text)
{
    struct report_log *log = arg;
    size_t len = strlen(text);
    (void)handle;
    while (len > 0 && text[len - 1] == '\n') len--;
    log->count++;
    if (strstr(text, "version mismatch for msg") != NULL) log->mismatches++;
    printf("    library report (level %d): %.*s\n", level, (int)len, text);
    return 0;
}

const char *ok_or(int rc)
{
    return rc == 0 ? "ok" : strerror(rc);
}

/* A route's prefix as a person writes it. */
static const char *prefix_text(uint8_t af, const uint8_t *p, uint32_t len, uint16_t plen)
{
    static char text[64];
    uint8_t b[16] = {0};
    memcpy(b, p, len < sizeof b ? len : sizeof b);
    int last = 7, i, n = 0;
    if (af == TARN_AF_INET) {
        snprintf(text, sizeof text, "%u.%u.%u.%u/%u", b[0], b[1], b[2], b[3], plen);
        return text;
    }
    while (last > 0 && b[2 * last] == 0 && b[2 * last + 1] == 0) last--;
    for (i = 0; i <= last; i++)
        n += snprintf(text + n, sizeof text - (size_t)n, "%s%x", i ? ":" : "", b[2 * i] << 8 | b[2 * i + 1]);
    snprintf(text + n, sizeof text - (size_t)n, "%s/%u", last < 7 ? "::" : "", plen);
    return text;
}

/* Walks table 0 of a family with getnext and prints every route. */
static void print_routes(rtslib_cookie *h, uint8_t af)
{
    rt_msg_t *rt = NULL;
    if (rtslib_rtm_get_by_type(h, af, 0, RTS_OP_GETNEXT, &rt, NULL) != 0) return;
    while (rt->hdr.error == 0) {
        rt_msg_t *next = NULL;
        printf("    %-22s next hop %u, kernel index %u\n",
               prefix_text(af, rt->prefix, rt->prefix_len, rt->plen), rt->nhidx, rt->ack_index);
        if (rtslib_rtm_get_with_msg(h, rt, RTS_OP_GETNEXT, &next, NULL) != 0) break;
        rtslib_msg_idl_release(h, rt);
        rt = next;
    }
    rtslib_msg_idl_release(h, rt);
}

static void demo_routes(rtslib_cookie *h)
{
    static const uint8_t net10[4] = {10, 0, 0, 0};
    static const uint8_t net192[4] = {192, 168, 1, 0};
    static const uint8_t net172[4] = {172, 16, 0, 0};
    static const uint8_t net6[16] = {0x20, 0x01, 0x0d, 0xb8};
    uint32_t index = 0, stats[RTS_RTSTATS_COUNTERS];
    uint32_t stats_prefix;
    rt_msg_t *rt = NULL;
    rtb_msg_t *table = NULL;
    int rc;

    printf("Routes in the default table:\n");
    rc = rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 100, 0, net10, 8, NULL, NULL);
    printf("  add 10.0.0.0/8 via next hop 100:              %s\n", ok_or(rc));
    rc = rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 200, 0, net192, 24, NULL, &index);
    printf("  add 192.168.1.0/24 via 200, acknowledged:     %s, kernel index %u\n", ok_or(rc), index);
    rc = rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 300, 0, net172, 12, NULL, NULL);
    printf("  add 172.16.0.0/12 via 300:                    %s\n", ok_or(rc));
    rc = rtslib_rtm_add(h, 0, TARN_AF_INET6, 1, 0, 2, 0, 0, 0, 0, 600, 0, net6, 32, NULL, NULL);
    printf("  add 2001:db8::/32 via 600:                    %s\n", ok_or(rc));

    rc = rtslib_rtm_get_by_prefix(h, TARN_AF_INET, net10, 8, RTS_OP_GET, &rt, NULL);
    if (rc == 0 && rt->hdr.error == 0)
        printf("  exact lookup of 10.0.0.0/8:                   next hop %u\n", rt->nhidx);
    rtslib_msg_idl_release(h, rt);
    printf("  all IPv4 routes, in prefix order (getnext):\n");
    print_routes(h, TARN_AF_INET);

    rc = rtslib_rtm_delete_prefix(h, 0, TARN_AF_INET, 1, 0, net10, 8, 0);
    printf("  delete 10.0.0.0/8:                            %s; now:\n", ok_or(rc));
    print_routes(h, TARN_AF_INET);
    printf("  all IPv6 routes:\n");
    print_routes(h, TARN_AF_INET6);

    printf("\nRoute tables:\n");
    rc = rtslib_rtbm_add(h, "blue", 5, TARN_AF_INET, 0);
    printf("  create table \"blue\" (index 5):              %s\n", ok_or(rc));
    rc = rtslib_rtbm_get_by_name(h, TARN_AF_INET, "blue", &table, NULL);
    if (rc == 0 && table->hdr.error == 0)
        printf("  look it up by name:                           index %u, logical router \"%s\"\n",
               table->tid, (const char *)table->lr_name);
    rtslib_msg_idl_release(h, table);

    printf("\nRoute statistics of 192.168.1.0/24:\n");
    memcpy(&stats_prefix, net192, 4);
    rc = rtslib_rtstats_get(h, TARN_AF_INET, 0, 0, 0, 24, &stats_prefix, stats);
    if (rc == 0)
        printf("  routes %u, adds %u, deletes %u, exact lookups %u, getnexts %u, route index %u\n\n",
               stats[0], stats[1], stats[2], stats[3], stats[4], stats[8]);
    else
        printf("  %s\n\n", ok_or(rc));
}

/* --- Notifications ------------------------------------------------------ */

struct watch {
    rtslib_cookie *h;
    int notifications;
};

static const char *op_text(uint8_t op)
{
    switch (op) {
    case RTS_OP_ADD:
    case RTS_OP_ADD_ACK: return "add";
    case RTS_OP_CHANGE: return "change";
    case RTS_OP_DELETE: return "delete";
    default: return "other";
    }
}

/* Handlers own what they are given: the kernel announces routes and tables
 * as decoded records, which go back with rtslib_msg_idl_release. */
static int on_route(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    struct watch *w = arg;
    rt_msg_t *rt = msg;
    (void)reserved;
    w->notifications++;
    printf("    route %-6s %-22s next hop %u\n", op_text(rt->hdr.op),
           prefix_text(rt->af, rt->prefix, rt->prefix_len, rt->plen), rt->nhidx);
    rtslib_msg_idl_release(h, msg);
    return 0;
}

static int on_table(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    struct watch *w = arg;
    rtb_msg_t *t = msg;
    (void)reserved;
    w->notifications++;
    printf("    table %-6s \"%.*s\" (index %u)\n", op_text(t->hdr.op), (int)t->name_len,
           t->name != NULL ? (const char *)t->name : "", t->tid);
    rtslib_msg_idl_release(h, msg);
    return 0;
}

/* The loop runs until this timer ends it. */
static void stop_loop(evContext ev, void *uap, struct timespec due, struct timespec inter)
{
    (void)uap;
    (void)due;
    (void)inter;
    evBreak(ev);
}

/* Runs the handle's event loop until a timer ends it, `ns` nanoseconds from
 * now. */
static void run_loop(rtslib_cookie *h, evContext ev, long ns)
{
    evSetTimer(ev, stop_loop, NULL, evAddTime(evNowTime(), evConsTime(0, ns)), evConsTime(0, 0),
               NULL);
    rtslib_async_event_loop(h);
}

/* A second handle listens for route and table changes in an eventlib loop
 * while the first makes them. */
static void demo_notifications(rtslib_cookie *h, struct report_log *log)
{
    static const uint8_t net198[4] = {198, 51, 100, 0};
    struct watch w = {NULL, 0};
    evContext ev;
    int rc;

    printf("Notifications:\n");
    w.h = rtslib_open_set_liberr(43, log, demo_sink);
    if (w.h == NULL || evCreate(&ev) != 0) {
        printf("  cannot set up the listener: %s\n\n", strerror(errno));
        rtslib_close(w.h);
        return;
    }
    rc = rtslib_set_async_context(w.h, ev);
    printf("  second handle attached to our event loop:    %s\n", ok_or(rc));
    rc = rtslib_rtm_async_register(w.h, &w, on_route);
    printf("  listen for routes:                            %s\n", ok_or(rc));
    rc = rtslib_rtbm_async_register(w.h, &w, on_table);
    printf("  listen for route tables:                      %s\n", ok_or(rc));

    rc = rtslib_rtm_add(h, 0, TARN_AF_INET, 1, 0, 2, 0, 0, 0, 0, 400, 0, net198, 24, NULL, NULL);
    printf("  first handle adds 198.51.100.0/24 via 400:    %s\n", ok_or(rc));
    rc = rtslib_rtm_delete_prefix(h, 0, TARN_AF_INET, 1, 0, net198, 24, 0);
    printf("  first handle deletes it again:                %s\n", ok_or(rc));
    rc = rtslib_rtbm_add(h, "green", 6, TARN_AF_INET, 0);
    printf("  first handle creates table \"green\" (index 6): %s\n", ok_or(rc));

    printf("  event loop for half a second; the listener sees:\n");
    run_loop(w.h, ev, 500000000);
    printf("  %d notification%s\n\n", w.notifications, w.notifications == 1 ? "" : "s");

    /* Closing the handle destroys its asynchronous context; the event
     * context is ours. */
    rtslib_close(w.h);
    evDestroy(ev);
}

/* The kernel announces interface addresses as decoded ifa_msg records. */
static int on_address(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    struct watch *w = arg;
    ifa_msg_t *a = msg;
    (void)reserved;
    w->notifications++;
    printf("    address %-6s %.*s.%u %s\n", op_text(a->hdr.op), (int)a->name_len,
           a->name != NULL ? (const char *)a->name : "", a->ifam_unit,
           prefix_text(a->ifam_af, a->ifam_local, a->ifam_local_len, a->ifam_local_plen));
    rtslib_msg_idl_release(h, msg);
    return 0;
}

/* An address of the router OS's socket-address layout: length byte, family
 * byte, port, then the IPv4 address. */
static const char *inet_text(const struct sockaddr *sa, char *buf, size_t len)
{
    const uint8_t *b = (const uint8_t *)sa;
    if (sa == NULL) return "-";
    snprintf(buf, len, "%u.%u.%u.%u", b[4], b[5], b[6], b[7]);
    return buf;
}

/* The interfaces the kernel has: the address list, lookups both ways, and an
 * address added with the router OS's ioctl, which a listener hears about. */
static void demo_interfaces(struct report_log *log)
{
    struct ifaddrs *list = NULL, *ifa;
    struct watch w = {NULL, 0};
    unsigned index;
    char name[IF_NAMESIZE > 64 ? IF_NAMESIZE : 64];
    char a[16], m[16];
    uint8_t req[108];
    evContext ev;
    int rc, fd;

    printf("Interfaces:\n");
    if (wrl_getifaddrs(&list) != 0) {
        printf("  address list failed: %s\n\n", strerror(errno));
        return;
    }
    for (ifa = list; ifa != NULL; ifa = ifa->ifa_next)
        printf("  %-14s %-15s netmask %-15s flags 0x%x\n", ifa->ifa_name,
               inet_text(ifa->ifa_addr, a, sizeof a), inet_text(ifa->ifa_netmask, m, sizeof m),
               ifa->ifa_flags);
    wrl_freeifaddrs(list);

    index = if_nametoindex("em0");
    printf("  if_nametoindex(\"em0\"):  %u\n", index);
    printf("  if_indextoname(%u):     %s\n", index,
           if_indextoname(index, name) != NULL ? name : strerror(errno));

    w.h = rtslib_open_set_liberr(44, log, demo_sink);
    if (w.h == NULL || evCreate(&ev) != 0) {
        printf("  cannot set up the listener: %s\n\n", strerror(errno));
        rtslib_close(w.h);
        return;
    }
    rc = rtslib_set_async_context(w.h, ev);
    if (rc == 0) rc = rtslib_ifam_async_register(w.h, 1, &w, on_address);
    printf("  a second handle listens for addresses:  %s\n", ok_or(rc));

    /* The add request: the name, the family byte at 61, the address at 64. */
    memset(req, 0, sizeof req);
    snprintf((char *)req, 60, "%s", "em0.0");
    req[61] = TARN_AF_INET;
    req[64] = 192, req[65] = 0, req[66] = 2, req[67] = 77;
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    rc = wrl_ioctl(fd, WRL_SIOCAIFADDR, req) == 0 ? 0 : errno;
    printf("  wrl_ioctl adds 192.0.2.77 to em0.0:      %s\n", ok_or(rc));
    if (fd >= 0) close(fd);

    printf("  event loop for a moment; the listener sees:\n");
    run_loop(w.h, ev, 300000000);
    printf("  %d notification%s\n\n", w.notifications, w.notifications == 1 ? "" : "s");
    rtslib_close(w.h);
    evDestroy(ev);
}

#ifdef TARN_DEMO_HAVE_COMPRESS
/* A configuration object as the listener received it: the blob arrives
 * inflated, whatever travelled on the wire. */
static int on_gencfg(rtslib_cookie *h, void *arg, void *msg, void *reserved)
{
    struct watch *w = arg;
    gencfg_msg_t *g = msg;
    (void)reserved;
    w->notifications++;
    printf("    gencfg %-6s major %u minor %u: %u blob bytes, %u dependenc%s, %u peer entr%s\n",
           op_text(g->hdr.op), g->major_type, g->minor_type, g->blob_len, g->deps_count,
           g->deps_count == 1 ? "y" : "ies", g->peers_count, g->peers_count == 1 ? "y" : "ies");
    rtslib_msg_idl_release(h, msg);
    return 0;
}
#endif

/* Configuration blobs: one handle exports a compressed object with a
 * dependency and a peer mask, a listener receives it inflated in an eventlib
 * loop and reads it back. */
static void demo_gencfg(struct report_log *log)
{
#ifdef TARN_DEMO_HAVE_COMPRESS
    static uint8_t key[] = "demo-object";
    static const uint8_t dep[] = "interfaces/ge-0/0/1";
    struct watch w = {NULL, 0};
    rtslib_cookie *h;
    gencfg_msg_t g, ask;
    gencfg_msg_t *reply = NULL;
    rtslib_gencfg_peer peer = {RTSLIB_GENCFG_PEER_SLOT, RTSLIB_GENCFG_CHOICE_INDEX, 3};
    uint8_t *blob;
    evContext ev;
    uint32_t i, len = 200000;
    int rc;

    printf("Configuration blobs:\n");
    h = rtslib_open_set_liberr(44, log, demo_sink);
    w.h = rtslib_open_set_liberr(45, log, demo_sink);
    blob = malloc(len);
    if (h == NULL || w.h == NULL || blob == NULL || evCreate(&ev) != 0) {
        printf("  cannot set up: %s\n\n", strerror(errno));
        rtslib_close(h);
        rtslib_close(w.h);
        free(blob);
        return;
    }
    for (i = 0; i < len; i++) blob[i] = (uint8_t)("configuration "[i % 14]);
    rtslib_init_blob_compression(h, tarn_zlib_compress, tarn_zlib_decompress);
    rtslib_init_blob_compression(w.h, tarn_zlib_compress, tarn_zlib_decompress);
    rtslib_set_async_context(w.h, ev);
    rc = rtslib_gencfg_async_register(w.h, &w, on_gencfg);
    printf("  listener registered for configuration objects: %s\n", ok_or(rc));

    memset(&g, 0, sizeof g);
    g.major_type = RTSLIB_GENCFG_MAJOR_MASKED;
    g.minor_type = 1;
    g.flags = RTSLIB_GENCFG_F_KEY | RTSLIB_GENCFG_F_COMPRESSED;
    g.key = key;
    g.key_len = sizeof key;
    g.blob = blob;
    g.blob_len = len;
    rc = rtslib_gencfg_create_depend(&g);
    if (rc == 0) rc = rtslib_gencfg_add_depinfo(&g, 1, 0, 0, sizeof dep, dep, 0);
    if (rc == 0) rc = rtslib_gencfg_create_peerinfo(&g, 2);
    if (rc == 0) rc = rtslib_gencfg_add_peerinfo(&g, &peer);
    peer.index = 7;
    if (rc == 0) rc = rtslib_gencfg_add_peerinfo(&g, &peer);
    printf("  one dependency, peers 3 and 7 in one mask:     %s\n", rc == 0 ? "ok" : "failed");
    rc = rtslib_gencfg_add(h, &g);
    printf("  add %u bytes, compressed with zlib:        %s\n", len, ok_or(rc));

    printf("  event loop for half a second; the listener sees:\n");
    run_loop(w.h, ev, 500000000);

    memset(&ask, 0, sizeof ask);
    ask.major_type = RTSLIB_GENCFG_MAJOR_MASKED;
    ask.minor_type = 1;
    ask.flags = RTSLIB_GENCFG_F_KEY;
    ask.key = key;
    ask.key_len = sizeof key;
    rc = rtslib_gencfg_get(w.h, &ask, RTSLIB_GENCFG_OP_GET, &reply, NULL);
    printf("  listener reads it back:                        %s\n", ok_or(rc));
    if (rc == 0) {
        printf("    %u bytes, %s the original; peer 7 %s\n", ask.blob_len,
               ask.blob_len == len && memcmp(ask.blob, blob, len) == 0 ? "same as" : "differs from",
               rtslib_gencfg_is_peer_present_in_peerinfo(reply, RTSLIB_GENCFG_PEER_SLOT, 7)
                   ? "present"
                   : "absent");
        rtslib_msg_idl_release(w.h, reply);
    }
    rc = rtslib_gencfg_delete(h, &g);
    printf("  delete:                                        %s\n\n", ok_or(rc));

    rtslib_gencfg_delete_depend(&g);
    rtslib_gencfg_delete_peerinfo(&g);
    free(blob);
    rtslib_close(w.h);
    rtslib_close(h);
    evDestroy(ev);
#else
    (void)log;
    printf("Configuration blobs: not shown (built without libtarn-compress)\n\n");
#endif
}

int main(void)
{
    struct report_log log = {0, 0};
    const char *sock = getenv("TARN_KERNEL_SOCKET");
    rtslib_cookie *h;
    const uint8_t *info;
    uint32_t seq[3];
    int i, rc;

    printf("libtarn demo daemon\n");
    printf("  kernel socket: %s\n\n", sock != NULL ? sock : "(default)");

    printf("Opening a routing-socket handle (sender id 42)...\n");
    h = rtslib_open_set_liberr(42, &log, demo_sink);
    if (h == NULL) {
        printf("  open failed: %s\n", strerror(errno));
        return 1;
    }
    printf("  open: descriptor %d, %d library report%s during negotiation\n\n", h->fd, log.count,
           log.count == 1 ? "" : "s");

    info = rtslib_get_rtsock_version_info(h);
    printf("What the kernel reported:\n");
    printf("  interface version:   %d ('%c')\n", info[RTS_VERSION_INFO_IFVERSION],
           isprint(info[RTS_VERSION_INFO_IFVERSION]) ? info[RTS_VERSION_INFO_IFVERSION] : '?');
    printf("  message types known: %d (library knows %d)\n", info[RTS_VERSION_INFO_NTYPES],
           RTS_MSG_TYPE_COUNT);
    printf("  route message version: %d, interface device version: %d\n",
           info[1 + RTS_MSG_ROUTE], info[1 + RTS_MSG_IFDEV]);
    if (log.mismatches == 0)
        printf("  per-type version mismatches: none\n\n");
    else
        printf("  per-type version mismatches: %d (see the reports above)\n\n", log.mismatches);

    printf("Sequence numbers:\n");
    for (i = 0; i < 3; i++) rtslib_seq_get_next(h, &seq[i]);
    printf("  next three requests will carry %u, %u and %u\n\n", seq[0], seq[1], seq[2]);

    printf("Socket options:\n");
    rc = rtslib_set_sender_id(h, 7);
    printf("  sender id 7:          %s\n", ok_or(rc));
    rc = rtslib_set_lr_id(h, 3);
    printf("  logical-router id 3:  %s\n\n", ok_or(rc));

    demo_routes(h);
    demo_notifications(h, &log);
    demo_interfaces(&log);
    demo_gencfg(&log);
    demo_routing_daemon(&log);

    rtslib_close(h);
    printf("Handle closed.\n");
    return 0;
}
