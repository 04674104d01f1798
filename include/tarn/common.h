/*
 * libtarn - common definitions shared by every public header.
 *
 * Conventions for the whole C interface:
 *  - Ownership: the caller owns handles from open to close; buffers returned
 *    by the library are released with the call that the returning function
 *    names (rtslib_msg_free, rtslib_msg_idl_release, ...).
 *  - NULL: a null handle or required pointer is never dereferenced; calls that
 *    return a number give EINVAL for it, calls that return a pointer give NULL.
 *  - Errors: rtslib_ calls return 0 or an errno value and report through the
 *    handle's error sink; tarn_, ifl_ and if_ calls return -1 (or NULL) and
 *    set errno.
 *  - Threads: the library starts none and takes no locks; a handle belongs to
 *    the thread that runs its event loop.
 */
#ifndef TARN_COMMON_H
#define TARN_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TARN_BEGIN_DECLS extern "C" {
#define TARN_END_DECLS }
#else
#define TARN_BEGIN_DECLS
#define TARN_END_DECLS
#endif

#define TARN_API __attribute__((visibility("default")))
#define TARN_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

#endif /* TARN_COMMON_H */
