// Decodes a table width and an operation sequence from the input, runs it on
// an itable16 or itable32 and aborts when an answer departs from the model.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "itable_checker.h"

namespace {

[[noreturn]] void diverged(const char *width, size_t op, const std::string &err)
{
    std::fprintf(stderr, "%s diverges from the model, operation %zu: %s\n", width, op,
                 err.c_str());
    std::abort();
}

template <typename Traits>
void run(tarn_test::ByteSource &in, const char *width)
{
    tarn_test::ItableChecker<Traits> checker;
    for (size_t op = 0; !in.empty(); ++op) {
        std::string err = checker.step(in);
        if (err.empty() && op % 8 == 0) err = checker.check_all();
        if (!err.empty()) diverged(width, op, err);
    }
    std::string err = checker.check_all();
    if (err.empty()) err = checker.finish();
    if (!err.empty()) diverged(width, 0, err);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tarn_test::ByteSource in(data, size);
    if (in.u8() & 1)
        run<tarn_test::Itable32Traits>(in, "itable32");
    else
        run<tarn_test::Itable16Traits>(in, "itable16");
    return 0;
}
