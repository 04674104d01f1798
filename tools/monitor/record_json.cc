#include "record_json.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include <tarn/rtsock_wire.h>

namespace tarn::monitor {
namespace {

bool ends_with(std::string_view s, std::string_view tail)
{
    return s.size() >= tail.size() && s.substr(s.size() - tail.size()) == tail;
}

// A field named `word` or `..._word`.
bool named(std::string_view name, std::string_view word)
{
    return name == word ||
           (name.size() > word.size() && ends_with(name, word) &&
            name[name.size() - word.size() - 1] == '_');
}

bool is_family_field(std::string_view name) { return named(name, "af") || named(name, "family"); }

bool is_address_field(std::string_view name)
{
    for (std::string_view w : {"prefix", "group", "dest", "local", "addr", "address", "gateway"})
        if (named(name, w)) return true;
    return false;
}

// Printable text, possibly followed by NULs (names travel with theirs).
bool printable_name(const uint8_t *bytes, uint32_t length, uint32_t &text_len)
{
    text_len = length;
    while (text_len > 0 && bytes[text_len - 1] == 0) text_len--;
    for (uint32_t i = 0; i < text_len; i++)
        if (bytes[i] < 0x20 || bytes[i] >= 0x7F) return false;
    return true;
}

// Addresses travel cut to the bytes their prefix needs, padded to words:
// shorter than the family's full length is fine, longer is not an address.
bool address_text(uint32_t family, const uint8_t *bytes, uint32_t length, std::string &out)
{
    uint8_t full[16] = {};
    char text[INET6_ADDRSTRLEN];
    if (family == TARN_AF_INET && length <= 4) {
        std::memcpy(full, bytes, length);
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", full[0], full[1], full[2], full[3]);
    } else if (family == TARN_AF_INET6 && length <= 16) {
        std::memcpy(full, bytes, length);
        if (inet_ntop(AF_INET6, full, text, sizeof text) == nullptr) return false;
    } else {
        return false;
    }
    out = text;
    return true;
}

// The walk's state: the family last seen at each depth.
struct WalkState {
    JsonWriter *out;
    std::vector<uint32_t> family{0};
};

int visit(void *ctx, int event, const tarn_idl_value *v)
{
    auto &st = *static_cast<WalkState *>(ctx);
    JsonWriter &out = *st.out;
    const tarn_idl_field &f = *v->field;
    if (!v->element) {
        if (event != TARN_IDL_VISIT_END) out.key(f.name);
    }
    switch (event) {
    case TARN_IDL_VISIT_VALUE:
        if (f.kind == TARN_IDL_KIND_BYTES) {
            out.string(bytes_text(f.name, st.family.back(), v->bytes, v->length));
        } else {
            if (is_family_field(f.name)) st.family.back() = static_cast<uint32_t>(v->scalar);
            out.number(v->scalar);
        }
        return 0;
    case TARN_IDL_VISIT_BEGIN:
        if (f.kind == TARN_IDL_KIND_ARRAY && !v->element) {
            out.begin_array();
        } else if (v->record == nullptr) {
            out.null();
        } else {
            out.begin_object();
            st.family.push_back(0);
        }
        return 0;
    case TARN_IDL_VISIT_END:
        if (f.kind == TARN_IDL_KIND_ARRAY && !v->element) {
            out.end_array();
        } else if (v->record != nullptr) {
            out.end_object();
            st.family.pop_back();
        }
        return 0;
    default:
        return 0;
    }
}

}  // namespace

std::string hex_text(const uint8_t *bytes, uint32_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(2 * static_cast<size_t>(length));
    for (uint32_t i = 0; i < length; i++) {
        s += digits[bytes[i] >> 4];
        s += digits[bytes[i] & 15];
    }
    return s;
}

bool address_field_text(std::string_view field_name, uint32_t family, const uint8_t *bytes,
                        uint32_t length, std::string &out)
{
    return bytes != nullptr && is_address_field(field_name) &&
           address_text(family, bytes, length, out);
}

std::string bytes_text(std::string_view field_name, uint32_t family, const uint8_t *bytes,
                       uint32_t length)
{
    if (bytes == nullptr) return "";
    std::string text;
    if (address_field_text(field_name, family, bytes, length, text)) return text;
    uint32_t text_len = 0;
    if (ends_with(field_name, "name") && printable_name(bytes, length, text_len))
        return std::string(reinterpret_cast<const char *>(bytes), text_len);
    return hex_text(bytes, length);
}

std::string address_summary(const tarn_idl_type *type, const void *record)
{
    // Lengths come before their addresses in the records: "<name>_plen",
    // or a bare "plen" for the record's one prefix.
    struct Summary {
        std::string text;
        uint32_t family = 0;
        std::map<std::string, uint64_t> lengths;
    } sum;
    tarn_idl_walk(
        type, record,
        [](void *ctx, int event, const tarn_idl_value *v) {
            auto &s = *static_cast<Summary *>(ctx);
            const std::string name = v->field->name;
            std::string addr;
            if (event != TARN_IDL_VISIT_VALUE || v->depth != 0) return 0;
            if (v->field->kind != TARN_IDL_KIND_BYTES) {
                if (is_family_field(name)) s.family = static_cast<uint32_t>(v->scalar);
                if (named(name, "plen")) s.lengths[name] = v->scalar;
            } else if (address_field_text(name, s.family, v->bytes, v->length, addr)) {
                s.text += " " + name + "=" + addr;
                auto len = s.lengths.find(name + "_plen");
                if (len == s.lengths.end()) len = s.lengths.find("plen");
                if (len != s.lengths.end()) s.text += "/" + std::to_string(len->second);
            }
            return 0;
        },
        &sum);
    return sum.text;
}

int write_record_json(JsonWriter &out, const tarn_idl_type *type, const void *record)
{
    WalkState st{&out};
    out.begin_object();
    const int rc = tarn_idl_walk(type, record, visit, &st);
    out.end_object();
    return rc;
}

}  // namespace tarn::monitor
