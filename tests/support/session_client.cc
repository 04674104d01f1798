#include "session_client.h"

#include <poll.h>

#include <cerrno>
#include <cstring>

namespace tarn::test {
namespace {

SessionSeen &seen_of(tarn_session_handle *s)
{
    return *static_cast<SessionSeen *>(tarn_session_return_context(s));
}

const tarn_session_funs kFuns = [] {
    tarn_session_funs f{};
    f.tsf_connection_status = [](tarn_session_handle *s, int, int status) { seen_of(s).status = status; };
    f.tsf_connection_lost = [](tarn_session_handle *s, int, int) { ++seen_of(s).losses; };
    f.tsf_protocol_register = [](tarn_session_handle *s, uint32_t, uint16_t, uint32_t gw,
                                 uint32_t result) {
        seen_of(s).gw = gw;
        seen_of(s).reg_result = result;
    };
    f.tsf_rt_add = [](tarn_session_handle *s, uint32_t, uint32_t result, const uint32_t *, uint16_t) {
        seen_of(s).add_result = result;
        ++seen_of(s).adds;
    };
    f.tsf_rt_delete = [](tarn_session_handle *s, uint32_t, uint32_t result) {
        seen_of(s).delete_result = result;
        ++seen_of(s).deletes;
    };
    f.tsf_rt_record = [](tarn_session_handle *s, const tarn_rt_record *r, size_t) {
        seen_of(s).flash_kinds.push_back(r->rr_change);
    };
    f.tsf_rt_table_locate = [](tarn_session_handle *s, uint32_t table, uint32_t, uint32_t) {
        seen_of(s).table = table;
    };
    f.tsf_local_as = [](tarn_session_handle *s, const tarn_local_as_reply *r) { seen_of(s).as = r->la_local_as; };
    f.tsf_flash_register = [](tarn_session_handle *s, const tarn_flash_register_reply *r, size_t) {
        seen_of(s).flash_result = r->fr_result;
    };
    return f;
}();

}  // namespace

SessionClient::SessionClient(const std::string &path)
{
    if (tarn_session_handle_alloc(&s_, &kFuns) != 0) {
        s_ = nullptr;
        return;
    }
    tarn_session_set_context(s_, &seen_);
    std::vector<uint8_t> addr(2 + path.size() + 1);
    addr[0] = static_cast<uint8_t>(addr.size());
    addr[1] = TARN_CONNECT_KIND_LOCAL;
    std::memcpy(addr.data() + 2, path.c_str(), path.size() + 1);
    tarn_session_connect(s_, addr.data(), 0);
}

SessionClient::~SessionClient()
{
    tarn_session_handle_free(s_);
}

int SessionClient::next(int wait_ms)
{
    if (s_ == nullptr) return EINVAL;
    pollfd p{tarn_session_handle_descriptor(s_), POLLIN, 0};
    for (;;) {
        if (tarn_session_reply_get(s_) == 0) return 0;
        if (errno != EAGAIN && errno != ENOMSG) return errno;
        if (::poll(&p, 1, wait_ms) != 1) return ETIMEDOUT;
    }
}

bool SessionClient::start(const char *name)
{
    if (next() != 0 || seen_.status != TARN_CONNECT_ACCEPTED) return false;
    if (tarn_client_identify(s_, name) != 0 || tarn_session_protocol_register(s_, name, nullptr, 1, 2) != 0)
        return false;
    return next() == 0 && seen_.reg_result == 0;
}

tarn_rt_request SessionClient::route(uint32_t host) const
{
    tarn_rt_request rq{};
    rq.rt_gw_handle = seen_.gw;
    rq.rt_family = TARN_FAMILY_INET;
    rq.rt_prefix_len = 32;
    rq.rt_prefix[0] = 11;
    rq.rt_prefix[1] = static_cast<uint8_t>(host >> 16);
    rq.rt_prefix[2] = static_cast<uint8_t>(host >> 8);
    rq.rt_prefix[3] = static_cast<uint8_t>(host);
    rq.rt_nh_count = 1;
    rq.rt_nexthops[0].nh_ifl_index = 2;
    rq.rt_nexthops[0].nh_family = TARN_FAMILY_INET;
    return rq;
}

}  // namespace tarn::test
