// What the kernel keeps per routing socket: the options a client set, the
// socket's own notification sequence counter, scripted faults, and the queue
// of messages waiting for the client to read them.
#ifndef TARN_KERNEL_EMU_SOCKET_STATE_H
#define TARN_KERNEL_EMU_SOCKET_STATE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <tarn/rtsock_wire.h>

namespace tarn::kemu {

// Notifications a socket may have waiting before further ones are dropped.
inline constexpr size_t kDefaultQueueBound = 4096;

struct SocketState {
    uint64_t id = 0;       // connection number, for logs and dumps
    std::string name;      // the client's abstract socket name
    uint8_t sender_id = 0;
    uint16_t lr_id = 0;
    uint64_t listen_mask = 0;  // low word in bits 0-31, high word in bits 32-63
    std::array<uint8_t, ROUTE_LISTEN_SUBTYPES_LEN> subtypes{};
    std::array<uint8_t, ROUTE_FILTER_DATA_LEN> filters{};
    uint32_t async_mode = 0;
    uint32_t slave_mode = 0;
    uint32_t master_mode = 0;
    uint32_t local_slave_mode = 0;
    // The sequence number the next notification to this socket carries
    // (option 3 reads it).
    uint32_t kernel_seq = 1;
    uint32_t drop_replies = 0;  // answers still to be dropped (a scripted fault)
};

// Messages waiting for one client. Answers are always queued; notifications
// are dropped and counted once `bound` messages wait, so a listener that
// stops reading costs the emulator a bounded amount of memory and never
// holds up anyone else.
class OutQueue {
public:
    // False when the message was a notification and the queue was full.
    bool push(std::vector<uint8_t> &&msg, bool notification)
    {
        if (notification && msgs_.size() >= bound) {
            ++dropped;
            return false;
        }
        msgs_.push_back(std::move(msg));
        return true;
    }
    bool empty() const { return msgs_.empty(); }
    const std::vector<uint8_t> &front() const { return msgs_.front(); }
    void pop() { msgs_.pop_front(); }
    size_t size() const { return msgs_.size(); }

    size_t bound = kDefaultQueueBound;
    uint64_t dropped = 0;
    bool paused = false;  // a scripted stalled reader: nothing is sent while set

private:
    std::deque<std::vector<uint8_t>> msgs_;
};

struct Socket {
    SocketState state;
    OutQueue queue;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_SOCKET_STATE_H
