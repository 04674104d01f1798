// The pipe over real socketpairs: framing of arbitrary splits, partial writes
// with their tails, closing and oversized headers.
#include <qpipe/ipc_pipe.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string frame(uint16_t type, const std::string &payload)
{
    ipc_msg_t h{};
    h.type = type;
    h.length = static_cast<uint16_t>(payload.size());
    return std::string(reinterpret_cast<const char *>(&h), IPC_MSG_HDR_LEN) + payload;
}

struct Pair {
    int a = -1, b = -1;  // the pipe sits on a; the test plays the peer on b
    ipc_pipe_t *pipe = nullptr;
    explicit Pair(size_t bufsize = 64)
    {
        int sv[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        a = sv[0];
        b = sv[1];
        ::fcntl(a, F_SETFL, O_NONBLOCK);
        ::fcntl(b, F_SETFL, O_NONBLOCK);
        pipe = ipc_pipe_create(bufsize);
        EXPECT_EQ(ipc_pipe_attach_socket(pipe, a), 0);
    }
    ~Pair()
    {
        ipc_pipe_destroy(pipe);
        if (a >= 0) ::close(a);
        if (b >= 0) ::close(b);
    }
    void peer_send(const std::string &s) { ASSERT_EQ(::write(b, s.data(), s.size()), static_cast<ssize_t>(s.size())); }
    std::string peer_drain()
    {
        std::string got;
        char buf[4096];
        ssize_t n;
        while ((n = ::read(b, buf, sizeof buf)) > 0) got.append(buf, static_cast<size_t>(n));
        return got;
    }
    // Reads and returns every complete message now available.
    std::vector<std::string> take()
    {
        std::vector<std::string> out;
        while (ipc_pipe_read(pipe) >= 0) {
            while (ipc_msg_read_ok(out)) {
            }
            ipc_pipe_read_clean(pipe);
        }
        while (ipc_msg_read_ok(out)) {
        }
        return out;
    }
    bool ipc_msg_read_ok(std::vector<std::string> &out)
    {
        ipc_msg_t *m = ipc_msg_read(pipe);
        if (m == nullptr) return false;
        out.push_back(frame(m->type, std::string(reinterpret_cast<char *>(ipc_msg_data(m)), m->length)));
        return true;
    }
};

TEST(QpipeRead, SplitsAtAnyPointGiveTheSameFrames)
{
    const std::vector<std::string> frames = {frame(1, "abc"), frame(2, ""), frame(0xFFFF, std::string(56, 'x')),
                                             frame(7, "z")};
    std::string stream;
    for (const auto &f : frames) stream += f;
    for (size_t chunk : {size_t{1}, size_t{3}, size_t{8}, size_t{13}, stream.size()}) {
        SCOPED_TRACE(chunk);
        Pair p;
        std::vector<std::string> got;
        for (size_t off = 0; off < stream.size(); off += chunk) {
            p.peer_send(stream.substr(off, chunk));
            for (auto &m : p.take()) got.push_back(m);
        }
        EXPECT_EQ(got, frames);
    }
}

TEST(QpipeRead, MessagesAreAlignedAndWritable)
{
    Pair p;
    // The second frame starts 13 bytes in: it must still come out aligned.
    p.peer_send(frame(3, "hello") + frame(4, "world") + frame(5, ""));
    ASSERT_GT(ipc_pipe_read(p.pipe), 0);
    for (uint16_t type : {3, 4, 5}) {
        ipc_msg_t *m = ipc_msg_read(p.pipe);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(m) % 8, 0u);
        EXPECT_EQ(m->type, type);
        if (m->length > 0) ipc_msg_data(m)[0] = 'J';
    }
    ipc_pipe_read_clean(p.pipe);
}

TEST(QpipeRead, ClosingMidFrameIsEpipeAfterCompleteMessages)
{
    Pair p;
    p.peer_send(frame(5, "ok") + frame(6, "cut").substr(0, 9));
    ::close(p.b);
    p.b = -1;
    ASSERT_GT(ipc_pipe_read(p.pipe), 0);
    errno = 0;
    EXPECT_EQ(ipc_pipe_read(p.pipe), 0);  // a complete message is still waiting
    ipc_msg_t *m = ipc_msg_read(p.pipe);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->type, 5);
    ipc_pipe_read_clean(p.pipe);
    EXPECT_EQ(ipc_pipe_read(p.pipe), -1);
    EXPECT_EQ(errno, EPIPE);
    errno = 42;
    EXPECT_EQ(ipc_msg_read(p.pipe), nullptr);
    EXPECT_EQ(errno, 0);
}

