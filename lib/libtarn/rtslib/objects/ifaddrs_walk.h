// The interface-address list built from the kernel's interface table, apart
// from the sysctl that reads the table, so that the walk can be fed any bytes.
#ifndef LIBTARN_RTSLIB_OBJECTS_IFADDRS_WALK_H
#define LIBTARN_RTSLIB_OBJECTS_IFADDRS_WALK_H

#include <ifaddrs.h>

#include <cstddef>
#include <cstdint>

#include <tarn/rtslib.h>

namespace tarn {

// Decoding buffer of one message of the table.
inline constexpr uint32_t kIfaddrsDecodeSize = 8192;

// What an address filed under another interface than the one announced
// before it does: the kernel never interleaves interfaces, so the library
// ends the process; a fuzzer exploring the walk wants an error instead.
enum class Interleaved : uint8_t { abort, fail };

// Builds wrl_getifaddrs' list from `len` bytes of a kind-10 interface table;
// `h` decodes (and reports). 0 with *list_out (NULL when there is no IPv4
// address), or -1 with errno: EINVAL for a malformed table, ENOMEM.
int ifaddrs_from_table(rtslib_cookie *h, const uint8_t *table, size_t len, ifaddrs **list_out,
                       Interleaved interleaved = Interleaved::abort);

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_OBJECTS_IFADDRS_WALK_H
