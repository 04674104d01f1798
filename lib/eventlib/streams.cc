// Whole-buffer reads and writes.
#include <limits.h>
#include <string.h>
#include <sys/uio.h>

#include "eventlib/core.h"

namespace eventlib {

namespace {

struct Stream : IoSource {
  bool writing;
  bool finished;
  struct iovec *iov;  // private copy, advanced as bytes move
  int iovcnt;
  int cur;
  int moved;
  evStreamFunc func;
  void *uap;
};

void stream_release(Source *s) {
  io_source_release(s);
  free(static_cast<Stream *>(s)->iov);
}

// Steps over the buffers that n bytes filled or emptied.
void advance(Stream *st, size_t n) {
  st->moved += static_cast<int>(n);
  while (st->cur < st->iovcnt && n >= st->iov[st->cur].iov_len) {
    n -= st->iov[st->cur].iov_len;
    st->cur++;
  }
  if (st->cur < st->iovcnt) {
    st->iov[st->cur].iov_base = static_cast<char *>(st->iov[st->cur].iov_base) + n;
    st->iov[st->cur].iov_len -= n;
  }
}

void finish(Stream *st, int bytes, int err) {
  io_source_release_mode(st);
  st->finished = true;
  errno = err;
  st->func(handle_of(st->ctx), st->uap, st->fd, bytes);
}

void stream_dispatch(Source *s) {
  auto *st = static_cast<Stream *>(s);
  advance(st, 0);  // skips empty buffers, so nothing below mistakes 0 for end of file
  if (st->cur == st->iovcnt) {
    finish(st, st->moved, 0);
    return;
  }
  ssize_t n = st->writing ? writev(st->fd, st->iov + st->cur, st->iovcnt - st->cur)
                          : readv(st->fd, st->iov + st->cur, st->iovcnt - st->cur);
  if (n < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) finish(st, -1, errno);
    return;
  }
  if (n == 0 && !st->writing) {
    finish(st, st->moved, 0);
    return;
  }
  advance(st, static_cast<size_t>(n));
  if (st->cur == st->iovcnt) finish(st, st->moved, 0);
}

void stream_after(Source *s) {
  auto *st = static_cast<Stream *>(s);
  if (st->finished)
    source_kill(st);
  else
    io_source_watch(st, true);
}

int start(evContext ctx, int fd, const struct iovec *iov, int iovcnt, evStreamFunc func,
          void *uap, evStreamID *id, bool writing) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr || iov == nullptr || iovcnt <= 0 || iovcnt > IOV_MAX)
    return fail(EINVAL);
  // The callback reports the total as an int.
  size_t total = 0;
  for (int i = 0; i < iovcnt; i++) {
    if (iov[i].iov_len > static_cast<size_t>(INT_MAX) - total) return fail(EINVAL);
    total += iov[i].iov_len;
  }
  auto *st = source_new<Stream>(c, Kind::stream);
  if (st == nullptr) return -1;
  st->iov = static_cast<struct iovec *>(malloc(sizeof *iov * static_cast<size_t>(iovcnt)));
  if (st->iov == nullptr) {
    errno = ENOMEM;
    return source_abandon(st);
  }
  memcpy(st->iov, iov, sizeof *iov * static_cast<size_t>(iovcnt));
  st->iovcnt = iovcnt;
  st->writing = writing;
  st->func = func;
  st->uap = uap;
  if (io_source_open(st, fd, writing ? kWritable : kReadable, io_source_ready) < 0) {
    free(st->iov);
    return source_abandon(st);
  }
  io_source_watch(st, true);
  if (id != nullptr) id->opaque = st;
  return 0;
}

}  // namespace

const KindOps stream_ops = {stream_dispatch, stream_after, stream_release, nullptr};

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evWrite(evContext ctx, int fd, const struct iovec *iov, int iovcnt, evStreamFunc func,
            void *uap, evStreamID *id) {
  return start(ctx, fd, iov, iovcnt, func, uap, id, true);
}

int evRead(evContext ctx, int fd, const struct iovec *iov, int iovcnt, evStreamFunc func,
           void *uap, evStreamID *id) {
  return start(ctx, fd, iov, iovcnt, func, uap, id, false);
}

int evCancelRW(evContext ctx, evStreamID id) { return source_cancel(ctx, id.opaque, Kind::stream); }

}  // extern "C"
