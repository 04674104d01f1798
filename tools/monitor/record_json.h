// Any decoded record as JSON, through the library's run-time type
// descriptions: scalars as numbers, nested records as objects, arrays as
// arrays (null for a null element), byte strings as described in
// tarn-monitor --help (addresses as text, names as text, else hex).
#ifndef TARN_MONITOR_RECORD_JSON_H
#define TARN_MONITOR_RECORD_JSON_H

#include <cstdint>
#include <string>
#include <string_view>

#include <tarn/idl_types.h>

#include "json_writer.h"

namespace tarn::monitor {

// Writes the record's fields as one JSON object: 0, or the walker's error.
int write_record_json(JsonWriter &out, const tarn_idl_type *type, const void *record);

// How a byte string is shown: `family` is the value of the family field
// (af, *_af, family, *_family) met before it in the same record, 0 if none.
std::string bytes_text(std::string_view field_name, uint32_t family, const uint8_t *bytes,
                       uint32_t length);

// True with the address text in out when the byte string is an address by
// the rule of bytes_text.
bool address_field_text(std::string_view field_name, uint32_t family, const uint8_t *bytes,
                        uint32_t length, std::string &out);

// " name=address" for each address among the record's own fields (not
// those of nested records), so that a brief line names what changed.
std::string address_summary(const tarn_idl_type *type, const void *record);

std::string hex_text(const uint8_t *bytes, uint32_t length);

}  // namespace tarn::monitor

#endif  // TARN_MONITOR_RECORD_JSON_H
