// The fixture of the sweeps that need the kernel emulator: one emulator per
// suite, and rows that run on a handle of their own.
#ifndef TARN_TESTS_ALLOC_KERNEL_SWEEP_H
#define TARN_TESTS_ALLOC_KERNEL_SWEEP_H

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "quiet_sink.h"
#include "route_record.h"
#include "sweep.h"
#include <tarn/tarn.h>

namespace tarn::test::alloc {

inline constexpr uint8_t kPrefix[] = {10, 99, 0, 0};  // 10.99.0.0/16, added for the suite

class KernelSweep : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        emu_ = new KernelEmulator();
        ASSERT_TRUE(emu_->running()) << emu_->error();
        command(-1, "route-add 0 2 0a63 16 1 0");
    }
    static void TearDownTestSuite()
    {
        delete emu_;
        emu_ = nullptr;
    }

    // The row, with a fresh handle made before its setup and closed after
    // its cleanup, so that an answer left unread by a failed call cannot
    // confuse the next run.
    Row on_handle(Row row)
    {
        row.setup = [this, setup = row.setup] {
            sink_.clear();
            h_ = rtslib_open_set_liberr(0, &sink_, QuietSink::sink);
            ASSERT_NE(h_, nullptr);
            setup();
        };
        row.cleanup = [this, cleanup = row.cleanup] {
            cleanup();
            rtslib_close(h_);
            h_ = nullptr;
        };
        return row;
    }

    // A route record of this handle's sequence, waiting on its socket.
    void inject_route()
    {
        Route route(h_->seq);
        ASSERT_EQ(inject(h_->fd, route.encoded(h_, false)), 0);
    }

    inline static KernelEmulator *emu_ = nullptr;
    rtslib_cookie *h_ = nullptr;
    QuietSink sink_;
};

}  // namespace tarn::test::alloc

#endif  // TARN_TESTS_ALLOC_KERNEL_SWEEP_H
