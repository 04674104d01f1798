// Formatting any record through its type description, so that the many
// message types need no formatter of their own.
#include <cstdio>
#include <cstring>

#include "libtarn/format/format_internal.h"

namespace tarn::format {
namespace {

uint64_t scalar_at(const uint8_t *p, uint32_t kind)
{
    switch (kind) {
    case TARN_IDL_KIND_U8: return *p;
    case TARN_IDL_KIND_U16: { uint16_t v; std::memcpy(&v, p, 2); return v; }
    case TARN_IDL_KIND_U32: { uint32_t v; std::memcpy(&v, p, 4); return v; }
    default: { uint64_t v; std::memcpy(&v, p, 8); return v; }
    }
}

bool is_scalar(uint32_t kind) { return kind <= TARN_IDL_KIND_U64; }

uint32_t count_at(const uint8_t *rec, const tarn_idl_field &f)
{
    uint32_t n;
    std::memcpy(&n, rec + f.count_offset, 4);
    return n;
}

template <typename T>
T pointer_at(const uint8_t *rec, const tarn_idl_field &f)
{
    T p;
    std::memcpy(&p, rec + f.offset, sizeof p);
    return p;
}

bool all_zero(const uint8_t *p, uint32_t n)
{
    for (uint32_t i = 0; i < n; ++i)
        if (p[i]) return false;
    return true;
}

// A byte string: "NA " when empty; up to four 32-bit numbers ("none" when the
// first is 0); a name as text; otherwise its length and leading bytes in hex.
void dump_bytes(Cursor &c, const char *name, const uint8_t *p, uint32_t n)
{
    if (!p || n == 0) {
        c.add("NA \n");
        return;
    }
    if (std::strcmp(name, "name") == 0) {
        c.add("%.*s\n", text_len(p, n), reinterpret_cast<const char *>(p));
        return;
    }
    if (n % 4 == 0 && n <= 16) {
        uint32_t w[4];
        std::memcpy(w, p, n);
        if (w[0] == 0) {
            c.add("none\n");
            return;
        }
        for (uint32_t i = 0; i < n / 4; ++i) c.add(i ? " %u" : "%u", w[i]);
        c.add("\n");
        return;
    }
    c.add("[%u]", n);
    for (uint32_t i = 0; i < n && i < 16; ++i) c.add(" %02x", p[i]);
    c.add(n > 16 ? " ...\n" : "\n");
}

}  // namespace

int text_len(const uint8_t *p, uint32_t n)
{
    const void *nul = p ? std::memchr(p, 0, n) : nullptr;
    uint32_t len = nul ? static_cast<uint32_t>(static_cast<const uint8_t *>(nul) - p) : (p ? n : 0);
    return static_cast<int>(len > 255 ? 255 : len);
}

void brief_fields(Cursor &c, const char *line_start, int budget, const tarn_idl_type *type,
                  const void *record)
{
    // The record's name, when it has one, leads as in the device summary;
    // the scalars follow in declaration order.
    const auto *rec = static_cast<const uint8_t *>(record);
    const char *sep = "";
    tarn_idl_field f;
    for (int pass = 0; pass < 2; ++pass)
        for (uint32_t i = 0; tarn_idl_type_field(type, i, &f) == 0 && c.ok(); ++i) {
            char item[320];
            int n;
            if (pass == 1 && is_scalar(f.kind)) {
                n = std::snprintf(item, sizeof item, "%s%s=%llu", sep, f.name,
                                  static_cast<unsigned long long>(scalar_at(rec + f.offset, f.kind)));
            } else if (pass == 0 && f.kind == TARN_IDL_KIND_BYTES && std::strcmp(f.name, "name") == 0) {
                const uint8_t *p = pointer_at<const uint8_t *>(rec, f);
                if (!p) continue;
                n = std::snprintf(item, sizeof item, "%s%.*s", sep, text_len(p, count_at(rec, f)),
                                  reinterpret_cast<const char *>(p));
            } else {
                continue;
            }
            // Main fields only: stop where the line would pass the budget.
            if (n < 0 || (c.pos - line_start) + n >= budget) return;
            c.add("%s", item);
            sep = " ";
        }
}

void dump_record(Cursor &c, const tarn_idl_type *type, const void *record, int indent)
{
    const auto *rec = static_cast<const uint8_t *>(record);
    tarn_idl_field f;
    for (uint32_t i = 0; tarn_idl_type_field(type, i, &f) == 0 && c.ok(); ++i) {
        if (f.kind == TARN_IDL_KIND_RECORD) {
            // Absent nested records (all zero) would only repeat zeros.
            if (all_zero(rec + f.offset, f.size)) continue;
            c.add("%*s%s:\n", indent, "", f.name);
            dump_record(c, f.type, rec + f.offset, indent + 2);
            continue;
        }
        c.add("%*s%s: ", indent, "", f.name);
        if (is_scalar(f.kind)) {
            c.add("%llu\n", static_cast<unsigned long long>(scalar_at(rec + f.offset, f.kind)));
        } else if (f.kind == TARN_IDL_KIND_BYTES) {
            dump_bytes(c, f.name, pointer_at<const uint8_t *>(rec, f), count_at(rec, f));
        } else {
            auto elems = pointer_at<const void *const *>(rec, f);
            uint32_t n = elems ? count_at(rec, f) : 0;
            if (n == 0) {
                c.add("NA \n");
                continue;
            }
            c.add("%u\n", n);
            for (uint32_t k = 0; k < n && c.ok(); ++k) {
                if (c.left < kListReserve) {
                    c.add("%s", kTruncated);
                    c.cut = true;
                    break;
                }
                c.add("%*s[%u]:%s\n", indent + 2, "", k, elems[k] ? "" : " null");
                if (elems[k]) dump_record(c, f.type, elems[k], indent + 4);
            }
        }
    }
}

}  // namespace tarn::format
