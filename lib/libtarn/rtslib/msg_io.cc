#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/msg_io_internal.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/rtslib_msg.h>

namespace {

using tarn::wire::is_envelope;
using tarn::wire::load_u32;

// A long read refuses messages claiming more than this: the length comes from
// the peer, and a lie must not make us allocate gigabytes.
constexpr uint64_t kLongMessageMax = 64u << 20;

// Brackets a write with the kernel-backtrace debug switch.
void set_kbt(int32_t on)
{
    const int32_t value[3] = {static_cast<int32_t>(::getpid()), -1, on};
    tarn::os::sysctl_by_name("debug.enable_kbt", nullptr, nullptr, value, sizeof value);
}

// Throws away the next message (a datagram read with a tiny buffer drops the
// rest), so that a malformed one cannot block the socket forever.
void discard_message(int fd)
{
    uint8_t byte;
    (void)::read(fd, &byte, 1);
}

}  // namespace

namespace tarn {

int read_message(rtslib_cookie *h, uint8_t *buf, uint32_t size, uint32_t *len_out)
{
    const ssize_t n = ::read(h->fd, buf, size);
    if (n < 0) {
        const int e = errno;
        if (e != EAGAIN) rtslib_err(h, RTSLIB_LOG_FATAL, "read failed: (%d) %s", e, std::strerror(e));
        return e;
    }
    uint32_t got = static_cast<uint32_t>(n);
    // Too short to say its length: the callers' size checks refuse it.
    if (got < RTS_HDR_LEN_OFF + 4 || (size > 3 && is_envelope(buf))) {
        *len_out = got;
        return 0;
    }
    const uint32_t claimed = load_u32(buf + RTS_HDR_LEN_OFF);
    if (claimed > got) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "msg read too short got (%d), expected %d\n",
                   static_cast<int>(got), static_cast<int>(claimed));
        return EIO;
    }
    if (claimed < got) {
        rtslib_err(h, RTSLIB_LOG_WARNING, "msg read too long got (%d), expected %d\n",
                   static_cast<int>(got), static_cast<int>(claimed));
        got = claimed;
    }
    *len_out = got;
    return 0;
}

int read_to_buffer(rtslib_cookie *h, uint32_t *len_out)
{
    uint32_t n = 0;
    int rc = read_message(h, h->read_buffer, RTS_READ_BUFFER_SIZE, &n);
    if (rc != 0) return rc;
    if (n < RTS_HDR_MIN_LEN) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "msg read too small for header: %d\n", static_cast<int>(n));
        return EIO;
    }
    if (n > RTS_MSG_MAX) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "msg read too large for rtsock message: %d\n",
                   static_cast<int>(n));
        return EIO;
    }
    *len_out = n;
    return check_sequence(h, h->read_buffer);
}

int check_sequence(rtslib_cookie *h, const uint8_t *msg)
{
    if (is_envelope(msg)) return 0;
    const uint32_t got = load_u32(msg + RTS_HDR_SEQ_OFF);
    int rc = 0;
    if (got != h->seq) {
        if (h->seq_error_fn != nullptr)
            h->seq_error_fn(h, h->seq_error_arg, h->seq, got);
        else if (h->async != nullptr)
            rtslib_err(h, RTSLIB_LOG_ERROR, "%s seq mismatch: (%u != %u)\n", "async message",
                       h->seq, got);
        else
            rtslib_err(h, RTSLIB_LOG_FATAL, "%s seq mismatch: (%u != %u)\n", "request/reply",
                       h->seq, got);
        rc = RTSLIB_SEQ_MISMATCH;
    }
    // Notifications carry the kernel's own numbering; follow it.
    if (h->async != nullptr) h->seq = got + 1;
    return rc;
}

}  // namespace tarn

