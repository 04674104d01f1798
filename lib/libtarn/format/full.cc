// The hand-laid dumps: devices, routing-socket statistics and socket
// addresses.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <tarn/rtsock_wire.h>

#include "libtarn/format/format_internal.h"

namespace tarn::format {
namespace {

constexpr uint8_t kAfLink = 18;  // link-layer addresses, in the kernel's numbering

// "label:" and tabs up to the value column, then the value in hex.
void hex_line(Cursor &c, const char *label, unsigned value)
{
    int len = static_cast<int>(std::strlen(label)) + 1;
    c.add("%s:%s0x%x\n", label, len < 8 ? "\t\t\t" : len < 16 ? "\t\t" : "\t", value);
}

void address_list(Cursor &c, const char *label, idl_sockaddr_gen_t *const *addrs, uint32_t n)
{
    char text[96];
    if (!addrs || n == 0) {
        c.add("%s: NA \n", label);
        return;
    }
    for (uint32_t i = 0; i < n && c.ok(); ++i) {
        if (c.left < kListReserve) {
            c.add("%s", kTruncated);
            c.cut = true;
            return;
        }
        c.add("%s: %s\n", label, rtslib_format_sockaddr(addrs[i], text, sizeof text));
    }
}

}  // namespace

void ifdm_full(Cursor &c, const ifdev_msg_t *m)
{
    const rts_hdr_t &h = m->hdr;
    hex_line(c, "ifdm_msglen", h.msglen);
    hex_line(c, "ifdm_version", h.version);
    hex_line(c, "ifdm_type", h.type);
    hex_line(c, "ifdm_op", h.op);
    hex_line(c, "ifdm_seq", h.seq);
    hex_line(c, "ifdm_error", h.error);
    hex_line(c, "ifdm_hdrlen", h.hdrlen);
    hex_line(c, "ifdm_index", m->ifdm_index);
    hex_line(c, "ifdm_dinfotype", m->ifdm_dinfotype);
    hex_line(c, "ifdm_devflags", m->ifdm_devflags);
    hex_line(c, "ifdm_flags", m->ifdm_flags);
    hex_line(c, "ifdm_flags_mask", m->ifdm_flags_mask);
    hex_line(c, "ifdm_changed", m->ifdm_changed);
    hex_line(c, "ifdm_generation", m->ifdm_generation);
    hex_line(c, "ifdm_snmp_id", m->ifdm_snmp_id);
    hex_line(c, "ifdm_attr", m->ifdm_attr);
    hex_line(c, "ifdm_media_type", m->ifdm_media_type);
    c.add("name: %.*s\n", text_len(m->name, m->name_len),
          m->name ? reinterpret_cast<const char *>(m->name) : "");
    address_list(c, "addr", m->addr, m->addr_count);
    if (!c.ok()) return;
    address_list(c, "haddr", m->haddr, m->haddr_count);
    if (!c.ok()) return;
    address_list(c, "altaddr", m->altaddr, m->altaddr_count);
    if (!c.ok()) return;
    hex_line(c, "ifdm_media_present", m->ifdm_media_present);
    hex_line(c, "rtsh_info_len", h.info_count);
}

bool rtsm_table(Cursor &c, const rtslib_rtsm_msg *m, uint32_t msglen)
{
    // The kind and operation words come first; without them there is nothing
    // to print.
    if (msglen < offsetof(rtslib_rtsm_msg, rtsm_reserved)) return false;
    if (m->rtsm_kind == RTSLIB_RTSM_TABLE) {
        c.add("\n%-10.10s:: ", rtslib_format_stats_op(static_cast<int>(m->rtsm_stats_op)));
        for (const char *title : {"sndpkts", "sndbytes", "sndmaxpkt", "rcvpkts", "rcvbytes",
                                  "rcvmaxpkt"})
            c.add("%9.9s ", title);
    }
    // Only the entries wholly inside the message's length are read.
    const uint32_t first = offsetof(rtslib_rtsm_msg, entries);
    uint32_t n = msglen >= sizeof *m ? RTSLIB_RTSM_ENTRIES
                 : msglen > first    ? (msglen - first) / sizeof(rtslib_rtsm_entry)
                                     : 0;
    bool any = false;
    for (uint32_t i = 0; i < n; ++i) {
        rtslib_rtsm_entry e;
        std::memcpy(&e, &m->entries[i], sizeof e);
        any = any || e.sndpkts || e.sndbytes || e.sndmaxpkt || e.rcvpkts || e.rcvbytes ||
              e.rcvmaxpkt;
    }
    if (!any) return n == RTSLIB_RTSM_ENTRIES;
    c.add("\n%10.10s:: \n", rtslib_format_rtm_type(static_cast<int>(m->rtsm_msg_type)));
    for (uint32_t i = 0; i < n; ++i) {
        rtslib_rtsm_entry e;
        std::memcpy(&e, &m->entries[i], sizeof e);
        c.add("%10.10s %9llu %9llu %9lu %9llu %9llu %9lu\n", rtslib_format_op(static_cast<int>(i)),
              static_cast<unsigned long long>(e.sndpkts),
              static_cast<unsigned long long>(e.sndbytes), static_cast<unsigned long>(e.sndmaxpkt),
              static_cast<unsigned long long>(e.rcvpkts),
              static_cast<unsigned long long>(e.rcvbytes), static_cast<unsigned long>(e.rcvmaxpkt));
    }
    return n == RTSLIB_RTSM_ENTRIES;
}

}  // namespace tarn::format

extern "C" const char *rtslib_format_sockaddr(const idl_sockaddr_gen_t *sa, char *buf, size_t len)
{
    if (!buf || len == 0) return buf;
    if (!sa) {
        std::snprintf(buf, len, "NA ");
        return buf;
    }
    const uint8_t *a = sa->sa_addr;
    uint32_t n = a ? sa->sa_addr_len : 0;
    char addr[64];
    if (sa->sa_family == TARN_AF_INET && n >= 4) {
        inet_ntop(AF_INET, a, addr, sizeof addr);
        std::snprintf(buf, len, "inet %s", addr);
    } else if (sa->sa_family == TARN_AF_INET6 && n >= 16) {
        inet_ntop(AF_INET6, a, addr, sizeof addr);
        std::snprintf(buf, len, "inet6 %s", addr);
    } else if (sa->sa_family == tarn::format::kAfLink && n > 0) {
        int used = std::snprintf(buf, len, "link");
        for (uint32_t i = 0; i < n && i < 16 && used > 0 && static_cast<size_t>(used) < len; ++i)
            used += std::snprintf(buf + used, len - static_cast<size_t>(used), "%c%02x",
                                  i ? ':' : ' ', a[i]);
    } else {
        std::snprintf(buf, len, "%s len %u", rtslib_format_af(sa->sa_family), n);
    }
    return buf;
}
