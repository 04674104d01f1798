// Shared inside the event library: the context, its sources and their events.
//
// Everything that can produce events (a selection, a timer, a wait, a
// connection, a stream, a signal entry) is a Source. A source carries its
// single event with it: the event is "queued" while it waits in one of the
// context's queues and "fetched" between evGetNext and evDispatch/evDrop. A
// source that is cancelled while fetched is only marked dead and freed when
// its event comes back, so a callback may cancel anything, itself included.
#ifndef EVENTLIB_CORE_H
#define EVENTLIB_CORE_H

#include <errno.h>
#include <isc/eventlib.h>
#include <stdlib.h>

#include "eventlib/backend.h"

namespace eventlib {

enum class Kind : unsigned char { null_event, file, timer, wait, listen, connect, stream, signal };

struct Context;

struct Source {
  Kind kind;
  bool dead;
  bool queued;
  bool fetched;
  bool watching;  // its watch is started (counted in Context::watching)
  Context *ctx;
  Source *prev, *next;    // the context's sources, oldest first
  Source *qprev, *qnext;  // position in a queue
};

struct Queue {
  Source *head, *tail;
};

struct FdMode;

struct Context {
  unsigned magic;
  Poller *poller;
  Source *first, *last;
  Queue done;   // finished waits and deferred calls: fetched first
  Queue ready;  // what the poller reported; timers first, by due time
  int watching; // started watches + armed signals; 0 means nothing is left
  FdMode *modes;
  int dispatching;
  int loops;
  bool break_requested;
  bool catching_signals;
  evSyncFunc sync_func;
  void *sync_uap;
  Source null_source;
};

inline constexpr unsigned kContextMagic = 0x65764378;  // "evCx"

inline int fail(int err) {
  errno = err;
  return -1;
}

inline evContext handle_of(Context *c) { return evContext{c}; }
// nullptr for a handle that names no context.
Context *context_of(evContext ctx);

// Allocates a zeroed source of the given type, appended to the context.
// nullptr with errno ENOMEM.
Source *source_alloc(Context *c, Kind kind, size_t size);
template <class T>
T *source_new(Context *c, Kind kind) {
  return static_cast<T *>(source_alloc(c, kind, sizeof(T)));
}
// The live source named by id of the given kind, or nullptr.
Source *source_find(Context *c, const void *id, Kind kind);
// Ends the live source named by id if it is of either kind: 0, or -1 with
// EINVAL (no context) or ENOENT.
int source_cancel(evContext ctx, const void *id, Kind kind, Kind other_kind);
inline int source_cancel(evContext ctx, const void *id, Kind kind) {
  return source_cancel(ctx, id, kind, kind);
}
// Ends a source: its event is withdrawn, its resources released; freed now
// or, when its event is fetched, once the event comes back.
void source_kill(Source *s);
// Unlinks and frees a source that never got going; keeps errno; returns -1.
int source_abandon(Source *s);

// A source that watches one descriptor, which it keeps non-blocking.
struct IoSource : Source {
  int fd;
  bool holds_mode;
  IoWatch *watch;
};
// Takes the descriptor's mode and creates the (stopped) watch; -1 with
// errno and nothing held on failure.
int io_source_open(IoSource *s, int fd, int interest, ReadyCallback on_ready);
void io_source_watch(IoSource *s, bool on);
// A ReadyCallback: rests the watch and queues the source's event.
void io_source_ready(void *owner, int ready);
// Gives the descriptor its previous mode back (once).
void io_source_release_mode(IoSource *s);
// KindOps::release for such sources.
void io_source_release(Source *s);

void enqueue_ready(Source *s);
void enqueue_done(Source *s);
void dequeue(Source *s);
void set_watching(Source *s, bool on);

// Puts fd in non-blocking mode for as long as any holder needs it, then
// restores its previous mode. -1 with errno (EBADF) on a bad descriptor.
int fd_hold(Context *c, int fd);
void fd_release(Context *c, int fd);

// Monotonic time now.
struct timespec mono_now();
bool time_is_zero(struct timespec t);

// Per-kind behaviour, implemented beside each family.
//  dispatch: runs the callback of a fetched event (not for dead sources).
//  after:    what becomes of a live source once its event came back.
//  release:  frees what the source holds besides its own memory.
//  fetch:    work done when the event is handed out (may be null).
struct KindOps {
  void (*dispatch)(Source *s);
  void (*after)(Source *s);
  void (*release)(Source *s);
  void (*fetch)(Source *s);
};
extern const KindOps file_ops, timer_ops, wait_ops, listen_ops, connect_ops, stream_ops,
    signal_ops;

// Timer order inside the ready queue.
bool timer_due_before(const Source *a, const Source *b);

// Signal catching for evMainLoopSyncSighdl.
int signals_arm(Context *c);
void signals_disarm(Context *c);
void signals_collect(void *ctx);

}  // namespace eventlib

#endif
