// Contexts, the life of sources and events, and the main loops.
#include <fcntl.h>

#include "eventlib/core.h"

namespace eventlib {

struct FdMode {
  int fd;
  int holders;
  bool was_blocking;
  FdMode *next;
};

namespace {

void nothing(Source *) {}

const KindOps null_ops = {nothing, nothing, nothing, nullptr};

const KindOps *ops_of(const Source *s) {
  switch (s->kind) {
    case Kind::file: return &file_ops;
    case Kind::timer: return &timer_ops;
    case Kind::wait: return &wait_ops;
    case Kind::listen: return &listen_ops;
    case Kind::connect: return &connect_ops;
    case Kind::stream: return &stream_ops;
    case Kind::signal: return &signal_ops;
    case Kind::null_event: break;
  }
  return &null_ops;
}

void queue_push_back(Queue &q, Source *s) {
  s->qnext = nullptr;
  s->qprev = q.tail;
  (q.tail != nullptr ? q.tail->qnext : q.head) = s;
  q.tail = s;
  s->queued = true;
}

void queue_insert_before(Queue &q, Source *pos, Source *s) {
  s->qnext = pos;
  s->qprev = pos->qprev;
  (pos->qprev != nullptr ? pos->qprev->qnext : q.head) = s;
  pos->qprev = s;
  s->queued = true;
}

void queue_remove(Queue &q, Source *s) {
  (s->qprev != nullptr ? s->qprev->qnext : q.head) = s->qnext;
  (s->qnext != nullptr ? s->qnext->qprev : q.tail) = s->qprev;
  s->qprev = s->qnext = nullptr;
  s->queued = false;
}

bool queue_holds(const Queue &q, const Source *s) {
  for (const Source *i = q.head; i != nullptr; i = i->qnext)
    if (i == s) return true;
  return false;
}

Source *queue_pop(Queue &q) {
  Source *s = q.head;
  if (s != nullptr) queue_remove(q, s);
  return s;
}

void source_unlink(Source *s) {
  Context *c = s->ctx;
  (s->prev != nullptr ? s->prev->next : c->first) = s->next;
  (s->next != nullptr ? s->next->prev : c->last) = s->prev;
  s->prev = s->next = nullptr;
}

void source_free(Source *s) {
  if (s->kind != Kind::null_event) free(s);
}

// Hands a fetched event back: a dead source is freed, a live one goes on.
void event_return(Source *s) {
  s->fetched = false;
  if (s->dead)
    source_free(s);
  else
    ops_of(s)->after(s);
}

Source *event_of(Context *c, evEvent ev) {
  auto *s = static_cast<Source *>(ev.opaque);
  if (s == nullptr || s->ctx != c || !s->fetched) return nullptr;
  return s;
}

bool nothing_left(const Context *c) {
  return c->watching == 0 && c->done.head == nullptr && c->ready.head == nullptr;
}

Source *next_queued(Context *c) {
  Source *s = queue_pop(c->done);
  return s != nullptr ? s : queue_pop(c->ready);
}

int main_loop(evContext ctx, bool sync) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  c->loops++;
  c->break_requested = false;
  int rc = 0;
  for (;;) {
    evEvent ev;
    if (evGetNext(ctx, &ev, EV_WAIT) < 0 || evDispatch(ctx, ev) < 0) {
      rc = -1;
      break;
    }
    if (sync && c->sync_func != nullptr) c->sync_func(ctx, c->sync_uap);
    if (c->break_requested) break;
  }
  int err = errno;
  c->loops--;
  c->break_requested = false;
  errno = err;
  return rc;
}

}  // namespace

Context *context_of(evContext ctx) {
  auto *c = static_cast<Context *>(ctx.opaque);
  return c != nullptr && c->magic == kContextMagic ? c : nullptr;
}

Source *source_alloc(Context *c, Kind kind, size_t size) {
  auto *s = static_cast<Source *>(calloc(1, size));
  if (s == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  s->kind = kind;
  s->ctx = c;
  s->prev = c->last;
  (c->last != nullptr ? c->last->next : c->first) = s;
  c->last = s;
  return s;
}

Source *source_find(Context *c, const void *id, Kind kind) {
  if (id == nullptr) return nullptr;
  for (Source *s = c->first; s != nullptr; s = s->next)
    if (s == id) return s->kind == kind ? s : nullptr;
  return nullptr;
}

int source_cancel(evContext ctx, const void *id, Kind kind, Kind other_kind) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  Source *s = source_find(c, id, kind);
  if (s == nullptr) s = source_find(c, id, other_kind);
  if (s == nullptr) return fail(ENOENT);
  source_kill(s);
  return 0;
}

void source_kill(Source *s) {
  if (s->queued) dequeue(s);
  ops_of(s)->release(s);
  set_watching(s, false);
  source_unlink(s);
  s->dead = true;
  if (!s->fetched) source_free(s);
}

int source_abandon(Source *s) {
  int err = errno;
  source_unlink(s);
  free(s);
  return fail(err);
}

