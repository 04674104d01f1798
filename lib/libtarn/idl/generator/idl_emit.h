// Code emission: the public record header, one codec translation unit per
// family, and the per-type metadata that drives the generic codec tests.
// Output depends only on the model, so it is reproducible byte for byte.
#ifndef TARN_IDLGEN_IDL_EMIT_H
#define TARN_IDLGEN_IDL_EMIT_H

#include <string>

#include "idl_model.h"

namespace tarn::idlgen {

std::string emit_header(const Model &model);
std::string emit_family(const Model &model, const std::string &family);
std::string emit_test_meta(const Model &model);
// One line per type: name, target record size, target map size.
std::string emit_size_report(const Model &model);

}  // namespace tarn::idlgen

#endif
