// tarn-monitor end to end against a kernel emulator: what it prints is
// parsed back and compared with what the test sent through the library.
#include <signal.h>

#include <cstdlib>
#include <regex>

#include <gtest/gtest.h>
#include <tarn/tarn.h>

#include "json_writer.h"
#include "kernel_emulator.h"
#include "json_reader.h"
#include "monitor_process.h"
#include "record_json.h"

namespace tarn::test {
namespace {

using monitor::bytes_text;
using monitor::json_quote;

const std::regex kTime(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)");

// Adds a route to table 0 through the library, as a daemon would.
void add_route(rtslib_cookie *h, uint8_t af, const uint8_t *prefix, uint16_t plen, uint32_t nh)
{
    ASSERT_EQ(rtslib_rtm_add(h, 0, af, 1, 0, 2, 0, 0, 0, 0, nh, 0, prefix, plen, nullptr, nullptr),
              0);
}

std::vector<Json> json_lines(const std::string &out)
{
    std::vector<Json> objects;
    for (const std::string &line : lines_of(out)) {
        Json j;
        EXPECT_TRUE(parse_json(line, j)) << line;
        objects.push_back(j);
    }
    return objects;
}

// A route and an address added through the library reach a watching
// monitor, and its JSON lines carry what was sent, field by field.
TEST(MonitorWatch, JsonLinesCarryTheChangesSent)
{
    KernelEmulator emu;
    MonitorProcess mon({"watch", "--json", "--count", "2", "--timeout", "60", "route", "ifaddr"});
    ASSERT_EQ(mon.first_stderr_line(), "tarn-monitor: watching route, ifaddr");

    rtslib_cookie *h = rtslib_open_set_liberr(9, nullptr, nullptr);
    ASSERT_NE(h, nullptr);
    const uint8_t net[4] = {198, 51, 100, 0}, local[4] = {192, 0, 2, 77};
    add_route(h, TARN_AF_INET, net, 24, 400);
    const int em0 = ifl_getindexbyifname("em0.0");
    ASSERT_GT(em0, 0);
    ASSERT_EQ(rtslib_ifam_update(h, static_cast<uint32_t>(em0), TARN_AF_INET, nullptr, 0, local,
                                 32, RTS_OP_ADD),
              0);
    rtslib_close(h);

    ASSERT_EQ(mon.finish(), 0) << mon.err;
    const std::vector<Json> msgs = json_lines(mon.out);
    ASSERT_EQ(msgs.size(), 2u) << mon.out;
    const Json &route = msgs[0], &addr = msgs[1];
    for (const Json *m : {&route, &addr}) EXPECT_TRUE(std::regex_match((*m)["time"].text, kTime));

    EXPECT_EQ(route["type"].text, "route");
    EXPECT_EQ(route["op"].text, "add");
    EXPECT_EQ(route["record"].text, "rt_msg");
    const Json &rf = route["fields"];
    EXPECT_EQ(rf["hdr"]["type"].number(), 2u);
    EXPECT_EQ(rf["af"].number(), TARN_AF_INET);
    EXPECT_EQ(rf["prefix"].text, "198.51.100.0");
    EXPECT_EQ(rf["plen"].number(), 24u);
    EXPECT_EQ(rf["nhidx"].number(), 400u);
    EXPECT_EQ(rf["source"].kind, Json::kArray);

    EXPECT_EQ(addr["type"].text, "ifaddr");
    EXPECT_EQ(addr["op"].text, "add");
    const Json &af = addr["fields"];
    EXPECT_EQ(af["ifam_index"].number(), static_cast<uint64_t>(em0));
    EXPECT_EQ(af["ifam_local"].text, "192.0.2.77");
    EXPECT_EQ(af["ifam_local_plen"].number(), 32u);
    EXPECT_EQ(af["name"].text, "em0");
}

// Signals end a watch cleanly; a kernel that goes away is a failure.
TEST(MonitorWatch, EndsBySignalOrWhenTheKernelGoes)
{
    KernelEmulator emu;
    const struct {
        int sig;
        std::vector<std::string> args;
        std::string watching;
    } cases[] = {
        {SIGINT, {"watch"}, "every notification class"},
        // "-" and "_" stand for spaces; a type named twice is watched once.
        {SIGTERM, {"watch", "rt-class", "rt_class"}, "rt class"},
    };
    for (const auto &c : cases) {
        MonitorProcess mon(c.args);
        ASSERT_EQ(mon.first_stderr_line(), "tarn-monitor: watching " + c.watching);
        mon.signal(c.sig);
        EXPECT_EQ(mon.finish(), 0) << c.sig;
    }
    MonitorProcess mon({"watch", "rttable"});
    ASSERT_EQ(mon.first_stderr_line(), "tarn-monitor: watching rttable");
    emu.stop();
    EXPECT_EQ(mon.finish(), 1);
    EXPECT_NE(mon.err.find("the kernel closed the routing socket"), std::string::npos) << mon.err;
}

// One-shot queries over routes the test installed.
TEST(MonitorQuery, AnswersAsInstalled)
{
    KernelEmulator emu;
    rtslib_cookie *h = rtslib_open_set_liberr(9, nullptr, nullptr);
    ASSERT_NE(h, nullptr);
    const uint8_t net10[4] = {10, 0, 0, 0}, net6[16] = {0x20, 0x01, 0x0d, 0xb8};
    add_route(h, TARN_AF_INET, net10, 8, 100);
    add_route(h, TARN_AF_INET6, net6, 32, 600);
    ASSERT_EQ(rtslib_rtbm_add(h, "blue", 5, TARN_AF_INET, 0), 0);
    rtslib_close(h);

    struct Case {
        std::vector<std::string> args;
        int status;
        std::vector<std::pair<std::string, std::string>> fields;  // per line: field, text
    };
    const Case cases[] = {
        {{"--json", "get", "route", "10.0.0.0/8"}, 0, {{"prefix", "10.0.0.0"}}},
        {{"--json", "get", "route", "10.0.0.0/8", "0"}, 0, {{"nhidx", "100"}}},
        {{"--json", "list", "routes"}, 0, {{"prefix", "10.0.0.0"}, {"prefix", "2001:db8::"}}},
        {{"--json", "--af", "inet6", "list", "routes"}, 0, {{"nhidx", "600"}}},
        {{"--json", "list", "routes", "blue"}, 0, {}},
        {{"--json", "get", "table", "blue"}, 0, {{"tid", "5"}}},
        {{"--json", "get", "route", "10.9.0.0/16"}, 1, {}},
        {{"--json", "get", "table", "red"}, 1, {}},
        {{"--json", "list", "routes", "red"}, 1, {}},
    };
    for (const Case &c : cases) {
        const MonitorRun r = run_monitor(c.args);
        SCOPED_TRACE(c.args.back() + " " + r.err);
        EXPECT_EQ(r.status, c.status);
        const std::vector<Json> msgs = json_lines(r.out);
        ASSERT_EQ(msgs.size(), c.fields.size()) << r.out;
        for (size_t i = 0; i < msgs.size(); i++)
            EXPECT_EQ(msgs[i]["fields"][c.fields[i].first].text, c.fields[i].second);
        if (c.status != 0) {
            EXPECT_NE(r.err.find("not found"), std::string::npos);
        }
    }

    // Brief lines end with the addresses they carry, whatever the
    // formatter's summary left out.
    const MonitorRun routes = run_monitor({"list", "routes"});
    const std::vector<std::string> route_lines = lines_of(routes.out);
    ASSERT_EQ(route_lines.size(), 2u) << routes.out;
    EXPECT_TRUE(route_lines[0].ends_with(" | prefix=10.0.0.0/8")) << route_lines[0];
    EXPECT_TRUE(route_lines[1].ends_with(" | prefix=2001:db8::/32")) << route_lines[1];

    // Brief lines: a timestamp, then the formatter's columns.
    const MonitorRun brief = run_monitor({"list", "interfaces"});
    EXPECT_EQ(brief.status, 0);
    for (const std::string &line : lines_of(brief.out))
        EXPECT_TRUE(std::regex_search(line, std::regex("^\\S+Z \\S+ +\\S+ +(ifdev|iflogical) ")))
            << line;
    EXPECT_FALSE(brief.out.empty());
}

TEST(MonitorCommandLine, UsageErrorsAndHelp)
{
    const struct {
        std::vector<std::string> args;
        int status;
        std::string text;  // in stdout for status 0, in stderr otherwise
    } cases[] = {
        {{}, 2, "no command given"},
        {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
        {{"watch", "route", "nosuch"}, 2, "unknown message type \"nosuch\"; watch knows:\n  rttable\n  route\n"},
        {{"--count", "0", "watch"}, 2, "--count wants a positive number"},
        {{"--timeout", "soon", "watch"}, 2, "--timeout wants seconds"},
        {{"--count", "3", "list", "routes"}, 2, "--count and --timeout belong to watch"},
        {{"--af", "ipx", "list", "routes"}, 2, "--af wants inet or inet6"},
        {{"--bogus", "list", "routes"}, 2, "unknown option --bogus"},
        {{"get", "route", "10.0.0.0/33"}, 2, "is not a prefix"},
        {{"get", "route"}, 2, "get route wants PREFIX"},
        {{"get", "vlan"}, 2, "get wants route PREFIX or table NAME"},
        {{"list", "addresses", "em0"}, 2, "list addresses takes no operands"},
        {{"--help"}, 0, "  watch [TYPE...]"},
        {{"help", "get"}, 0, "tarn-monitor get [FORM] route PREFIX [TABLE]"},
        {{"watch", "--help"}, 0, "--count N"},
        {{"list", "-h"}, 0, "interfaces: every interface device"},
    };
    for (const auto &c : cases) {
        const MonitorRun r = run_monitor(c.args);
        SCOPED_TRACE(r.err);
        EXPECT_EQ(r.status, c.status);
        const std::string &where = c.status == 0 ? r.out : r.err;
        EXPECT_NE(where.find(c.text), std::string::npos) << where;
        if (c.status == 2) {
            EXPECT_NE(r.err.find("(try tarn-monitor --help)"), std::string::npos);
        }
    }
}

TEST(MonitorCommandLine, NoKernelIsOneLineNamingTheSocket)
{
    const std::string path = "/nonexistent-tarn-dir/kernel.sock";
    ::setenv("TARN_KERNEL_SOCKET", path.c_str(), 1);
    // A failed open keeps the handle's read buffer, as the library always
    // has; the sanitizer build would add that leak to the output.
    const char *asan = std::getenv("ASAN_OPTIONS");
    const std::string saved = asan != nullptr ? asan : "";
    ::setenv("ASAN_OPTIONS", (saved + ":detect_leaks=0").c_str(), 1);
    for (const char *command : {"watch", "list"}) {
        const MonitorRun r = run_monitor({command, command[0] == 'l' ? "routes" : "route"});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "tarn-monitor: no kernel reachable at " + path +
                             " (TARN_KERNEL_SOCKET): No such file or directory\n");
        EXPECT_EQ(r.out, "");
    }
    ::unsetenv("TARN_KERNEL_SOCKET");
    if (asan != nullptr) ::setenv("ASAN_OPTIONS", saved.c_str(), 1);
    else ::unsetenv("ASAN_OPTIONS");
}

TEST(MonitorJson, StringsAreEscapedAndStayValid)
{
    const struct {
        std::string in, out;
    } cases[] = {
        {"plain", "\"plain\""},
        {"q\"b\\s/", "\"q\\\"b\\\\s/\""},
        {"\n\r\t\x01\x1f\x7f", "\"\\n\\r\\t\\u0001\\u001f\\u007f\""},
        {"caf\xc3\xa9", "\"caf\xc3\xa9\""},                // valid UTF-8 kept
        {"\xff\xc3", "\"\\u00ff\\u00c3\""},                // stray bytes escaped
        {"\xc0\xaf", "\"\\u00c0\\u00af\""},                // overlong form
        {"\xed\xa0\x80", "\"\\u00ed\\u00a0\\u0080\""},     // surrogate
        {std::string("a\0b", 3), "\"a\\u0000b\""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(json_quote(c.in), c.out);
        Json j;
        EXPECT_TRUE(parse_json(json_quote(c.in), j)) << c.out;
    }

    monitor::JsonWriter w;
    w.begin_object();
    w.key("a");
    w.begin_array();
    w.number(18446744073709551615u);
    w.null();
    w.begin_object();
    w.end_object();
    w.end_array();
    w.key("b");
    w.string("x");
    w.end_object();
    EXPECT_EQ(w.text(), "{\"a\":[18446744073709551615,null,{}],\"b\":\"x\"}");
}

TEST(MonitorJson, ByteStringRules)
{
    const struct {
        const char *field;
        uint32_t family;
        std::vector<uint8_t> bytes;
        const char *text;
    } cases[] = {
        {"prefix", TARN_AF_INET, {10, 0, 0, 0}, "10.0.0.0"},
        {"prefix", TARN_AF_INET, {10, 1}, "10.1.0.0"},
        {"prefix", TARN_AF_INET6, {0x20, 0x01, 0x0d, 0xb8}, "2001:db8::"},
        {"ifam_local", TARN_AF_INET6, std::vector<uint8_t>(16, 0), "::"},
        {"prefix", 0, {10, 0, 0, 0}, "0a000000"},
        {"prefix", TARN_AF_INET, {1, 2, 3, 4, 5}, "0102030405"},
        {"prefixes", TARN_AF_INET, {10, 0, 0, 0}, "0a000000"},
        {"lr_name", 0, {'n', 'u', 'l', 'l', 0, 0}, "null"},
        {"name", TARN_AF_INET, {'e', 'm', '0', 0}, "em0"},
        {"name", 0, {'a', 1, 'b'}, "610162"},
        {"key", 0, {'e', 'm', '0'}, "656d30"},
        {"blob", 0, {}, ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(bytes_text(c.field, c.family, c.bytes.data(),
                             static_cast<uint32_t>(c.bytes.size())),
                  c.text)
            << c.field;
}

}  // namespace
}  // namespace tarn::test
