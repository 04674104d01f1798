// rtslib_format_output and the calls built on it.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <tarn/rtsock_wire.h>

#include "libtarn/format/format_internal.h"

namespace tarn::format {
namespace {

// Summaries follow the columns for the types up to this one; later types
// print the columns only.
constexpr uint8_t kLastSummarized = RTS_MSG_NOTIFY_MSG;

const char *flag_abbrev(const Header &h)
{
    if (h.error) return "ERR";
    if (h.op_flags & 2) return "ACK";
    return "--";
}

void ifdev_brief(Cursor &c, const ifdev_msg_t *m)
{
    // The device record keeps the MTU in its first information block and
    // the media words in ifdm_media; the remaining columns map onto the
    // record's own attribute words.
    const if_pfe_options_t *info = m->dinfo && m->dinfo_count ? m->dinfo[0] : nullptr;
    c.add("%.*s mtu=%d dflags=0x%x flags=0x%x idx=%d, gen=%d, i2c-id=%d, ifm-hw-qs=%d, "
          "ifm-use-max-qs=%d, ifm-flags=%d, linkflags %x snmpid=%u",
          text_len(m->name, m->name_len), m->name ? reinterpret_cast<const char *>(m->name) : "",
          info ? static_cast<int>(info->mtu) : 0, m->ifdm_devflags, m->ifdm_flags, m->ifdm_index,
          static_cast<int>(m->ifdm_generation), m->ifdm_media_type,
          static_cast<int>(m->ifdm_media.ifm_current), static_cast<int>(m->ifdm_media.ifm_active),
          static_cast<int>(m->ifdm_media.ifm_status), m->ifdm_attr, m->ifdm_snmp_id);
}

// Composite next hops carry their own TLV run in comp_data: a 16-bit type
// and a 16-bit length (host order) before each value. False when a length
// runs past the data.
bool count_comp_tlvs(const rnhc_msg_t *m, uint32_t *count)
{
    const uint8_t *p = m->comp_data;
    uint32_t left = p ? m->comp_data_len : 0;
    *count = 0;
    while (left > 0) {
        uint16_t hdr[2];
        if (left < sizeof hdr) return false;
        std::memcpy(hdr, p, sizeof hdr);
        if (hdr[1] > left - sizeof hdr) return false;
        p += sizeof hdr + hdr[1];
        left -= static_cast<uint32_t>(sizeof hdr + hdr[1]);
        ++*count;
    }
    return true;
}

// The raw types carry nothing this library describes beyond the header.
void raw_summary(Cursor &c, const Header &h) { c.add("len=%u seq=%u", h.msglen, h.seq); }

// -1 with a report when the message is not fit to format; 0 otherwise.
int format_into(rtslib_cookie *handle, Cursor &c, int brief, const void *message)
{
    const Header h = read_header(message);
    const tarn_idl_type *type = record_type(h);
    if (h.type == RTS_MSG_RTSOCK_STATS) {
        if (!rtsm_table(c, static_cast<const rtslib_rtsm_msg *>(message), h.msglen)) {
            if (!c.overflowed()) {
                rtslib_err(handle, RTSLIB_LOG_WARNING, "short %s message: length %u\n",
                           rtslib_format_rtm_type(h.type), h.msglen);
                return -1;
            }
        }
        return 0;
    }
    const char *line = c.pos;
    c.add("%-10.10s %-4.4s %-10.10s %-8.8s", rtslib_format_msg_sender_id(message),
          flag_abbrev(h), rtslib_format_rtm_type(h.type), rtslib_format_op(h.op));
    if (h.type > kLastSummarized) return 0;
    if (!type && h.msglen < RTS_HDR_MIN_LEN) {
        rtslib_err(handle, RTSLIB_LOG_WARNING, "short %s message: length %u\n",
                   rtslib_format_rtm_type(h.type), h.msglen);
        return -1;
    }
    c.add(brief ? " " : "\n");
    if (h.type == RTS_MSG_NH_COMP && type) {
        const auto *m = static_cast<const rnhc_msg_t *>(message);
        uint32_t tlvs = 0;
        if (!count_comp_tlvs(m, &tlvs)) {
            rtslib_err(handle, RTSLIB_LOG_ERROR, "Failed to parse TLVs on composite-NH msg: %s\n",
                       std::strerror(EINVAL));
            return -1;
        }
        if (brief) {
            c.add("nh_index=%u comp_flags=0x%x tlvs=%u", m->nh_index, m->comp_flags, tlvs);
            return 0;
        }
    }
    if (!type) {
        if (brief)
            raw_summary(c, h);
        else
            c.add("msglen: %u\nseq: %u\n", h.msglen, h.seq);
    } else if (h.type == RTS_MSG_IFDEV) {
        if (brief)
            ifdev_brief(c, static_cast<const ifdev_msg_t *>(message));
        else
            ifdm_full(c, static_cast<const ifdev_msg_t *>(message));
    } else if (brief) {
        brief_fields(c, line, RTSLIB_FORMAT_BRIEF_SIZE, type, message);
    } else {
        dump_record(c, type, message, 0);
    }
    return 0;
}

int run(rtslib_cookie *handle, char *buffer, int size, int brief, const void *message,
        void (*full)(Cursor &, const void *))
{
    if (!buffer || size <= 0 || !message) return -1;
    if (read_header(message).type == RTS_MSG_RTSOCK_STATS) std::memset(buffer, 0, static_cast<size_t>(size));
    buffer[0] = '\0';
    Cursor c{buffer, size};
    int rc = 0;
    if (full)
        full(c, message);
    else
        rc = format_into(handle, c, brief, message);
    if (c.overflowed()) {
        rtslib_err(handle, RTSLIB_LOG_WARNING, brief ? "output brief buffer too small for format!\n"
                                                     : "output full buffer too small for format!\n");
        return -1;
    }
    return rc;
}

}  // namespace
}  // namespace tarn::format

