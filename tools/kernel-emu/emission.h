// What one request (or one control-path change) makes the kernel send: the
// answer for the socket that asked and the notifications for every socket
// listening for the type. Families describe their answers and changes as
// records; this class encodes them and addresses them, so the families stay
// free of sockets and encodings.
#ifndef TARN_KERNEL_EMU_EMISSION_H
#define TARN_KERNEL_EMU_EMISSION_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "emu_log.h"
#include "socket_state.h"

namespace tarn::kemu {

// One message for one socket.
struct Outgoing {
    uint64_t socket;
    std::vector<uint8_t> bytes;
    bool notification;  // may be dropped when the socket's queue is full
};

enum class Encoding { kTlv, kIdr };

// An envelope holding `record` (which begins with its routing-socket
// header; its type names the member). `map` is the record's TLV presence map
// and is ignored for IDR.
std::vector<uint8_t> encode_envelope(const void *record, const void *map, Encoding enc);

class Emission {
public:
    using Sockets = std::map<uint64_t, Socket>;

    // `requester` 0: a control-path change, which nobody asked for and
    // whose answers go nowhere.
    Emission(Sockets &sockets, const EmuLog &log, uint64_t requester, Encoding enc)
        : sockets_(sockets), log_(log), requester_(requester), enc_(enc)
    {
    }

    // The answer to the requester, in the request's encoding. Answers are
    // queued before any notification of the same request, so a requester that
    // also listens reads its answer first.
    void answer(const void *record, const void *map);
    void answer_raw(std::vector<uint8_t> &&msg);

    // A state change: `record` goes to every socket whose listen mask selects
    // its type, each copy with that socket's next sequence number in its
    // header (which is written into `record`).
    void notify(void *record, const void *map);

    // Whether any socket listens for type `type`: a family may skip building
    // a notification nobody would get.
    bool listened(unsigned type) const;

    // A raw or enveloped message to every listener of its type; raw ones get
    // each socket's sequence number at header offset 12, envelopes go as
    // they are. False when the message is too short to have a type.
    bool notify_bytes(const std::vector<uint8_t> &msg);

    std::vector<Outgoing> take() { return std::move(out_); }

private:
    Sockets &sockets_;
    const EmuLog &log_;
    uint64_t requester_;
    Encoding enc_;
    std::vector<Outgoing> out_;
    Socket *requesting_socket();
};

// The message type of a raw message or envelope; -1 when it is too short.
int64_t message_type(const uint8_t *msg, size_t len);

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_EMISSION_H
