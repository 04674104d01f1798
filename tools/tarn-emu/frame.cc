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

void FrameReader::append(const uint8_t *data, size_t len)
{
    // Consumed bytes are dropped only when they are most of the buffer, so
    // a stream of small frames costs no quadratic copying.
    if (start_ > 0 && start_ * 2 >= buf_.size()) {
        buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    buf_.insert(buf_.end(), data, data + len);
}

FrameReader::Next FrameReader::next(Frame &out)
{
    if (buffered() < wire::kHeaderLen) return Next::kNeedMore;
    const uint8_t *h = buf_.data() + start_;
    uint16_t type = 0, len = 0;
    std::memcpy(&type, h + 2, sizeof type);
    std::memcpy(&len, h + 4, sizeof len);
    if (len > wire::kMaxPayload) return Next::kOversized;
    if (buffered() < wire::kHeaderLen + len) return Next::kNeedMore;
    out.type = type;
    out.payload.assign(h + wire::kHeaderLen, h + wire::kHeaderLen + len);
    start_ += wire::kHeaderLen + len;
    return Next::kFrame;
}

}  // namespace tarn::temu
