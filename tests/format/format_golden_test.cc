// Brief and full renderings of one message per formatter family against
// checked-in texts in golden/<name>.txt: a changed format shows as a diff.
//
// After an intended change of the output, rewrite the files and review the
// diff:
//   TARN_FORMAT_REGEN=1 build/host/tests/format/format_golden_test
// TARN_FORMAT_CORPUS=fuzz/corpus/format_fuzz additionally writes each message's
// envelope (or raw bytes) there, in a brief and a full seed of format_fuzz.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <tarn/tarn.h>

#include "report_collector.h"

namespace {

using tarn::test::ReportCollector;

// The wire bytes of one message: an IDR envelope of a record, or a raw message.
using Builder = std::function<std::vector<uint8_t>(rtslib_cookie *)>;

std::vector<uint8_t> envelope(rtslib_cookie *h, const void *record)
{
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(rtslib_msg_idl_encode(h, record, nullptr, &buf, &len), 0);
    std::vector<uint8_t> out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    rtslib_msg_free(h, buf);
    return out;
}

void header(rts_hdr_t &hdr, uint8_t type, uint8_t op, uint32_t seq)
{
    hdr.version = 98;
    hdr.type = type;
    hdr.op = op;
    hdr.seq = seq;
}

uint8_t kV4[] = {192, 0, 2, 1};
uint8_t kV6[] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
uint8_t kMac[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

idl_sockaddr_gen_t sockaddr(uint8_t af, uint8_t *addr, uint32_t len)
{
    idl_sockaddr_gen_t sa{};
    sa.sa_family = af;
    sa.sa_addr = addr;
    sa.sa_addr_len = len;
    return sa;
}

std::vector<uint8_t> ifdev(rtslib_cookie *h, const char *name, uint32_t addr_copies)
{
    ifdev_msg_t m{};
    header(m.hdr, RTS_MSG_IFDEV, RTS_OP_ADD, 7);
    m.ifdm_index = 12;
    m.ifdm_devflags = 0x8001;
    m.ifdm_flags = 0x11;
    m.ifdm_generation = 3;
    m.ifdm_snmp_id = 501;
    m.ifdm_media_type = 2;
    m.ifdm_attr = 0x40;
    m.ifdm_media_present = 1;
    m.ifdm_media.ifm_current = 8;
    m.ifdm_media.ifm_active = 4;
    m.ifdm_media.ifm_status = 1;
    m.name = reinterpret_cast<uint8_t *>(const_cast<char *>(name));
    m.name_len = static_cast<uint32_t>(std::strlen(name));
    idl_sockaddr_gen_t v4 = sockaddr(2, kV4, 4), v6 = sockaddr(28, kV6, 16),
                       mac = sockaddr(18, kMac, 6);
    std::vector<idl_sockaddr_gen_t *> addrs;
    for (uint32_t i = 0; i < addr_copies; ++i) addrs.push_back(i % 2 ? &v6 : &v4);
    idl_sockaddr_gen_t *haddr[] = {&mac};
    m.addr = addrs.data();
    m.addr_count = addr_copies;
    m.haddr = haddr;
    m.haddr_count = 1;
    if_pfe_options_t info{};
    info.mtu = 1514;
    if_pfe_options_t *dinfo[] = {&info};
    m.dinfo = dinfo;
    m.dinfo_count = 1;
    return envelope(h, &m);
}

std::vector<uint8_t> route(rtslib_cookie *h)
{
    rt_msg_t m{};
    header(m.hdr, RTS_MSG_ROUTE, RTS_OP_CHANGE, 0);
    m.hdr.error = 17;
    m.tid = 5;
    m.af = 2;
    m.nhidx = 1048574;
    m.plen = 24;
    uint8_t prefix[] = {10, 1, 2, 0};
    m.prefix = prefix;
    m.prefix_len = 4;
    m.flags = 0x20;
    m.preference = 170;
    return envelope(h, &m);
}

std::vector<uint8_t> table(rtslib_cookie *h)
{
    rtb_msg_t m{};
    header(m.hdr, RTS_MSG_RTTABLE, RTS_OP_GET, 9);
    m.hdr.op_flags = 2;
    m.tid = 3;
    m.af = 28;
    m.count = 1;
    char name[] = "inet6.0";
    m.name = reinterpret_cast<uint8_t *>(name);
    m.name_len = sizeof name;
    return envelope(h, &m);
}

std::vector<uint8_t> composite(rtslib_cookie *h, bool good)
{
    rnhc_msg_t m{};
    header(m.hdr, RTS_MSG_NH_COMP, RTS_OP_ADD, 4);
    m.nh_index = 600;
    m.comp_flags = 0x3;
    // Two TLVs (type, length, value); the bad one claims more than is there.
    uint16_t data[] = {1, 2, 0xabcd, 2, static_cast<uint16_t>(good ? 0 : 40)};
    m.comp_data = reinterpret_cast<uint8_t *>(data);
    m.comp_data_len = sizeof data;
    m.func.func_id = 7;
    return envelope(h, &m);
}

std::vector<uint8_t> sysstats(rtslib_cookie *h)
{
    sysstats_msg_t m{};
    header(m.hdr, RTS_MSG_UNKNOWN, RTS_OP_GET, 2);
    m.stats_kind = 4;
    return envelope(h, &m);
}

std::vector<uint8_t> ifaddr(rtslib_cookie *h)
{
    ifa_msg_t m{};
    header(m.hdr, RTS_MSG_IFADDR, RTS_OP_DELETE, 21);
    m.ifam_index = 70;
    m.ifam_af = 2;
    m.ifam_local_plen = 24;
    uint8_t none[4] = {};
    m.ifam_dest = none;  // a zero address prints as "none"
    m.ifam_dest_len = 4;
    m.ifam_local = kV4;
    m.ifam_local_len = 4;
    char name[] = "lo0.16385";
    m.name = reinterpret_cast<uint8_t *>(name);
    m.name_len = sizeof name - 1;
    return envelope(h, &m);
}

// More entries than a full dump has room for: the list is cut visibly.
std::vector<uint8_t> sysconf(rtslib_cookie *h)
{
    rts_sysconf_msg_t m{};
    header(m.hdr, RTS_MSG_SYSCONF, RTS_OP_GET, 1);
    m.conf_flags = 1;
    std::vector<rts_sysconf_t> confs(60);
    std::vector<rts_sysconf_t *> ptrs;
    for (uint32_t i = 0; i < confs.size(); ++i) {
        confs[i].conf_id = i;
        confs[i].conf_value = i * i;
        ptrs.push_back(&confs[i]);
    }
    m.confs = ptrs.data();
    m.confs_count = static_cast<uint32_t>(ptrs.size());
    return envelope(h, &m);
}

std::vector<uint8_t> raw(uint8_t type, uint32_t len)
{
    std::vector<uint8_t> b(len);
    b[4] = 98;
    b[5] = type;
    b[6] = RTS_OP_GET;
    std::memcpy(&b[8], &len, 4);
    uint32_t seq = 11;
    std::memcpy(&b[12], &seq, 4);
    return b;
}

std::vector<uint8_t> rtsock_stats(bool counters)
{
    rtslib_rtsm_msg m{};
    std::vector<uint8_t> b = raw(RTS_MSG_RTSOCK_STATS, sizeof m);
    std::memcpy(&m, b.data(), b.size());
    m.rtsm_kind = RTSLIB_RTSM_TABLE;
    m.rtsm_stats_op = 1;
    m.rtsm_msg_type = RTS_MSG_ROUTE;
    if (counters)
        for (uint32_t i = 0; i < RTSLIB_RTSM_ENTRIES; ++i) {
            m.entries[i].sndpkts = i * 10;
            m.entries[i].sndbytes = i * 1000ull + 123456789012ull;
            m.entries[i].sndmaxpkt = 1500;
            m.entries[i].rcvpkts = i;
            m.entries[i].rcvbytes = i * 64;
            m.entries[i].rcvmaxpkt = 64;
        }
    std::memcpy(b.data(), &m, sizeof m);
    return b;
}

struct Case {
    const char *name;
    Builder build;
};

const Case kCases[] = {
    {"ifdev", [](rtslib_cookie *h) { return ifdev(h, "ge-0/0/0", 2); }},
    {"ifdev_long_address_list", [](rtslib_cookie *h) { return ifdev(h, "xe-1/2/3.16386", 90); }},
    {"route", route},
    {"ifaddr", ifaddr},
    {"sysconf_long_list", sysconf},
    {"rttable", table},
    {"nh_comp", [](rtslib_cookie *h) { return composite(h, true); }},
    {"sysstats_columns_only", sysstats},
    {"raw_rtstats", [](rtslib_cookie *) { return raw(RTS_MSG_RTSTATS, 48); }},
    {"rtsock_stats", [](rtslib_cookie *) { return rtsock_stats(true); }},
    {"rtsock_stats_all_zero", [](rtslib_cookie *) { return rtsock_stats(false); }},
};

// One rendering: the text, then the result and the reports it made.
std::string render(rtslib_cookie *h, ReportCollector &reports, const void *msg, int brief,
                   int size)
{
    std::vector<char> buf(static_cast<size_t>(size));
    reports.reports.clear();
    int rc = rtslib_format_output(h, buf.data(), size, brief, msg);
    std::string out = std::string(buf.data()) + "\n--- rc " + std::to_string(rc) + "\n";
    for (const auto &r : reports.reports) out += "--- report " + r.text;
    return out;
}

// Brief lines get twice the usual budget here, so that the files show the
// device summary whole (it does not fit RTSLIB_FORMAT_BRIEF_SIZE).
constexpr int kBriefSize = 2 * RTSLIB_FORMAT_BRIEF_SIZE;

class FormatGolden : public ::testing::TestWithParam<Case> {};

TEST_P(FormatGolden, MatchesCheckedInText)
{
    ReportCollector reports;
    rtslib_cookie *h = rtslib_open_nc();
    ASSERT_NE(h, nullptr);
    rtslib_lib_error_register(h, &reports, ReportCollector::sink);
    std::vector<uint8_t> wire = GetParam().build(h);

    void *msg = nullptr, *map = nullptr;
    uint32_t size = static_cast<uint32_t>(wire.size());
    bool decoded = rtslib_msg_idl_decode(h, wire.data(), size, &msg, &map) == 0;
    const void *message = decoded ? msg : wire.data();
    const tarn_idl_type *type = tarn_idl_type_for_msg(static_cast<const uint8_t *>(message)[5]);
    std::vector<uint8_t> before(static_cast<const uint8_t *>(message),
                                static_cast<const uint8_t *>(message) +
                                    (decoded ? tarn_idl_type_size(type) : size));

    std::string text = "brief:\n" + render(h, reports, message, 1, kBriefSize) + "full:\n" +
                       render(h, reports, message, 0, RTSLIB_FORMAT_FULL_SIZE);
    EXPECT_EQ(0, std::memcmp(before.data(), message, before.size())) << "formatting changed it";

    std::string path = std::string(TARN_FORMAT_GOLDEN_DIR) + "/" + GetParam().name + ".txt";
    if (std::getenv("TARN_FORMAT_REGEN")) {
        std::ofstream(path, std::ios::binary) << text;
    } else {
        std::ifstream in(path, std::ios::binary);
        ASSERT_TRUE(in) << path << " missing: run with TARN_FORMAT_REGEN=1";
        std::stringstream want;
        want << in.rdbuf();
        EXPECT_EQ(want.str(), text);
    }
    if (const char *corpus = std::getenv("TARN_FORMAT_CORPUS")) {
        // format_fuzz inputs: two bytes of buffer size and mode, then the message.
        const std::pair<const char *, std::vector<uint8_t>> seeds[] = {
            {".brief", {0xff, 0x80}},  // 256 bytes, brief
            {".full", {0xff, 0x07}},   // 2048 bytes, full
        };
        for (const auto &[suffix, prefix] : seeds) {
            std::vector<uint8_t> input = prefix;
            input.insert(input.end(), wire.begin(), wire.end());
            std::ofstream(std::string(corpus) + "/" + GetParam().name + suffix, std::ios::binary)
                .write(reinterpret_cast<const char *>(input.data()),
                       static_cast<long>(input.size()));
        }
    }
    if (decoded) rtslib_msg_idl_release(h, msg);
    rtslib_close(h);
}

INSTANTIATE_TEST_SUITE_P(Messages, FormatGolden, ::testing::ValuesIn(kCases),
                         [](const auto &param) { return std::string(param.param.name); });

}  // namespace

namespace {

// Every message type with a record, from an empty record: the brief line
// names the type and fits the brief budget (the device summary alone is
// longer than that by design), the full dump fits its own. With
// TARN_FORMAT_CORPUS set, each one's envelope becomes a format_fuzz seed.
TEST(FormatEveryType, EmptyRecordsFormat)
{
    rtslib_cookie *h = rtslib_open_nc();
    ASSERT_NE(h, nullptr);
    ReportCollector reports;
    rtslib_lib_error_register(h, &reports, ReportCollector::sink);
    for (uint32_t t = 0; t < RTS_MSG_TYPE_COUNT; ++t) {
        const tarn_idl_type *type = tarn_idl_type_for_msg(t);
        if (!type) continue;
        SCOPED_TRACE(tarn_idl_type_name(type));
        std::vector<uint64_t> record((tarn_idl_type_size(type) + 7) / 8);
        reinterpret_cast<rts_hdr_t *>(record.data())->type = static_cast<uint8_t>(t);
        std::vector<uint8_t> wire = envelope(h, record.data());
        void *msg = nullptr, *map = nullptr;
        ASSERT_EQ(rtslib_msg_idl_decode(h, wire.data(), static_cast<uint32_t>(wire.size()), &msg,
                                        &map),
                  0);
        char brief[RTSLIB_FORMAT_BRIEF_SIZE], full[RTSLIB_FORMAT_FULL_SIZE];
        EXPECT_EQ(rtslib_format_brief_output(h, brief, msg), t == RTS_MSG_IFDEV ? -1 : 0);
        EXPECT_EQ(std::string(brief).substr(0, 35),
                  "async      --   " + (std::string(rtm_types[t]) + "          ").substr(0, 10) +
                      " nop     ");
        EXPECT_EQ(rtslib_format_output(h, full, sizeof full, 0, msg), 0);
        rtslib_msg_idl_release(h, msg);
        if (const char *corpus = std::getenv("TARN_FORMAT_CORPUS")) {
            std::vector<uint8_t> input = {0x7f, 0x05};  // 1408 bytes, full
            input.insert(input.end(), wire.begin(), wire.end());
            std::ofstream(std::string(corpus) + "/empty_" + std::to_string(t), std::ios::binary)
                .write(reinterpret_cast<const char *>(input.data()),
                       static_cast<long>(input.size()));
        }
    }
    rtslib_close(h);
}

}  // namespace
