// A small JSON reader for what tarn-monitor prints: enough to parse its
// lines back and to check that they are well-formed.
#ifndef TARN_TESTS_JSON_READER_H
#define TARN_TESTS_JSON_READER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarn::test {

// A parsed JSON value: numbers keep their text so that large integers
// compare exactly.
struct Json {
    enum Kind { kNull, kNumber, kString, kArray, kObject } kind = kNull;
    std::string text;  // number text or string value
    std::vector<Json> items;
    std::map<std::string, Json> members;

    const Json &operator[](const std::string &key) const;
    uint64_t number() const { return std::stoull(text); }
};

// Parses one JSON text; false when it is not valid JSON (or has trailing
// bytes).
bool parse_json(const std::string &text, Json &out);

}  // namespace tarn::test

#endif  // TARN_TESTS_JSON_READER_H
