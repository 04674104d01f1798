#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "monitor.h"

namespace tarn::monitor {
namespace {

// Where the library looks for the kernel on a Linux host; the same default
// the library documents for TARN_KERNEL_SOCKET.
constexpr const char *kDefaultKernelSocket = "/tmp/tarn-kernel.sock";

// Sender id of the monitor's requests.
constexpr uint8_t kSenderId = 0;

// The library's warnings and errors go to stderr, one line each; none ends
// the process. Its debug and information notes would drown the messages.
int report_sink(rtslib_cookie *, void *arg, int level, const char *text)
{
    const auto *session = static_cast<const Session *>(arg);
    if (session->quiet || level < RTSLIB_LOG_WARNING) return 0;
    size_t len = std::strlen(text);
    while (len > 0 && text[len - 1] == '\n') len--;
    std::fprintf(stderr, "tarn-monitor: %.*s\n", static_cast<int>(len), text);
    return 0;
}

}  // namespace

bool open_session(Session &session)
{
    // Negotiation failures come back as errno; the line below says it all.
    session.quiet = true;
    session.handle = rtslib_open_set_liberr(kSenderId, &session, report_sink);
    const int err = errno;
    session.quiet = false;
    if (session.handle != nullptr) return true;
    const char *env = std::getenv("TARN_KERNEL_SOCKET");
    const bool from_env = env != nullptr && env[0] != '\0';
    std::fprintf(stderr, "tarn-monitor: no kernel reachable at %s (%s): %s\n",
                 from_env ? env : kDefaultKernelSocket,
                 from_env ? "TARN_KERNEL_SOCKET" : "TARN_KERNEL_SOCKET unset, the default",
                 std::strerror(err));
    return false;
}

void close_session(Session &session)
{
    rtslib_close(session.handle);
    session.handle = nullptr;
}

}  // namespace tarn::monitor
