// What every descriptor-watching source shares.
#include "eventlib/core.h"

namespace eventlib {

int io_source_open(IoSource *s, int fd, int interest, ReadyCallback on_ready) {
  if (fd_hold(s->ctx, fd) < 0) return -1;
  s->fd = fd;
  s->holds_mode = true;
  s->watch = io_watch_create(s->ctx->poller, fd, interest, on_ready, s);
  if (s->watch == nullptr) {
    io_source_release_mode(s);
    return -1;
  }
  return 0;
}

void io_source_watch(IoSource *s, bool on) {
  if (on)
    io_watch_start(s->ctx->poller, s->watch);
  else
    io_watch_stop(s->ctx->poller, s->watch);
  set_watching(s, on);
}

// The watch rests while an event is pending, so a descriptor that stays
// ready does not wake the poller again before its callback has run.
void io_source_ready(void *owner, int) {
  auto *s = static_cast<IoSource *>(owner);
  io_source_watch(s, false);
  if (!s->queued) enqueue_ready(s);
}

void io_source_release_mode(IoSource *s) {
  if (!s->holds_mode) return;
  s->holds_mode = false;
  fd_release(s->ctx, s->fd);
}

void io_source_release(Source *src) {
  auto *s = static_cast<IoSource *>(src);
  if (s->watch != nullptr) io_watch_destroy(s->ctx->poller, s->watch);
  io_source_release_mode(s);
}

}  // namespace eventlib
