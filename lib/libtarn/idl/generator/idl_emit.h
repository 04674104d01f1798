// Code emission: the public record header, one codec translation unit per
// family, and the per-type metadata that drives the generic codec tests.
// Output depends only on the model, so it is reproducible byte for byte.
#ifndef TARN_IDLGEN_IDL_EMIT_H
#define TARN_IDLGEN_IDL_EMIT_H

#include <cstddef>
#include <string>

#include "idl_model.h"

namespace tarn::idlgen {

std::string emit_header(const Model &model);
// A family's codecs go to `units` translation units (family_units() of them),
// so that a large family compiles in parallel: unit u holds a contiguous run of
// the family's types in file order, and unit 0 also its choices.
std::size_t family_units(const Model &model, const std::string &family, std::size_t types_per_unit);
// abi: the build's memory layout; with one, IDR copies runs of fields that
// lie alike in memory and on the wire as blocks.
std::string emit_family(const Model &model, const std::string &family, std::size_t unit = 0,
                        std::size_t units = 1, Abi abi = Abi::Generic);
// Every type's codecs converted field by field, in namespace tarn::idl_ref
// (release excepted), and the table tarn::test::idlref::codecs of the tests'
// idl_reference.h in type order: what the block copies of emit_family are
// checked against, byte for byte.
std::string emit_reference(const Model &model);
// codec_bodies.h, beside the families: the internal bodies of every type
// (tarn::idl::body), declared for the families that call them.
std::string emit_bodies_header(const Model &model);
std::string emit_test_meta(const Model &model);
// One line per type: name, target record size, target map size.
std::string emit_size_report(const Model &model);
// The run-time type descriptions: one translation unit of read-only tables
// (names, sizes, fields, choices) for <tarn/idl_types.h>.
std::string emit_descriptions(const Model &model);

}  // namespace tarn::idlgen

#endif
