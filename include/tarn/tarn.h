/*
 * libtarn - umbrella header: includes every public header.
 */
#ifndef TARN_TARN_H
#define TARN_TARN_H

#include <tarn/common.h>
#include <tarn/rtsock_wire.h>
#include <tarn/rtslib.h>
#include <tarn/idl_codec.h>
#include <tarn/idl_records.h>
#include <tarn/idl.h>
#include <tarn/rtslib_msg.h>
#include <tarn/patricia.h>
#include <tarn/itable.h>
#include <tarn/rtslib_route.h>
#include <tarn/rtslib_if.h>
#include <tarn/rtslib_ifstate.h>
#include <tarn/rtslib_async.h>
#include <tarn/rtslib_gencfg.h>
#include <tarn/tarn_lsping.h>
#include <tarn/tarn_lsping_query.h>
#include <tarn/idl_types.h>
#include <tarn/rtslib_format.h>
#include <tarn/tarn_client.h>

#endif /* TARN_TARN_H */
