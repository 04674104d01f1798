// Allocation failures in the event library (and, through it, libev) and in
// libqpipe.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sweep.h"
#include <isc/eventlib.h>
#include <qpipe/ipc_pipe.h>

namespace {

using tarn::test::alloc::code_of;
using tarn::test::alloc::Row;
using tarn::test::alloc::sweep;
using tarn::test::alloc::wrong_unless;

// A failure inside libev, under a watcher start, is absorbed by the event
// library's reserve: the call succeeds (and must be right).
const std::vector<int> kAbsorbed = {ENOMEM, 0};

void on_file(evContext, void *, int, int) {}
void on_timer(evContext, void *, struct timespec, struct timespec) {}
void on_wait(evContext, void *, const void *) {}
void on_conn(evContext, void *, int, const void *, int, const void *, int) {}
void on_stream(evContext, void *, int, int) {}

// A stream socket bound to an abstract name of the kernel's choosing and
// listening; its address goes to *at.
int bound_listener(sockaddr_un *at, socklen_t *at_len)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un any{};
    any.sun_family = AF_UNIX;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any.sun_family), 0);
    EXPECT_EQ(listen(fd, 4), 0);
    *at_len = sizeof *at;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(at), at_len), 0);
    return fd;
}

class LoopSweep : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_), 0); }
    void TearDown() override
    {
        close(pair_[0]);
        close(pair_[1]);
    }

    // The row, with a fresh context made before its setup and destroyed
    // after its cleanup.
    Row in_context(Row row)
    {
        row.setup = [this, setup = row.setup] {
            ASSERT_EQ(evCreate(&ctx_), 0);
            setup();
        };
        row.cleanup = [this, cleanup = row.cleanup] {
            cleanup();
            evDestroy(ctx_);
        };
        return row;
    }

    int pair_[2] = {-1, -1};
    evContext ctx_{};
};

TEST_F(LoopSweep, EventLibrary)
{
    evContext made{};
    evFileID file{};
    evTimerID timer{};
    evWaitID wait{};
    evConnID conn{};
    evStreamID stream{};
    char text[] = "sweep";
    struct iovec iov[2] = {{text, 2}, {text + 2, 3}};
    int listener = -1;
    int client = -1;
    sockaddr_un there{};
    socklen_t there_len = 0;
    const struct timespec soon = evAddTime(evNowTime(), evConsTime(60, 0));
    sweep({
        {.name = "evCreate",
         .call = [&] { return code_of(evCreate(&made)); },
         .check = [&] { return wrong_unless(made.opaque != nullptr); },
         .failure = {ENOMEM},
         .cleanup = [&] { if (made.opaque != nullptr) evDestroy(made); made = {}; }},
        in_context({.name = "evSelectFD",
                    .call = [&] { return code_of(evSelectFD(ctx_, pair_[0], EV_READ, on_file, nullptr, &file)); },
                    .failure = kAbsorbed}),
        in_context({.name = "evSetTimer",
                    .call = [&] { return code_of(evSetTimer(ctx_, on_timer, nullptr, soon, evConsTime(0, 0), &timer)); },
                    .failure = kAbsorbed}),
        in_context({.name = "evSetIdleTimer",
                    .call = [&] { return code_of(evSetIdleTimer(ctx_, on_timer, nullptr, evConsTime(60, 0), &timer)); },
                    .failure = kAbsorbed}),
        in_context({.name = "evWaitFor",
                    .call = [&] { return code_of(evWaitFor(ctx_, text, on_wait, nullptr, &wait)); },
                    .failure = {ENOMEM}}),
        in_context({.name = "evDefer",
                    .call = [&] { return code_of(evDefer(ctx_, on_wait, nullptr)); },
                    .failure = {ENOMEM}}),
        in_context({.name = "evWrite",
                    .call = [&] { return code_of(evWrite(ctx_, pair_[0], iov, 2, on_stream, nullptr, &stream)); },
                    .failure = kAbsorbed}),
        in_context({.name = "evRead",
                    .call = [&] { return code_of(evRead(ctx_, pair_[1], iov, 2, on_stream, nullptr, &stream)); },
                    .failure = kAbsorbed}),
        in_context({.name = "evConnect",
                    .setup =
                        [&] {
                            listener = bound_listener(&there, &there_len);
                            client = socket(AF_UNIX, SOCK_STREAM, 0);
                        },
                    .call = [&] { return code_of(evConnect(ctx_, client, &there, there_len, on_conn, nullptr, &conn)); },
                    .failure = kAbsorbed,
                    .cleanup = [&] { close(client); close(listener); }}),
        in_context({.name = "evListen",
                    .setup = [&] { listener = bound_listener(&there, &there_len); },
                    .call = [&] { return code_of(evListen(ctx_, listener, 4, on_conn, nullptr, &conn)); },
                    .failure = kAbsorbed,
                    .cleanup = [&] { close(listener); }}),
    });
}

TEST_F(LoopSweep, Pipe)
{
    ipc_pipe_t *pipe = nullptr;
    sweep({
        {.name = "ipc_pipe_create",
         .call = [&] { return code_of(pipe = ipc_pipe_create(8192)); },
         .check = [&] { return wrong_unless(ipc_pipe_write_pending(pipe) == 0); },
         .failure = {ENOMEM},
         .cleanup = [&] { ipc_pipe_destroy(pipe); pipe = nullptr; }},
    });
}

}  // namespace
