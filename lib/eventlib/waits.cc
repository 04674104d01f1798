// Waits on tags and deferred calls.
#include "eventlib/core.h"

namespace eventlib {

namespace {

struct Wait : Source {
  const void *tag;
  evWaitFunc func;
  void *uap;
  bool done;
};

Wait *wait_new(Context *c, const void *tag, evWaitFunc func, void *uap) {
  auto *w = source_new<Wait>(c, Kind::wait);
  if (w != nullptr) {
    w->tag = tag;
    w->func = func;
    w->uap = uap;
  }
  return w;
}

void wait_dispatch(Source *s) {
  auto *w = static_cast<Wait *>(s);
  w->func(handle_of(w->ctx), w->uap, w->tag);
}

// Whether called or dropped, a finished wait has had its turn.
void wait_after(Source *s) { source_kill(s); }

void wait_release(Source *) {}

}  // namespace

const KindOps wait_ops = {wait_dispatch, wait_after, wait_release, nullptr};

}  // namespace eventlib

using namespace eventlib;

extern "C" {

int evWaitFor(evContext ctx, const void *tag, evWaitFunc func, void *uap, evWaitID *id) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr) return fail(EINVAL);
  Wait *w = wait_new(c, tag, func, uap);
  if (w == nullptr) return -1;
  if (id != nullptr) id->opaque = w;
  return 0;
}

int evDo(evContext ctx, const void *tag) {
  Context *c = context_of(ctx);
  if (c == nullptr) return fail(EINVAL);
  bool found = false;
  // Sources are kept oldest first, so waits finish in the order they began.
  for (Source *s = c->first; s != nullptr; s = s->next) {
    if (s->kind != Kind::wait) continue;
    auto *w = static_cast<Wait *>(s);
    if (w->done || w->tag != tag) continue;
    w->done = true;
    enqueue_done(w);
    found = true;
  }
  return found ? 0 : fail(ENOENT);
}

int evUnwait(evContext ctx, evWaitID id) { return source_cancel(ctx, id.opaque, Kind::wait); }

int evDefer(evContext ctx, evWaitFunc func, void *uap) {
  Context *c = context_of(ctx);
  if (c == nullptr || func == nullptr) return fail(EINVAL);
  Wait *w = wait_new(c, nullptr, func, uap);
  if (w == nullptr) return -1;
  w->done = true;
  enqueue_done(w);
  return 0;
}

}  // extern "C"
