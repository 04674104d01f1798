/*
 * A minimal daemon's conversation with the kernel: open a routing-socket
 * handle, let the library negotiate message versions, show what the kernel
 * reported, take sequence numbers, set the sender and logical-router ids,
 * close. Run it against tarn-kernel-emu (TARN_KERNEL_SOCKET names its socket).
 */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarn/tarn.h>

struct report_log {
    int count;
    int mismatches;
};

/* Our own error sink: the library's reports are shown indented, and a fatal
 * one does not end the process, so the demo can explain what happened. */
static int demo_sink(rtslib_cookie *handle, void *arg, int level, const char *text)
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

static const char *ok_or(int rc)
{
    return rc == 0 ? "ok" : strerror(rc);
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

    rtslib_close(h);
    printf("Handle closed.\n");
    return 0;
}
