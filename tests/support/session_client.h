// A routing-daemon session of the library, driven synchronously: for
// programs that talk to tarn-emu (tests, the load program).
#ifndef TARN_TESTS_SESSION_CLIENT_H
#define TARN_TESTS_SESSION_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include <tarn/tarn_client.h>

namespace tarn::test {

// What the session's callbacks saw.
struct SessionSeen {
    int status = -1;  // last connection status (TARN_CONNECT_...)
    int losses = 0;   // connection-lost calls
    uint32_t gw = 0, reg_result = 99, add_result = 99, delete_result = 99, flash_result = 99;
    uint32_t as = 0, table = 99;  // local-AS and table-locate answers
    uint64_t adds = 0, deletes = 0;  // replies of each kind
    std::vector<uint32_t> flash_kinds;  // the changes of flashed route records
};

class SessionClient {
public:
    // Allocates a session and connects it to the local socket `path`.
    explicit SessionClient(const std::string &path);
    ~SessionClient();
    SessionClient(const SessionClient &) = delete;
    SessionClient &operator=(const SessionClient &) = delete;

    tarn_session_handle *get() const { return s_; }
    SessionSeen &seen() { return seen_; }
    // Dispatches one message, waiting up to `wait_ms` for it: 0, or the
    // errno of tarn_session_reply_get (ETIMEDOUT when nothing came).
    int next(int wait_ms = 5000);
    // Waits for the connection answer, identifies, registers a protocol:
    // true when all of it was accepted.
    bool start(const char *name);
    // A one-next-hop IPv4 route request for 11.a.b.c/32.
    tarn_rt_request route(uint32_t host) const;

private:
    tarn_session_handle *s_ = nullptr;
    SessionSeen seen_;
};

}  // namespace tarn::test

#endif  // TARN_TESTS_SESSION_CLIENT_H
