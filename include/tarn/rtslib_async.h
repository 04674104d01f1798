/*
 * libtarn - asynchronous notifications: contexts, socket modes, registration
 * of handlers per message type, and dispatch.
 *
 * Ownership: the asynchronous context belongs to the handle; it is destroyed
 * with rtslib_destroy_async_context or by rtslib_close. An event context the
 * library created is destroyed with it; one the caller attached stays the
 * caller's. A handler owns what it is given: a decoded record is released
 * with rtslib_msg_idl_release, a raw message freed with rtslib_msg_free.
 * Reply buffers of rtslib_async_opaque_handle are freed with rtslib_msg_free.
 *
 * NULL: a null handle, missing context or missing handler gives EINVAL.
 *
 * Results: 0 on success, EINVAL for a bad argument, -1 after a failure that
 * was reported through the handle's error sink (level 3, or 4 where said),
 * unless a function says otherwise.
 *
 * Threads: everything runs on the thread that runs the event context;
 * handlers are called synchronously from rtslib_async_event_process.
 */
#ifndef TARN_RTSLIB_ASYNC_H
#define TARN_RTSLIB_ASYNC_H

#include <isc/eventlib.h>

#include <tarn/common.h>
#include <tarn/rtslib.h>

TARN_BEGIN_DECLS

/* Handler of one message type. msg is a decoded record (release it with
 * rtslib_msg_idl_release; NULL when the envelope's type has no record) or a
 * raw routing-socket message (free it with rtslib_msg_free). reserved is
 * always NULL. The result is ignored. */
typedef int (*rtslib_async_handler_fn)(rtslib_cookie *handle, void *arg, void *msg,
                                       void *reserved);

/* Mode bits accepted by rtslib_set_async_mode: 0, or bit 0 with no bit
 * outside this set. */
#define RTSLIB_ASYNC_MODE_ENABLE 0x1u
#define RTSLIB_ASYNC_MODE_VALID 0x39fu

/* Listen-mask bit (high word) of the input notifications. */
#define RTSLIB_LISTEN_HI_INPUT 0x200000u

/* Messages one event reads at most once a context is attached. */
#define RTSLIB_ASYNC_NUM_READ_MSG_DEFAULT 10

/* --- Contexts ----------------------------------------------------------- */

/* Creates an event context owned by the library, attaches it and reads the
 * kernel's sequence number into the handle (the result of that read is
 * returned). EINVAL when the handle already has a context; -1 after a
 * level-4 report when no event context can be made. */
TARN_API int rtslib_create_async_context(rtslib_cookie *handle);

/* Attaches the caller's event context; sets the handle's num_read_msg to
 * RTSLIB_ASYNC_NUM_READ_MSG_DEFAULT. EINVAL when a context exists. */
TARN_API int rtslib_set_async_context(rtslib_cookie *handle, evContext ev);

/* Attaches a context without an event context: the caller polls the
 * descriptor (stored in *fd_out when fd_out is given) and calls
 * rtslib_async_event_process itself. num_read_msg is left as it is (0 on a
 * fresh handle: one message per call). */
TARN_API int rtslib_set_async_info_nocontext(rtslib_cookie *handle, int *fd_out);

/* The attached event context; EINVAL without one or in no-context mode. */
TARN_API int rtslib_get_async_context(rtslib_cookie *handle, evContext *out);

/* Deselects the descriptor, destroys an event context the library made,
 * frees every registration and the context. 0 when there is none; -1 with
 * the context kept when the event context cannot be destroyed. */
TARN_API int rtslib_destroy_async_context(rtslib_cookie *handle);

/* Reads the kernel's sequence number for this socket: 0, or the failing
 * getsockopt's result after a report. */
TARN_API int rtslib_get_async_seq_num(rtslib_cookie *handle, uint32_t *out);

/* Sets the socket's asynchronous mode bits (needs a context). */
TARN_API int rtslib_set_async_mode(rtslib_cookie *handle, uint32_t bits);

