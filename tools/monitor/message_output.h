// One routing-socket message on standard output, in the form the user
// chose, stamped with the time it was printed.
#ifndef TARN_MONITOR_MESSAGE_OUTPUT_H
#define TARN_MONITOR_MESSAGE_OUTPUT_H

#include <cstdio>
#include <string>

#include <tarn/rtslib.h>

#include "session.h"

namespace tarn::monitor {

enum class Form { kBrief, kFull, kJson };

// RFC 3339 UTC time with microseconds, e.g. "2026-11-22T19:51:02.123456Z".
std::string timestamp_now();

// Whether a notification handed to a handler is a decoded record: the
// library decodes every envelope, and the kernel sends the types that have
// a record as envelopes, so the type decides (a decoded record's header
// does not keep the envelope magic).
bool has_record(const void *msg);

class MessagePrinter {
public:
    // The session's reports are silenced while the printer tries buffer
    // sizes, so that the formatter's overflow reports stay unseen.
    MessagePrinter(Session &session, Form form, FILE *out)
        : session_(session), form_(form), out_(out) {}

    // Prints msg, a decoded record or the raw bytes of a message, and
    // flushes, so that a pipe reader sees each message as it comes.
    void print(const void *msg, bool decoded);

private:
    std::string text_form(const void *msg, bool decoded, bool brief);
    std::string json_form(const void *msg, bool decoded);

    Session &session_;
    Form form_;
    FILE *out_;
};

}  // namespace tarn::monitor

#endif  // TARN_MONITOR_MESSAGE_OUTPUT_H
