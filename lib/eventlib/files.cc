// Descriptor selections.
#include "eventlib/core.h"

namespace eventlib {

namespace {

struct FileSel : IoSource {
  int mask;
  int ready;
  evFileFunc func;
  void *uap;
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

// Readiness of the two underlying watches (data and out-of-band) may arrive
// separately in one round; both land in the one pending event.
void on_ready(void *owner, int ready) {
  auto *f = static_cast<FileSel *>(owner);
  f->ready |= mask_of(ready) & f->mask;
  if (f->ready != 0) io_source_ready(f, ready);
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
  io_source_watch(f, true);
}

}  // namespace

const KindOps file_ops = {file_dispatch, file_after, io_source_release, nullptr};

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
  if (io_source_open(f, fd, interest_of(eventmask), on_ready) < 0) return source_abandon(f);
  f->mask = eventmask;
  f->func = func;
  f->uap = uap;
  io_source_watch(f, true);
  if (id != nullptr) id->opaque = f;
  return 0;
}

int evDeselectFD(evContext ctx, evFileID id) { return source_cancel(ctx, id.opaque, Kind::file); }

}  // extern "C"