TEST(QpipeRead, OversizedHeaderBreaksReading)
{
    Pair p(64);
    // 56 payload bytes is the largest a 64-byte pipe takes; 57 is refused.
    p.peer_send(frame(1, std::string(56, 'a')));
    EXPECT_EQ(p.take().size(), 1u);
    ipc_msg_t h{};
    h.type = 2;
    h.length = 57;
    p.peer_send(std::string(reinterpret_cast<char *>(&h), 8) + "tail");
    EXPECT_EQ(ipc_pipe_read(p.pipe), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    p.peer_send(frame(3, "x"));
    EXPECT_EQ(ipc_pipe_read(p.pipe), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(ipc_msg_read(p.pipe), nullptr);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(QpipeRead, NothingAvailableIsEagainAndUnreleasedInputIsNoEof)
{
    Pair p(16);
    EXPECT_EQ(ipc_pipe_read(p.pipe), -1);
    EXPECT_EQ(errno, EAGAIN);
    p.peer_send(frame(1, "") + frame(2, "") + frame(3, ""));
    ASSERT_EQ(ipc_pipe_read(p.pipe), 16);
    ASSERT_NE(ipc_msg_read(p.pipe), nullptr);
    ASSERT_NE(ipc_msg_read(p.pipe), nullptr);
    EXPECT_EQ(ipc_pipe_read(p.pipe), -1);  // both still held by the caller
    EXPECT_EQ(errno, ENOBUFS);
    ipc_pipe_read_clean(p.pipe);
    EXPECT_EQ(ipc_pipe_read(p.pipe), 8);
    ASSERT_NE(ipc_msg_read(p.pipe), nullptr);
}

TEST(QpipeWrite, RefusesWhatTheBufferCannotHold)
{
    Pair p(64);
    ipc_msg_t h{};
    h.length = 57;
    std::string big(57, 'b');
    EXPECT_EQ(ipc_msg_write(p.pipe, &h, big.data()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    h.length = 4;
    EXPECT_EQ(ipc_msg_write(p.pipe, &h, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    iovec iov[2] = {{big.data(), 2}, {big.data(), 1}};
    EXPECT_EQ(ipc_msg_writev(p.pipe, &h, iov, 2), -1);  // pieces short of the length
    EXPECT_EQ(errno, EINVAL);
    // Output holds at most twice the buffer size.
    h.length = 56;
    EXPECT_EQ(ipc_msg_write(p.pipe, &h, big.data()), 0);
    EXPECT_EQ(ipc_msg_write(p.pipe, &h, big.data()), 0);
    EXPECT_EQ(ipc_msg_write(p.pipe, &h, big.data()), -1);
    EXPECT_EQ(errno, ENOBUFS);
}

TEST(QpipeWrite, GatheredPiecesAndHeaderFieldsGoOutAsOneFrame)
{
    Pair p;
    ipc_msg_t h{};
    h.reserved0 = 9;  // reserved fields always leave as zero
    h.type = 71;
    h.length = 6;
    char x[] = "ab", y[] = "cdef";
    iovec iov[2] = {{x, 2}, {y, 4}};
    ASSERT_EQ(ipc_msg_writev(p.pipe, &h, iov, 2), 0);
    ASSERT_EQ(ipc_pipe_write(p.pipe, 0), 0);
    EXPECT_EQ(p.peer_drain(), frame(71, "abcdef"));
}

// Fills the peer-facing socket until it takes nothing more.
void fill_socket(int fd)
{
    std::string junk(4096, 'j');
    while (::send(fd, junk.data(), junk.size(), MSG_DONTWAIT) > 0) {
    }
}

TEST(QpipeWrite, PartialWriteKeepsTheTailAndDiscardsOnlyUntouched)
{
    Pair p(8192);
    int small = 4096;
    ::setsockopt(p.a, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fill_socket(p.a);
    p.peer_drain();  // make some room, but not enough for the big message
    std::string payload(8184, 'p');
    ipc_msg_t h{};
    h.type = 2;
    h.length = static_cast<uint16_t>(payload.size());
    std::string sent_bytes;
    // Write until part of the message has gone; drain the peer in between.
    ASSERT_EQ(ipc_msg_write(p.pipe, &h, payload.data()), 0);
    int rc = ipc_pipe_write(p.pipe, 0);
    ASSERT_EQ(rc, -1);
    ASSERT_EQ(errno, EAGAIN);
    ASSERT_GT(ipc_pipe_write_tail(p.pipe), 0u) << "the socket took nothing; test needs a partial write";
    const size_t tail = ipc_pipe_write_tail(p.pipe);
    // A second message queued behind the tail is untouched and can go.
    h.type = 4;
    h.length = 3;
    ASSERT_EQ(ipc_msg_write(p.pipe, &h, "xyz"), 0);
    size_t len = 0;
    ASSERT_NE(ipc_pipe_write_unsent(p.pipe, &len), nullptr);
    EXPECT_EQ(len, 11u);
    EXPECT_EQ(ipc_pipe_write_discard(p.pipe), 11u);
    EXPECT_EQ(ipc_pipe_write_tail(p.pipe), tail);
    EXPECT_EQ(ipc_pipe_write_pending(p.pipe), tail);
    // A later message goes out after the tail; the stream stays well formed.
    h.type = 6;
    ASSERT_EQ(ipc_msg_write(p.pipe, &h, "end"), 0);
    std::string stream;
    while (ipc_pipe_write(p.pipe, 0) != 0) {
        ASSERT_EQ(errno, EAGAIN);
        stream += p.peer_drain();
    }
    stream += p.peer_drain();
    const std::string expect = frame(2, payload) + frame(6, "end");
    ASSERT_GE(stream.size(), expect.size());
    EXPECT_EQ(stream.substr(stream.size() - expect.size()), expect);
}

TEST(QpipeAttach, OneSocketAtATime)
{
    Pair p;
    EXPECT_EQ(ipc_pipe_attach_socket(p.pipe, p.b), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(ipc_pipe_detach_socket(p.pipe, p.b), -1);
    EXPECT_EQ(ipc_pipe_detach_socket(p.pipe, p.a), 0);
    EXPECT_EQ(ipc_pipe_write(p.pipe, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(ipc_pipe_create(7), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
