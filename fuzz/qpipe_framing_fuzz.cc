// Feeds an arbitrary byte stream, cut at input-chosen points, through a
// socketpair into a pipe, and aborts unless the messages the pipe returns are
// exactly the frames of the stream: every complete frame before the first
// header announcing more than the pipe can hold, and nothing else.
#include <qpipe/ipc_pipe.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kBufsize = 64;

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "qpipe framing: %s\n", what);
    std::abort();
}

std::vector<std::string> model(const std::string &s)
{
    std::vector<std::string> frames;
    size_t off = 0;
    while (s.size() - off >= IPC_MSG_HDR_LEN) {
        uint16_t len;
        std::memcpy(&len, s.data() + off + 4, 2);
        if (len > kBufsize - IPC_MSG_HDR_LEN || s.size() - off < IPC_MSG_HDR_LEN + len) break;
        frames.push_back(s.substr(off, IPC_MSG_HDR_LEN + len));
        off += IPC_MSG_HDR_LEN + len;
    }
    return frames;
}

// Takes every message available now; false once the pipe is finished.
bool drain(ipc_pipe_t *pipe, std::vector<std::string> &got)
{
    for (;;) {
        int rc = ipc_pipe_read(pipe);
        if (rc < 0 && errno != EAGAIN) return false;
        while (ipc_msg_t *m = ipc_msg_read(pipe)) {
            got.emplace_back(reinterpret_cast<const char *>(m), IPC_MSG_HDR_LEN + m->length);
        }
        ipc_pipe_read_clean(pipe);
        if (rc < 0) return true;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 4096) return 0;
    unsigned seed = data[0];
    const std::string stream(reinterpret_cast<const char *>(data) + 1, size - 1);

    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) fail("socketpair");
    ::fcntl(sv[0], F_SETFL, O_NONBLOCK);
    ipc_pipe_t *pipe = ipc_pipe_create(kBufsize);
    if (pipe == nullptr || ipc_pipe_attach_socket(pipe, sv[0]) != 0) fail("pipe");

    std::vector<std::string> got;
    bool open = true;
    for (size_t off = 0; off < stream.size() && open;) {
        seed = seed * 1103515245u + 12345u;
        size_t chunk = 1 + (seed >> 16) % 23;
        if (chunk > stream.size() - off) chunk = stream.size() - off;
        if (::write(sv[1], stream.data() + off, chunk) != static_cast<ssize_t>(chunk)) fail("write");
        off += chunk;
        open = drain(pipe, got);
    }
    ::close(sv[1]);
    if (open) {
        if (drain(pipe, got)) fail("end of stream not reported");
        if (errno != EPIPE && errno != EMSGSIZE) fail("unexpected error at end");
    }
    if (got != model(stream)) fail("messages differ from the frames of the stream");
    ipc_pipe_destroy(pipe);
    ::close(sv[0]);
    return 0;
}
