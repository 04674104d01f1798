// An error sink for swept handles. It must not allocate: it runs inside the
// armed call, where an allocation of its own would be counted (or failed).
#ifndef TARN_TESTS_ALLOC_QUIET_SINK_H
#define TARN_TESTS_ALLOC_QUIET_SINK_H

#include <cstdio>

#include <tarn/rtslib.h>

namespace tarn::test::alloc {

struct QuietSink {
    int count = 0;
    int level = -1;
    char last[RTSLIB_ERR_MAX + 1] = {};

    static int sink(rtslib_cookie *, void *arg, int level, const char *text)
    {
        auto *self = static_cast<QuietSink *>(arg);
        ++self->count;
        self->level = level;
        std::snprintf(self->last, sizeof self->last, "%s", text);
        return 0;
    }
    void clear() { *this = QuietSink{}; }
};

}  // namespace tarn::test::alloc

#endif  // TARN_TESTS_ALLOC_QUIET_SINK_H
