// Long seeded random operation sequences on two trees, every answer checked
// against a std::map model and the trees' shape checked as they change.
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "patricia_checker.h"

namespace {

using tarn_test::ByteSource;
using tarn_test::PatriciaChecker;
using tarn_test::PatriciaConfig;

constexpr uint32_t kSeeds = 6;
constexpr size_t kInputBytes = 60000;  // a few thousand operations

// TARN_TEST_SEED=n replays one seed.
std::vector<uint32_t> seeds()
{
    if (const char *s = std::getenv("TARN_TEST_SEED")) return {static_cast<uint32_t>(std::strtoul(s, nullptr, 0))};
    std::vector<uint32_t> v;
    for (uint32_t i = 1; i <= kSeeds; ++i) v.push_back(i);
    return v;
}

class PatriciaModelTest : public testing::TestWithParam<PatriciaConfig> {};

TEST_P(PatriciaModelTest, RandomSequencesMatchTheModel)
{
    const PatriciaConfig cfg = GetParam();
    for (uint32_t seed : seeds()) {
        std::mt19937 rng(seed);
        std::vector<uint8_t> input(kInputBytes);
        for (auto &b : input) b = static_cast<uint8_t>(rng());
        ByteSource in(input.data(), input.size());
        PatriciaChecker checker(cfg);
        size_t largest = 0;
        for (size_t op = 0; !in.empty(); ++op) {
            std::string err = checker.step(in);
            const size_t n = checker.size(0) + checker.size(1);
            largest = std::max(largest, n);
            if (err.empty() && (n < 48 || op % 32 == 0)) err = checker.check_all();
            ASSERT_EQ(err, "") << "seed " << seed << ", operation " << op << ", "
                               << tarn_test::describe(cfg);
        }
        ASSERT_EQ(checker.check_all(), "") << "seed " << seed;
        // The sequences must actually grow trees, or they test little.
        EXPECT_GT(largest, cfg.key_bytes == 1 ? 40u : 150u) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, PatriciaModelTest,
    testing::Values(PatriciaConfig{1, false, 0}, PatriciaConfig{1, true, 2},
                    PatriciaConfig{4, false, 0}, PatriciaConfig{4, true, 3},
                    PatriciaConfig{16, false, 5}, PatriciaConfig{16, true, 0},
                    PatriciaConfig{0, false, 0}, PatriciaConfig{0, true, 7},
                    PatriciaConfig{0, false, 3}),
    [](const testing::TestParamInfo<PatriciaConfig> &param_info) {
        const PatriciaConfig &c = param_info.param;
        return (c.key_bytes ? "Bytes" + std::to_string(c.key_bytes) : std::string("Mixed")) +
               (c.key_is_ptr ? "Pointer" : "Inline") + "Offset" + std::to_string(c.key_offset);
    });

}  // namespace
