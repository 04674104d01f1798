// Long seeded random operation sequences on itable16 and itable32, every
// answer checked against a brute-force model of the tables' rules.
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "itable_checker.h"

namespace {

using tarn_test::ByteSource;
using tarn_test::ItableChecker;

constexpr uint32_t kSeeds = 8;
constexpr size_t kInputBytes = 40000;

// TARN_TEST_SEED=n replays one seed.
std::vector<uint32_t> seeds()
{
    if (const char *s = std::getenv("TARN_TEST_SEED"))
        return {static_cast<uint32_t>(std::strtoul(s, nullptr, 0))};
    std::vector<uint32_t> v;
    for (uint32_t i = 1; i <= kSeeds; ++i) v.push_back(i);
    return v;
}

template <typename Traits>
void run_sequences()
{
    for (uint32_t seed : seeds()) {
        std::mt19937 rng(seed);
        std::vector<uint8_t> input(kInputBytes);
        for (auto &b : input) b = static_cast<uint8_t>(rng());
        ByteSource in(input.data(), input.size());
        ItableChecker<Traits> checker;
        for (size_t op = 0; !in.empty(); ++op) {
            std::string err = checker.step(in);
            if (err.empty() && op % 64 == 0) err = checker.check_all();
            ASSERT_EQ(err, "") << "seed " << seed << ", operation " << op;
        }
        ASSERT_EQ(checker.check_all(), "") << "seed " << seed;
        ASSERT_EQ(checker.finish(), "") << "seed " << seed;
    }
}

TEST(ItableModel, Itable16RandomSequencesMatchTheModel)
{
    run_sequences<tarn_test::Itable16Traits>();
}

TEST(ItableModel, Itable32RandomSequencesMatchTheModel)
{
    run_sequences<tarn_test::Itable32Traits>();
}

}  // namespace
