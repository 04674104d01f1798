#include "sweep.h"

#include <algorithm>
#include <cstdio>

#include <gtest/gtest.h>

#include "failing_malloc.h"

namespace tarn::test::alloc {
namespace {

// Far more than any call here makes; reaching it means the sweep never ends.
constexpr unsigned kMaxFailurePoints = 400;

struct Totals {
    unsigned rows = 0;
    unsigned failure_points = 0;
    ~Totals()
    {
        std::printf("allocation sweep: %u entry points, %u failure points\n", rows,
                    failure_points);
    }
};

Totals totals;

int run(const Row &row, unsigned nth, bool *hit)
{
    row.setup();
    arm(nth);
    int rc = row.call();
    *hit = disarm();
    return rc;
}

void cleanup_without_leaks(const Row &row, unsigned nth)
{
    row.cleanup();
    EXPECT_LE(live(), row.kept) << row.name << ": blocks left after failing allocation " << nth
                          << " (0: none failed)";
}

// The run with no failure comes first, so that whatever the call sets up
// once per process (a shared handle, a lazily made table of the C library)
// is there before the failures start.
bool warm_up(const Row &row)
{
    bool hit = false;
    int rc = run(row, 0, &hit);
    EXPECT_EQ(rc, 0) << row.name << " fails with no allocation failing";
    if (rc == 0) {
        EXPECT_EQ(row.check(), 0) << row.name << ": wrong result";
    }
    row.cleanup();
    return rc == 0;
}

}  // namespace

void sweep(const std::vector<Row> &rows)
{
    for (const Row &row : rows) {
        if (!warm_up(row))
            continue;
        unsigned nth = 1;
        for (; nth <= kMaxFailurePoints; ++nth) {
            bool hit = false;
            int rc = run(row, nth, &hit);
            if (!hit) {
                EXPECT_EQ(rc, 0) << row.name << " fails with no allocation failing";
                if (rc == 0) {
                    EXPECT_EQ(row.check(), 0) << row.name << ": wrong result";
                }
                cleanup_without_leaks(row, 0);
                break;
            }
            const auto &ok = row.failure;
            EXPECT_TRUE(std::find(ok.begin(), ok.end(), rc) != ok.end())
                << row.name << " gives " << rc << " when allocation " << nth << " fails";
            // A call that gets by without the failed block must still be right.
            if (rc == 0) {
                EXPECT_EQ(row.check(), 0) << row.name << ": wrong result after allocation "
                                          << nth << " failed";
            }
            cleanup_without_leaks(row, nth);
        }
        EXPECT_LE(nth, kMaxFailurePoints) << row.name;
        EXPECT_GE(nth, 2u) << row.name << " allocates nothing: not a row for this sweep";
        ++totals.rows;
        totals.failure_points += nth - 1;
        std::printf("  %-44s %u failure points\n", row.name.c_str(), nth - 1);
    }
}

}  // namespace tarn::test::alloc
