#include "kernel.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sstream>

#include "libtarn/rtslib/msg_types.h"
#include "libtarn/rtslib/wire.h"
#include <tarn/idl.h>
#include <tarn/rtslib.h>
#include <tarn/rtslib_msg.h>
#include <tarn/rtsock_wire.h>

namespace tarn::kemu {
namespace {

struct OptionInfo {
    int optname;
    const char *name;
    uint32_t size;  // exact length a set must have
    bool settable;
};

// The level-17 options the kernel keeps per socket.
constexpr OptionInfo kOptions[] = {
    {ROUTE_LISTEN_MASK, "listen-mask", 8, true},
    {ROUTE_KERNEL_SEQ, "kernel-seq", 4, false},
    {ROUTE_SENDER_ID, "sender-id", 1, true},
    {ROUTE_VERSION_INFO, "version-info", RTS_VERSION_INFO_MAX, false},
    {ROUTE_ASYNC_MODE, "async-mode", 4, true},
    {ROUTE_SLAVE_MODE, "slave-mode", 4, true},
    {ROUTE_LISTEN_SUBTYPES, "listen-subtypes", ROUTE_LISTEN_SUBTYPES_LEN, true},
    {ROUTE_FILTERS, "filters", ROUTE_FILTERS_LEN, true},
    {ROUTE_MASTER_MODE, "master-mode", 4, true},
    {ROUTE_LOCAL_SLAVE_MODE, "local-slave-mode", 4, true},
    {ROUTE_LR_ID, "lr-id", 2, true},
};

const OptionInfo *find_option(int optname)
{
    for (const auto &o : kOptions)
        if (o.optname == optname) return &o;
    return nullptr;
}

void put_u32(std::vector<uint8_t> &out, uint32_t v)
{
    out.resize(sizeof v);
    std::memcpy(out.data(), &v, sizeof v);
}

uint32_t get_u32(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

constexpr size_t kArenaStart = 64 * 1024;
constexpr size_t kArenaMax = 8 * 1024 * 1024;

// Presence maps for TLV answers: every field the kernel fills.
constexpr uint32_t kHdrBits = (1u << RTS_HDR_BIT_INFO) - 1;

// Library reports about what clients sent end up in the emulator's log.
int log_sink(rtslib_cookie *, void *arg, int, const char *text)
{
    static_cast<const EmuLog *>(arg)->line("codec: %s", text);
    return 0;
}

}  // namespace

std::string option_name(int optname)
{
    const OptionInfo *o = find_option(optname);
    return o != nullptr ? o->name : "option " + std::to_string(optname);
}

Kernel::Kernel(const EmuConfig &cfg, const EmuLog &log, Outbox &outbox)
    : cfg_(cfg), log_(log), outbox_(outbox), codec_(rtslib_open_nc()), arena_(kArenaStart),
      tx_(RTS_MSG_MAX)
{
    rtslib_lib_error_register(codec_, const_cast<EmuLog *>(&log_), log_sink);
    // Byte 0 is whatever type count is configured, but a version byte is
    // always present for every type the library knows.
    version_block_.assign(2 + (RTS_MSG_TYPE_COUNT - 1), 0);
    version_block_[RTS_VERSION_INFO_NTYPES] = static_cast<uint8_t>(cfg.types);
    version_block_[RTS_VERSION_INFO_IFVERSION] = static_cast<uint8_t>(cfg.interface_version);
    for (int t = 1; t < RTS_MSG_TYPE_COUNT; ++t) {
        auto it = cfg.type_versions.find(t);
        version_block_[1 + t] =
            static_cast<uint8_t>(it != cfg.type_versions.end() ? it->second : kExpectedMsgVersion[t]);
    }
}

Kernel::~Kernel()
{
    rtslib_close(codec_);
}

int Kernel::get_option(RouteSocket &sock, int level, int optname,
                       std::vector<uint8_t> &value) const
{
    if (level != TARN_SOL_ROUTE) return ENOPROTOOPT;
    const OptionInfo *info = find_option(optname);
    if (info == nullptr) return ENOPROTOOPT;
    const size_t capacity = value.size();

    std::vector<uint8_t> v;
    if (optname == ROUTE_VERSION_INFO) {
        v = version_block_;
    } else if (optname == ROUTE_KERNEL_SEQ) {
        put_u32(v, sock.kernel_seq);
    } else {
        auto it = sock.options.find(optname);
        v = it != sock.options.end() ? it->second : std::vector<uint8_t>(info->size, 0);
    }
    // Like getsockopt, the answer is cut to the caller's buffer.
    if (v.size() > capacity) v.resize(capacity);
    value = std::move(v);
    return 0;
}

int Kernel::set_option(RouteSocket &sock, int level, int optname, const uint8_t *value, size_t len)
{
    if (level != TARN_SOL_ROUTE) return ENOPROTOOPT;
    const OptionInfo *info = find_option(optname);
    if (info == nullptr) return ENOPROTOOPT;
    if (!info->settable || len != info->size) return EINVAL;
    if (cfg_.fail_options.count(optname) != 0) return EINVAL;
    sock.options[optname].assign(value, value + len);
    return 0;
}

int Kernel::sysctl_set(const std::string &name, const uint8_t *value, size_t len)
{
    // Writable nodes the router kernel has; others do not exist.
    static const char *const kWritable[] = {"debug.enable_kbt"};
    bool known = false;
    for (const char *n : kWritable) known = known || name == n;
    if (!known) return ENOENT;
    sysctls_[name].assign(value, value + len);
    std::string words;
    for (size_t i = 0; i + 4 <= len; i += 4)
        words += (i ? ", " : "") + std::to_string(static_cast<int32_t>(get_u32(value + i)));
    log_.line("sysctl %s = {%s}", name.c_str(), words.c_str());
    return 0;
}

void Kernel::handle_message(RouteSocket &sock, const uint8_t *msg, size_t len)
{
    const auto id = static_cast<unsigned long long>(sock.id);
    if (len >= 8 && wire::is_envelope(msg)) {
        const bool tlv = wire::load_u32(msg) == RTS_IDL_MAGIC_TLV;
        void *record = nullptr;
        void *map = nullptr;
        int rc;
        while ((rc = rtslib_msg_idl_decode_pa(codec_, msg, static_cast<uint32_t>(len), &record,
                                              tlv ? &map : nullptr, arena_.data(),
                                              static_cast<uint32_t>(arena_.size()))) == ENOMEM &&
               arena_.size() < kArenaMax)
            arena_.resize(arena_.size() * 2);
        if (rc != 0 || record == nullptr) {
            log_.line("socket %llu: envelope of %zu bytes not decoded (%s), dropped", id, len,
                      std::strerror(rc != 0 ? rc : EINVAL));
            return;
        }
        const auto &hdr = *static_cast<const rts_hdr_t *>(record);
        log_.line("socket %llu: %s message type %u (%s) op %u, %zu bytes, seq %u", id,
                  tlv ? "TLV" : "IDR", hdr.type, rtm_types[hdr.type], hdr.op, len, hdr.seq);
        dispatch(sock, hdr, record, tlv);
        return;
    }
    if (len < RTS_HDR_MIN_LEN) {
        log_.line("socket %llu: message of %zu bytes, shorter than a header, dropped", id, len);
        return;
    }
    const uint8_t type = msg[RTS_HDR_TYPE_OFF];
    log_.line("socket %llu: message type %u (%s) op %u, %zu bytes, seq %u", id, type,
              type < RTS_MSG_TYPE_COUNT ? rtm_types[type] : "?", msg[RTS_HDR_OP_OFF], len,
              get_u32(msg + RTS_HDR_SEQ_OFF));
    if (type != RTS_MSG_RTSTATS) return;
    const std::vector<uint8_t> ans = routing_.stats_request(msg, static_cast<uint32_t>(len));
    if (ans.empty()) return;
    if (sock.drop_replies > 0) {
        --sock.drop_replies;
        log_.line("socket %llu: answer dropped", id);
        return;
    }
    outbox_.deliver(sock, ans.data(), ans.size());
}

void Kernel::dispatch(RouteSocket &sock, const rts_hdr_t &hdr, void *record, bool tlv)
{
    switch (hdr.type) {
    case RTS_MSG_ROUTE: {
        rt_msg_t ans;
        if (!routing_.route_request(*static_cast<rt_msg_t *>(record), ans)) return;
        rt_msg_map_t map{};
        idl_sockaddr_gen_map_t source_map{0x3ff};
        map.bits = ((1u << RT_MSG_BIT_COS) - 1) & ~(1u << RT_MSG_BIT_CHANGED);
        map.hdr.bits = kHdrBits;
        map.source = &source_map;
        answer(sock, &ans, tlv ? &map : nullptr);
        return;
    }
    case RTS_MSG_RTTABLE: {
        rtb_msg_t ans;
        if (!routing_.table_request(*static_cast<rtb_msg_t *>(record), ans)) return;
        rtb_msg_map_t map{};
        map.bits = (1u << RTB_MSG_BIT_SEQ) - 1;
        map.hdr.bits = kHdrBits;
        answer(sock, &ans, tlv ? &map : nullptr);
        return;
    }
    case RTS_MSG_MGROUP: {
        mgr_msg_t ans;
        if (!routing_.mgroup_request(*static_cast<mgr_msg_t *>(record), ans)) return;
        mgr_msg_map_t map{};
        map.bits = (1u << (MGR_MSG_BIT_IIF_INDEX + 1)) - 1;
        map.hdr.bits = kHdrBits;
        answer(sock, &ans, tlv ? &map : nullptr);
        return;
    }
    default:
        return;
    }
}

// Answers in the encoding the request used: TLV when a map is given. The
// answer is encoded into a buffer kept across answers.
void Kernel::answer(RouteSocket &sock, const void *record, const void *map)
{
    const auto id = static_cast<unsigned long long>(sock.id);
    if (sock.drop_replies > 0) {
        --sock.drop_replies;
        log_.line("socket %llu: answer dropped", id);
        return;
    }
    rts_msg_t env{static_cast<const rts_hdr_t *>(record)->type, const_cast<void *>(record)};
    rts_msg_map_t env_map{const_cast<void *>(map)};
    auto encode = [&] {
        const auto cap = static_cast<uint32_t>(tx_.size());
        return map != nullptr ? tlv_encode_rts_msg_0(&env, &env_map, tx_.data(), cap)
                              : idr_encode_rts_msg_0(&env, tx_.data(), cap);
    };
    uint32_t len = encode();
    if (len > tx_.size()) {
        tx_.resize(len);
        len = encode();
    }
    const int err = outbox_.deliver(sock, tx_.data(), len);
    if (err != 0) log_.line("socket %llu: answer not delivered: %s", id, std::strerror(err));
}

int Kernel::command(RouteSocket *sock, const std::string &text, std::string &out)
{
    std::istringstream in(text);
    std::string verb;
    in >> verb;
    if (verb == "dump") {
        out = routing_.dump();
        return 0;
    }
    if (verb == "count") {
        out = "routes " + std::to_string(routing_.route_count()) + "\n";
        return 0;
    }
    if (verb == "drop-replies") {
        uint32_t n = 0;
        if (sock == nullptr || !(in >> n)) return EINVAL;
        sock->drop_replies = n;
        return 0;
    }
    if (verb == "mgroup-add") {
        unsigned tid = 0, af = 0, bits = 0, iif = 0;
        std::string hexbytes;
        if (!(in >> tid >> af >> hexbytes >> bits >> iif) || hexbytes.size() % 2 != 0)
            return EINVAL;
        std::vector<uint8_t> group;
        for (size_t i = 0; i < hexbytes.size(); i += 2) {
            const std::string pair = hexbytes.substr(i, 2);
            char *end = nullptr;
            const unsigned long byte = std::strtoul(pair.c_str(), &end, 16);
            if (end != pair.c_str() + 2) return EINVAL;
            group.push_back(static_cast<uint8_t>(byte));
        }
        PrefixKey key;
        if (!make_prefix_key(group.data(), static_cast<uint32_t>(group.size()),
                             static_cast<uint16_t>(bits), key))
            return EINVAL;
        routing_.add_mgroup(static_cast<uint16_t>(tid), static_cast<uint8_t>(af), key, iif);
        return 0;
    }
    return EOPNOTSUPP;
}

}  // namespace tarn::kemu
