// Steps of opening a handle, visible to the white-box tests.
#ifndef LIBTARN_RTSLIB_HANDLE_INTERNAL_H
#define LIBTARN_RTSLIB_HANDLE_INTERNAL_H

#include <tarn/rtslib.h>

namespace tarn {

// Reads the kernel's version block and checks it against the library's.
// Only the interface version is binding: 0, or -1 after a report (errno is
// ECONNREFUSED for an interface-version mismatch); EINVAL when the handle is
// null or was negotiated already.
int negotiate_versions(rtslib_cookie *handle);

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_HANDLE_INTERNAL_H
