#include <signal.h>

#include "eventlib_fixture.h"

namespace {

struct LoopState {
  std::vector<std::string> log;
  evContext other{};
  evTimerID tick{};
  int ticks = 0;
  int break_at = 0;  // evBreak on this tick
  int syncs = 0;
};

void tick(evContext ctx, void *uap, timespec, timespec) {
  auto *s = static_cast<LoopState *>(uap);
  s->log.push_back("tick");
  if (++s->ticks == s->break_at) { EXPECT_EQ(evBreak(ctx), 0); }
  EXPECT_EQ(evDestroy(ctx), -1);  // not from inside its own callbacks
  EXPECT_EQ(errno, EBUSY);
}

void sync_handler(evContext ctx, void *uap) {
  auto *s = static_cast<LoopState *>(uap);
  s->log.push_back("sync");
  if (++s->syncs == 2) { EXPECT_EQ(evResetSyncHandler(ctx), 0); }
}

using EventlibLoops = EventTest;

TEST_F(EventlibLoops, BreakEndsTheLoopWithTimersLeftAndSyncHandlerFollowsEachEvent) {
  LoopState s;
  s.break_at = 2;
  ASSERT_EQ(evSetTimer(ctx, tick, &s, evConsTime(0, 0), ms(1), &s.tick), 0);
  EXPECT_EQ(evMainLoop(ctx), 0);
  EXPECT_EQ(s.log, (std::vector<std::string>{"tick", "tick"}));

  // The break was for that run only; the sync loop runs the handler after
  // every event until the handler resets itself.
  s.log.clear();
  s.break_at = 5;
  ASSERT_EQ(evSetSyncHandler(ctx, sync_handler, &s), 0);
  EXPECT_EQ(evMainLoop(ctx), 0);  // the plain loop never calls it
  EXPECT_EQ(s.log, (std::vector<std::string>{"tick", "tick", "tick"}));
  s.log.clear();
  s.break_at = 9;
  ASSERT_EQ(evSetSyncHandler(ctx, sync_handler, &s), 0);
  EXPECT_EQ(evMainLoopSync(ctx), 0);
  EXPECT_EQ(s.log, (std::vector<std::string>{"tick", "sync", "tick", "sync", "tick", "tick"}));
}

void note_signal(evContext ctx, void *uap, int sig) {
  auto *s = static_cast<LoopState *>(uap);
  s->log.push_back("sig" + std::to_string(sig == SIGUSR1));
  EXPECT_EQ(evBreak(ctx), 0);
}

void raise_from_timer(evContext, void *uap, timespec, timespec) {
  auto *s = static_cast<LoopState *>(uap);
  s->log.push_back("raise");
  // The same signal in another running context is refused.
  EXPECT_EQ(evSetSigHandler(s->other, SIGUSR1, note_signal, s), 0);
  EXPECT_EQ(evMainLoopSyncSighdl(s->other), -1);
  EXPECT_EQ(errno, EBUSY);
  raise(SIGUSR1);
  s->log.push_back("raised");
}

volatile sig_atomic_t g_outside_hits = 0;
void outside_handler(int) { g_outside_hits = g_outside_hits + 1; }

TEST_F(EventlibLoops, SighdlLoopDeliversSignalsFromTheLoopAndRestoresActions) {
  g_outside_hits = 0;
  struct sigaction before {}, after {};
  before.sa_handler = outside_handler;
  sigemptyset(&before.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);

  LoopState s;
  ASSERT_EQ(evCreate(&s.other), 0);
  ASSERT_EQ(evSetSigHandler(ctx, SIGUSR1, note_signal, &s), 0);
  EXPECT_EQ(evSetSigHandler(ctx, SIGKILL, note_signal, &s), -1);
  ASSERT_EQ(evSetTimer(ctx, raise_from_timer, &s, evConsTime(0, 0), {}, nullptr), 0);
  ASSERT_EQ(evSetSyncHandler(ctx, sync_handler, &s), 0);
  EXPECT_EQ(evMainLoopSyncSighdl(ctx), 0);
  EXPECT_EQ(s.log, (std::vector<std::string>{"raise", "raised", "sync", "sig1", "sync"}));
  EXPECT_EQ(g_outside_hits, 0);

  ASSERT_EQ(sigaction(SIGUSR1, nullptr, &after), 0);
  EXPECT_EQ(after.sa_handler, outside_handler);
  raise(SIGUSR1);  // outside the loop the table is not in force
  EXPECT_EQ(g_outside_hits, 1);
  evEvent ev;
  EXPECT_EQ(evGetNext(ctx, &ev, EV_POLL), -1);
  EXPECT_EQ(evDestroy(s.other), 0);
  signal(SIGUSR1, SIG_DFL);
}

TEST_F(EventlibLoops, NullOptionStillEndsAndDeliversRealEvents) {
  evEvent ev;
  EXPECT_EQ(evGetNext(ctx, &ev, EV_WAIT | EV_NULL), -1);  // nothing left at all
  EXPECT_EQ(errno, ENOENT);
  LoopState s;
  ASSERT_EQ(evSetTimer(ctx, tick, &s, evConsTime(0, 0), {}, nullptr), 0);
  ASSERT_EQ(evGetNext(ctx, &ev, EV_WAIT | EV_NULL), 0);
  ASSERT_EQ(evDispatch(ctx, ev), 0);
  EXPECT_EQ(s.ticks, 1);
}

}  // namespace
