#include "kernel.h"

#include <cerrno>
#include <cstring>

#include <tarn/idl.h>
#include <tarn/rtslib.h>
#include <tarn/rtslib_msg.h>
#include <tarn/rtsock_wire.h>

#include "wire_bytes.h"

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

constexpr uint8_t kDefaultVersions[RTS_MSG_TYPE_COUNT] = RTS_MSG_VERSIONS_INIT;

const OptionInfo *find_option(int optname)
{
    for (const auto &o : kOptions)
        if (o.optname == optname) return &o;
    return nullptr;
}

template <typename T>
void append(std::vector<uint8_t> &out, const T &v)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&v);
    out.insert(out.end(), p, p + sizeof v);
}

template <typename T>
T load(const uint8_t *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The option's value as the socket holds it (both ends are little-endian,
// like the target).
std::vector<uint8_t> option_value(const SocketState &s, int optname)
{
    std::vector<uint8_t> v;
    switch (optname) {
    case ROUTE_LISTEN_MASK: append(v, s.listen_mask); break;
    case ROUTE_KERNEL_SEQ: append(v, s.kernel_seq); break;
    case ROUTE_SENDER_ID: append(v, s.sender_id); break;
    case ROUTE_ASYNC_MODE: append(v, s.async_mode); break;
    case ROUTE_SLAVE_MODE: append(v, s.slave_mode); break;
    case ROUTE_LISTEN_SUBTYPES: append(v, s.subtypes); break;
    case ROUTE_FILTERS:
        append(v, s.listen_mask);
        append(v, s.filters);
        break;
    case ROUTE_MASTER_MODE: append(v, s.master_mode); break;
    case ROUTE_LOCAL_SLAVE_MODE: append(v, s.local_slave_mode); break;
    case ROUTE_LR_ID: append(v, s.lr_id); break;
    default: break;
    }
    return v;
}

// `value` has the option's exact size.
void store_option(SocketState &s, int optname, const uint8_t *value)
{
    switch (optname) {
    case ROUTE_LISTEN_MASK: s.listen_mask = load<uint64_t>(value); break;
    case ROUTE_SENDER_ID: s.sender_id = value[0]; break;
    case ROUTE_ASYNC_MODE: s.async_mode = load<uint32_t>(value); break;
    case ROUTE_SLAVE_MODE: s.slave_mode = load<uint32_t>(value); break;
    case ROUTE_LISTEN_SUBTYPES: std::memcpy(s.subtypes.data(), value, s.subtypes.size()); break;
    case ROUTE_FILTERS:
        // The filter block carries the listen mask it applies to: setting
        // it sets the mask as well.
        s.listen_mask = load<uint64_t>(value);
        std::memcpy(s.filters.data(), value + 8, s.filters.size());
        break;
    case ROUTE_MASTER_MODE: s.master_mode = load<uint32_t>(value); break;
    case ROUTE_LOCAL_SLAVE_MODE: s.local_slave_mode = load<uint32_t>(value); break;
    case ROUTE_LR_ID: s.lr_id = load<uint16_t>(value); break;
    default: break;
    }
}

constexpr const char *kIfsMaxClients = "hw.product.ifs_max_clients";
constexpr int32_t kNetRtIflist = 3;
constexpr uint8_t kIffStatsType = 70;  // family statistics

constexpr size_t kArenaStart = 64 * 1024;
constexpr size_t kArenaMax = 8 * 1024 * 1024;

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

Kernel::Kernel(const EmuConfig &cfg, const EmuLog &log)
    : cfg_(cfg), log_(log), ifs_max_clients_(cfg.ifs_max_clients), codec_(rtslib_open_nc()),
      arena_(kArenaStart)
{
    // Nobody listens yet: the starting set is built without notifications.
    Emission quiet(sockets_, log_, 0, Encoding::kIdr);
    for (const IfChange &c : cfg.interfaces_file.empty() ? default_interfaces() : cfg.interfaces)
        interfaces_.apply(c, quiet);
    rtslib_lib_error_register(codec_, const_cast<EmuLog *>(&log_), log_sink);
    // Byte 0 is whatever type count is configured, but a version byte is
    // always present for every type the library knows.
    version_block_.assign(2 + (RTS_MSG_TYPE_COUNT - 1), 0);
    version_block_[RTS_VERSION_INFO_NTYPES] = static_cast<uint8_t>(cfg.types);
    version_block_[RTS_VERSION_INFO_IFVERSION] = static_cast<uint8_t>(cfg.interface_version);
    for (int t = 1; t < RTS_MSG_TYPE_COUNT; ++t) {
        auto it = cfg.type_versions.find(t);
        version_block_[1 + t] =
            static_cast<uint8_t>(it != cfg.type_versions.end() ? it->second : kDefaultVersions[t]);
    }
}

Kernel::~Kernel()
{
    rtslib_close(codec_);
}

uint64_t Kernel::open_socket(const std::string &name)
{
    const uint64_t id = next_id_++;
    Socket &s = sockets_[id];
    s.state.id = id;
    s.state.name = name;
    s.queue.bound = cfg_.queue_bound;
    return id;
}

void Kernel::close_socket(uint64_t id)
{
    sockets_.erase(id);
}

Socket *Kernel::socket(uint64_t id)
{
    auto it = sockets_.find(id);
    return it == sockets_.end() ? nullptr : &it->second;
}

Socket *Kernel::find_socket(const std::string &name)
{
    for (auto &[id, s] : sockets_)
        if (s.state.name == name) return &s;
    return nullptr;
}

int Kernel::get_option(const SocketState &sock, int level, int optname,
                       std::vector<uint8_t> &value) const
{
    if (level != TARN_SOL_ROUTE) return ENOPROTOOPT;
    if (find_option(optname) == nullptr) return ENOPROTOOPT;
    const size_t capacity = value.size();
    value = optname == ROUTE_VERSION_INFO ? version_block_ : option_value(sock, optname);
    // Like getsockopt, the answer is cut to the caller's buffer.
    if (value.size() > capacity) value.resize(capacity);
    return 0;
}

int Kernel::set_option(SocketState &sock, int level, int optname, const uint8_t *value,
                       size_t len)
{
    if (level != TARN_SOL_ROUTE) return ENOPROTOOPT;
    const OptionInfo *info = find_option(optname);
    if (info == nullptr) return ENOPROTOOPT;
    if (!info->settable || len != info->size) return EINVAL;
    if (cfg_.fail_options.count(optname) != 0) return EINVAL;
    store_option(sock, optname, value);
    return 0;
}

int Kernel::sysctl_set(const std::string &name, const uint8_t *value, size_t len)
{
    // Writable nodes the router kernel has; others do not exist.
    if (name == kIfsMaxClients) {
        if (len != sizeof ifs_max_clients_) return EINVAL;
        std::memcpy(&ifs_max_clients_, value, len);
        log_.line("sysctl %s = %u", name.c_str(), ifs_max_clients_);
        return 0;
    }
    static const char *const kWritable[] = {"debug.enable_kbt"};
    bool known = false;
    for (const char *n : kWritable) known = known || name == n;
    if (!known) return ENOENT;
    sysctls_[name].assign(value, value + len);
    std::string words;
    for (size_t i = 0; i + 4 <= len; i += 4)
        words += (i ? ", " : "") + std::to_string(static_cast<int32_t>(load_u32(value + i)));
    log_.line("sysctl %s = {%s}", name.c_str(), words.c_str());
    return 0;
}

int Kernel::sysctl_get(const std::string &name, std::vector<uint8_t> &value) const
{
    if (name == kIfsMaxClients) {
        value.resize(sizeof ifs_max_clients_);
        std::memcpy(value.data(), &ifs_max_clients_, sizeof ifs_max_clients_);
        return 0;
    }
    auto it = sysctls_.find(name);
    if (it == sysctls_.end()) return ENOENT;
    value = it->second;
    return 0;
}

int Kernel::route_sysctl(const int32_t *mib, size_t words, std::vector<uint8_t> &table) const
{
    if (words != 4 || mib[0] != 0 || mib[1] != 0 || mib[2] != kNetRtIflist) return EINVAL;
    return interfaces_.iflist(mib[3], table) ? 0 : EINVAL;
}

std::vector<Outgoing> Kernel::handle_message(uint64_t id, const uint8_t *msg, size_t len)
{
    const auto lid = static_cast<unsigned long long>(id);
    if (len >= 8 && is_envelope(msg)) {
        const bool tlv = load_u32(msg) == RTS_IDL_MAGIC_TLV;
        void *record = nullptr;
        void *map = nullptr;
        int rc;
        while ((rc = rtslib_msg_idl_decode_pa(codec_, msg, static_cast<uint32_t>(len), &record,
                                              tlv ? &map : nullptr, arena_.data(),
                                              static_cast<uint32_t>(arena_.size()))) == ENOMEM &&
               arena_.size() < kArenaMax)
            arena_.resize(arena_.size() * 2);
        if (rc != 0 || record == nullptr) {
            log_.line("socket %llu: envelope of %zu bytes not decoded (%s), dropped", lid, len,
                      std::strerror(rc != 0 ? rc : EINVAL));
            return {};
        }
        const auto &hdr = *static_cast<const rts_hdr_t *>(record);
        // The member was decoded by the envelope's type; a header claiming
        // another one would have the record handled as the wrong kind.
        if (message_type(msg, len) != hdr.type) {
            log_.line("socket %llu: envelope of type %lld holds a header of type %u, dropped", lid,
                      static_cast<long long>(message_type(msg, len)), hdr.type);
            return {};
        }
        log_.line("socket %llu: %s message type %u (%s) op %u, %zu bytes, seq %u", lid,
                  tlv ? "TLV" : "IDR", hdr.type,
                  hdr.type < RTS_MSG_TYPE_COUNT ? rtm_types[hdr.type] : "?", hdr.op, len, hdr.seq);
        Emission out(sockets_, log_, id, tlv ? Encoding::kTlv : Encoding::kIdr);
        dispatch(record, out);
        return out.take();
    }
    if (len < RTS_HDR_MIN_LEN) {
        log_.line("socket %llu: message of %zu bytes, shorter than a header, dropped", lid, len);
        return {};
    }
    const uint8_t type = msg[RTS_HDR_TYPE_OFF];
    log_.line("socket %llu: message type %u (%s) op %u, %zu bytes, seq %u", lid, type,
              type < RTS_MSG_TYPE_COUNT ? rtm_types[type] : "?", msg[RTS_HDR_OP_OFF], len,
              load_u32(msg + RTS_HDR_SEQ_OFF));
    Emission out(sockets_, log_, id, Encoding::kIdr);
    const auto n = static_cast<uint32_t>(len);
    switch (type) {
    case RTS_MSG_RTSTATS: routing_.stats_request(msg, n, out); break;
    case RTS_MSG_IFDSTATS:
    case RTS_MSG_IFLSTATS:
    case kIffStatsType: interfaces_.stats_request(msg, n, out); break;
    case RTS_MSG_IFSTATE: ifstate_.request(msg, n, ifs_max_clients_, out); break;
    default: break;
    }
    return out.take();
}

// The families that travel as envelopes, by message type.
void Kernel::dispatch(const void *record, Emission &out)
{
    switch (static_cast<const rts_hdr_t *>(record)->type) {
    case RTS_MSG_ROUTE: return routing_.route_request(*static_cast<const rt_msg_t *>(record), out);
    case RTS_MSG_RTTABLE: return routing_.table_request(*static_cast<const rtb_msg_t *>(record), out);
    case RTS_MSG_MGROUP: return routing_.mgroup_request(*static_cast<const mgr_msg_t *>(record), out);
    case RTS_MSG_IFDEV:
        return interfaces_.device_request(*static_cast<const ifdev_msg_t *>(record), out);
    case RTS_MSG_IFLOGICAL:
        return interfaces_.logical_request(*static_cast<const ifl_msg_t *>(record), out);
    case RTS_MSG_IFFAMILY:
        return interfaces_.family_request(*static_cast<const iff_msg_t *>(record), out);
    case RTS_MSG_IFADDR:
        return interfaces_.address_request(*static_cast<const ifa_msg_t *>(record), out);
    case RTS_MSG_GENCFG: return gencfg_.request(*static_cast<const gencfg_msg_t *>(record), out);
    default: return;
    }
}

void Kernel::post(std::vector<Outgoing> &&msgs)
{
    for (auto &m : msgs) {
        Socket *s = socket(m.socket);
        if (s == nullptr) continue;
        const int64_t type = message_type(m.bytes.data(), m.bytes.size());
        if (!s->queue.push(std::move(m.bytes), m.notification))
            log_.line("socket %llu: queue full (%zu), notification type %lld dropped, %llu so far",
                      static_cast<unsigned long long>(m.socket), s->queue.bound,
                      static_cast<long long>(type), static_cast<unsigned long long>(s->queue.dropped));
    }
}

}  // namespace tarn::kemu
