// Temporary: the few eventlib calls the asynchronous context makes, over
// poll(2), until lib/eventlib is in the tree. Built only without it.
#include <poll.h>

#include <cerrno>
#include <cstdlib>

#include <isc/eventlib.h>

namespace {

struct Selection {
    int fd;
    evFileFunc func;
    void *uap;
};

struct Context {
    Selection sel;
    bool selected;
};

Context *ctx_of(evContext c)
{
    return static_cast<Context *>(c.opaque);
}

}  // namespace

extern "C" {

int evCreate(evContext *ctx)
{
    auto *c = static_cast<Context *>(std::calloc(1, sizeof(Context)));
    if (c == nullptr) return errno = ENOMEM, -1;
    ctx->opaque = c;
    return 0;
}

int evDestroy(evContext ctx)
{
    std::free(ctx.opaque);
    return 0;
}

int evSelectFD(evContext ctx, int fd, int, evFileFunc func, void *uap, evFileID *id)
{
    Context *c = ctx_of(ctx);
    if (c == nullptr || c->selected) return errno = EBUSY, -1;
    c->sel = {fd, func, uap};
    c->selected = true;
    if (id != nullptr) id->opaque = c;
    return 0;
}

int evDeselectFD(evContext ctx, evFileID)
{
    ctx_of(ctx)->selected = false;
    return 0;
}

int evMainLoop(evContext ctx)
{
    Context *c = ctx_of(ctx);
    while (c->selected) {
        pollfd p{c->sel.fd, POLLIN, 0};
        if (::poll(&p, 1, -1) < 0) return -1;
        c->sel.func(ctx, c->sel.uap, c->sel.fd, EV_READ);
    }
    return errno = ENOENT, -1;
}

int evMainLoopSyncSighdl(evContext ctx)
{
    return evMainLoop(ctx);
}

}  // extern "C"
