/*
 * eventlib - the event loop of the platform's daemons (libeventlib.so.1).
 *
 * Conventions:
 *  - Ownership: the caller owns a context from evCreate to evDestroy; every
 *    id (file, timer, wait, connection, stream) belongs to its context and
 *    dies with it. evDestroy closes no descriptor: descriptors stay the
 *    caller's. iovec arrays given to evRead/evWrite are copied; the buffers
 *    they point at must live until the stream's callback has run or the
 *    stream is cancelled.
 *  - NULL: a context or id that was never created (opaque pointer NULL), a
 *    NULL callback where one is required, or a NULL place for a returned id
 *    where one is required gives -1 with errno EINVAL. Places for ids are
 *    optional only where said below.
 *  - Errors: calls return 0 on success, -1 with errno set on failure; the
 *    time helpers cannot fail.
 *  - Callbacks run from evDispatch (and so from the main loops), on the
 *    thread that dispatches, never from signal context. A callback may call
 *    any function of its context, including cancelling its own id or any
 *    other one; events already fetched for an id that is cancelled are
 *    discarded and never dispatched.
 *  - Threads: a context belongs to one thread at a time; the library starts
 *    none and takes no locks. Distinct contexts may run on distinct threads.
 *  - Time: struct timespec values of evNowTime are wall-clock time
 *    (CLOCK_REALTIME). Timers take absolute due times on that clock but are
 *    measured internally on a monotonic clock from the moment they are set,
 *    so setting the wall clock neither fires nor delays them.
 */
#ifndef ISC_EVENTLIB_H
#define ISC_EVENTLIB_H

#include <stddef.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define EVENTLIB_API __attribute__((visibility("default")))

/* Opaque handles. A handle whose opaque pointer is NULL names nothing. */
typedef struct { void *opaque; } evContext;
typedef struct { void *opaque; } evEvent;
typedef struct { void *opaque; } evFileID;
typedef struct { void *opaque; } evTimerID;
typedef struct { void *opaque; } evWaitID;
typedef struct { void *opaque; } evConnID;
typedef struct { void *opaque; } evStreamID;

/* Clears a handle: EV_NULL_ID(id) makes id name nothing, EV_ID_IS_NULL tests. */
#define EV_NULL_ID(id) ((id).opaque = NULL)
#define EV_ID_IS_NULL(id) ((id).opaque == NULL)

/* Descriptor readiness; a selection's mask is any non-empty union of these. */
#define EV_READ 0x01
#define EV_WRITE 0x02
#define EV_EXCEPT 0x04

/* evGetNext options. */
#define EV_WAIT 0x01 /* block until an event is ready */
#define EV_POLL 0x02 /* do not block: -1/EWOULDBLOCK when nothing is ready */
#define EV_NULL 0x04 /* with EV_WAIT: a wake-up that produced nothing yields a
                        null event (dispatching it does nothing) */

/*
 * Callbacks. Each receives the context and the uap given at registration.
 *  - evFileFunc: fd and the ready subset of the selection's mask.
 *  - evTimerFunc: the due time that was reached and the timer's interval.
 *  - evWaitFunc: the tag that evDo was called with (or NULL for evDefer).
 *  - evConnFunc: the new or connected descriptor with both addresses; on
 *    failure fd is -1, errno is set and the addresses are NULL/0.
 *  - evStreamFunc: fd and the byte count moved; -1 with errno set on error.
 *  - evSyncFunc: called by evMainLoopSync(Sighdl) after each dispatch.
 *  - evSigFunc: the signal that arrived, called from the loop.
 */
typedef void (*evFileFunc)(evContext ctx, void *uap, int fd, int eventmask);
typedef void (*evTimerFunc)(evContext ctx, void *uap, struct timespec due,
                            struct timespec inter);
typedef void (*evWaitFunc)(evContext ctx, void *uap, const void *tag);
typedef void (*evConnFunc)(evContext ctx, void *uap, int fd, const void *la, int lalen,
                           const void *ra, int ralen);
typedef void (*evStreamFunc)(evContext ctx, void *uap, int fd, int bytes);
typedef void (*evSyncFunc)(evContext ctx, void *uap);
typedef void (*evSigFunc)(evContext ctx, void *uap, int sig);

/* ---- Contexts and dispatching ------------------------------------------ */

/* Creates a context in *ctx. ENOMEM, or EMFILE/ENFILE when the poller
 * cannot be created. */
EVENTLIB_API int evCreate(evContext *ctx);

/* Cancels everything the context holds (restoring descriptor modes and
 * signal dispositions it changed) and frees it. Not from within its own
 * callbacks: EBUSY. */
EVENTLIB_API int evDestroy(evContext ctx);

/*
 * Fetches the next ready event into *ev. options is EV_WAIT or EV_POLL,
 * optionally with EV_NULL. Finished waits and deferred calls come first,
 * then timers in due order, then descriptors, connections, streams and
 * signals. Fails with EWOULDBLOCK under EV_POLL when nothing is ready, and
 * with ENOENT under EV_WAIT when nothing is left that could ever produce an
 * event (no selection, timer, connection, stream, finished wait or armed
 * signal). A fetched event must be passed to evDispatch or evDrop.
 */
