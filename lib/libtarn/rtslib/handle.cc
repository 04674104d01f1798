#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libtarn/os/os.h"
#include "libtarn/rtslib/handle_internal.h"
#include "libtarn/rtslib/msg_types.h"
#include <tarn/rtslib_async.h>
#include <tarn/rtslib_if.h>

namespace {

constexpr int kDefaultSocketBuffer = 65536;

const char kMismatchAdvice[] = ",a reboot or software upgrade may be required\n";

rtslib_cookie *make_handle_record()
{
    auto *h = static_cast<rtslib_cookie *>(std::calloc(1, sizeof(rtslib_cookie)));
    if (h == nullptr) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR, "Failed to allocate memory for rtslib_cookie\n");
        return nullptr;
    }
    h->fd = -1;
    h->seq = 1;
    h->lib_error_fn = rtslib_lib_error;
    h->read_buffer = static_cast<uint8_t *>(std::malloc(RTS_READ_BUFFER_SIZE));
    if (h->read_buffer == nullptr) {
        rtslib_err(nullptr, RTSLIB_LOG_ERROR,
                   "Failed to allocate memory for rtslib cookie read_buffer\n");
        std::free(h);
        return nullptr;
    }
    return h;
}

int open_socket(rtslib_cookie *h)
{
    if (h == nullptr || h->fd != -1) return EINVAL;
    int fd = tarn::os::route_socket_open();
    if (fd < 0) {
        // Without a routing socket nothing else can work; say why, since the
        // caller only sees a null handle.
        rtslib_err(h, RTSLIB_LOG_ERROR, "routing socket open failed: %s", std::strerror(errno));
        return -1;
    }
    h->fd = fd;
    if (tarn::os::set_nonblocking(fd) != 0) return -1;
    return tarn::negotiate_versions(h);
}

// Completes rtslib_open and rtslib_open_set_liberr on a record whose sink is
// already in place.
rtslib_cookie *open_configured(rtslib_cookie *h, uint8_t sender_id)
{
    if (open_socket(h) != 0) {
        // Only the record is released here: the descriptor, the read buffer
        // and a version copy stay behind, as the platform's library has always
        // done; callers treat a failed open as fatal.
        std::free(h);
        return nullptr;
    }
    rtslib_set_sender_id(h, sender_id);
    if (rtslib_set_buffers(h, kDefaultSocketBuffer, kDefaultSocketBuffer) != 0) {
        rtslib_close(h);
        return nullptr;
    }
    return h;
}

}  // namespace

namespace tarn {

int negotiate_versions(rtslib_cookie *h)
{
    if (h == nullptr || h->version_info != nullptr) return EINVAL;

    uint8_t block[RTS_VERSION_INFO_MAX] = {};
    uint32_t len = sizeof block;
    if (os::route_getsockopt(h->fd, ROUTE_VERSION_INFO, block, &len) != 0) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "version sockopt failed: %s", std::strerror(errno));
        return -1;
    }

    const int kernel_if = block[RTS_VERSION_INFO_IFVERSION];
    if (kernel_if != RTS_INTERFACE_VERSION) {
        rtslib_err(h, RTSLIB_LOG_FATAL, "interface version mismatch: kernel=%d library=%d%s",
                   kernel_if, RTS_INTERFACE_VERSION, kMismatchAdvice);
        errno = ECONNREFUSED;
        return -1;
    }

    const int kernel_types = block[RTS_VERSION_INFO_NTYPES];
    if (kernel_types > RTS_MSG_TYPE_COUNT)
        rtslib_err(h, RTSLIB_LOG_WARNING, "kernel has new unknown messages: expected %d got %d%s",
                   RTS_MSG_TYPE_COUNT, kernel_types, kMismatchAdvice);
    else if (kernel_types < RTS_MSG_TYPE_COUNT)
        rtslib_err(h, RTSLIB_LOG_ERROR,
                   "kernel does not support all messages: expected %d got %d%s",
                   RTS_MSG_TYPE_COUNT, kernel_types, kMismatchAdvice);

    // Every type the library knows is compared, whatever count the kernel
    // gave: bytes it did not send read as 0 and show up as mismatches.
    for (int t = 1; t < RTS_MSG_TYPE_COUNT; ++t) {
        const int kernel_v = block[1 + t];
        if (kernel_v != kExpectedMsgVersion[t])
            rtslib_err(h, RTSLIB_LOG_WARNING, "version mismatch for msg %s: expected %d got %d%s",
                       rtm_types[t], kExpectedMsgVersion[t], kernel_v, kMismatchAdvice);
    }

    auto *copy = static_cast<uint8_t *>(rtslib_size_alloc(h, len));
    if (copy == nullptr) {
        rtslib_err(h, RTSLIB_LOG_WARNING, "Malloc failure for version_info");
        return -1;
    }
    std::memcpy(copy, block, len);
    h->version_info = copy;
    return 0;
}

}  // namespace tarn

