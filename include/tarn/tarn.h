/*
 * libtarn - umbrella header: includes every public header.
 */
#ifndef TARN_TARN_H
#define TARN_TARN_H

#include <tarn/common.h>
#include <tarn/rtsock_wire.h>
#include <tarn/rtslib.h>
#include <tarn/rtslib_msg.h>
#include <tarn/patricia.h>
#include <tarn/itable.h>

#endif /* TARN_TARN_H */
