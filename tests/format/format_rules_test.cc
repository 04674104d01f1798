// The formatter's fixed rules: name tables and their clamping, the cursor,
// the buffer discipline at every size, and the reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <tarn/tarn.h>

#include "report_collector.h"

namespace {

using tarn::test::Report;
using tarn::test::ReportCollector;

struct NameCase {
    const char *(*lookup)(int);
    int value;
    const char *want;
};

TEST(FormatNames, LookupsClampToTheirLastEntry)
{
    const NameCase cases[] = {
        {rtslib_format_op, 0, "nop"},          {rtslib_format_op, 9, "chg_get"},
        {rtslib_format_op, 11, "unknown"},     {rtslib_format_op, -1, "unknown"},
        {rtslib_format_rtm_type, 5, "ifdev"},  {rtslib_format_rtm_type, 100, "residx"},
        {rtslib_format_rtm_type, 102, "unknown"}, {rtslib_format_rtm_type, 500, "unknown"},
        {rtslib_format_rtm_type, -3, "unknown"},
        {rtslib_format_mtype_rcv, 3, "Selective slots"}, {rtslib_format_mtype_rcv, 6, "Invalid"},
        {rtslib_format_af, 0, "unspec"},        {rtslib_format_af, 21, "cnt"},
        {rtslib_format_af, 22, "unknown"},      {rtslib_format_af, 28, "inet6"},
        {rtslib_format_af, 42, "unknown"},      {rtslib_format_af, 69, "pppoe"},
        {rtslib_format_af, 70, "unknown"},      {rtslib_format_af, 72, "multi-services-load-balancing"},
        {rtslib_format_af, 75, "steering"},     {rtslib_format_af, 76, "unknown"},
        {rtslib_format_af, 200, "unknown"},     {rtslib_format_af, -1, "unknown"},
        {rtslib_format_cos_type, 33, "unknown"}, {rtslib_format_cos_type, 34, "unknown"},
        {rtslib_format_cos_type, 1, "scheduler"},
        {rtslib_format_stats_op, 0, "Total ops"}, {rtslib_format_stats_op, 3, "Locked ops"},
        {rtslib_format_stats_op, 4, "Unknown ops"}, {rtslib_format_stats_op, -7, "Unknown ops"},
    };
    for (const NameCase &c : cases) EXPECT_STREQ(c.lookup(c.value), c.want) << c.value;
    EXPECT_STREQ(rtslib_brief_output_header(), "sender   flag    type       op");
}

TEST(FormatCursor, StopsAtTheEndAndStaysStopped)
{
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    char *pos = buf;
    int left = 10;
    rtslib_fill_format_buf(&pos, &left, "%s", "abcd");
    EXPECT_EQ(pos, buf + 4);
    EXPECT_EQ(left, 6);
    rtslib_fill_format_buf(&pos, &left, "%d", 123456);  // 6 characters: no room for the NUL
    EXPECT_EQ(pos, nullptr);
    EXPECT_STREQ(buf, "abcd12345");
    rtslib_fill_format_buf(&pos, &left, "more");
    EXPECT_EQ(pos, nullptr);
    EXPECT_EQ(buf[10], '#') << "wrote past the remaining bytes";
}

// A message with a record, decoded from its envelope.
struct Decoded {
    rtslib_cookie *h;
    void *msg = nullptr;
    explicit Decoded(rtslib_cookie *handle, const void *record) : h(handle)
    {
        void *buf = nullptr, *map = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(rtslib_msg_idl_encode(h, record, nullptr, &buf, &len), 0);
        EXPECT_EQ(rtslib_msg_idl_decode(h, buf, len, &msg, &map), 0);
        rtslib_msg_free(h, buf);
    }
    ~Decoded() { rtslib_msg_idl_release(h, msg); }
};

class FormatOutput : public ::testing::Test {
protected:
    void SetUp() override
    {
        h = rtslib_open_nc();
        ASSERT_NE(h, nullptr);
        rtslib_lib_error_register(h, &reports, ReportCollector::sink);
    }
    void TearDown() override { rtslib_close(h); }

    ifdev_msg_t device(const char *name)
    {
        ifdev_msg_t m{};
        m.hdr.type = RTS_MSG_IFDEV;
        m.hdr.op = RTS_OP_ADD;
        m.name = reinterpret_cast<uint8_t *>(const_cast<char *>(name));
        m.name_len = static_cast<uint32_t>(std::strlen(name));
        return m;
    }