using namespace tarn::format;

extern "C" {

int rtslib_format_output(rtslib_cookie *handle, char *buffer, int size, int brief,
                         const void *message)
{
    return run(handle, buffer, size, brief, message, nullptr);
}

int rtslib_format_brief_output(rtslib_cookie *handle, char *buffer, const void *message)
{
    return run(handle, buffer, RTSLIB_FORMAT_BRIEF_SIZE, 1, message, nullptr);
}

int rtslib_ifdm_format_full_output(rtslib_cookie *handle, char *buffer, const ifdev_msg_t *message)
{
    if (message && message->hdr.type != RTS_MSG_IFDEV) return -1;
    return run(handle, buffer, RTSLIB_FORMAT_FULL_SIZE, 0, message, [](Cursor &c, const void *m) {
        ifdm_full(c, static_cast<const ifdev_msg_t *>(m));
    });
}

int rtslib_rtsm_format_full_output(rtslib_cookie *handle, char *buffer, const void *message)
{
    if (!buffer || !message) return -1;
    // Through format_output, which knows the statistics layout and checks
    // the message's length.
    return run(handle, buffer, RTSLIB_FORMAT_FULL_SIZE, 0, message, nullptr);
}

void rtslib_print_msg_to_file(rtslib_cookie *handle, FILE *stream, int brief, const void *message)
{
    if (!stream || !message) return;
    char text[RTSLIB_FORMAT_FULL_SIZE];
    int rc = rtslib_format_output(handle, text, sizeof text, brief, message);
    if (rc != 0) {
        std::fprintf(stream, "rtslib_format_output error: %s\n", std::strerror(rc));
    } else {
        // The text is its own format, as daemons' log readers have always
        // seen it: a '%' in it is interpreted.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        std::fprintf(stream, text);
#pragma GCC diagnostic pop
    }
    std::fflush(stream);
}

}  // extern "C"
