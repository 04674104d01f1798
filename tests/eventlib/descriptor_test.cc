#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "eventlib_fixture.h"

namespace {

struct Sel {
  std::vector<std::string> *log;
  std::string name;
  evFileID *to_deselect = nullptr;  // deselected by this callback
};

void log_file(evContext ctx, void *uap, int, int mask) {
  auto *s = static_cast<Sel *>(uap);
  s->log->push_back(s->name + ":" + std::to_string(mask));
  if (s->to_deselect != nullptr) {
    EXPECT_EQ(evDeselectFD(ctx, *s->to_deselect), 0);
    s->to_deselect = nullptr;
  }
}

class EventlibDescriptors : public EventTest {
 protected:
  void SetUp() override {
    EventTest::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  }
  void TearDown() override {
    EventTest::TearDown();
    close(sv[0]);
    close(sv[1]);
  }
  bool nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }
  int sv[2] = {-1, -1};
};

TEST_F(EventlibDescriptors, TwoSelectionsOnOneDescriptorSeeTheirOwnEvents) {
  Sel rd{&log, "rd"}, wr{&log, "wr"};
  evFileID rid, wid, other;
  ASSERT_EQ(evSelectFD(ctx, sv[0], EV_READ, log_file, &rd, &rid), 0);
  ASSERT_EQ(evSelectFD(ctx, sv[0], EV_WRITE, log_file, &wr, &wid), 0);
  EXPECT_EQ(evSelectFD(ctx, sv[0], EV_READ | EV_EXCEPT, log_file, &rd, &other), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(nonblocking(sv[0]));

  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(log, std::vector<std::string>{"wr:2"});
  ASSERT_EQ(evDeselectFD(ctx, wid), 0);
  EXPECT_EQ(evDeselectFD(ctx, wid), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(poll_once(), EWOULDBLOCK);  // nothing to read yet

  ASSERT_EQ(write(sv[1], "x", 1), 1);
  // A dropped event is not called; the descriptor is still ready, so it comes back.
  evEvent ev;
  ASSERT_EQ(evGetNext(ctx, &ev, EV_WAIT), 0);
  evDrop(ctx, ev);
  EXPECT_EQ(log.size(), 1u);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(log.back(), "rd:1");

  ASSERT_EQ(evDeselectFD(ctx, rid), 0);
  EXPECT_FALSE(nonblocking(sv[0]));  // its mode before the first selection
  EXPECT_EQ(evGetNext(ctx, &ev, EV_WAIT), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(EventlibDescriptors, DeselectingAReadySelectionWithdrawsItsEvent) {
  // Both ends are writable at once; whichever callback runs first removes
  // the other, whose already collected event must then never be delivered.
  evFileID a, b;
  Sel sa{&log, "a", &b}, sb{&log, "b", &a};
  ASSERT_EQ(evSelectFD(ctx, sv[0], EV_WRITE, log_file, &sa, &a), 0);
  ASSERT_EQ(evSelectFD(ctx, sv[1], EV_WRITE, log_file, &sb, &b), 0);
  EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(poll_once(), 0);
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], log[1]);  // only the survivor ever runs
}

TEST_F(EventlibDescriptors, RejectsBadArguments) {
  Sel s{&log, "s"};
  evFileID id;
  EXPECT_EQ(evSelectFD(ctx, sv[0], 0, log_file, &s, &id), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(evSelectFD(ctx, sv[0], 8, log_file, &s, &id), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(evSelectFD(ctx, 1000000, EV_READ, log_file, &s, &id), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(evSelectFD(evContext{}, sv[0], EV_READ, log_file, &s, &id), -1);
  EXPECT_EQ(errno, EINVAL);
  evEvent ev;
  EXPECT_EQ(evGetNext(ctx, &ev, EV_WAIT | EV_POLL), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(evGetNext(ctx, &ev, 0), -1);
  EXPECT_EQ(errno, EINVAL);
}

struct WaitLog {
  std::vector<std::string> *log;
  std::string name;
};

void log_wait(evContext, void *uap, const void *) {
  auto *w = static_cast<WaitLog *>(uap);
  w->log->push_back(w->name);
}

TEST_F(EventlibDescriptors, FinishedWaitsComeFirstInOrderAndOnce) {
  int tag1 = 0, tag2 = 0;
  WaitLog w1{&log, "w1"}, w2{&log, "w2"}, w3{&log, "w3"}, w4{&log, "w4"}, d{&log, "defer"};
  Sel rd{&log, "rd"};
  evWaitID id1, id2, id3;
  ASSERT_EQ(evWaitFor(ctx, &tag1, log_wait, &w1, &id1), 0);
  ASSERT_EQ(evWaitFor(ctx, &tag2, log_wait, &w2, &id2), 0);
  ASSERT_EQ(evWaitFor(ctx, &tag1, log_wait, &w3, &id3), 0);
  ASSERT_EQ(evWaitFor(ctx, &tag1, log_wait, &w4, nullptr), 0);
  ASSERT_EQ(evUnwait(ctx, id3), 0);
  ASSERT_EQ(write(sv[1], "x", 1), 1);
  ASSERT_EQ(evSelectFD(ctx, sv[0], EV_READ, log_file, &rd, nullptr), 0);

  EXPECT_EQ(evDo(ctx, &tag1), 0);
  EXPECT_EQ(evDo(ctx, &log), -1);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(evDefer(ctx, log_wait, &d), 0);
  ASSERT_EQ(evDo(ctx, &tag2), 0);
  ASSERT_EQ(evUnwait(ctx, id2), 0);  // finished but not yet dispatched: withdrawn
  for (int i = 0; i < 4; i++) EXPECT_EQ(poll_once(), 0);
  EXPECT_EQ(log, (std::vector<std::string>{"w1", "w4", "defer", "rd:1"}));
  EXPECT_EQ(evUnwait(ctx, id1), -1);  // over once dispatched
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(evDo(ctx, &tag1), -1);
}

struct Urgent {
  std::vector<std::string> *log;
  evFileID id;
};

void take_urgent(evContext ctx, void *uap, int fd, int mask) {
  auto *u = static_cast<Urgent *>(uap);
  char c = 0;
  EXPECT_EQ(recv(fd, &c, 1, MSG_OOB), 1);
  u->log->push_back(std::to_string(mask) + c);
  EXPECT_EQ(evDeselectFD(ctx, u->id), 0);
}

TEST_F(EventlibDescriptors, ExceptReportsOutOfBandData) {
  int lfd = socket(AF_INET, SOCK_STREAM, 0), cfd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  ASSERT_EQ(listen(lfd, 1), 0);
  ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr *>(&a), &len), 0);
  ASSERT_EQ(connect(cfd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  int sfd = accept(lfd, nullptr, nullptr);
  ASSERT_GE(sfd, 0);
  Urgent u{&log, {}};
  ASSERT_EQ(evSelectFD(ctx, sfd, EV_EXCEPT, take_urgent, &u, &u.id), 0);
  EXPECT_EQ(poll_once(), EWOULDBLOCK);
  ASSERT_EQ(send(cfd, "!", 1, MSG_OOB), 1);
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(log, std::vector<std::string>{"4!"});
  for (int fd : {lfd, cfd, sfd}) close(fd);
}

struct Racer {
  std::vector<std::string> *log;
  std::string name;
  evFileID id;
  const void *tag;
  bool *fired_tag;
};

void race(evContext ctx, void *uap, int, int) {
  auto *r = static_cast<Racer *>(uap);
  r->log->push_back(r->name);
  if (!*r->fired_tag) {
    *r->fired_tag = true;
    EXPECT_EQ(evDo(ctx, r->tag), 0);
  }
  EXPECT_EQ(evDeselectFD(ctx, r->id), 0);
}

TEST_F(EventlibDescriptors, AWaitFinishedByACallbackOvertakesCollectedEvents) {
  int tag = 0;
  bool fired = false;
  WaitLog w{&log, "wait"};
  Racer r0{&log, "fd", {}, &tag, &fired}, r1{&log, "fd", {}, &tag, &fired};
  ASSERT_EQ(evWaitFor(ctx, &tag, log_wait, &w, nullptr), 0);
  ASSERT_EQ(evSelectFD(ctx, sv[0], EV_WRITE, race, &r0, &r0.id), 0);
  ASSERT_EQ(evSelectFD(ctx, sv[1], EV_WRITE, race, &r1, &r1.id), 0);
  errno = 0;
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log, (std::vector<std::string>{"fd", "wait", "fd"}));
}

}  // namespace
