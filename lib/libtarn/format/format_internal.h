// Shared pieces of the formatters: the cursor every formatter appends through,
// the header view common to raw messages and decoded records, and the walker
// over type descriptions.
#ifndef TARN_FORMAT_FORMAT_INTERNAL_H
#define TARN_FORMAT_FORMAT_INTERNAL_H

#include <cstdint>

#include <tarn/idl_types.h>
#include <tarn/rtslib_format.h>

namespace tarn::format {

// A list keeps adding entries only while this much room is left, so a long
// list is cut visibly instead of running the buffer over.
inline constexpr int kListReserve = 160;
inline constexpr char kTruncated[] = "\n  <truncated...no buffer space>";

struct Cursor {
    char *pos;
    int left;
    bool cut = false;  // a list was cut: the dump ends there

    bool ok() const { return pos != nullptr && !cut; }
    bool overflowed() const { return pos == nullptr; }
    void add(const char *format, ...) TARN_PRINTF(2, 3);
};

// The first bytes of every message, raw or decoded.
struct Header {
    uint8_t version, type, op, op_flags;
    uint32_t msglen, seq, error;
};
Header read_header(const void *message);

// The printable part of a byte string (up to its first NUL, at most 255
// characters), for "%.*s".
int text_len(const uint8_t *p, uint32_t n);

// Types that are records in memory (the envelope's members) versus raw.
inline const tarn_idl_type *record_type(const Header &h) { return tarn_idl_type_for_msg(h.type); }

// Brief: label=value for the top-level scalar fields after the header, while
// the line stays inside `budget` characters from line_start.
void brief_fields(Cursor &c, const char *line_start, int budget, const tarn_idl_type *type,
                  const void *record);

// Full: every field, one per line, nested records indented, lists cut by the
// reserve rule.
void dump_record(Cursor &c, const tarn_idl_type *type, const void *record, int indent);

// Routing-socket statistics table; false when the message is too short.
bool rtsm_table(Cursor &c, const rtslib_rtsm_msg *m, uint32_t msglen);
void ifdm_full(Cursor &c, const ifdev_msg_t *m);

}  // namespace tarn::format

#endif
