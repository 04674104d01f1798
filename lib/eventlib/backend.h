// The poller under the event library: one per context. Kept behind this small
// interface so that the poller library's own names (which clash with the
// public EV_READ/EV_WRITE) live in a single translation unit.
#ifndef EVENTLIB_BACKEND_H
#define EVENTLIB_BACKEND_H

#include <time.h>

namespace eventlib {

// Readiness bits as the poller reports them.
inline constexpr int kReadable = 1;
inline constexpr int kWritable = 2;
inline constexpr int kPriority = 4;

struct Poller;
struct IoWatch;
struct TimerWatch;

using ReadyCallback = void (*)(void *owner, int ready);
using OwnerCallback = void (*)(void *owner);

// nullptr with errno set on failure.
Poller *poller_create(OwnerCallback on_wake, void *owner);
void poller_destroy(Poller *p);
// One round: blocks until something happens when block is set, otherwise
// only collects what is ready now. Callbacks run from inside.
void poller_run(Poller *p, bool block);
// Makes the poller's on_wake run in its next round; async-signal-safe.
void poller_wake(Poller *p);

// A watch is created stopped. interest is a union of the k* bits;
// kPriority is out-of-band data. nullptr with errno on failure.
IoWatch *io_watch_create(Poller *p, int fd, int interest, ReadyCallback cb, void *owner);
void io_watch_start(Poller *p, IoWatch *w);
void io_watch_stop(Poller *p, IoWatch *w);
void io_watch_destroy(Poller *p, IoWatch *w);

TimerWatch *timer_watch_create(Poller *p, OwnerCallback cb, void *owner);
// (Re)starts the timer to expire once, after the given span.
void timer_watch_start(Poller *p, TimerWatch *w, struct timespec after);
void timer_watch_stop(Poller *p, TimerWatch *w);
void timer_watch_destroy(Poller *p, TimerWatch *w);

}  // namespace eventlib

#endif
