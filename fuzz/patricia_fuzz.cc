// Decodes a tree layout and an operation sequence from the input, runs it on
// two patricia trees and aborts when an answer or the trees' shape departs
// from the std::map model.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "patricia_checker.h"

namespace {

tarn_test::PatriciaConfig layout(tarn_test::ByteSource &in)
{
    static const uint16_t kKeyBytes[] = {1, 4, 16, 0};
    const uint8_t b = in.u8();
    return {kKeyBytes[b & 3], (b & 4) != 0, static_cast<uint8_t>(b >> 5)};
}

[[noreturn]] void diverged(const tarn_test::PatriciaConfig &cfg, size_t op, const std::string &err)
{
    std::fprintf(stderr, "patricia diverges from the model (%s), operation %zu: %s\n",
                 tarn_test::describe(cfg).c_str(), op, err.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tarn_test::ByteSource in(data, size);
    const tarn_test::PatriciaConfig cfg = layout(in);
    tarn_test::PatriciaChecker checker(cfg);
    for (size_t op = 0; !in.empty(); ++op) {
        std::string err = checker.step(in);
        if (err.empty() && (op % 8 == 0 || checker.size(0) + checker.size(1) < 32))
            err = checker.check_all();
        if (!err.empty()) diverged(cfg, op, err);
    }
    const std::string err = checker.check_all();
    if (!err.empty()) diverged(cfg, 0, err);
    return 0;
}