void enqueue_ready(Source *s) {
  Queue &q = s->ctx->ready;
  if (s->kind == Kind::timer) {
    // Timers that expired in one poller round come out in due order, ahead
    // of descriptors, whatever order the poller noticed them in.
    for (Source *i = q.head; i != nullptr; i = i->qnext) {
      if (i->kind != Kind::timer || timer_due_before(s, i)) {
        queue_insert_before(q, i, s);
        return;
      }
    }
  }
  queue_push_back(q, s);
}

void enqueue_done(Source *s) { queue_push_back(s->ctx->done, s); }

void dequeue(Source *s) {
  Context *c = s->ctx;
  queue_remove(queue_holds(c->done, s) ? c->done : c->ready, s);
}

void set_watching(Source *s, bool on) {
  if (s->watching == on) return;
  s->watching = on;
  s->ctx->watching += on ? 1 : -1;
}

int fd_hold(Context *c, int fd) {
  for (FdMode *m = c->modes; m != nullptr; m = m->next) {
    if (m->fd == fd) {
      m->holders++;
      return 0;
    }
  }
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return -1;
  auto *m = static_cast<FdMode *>(calloc(1, sizeof(FdMode)));
  if (m == nullptr) return fail(ENOMEM);
  if (!(flags & O_NONBLOCK) && fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    int err = errno;
    free(m);
    return fail(err);
  }
  *m = FdMode{fd, 1, !(flags & O_NONBLOCK), c->modes};
  c->modes = m;
  return 0;
}

void fd_release(Context *c, int fd) {
  for (FdMode **link = &c->modes; *link != nullptr; link = &(*link)->next) {
    FdMode *m = *link;
    if (m->fd != fd) continue;
    if (--m->holders > 0) return;
    if (m->was_blocking) {
      int err = errno;
      int flags = fcntl(fd, F_GETFL);
      if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
      errno = err;
    }
    *link = m->next;
    free(m);
    return;
  }
}

struct timespec mono_now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t;
}

bool time_is_zero(struct timespec t) { return t.tv_sec == 0 && t.tv_nsec == 0; }

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evCreate(evContext *ctx) {
  if (ctx == nullptr) return fail(EINVAL);
  auto *c = static_cast<Context *>(calloc(1, sizeof(Context)));
  if (c == nullptr) return fail(ENOMEM);
  c->poller = poller_create(signals_collect, c);
  if (c->poller == nullptr) {
    int err = errno;
    free(c);
    return fail(err);
  }
  c->magic = kContextMagic;
  c->null_source.kind = Kind::null_event;
  c->null_source.ctx = c;
  ctx->opaque = c;
  return 0;
}

int evDestroy(evContext ctx) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  if (c->dispatching > 0 || c->loops > 0) return fail(EBUSY);
  while (c->first != nullptr) {
    Source *s = c->first;
    s->fetched = false;  // an event still held by the caller dies with its context
    source_kill(s);
  }
  poller_destroy(c->poller);
  c->magic = 0;
  free(c);
  return 0;
}

int evGetNext(evContext ctx, evEvent *ev, int options) {
  Context *c = context_of(ctx);
  bool wait = (options & EV_WAIT) != 0;
  if (c == nullptr || ev == nullptr || wait == ((options & EV_POLL) != 0) ||
      (options & ~(EV_WAIT | EV_POLL | EV_NULL)) != 0)
    return fail(EINVAL);
  Source *s = next_queued(c);
  if (s == nullptr && !wait) {
    poller_run(c->poller, false);
    s = next_queued(c);
    if (s == nullptr) return fail(EWOULDBLOCK);
  }
  while (s == nullptr) {
    if (nothing_left(c)) return fail(ENOENT);
    poller_run(c->poller, true);
    s = next_queued(c);
    if (s == nullptr && (options & EV_NULL)) s = &c->null_source;
  }
  if (const KindOps *ops = ops_of(s); ops->fetch != nullptr) ops->fetch(s);
  s->fetched = true;
  ev->opaque = s;
  return 0;
}

int evDispatch(evContext ctx, evEvent ev) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  Source *s = event_of(c, ev);
  if (s == nullptr) return fail(EINVAL);
  if (!s->dead) {
    c->dispatching++;
    ops_of(s)->dispatch(s);
    c->dispatching--;
  }
  event_return(s);
  return 0;
}

void evDrop(evContext ctx, evEvent ev) {
  Context *c = context_of(ctx);
  if (c == nullptr) return;
  if (Source *s = event_of(c, ev); s != nullptr) event_return(s);
}

int evMainLoop(evContext ctx) { return main_loop(ctx, false); }

int evMainLoopSync(evContext ctx) { return main_loop(ctx, true); }

int evMainLoopSyncSighdl(evContext ctx) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  if (c->catching_signals) return fail(EBUSY);
  if (signals_arm(c) < 0) return -1;
  int rc = main_loop(ctx, true);
  int err = errno;
  signals_disarm(c);
  errno = err;
  return rc;
}

int evBreak(evContext ctx) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  if (c->loops > 0) c->break_requested = true;
  return 0;
}

int evSetSyncHandler(evContext ctx, evSyncFunc func, void *uap) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr) return fail(EINVAL);
  c->sync_func = func;
  c->sync_uap = uap;
  return 0;
}

int evResetSyncHandler(evContext ctx) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  c->sync_func = nullptr;
  c->sync_uap = nullptr;
  return 0;
}

}  // extern "C"