    rtslib_cookie *h = nullptr;
    ReportCollector reports;
};

TEST_F(FormatOutput, BriefOfALongNameOverflowsAndIsReported)
{
    std::string name(120, 'x');
    ifdev_msg_t m = device(name.c_str());
    Decoded d(h, &m);
    char buf[RTSLIB_FORMAT_BRIEF_SIZE + 8];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(rtslib_format_brief_output(h, buf, d.msg), -1);
    EXPECT_EQ(std::strlen(buf), RTSLIB_FORMAT_BRIEF_SIZE - 1u);
    EXPECT_EQ(buf[RTSLIB_FORMAT_BRIEF_SIZE], '#');
    ASSERT_EQ(reports.reports.size(), 1u);
    EXPECT_EQ(reports.reports[0],
              (Report{RTSLIB_LOG_WARNING,
                      "rtslib: WARNING output brief buffer too small for format!\n"}));
}

// Every buffer size from 1 up: never a byte past it, -1 until the text fits,
// and each cut text is a prefix of the whole.
TEST_F(FormatOutput, EverySizeKeepsToTheBuffer)
{
    ifdev_msg_t m = device("so-1/0/0");
    Decoded d(h, &m);
    for (int brief : {1, 0}) {
        char whole[RTSLIB_FORMAT_FULL_SIZE];
        ASSERT_EQ(rtslib_format_output(h, whole, sizeof whole, brief, d.msg), 0);
        int need = static_cast<int>(std::strlen(whole)) + 1;
        for (int size = 1; size <= need; ++size) {
            std::vector<char> buf(static_cast<size_t>(size) + 4, '#');
            int rc = rtslib_format_output(h, buf.data(), size, brief, d.msg);
            EXPECT_EQ(rc, size < need ? -1 : 0) << size;
            EXPECT_EQ(std::string(buf.end() - 4, buf.end()), "####") << size;
            EXPECT_EQ(std::strncmp(buf.data(), whole, std::strlen(buf.data())), 0) << size;
        }
    }
    EXPECT_EQ(reports.reports.back().text,
              "rtslib: WARNING output full buffer too small for format!\n");
}

TEST_F(FormatOutput, UnreadableCompositeNextHopIsAnError)
{
    rnhc_msg_t m{};
    m.hdr.type = RTS_MSG_NH_COMP;
    uint16_t tlv[] = {1, 9, 0};  // claims 9 value bytes, has 2
    m.comp_data = reinterpret_cast<uint8_t *>(tlv);
    m.comp_data_len = sizeof tlv;
    Decoded d(h, &m);
    char buf[RTSLIB_FORMAT_BRIEF_SIZE];
    EXPECT_EQ(rtslib_format_brief_output(h, buf, d.msg), -1);
    ASSERT_EQ(reports.reports.size(), 1u);
    EXPECT_EQ(reports.reports[0],
              (Report{RTSLIB_LOG_ERROR,
                      "rtslib: ERROR Failed to parse TLVs on composite-NH msg: Invalid argument\n"}));
}

TEST_F(FormatOutput, ShortStatisticsShowOnlyWholeEntries)
{
    rtslib_rtsm_msg m{};
    m.hdr[5] = RTS_MSG_RTSOCK_STATS;
    uint32_t len = offsetof(rtslib_rtsm_msg, entries) + 2 * sizeof(rtslib_rtsm_entry) + 5;
    std::memcpy(&m.hdr[8], &len, 4);
    m.rtsm_kind = RTSLIB_RTSM_TABLE;
    for (auto &e : m.entries) e.rcvpkts = 1;
    char buf[RTSLIB_FORMAT_FULL_SIZE];
    EXPECT_EQ(rtslib_rtsm_format_full_output(h, buf, &m), -1);
    std::string text = buf;
    EXPECT_NE(text.find("       add "), std::string::npos) << text;
    EXPECT_EQ(text.find("    change "), std::string::npos) << text;
    ASSERT_EQ(reports.reports.size(), 1u);
    EXPECT_EQ(reports.reports[0].text, "rtslib: WARNING short rtsock stats message: length 125\n");
}

TEST_F(FormatOutput, PrintToFileUsesTheTextAsFormat)
{
    rtb_msg_t m{};
    m.hdr.type = RTS_MSG_RTTABLE;
    char name[] = "a%%b";
    m.name = reinterpret_cast<uint8_t *>(name);
    m.name_len = sizeof name;
    Decoded d(h, &m);
    char want[RTSLIB_FORMAT_BRIEF_SIZE];
    ASSERT_EQ(rtslib_format_brief_output(h, want, d.msg), 0);
    std::string expect = want;
    expect.replace(expect.find("a%%b"), 4, "a%b");

    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    rtslib_print_msg_to_file(h, f, 1, d.msg);
    std::vector<uint8_t> raw(RTS_HDR_MIN_LEN);  // a header whose length word is short
    raw[5] = RTS_MSG_RTSTATS;
    raw[8] = 10;
    rtslib_print_msg_to_file(h, f, 1, raw.data());
    rtslib_print_msg_to_file(h, f, 1, nullptr);
    rtslib_print_msg_to_file(h, nullptr, 1, d.msg);
    std::rewind(f);
    char got[4096] = {};
    size_t n = std::fread(got, 1, sizeof got - 1, f);
    std::fclose(f);
    EXPECT_EQ(std::string(got, n),
              expect + "rtslib_format_output error: " + std::strerror(-1) + "\n");
}

TEST(FormatSockaddr, RendersEachFamily)
{
    uint8_t v4[] = {198, 51, 100, 7}, v6[16] = {0xfe, 0x80}, mac[] = {0xa, 0xb, 0xc};
    struct {
        uint8_t af;
        uint8_t *addr;
        uint32_t len;
        const char *want;
    } cases[] = {
        {2, v4, 4, "inet 198.51.100.7"}, {28, v6, 16, "inet6 fe80::"},
        {18, mac, 3, "link 0a:0b:0c"},   {2, v4, 3, "inet len 3"},
        {37, nullptr, 0, "mpls len 0"},
    };
    for (const auto &c : cases) {
        idl_sockaddr_gen_t sa{};
        sa.sa_family = c.af;
        sa.sa_addr = c.addr;
        sa.sa_addr_len = c.len;
        char buf[64];
        EXPECT_STREQ(rtslib_format_sockaddr(&sa, buf, sizeof buf), c.want);
    }
    char small[5];
    idl_sockaddr_gen_t sa{};
    sa.sa_family = 2;
    sa.sa_addr = v4;
    sa.sa_addr_len = 4;
    EXPECT_STREQ(rtslib_format_sockaddr(&sa, small, sizeof small), "inet");
}

}  // namespace