extern "C" {

rtslib_cookie *rtslib_open(uint8_t sender_id)
{
    rtslib_cookie *h = make_handle_record();
    if (h == nullptr) return nullptr;
    return open_configured(h, sender_id);
}

rtslib_cookie *rtslib_open_set_liberr(uint8_t sender_id, void *arg, rtslib_lib_error_fn fn)
{
    rtslib_cookie *h = make_handle_record();
    if (h == nullptr) return nullptr;
    h->lib_error_fn = fn;
    h->lib_error_arg = arg;
    return open_configured(h, sender_id);
}

rtslib_cookie *rtslib_open_nc(void)
{
    return make_handle_record();
}

void rtslib_close(rtslib_cookie *h)
{
    if (h == nullptr) return;
    rtslib_unnum_ifa_cleanup(h);
    if (h->fd != -1) tarn::os::route_socket_close(h->fd);
    std::free(h->version_info);
    std::free(h->read_buffer);
    if (h->async != nullptr) rtslib_destroy_async_context(h);
    std::free(h);
}

int rtslib_setsockopt(rtslib_cookie *h, int optname, const void *optval, uint32_t optlen)
{
    if (h == nullptr) return EINVAL;
    return tarn::os::route_setsockopt(h->fd, optname, optval, optlen);
}

int rtslib_set_buffers(rtslib_cookie *h, int sndbuf, int rcvbuf)
{
    if (h == nullptr) return EINVAL;
    if (::setsockopt(h->fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf) != 0) return errno;
    if (::setsockopt(h->fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf) != 0) return errno;
    return 0;
}

int rtslib_set_sender_id(rtslib_cookie *h, uint8_t id)
{
    if (h == nullptr) return EINVAL;
    if (tarn::os::route_setsockopt(h->fd, ROUTE_SENDER_ID, &id, sizeof id) != 0)
        rtslib_err(h, RTSLIB_LOG_WARNING, "setsockopt(ROUTE_SENDER_ID) failed, %s",
                   std::strerror(errno));
    return 0;
}

int rtslib_set_lr_id(rtslib_cookie *h, uint16_t lr_id)
{
    if (h == nullptr) return EINVAL;
    // The report names ROUTE_SENDER_ID here too; log scrapers key on it.
    if (tarn::os::route_setsockopt(h->fd, ROUTE_LR_ID, &lr_id, sizeof lr_id) != 0)
        rtslib_err(h, RTSLIB_LOG_WARNING, "setsockopt(ROUTE_SENDER_ID) failed, %s",
                   std::strerror(errno));
    return 0;
}

const uint8_t *rtslib_get_rtsock_version_info(rtslib_cookie *h)
{
    return h == nullptr ? nullptr : h->version_info;
}

int rtslib_seq_get_next(rtslib_cookie *h, uint32_t *out)
{
    if (h == nullptr || out == nullptr) return EINVAL;
    *out = ++h->seq;
    return 0;
}

int rtslib_seq_error_register(rtslib_cookie *h, void *arg, rtslib_seq_error_fn fn)
{
    if (h == nullptr) return EINVAL;
    h->seq_error_fn = fn;
    h->seq_error_arg = arg;
    return 0;
}

int rtslib_lib_error_register(rtslib_cookie *h, void *arg, rtslib_lib_error_fn fn)
{
    if (h == nullptr) return EINVAL;
    h->lib_error_fn = fn;
    h->lib_error_arg = arg;
    return 0;
}

void rtslib_init_blob_compression(rtslib_cookie *h, rtslib_blob_hook_fn compress,
                                  rtslib_blob_hook_fn decompress)
{
    if (h == nullptr || compress == nullptr || decompress == nullptr) return;
    h->blob_compress_fn = compress;
    h->blob_decompress_fn = decompress;
}

}  // extern "C"
