// The emulator's command line and kernel model, without processes.
#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_config.h"
#include "kernel.h"

namespace {

using tarn::kemu::EmuConfig;
using tarn::kemu::EmuLog;
using tarn::kemu::Kernel;
using tarn::kemu::ParseOutcome;
using tarn::kemu::SocketState;

ParseOutcome parse(std::vector<std::string> args, EmuConfig &cfg, std::string &error)
{
    args.insert(args.begin(), "tarn-kernel-emu");
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return tarn::kemu::parse_args(static_cast<int>(args.size()), argv.data(), cfg, error);
}

TEST(EmuCommandLine, RejectsMalformedArguments)
{
    const std::vector<std::vector<std::string>> bad = {
        {"--types", "256"},          {"--types", "x"},
        {"--interface-version", "-1"}, {"--type-version", "0=98"},
        {"--type-version", "102=98"}, {"--type-version", "5"},
        {"--type-version", "5=256"}, {"--fail-option", "abc"},
        {"--fail-option", "4,"},     {"--queue-bound", "0"},
        {"--no-such-option"},        {"stray"},
        {"--socket"},
    };
    for (const auto &args : bad) {
        EmuConfig cfg;
        std::string error;
        EXPECT_EQ(parse(args, cfg, error), ParseOutcome::kError) << args[0];
        EXPECT_FALSE(error.empty()) << args[0];
    }
}

TEST(EmuCommandLine, CollectsRepeatableOptions)
{
    EmuConfig cfg;
    std::string error;
    ASSERT_EQ(parse({"--socket", "/tmp/x.sock", "--type-version", "2=1", "--type-version",
                     "2=7", "--type-version", "101=0", "--fail-option", "4,7", "--fail-option",
                     "20", "--log", "--types", "0x67", "--queue-bound", "3"},
                    cfg, error),
              ParseOutcome::kRun)
        << error;
    EXPECT_EQ(cfg.socket_path, "/tmp/x.sock");
    EXPECT_EQ(cfg.type_versions, (std::map<int, int>{{2, 7}, {101, 0}}));
    EXPECT_EQ(cfg.fail_options, (std::set<int>{4, 7, 20}));
    EXPECT_EQ(cfg.queue_bound, 3u);
    EXPECT_TRUE(cfg.log);
    EXPECT_EQ(cfg.types, 103);
    EXPECT_EQ(cfg.interface_version, RTS_INTERFACE_VERSION);
}

class KernelModel : public testing::Test {
protected:
    void make(std::vector<std::string> args)
    {
        std::string error;
        ASSERT_EQ(parse(std::move(args), cfg_, error), ParseOutcome::kRun) << error;
        kernel_ = std::make_unique<Kernel>(cfg_, log_);
    }
    std::vector<uint8_t> get(int opt, size_t capacity, int expect_err = 0)
    {
        std::vector<uint8_t> v(capacity);
        EXPECT_EQ(kernel_->get_option(sock_, TARN_SOL_ROUTE, opt, v), expect_err) << opt;
        return v;
    }

    EmuConfig cfg_;
    EmuLog log_{false};
    std::unique_ptr<Kernel> kernel_;
    SocketState sock_;
};

TEST_F(KernelModel, VersionBlockFollowsTheConfiguration)
{
    make({"--types", "7", "--interface-version", "97", "--type-version", "101=3"});
    const auto &block = kernel_->version_block();
    ASSERT_EQ(block.size(), 103u);  // every type keeps its byte
    EXPECT_EQ(block[0], 7);
    EXPECT_EQ(block[1], 97);
    EXPECT_EQ(block[102], 3);
    EXPECT_EQ(block[1 + RTS_MSG_ROUTE], 'h');
    // A reader with a small buffer gets the block cut, like getsockopt.
    EXPECT_EQ(get(ROUTE_VERSION_INFO, 10), std::vector<uint8_t>(block.begin(), block.begin() + 10));
}

TEST_F(KernelModel, OptionsAreValidatedByName)
{
    make({"--fail-option", "8"});
    struct {
        int opt;
        size_t len;
        int err;
    } const cases[] = {
        {ROUTE_SENDER_ID, 1, 0},       {ROUTE_SENDER_ID, 2, EINVAL},
        {ROUTE_LR_ID, 2, 0},           {ROUTE_LR_ID, 4, EINVAL},
        {ROUTE_LISTEN_MASK, 8, 0},     {ROUTE_LISTEN_MASK, 4, EINVAL},
        {ROUTE_ASYNC_MODE, 4, 0},      {ROUTE_LISTEN_SUBTYPES, 12, 0},
        {ROUTE_FILTERS, 248, 0},       {ROUTE_FILTERS, 240, EINVAL},
        {ROUTE_MASTER_MODE, 4, 0},     {ROUTE_LOCAL_SLAVE_MODE, 4, 0},
        {ROUTE_SLAVE_MODE, 4, EINVAL}, // --fail-option
        {ROUTE_KERNEL_SEQ, 4, EINVAL}, {ROUTE_VERSION_INFO, 103, EINVAL},
        {2, 4, ENOPROTOOPT},           {21, 4, ENOPROTOOPT},
    };
    for (const auto &c : cases) {
        const std::vector<uint8_t> value(c.len, 0x5a);
        EXPECT_EQ(kernel_->set_option(sock_, TARN_SOL_ROUTE, c.opt, value.data(), value.size()),
                  c.err)
            << "option " << c.opt << " length " << c.len;
    }
    const uint8_t one = 1;
    EXPECT_EQ(kernel_->set_option(sock_, 0xffff, ROUTE_SENDER_ID, &one, 1), ENOPROTOOPT);
}

TEST_F(KernelModel, GetReturnsWhatWasSetOrZeros)
{
    make({});
    EXPECT_EQ(get(ROUTE_LISTEN_MASK, 8), std::vector<uint8_t>(8, 0));
    const uint8_t subtypes[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_EQ(kernel_->set_option(sock_, TARN_SOL_ROUTE, ROUTE_LISTEN_SUBTYPES, subtypes, 12), 0);
    EXPECT_EQ(get(ROUTE_LISTEN_SUBTYPES, 12), std::vector<uint8_t>(subtypes, subtypes + 12));
    sock_.kernel_seq = 0x01020304;
    EXPECT_EQ(get(ROUTE_KERNEL_SEQ, 4), (std::vector<uint8_t>{4, 3, 2, 1}));
    get(77, 4, ENOPROTOOPT);
}

}  // namespace
