// The entry point every fuzz target defines: libFuzzer calls it in the fuzz
// build, replay_main.cc in the others. Included into every target's sources
// by the build so that each definition has its declaration.
#ifndef TARN_FUZZ_FUZZ_TARGET_H
#define TARN_FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

#endif  // TARN_FUZZ_FUZZ_TARGET_H
