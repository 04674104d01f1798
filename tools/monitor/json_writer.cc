#include "json_writer.h"

#include <cstdio>

namespace tarn::monitor {
namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when there is none.
size_t utf8_length(std::string_view s, size_t i)
{
    const auto c = static_cast<unsigned char>(s[i]);
    size_t n = 0;
    unsigned min = 0;
    if (c >= 0xC2 && c <= 0xDF) n = 2, min = 0x80;
    else if (c >= 0xE0 && c <= 0xEF) n = 3, min = 0x800;
    else if (c >= 0xF0 && c <= 0xF4) n = 4, min = 0x10000;
    else return 0;
    if (i + n > s.size()) return 0;
    unsigned cp = c & (0x7F >> n);
    for (size_t k = 1; k < n; k++) {
        const auto b = static_cast<unsigned char>(s[i + k]);
        if ((b & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (b & 0x3F);
    }
    // Overlong forms, surrogates and values beyond the last code point are
    // not UTF-8.
    if (cp < min || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return 0;
    return n;
}

}  // namespace

std::string json_quote(std::string_view text)
{
    std::string out = "\"";
    for (size_t i = 0; i < text.size(); i++) {
        const auto c = static_cast<unsigned char>(text[i]);
        switch (c) {
        case '"': out += "\\\""; continue;
        case '\\': out += "\\\\"; continue;
        case '\n': out += "\\n"; continue;
        case '\r': out += "\\r"; continue;
        case '\t': out += "\\t"; continue;
        default: break;
        }
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
            continue;
        }
        if (c >= 0x80) {
            if (const size_t n = utf8_length(text, i); n != 0) {
                out.append(text.substr(i, n));
                i += n - 1;
                continue;
            }
        }
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\u%04x", c);
        out += esc;
    }
    out += '"';
    return out;
}

void JsonWriter::before_value()
{
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!has_member_.empty()) {
        if (has_member_.back()) out_ += ',';
        has_member_.back() = true;
    }
}

void JsonWriter::open(char bracket)
{
    before_value();
    out_ += bracket;
    has_member_.push_back(false);
}

void JsonWriter::close(char bracket)
{
    has_member_.pop_back();
    out_ += bracket;
}

void JsonWriter::begin_object() { open('{'); }
void JsonWriter::end_object() { close('}'); }
void JsonWriter::begin_array() { open('['); }
void JsonWriter::end_array() { close(']'); }

void JsonWriter::key(std::string_view name)
{
    before_value();
    out_ += json_quote(name);
    out_ += ':';
    after_key_ = true;
}

void JsonWriter::string(std::string_view text)
{
    before_value();
    out_ += json_quote(text);
}

void JsonWriter::number(uint64_t value)
{
    before_value();
    out_ += std::to_string(value);
}

void JsonWriter::null()
{
    before_value();
    out_ += "null";
}

void JsonWriter::clear()
{
    out_.clear();
    has_member_.clear();
    after_key_ = false;
}

}  // namespace tarn::monitor