EVENTLIB_API int evGetNext(evContext ctx, evEvent *ev, int options);

/* Calls the event's callback, then releases the event as evDrop does. */
EVENTLIB_API int evDispatch(evContext ctx, evEvent ev);

/* Releases a fetched event without calling it. A one-shot timer, a
 * finished wait or a connect whose event is dropped is over as if it had
 * been dispatched (without a call); other sources carry on. */
EVENTLIB_API void evDrop(evContext ctx, evEvent ev);

/*
 * Fetches (EV_WAIT) and dispatches until evGetNext or evDispatch fails or
 * evBreak is called. Returns -1 with errno ENOENT when nothing is left, the
 * failing call's -1/errno otherwise, and 0 after evBreak.
 */
EVENTLIB_API int evMainLoop(evContext ctx);

/* Makes the running main loop of ctx return 0 once the current callback
 * returns; a loop started later runs normally. */
EVENTLIB_API int evBreak(evContext ctx);

/* ---- Synchronous handler and signal-handling loop ----------------------- */

/* Sets (replacing any previous one) or clears the handler that
 * evMainLoopSync and evMainLoopSyncSighdl call after every dispatched event;
 * the handler may set, reset or replace itself. */
EVENTLIB_API int evSetSyncHandler(evContext ctx, evSyncFunc func, void *uap);
EVENTLIB_API int evResetSyncHandler(evContext ctx);

/* evMainLoop that calls the synchronous handler, if one is set, after each
 * dispatched event. */
EVENTLIB_API int evMainLoopSync(evContext ctx);

/*
 * Signal table of a context: evSetSigHandler(ctx, sig, func, uap) records
 * func for sig (replacing an earlier entry); func NULL removes the entry.
 * Valid signals are 1..NSIG-1 except SIGKILL and SIGSTOP (EINVAL).
 *
 * The entries take effect only while evMainLoopSyncSighdl runs on the
 * context: on entry it catches every recorded signal, on return it
 * restores each signal's previous action. A caught signal only marks
 * itself pending; the loop then calls the entry's func (and afterwards the
 * synchronous handler) like any other event, never from signal context.
 * Several arrivals of one signal between two dispatches make one call. A
 * signal can be caught for one running context at a time: a loop whose
 * table names a signal already caught by another running loop fails with
 * EBUSY. Entries changed while the loop runs take effect at once.
 */
EVENTLIB_API int evSetSigHandler(evContext ctx, int sig, evSigFunc func, void *uap);

/* evMainLoopSync that also delivers the signals of the context's table.
 * Armed signals count as something left, so the loop only ends on failure
 * or evBreak while any is recorded. */
EVENTLIB_API int evMainLoopSyncSighdl(evContext ctx);

/* ---- Descriptor selection ----------------------------------------------- */

/*
 * Calls func when fd becomes ready for any event of eventmask (EV_READ,
 * EV_WRITE, EV_EXCEPT); it keeps being called while the condition holds
 * (level-triggered) until evDeselectFD. The descriptor is put in
 * non-blocking mode while selected and its previous mode restored when its
 * last selection goes. Several selections may share a descriptor if their
 * masks do not overlap (EBUSY otherwise). EV_EXCEPT reports pending
 * priority (out-of-band) data; it needs a pollable descriptor (socket, pipe,
 * terminal: EPERM for a regular file). EBADF for a closed fd, EINVAL for an
 * empty or unknown mask. id may be NULL.
 */
EVENTLIB_API int evSelectFD(evContext ctx, int fd, int eventmask, evFileFunc func, void *uap,
                            evFileID *id);
EVENTLIB_API int evDeselectFD(evContext ctx, evFileID id);

/* ---- Timers ----------------------------------------------------------- */

/*
 * Calls func when the wall-clock time due is reached (a due time in the
 * past or zero means "at the next fetch"), then every inter after that;
 * inter zero makes a one-shot timer, which is over once called. Periodic
 * timers run in interval mode by default (next due = time of the call +
 * inter); evConfigTimer(ctx, id, "rate", 1) switches to rate mode (next
 * due = previous due + inter), "rate", 0 back. id may be NULL.
 */
EVENTLIB_API int evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct timespec due,
                            struct timespec inter, evTimerID *id);
/* Stops and frees a timer; allowed from its own callback. ENOENT for an id
 * that is no longer live. */
EVENTLIB_API int evClearTimer(evContext ctx, evTimerID id);
/* Re-arms a live timer with new callback, uap, due and interval. */
EVENTLIB_API int evResetTimer(evContext ctx, evTimerID id, evTimerFunc func, void *uap,
                              struct timespec due, struct timespec inter);
/* Only parameter: "rate" (value 0 or 1). Others: EINVAL. */
EVENTLIB_API int evConfigTimer(evContext ctx, evTimerID id, const char *param, int value);

/*
 * Idle timer: calls func once max_idle has passed without evTouchIdleTimer
 * (counted from evSetIdleTimer), then again after each further max_idle of
 * inactivity, until cleared. func gets due = the time of the call and
 * inter = max_idle. max_idle must be positive. id is required.
 */
