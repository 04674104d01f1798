// Listening and connecting sockets.
#include <sys/socket.h>

#include "eventlib/core.h"

namespace eventlib {

namespace {

struct Conn : IoSource {
  evConnFunc func;
  void *uap;
};

void report_failure(Conn *k, int err) {
  errno = err;
  k->func(handle_of(k->ctx), k->uap, -1, nullptr, 0, nullptr, 0);
}

// One accept per event keeps a busy listener from starving the others.
void listen_dispatch(Source *s) {
  auto *k = static_cast<Conn *>(s);
  struct sockaddr_storage la, ra;
  socklen_t ralen = sizeof ra;
  int fd = accept(k->fd, reinterpret_cast<struct sockaddr *>(&ra), &ralen);
  if (fd < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
      report_failure(k, errno);
    return;
  }
  socklen_t lalen = sizeof la;
  if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&la), &lalen) < 0) lalen = 0;
  k->func(handle_of(k->ctx), k->uap, fd, &la, static_cast<int>(lalen), &ra,
          static_cast<int>(ralen));
}

void listen_after(Source *s) { io_source_watch(static_cast<Conn *>(s), true); }

void connect_dispatch(Source *s) {
  auto *k = static_cast<Conn *>(s);
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(k->fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0) err = errno;
  // The callee gets the descriptor back in the mode it was handed in.
  io_source_release_mode(k);
  if (err != 0) {
    report_failure(k, err);
    return;
  }
  struct sockaddr_storage la, ra;
  socklen_t lalen = sizeof la, ralen = sizeof ra;
  if (getsockname(k->fd, reinterpret_cast<struct sockaddr *>(&la), &lalen) < 0) lalen = 0;
  if (getpeername(k->fd, reinterpret_cast<struct sockaddr *>(&ra), &ralen) < 0) {
    report_failure(k, errno);
    return;
  }
  k->func(handle_of(k->ctx), k->uap, k->fd, &la, static_cast<int>(lalen), &ra,
          static_cast<int>(ralen));
}

// A connect is reported once; dropping its event abandons it.
void connect_after(Source *s) { source_kill(s); }

// Allocates the connection with its watch; nullptr with errno on failure.
Conn *conn_new(Context *c, Kind kind, int fd, int interest, evConnFunc func, void *uap) {
  auto *k = source_new<Conn>(c, kind);
  if (k == nullptr) return nullptr;
  if (io_source_open(k, fd, interest, io_source_ready) < 0) {
    source_abandon(k);
    return nullptr;
  }
  k->func = func;
  k->uap = uap;
  return k;
}

}  // namespace

const KindOps listen_ops = {listen_dispatch, listen_after, io_source_release, nullptr};
const KindOps connect_ops = {connect_dispatch, connect_after, io_source_release, nullptr};

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evListen(evContext ctx, int fd, int maxconn, evConnFunc func, void *uap, evConnID *id) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr) return fail(EINVAL);
  if (listen(fd, maxconn) < 0) return -1;
  Conn *k = conn_new(c, Kind::listen, fd, kReadable, func, uap);
  if (k == nullptr) return -1;
  io_source_watch(k, true);
  if (id != nullptr) id->opaque = k;
  return 0;
}

int evConnect(evContext ctx, int fd, const void *ra, int ralen, evConnFunc func, void *uap,
              evConnID *id) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr || ra == nullptr || ralen <= 0) return fail(EINVAL);
  Conn *k = conn_new(c, Kind::connect, fd, kWritable, func, uap);
  if (k == nullptr) return -1;
  if (connect(fd, static_cast<const struct sockaddr *>(ra), static_cast<socklen_t>(ralen)) == 0)
    enqueue_ready(k);  // completed at once (local sockets): report from the loop all the same
  else if (errno == EINPROGRESS || errno == EINTR)
    io_source_watch(k, true);
  else {
    int err = errno;
    source_kill(k);
    return fail(err);
  }
  if (id != nullptr) id->opaque = k;
  return 0;
}

int evCancelConn(evContext ctx, evConnID id) {
  return source_cancel(ctx, id.opaque, Kind::listen, Kind::connect);
}

}  // extern "C"
