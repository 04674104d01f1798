// The kernel's interface-state clients (message type 47): daemons register
// by name, up to the limit the sysctl hw.product.ifs_max_clients reads, and
// read the list back. Raw messages, little-endian:
//   24 u32 client id, 28 u32 client limit, 32 u32 client count (both filled
//   by the kernel), 36..67 client name, NUL-padded.
// Add (op 1) answers with the new id (EAGAIN at the limit, EEXIST for a name
// already registered); delete (op 3) by id answers (ENOENT when unknown);
// get (op 4) answers the fixed part followed by one 36-byte record per
// client (id, name). The error goes in the header word at offset 16.
#ifndef TARN_KERNEL_EMU_IFSTATE_H
#define TARN_KERNEL_EMU_IFSTATE_H

#include <cstdint>
#include <map>
#include <string>

#include "emission.h"

namespace tarn::kemu {

inline constexpr uint16_t kIfStateFixed = 68;
inline constexpr uint32_t kIfStateNameLen = 32;

class IfStateClients {
public:
    // A malformed request gets no answer.
    void request(const uint8_t *req, uint32_t len, uint32_t limit, Emission &out);
    const std::map<uint32_t, std::string> &clients() const { return clients_; }

private:
    std::map<uint32_t, std::string> clients_;
    uint32_t next_id_ = 1;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_IFSTATE_H