extern "C" {

int rtslib_write(rtslib_cookie *h, const void *buf, uint32_t len)
{
    if (h == nullptr || (buf == nullptr && len > 0)) return EINVAL;
    if (h->kbt != 0) set_kbt(1);
    const ssize_t n = tarn::os::route_write(h->fd, buf, len);
    const int write_errno = errno;
    if (h->kbt != 0) set_kbt(0);
    if (n < 0) return write_errno;
    if (static_cast<uint64_t>(n) >= len) return 0;
    // The plural is inverted ("1 bytes", "100 byte"); log parsers depend on
    // the text as it has always been.
    rtslib_err(h, RTSLIB_LOG_FATAL, "wrote %u byte%s to routing socket, got %d", len,
               len == 1 ? "s" : "", static_cast<int>(n));
    return 0;
}

int rtslib_peek_pkt_len(int fd)
{
    uint8_t hdr[RTS_HDR_MIN_LEN];
    if (::recv(fd, hdr, sizeof hdr, MSG_PEEK) < static_cast<ssize_t>(sizeof hdr)) {
        errno = EAGAIN;
        return -1;
    }
    const uint64_t len = tarn::wire::claimed_length(hdr);
    return len > INT_MAX ? INT_MAX : static_cast<int>(len);
}

int rtslib_msg_read(rtslib_cookie *h, void *dest, uint32_t *len_out)
{
    if (h == nullptr || dest == nullptr) return EINVAL;
    uint32_t n = 0;
    int rc = tarn::read_to_buffer(h, &n);
    if (rc != 0 && rc != RTSLIB_SEQ_MISMATCH) return rc;
    if (len_out != nullptr) *len_out = n;
    std::memcpy(dest, h->read_buffer, n);
    return rc;
}

int rtslib_long_msg_read(rtslib_cookie *h, void **msg_out, uint32_t *len_out)
{
    if (msg_out != nullptr) *msg_out = nullptr;
    if (len_out != nullptr) *len_out = 0;
    if (h == nullptr || msg_out == nullptr) return EINVAL;

    uint8_t hdr[RTS_HDR_MIN_LEN];
    const ssize_t peeked = ::recv(h->fd, hdr, sizeof hdr, MSG_PEEK);
    if (peeked < 0) return errno;
    // A runt (an empty datagram too) would sit at the head of the queue for
    // ever, and so would a message claiming less than a header: reading it
    // with a buffer of its claimed size moves nothing. Drop them.
    const uint64_t want = peeked < static_cast<ssize_t>(sizeof hdr)
                              ? static_cast<uint64_t>(peeked)
                              : tarn::wire::claimed_length(hdr);
    if (want < RTS_HDR_MIN_LEN && !(peeked == sizeof hdr && tarn::wire::is_envelope(hdr))) {
        discard_message(h->fd);
        rtslib_err(h, RTSLIB_LOG_FATAL, "msg read too small for header: %d\n",
                   static_cast<int>(want));
        return EIO;
    }
    if (want > kLongMessageMax) {
        discard_message(h->fd);
        rtslib_err(h, RTSLIB_LOG_FATAL, "msg read too large for rtsock message: %d\n",
                   want > INT_MAX ? INT_MAX : static_cast<int>(want));
        return EIO;
    }

    // Cleared below only where the read leaves it unwritten.
    auto *buf = static_cast<uint8_t *>(tarn::uncleared_block(h, static_cast<uint32_t>(want)));
    if (buf == nullptr) {
        // Left queued, an answer would be taken for the next request's.
        discard_message(h->fd);
        return ENOMEM;
    }
    uint32_t n = 0;
    int rc = tarn::read_message(h, buf, static_cast<uint32_t>(want), &n);
    if (rc == 0 && n < RTS_HDR_MIN_LEN) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "msg read too small for header: %d\n", static_cast<int>(n));
        rc = EIO;
    }
    if (rc != 0) {
        rtslib_msg_free(h, buf);
        return rc;
    }
    std::memset(buf + n, 0, want - n);
    rc = tarn::check_sequence(h, buf);
    *msg_out = buf;
    if (len_out != nullptr) *len_out = n;
    return rc;
}

}  // extern "C"
