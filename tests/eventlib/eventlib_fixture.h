// A context per test and a log that callbacks append to.
#ifndef TESTS_EVENTLIB_FIXTURE_H
#define TESTS_EVENTLIB_FIXTURE_H

#include <errno.h>
#include <gtest/gtest.h>
#include <isc/eventlib.h>

#include <string>
#include <vector>

class EventTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(evCreate(&ctx), 0); }
  void TearDown() override { EXPECT_EQ(evDestroy(ctx), 0); }

  // Fetches and dispatches until the log holds n entries; false if the
  // context runs dry or the (generous) step budget is spent first.
  bool run_until_logged(size_t n) {
    for (int step = 0; step < 10000 && log.size() < n; step++) {
      evEvent ev;
      if (evGetNext(ctx, &ev, EV_WAIT) < 0 || evDispatch(ctx, ev) < 0) return false;
    }
    return log.size() >= n;
  }

  // Result of one evGetNext(EV_POLL) + evDispatch: 0, or the errno it failed with.
  int poll_once() {
    evEvent ev;
    if (evGetNext(ctx, &ev, EV_POLL) < 0) return errno;
    return evDispatch(ctx, ev) < 0 ? errno : 0;
  }

  static timespec in_ms(long ms) { return evAddTime(evNowTime(), evConsTime(0, ms * 1000000L)); }
  static timespec ms(long n) { return evConsTime(0, n * 1000000L); }

  evContext ctx{};
  std::vector<std::string> log;
};

// uap of the logging callbacks: the test and the name to log.
struct Tag {
  EventTest *test;
  std::vector<std::string> *log;
  const char *name;
};

#endif
