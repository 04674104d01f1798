#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "eventlib_fixture.h"

namespace {

struct Ends {
  int listener_got = -1, connector_got = -1;
  int connect_errno = 0;
  bool nonblocking_in_callback = true;
  int done_bytes = -2, done_errno = 0, done_calls = 0;
};

void on_accept(evContext, void *uap, int fd, const void *, int, const void *ra, int ralen) {
  auto *e = static_cast<Ends *>(uap);
  e->listener_got = fd;
  EXPECT_NE(ra, nullptr);
  EXPECT_GT(ralen, 0);
}

void on_connect(evContext, void *uap, int fd, const void *, int, const void *, int) {
  auto *e = static_cast<Ends *>(uap);
  e->connector_got = fd;
  e->connect_errno = fd < 0 ? errno : 0;
  if (fd >= 0) e->nonblocking_in_callback = (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

void on_done(evContext, void *uap, int, int bytes) {
  auto *e = static_cast<Ends *>(uap);
  e->done_bytes = bytes;
  e->done_errno = bytes < 0 ? errno : 0;
  e->done_calls++;
}

class EventlibStreams : public EventTest {
 protected:
  void SetUp() override {
    EventTest::SetUp();
    char tmpl[] = "/tmp/eventlib-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s/sock", tmpl);
  }
  void TearDown() override {
    EventTest::TearDown();
    for (int fd : fds) close(fd);
    unlink(addr.sun_path);
    rmdir(dir.c_str());
  }
  int stream_socket() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    fds.push_back(fd);
    return fd;
  }
  int bound_socket() {
    int fd = stream_socket();
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    return fd;
  }
  // Runs until pred holds; false if the context runs dry first.
  template <class Pred>
  bool run_until(Pred pred) {
    for (int step = 0; step < 100000 && !pred(); step++) {
      evEvent ev;
      if (evGetNext(ctx, &ev, EV_WAIT) < 0 || evDispatch(ctx, ev) < 0) return false;
    }
    return pred();
  }
  std::string dir;
  sockaddr_un addr{};
  std::vector<int> fds;
};

TEST_F(EventlibStreams, ListenConnectThenMoveBuffersAcrossIovecs) {
  Ends e;
  int lfd = bound_socket();
  evConnID lid;
  ASSERT_EQ(evListen(ctx, lfd, 4, on_accept, &e, &lid), 0);
  int cfd = stream_socket();
  ASSERT_EQ(evConnect(ctx, cfd, &addr, sizeof addr, on_connect, &e, nullptr), 0);
  ASSERT_TRUE(run_until([&] { return e.listener_got >= 0 && e.connector_got >= 0; }));
  fds.push_back(e.listener_got);
  EXPECT_EQ(e.connector_got, cfd);
  EXPECT_FALSE(e.nonblocking_in_callback);  // handed back blocking, as it came
  ASSERT_EQ(evCancelConn(ctx, lid), 0);

  // Far more than a socket buffer holds, so both sides go round many times
  // and resume in the middle of an iovec.
  const size_t kSize = 3u << 20;
  std::vector<char> out(kSize), in(kSize + 7);
  for (size_t i = 0; i < kSize; i++) out[i] = static_cast<char>(i * 7 + i / 4096);
  iovec wv[3] = {{out.data(), 1}, {out.data() + 1, kSize / 2}, {out.data() + 1 + kSize / 2, kSize - 1 - kSize / 2}};
  iovec rv[2] = {{in.data(), 1000}, {in.data() + 1000, kSize - 1000}};
  Ends w, r;
  ASSERT_EQ(evWrite(ctx, cfd, wv, 3, on_done, &w, nullptr), 0);
  ASSERT_EQ(evRead(ctx, e.listener_got, rv, 2, on_done, &r, nullptr), 0);
  errno = 0;
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(w.done_bytes, static_cast<int>(kSize));
  EXPECT_EQ(r.done_bytes, static_cast<int>(kSize));
  EXPECT_EQ(w.done_calls + r.done_calls, 2);
  EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin()));

  // End of file ends a read early with what arrived.
  ASSERT_EQ(write(cfd, "abc", 3), 3);
  shutdown(cfd, SHUT_WR);
  iovec tail = {in.data(), 100};
  ASSERT_EQ(evRead(ctx, e.listener_got, &tail, 1, on_done, &r, nullptr), 0);
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(r.done_bytes, 3);
  EXPECT_EQ(r.done_calls, 2);
}

TEST_F(EventlibStreams, CancelledReadAndFailedConnectCallNothing) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  fds.insert(fds.end(), {sv[0], sv[1]});
  Ends r;
  char buf[4];
  iovec v = {buf, sizeof buf};
  evStreamID id;
  ASSERT_EQ(evRead(ctx, sv[0], &v, 1, on_done, &r, &id), 0);
  ASSERT_EQ(write(sv[1], "data", 4), 4);
  ASSERT_EQ(evCancelRW(ctx, id), 0);
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(r.done_calls, 0);
  EXPECT_EQ(evCancelRW(ctx, id), -1);
  EXPECT_EQ(evRead(ctx, sv[0], &v, 0, on_done, &r, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);

  bound_socket();  // bound, not listening: refused at once
  Ends c;
  EXPECT_EQ(evConnect(ctx, stream_socket(), &addr, sizeof addr, on_connect, &c, nullptr), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(c.connector_got, -1);
  EXPECT_EQ(c.connect_errno, 0);
}

TEST_F(EventlibStreams, WriteToAClosedPeerReportsTheError) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  fds.push_back(sv[0]);
  close(sv[1]);
  signal(SIGPIPE, SIG_IGN);
  Ends w;
  char buf[16] = {};
  iovec v = {buf, sizeof buf};
  ASSERT_EQ(evWrite(ctx, sv[0], &v, 1, on_done, &w, nullptr), 0);
  EXPECT_EQ(evMainLoop(ctx), -1);
  EXPECT_EQ(w.done_bytes, -1);
  EXPECT_EQ(w.done_errno, EPIPE);
}

}  // namespace
