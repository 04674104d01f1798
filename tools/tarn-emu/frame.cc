#include "frame.h"

#include <cstring>

#include "wire.h"

namespace tarn::temu {

std::vector<uint8_t> encode_frame(uint16_t type, const std::vector<uint8_t> &payload)
{
    std::vector<uint8_t> out(wire::kHeaderLen + payload.size());
    const uint16_t len = static_cast<uint16_t>(payload.size());
    std::memcpy(out.data() + 2, &type, sizeof type);
    std::memcpy(out.data() + 4, &len, sizeof len);
    if (!payload.empty()) std::memcpy(out.data() + wire::kHeaderLen, payload.data(), payload.size());
    return out;
}
}  // namespace tarn::temu