EVENTLIB_API int evSetIdleTimer(evContext ctx, evTimerFunc func, void *uap,
                                struct timespec max_idle, evTimerID *id);
EVENTLIB_API int evClearIdleTimer(evContext ctx, evTimerID id);
/* Restarts the inactivity count from now. */
EVENTLIB_API int evTouchIdleTimer(evContext ctx, evTimerID id);

/* ---- Time helpers (never fail; nanoseconds kept in 0..999999999) ---------- */

EVENTLIB_API struct timespec evConsTime(time_t sec, long nsec);
EVENTLIB_API struct timespec evAddTime(struct timespec addend1, struct timespec addend2);
/* minuend - subtrahend; a negative difference is returned as zero. */
EVENTLIB_API struct timespec evSubTime(struct timespec minuend, struct timespec subtrahend);
/* <0, 0, >0 as a is before, equal to, after b. */
EVENTLIB_API int evCmpTime(struct timespec a, struct timespec b);
/* Wall-clock time now (CLOCK_REALTIME). */
EVENTLIB_API struct timespec evNowTime(void);
EVENTLIB_API struct timespec evTimeSpec(struct timeval tv);
/* Rounds nanoseconds down to microseconds. */
EVENTLIB_API struct timeval evTimeVal(struct timespec ts);

/* ---- Waits -------------------------------------------------------------- */

/*
 * Waits on tag, an address used only as a key: evDo(ctx, tag) finishes
 * every wait on that tag (ENOENT if there is none), each of which is then
 * fetched and dispatched once, in the order of evWaitFor, and is over.
 * evUnwait cancels a wait, finished or not (ENOENT if it is over). evDefer
 * queues a call as if a wait on NULL had just been finished. id may be NULL.
 */
EVENTLIB_API int evWaitFor(evContext ctx, const void *tag, evWaitFunc func, void *uap,
                           evWaitID *id);
EVENTLIB_API int evDo(evContext ctx, const void *tag);
EVENTLIB_API int evUnwait(evContext ctx, evWaitID id);
EVENTLIB_API int evDefer(evContext ctx, evWaitFunc func, void *uap);

/* ---- Connections -------------------------------------------------------- */

/*
 * evListen: listen(fd, maxconn) and, for each connection accepted, calls
 * func with the new descriptor (blocking, owned by the callee) and the
 * local and peer addresses, until evCancelConn. An accept failure other
 * than EAGAIN, EINTR or ECONNABORTED calls func with fd -1 and errno set.
 * evConnect: starts a non-blocking connect of fd to ra and calls func once
 * when it completes (fd, local and peer addresses) or fails (fd -1, errno);
 * the connection id is then over. fd gets its previous blocking mode back.
 * evCancelConn stops either; the descriptor is left open. id may be NULL.
 */
EVENTLIB_API int evListen(evContext ctx, int fd, int maxconn, evConnFunc func, void *uap,
                          evConnID *id);
EVENTLIB_API int evConnect(evContext ctx, int fd, const void *ra, int ralen, evConnFunc func,
                           void *uap, evConnID *id);
EVENTLIB_API int evCancelConn(evContext ctx, evConnID id);

/* ---- Streams ---------------------------------------------------------- */

/*
 * evWrite writes every byte of the iovcnt buffers of iov, evRead fills
 * them, as the descriptor allows; func is called once, with the total byte
 * count when all is done, or when end of file ends a read early with the
 * count read so far, or -1 with errno on error. The stream is then over.
 * evCancelRW stops a stream before its callback has run (ENOENT after).
 * iovcnt must be 1..IOV_MAX and the total length at most INT_MAX (EINVAL).
 * A write to a peer that has gone raises SIGPIPE unless the daemon ignores
 * it, as with write(2). id may be NULL.
 */
EVENTLIB_API int evWrite(evContext ctx, int fd, const struct iovec *iov, int iovcnt,
                         evStreamFunc func, void *uap, evStreamID *id);
EVENTLIB_API int evRead(evContext ctx, int fd, const struct iovec *iov, int iovcnt,
                        evStreamFunc func, void *uap, evStreamID *id);
EVENTLIB_API int evCancelRW(evContext ctx, evStreamID id);

/* ---- Clock of the platform's daemons ------------------------------------ */

/*
 * getsystimes stores the wall-clock time (CLOCK_REALTIME) in *realtime and
 * the time since boot (CLOCK_MONOTONIC) in *uptime, in seconds and
 * nanoseconds; either pointer may be NULL. lw_getsystimes does the same
 * from the cheap clocks (CLOCK_REALTIME_COARSE, CLOCK_MONOTONIC_COARSE),
 * which are only as fine as the kernel's tick (a few milliseconds) but
 * cost no more than a memory read: for time stamps and timeouts, not for
 * measuring short intervals. Both return 0, or -1 with errno.
 */
EVENTLIB_API int getsystimes(struct timespec *realtime, struct timespec *uptime);
EVENTLIB_API int lw_getsystimes(struct timespec *realtime, struct timespec *uptime);

#ifdef __cplusplus
}
#endif

#endif /* ISC_EVENTLIB_H */
