// The notification dispatcher over arbitrary message streams, read from one
// end of a socket pair that the handle wraps. Input: byte 0 is num_read_msg,
// byte 1 bit 0 picks which subtype registration takes the interface-state
// client type, the next 13 bytes say which types have a handler; then
// messages, each as a 16-bit little-endian length and its bytes.
// Properties beyond "no crash, no leak": every call ends; it returns 0 or -1;
// one call hands at most num_read_msg messages to handlers (subtype messages
// count once), and at most as many as were sent; every handler gets messages
// of its own type only, and releases them.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "idl_fuzz_support.h"
#include "libtarn/rtslib/async_internal.h"
#include <tarn/tarn.h>

namespace {

constexpr size_t kPrefix = 2 + 13;

struct Tally {
    uint32_t calls = 0;
};

struct Slot {
    Tally *tally;
    int type;
};

Slot g_slots[RTS_MSG_TYPE_COUNT];

int quiet(rtslib_cookie *, void *, int, const char *)
{
    return 0;
}

int handler(rtslib_cookie *h, void *arg, void *msg, void *)
{
    const auto *slot = static_cast<const Slot *>(arg);
    if (msg != nullptr)
        FUZZ_CHECK(static_cast<const uint8_t *>(msg)[RTS_HDR_TYPE_OFF] == slot->type);
    ++slot->tally->calls;
    rtslib_msg_free(h, msg);
    return 0;
}

// A handler in every chosen slot, installed directly: the listen mask is the
// kernel's business, and there is no kernel here.
void register_handlers(rtslib_cookie *h, const uint8_t *data, Tally *tally)
{
    for (int t = 0; t < RTS_MSG_TYPE_COUNT; ++t) {
        g_slots[t] = {tally, t};
        if ((data[2 + t / 8] & (1u << (t % 8))) == 0) continue;
        if (t == RTS_MSG_IFSCLINFO) {
            auto reg = (data[1] & 1) != 0 ? rtslib_ifsclim_async_register
                                           : rtslib_ifstate_eochain_register;
            FUZZ_CHECK(reg(h, &g_slots[t], handler) == 0);
            continue;
        }
        auto *e = static_cast<rtslib_async_entry *>(std::malloc(sizeof(rtslib_async_entry)));
        FUZZ_CHECK(e != nullptr);
        *e = {&g_slots[t], handler};
        h->async->slots[t] = e;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kPrefix || size > (1u << 16)) return 0;
    int fds[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, fds) == 0);
    int big = 1 << 20;
    ::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    rtslib_cookie *h = rtslib_open_nc();
    FUZZ_CHECK(h != nullptr);
    h->fd = fds[0];
    rtslib_lib_error_register(h, nullptr, quiet);
    FUZZ_CHECK(rtslib_set_async_info_nocontext(h, nullptr) == 0);
    rtsllib_async_set_num_read_msg(h, data[0]);
    Tally tally;
    register_handlers(h, data, &tally);

    uint32_t sent = 0;
    for (size_t off = kPrefix; off + 2 <= size;) {
        const size_t len = std::min<size_t>(data[off] | (data[off + 1] << 8), size - off - 2);
        off += 2;
        if (::send(fds[1], data + off, len, 0) == static_cast<ssize_t>(len)) ++sent;
        off += len;
    }

    // Every call consumes at least one message, so sent calls drain the
    // socket and the next one finds nothing.
    const uint32_t limit = data[0] == 0 ? 1 : data[0];
    for (uint32_t call = 0; call < sent; ++call) {
        const uint32_t before = tally.calls;
        const int rc = rtslib_async_event_process(h);
        FUZZ_CHECK(rc == 0 || rc == -1);
        FUZZ_CHECK(tally.calls - before <= limit);
    }
    FUZZ_CHECK(rtslib_async_event_process(h) == -1 && errno == EAGAIN);
    FUZZ_CHECK(tally.calls <= sent);
    rtslib_close(h);
    ::close(fds[1]);
    return 0;
}
