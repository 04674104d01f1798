#include "ifstate.h"

#include <cstring>
#include <vector>

#include <tarn/rtsock_wire.h>

#include "routing.h"
#include "wire_bytes.h"

namespace tarn::kemu {
namespace {

constexpr uint32_t kIdOff = 24, kLimitOff = 28, kCountOff = 32, kNameOff = 36;
constexpr uint32_t kErrAgain = 35;  // EAGAIN

}  // namespace

void IfStateClients::request(const uint8_t *req, uint32_t len, uint32_t limit, Emission &out)
{
    if (len < kIfStateFixed || load_u16(req + RTS_HDR_FIXED_LEN_OFF) != kIfStateFixed) return;
    const uint8_t op = req[RTS_HDR_OP_OFF];
    const uint32_t id = load_u32(req + kIdOff);
    const std::string name(reinterpret_cast<const char *>(req + kNameOff),
                           strnlen(reinterpret_cast<const char *>(req + kNameOff), kIfStateNameLen));
    std::vector<uint8_t> answer(req, req + kIfStateFixed);
    uint32_t error = 0;
    switch (op) {
    case RTS_OP_ADD: {
        bool taken = false;
        for (const auto &[i, n] : clients_) taken = taken || n == name;
        if (taken || name.empty()) {
            error = taken ? kErrExists : kErrInvalid;
        } else if (clients_.size() >= limit) {
            error = kErrAgain;
        } else {
            clients_[next_id_] = name;
            store_u32(answer.data() + kIdOff, next_id_++);
        }
        break;
    }
    case RTS_OP_DELETE:
        error = clients_.erase(id) != 0 ? 0 : kErrNoEntry;
        break;
    case RTS_OP_GET:
        for (const auto &[i, n] : clients_) {
            uint8_t rec[4 + kIfStateNameLen] = {};
            store_u32(rec, i);
            std::memcpy(rec + 4, n.data(), n.size());
            answer.insert(answer.end(), rec, rec + sizeof rec);
        }
        break;
    default:
        return;
    }
    store_u32(answer.data() + 16, error);
    store_u32(answer.data() + kLimitOff, limit);
    store_u32(answer.data() + kCountOff, static_cast<uint32_t>(clients_.size()));
    store_u32(answer.data() + RTS_HDR_LEN_OFF, static_cast<uint32_t>(answer.size()));
    out.answer_raw(std::move(answer));
}

}  // namespace tarn::kemu
