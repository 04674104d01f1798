// libev is used only here: its enumerators EV_READ/EV_WRITE share their
// names with the public macros, so no file that sees <isc/eventlib.h> may
// include <ev.h>.
#include "eventlib/backend.h"

#include <errno.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include <ev.h>

namespace eventlib {

struct Poller {
  struct ev_loop *loop;
  ev_async wake;
  OwnerCallback on_wake;
  void *owner;
};

// Out-of-band data cannot be asked of libev directly; a private epoll set
// that watches only EPOLLPRI on the descriptor becomes readable exactly when
// such data is pending, and libev can watch that set like any descriptor.
struct IoWatch {
  ev_io io;
  ev_io pri;
  int pri_set;
  int interest;
  ReadyCallback cb;
  void *owner;
};

struct TimerWatch {
  ev_timer timer;
  OwnerCallback cb;
  void *owner;
};

namespace {

void on_async(struct ev_loop *, ev_async *w, int) {
  auto *p = static_cast<Poller *>(w->data);
  p->on_wake(p->owner);
}

void on_io(struct ev_loop *, ev_io *w, int revents) {
  auto *iw = static_cast<IoWatch *>(w->data);
  int ready = 0;
  if (revents & EV_READ) ready |= kReadable;
  if (revents & EV_WRITE) ready |= kWritable;
  if (ready != 0) iw->cb(iw->owner, ready);
}

void on_priority(struct ev_loop *, ev_io *w, int) {
  auto *iw = static_cast<IoWatch *>(w->data);
  iw->cb(iw->owner, kPriority);
}

void on_timer(struct ev_loop *, ev_timer *w, int) {
  auto *tw = static_cast<TimerWatch *>(w->data);
  tw->cb(tw->owner);
}

// libev ends the process when its allocator returns NULL, and its watcher
// starts have no way to report failure. So its allocator falls back on a
// small static reserve when the heap says no: libev's arrays (descriptor
// table, timer heap, pending lists) then still grow, and the reserve fills up
// again as libev moves or frees those blocks. Only a reserve exhausted as
// well ends the process, as libev always did.
constexpr size_t kReserveBytes = 64 * 1024;
constexpr size_t kReserveHeader = 16;  // the block's size; keeps 16-byte alignment
alignas(16) unsigned char reserve_area[kReserveBytes];
// Bytes handed out (high half) and blocks still live (low half); the area is
// reused from the start once no block is live. One word, so that contexts on
// different threads need no lock.
std::atomic<uint64_t> reserve_state{0};
// Blocks this thread took from the reserve, so that a call can tell whether
// libev needed it.
thread_local unsigned reserve_takes = 0;

bool in_reserve(const void *p) {
  auto a = reinterpret_cast<uintptr_t>(p);
  auto base = reinterpret_cast<uintptr_t>(reserve_area);
  return a >= base && a < base + kReserveBytes;
}

size_t reserve_block_size(const void *p) {
  size_t n;
  memcpy(&n, static_cast<const unsigned char *>(p) - kReserveHeader, sizeof n);
  return n;
}

void *reserve_take(size_t size) {
  const uint64_t need = kReserveHeader + ((size + 15) & ~size_t{15});
  uint64_t s = reserve_state.load();
  for (;;) {
    const uint64_t used = s >> 32;
    if (need > kReserveBytes || used + need > kReserveBytes) return nullptr;
    const uint64_t next = ((used + need) << 32) | ((s & 0xffffffffu) + 1);
    if (reserve_state.compare_exchange_weak(s, next)) {
      unsigned char *b = reserve_area + used;
      memcpy(b, &size, sizeof size);
      ++reserve_takes;
      return b + kReserveHeader;
    }
  }
}

void reserve_give_back() {
  uint64_t s = reserve_state.load();
  for (;;) {
    const uint64_t live = (s & 0xffffffffu) - 1;
    const uint64_t next = live == 0 ? 0 : ((s >> 32) << 32) | live;
    if (reserve_state.compare_exchange_weak(s, next)) return;
  }
}

void release_block(void *ptr) {
  if (in_reserve(ptr))
    reserve_give_back();
  else
    free(ptr);
}

// realloc's contract, as libev wants it, with the reserve behind the heap.
void *libev_realloc(void *ptr, long size) noexcept {
  if (size <= 0) {
    release_block(ptr);
    return nullptr;
  }
  const auto want = static_cast<size_t>(size);
  if (!in_reserve(ptr)) {
    void *p = realloc(ptr, want);
    if (p != nullptr) return p;
  }
  // A block in the reserve is moved to the heap when it can be.
  void *fresh = in_reserve(ptr) ? malloc(want) : nullptr;
  if (fresh == nullptr) fresh = reserve_take(want);
  if (fresh == nullptr) return nullptr;
  if (ptr != nullptr) {
    const size_t old = in_reserve(ptr) ? reserve_block_size(ptr) : malloc_usable_size(ptr);
    memcpy(fresh, ptr, old < want ? old : want);
    release_block(ptr);
  }
  return fresh;
}

int priority_set_for(int fd) {
  int set = epoll_create1(EPOLL_CLOEXEC);
  if (set < 0) return -1;
  struct epoll_event e {};
  e.events = EPOLLPRI;
  e.data.fd = fd;
  if (epoll_ctl(set, EPOLL_CTL_ADD, fd, &e) < 0) {
    int err = errno;
    close(set);
    errno = err;
    return -1;
  }
  return set;
}

}  // namespace

Poller *poller_create(OwnerCallback on_wake, void *owner) {
  auto *p = static_cast<Poller *>(calloc(1, sizeof(Poller)));
  if (p == nullptr) return nullptr;
  ev_set_allocator(libev_realloc);
  const unsigned takes = reserve_takes;
  p->loop = ev_loop_new(EVFLAG_AUTO);
  if (p->loop == nullptr) {
    free(p);
    errno = EMFILE;
    return nullptr;
  }
  p->on_wake = on_wake;
  p->owner = owner;
  ev_async_init(&p->wake, on_async);
  p->wake.data = p;
  ev_async_start(p->loop, &p->wake);
  // The reserve is for loops that are running: a new one that already needs
  // it is refused while the caller can still be told.
  if (reserve_takes != takes) {
    poller_destroy(p);
    errno = ENOMEM;
    return nullptr;
  }
  return p;
}

void poller_destroy(Poller *p) {
  ev_async_stop(p->loop, &p->wake);
  ev_loop_destroy(p->loop);
  free(p);
}

void poller_run(Poller *p, bool block) { ev_run(p->loop, block ? EVRUN_ONCE : EVRUN_NOWAIT); }

void poller_wake(Poller *p) { ev_async_send(p->loop, &p->wake); }

IoWatch *io_watch_create(Poller *, int fd, int interest, ReadyCallback cb, void *owner) {
  auto *w = static_cast<IoWatch *>(calloc(1, sizeof(IoWatch)));
  if (w == nullptr) return nullptr;
  w->pri_set = -1;
  if (interest & kPriority) {
    w->pri_set = priority_set_for(fd);
    if (w->pri_set < 0) {
      int err = errno;
      free(w);
      errno = err;
      return nullptr;
    }
  }
  int events = ((interest & kReadable) ? EV_READ : 0) | ((interest & kWritable) ? EV_WRITE : 0);
  ev_io_init(&w->io, on_io, fd, events);
  w->io.data = w;
  ev_io_init(&w->pri, on_priority, w->pri_set, EV_READ);
  w->pri.data = w;
  w->interest = interest;
  w->cb = cb;
  w->owner = owner;
  return w;
}

void io_watch_start(Poller *p, IoWatch *w) {
  if (w->interest & (kReadable | kWritable)) ev_io_start(p->loop, &w->io);
  if (w->pri_set >= 0) ev_io_start(p->loop, &w->pri);
}

void io_watch_stop(Poller *p, IoWatch *w) {
  ev_io_stop(p->loop, &w->io);
  ev_io_stop(p->loop, &w->pri);
}

void io_watch_destroy(Poller *p, IoWatch *w) {
  io_watch_stop(p, w);
  if (w->pri_set >= 0) close(w->pri_set);
  free(w);
}

TimerWatch *timer_watch_create(Poller *, OwnerCallback cb, void *owner) {
  auto *w = static_cast<TimerWatch *>(calloc(1, sizeof(TimerWatch)));
  if (w == nullptr) return nullptr;
  ev_timer_init(&w->timer, on_timer, 0., 0.);
  w->timer.data = w;
  w->cb = cb;
  w->owner = owner;
  return w;
}

void timer_watch_start(Poller *p, TimerWatch *w, struct timespec after) {
  ev_timer_stop(p->loop, &w->timer);
  // The loop's notion of "now" is cached per round; a timer armed late in a
  // round must count from the real present, not from the round's start.
  ev_now_update(p->loop);
  ev_timer_set(&w->timer, static_cast<ev_tstamp>(after.tv_sec) + static_cast<ev_tstamp>(after.tv_nsec) * 1e-9, 0.);
  ev_timer_start(p->loop, &w->timer);
}

void timer_watch_stop(Poller *p, TimerWatch *w) { ev_timer_stop(p->loop, &w->timer); }

void timer_watch_destroy(Poller *p, TimerWatch *w) {
  ev_timer_stop(p->loop, &w->timer);
  free(w);
}

}  // namespace eventlib
