// Framing of header-and-payload messages over one non-blocking stream socket.
// Input: one buffer of B bytes. [0, consumed) is released, [consumed, parsed)
// holds messages already handed out, [parsed, filled) raw bytes not yet
// framed. Output: 2 B bytes, enough for the tail of a partly sent message
// plus one more message. [0, sent) has left, [sent, committed) is the rest of
// messages that started to leave, [committed, used) is untouched.
#include <qpipe/ipc_pipe.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

struct ipc_pipe {
    int fd;
    size_t bufsize;
    unsigned char *in;
    // Messages are packed back to back on the wire; one that does not start
    // on an 8-byte boundary is handed out from this copy instead, so callers
    // may read its fields in place.
    unsigned char *aligned;
    size_t consumed;
    size_t parsed;
    size_t filled;
    bool eof;
    bool oversize;
    unsigned char *out;
    size_t out_cap;
    size_t sent;
    size_t committed;
    size_t used;
    // Ends of the messages placed after `committed`, so that a partial send
    // can commit exactly the messages it touched. The output holds at most
    // out_cap / 8 messages.
    size_t *ends;
    size_t nends;
};

namespace {

constexpr size_t kMaxBufsize = IPC_MSG_HDR_LEN + 0xFFFFu;

uint16_t payload_len_at(const unsigned char *p)
{
    uint16_t len;
    std::memcpy(&len, p + offsetof(ipc_msg_t, length), sizeof len);
    return len;
}

void reset_input(ipc_pipe *p)
{
    p->consumed = p->parsed = p->filled = 0;
    p->eof = p->oversize = false;
}

void reset_output(ipc_pipe *p)
{
    p->sent = p->committed = p->used = 0;
    p->nends = 0;
}

// Is a complete message waiting at `parsed`? Flags an oversized header.
bool complete_message_waiting(ipc_pipe *p)
{
    if (p->oversize) return false;
    const size_t have = p->filled - p->parsed;
    if (have < IPC_MSG_HDR_LEN) return false;
    const size_t len = payload_len_at(p->in + p->parsed);
    if (len > p->bufsize - IPC_MSG_HDR_LEN) {
        p->oversize = true;
        return false;
    }
    return have >= IPC_MSG_HDR_LEN + len;
}

// Messages placed but untouched start at `committed`; after `sent` moved
// forward, every message that ends beyond `sent` and began before it is
// committed whole.
void commit_touched(ipc_pipe *p)
{
    if (p->sent <= p->committed) return;
    size_t k = 0;
    size_t start = p->committed;
    while (k < p->nends && p->ends[k] <= p->sent) start = p->ends[k++];
    if (k < p->nends && start < p->sent) {
        p->committed = p->ends[k++];
    } else {
        p->committed = start;
    }
    std::memmove(p->ends, p->ends + k, (p->nends - k) * sizeof *p->ends);
    p->nends -= k;
}

// Moves the unsent output to the front once everything before it has left.
void compact_output(ipc_pipe *p)
{
    if (p->sent == 0) return;
    const size_t shift = p->sent;
    std::memmove(p->out, p->out + shift, p->used - shift);
    p->used -= shift;
    p->committed -= shift;
    p->sent = 0;
    for (size_t k = 0; k < p->nends; ++k) p->ends[k] -= shift;
}

// Reserves room for one message of `total` bytes at the end of the output.
unsigned char *reserve(ipc_pipe *p, size_t total)
{
    compact_output(p);
    if (p->used + total > p->out_cap) {
        errno = ENOBUFS;
        return nullptr;
    }
    return p->out + p->used;
}

void place(ipc_pipe *p, unsigned char *at, const ipc_msg_t *hdr)
{
    ipc_msg_t h{};
    h.type = hdr->type;
    h.length = hdr->length;
    std::memcpy(at, &h, IPC_MSG_HDR_LEN);
    p->used += IPC_MSG_HDR_LEN + hdr->length;
    p->ends[p->nends++] = p->used;
}

// -1 with EINVAL for no pipe, EPIPE for no socket.
int check_attached(const ipc_pipe *p)
{
    if (p == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (p->fd < 0) {
        errno = EPIPE;
        return -1;
    }
    return 0;
}

int check_write(ipc_pipe *p, const ipc_msg_t *hdr)
{
    if (p == nullptr || hdr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (hdr->length > p->bufsize - IPC_MSG_HDR_LEN) {
        errno = EMSGSIZE;
        return -1;
    }
    return 0;
}

}  // namespace

extern "C" {

ipc_pipe_t *ipc_pipe_create(size_t bufsize)
{
    if (bufsize < IPC_MSG_HDR_LEN || bufsize > kMaxBufsize) {
        errno = EINVAL;
        return nullptr;
    }
    auto *p = static_cast<ipc_pipe *>(std::calloc(1, sizeof(ipc_pipe)));
    if (p == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    p->fd = -1;
    p->bufsize = bufsize;
    p->out_cap = 2 * bufsize;
    p->in = static_cast<unsigned char *>(std::malloc(bufsize));
    p->aligned = static_cast<unsigned char *>(std::malloc(bufsize));
    p->out = static_cast<unsigned char *>(std::malloc(p->out_cap));
    p->ends = static_cast<size_t *>(std::malloc((p->out_cap / IPC_MSG_HDR_LEN + 1) * sizeof(size_t)));
    if (p->in == nullptr || p->aligned == nullptr || p->out == nullptr || p->ends == nullptr) {
        ipc_pipe_destroy(p);
        errno = ENOMEM;
        return nullptr;
    }
    return p;
}

void ipc_pipe_destroy(ipc_pipe_t *p)
{
    if (p == nullptr) return;
    std::free(p->in);
    std::free(p->aligned);
    std::free(p->out);
    std::free(p->ends);
    std::free(p);
}

int ipc_pipe_attach_socket(ipc_pipe_t *p, int fd)
{
    if (p == nullptr || fd < 0) {
        errno = EINVAL;
        return -1;
    }
    if (p->fd >= 0 && p->fd != fd) {
        errno = EBUSY;
        return -1;
    }
    p->fd = fd;
    reset_input(p);
    reset_output(p);
    return 0;
}

int ipc_pipe_detach_socket(ipc_pipe_t *p, int fd)
{
    if (p == nullptr || fd < 0 || p->fd != fd) {
        errno = EINVAL;
        return -1;
    }
    p->fd = -1;
    reset_input(p);
    reset_output(p);
    return 0;
}

int ipc_pipe_read(ipc_pipe_t *p)
{
    if (check_attached(p) != 0) return -1;
    // Reclaim released input; messages handed out since the last clean stay
    // in place until then.
    if (p->consumed > 0) {
        std::memmove(p->in, p->in + p->consumed, p->filled - p->consumed);
        p->parsed -= p->consumed;
        p->filled -= p->consumed;
        p->consumed = 0;
    }
    if (complete_message_waiting(p)) return 0;
    if (p->oversize) {
        errno = EMSGSIZE;
        return -1;
    }
    if (p->eof) {
        errno = EPIPE;
        return -1;
    }
    const size_t room = p->bufsize - p->filled;
    if (room == 0) {
        // Full of messages already handed out: ipc_pipe_read_clean was not
        // called, and a zero-length read would look like the peer closing.
        errno = ENOBUFS;
        return -1;
    }
    ssize_t n;
    do {
        n = ::recv(p->fd, p->in + p->filled, room, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    if (n == 0) {
        p->eof = true;
        errno = EPIPE;
        return -1;
    }
    p->filled += static_cast<size_t>(n);
    if (!complete_message_waiting(p) && p->oversize) {
        errno = EMSGSIZE;
        return -1;
    }
    return static_cast<int>(n);
}

ipc_msg_t *ipc_msg_read(ipc_pipe_t *p)
{
    if (p == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (!complete_message_waiting(p)) {
        errno = p->oversize ? EMSGSIZE : 0;
        return nullptr;
    }
    unsigned char *at = p->in + p->parsed;
    const size_t total = IPC_MSG_HDR_LEN + payload_len_at(at);
    p->parsed += total;
    if (reinterpret_cast<uintptr_t>(at) % 8 != 0) {
        std::memcpy(p->aligned, at, total);
        at = p->aligned;
    }
    return reinterpret_cast<ipc_msg_t *>(at);
}

void ipc_pipe_read_clean(ipc_pipe_t *p)
{
    if (p != nullptr) p->consumed = p->parsed;
}

int ipc_msg_write(ipc_pipe_t *p, const ipc_msg_t *hdr, const void *payload)
{
    if (check_write(p, hdr) != 0) return -1;
    if (payload == nullptr && hdr->length != 0) {
        errno = EINVAL;
        return -1;
    }
    unsigned char *at = reserve(p, IPC_MSG_HDR_LEN + hdr->length);
    if (at == nullptr) return -1;
    if (hdr->length != 0) std::memcpy(at + IPC_MSG_HDR_LEN, payload, hdr->length);
    place(p, at, hdr);
    return 0;
}

int ipc_msg_writev(ipc_pipe_t *p, const ipc_msg_t *hdr, const struct iovec *iov, int count)
{
    if (check_write(p, hdr) != 0) return -1;
    if (count < 0 || (count > 0 && iov == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        if (iov[i].iov_len > hdr->length || (iov[i].iov_base == nullptr && iov[i].iov_len != 0)) {
            errno = EINVAL;
            return -1;
        }
        total += iov[i].iov_len;
    }
    if (total != hdr->length) {
        errno = EINVAL;
        return -1;
    }
    unsigned char *at = reserve(p, IPC_MSG_HDR_LEN + total);
    if (at == nullptr) return -1;
    size_t off = IPC_MSG_HDR_LEN;
    for (int i = 0; i < count; ++i) {
        if (iov[i].iov_len != 0) std::memcpy(at + off, iov[i].iov_base, iov[i].iov_len);
        off += iov[i].iov_len;
    }
    place(p, at, hdr);
    return 0;
}

int ipc_pipe_write(ipc_pipe_t *p, int flags)
{
    (void)flags;
    if (check_attached(p) != 0) return -1;
    while (p->sent < p->used) {
        ssize_t n = ::send(p->fd, p->out + p->sent, p->used - p->sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EWOULDBLOCK) errno = EAGAIN;
            return -1;
        }
        p->sent += static_cast<size_t>(n);
        commit_touched(p);
    }
    reset_output(p);
    return 0;
}

size_t ipc_pipe_write_pending(const ipc_pipe_t *p)
{
    return p == nullptr ? 0 : p->used - p->sent;
}

size_t ipc_pipe_write_tail(const ipc_pipe_t *p)
{
    return p == nullptr ? 0 : p->committed - p->sent;
}

const void *ipc_pipe_write_unsent(const ipc_pipe_t *p, size_t *len)
{
    const size_t n = p == nullptr ? 0 : p->used - p->committed;
    if (len != nullptr) *len = n;
    return n == 0 ? nullptr : p->out + p->committed;
}

size_t ipc_pipe_write_discard(ipc_pipe_t *p)
{
    if (p == nullptr) return 0;
    const size_t dropped = p->used - p->committed;
    p->used = p->committed;
    p->nends = 0;
    return dropped;
}

}  // extern "C"
