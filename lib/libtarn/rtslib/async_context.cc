#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/async_internal.h"

namespace {

using namespace tarn::async;

// The descriptor's read callback: eventlib has no use for the result, the
// dispatcher reports its own failures.
void on_readable(evContext, void *uap, int, int)
{
    (void)rtslib_async_event_process(static_cast<rtslib_cookie *>(uap));
}

// Allocates the context record for a handle that has none.
int attach_context(rtslib_cookie *h)
{
    if (h == nullptr || h->async != nullptr) return EINVAL;
    auto *ctx = static_cast<rtslib_async_ctx *>(std::calloc(1, sizeof(rtslib_async_ctx)));
    if (ctx == nullptr) {
        errno = ENOMEM;
        rtslib_err(h, RTSLIB_LOG_FATAL, "async info allocation failed %s\n", std::strerror(errno));
        return -1;
    }
    h->async = ctx;
    return 0;
}

// Sets a 4-byte routing-socket option; -1 after a report naming what failed.
int set_u32_option(rtslib_cookie *h, int optname, uint32_t value, const char *what)
{
    if (h == nullptr) return EINVAL;
    if (tarn::os::route_setsockopt(h->fd, optname, &value, sizeof value) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to set %s %s", what, std::strerror(errno));
        return -1;
    }
    return 0;
}

bool has_event_context(const rtslib_cookie *h)
{
    return h != nullptr && h->async != nullptr && (h->async->state & kNoContext) == 0;
}

}  // namespace

namespace tarn::async {

int select_descriptor(rtslib_cookie *h)
{
    rtslib_async_ctx *ctx = h->async;
    if ((ctx->state & (kSelected | kNoContext)) != 0) return 0;
    if (evSelectFD(ctx->ev, h->fd, EV_READ, on_readable, h, &ctx->select_id) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to select routing socket %s",
                   std::strerror(errno));
        return -1;
    }
    ctx->state |= kSelected;
    return 0;
}

int add_listen_bits(rtslib_cookie *h, uint32_t lo, uint32_t hi)
{
    rtslib_async_ctx *ctx = h->async;
    if ((ctx->listen_lo & lo) == lo && (ctx->listen_hi & hi) == hi) return 0;
    const uint32_t mask[2] = {ctx->listen_lo | lo, ctx->listen_hi | hi};
    if (tarn::os::route_setsockopt(h->fd, ROUTE_LISTEN_MASK, mask, sizeof mask) != 0) return -1;
    ctx->listen_lo = mask[0];
    ctx->listen_hi = mask[1];
    return 0;
}

}  // namespace tarn::async

extern "C" {

int rtslib_create_async_context(rtslib_cookie *h)
{
    if (h == nullptr || h->async != nullptr) return EINVAL;
    evContext ev{};
    if (evCreate(&ev) != 0) {
        // The lone '%' is the text as daemons' log filters know it.
        rtslib_err(h, RTSLIB_LOG_FATAL, "%s", "async context creation failed %");
        return -1;
    }
    const int rc = rtslib_set_async_context(h, ev);
    if (rc != 0) {
        evDestroy(ev);
        return rc;
    }
    h->async->state |= kOwnEventContext;
    return rtslib_get_async_seq_num(h, &h->seq);
}

int rtslib_set_async_context(rtslib_cookie *h, evContext ev)
{
    const int rc = attach_context(h);
    if (rc != 0) return rc;
    h->async->ev = ev;
    h->num_read_msg = RTSLIB_ASYNC_NUM_READ_MSG_DEFAULT;
    return 0;
}

int rtslib_set_async_info_nocontext(rtslib_cookie *h, int *fd_out)
{
    const int rc = attach_context(h);
    if (rc != 0) return rc;
    h->async->state |= kNoContext;
    if (fd_out != nullptr) *fd_out = h->fd;
    return 0;
}

int rtslib_get_async_context(rtslib_cookie *h, evContext *out)
{
    if (!has_event_context(h) || out == nullptr) return EINVAL;
    *out = h->async->ev;
    return 0;
}

int rtslib_destroy_async_context(rtslib_cookie *h)
{
    if (h == nullptr) return EINVAL;
    rtslib_async_ctx *ctx = h->async;
    if (ctx == nullptr) return 0;
    if ((ctx->state & kSelected) != 0) {
        evDeselectFD(ctx->ev, ctx->select_id);
        ctx->state &= ~kSelected;
    }
    if ((ctx->state & kOwnEventContext) != 0) {
        if (evDestroy(ctx->ev) != 0) {
            rtslib_err(h, RTSLIB_LOG_ERROR, "%s", "async context destruction failed %");
            return -1;
        }
        ctx->state &= ~kOwnEventContext;
    }
    for (rtslib_async_entry *&slot : ctx->slots) {
        free_entry(h, slot);
        slot = nullptr;
    }
    std::free(ctx);
    h->async = nullptr;
    return 0;
}

int rtslib_get_async_seq_num(rtslib_cookie *h, uint32_t *out)
{
    if (h == nullptr || out == nullptr) return EINVAL;
    uint32_t value = 0;
    uint32_t len = sizeof value;
    const int rc = tarn::os::route_getsockopt(h->fd, ROUTE_KERNEL_SEQ, &value, &len);
    if (rc != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to get rtsock sequence number %s",
                   std::strerror(errno));
        return rc;
    }
    *out = value;
    return 0;
}

