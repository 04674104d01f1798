// The monitor's handle on the kernel.
#ifndef TARN_MONITOR_SESSION_H
#define TARN_MONITOR_SESSION_H

#include <tarn/rtslib.h>

namespace tarn::monitor {

// A handle on the kernel, with an error sink that shows the library's
// reports on stderr (except while `quiet` is set).
struct Session {
    rtslib_cookie *handle = nullptr;
    bool quiet = false;
};

// Opens session.handle; on failure prints the one line that says which
// kernel socket was tried and returns false.
bool open_session(Session &session);
void close_session(Session &session);

}  // namespace tarn::monitor

#endif  // TARN_MONITOR_SESSION_H
