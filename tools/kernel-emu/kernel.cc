#include "kernel.h"

#include <cerrno>
#include <cstring>

#include "libtarn/rtslib/msg_types.h"
#include <tarn/rtslib.h>
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

}  // namespace

std::string option_name(int optname)
{
    const OptionInfo *o = find_option(optname);
    return o != nullptr ? o->name : "option " + std::to_string(optname);
}

Kernel::Kernel(const EmuConfig &cfg, const EmuLog &log, Outbox &outbox)
    : cfg_(cfg), log_(log), outbox_(outbox)
{
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
    if (len < RTS_HDR_MIN_LEN) {
        log_.line("socket %llu: message of %zu bytes, shorter than a header, dropped",
                  static_cast<unsigned long long>(sock.id), len);
        return;
    }
    const uint8_t type = msg[RTS_HDR_TYPE_OFF];
    log_.line("socket %llu: message type %u (%s) op %u, %zu bytes, seq %u",
              static_cast<unsigned long long>(sock.id), type,
              type < RTS_MSG_TYPE_COUNT ? rtm_types[type] : "?", msg[RTS_HDR_OP_OFF], len,
              get_u32(msg + RTS_HDR_SEQ_OFF));
}

}  // namespace tarn::kemu