int rtslib_set_async_mode(rtslib_cookie *h, uint32_t bits)
{
    if (h == nullptr || h->async == nullptr) return EINVAL;
    if (bits != 0 &&
        ((bits & RTSLIB_ASYNC_MODE_ENABLE) == 0 || (bits & ~RTSLIB_ASYNC_MODE_VALID) != 0))
        return EINVAL;
    if (tarn::os::route_setsockopt(h->fd, ROUTE_ASYNC_MODE, &bits, sizeof bits) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to set async mode bits=0x%x, error=%s", bits,
                   std::strerror(errno));
        return -1;
    }
    h->async->mode = bits;
    return 0;
}

int rtslib_setup_master_mode(rtslib_cookie *h, int value)
{
    return set_u32_option(h, ROUTE_MASTER_MODE, static_cast<uint32_t>(value), "master mode");
}

int rtslib_setup_slave_mode(rtslib_cookie *h, int value)
{
    return set_u32_option(h, ROUTE_SLAVE_MODE, static_cast<uint32_t>(value), "slave mode");
}

int rtslib_setup_local_slave_mode(rtslib_cookie *h, int value)
{
    return set_u32_option(h, ROUTE_LOCAL_SLAVE_MODE, static_cast<uint32_t>(value),
                          "local slave mode");
}

int rtslib_set_async_msg_subtype(rtslib_cookie *h, const uint8_t *block)
{
    if (h == nullptr || block == nullptr) return EINVAL;
    if (tarn::os::route_setsockopt(h->fd, ROUTE_LISTEN_SUBTYPES, block,
                                   ROUTE_LISTEN_SUBTYPES_LEN) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to set listen subtypes %s", std::strerror(errno));
        return -1;
    }
    return 0;
}

int rtslib_get_async_msg_subtype(rtslib_cookie *h, uint8_t *block)
{
    if (h == nullptr || block == nullptr) return EINVAL;
    // The kernel reads the first byte (which subtype family) before answering.
    uint8_t value[ROUTE_LISTEN_SUBTYPES_LEN] = {block[0]};
    uint32_t len = sizeof value;
    const int rc = tarn::os::route_getsockopt(h->fd, ROUTE_LISTEN_SUBTYPES, value, &len);
    if (rc != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to get listen subtypes %s", std::strerror(errno));
        return rc;
    }
    std::memcpy(block, value, sizeof value);
    return 0;
}

int rtslib_async_register_filters(rtslib_cookie *h, const uint8_t *filter)
{
    if (h == nullptr || h->async == nullptr || filter == nullptr) return EINVAL;
    uint8_t value[ROUTE_FILTERS_LEN];
    std::memcpy(value, &h->async->listen_lo, 4);
    std::memcpy(value + 4, &h->async->listen_hi, 4);
    std::memcpy(value + 8, filter, ROUTE_FILTER_DATA_LEN);
    if (tarn::os::route_setsockopt(h->fd, ROUTE_FILTERS, value, sizeof value) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to set listen bit %s", std::strerror(errno));
        return -1;
    }
    return 0;
}

int rtslib_input_async_register(rtslib_cookie *h)
{
    if (h == nullptr || h->async == nullptr) return EINVAL;
    if (select_descriptor(h) != 0) return -1;
    if (add_listen_bits(h, 0, RTSLIB_LISTEN_HI_INPUT) != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "failed to set RTSO_INPUT listen bit %s",
                   std::strerror(errno));
        return -1;
    }
    return 0;
}

void rtsllib_async_set_num_read_msg(rtslib_cookie *h, uint32_t n)
{
    if (h != nullptr) h->num_read_msg = n;
}

int rtslib_async_event_loop(rtslib_cookie *h)
{
    if (!has_event_context(h)) return EINVAL;
    return evMainLoop(h->async->ev);
}

int rtslib_async_event_loop_sighdl(rtslib_cookie *h)
{
    if (!has_event_context(h)) return EINVAL;
    return evMainLoopSyncSighdl(h->async->ev);
}

}  // extern "C"
