#include "libtarn/util/tarn_assert.h"

#include <cstdio>
#include <cstdlib>

extern "C" void tarn_assert_fail(const char *func, const char *source, int line, const char *expr)
{
    std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expr, func,
                 source, line);
    std::fflush(stderr);
    std::abort();
}
