// The asynchronous context a handle owns, and the steps shared by its
// registration and dispatch code.
#ifndef LIBTARN_RTSLIB_ASYNC_INTERNAL_H
#define LIBTARN_RTSLIB_ASYNC_INTERNAL_H

#include <cstdint>

#include <isc/eventlib.h>
#include <tarn/rtslib.h>
#include <tarn/rtslib_async.h>

// One registered handler and the argument it is called with.
struct rtslib_async_entry {
    void *arg;
    rtslib_async_handler_fn fn;
};

// A type dispatched a second time by a subtype byte: its registration entry
// holds this table as argument and the subtype dispatcher as handler.
struct rtslib_async_subtypes {
    uint32_t count;
    uint32_t offset;
    rtslib_async_entry *entries;
};

struct rtslib_async_ctx {
    evContext ev;
    rtslib_async_entry *slots[RTS_MSG_TYPE_COUNT];
    uint32_t listen_lo;
    uint32_t listen_hi;
    evFileID select_id;
    uint32_t state;
    uint32_t mode;
};

namespace tarn::async {

// State bits of rtslib_async_ctx::state.
constexpr uint32_t kOwnEventContext = 0x1;
constexpr uint32_t kSelected = 0x2;
constexpr uint32_t kNoContext = 0x4;

// Selects the handle's descriptor for reading in the event context, once;
// nothing in no-context mode. 0, or -1 after a report.
int select_descriptor(rtslib_cookie *h);

// Makes sure the socket delivers the wanted listen bits; the option is sent
// only when a bit is missing, and the stored mask follows only a success.
// 0, or -1 with errno from the kernel (unreported: callers name the class).
int add_listen_bits(rtslib_cookie *h, uint32_t lo, uint32_t hi);

// Registers fn for one message type with the given listen bits.
int register_type(rtslib_cookie *h, uint32_t type, uint32_t lo, uint32_t hi, void *arg,
                  rtslib_async_handler_fn fn);

// The handler installed for subtype-dispatched types.
int dispatch_subtype(rtslib_cookie *h, void *arg, void *msg, void *reserved);

// Frees a registration entry and, for subtype dispatch, its table.
void free_entry(rtslib_cookie *h, rtslib_async_entry *entry);

}  // namespace tarn::async

#endif  // LIBTARN_RTSLIB_ASYNC_INTERNAL_H
