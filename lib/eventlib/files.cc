// Descriptor selections.
#include "eventlib/core.h"

namespace eventlib {

namespace {

struct FileSel : Source {
  int fd;
  int mask;
  int ready;
  evFileFunc func;
  void *uap;
  IoWatch *watch;
};

constexpr int kAllEvents = EV_READ | EV_WRITE | EV_EXCEPT;

int interest_of(int mask) {
  return ((mask & EV_READ) ? kReadable : 0) | ((mask & EV_WRITE) ? kWritable : 0) |
         ((mask & EV_EXCEPT) ? kPriority : 0);
}

int mask_of(int ready) {
  return ((ready & kReadable) ? EV_READ : 0) | ((ready & kWritable) ? EV_WRITE : 0) |
         ((ready & kPriority) ? EV_EXCEPT : 0);
}

void watch(FileSel *f, bool on) {
  if (on)
    io_watch_start(f->ctx->poller, f->watch);
  else
    io_watch_stop(f->ctx->poller, f->watch);
  set_watching(f, on);
}

// The watch rests while an event is pending, so a descriptor that stays
// ready does not wake the poller again before its callback has run.
void on_ready(void *owner, int ready) {
  auto *f = static_cast<FileSel *>(owner);
  f->ready |= mask_of(ready) & f->mask;
  if (f->ready == 0 || f->queued) return;
  watch(f, false);
  enqueue_ready(f);
}

bool overlaps(Context *c, int fd, int mask) {
  for (Source *s = c->first; s != nullptr; s = s->next) {
    if (s->kind != Kind::file) continue;
    auto *f = static_cast<FileSel *>(s);
    if (f->fd == fd && (f->mask & mask) != 0) return true;
  }
  return false;
}

void file_dispatch(Source *s) {
  auto *f = static_cast<FileSel *>(s);
  int ready = f->ready;
  f->ready = 0;
  f->func(handle_of(f->ctx), f->uap, f->fd, ready);
}

void file_after(Source *s) {
  auto *f = static_cast<FileSel *>(s);
  f->ready = 0;
  watch(f, true);
}

void file_release(Source *s) {
  auto *f = static_cast<FileSel *>(s);
  io_watch_destroy(f->ctx->poller, f->watch);
  fd_release(f->ctx, f->fd);
}

}  // namespace

const KindOps file_ops = {file_dispatch, file_after, file_release, nullptr};

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evSelectFD(evContext ctx, int fd, int eventmask, evFileFunc func, void *uap,
               evFileID *id) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr || eventmask == 0 || (eventmask & ~kAllEvents) != 0)
    return fail(EINVAL);
  if (fd < 0) return fail(EBADF);
  if (overlaps(c, fd, eventmask)) return fail(EBUSY);
  auto *f = source_new<FileSel>(c, Kind::file);
  if (f == nullptr) return -1;
  if (fd_hold(c, fd) < 0) return source_abandon(f);
  f->watch = io_watch_create(c->poller, fd, interest_of(eventmask), on_ready, f);
  if (f->watch == nullptr) {
    fd_release(c, fd);
    return source_abandon(f);
  }
  f->fd = fd;
  f->mask = eventmask;
  f->func = func;
  f->uap = uap;
  watch(f, true);
  if (id != nullptr) id->opaque = f;
  return 0;
}

int evDeselectFD(evContext ctx, evFileID id) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  Source *s = source_find(c, id.opaque, Kind::file);
  if (s == nullptr) return fail(ENOENT);
  source_kill(s);
  return 0;
}

}  // extern "C"
