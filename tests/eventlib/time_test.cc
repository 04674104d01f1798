#include <gtest/gtest.h>
#include <isc/eventlib.h>

namespace {

struct TimeCase {
  const char *what;
  timespec got;
  time_t sec;
  long nsec;
};

TEST(EventlibTime, ArithmeticNormalizesAndClamps) {
  const TimeCase cases[] = {
      {"cons carries nanoseconds", evConsTime(1, 1500000000L), 2, 500000000L},
      {"cons borrows negative nanoseconds", evConsTime(2, -1), 1, 999999999L},
      {"add carries", evAddTime(evConsTime(1, 600000000L), evConsTime(2, 700000000L)), 4, 300000000L},
      {"sub borrows", evSubTime(evConsTime(5, 100), evConsTime(2, 200)), 2, 999999900L},
      {"sub of equal times", evSubTime(evConsTime(5, 7), evConsTime(5, 7)), 0, 0},
      {"sub clamps a negative difference", evSubTime(evConsTime(1, 0), evConsTime(1, 1)), 0, 0},
      {"add folds stray operands", evAddTime(evConsTime(0, 0), timespec{1, 2100000000L}), 3, 100000000L},
      {"timespec from timeval", evTimeSpec(timeval{7, 123456}), 7, 123456000L},
      {"timespec from an unfolded timeval", evTimeSpec(timeval{1, 3000001}), 4, 1000L},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.got.tv_sec, c.sec) << c.what;
    EXPECT_EQ(c.got.tv_nsec, c.nsec) << c.what;
  }
  timeval tv = evTimeVal(evConsTime(9, 999999999L));
  EXPECT_EQ(tv.tv_sec, 9);
  EXPECT_EQ(tv.tv_usec, 999999);  // rounded down, never up into the next second
}

TEST(EventlibTime, CompareOrdersBySecondsThenNanoseconds) {
  struct {
    timespec a, b;
    int sign;
  } cases[] = {
      {evConsTime(1, 0), evConsTime(1, 0), 0},
      {evConsTime(1, 999), evConsTime(2, 0), -1},
      {evConsTime(2, 0), evConsTime(1, 999), 1},
      {evConsTime(3, 5), evConsTime(3, 6), -1},
  };
  for (const auto &c : cases) {
    int r = evCmpTime(c.a, c.b);
    EXPECT_EQ((r > 0) - (r < 0), c.sign) << c.a.tv_sec << "." << c.a.tv_nsec;
  }
}

TEST(EventlibTime, SystemClocksReadRealAndUpTime) {
  timespec before = evNowTime(), real{}, up{}, up2{};
  ASSERT_EQ(getsystimes(&real, &up), 0);
  EXPECT_GE(evCmpTime(real, before), 0);
  ASSERT_EQ(getsystimes(nullptr, &up2), 0);
  EXPECT_GE(evCmpTime(up2, up), 0);
  ASSERT_EQ(lw_getsystimes(&real, &up), 0);
  EXPECT_GT(real.tv_sec, 0);
  EXPECT_LT(up.tv_nsec, 1000000000L);
  EXPECT_EQ(lw_getsystimes(nullptr, nullptr), 0);
}

}  // namespace
