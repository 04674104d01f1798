#include <string>

#include "eventlib_fixture.h"

namespace {

struct TimerLog {
  std::vector<std::string> names;
  std::vector<timespec> dues;
};

struct Named {
  TimerLog *log;
  std::string name;
  int clear_after = 0;  // a periodic timer clears itself on this call
  evTimerID id{};
  int calls = 0;
};

void log_timer(evContext ctx, void *uap, timespec due, timespec) {
  auto *n = static_cast<Named *>(uap);
  n->log->names.push_back(n->name);
  n->log->dues.push_back(due);
  if (++n->calls == n->clear_after) { EXPECT_EQ(evClearTimer(ctx, n->id), 0); }
}

using EventlibTimers = EventTest;

TEST_F(EventlibTimers, OneShotsFireInDueOrderAndPeriodicClearsItself) {
  TimerLog tl;
  Named late{&tl, "late"}, early{&tl, "early"}, mid{&tl, "mid"};
  // Both already due when first polled: they expire in one round and must
  // still come out earliest first.
  Named past2{&tl, "past2"}, past1{&tl, "past1"};
  Named tick{&tl, "tick", 3};
  timespec now = evNowTime();
  ASSERT_EQ(evSetTimer(ctx, log_timer, &late, in_ms(60), {}, nullptr), 0);
  ASSERT_EQ(evSetTimer(ctx, log_timer, &early, in_ms(20), {}, nullptr), 0);
  ASSERT_EQ(evSetTimer(ctx, log_timer, &mid, in_ms(40), {}, nullptr), 0);
  ASSERT_EQ(evSetTimer(ctx, log_timer, &past1, evSubTime(now, evConsTime(1, 0)), {}, nullptr), 0);
  ASSERT_EQ(evSetTimer(ctx, log_timer, &past2, evSubTime(now, evConsTime(2, 0)), {}, nullptr), 0);
  ASSERT_EQ(evSetTimer(ctx, log_timer, &tick, in_ms(70), ms(5), &tick.id), 0);
  errno = 0;
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(errno, ENOENT);  // every one-shot is over and the periodic one is cleared
  EXPECT_EQ(tl.names, (std::vector<std::string>{"past2", "past1", "early", "mid", "late", "tick",
                                                "tick", "tick"}));
  EXPECT_EQ(evClearTimer(ctx, tick.id), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(EventlibTimers, ResetAndRateModeSetTheNextDue) {
  TimerLog tl;
  Named first{&tl, "first"}, second{&tl, "second"};
  evTimerID id;
  ASSERT_EQ(evSetTimer(ctx, log_timer, &first, evConsTime(evNowTime().tv_sec + 3600, 0), {}, &id), 0);
  timespec due = in_ms(5);
  ASSERT_EQ(evResetTimer(ctx, id, log_timer, &second, due, {}), 0);
  evEvent ev;
  ASSERT_EQ(evGetNext(ctx, &ev, EV_WAIT), 0);
  ASSERT_EQ(evDispatch(ctx, ev), 0);
  ASSERT_EQ(tl.names, std::vector<std::string>{"second"});
  EXPECT_EQ(evCmpTime(tl.dues[0], due), 0);
  EXPECT_EQ(evResetTimer(ctx, id, log_timer, &second, due, {}), -1);  // a fired one-shot is over
  EXPECT_EQ(errno, ENOENT);

  // Rate mode: each due is the previous one plus the interval, exactly.
  Named rate{&tl, "rate", 3};
  timespec start = in_ms(1);
  ASSERT_EQ(evSetTimer(ctx, log_timer, &rate, start, ms(3), &rate.id), 0);
  ASSERT_EQ(evConfigTimer(ctx, rate.id, "rate", 1), 0);
  EXPECT_EQ(evConfigTimer(ctx, rate.id, "burst", 1), -1);
  EXPECT_EQ(evMainLoop(ctx), -1);
  ASSERT_EQ(tl.dues.size(), 4u);
  EXPECT_EQ(evCmpTime(tl.dues[1], start), 0);
  EXPECT_EQ(evCmpTime(tl.dues[3], evAddTime(start, ms(6))), 0);
}

struct Rearm {
  int calls = 0;
  evTimerID id{};
};

void rearm_once(evContext ctx, void *uap, timespec, timespec) {
  auto *r = static_cast<Rearm *>(uap);
  if (++r->calls == 1) { EXPECT_EQ(evResetTimer(ctx, r->id, rearm_once, r, evConsTime(0, 0), {}), 0); }
}

TEST_F(EventlibTimers, OneShotResetFromItsOwnCallbackFiresAgain) {
  Rearm r;
  ASSERT_EQ(evSetTimer(ctx, rearm_once, &r, evConsTime(0, 0), {}, &r.id), 0);
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(r.calls, 2);
}

struct IdleState {
  evTimerID idle{}, tick{};
  std::vector<std::string> log;
  int ticks = 0;
};

timespec ms(long n) { return evConsTime(0, n * 1000000L); }

void idle_fired(evContext ctx, void *uap, timespec, timespec inter) {
  auto *s = static_cast<IdleState *>(uap);
  s->log.push_back("idle");
  EXPECT_EQ(evCmpTime(inter, ms(50)), 0);
  if (s->log.size() >= 22) { EXPECT_EQ(evClearIdleTimer(ctx, s->idle), 0); }
}

void busy_tick(evContext ctx, void *uap, timespec, timespec) {
  auto *s = static_cast<IdleState *>(uap);
  s->log.push_back("tick");
  EXPECT_EQ(evTouchIdleTimer(ctx, s->idle), 0);
  if (++s->ticks == 20) { EXPECT_EQ(evClearTimer(ctx, s->tick), 0); }
}

TEST_F(EventlibTimers, IdleTimerWaitsForInactivityAndRepeats) {
  IdleState s;
  // Touched every 5 ms for 100 ms, so well past its first deadline.
  ASSERT_EQ(evSetIdleTimer(ctx, idle_fired, &s, ms(50), &s.idle), 0);
  ASSERT_EQ(evSetTimer(ctx, busy_tick, &s, in_ms(5), ms(5), &s.tick), 0);
  EXPECT_EQ(evTouchIdleTimer(ctx, s.tick), -1);  // not an idle timer
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(evMainLoop(ctx), -1);
  std::vector<std::string> want(20, "tick");
  want.insert(want.end(), {"idle", "idle"});
  EXPECT_EQ(s.log, want);
}

}  // namespace
