// Time arithmetic and the daemons' clock.
#include <time.h>

#include "eventlib/core.h"

namespace {

constexpr long kBillion = 1000000000L;

// Folds any nanosecond count into 0..999999999, carrying into seconds.
struct timespec normalized(time_t sec, long nsec) {
  sec += nsec / kBillion;
  nsec %= kBillion;
  if (nsec < 0) {
    nsec += kBillion;
    sec--;
  }
  struct timespec t;
  t.tv_sec = sec;
  t.tv_nsec = nsec;
  return t;
}

int read_clocks(clockid_t real_clock, clockid_t up_clock, struct timespec *realtime,
                struct timespec *uptime) {
  if (realtime != nullptr && clock_gettime(real_clock, realtime) < 0) return -1;
  if (uptime != nullptr && clock_gettime(up_clock, uptime) < 0) return -1;
  return 0;
}

}  // namespace

extern "C" {

struct timespec evConsTime(time_t sec, long nsec) { return normalized(sec, nsec); }

// Operands are folded first: a caller's stray nanosecond count must not
// overflow a 32-bit long on the way.
struct timespec evAddTime(struct timespec addend1, struct timespec addend2) {
  struct timespec a = normalized(addend1.tv_sec, addend1.tv_nsec);
  struct timespec b = normalized(addend2.tv_sec, addend2.tv_nsec);
  return normalized(a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec);
}

struct timespec evSubTime(struct timespec minuend, struct timespec subtrahend) {
  struct timespec a = normalized(minuend.tv_sec, minuend.tv_nsec);
  struct timespec b = normalized(subtrahend.tv_sec, subtrahend.tv_nsec);
  if (evCmpTime(a, b) <= 0) return evConsTime(0, 0);
  return normalized(a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec);
}

int evCmpTime(struct timespec a, struct timespec b) {
  if (a.tv_sec != b.tv_sec) return a.tv_sec < b.tv_sec ? -1 : 1;
  if (a.tv_nsec != b.tv_nsec) return a.tv_nsec < b.tv_nsec ? -1 : 1;
  return 0;
}

struct timespec evNowTime(void) {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  return t;
}

struct timespec evTimeSpec(struct timeval tv) {
  long usec = static_cast<long>(tv.tv_usec);
  return normalized(tv.tv_sec + usec / 1000000L, (usec % 1000000L) * 1000L);
}

struct timeval evTimeVal(struct timespec ts) {
  struct timespec t = normalized(ts.tv_sec, ts.tv_nsec);
  struct timeval tv;
  tv.tv_sec = t.tv_sec;
  tv.tv_usec = static_cast<suseconds_t>(t.tv_nsec / 1000L);
  return tv;
}

int getsystimes(struct timespec *realtime, struct timespec *uptime) {
  return read_clocks(CLOCK_REALTIME, CLOCK_MONOTONIC, realtime, uptime);
}

int lw_getsystimes(struct timespec *realtime, struct timespec *uptime) {
#if defined(CLOCK_REALTIME_COARSE) && defined(CLOCK_MONOTONIC_COARSE)
  return read_clocks(CLOCK_REALTIME_COARSE, CLOCK_MONOTONIC_COARSE, realtime, uptime);
#else
  return getsystimes(realtime, uptime);
#endif
}

}  // extern "C"
