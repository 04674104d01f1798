#include "emission.h"

#include <cstring>

#include <tarn/idl.h>

#include "listen_bits.h"
#include "wire_bytes.h"

namespace tarn::kemu {

std::vector<uint8_t> encode_envelope(const void *record, const void *map, Encoding enc)
{
    rts_msg_t env{static_cast<const rts_hdr_t *>(record)->type, const_cast<void *>(record)};
    rts_msg_map_t env_map{const_cast<void *>(map)};
    auto encode = [&](uint8_t *out, uint32_t cap) {
        return enc == Encoding::kTlv ? tlv_encode_rts_msg_0(&env, &env_map, out, cap)
                                     : idr_encode_rts_msg_0(&env, out, cap);
    };
    // A first pass with no room asks for the size.
    std::vector<uint8_t> bytes(encode(nullptr, 0));
    bytes.resize(encode(bytes.data(), static_cast<uint32_t>(bytes.size())));
    return bytes;
}

int64_t message_type(const uint8_t *msg, size_t len)
{
    if (len >= 4 && is_envelope(msg))
        return len >= RTS_IDL_ENVELOPE_HDR_LEN ? int64_t{load_u32(msg + 8)} : -1;
    return len > RTS_HDR_TYPE_OFF ? int64_t{msg[RTS_HDR_TYPE_OFF]} : -1;
}

Socket *Emission::requesting_socket()
{
    auto it = sockets_.find(requester_);
    return it == sockets_.end() ? nullptr : &it->second;
}

void Emission::answer_raw(std::vector<uint8_t> &&msg)
{
    Socket *s = requesting_socket();
    if (s == nullptr) return;
    if (s->state.drop_replies > 0) {
        --s->state.drop_replies;
        log_.line("socket %llu: answer dropped", static_cast<unsigned long long>(requester_));
        return;
    }
    out_.push_back({requester_, std::move(msg), false});
}

void Emission::answer(const void *record, const void *map)
{
    if (requesting_socket() != nullptr) answer_raw(encode_envelope(record, map, enc_));
}

void Emission::notify(void *record, const void *map)
{
    auto &hdr = *static_cast<rts_hdr_t *>(record);
    hdr.error = 0;
    for (auto &[id, s] : sockets_) {
        if (!selects(s.state.listen_mask, hdr.type)) continue;
        hdr.seq = s.state.kernel_seq++;
        out_.push_back({id, encode_envelope(record, map, enc_), true});
    }
}

bool Emission::listened(unsigned type) const
{
    for (const auto &[id, s] : sockets_)
        if (selects(s.state.listen_mask, type)) return true;
    return false;
}

bool Emission::notify_bytes(const std::vector<uint8_t> &msg)
{
    const int64_t type = message_type(msg.data(), msg.size());
    if (type < 0) return false;
    const bool raw = !is_envelope(msg.data());
    for (auto &[id, s] : sockets_) {
        if (type >= RTS_MSG_TYPE_COUNT || !selects(s.state.listen_mask, static_cast<unsigned>(type)))
            continue;
        std::vector<uint8_t> copy = msg;
        const uint32_t seq = s.state.kernel_seq++;
        if (raw && copy.size() >= RTS_HDR_SEQ_OFF + 4) store_u32(copy.data() + RTS_HDR_SEQ_OFF, seq);
        out_.push_back({id, std::move(copy), true});
    }
    return true;
}

}  // namespace tarn::kemu
