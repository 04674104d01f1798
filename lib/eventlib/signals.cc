// The signal table of a context and the process-wide catching behind it.
//
// The handler installed with sigaction does no more than mark the signal
// and wake the owning context's poller (both async-signal-safe); the calls
// into the daemon happen later, from evDispatch.
#include <atomic>
#include <signal.h>

#include "eventlib/core.h"

namespace eventlib {

namespace {

struct SigEntry : Source {
  int sig;
  bool armed;
  evSigFunc func;
  void *uap;
  struct sigaction saved;
};

std::atomic<Context *> g_owner[NSIG];
std::atomic<int> g_pending[NSIG];

static_assert(std::atomic<Context *>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "signal handlers may only touch lock-free atomics");

void on_signal(int sig) {
  int err = errno;
  g_pending[sig].store(1);
  if (Context *c = g_owner[sig].load(); c != nullptr) poller_wake(c->poller);
  errno = err;
}

int arm(SigEntry *e) {
  Context *expected = nullptr;
  if (!g_owner[e->sig].compare_exchange_strong(expected, e->ctx)) return fail(EBUSY);
  g_pending[e->sig].store(0);
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  if (sigaction(e->sig, &sa, &e->saved) < 0) {
    int err = errno;
    g_owner[e->sig].store(nullptr);
    return fail(err);
  }
  e->armed = true;
  set_watching(e, true);
  return 0;
}

void disarm(SigEntry *e) {
  if (!e->armed) return;
  sigaction(e->sig, &e->saved, nullptr);
  g_owner[e->sig].store(nullptr);
  e->armed = false;
  set_watching(e, false);
}

SigEntry *entry_for(Context *c, int sig) {
  for (Source *s = c->first; s != nullptr; s = s->next)
    if (s->kind == Kind::signal && static_cast<SigEntry *>(s)->sig == sig)
      return static_cast<SigEntry *>(s);
  return nullptr;
}

void signal_dispatch(Source *s) {
  auto *e = static_cast<SigEntry *>(s);
  e->func(handle_of(e->ctx), e->uap, e->sig);
}

void signal_after(Source *) {}

void signal_release(Source *s) {
  int err = errno;
  disarm(static_cast<SigEntry *>(s));
  errno = err;
}

}  // namespace

const KindOps signal_ops = {signal_dispatch, signal_after, signal_release, nullptr};

void signals_collect(void *owner) {
  auto *c = static_cast<Context *>(owner);
  for (Source *s = c->first; s != nullptr; s = s->next) {
    if (s->kind != Kind::signal) continue;
    auto *e = static_cast<SigEntry *>(s);
    if (e->armed && g_pending[e->sig].exchange(0) != 0 && !e->queued) enqueue_ready(e);
  }
}

int signals_arm(Context *c) {
  for (Source *s = c->first; s != nullptr; s = s->next) {
    if (s->kind == Kind::signal && arm(static_cast<SigEntry *>(s)) < 0) {
      int err = errno;
      signals_disarm(c);
      return fail(err);
    }
  }
  c->catching_signals = true;
  return 0;
}

void signals_disarm(Context *c) {
  for (Source *s = c->first; s != nullptr; s = s->next)
    if (s->kind == Kind::signal) disarm(static_cast<SigEntry *>(s));
  c->catching_signals = false;
}

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evSetSigHandler(evContext ctx, int sig, evSigFunc func, void *uap) {
  Context *c = context_of(ctx);
  if (c == nullptr || sig <= 0 || sig >= NSIG || sig == SIGKILL || sig == SIGSTOP)
    return fail(EINVAL);
  SigEntry *e = entry_for(c, sig);
  if (func == nullptr) {
    if (e != nullptr) source_kill(e);
    return 0;
  }
  if (e == nullptr) {
    e = source_new<SigEntry>(c, Kind::signal);
    if (e == nullptr) return -1;
    e->sig = sig;
    if (c->catching_signals && arm(e) < 0) return source_abandon(e);
  }
  e->func = func;
  e->uap = uap;
  return 0;
}

}  // extern "C"
