// The in-memory model of the type descriptions and its parser.
//
// A description file holds records and choices:
//
//   type rts_hdr                  # both encodings; "tlv-only" / "idr-only" after the name;
//                                 # "no-sizes" drops the exported rtti_sizeof objects
//     u32    magic      1         # scalar: u8 u16 u32 u64, name, TLV tag
//     bytes  prefix     17        # byte string: pointer + <name>_len
//     record rts_hdr    hdr   1   # nested record held inline
//     array  rts_msg_info info 11 # array of records: pointer to pointers + <name>_count
//   end
//
//   choice rts_msg header rts_hdr limit 102  # discriminant -> member; members begin
//                                          # with the header; discriminants < limit
//     0 rts_base
//   end
//
// The generator is a tool: it may use all of C++, and reports description
// errors as "file:line: text".
#ifndef TARN_IDLGEN_IDL_MODEL_H
#define TARN_IDLGEN_IDL_MODEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::idlgen {

// The runtime version the generated code targets; lib/libtarn/idl/runtime.h
// and include/tarn/idl_codec.h carry the same number.
inline constexpr int kRuntimeVersion = 1;
inline constexpr std::size_t kMaxFields = 32;

enum class Kind { U8, U16, U32, U64, Bytes, Record, Array };

struct Field {
    Kind kind;
    std::string name;
    std::string type;  // element or nested type for Record and Array
    uint32_t tag = 0;
    int line = 0;
};

struct Type {
    std::string name;
    std::string family;  // the description file's stem
    bool tlv = true;
    bool idr = true;
    bool sizes = true;  // exports tlv_rtti_sizeof_* / idr_rtti_sizeof_*
    std::vector<Field> fields;
    int line = 0;
};

struct Choice {
    std::string name;
    std::string family;
    std::string header;  // every member begins with a field of this record type
    std::map<uint32_t, std::string> members;
    uint32_t limit = 0;  // discriminants below this are valid
};

// Sizes and alignment of a record and its presence map under the target ABI
// (i386: 4-byte pointers, 64-bit scalars aligned to 4).
struct Layout {
    uint32_t size = 0, align = 1;
    uint32_t map_size = 0;
    std::vector<uint32_t> offsets;  // per field, in the record
};

struct Model {
    std::vector<Type> types;  // in file order, files in command-line order
    std::vector<Choice> choices;
    std::vector<std::string> families;  // in command-line order

    const Type *find(const std::string &name) const;
};

// Parses one description; appends to model. Errors go to errors.
void parse_description(const std::string &text, const std::string &family,
                       const std::string &file, Model &model, std::vector<std::string> &errors);

// Checks cross references, tags, field limits and nesting cycles.
void check_model(const Model &model, std::vector<std::string> &errors);

// Target-ABI layout of one type (the model must have passed check_model).
Layout target_layout(const Model &model, const Type &type);

// The build's memory ABI, which decides where IDR can copy runs of fields
// whose memory and wire layouts agree. Generic: nothing is assumed, every
// field is converted on its own.
enum class Abi { Generic, I386, X86_64 };
std::optional<Abi> parse_abi(const std::string &name);

// Where the fields of a record lie in memory under a little-endian ABI:
// per field the offset of its first member (the pointer of a byte string or
// array), and the record's size.
struct MemoryLayout {
    uint32_t size = 0, align = 1;
    std::vector<uint32_t> offsets;
};
MemoryLayout memory_layout(const Model &model, const Type &type, Abi abi);

// Types in an order where every nested record comes before its user.
std::vector<const Type *> dependency_order(const Model &model);

const char *kind_name(Kind k);

}  // namespace tarn::idlgen

#endif
