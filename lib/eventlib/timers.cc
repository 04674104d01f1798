// Timers and idle timers.
//
// Due times arrive on the wall clock but are turned into monotonic deadlines
// when set, so stepping the wall clock does not disturb a running timer.
#include <string.h>

#include "eventlib/core.h"

namespace eventlib {

namespace {

struct Timer : Source {
  evTimerFunc func;
  void *uap;
  struct timespec due;       // wall clock, as the callback will see it
  struct timespec inter;     // for idle timers: the allowed idle time
  struct timespec deadline;  // monotonic
  struct timespec fired_due;
  struct timespec last_touch;  // monotonic, idle timers only
  bool rate;
  bool idle;
  bool spent;  // a one-shot timer whose event has been handed out
  TimerWatch *watch;
};

bool valid_span(struct timespec t) {
  return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < 1000000000L;
}

void arm(Timer *t, struct timespec deadline) {
  t->deadline = deadline;
  timer_watch_start(t->ctx->poller, t->watch, evSubTime(deadline, mono_now()));
  set_watching(t, true);
}

void schedule(Timer *t, struct timespec due, struct timespec inter) {
  struct timespec wall = evNowTime();
  struct timespec mono = mono_now();
  t->due = time_is_zero(due) ? wall : due;
  t->inter = inter;
  t->spent = false;
  // Kept unclamped (as far as the monotonic clock reaches back) so that
  // timers already overdue still come out in the order of their due times.
  arm(t, evSubTime(evAddTime(mono, t->due), wall));
}

void on_expired(void *owner) {
  auto *t = static_cast<Timer *>(owner);
  set_watching(t, false);
  if (t->idle) {
    struct timespec idle_for = evSubTime(mono_now(), t->last_touch);
    if (evCmpTime(idle_for, t->inter) < 0) {
      arm(t, evAddTime(t->last_touch, t->inter));
      return;
    }
  }
  if (!t->queued) enqueue_ready(t);
}

// Periodic timers are re-armed as their event is handed out, so a slow
// callback delays nothing in rate mode.
void timer_fetch(Source *s) {
  auto *t = static_cast<Timer *>(s);
  if (t->idle) {
    t->fired_due = evNowTime();
    t->last_touch = mono_now();
    arm(t, evAddTime(t->last_touch, t->inter));
    return;
  }
  t->fired_due = t->due;
  if (time_is_zero(t->inter)) {
    t->spent = true;
    return;
  }
  if (t->rate) {
    t->due = evAddTime(t->due, t->inter);
    arm(t, evAddTime(t->deadline, t->inter));
  } else {
    t->due = evAddTime(evNowTime(), t->inter);
    arm(t, evAddTime(mono_now(), t->inter));
  }
}

void timer_dispatch(Source *s) {
  auto *t = static_cast<Timer *>(s);
  t->func(handle_of(t->ctx), t->uap, t->fired_due, t->inter);
}

void timer_after(Source *s) {
  if (static_cast<Timer *>(s)->spent) source_kill(s);
}

void timer_release(Source *s) {
  auto *t = static_cast<Timer *>(s);
  timer_watch_destroy(t->ctx->poller, t->watch);
}

Timer *timer_new(Context *c, evTimerFunc func, void *uap) {
  auto *t = source_new<Timer>(c, Kind::timer);
  if (t == nullptr) return nullptr;
  t->watch = timer_watch_create(c->poller, on_expired, t);
  if (t->watch == nullptr) {
    source_abandon(t);
    errno = ENOMEM;
    return nullptr;
  }
  t->func = func;
  t->uap = uap;
  return t;
}

// The live timer named by id (idle or not, as asked), with ctx checked.
int find_timer(evContext ctx, evTimerID id, int want_idle, Timer **out) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  auto *t = static_cast<Timer *>(source_find(c, id.opaque, Kind::timer));
  if (t == nullptr) return fail(ENOENT);
  if (want_idle >= 0 && t->idle != (want_idle != 0)) return fail(EINVAL);
  *out = t;
  return 0;
}

}  // namespace

bool timer_due_before(const Source *a, const Source *b) {
  return evCmpTime(static_cast<const Timer *>(a)->deadline,
                   static_cast<const Timer *>(b)->deadline) < 0;
}

const KindOps timer_ops = {timer_dispatch, timer_after, timer_release, timer_fetch};

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct timespec due,
               struct timespec inter, evTimerID *id) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr || !valid_span(due) || !valid_span(inter))
    return fail(EINVAL);
  Timer *t = timer_new(c, func, uap);
  if (t == nullptr) return -1;
  schedule(t, due, inter);
  if (id != nullptr) id->opaque = t;
  return 0;
}

int evClearTimer(evContext ctx, evTimerID id) {
  Timer *t;
  if (find_timer(ctx, id, -1, &t) < 0) return -1;
  source_kill(t);
  return 0;
}

int evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap, struct timespec due,
                 struct timespec inter) {
  Timer *t;
  if (find_timer(ctx, id, 0, &t) < 0) return -1;
  if (func == nullptr || !valid_span(due) || !valid_span(inter)) return fail(EINVAL);
  if (t->queued) dequeue(t);
  t->func = func;
  t->uap = uap;
  schedule(t, due, inter);
  return 0;
}

int evConfigTimer(evContext ctx, evTimerID id, const char *param, int value) {
  Timer *t;
  if (find_timer(ctx, id, 0, &t) < 0) return -1;
  if (param == nullptr || strcmp(param, "rate") != 0 || (value != 0 && value != 1))
    return fail(EINVAL);
  t->rate = value != 0;
  return 0;
}

int evSetIdleTimer(evContext ctx, evTimerFunc func, void *uap, struct timespec max_idle,
                   evTimerID *id) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr || id == nullptr || !valid_span(max_idle) ||
      time_is_zero(max_idle))
    return fail(EINVAL);
  Timer *t = timer_new(c, func, uap);
  if (t == nullptr) return -1;
  t->idle = true;
  t->inter = max_idle;
  t->last_touch = mono_now();
  arm(t, evAddTime(t->last_touch, max_idle));
  id->opaque = t;
  return 0;
}

int evClearIdleTimer(evContext ctx, evTimerID id) {
  Timer *t;
  if (find_timer(ctx, id, 1, &t) < 0) return -1;
  source_kill(t);
  return 0;
}

int evTouchIdleTimer(evContext ctx, evTimerID id) {
  Timer *t;
  if (find_timer(ctx, id, 1, &t) < 0) return -1;
  t->last_touch = mono_now();
  // An idle event not yet handed out is void now that there was activity.
  if (t->queued) {
    dequeue(t);
    arm(t, evAddTime(t->last_touch, t->inter));
  }
  return 0;
}

}  // extern "C"