/* Master, slave and local-slave modes; no context needed. */
TARN_API int rtslib_setup_master_mode(rtslib_cookie *handle, int value);
TARN_API int rtslib_setup_slave_mode(rtslib_cookie *handle, int value);
TARN_API int rtslib_setup_local_slave_mode(rtslib_cookie *handle, int value);

/* Set or read the listen-subtype block (ROUTE_LISTEN_SUBTYPES_LEN bytes).
 * The read passes the block's first byte to the kernel and returns the
 * failing getsockopt's result after a report. */
TARN_API int rtslib_set_async_msg_subtype(rtslib_cookie *handle, const uint8_t *block);
TARN_API int rtslib_get_async_msg_subtype(rtslib_cookie *handle, uint8_t *block);

/* Sends the current listen mask followed by ROUTE_FILTER_DATA_LEN filter
 * bytes (needs a context). */
TARN_API int rtslib_async_register_filters(rtslib_cookie *handle, const uint8_t *filter);

/* Selects the descriptor and asks for input notifications. */
TARN_API int rtslib_input_async_register(rtslib_cookie *handle);

/* How many messages one rtslib_async_event_process call handles at most. */
TARN_API void rtsllib_async_set_num_read_msg(rtslib_cookie *handle, uint32_t n);

/* Run the event context's main loop (the second with synchronous signal
 * handling) and return its result; EINVAL without an event context. */
TARN_API int rtslib_async_event_loop(rtslib_cookie *handle);
TARN_API int rtslib_async_event_loop_sighdl(rtslib_cookie *handle);

/* --- Registration --------------------------------------------------------
 * Each call registers handler for each of its message types in turn and
 * asks the kernel for their notification class; it stops at the first
 * failure, and the types registered before it stay registered. EINVAL without a context or
 * handler, or when a type already has a handler; -1 after a reported
 * failure of the listen option or of an allocation. The first registration
 * selects the descriptor in the event context. */
TARN_API int rtslib_rtbm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_rtm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_ifdm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_iflm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
/* flags bit 0 and bit 2 choose the notification classes. */
TARN_API int rtslib_iffm_async_register(rtslib_cookie *h, uint8_t flags, void *arg,
                                        rtslib_async_handler_fn fn);
TARN_API int rtslib_ifam_async_register(rtslib_cookie *h, uint8_t flags, void *arg,
                                        rtslib_async_handler_fn fn);
TARN_API int rtslib_rnhm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_mgrm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_dfwm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_ifdest_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
TARN_API int rtslib_ifdalm_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
TARN_API int rtslib_dfwstatsm_async_register(rtslib_cookie *h, void *arg,
                                             rtslib_async_handler_fn fn);
TARN_API int rtslib_pfeinfo_async_register(rtslib_cookie *h, void *arg,
                                           rtslib_async_handler_fn fn);
TARN_API int rtslib_ifvcm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_rtclass_async_register(rtslib_cookie *h, void *arg,
                                           rtslib_async_handler_fn fn);
TARN_API int rtslib_cos_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_sample_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
TARN_API int rtslib_sadbm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_monitor_async_register(rtslib_cookie *h, void *arg,
                                           rtslib_async_handler_fn fn);
TARN_API int rtslib_monitor_state_async_register(rtslib_cookie *h, void *arg,
                                                 rtslib_async_handler_fn fn);
TARN_API int rtslib_pkcs_reply_async_register(rtslib_cookie *h, void *arg,
                                              rtslib_async_handler_fn fn);
TARN_API int rtslib_ifvpm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_ifsm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_asp_cfg_async_register(rtslib_cookie *h, void *arg,
                                           rtslib_async_handler_fn fn);
TARN_API int rtslib_asp_ipsec_async_register(rtslib_cookie *h, void *arg,
                                             rtslib_async_handler_fn fn);
TARN_API int rtslib_l2tp_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_cp_config_async_register(rtslib_cookie *h, void *arg,
                                             rtslib_async_handler_fn fn);
