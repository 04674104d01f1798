// The test program's own malloc family: it forwards to the C library's and,
// while armed, fails one chosen allocation and remembers every block handed
// out, so that a sweep can tell what a call left behind. Every library in the
// process (libtarn, libqpipe, libeventlib, libev, zlib, zstd) allocates
// through it. Single-threaded use only.
#ifndef TARN_TESTS_ALLOC_FAILING_MALLOC_H
#define TARN_TESTS_ALLOC_FAILING_MALLOC_H

#include <cstddef>

namespace tarn::test::alloc {

// From now on the nth allocation (1 for the next one) returns NULL with errno
// ENOMEM; blocks allocated from now on are tracked until freed. 0 fails none.
void arm(unsigned nth);
// Stops failing and tracking new blocks (frees of tracked blocks still
// count). True when the armed failure happened.
bool disarm();
// Tracked blocks not freed yet.
size_t live();

}  // namespace tarn::test::alloc

#endif  // TARN_TESTS_ALLOC_FAILING_MALLOC_H
