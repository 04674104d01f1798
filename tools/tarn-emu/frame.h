// Frames on a client connection (header in host order, then the payload)
// and the big-endian field access the payloads need.
#ifndef TARN_TARN_EMU_FRAME_H
#define TARN_TARN_EMU_FRAME_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarn::temu {

struct Frame {
    uint16_t type = 0;
    std::vector<uint8_t> payload;
};

// Header and payload as they go on the wire, for bytes sent around the
// pipe (scripted faults, tests).
std::vector<uint8_t> encode_frame(uint16_t type, const std::vector<uint8_t> &payload);

// Reads fields at an offset; the caller checked the length.
inline uint32_t get32(const uint8_t *p, size_t off)
{
    return uint32_t{p[off]} << 24 | uint32_t{p[off + 1]} << 16 | uint32_t{p[off + 2]} << 8 |
           p[off + 3];
}
inline uint16_t get16(const uint8_t *p, size_t off)
{
    return static_cast<uint16_t>(p[off] << 8 | p[off + 1]);
}

// Builds a payload field by field, in network order.
class PayloadWriter {
public:
    PayloadWriter &u32(uint32_t v)
    {
        for (int s = 24; s >= 0; s -= 8) out_.push_back(static_cast<uint8_t>(v >> s));
        return *this;
    }
    PayloadWriter &u16(uint32_t v)
    {
        out_.push_back(static_cast<uint8_t>(v >> 8));
        out_.push_back(static_cast<uint8_t>(v));
        return *this;
    }
    PayloadWriter &u8(uint32_t v)
    {
        out_.push_back(static_cast<uint8_t>(v));
        return *this;
    }
    PayloadWriter &bytes(const uint8_t *p, size_t n)
    {
        out_.insert(out_.end(), p, p + n);
        return *this;
    }
    PayloadWriter &zeros(size_t n)
    {
        out_.insert(out_.end(), n, 0);
        return *this;
    }
    std::vector<uint8_t> take() { return std::move(out_); }

private:
    std::vector<uint8_t> out_;
};

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_FRAME_H
