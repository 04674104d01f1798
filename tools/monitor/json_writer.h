// A small streaming JSON writer: values are appended to a string in order,
// commas and escapes are its business, nesting is the caller's.
#ifndef TARN_MONITOR_JSON_WRITER_H
#define TARN_MONITOR_JSON_WRITER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::monitor {

class JsonWriter {
public:
    void begin_object();
    void end_object();
    void begin_array();
    void end_array();
    // The name of the next member of the enclosing object.
    void key(std::string_view name);
    void string(std::string_view text);
    void number(uint64_t value);
    void null();

    const std::string &text() const { return out_; }
    void clear();

private:
    void before_value();
    void open(char bracket);
    void close(char bracket);

    std::string out_;
    // One entry per open object or array: whether it has a member yet.
    std::vector<bool> has_member_;
    bool after_key_ = false;
};

// `text` as a JSON string literal, quotes included. Bytes that are not
// valid UTF-8 are written as \u00XX escapes of their byte value, so the
// result is always valid JSON.
std::string json_quote(std::string_view text);

}  // namespace tarn::monitor

#endif  // TARN_MONITOR_JSON_WRITER_H