TARN_API int rtslib_cp_pic_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
TARN_API int rtslib_picm_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_ksyncm_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
TARN_API int rtslib_gencfg_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
TARN_API int rtslib_aggr_config_async_register(rtslib_cookie *h, void *arg,
                                               rtslib_async_handler_fn fn);
/* With a subtype block (ROUTE_LISTEN_SUBTYPES_LEN bytes, may be NULL), its
 * first byte is set to the opaque type and the block is sent as the listen
 * subtypes; that result is returned. */
TARN_API int rtslib_async_opaque_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn, uint8_t *subtypes);
/* A non-zero flag also asks for the queue-service replies. */
TARN_API int rtslib_qsv_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn,
                                       int flag);
TARN_API int rtslib_pfe_dwn_map_async_register(rtslib_cookie *h, void *arg,
                                               rtslib_async_handler_fn fn);
TARN_API int rtslib_stp_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_nh_comp_async_register(rtslib_cookie *h, void *arg,
                                           rtslib_async_handler_fn fn);
TARN_API int rtslib_vlan_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_mesh_group_async_register(rtslib_cookie *h, void *arg,
                                              rtslib_async_handler_fn fn);
TARN_API int rtslib_analyzer_async_register(rtslib_cookie *h, void *arg,
                                            rtslib_async_handler_fn fn);
TARN_API int rtslib_bd_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_ifbd_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_ksdb_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_fc_fabric_async_register(rtslib_cookie *h, void *arg,
                                             rtslib_async_handler_fn fn);
TARN_API int rtslib_ddos_async_register(rtslib_cookie *h, void *arg, rtslib_async_handler_fn fn);
TARN_API int rtslib_notify_async_register(rtslib_cookie *h, void *arg,
                                          rtslib_async_handler_fn fn);
/* The second argument is not used. */
TARN_API int rtslib_kuack_async_register(rtslib_cookie *h, int ignored, void *arg,
                                         rtslib_async_handler_fn fn);
/* flags bit 2 asks for the system-statistics class. */
TARN_API int rtslib_sysstatsm_async_register(rtslib_cookie *h, uint8_t flags, void *arg,
                                             rtslib_async_handler_fn fn);

/* Interface-state client messages are dispatched again by the subtype byte
 * at offset 24. The first of these two calls on a handle wins; the second
 * returns 0 and changes nothing. eochain handles subtype 0 only; ifsclim
 * every subtype. ENOMEM when the subtype table cannot be had. */
TARN_API int rtslib_ifstate_eochain_register(rtslib_cookie *h, void *arg,
                                             rtslib_async_handler_fn fn);
TARN_API int rtslib_ifsclim_async_register(rtslib_cookie *h, void *arg,
                                           rtslib_async_handler_fn fn);

/* --- Dispatch ----------------------------------------------------------- */

/* Reads up to num_read_msg waiting messages and hands each to its type's
 * handler. 0 when at least one was handled and the socket is drained or the
 * limit reached; otherwise -1 with errno: EAGAIN (nothing to read),
 * EOPNOTSUPP (unknown type), ENOENT (no handler), or the read's or decoder's
 * error. The message in hand when a pass ends is released. */
TARN_API int rtslib_async_event_process(rtslib_cookie *handle);

/* Sends one opaque message (operation op, tag, flags, len payload bytes)
 * and, when flags bit 0 is set, reads the reply into a new RTS_MSG_MAX-byte
 * buffer stored in *reply_out (free with rtslib_msg_free); *reply_out is NULL
 * otherwise and on failure. Returns 0, EINVAL, ENOMEM or the I/O error. */
TARN_API int rtslib_async_opaque_handle(rtslib_cookie *handle, uint8_t op, const void *data,
                                        uint32_t len, void **reply_out, uint8_t tag,
                                        uint16_t flags);

#define RTSLIB_ASYNC_OPAQUE_WANT_REPLY 0x1u

TARN_END_DECLS

#endif /* TARN_RTSLIB_ASYNC_H */
