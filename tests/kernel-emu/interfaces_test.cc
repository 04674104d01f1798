// The emulated kernel's interfaces, without processes: answers to each kind
// of lookup, notifications of changes, the routing sysctl's interface lists,
// the --interfaces file and the control commands.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_config.h"
#include "kernel.h"
#include <tarn/tarn.h>

namespace {

using namespace tarn::kemu;

constexpr uint64_t kIfAll = 0x1 | 0x2 | 0x4 | 0x8;  // devices, logicals, families, addresses

ParseOutcome parse(std::vector<std::string> args, EmuConfig &cfg, std::string &error)
{
    args.insert(args.begin(), "tarn-kernel-emu");
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return parse_args(static_cast<int>(args.size()), argv.data(), cfg, error);
}

class Ifaces : public testing::Test {
protected:
    Ifaces() { make({}); }
    ~Ifaces() override { rtslib_close(codec_); }

    void make(std::vector<std::string> args)
    {
        std::string error;
        ASSERT_EQ(parse(std::move(args), cfg_, error), ParseOutcome::kRun) << error;
        kernel_ = std::make_unique<Kernel>(cfg_, log_);
        asker_ = kernel_->open_socket("asker");
        listener_ = kernel_->open_socket("listener");
        kernel_->socket(listener_)->state.listen_mask = kIfAll;
    }

    // Decoded records stay valid for the whole test.
    const void *decode(const uint8_t *bytes, size_t len)
    {
        auto &arena = arenas_.emplace_back(64 * 1024);
        void *rec = nullptr;
        const int rc = rtslib_msg_idl_decode_pa(codec_, bytes, static_cast<uint32_t>(len), &rec,
                                                nullptr, arena.data(),
                                                static_cast<uint32_t>(arena.size()));
        EXPECT_EQ(rc, 0);
        return rc == 0 ? rec : nullptr;
    }
    template <typename Record>
    std::vector<Outgoing> send(const Record &req, const void *tlv_map = nullptr)
    {
        const auto bytes = encode_envelope(&req, tlv_map, tlv_map ? Encoding::kTlv : Encoding::kIdr);
        return kernel_->handle_message(asker_, bytes.data(), bytes.size());
    }
    // The single answer to `req`.
    template <typename Record>
    const Record *ask(const Record &req, const void *tlv_map = nullptr)
    {
        const auto out = send(req, tlv_map);
        EXPECT_EQ(out.size(), 1u);
        if (out.size() != 1 || out[0].socket != asker_) return nullptr;
        return static_cast<const Record *>(decode(out[0].bytes.data(), out[0].bytes.size()));
    }
    // "type/op" of each notification the listener got.
    std::vector<std::string> heard(const std::vector<Outgoing> &out)
    {
        std::vector<std::string> v;
        for (const auto &o : out) {
            EXPECT_EQ(o.socket, listener_);
            const auto *h = static_cast<const rts_hdr_t *>(decode(o.bytes.data(), o.bytes.size()));
            if (h != nullptr) v.push_back(std::to_string(h->type) + "/" + std::to_string(h->op));
        }
        return v;
    }
    std::vector<std::string> heard_queued()
    {
        std::vector<Outgoing> out;
        auto &q = kernel_->socket(listener_)->queue;
        for (; !q.empty(); q.pop()) out.push_back({listener_, q.front(), true});
        return heard(out);
    }

    EmuConfig cfg_;
    EmuLog log_{false};
    std::unique_ptr<Kernel> kernel_;
    uint64_t asker_ = 0, listener_ = 0;
    rtslib_cookie *codec_ = rtslib_open_nc();
    std::deque<std::vector<uint8_t>> arenas_;
};

rts_hdr_t hdr(uint8_t type, uint8_t op)
{
    constexpr uint8_t kVersions[RTS_MSG_TYPE_COUNT] = RTS_MSG_VERSIONS_INIT;
    return {0, kVersions[type], type, op, 0, 0, 41, 0, 0, 0, nullptr, 0};
}

std::string name(const uint8_t *p, uint32_t len)
{
    return p == nullptr ? "" : std::string(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), len));
}

std::string addr_text(const uint8_t *p, uint32_t len)
{
    char buf[INET6_ADDRSTRLEN] = "?";
    if (len == 4) inet_ntop(AF_INET, p, buf, sizeof buf);
    if (len == 16) inet_ntop(AF_INET6, p, buf, sizeof buf);
    return buf;
}

// Default set: lo0 1, em0 2, em1 3, ge-0/0/0 4; lo0.0 64, em0.0 65, em1.0 66,
// ge-0/0/0.0 67, ge-0/0/0.5 68.
TEST_F(Ifaces, LookupsAnswerBySelector)
{
    uint8_t em1[] = "em1", em0_0[] = "em0.0", ge[] = "ge-0/0/0", nosuch[] = "xe9";
    struct Case {
        const char *what;
        std::function<void(ifl_msg_t &)> fill;
        uint32_t index;  // 0: not found
        const char *device;
        uint32_t unit;
    } cases[] = {
        {"index", [](ifl_msg_t &m) { m.iflm_index = 66; }, 66, "em1", 0},
        {"device name and unit", [&](ifl_msg_t &m) { m.name = ge; m.name_len = sizeof ge; m.iflm_unit = 5; }, 68, "ge-0/0/0", 5},
        {"whole name is no device name", [&](ifl_msg_t &m) { m.name = em0_0; m.name_len = sizeof em0_0; }, 0, "", 0},
        {"snmp index", [](ifl_msg_t &m) { m.iflm_snmp_id = 1064; }, 64, "lo0", 0},
        {"sid", [](ifl_msg_t &m) { m.iflm_sid_high = 4; m.iflm_sid_low = 67; }, 67, "ge-0/0/0", 0},
        {"device index", [](ifl_msg_t &m) { m.iflm_devindex = 3; }, 66, "em1", 0},
        {"unknown name", [&](ifl_msg_t &m) { m.name = nosuch; m.name_len = sizeof nosuch; }, 0, "", 0},
        {"unknown index", [](ifl_msg_t &m) { m.iflm_index = 99; }, 0, "", 0},
        {"sid of another device", [](ifl_msg_t &m) { m.iflm_sid_high = 2; m.iflm_sid_low = 67; }, 0, "", 0},
    };
    for (const auto &c : cases) {
        ifl_msg_t req{};
        req.hdr = hdr(RTS_MSG_IFLOGICAL, RTS_OP_GET);
        c.fill(req);
        const ifl_msg_t *a = ask(req);
        ASSERT_NE(a, nullptr) << c.what;
        EXPECT_EQ(a->hdr.seq, 41u) << c.what;
        EXPECT_EQ(a->hdr.error, c.index ? 0u : 2u) << c.what;
        if (c.index == 0) continue;
        EXPECT_EQ(a->iflm_index, c.index) << c.what;
        EXPECT_EQ(name(a->name, a->name_len), c.device) << c.what;
        EXPECT_EQ(a->iflm_unit, c.unit) << c.what;
        EXPECT_EQ(a->iflm_snmp_id, 1000 + c.index) << c.what;
    }

    ifdev_msg_t dreq{};
    dreq.hdr = hdr(RTS_MSG_IFDEV, RTS_OP_GET);
    dreq.name = em1;
    dreq.name_len = sizeof em1;
    const ifdev_msg_t *d = ask(dreq);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->ifdm_index, 3u);
    dreq.name = nullptr;
    dreq.name_len = 0;
    dreq.ifdm_snmp_id = 4;
    d = ask(dreq);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(name(d->name, d->name_len), "ge-0/0/0");

    // The unnumbered family names its donor; a numbered one does not.
    iff_msg_t freq{};
    freq.hdr = hdr(RTS_MSG_IFFAMILY, RTS_OP_GET);
    freq.iffm_af = TARN_AF_INET;
    freq.name = ge;
    freq.name_len = sizeof ge;
    freq.iffm_unit = 5;
    // Asked in TLV, answered in TLV: the donor record survives the presence map.
    iff_msg_map_t fmap{};
    fmap.bits = (1u << (IFF_MSG_BIT_NAME + 1)) - 1;
    fmap.hdr.bits = (1u << RTS_HDR_BIT_INFO) - 1;
    const iff_msg_t *f = ask(freq, &fmap);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->iffm_index, 68u);
    EXPECT_EQ(f->iffm_flags & kIffUnnumbered, kIffUnnumbered);
    ASSERT_EQ(f->hdr.info_count, 1u);
    EXPECT_EQ(f->hdr.info[0]->unnum_donor.donor_ifl_index, 64u);
    freq.iffm_unit = 0;
    f = ask(freq);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->iffm_index, 67u);
    EXPECT_EQ(f->iffm_flags & kIffUnnumbered, 0u);
    EXPECT_EQ(f->hdr.info_count, 0u);
    freq.iffm_af = TARN_AF_INET6;
    f = ask(freq);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->hdr.error, 2u);

    // Addresses: the first of the interface, one by its bytes, the next one.
    ifa_msg_t areq{};
    areq.hdr = hdr(RTS_MSG_IFADDR, RTS_OP_GET);
    areq.ifam_index = 65;
    areq.ifam_af = TARN_AF_INET6;
    const ifa_msg_t *a = ask(areq);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(addr_text(a->ifam_local, a->ifam_local_len), "2001:db8::1");
    EXPECT_EQ(a->ifam_local_plen, 64u);
    uint8_t lo[4] = {127, 0, 0, 1};
    areq.ifam_index = 64;
    areq.ifam_af = TARN_AF_INET;
    areq.ifam_local = lo;
    areq.ifam_local_len = 4;
    areq.ifam_local_plen = 32;
    a = ask(areq);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->hdr.error, 0u);
    EXPECT_EQ(name(a->name, a->name_len), "lo0");
    areq.hdr.op = RTS_OP_GETNEXT;
    a = ask(areq);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->hdr.error, 2u);  // lo0.0 has one IPv4 address
}

TEST_F(Ifaces, ChangesNotifyListenersAndAnswerNobody)
{
    uint8_t em1[] = "em1", em2[] = "em2";
    uint8_t addr[4] = {10, 1, 2, 3};
    struct Step {
        const char *what;
        std::function<std::vector<Outgoing>()> run;
        std::vector<std::string> heard;
    } steps[] = {
        {"device add", [&] { ifdev_msg_t m{}; m.hdr = hdr(RTS_MSG_IFDEV, RTS_OP_ADD); m.name = em2; m.name_len = sizeof em2; return send(m); }, {"5/1"}},
        {"same device again", [&] { ifdev_msg_t m{}; m.hdr = hdr(RTS_MSG_IFDEV, RTS_OP_ADD); m.name = em2; m.name_len = sizeof em2; return send(m); }, {}},
        {"logical add", [&] { ifl_msg_t m{}; m.hdr = hdr(RTS_MSG_IFLOGICAL, RTS_OP_ADD); m.name = em2; m.name_len = sizeof em2; m.iflm_unit = 7; return send(m); }, {"6/1"}},
        {"address add by name (ioctl)", [&] {
             uint8_t full[] = "em2.7";
             ifa_msg_t m{}; m.hdr = hdr(RTS_MSG_IFADDR, RTS_OP_ADD); m.ifam_af = TARN_AF_INET;
             m.name = full; m.name_len = sizeof full; m.ifam_local = addr; m.ifam_local_len = 4; m.ifam_local_plen = 32;
             return send(m); }, {"7/1", "8/1"}},
        {"address add to unknown interface", [&] {
             ifa_msg_t m{}; m.hdr = hdr(RTS_MSG_IFADDR, RTS_OP_ADD); m.ifam_index = 99; m.ifam_af = TARN_AF_INET;
             m.ifam_local = addr; m.ifam_local_len = 4; m.ifam_local_plen = 32; return send(m); }, {}},
        {"device flags change", [&] { ifdev_msg_t m{}; m.hdr = hdr(RTS_MSG_IFDEV, RTS_OP_CHANGE); m.ifdm_index = 3; m.ifdm_flags = 0x10; m.ifdm_flags_mask = 0x10; return send(m); }, {"5/2"}},
        {"subset point change", [&] {
             rts_msg_info_t info{};
             info.subset_iif.subset = 3;
             info.subset_iif.value = 1;
             rts_msg_info_t *slot = &info;
             ifl_msg_t m{}; m.hdr = hdr(RTS_MSG_IFLOGICAL, RTS_OP_CHANGE); m.iflm_index = 64; m.iflm_changed = 16;
             m.iflm_flags = 0x3;  // not applied: a point change carries only its records
             m.hdr.info = &slot; m.hdr.info_count = 1;
             return send(m); }, {"6/2"}},
        {"family change", [&] { iff_msg_t m{}; m.hdr = hdr(RTS_MSG_IFFAMILY, RTS_OP_CHANGE); m.iffm_index = 66; m.iffm_af = TARN_AF_INET; m.iffm_value1 = 1500; return send(m); }, {"7/2"}},
        {"address delete", [&] {
             ifa_msg_t m{}; m.hdr = hdr(RTS_MSG_IFADDR, RTS_OP_DELETE); m.ifam_index = 69; m.ifam_af = TARN_AF_INET;
             m.ifam_local = addr; m.ifam_local_len = 4; m.ifam_local_plen = 32; return send(m); }, {"8/3"}},
        {"device delete takes its logicals and families", [&] { ifdev_msg_t m{}; m.hdr = hdr(RTS_MSG_IFDEV, RTS_OP_DELETE); m.name = em1; m.name_len = sizeof em1; return send(m); },
         {"8/3", "7/3", "6/3", "5/3"}},
    };
    for (const auto &s : steps) EXPECT_EQ(heard(s.run()), s.heard) << s.what;
    const std::string dump = kernel_->interfaces().dump();
    EXPECT_NE(dump.find("device em2 index 5"), std::string::npos) << dump;
    EXPECT_NE(dump.find("logical em2.7 index 69"), std::string::npos) << dump;
    EXPECT_EQ(dump.find("10.1.2.3"), std::string::npos) << dump;
    EXPECT_EQ(dump.find("em1"), std::string::npos) << dump;
    EXPECT_NE(dump.find("device em0 index 2 snmp 2 flags 0x0"), std::string::npos) << dump;
    const auto &lo0 = kernel_->interfaces().logicals().at(64);
    EXPECT_EQ(lo0.subset_iif, 0x8);
    EXPECT_EQ(lo0.flags, 0u);
    const auto &devs = kernel_->interfaces().devices();
    EXPECT_EQ(devs.count(3), 0u);
}

// Walks a table of envelopes, one line per record.
std::vector<std::string> lines(const std::vector<uint8_t> &table,
                               std::function<const void *(const uint8_t *, size_t)> decode)
{
    std::vector<std::string> v;
    for (size_t off = 0; off < table.size();) {
        uint32_t magic = 0, len = 0;
        const auto left = static_cast<uint32_t>(table.size() - off);
        EXPECT_NE(rtslib_idl_peek_magic(&magic, table.data() + off, left), nullptr);
        EXPECT_EQ(magic, 0x5022u);
        EXPECT_NE(rtslib_idl_peek_length(&len, table.data() + off, left), nullptr);
        if (len == 0 || off + len > table.size()) {
            ADD_FAILURE() << "bad length at " << off;
            break;
        }
        const void *rec = decode(table.data() + off, len);
        off += len;
        if (rec == nullptr) break;
        const auto &h = *static_cast<const rts_hdr_t *>(rec);
        if (h.type == RTS_MSG_IFDEV) {
            const auto &d = *static_cast<const ifdev_msg_t *>(rec);
            v.push_back("dev " + name(d.name, d.name_len) + " " + std::to_string(d.ifdm_index));
        } else if (h.type == RTS_MSG_IFLOGICAL) {
            const auto &l = *static_cast<const ifl_msg_t *>(rec);
            EXPECT_EQ(h.version, 107u);
            v.push_back("ifl " + name(l.name, l.name_len) + "." + std::to_string(l.iflm_unit) + " " +
                        std::to_string(l.iflm_index));
        } else if (h.type == RTS_MSG_IFADDR) {
            const auto &a = *static_cast<const ifa_msg_t *>(rec);
            EXPECT_EQ(h.version, 101u);
            v.push_back("ifa " + std::to_string(a.ifam_index) + " " +
                        addr_text(a.ifam_local, a.ifam_local_len) + "/" + std::to_string(a.ifam_local_plen));
        } else {
            v.push_back("type " + std::to_string(h.type));
        }
    }
    return v;
}

TEST_F(Ifaces, RoutingSysctlListsTheDefaultSet)
{
    auto dec = [this](const uint8_t *p, size_t n) { return decode(p, n); };
    struct {
        int32_t kind;
        std::vector<std::string> want;
    } cases[] = {
        {1, {"dev lo0 1", "dev em0 2", "dev em1 3", "dev ge-0/0/0 4"}},
        {2, {"ifl lo0.0 64", "ifl em0.0 65", "ifl em1.0 66", "ifl ge-0/0/0.0 67", "ifl ge-0/0/0.5 68"}},
        {10, {"ifl lo0.0 64", "ifa 64 127.0.0.1/32", "ifa 64 ::1/128", "ifl em0.0 65",
              "ifa 65 192.0.2.1/24", "ifa 65 2001:db8::1/64", "ifl em1.0 66", "ifa 66 198.51.100.1/24",
              "ifl ge-0/0/0.0 67", "ifa 67 203.0.113.1/24", "ifl ge-0/0/0.5 68"}},
    };
    for (const auto &c : cases) {
        const int32_t mib[] = {0, 0, 3, c.kind};
        std::vector<uint8_t> table;
        ASSERT_EQ(kernel_->route_sysctl(mib, 4, table), 0) << c.kind;
        EXPECT_EQ(lines(table, dec), c.want) << c.kind;
    }
    std::vector<uint8_t> table;
    const int32_t bad_kind[] = {0, 0, 3, 4}, bad_op[] = {0, 0, 2, 1};
    EXPECT_EQ(kernel_->route_sysctl(bad_kind, 4, table), EINVAL);
    EXPECT_EQ(kernel_->route_sysctl(bad_op, 4, table), EINVAL);
    EXPECT_EQ(kernel_->route_sysctl(bad_op, 3, table), EINVAL);
}

TEST_F(Ifaces, InterfacesFileReplacesTheDefaultSet)
{
    const std::string path = testing::TempDir() + "ifemu_interfaces.txt";
    auto write = [&](const std::string &text) {
        FILE *f = std::fopen(path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs(text.c_str(), f);
        std::fclose(f);
    };
    write("# a small box\n\ndevice xe-1/0/0   # uplink\nlogical xe-1/0/0.100\n"
          "address xe-1/0/0.100 10.9.0.1/30\nlogical xe-1/0/0.200\n"
          "unnumbered xe-1/0/0.200 xe-1/0/0.100 inet6\n");
    make({"--interfaces", path});
    EXPECT_EQ(kernel_->interfaces().dump(),
              "device xe-1/0/0 index 1 snmp 1 flags 0x0\n"
              "  logical xe-1/0/0.100 index 64 snmp 1064 flags 0x0\n"
              "    family inet flags 0x0\n"
              "      address 10.9.0.1/30\n"
              "  logical xe-1/0/0.200 index 65 snmp 1065 flags 0x0\n"
              "    family inet6 flags 0x20000000 unnumbered donor 64\n");

    struct {
        const char *text;
        const char *error;
    } bad[] = {
        {"devices em0\n", "line 1: unknown keyword \"devices\""},
        {"device\n", "line 1: usage: device NAME"},
        {"device em0 em1\n", "line 1: usage: device NAME"},
        {"device em.0\n", "line 1: bad device name \"em.0\""},
        {"device em0\nlogical em0\n", "line 2: bad logical interface name \"em0\""},
        {"device em0\nlogical em0.x\n", "line 2: bad logical interface name \"em0.x\""},
        {"logical em0.0\n", "line 1: \"em0.0\" refers to an interface not defined above"},
        {"device em0\ndevice em0\n", "line 2: \"em0\" is already there"},
        {"device em0\nlogical em0.0\naddress em0.0 10.0.0.1\n", "line 3: bad address \"10.0.0.1\""},
        {"device em0\nlogical em0.0\naddress em0.0 10.0.0.1/33\n", "line 3: bad address"},
        {"device em0\nlogical em0.0\naddress em0.0 10.0.0.300/8\n", "line 3: bad address"},
        {"device em0\nlogical em0.0\nunnumbered em0.0 lo0.0\n", "line 3: \"em0.0\" refers to an interface"},
        {"device em0\nlogical em0.0\nlogical em0.1\nunnumbered em0.1 em0.0 ipx\n", "line 4: bad family \"ipx\""},
    };
    for (const auto &b : bad) {
        write(b.text);
        EmuConfig cfg;
        std::string error;
        EXPECT_EQ(parse({"--interfaces", path}, cfg, error), ParseOutcome::kError) << b.text;
        EXPECT_NE(error.find(path + ": " + b.error), std::string::npos) << b.text << " -> " << error;
    }
    EmuConfig cfg;
    std::string error;
    EXPECT_EQ(parse({"--interfaces", path + ".missing"}, cfg, error), ParseOutcome::kError);
    EXPECT_NE(error.find("cannot read"), std::string::npos) << error;
    std::remove(path.c_str());
}

TEST_F(Ifaces, ControlCommandsChangeTheSetAndNotify)
{
    struct {
        const char *command;
        int err;
        std::vector<std::string> heard;
    } steps[] = {
        {"device-add em7", 0, {"5/1"}},
        {"device-add em7", EEXIST, {}},
        {"logical-add em7.3", 0, {"6/1"}},
        {"address-add em7.3 2001:db8:7::1/48", 0, {"7/1", "8/1"}},
        {"address-add em7.3 192.0.2.77/24", 0, {"7/1", "8/1"}},
        {"address-add em7.3 192.0.2.77/24", EEXIST, {}},
        {"address-add em7.4 192.0.2.78/24", ENOENT, {}},
        {"address-add em7.3 192.0.2.77", EINVAL, {}},
        {"address-delete em7.3 192.0.2.77/24", 0, {"8/3"}},
        {"address-delete em7.3 192.0.2.77/24", ENOENT, {}},
        {"unnumbered-add em7.3 em0.0", EEXIST, {}},
        {"unnumbered-add em0.0 em0.0", ENOENT, {}},
        {"logical-delete em7.3", 0, {"7/3", "8/3", "7/3", "6/3"}},
        {"device-delete em7", 0, {"5/3"}},
        {"device-delete em7", ENOENT, {}},
    };
    for (const auto &s : steps) {
        std::string out;
        EXPECT_EQ(kernel_->command(0, s.command, out), s.err) << s.command;
        EXPECT_EQ(heard_queued(), s.heard) << s.command;
    }
    std::string out;
    ASSERT_EQ(kernel_->command(0, "dump", out), 0);
    EXPECT_NE(out.find("logical ge-0/0/0.5 index 68 snmp 1068 flags 0x0\n"
                       "    family inet flags 0x20000000 unnumbered donor 64\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("em7"), std::string::npos) << out;
}

TEST_F(Ifaces, ClientLimitSysctl)
{
    std::vector<uint8_t> v;
    uint32_t n = 0;
    ASSERT_EQ(kernel_->sysctl_get("hw.product.ifs_max_clients", v), 0);
    ASSERT_EQ(v.size(), 4u);
    std::memcpy(&n, v.data(), 4);
    EXPECT_EQ(n, 8u);
    make({"--ifs-max-clients", "3"});
    EXPECT_EQ(kernel_->ifs_max_clients(), 3u);
    std::string out;
    ASSERT_EQ(kernel_->command(0, "ifs-max-clients 12", out), 0);
    ASSERT_EQ(kernel_->sysctl_get("hw.product.ifs_max_clients", v), 0);
    std::memcpy(&n, v.data(), 4);
    EXPECT_EQ(n, 12u);
    EXPECT_EQ(kernel_->sysctl_get("hw.product.nothing", v), ENOENT);
}

// A raw request of `fixed` bytes plus `name` (NUL counted, padded to 4);
// `fill` sets the fields.
std::vector<uint8_t> raw(uint8_t type, uint8_t op, uint16_t fixed, const std::string &name,
                         const std::function<void(uint8_t *)> &fill)
{
    constexpr uint8_t kVersions[RTS_MSG_TYPE_COUNT] = RTS_MSG_VERSIONS_INIT;
    const size_t named = name.empty() ? 0 : (name.size() + 1 + 3) / 4 * 4;
    std::vector<uint8_t> m(fixed + named, 0);
    m[RTS_HDR_VERSION_OFF] = kVersions[type];
    m[RTS_HDR_TYPE_OFF] = type;
    m[RTS_HDR_OP_OFF] = op;
    const auto total = static_cast<uint32_t>(m.size());
    std::memcpy(m.data() + RTS_HDR_LEN_OFF, &total, 4);
    std::memcpy(m.data() + RTS_HDR_FIXED_LEN_OFF, &fixed, 2);
    std::memcpy(m.data() + fixed, name.data(), name.size());
    fill(m.data());
    return m;
}

uint32_t word(const std::vector<uint8_t> &m, size_t off)
{
    uint32_t v = 0;
    if (off + 4 <= m.size()) std::memcpy(&v, m.data() + off, 4);
    return v;
}

TEST_F(Ifaces, StatisticsAnswerTheCountedTraffic)
{
    std::string out;
    ASSERT_EQ(kernel_->command(0, "traffic em0.0 inet 10 20 1000 2000", out), 0);
    ASSERT_EQ(kernel_->command(0, "traffic em0 1 1 1 1", out), 0);
    EXPECT_EQ(kernel_->command(0, "traffic em9.0 1 1 1 1", out), ENOENT);
    EXPECT_EQ(kernel_->command(0, "traffic em1.0 inet6 1 1 1 1", out), ENOENT);
    auto u16 = [](uint8_t *p, uint16_t v) { std::memcpy(p, &v, 2); };
    auto u32 = [](uint8_t *p, uint32_t v) { std::memcpy(p, &v, 4); };
    struct {
        const char *what;
        std::vector<uint8_t> req;
        size_t counters;  // 0: no answer expected
        uint32_t error, in_packets, out_bytes;
    } cases[] = {
        {"device by index", raw(15, 4, 52, "", [&](uint8_t *m) { u16(m + 24, 2); }), 32, 0, 11, 2001},
        {"device by name", raw(15, 4, 52, "em0", [&](uint8_t *m) { m[27] = 4; }), 32, 0, 11, 2001},
        {"unknown device", raw(15, 4, 52, "", [&](uint8_t *m) { u16(m + 24, 9); }), 32, 2, 0, 0},
        {"logical by index", raw(16, 4, 72, "", [&](uint8_t *m) { u32(m + 28, 65); }), 48, 0, 10, 2000},
        {"logical by name and unit", raw(16, 4, 72, "em0", [&](uint8_t *m) { m[25] = 4; }), 48, 0, 10, 2000},
        {"logical by sid", raw(16, 4, 72, "", [&](uint8_t *m) { u32(m + 32, 2); u32(m + 36, 65); }), 48, 0, 10, 2000},
        {"family", raw(70, 4, 48, "", [&](uint8_t *m) { u32(m + 24, 65); m[28] = TARN_AF_INET; }), 32, 0, 10, 2000},
        {"quiet family", raw(70, 4, 48, "", [&](uint8_t *m) { u32(m + 24, 65); m[28] = TARN_AF_INET6; }), 32, 0, 0, 0},
        {"missing family", raw(70, 4, 48, "", [&](uint8_t *m) { u32(m + 24, 66); m[28] = TARN_AF_INET6; }), 32, 2, 0, 0},
        {"clear is not answered", raw(16, 6, 72, "", [&](uint8_t *m) { u32(m + 28, 65); }), 0, 0, 0, 0},
        {"cleared logical", raw(16, 4, 72, "", [&](uint8_t *m) { u32(m + 28, 65); }), 48, 0, 0, 0},
        {"device keeps its count", raw(15, 4, 52, "", [&](uint8_t *m) { u16(m + 24, 2); }), 32, 0, 11, 2001},
        {"short request", raw(15, 4, 40, "", [&](uint8_t *) {}), 0, 0, 0, 0},
        {"name longer than the message", raw(15, 4, 52, "", [&](uint8_t *m) { m[27] = 40; }), 32, 2, 0, 0},
    };
    for (const auto &c : cases) {
        const auto answers = kernel_->handle_message(asker_, c.req.data(), c.req.size());
        ASSERT_EQ(answers.size(), c.counters ? 1u : 0u) << c.what;
        if (c.counters == 0) continue;
        const auto &a = answers[0].bytes;
        ASSERT_EQ(a.size(), c.req.size()) << c.what;
        EXPECT_EQ(word(a, 16), c.error) << c.what;
        EXPECT_EQ(word(a, c.counters), c.in_packets) << c.what;
        EXPECT_EQ(word(a, c.counters + 12), c.out_bytes) << c.what;
    }
}

TEST_F(Ifaces, InterfaceStateClientsUpToTheLimit)
{
    make({"--ifs-max-clients", "2"});
    auto client = [](uint8_t op, uint32_t id, const char *name) {
        return raw(RTS_MSG_IFSTATE, op, 68, "", [&](uint8_t *m) {
            std::memcpy(m + 24, &id, 4);
            std::strncpy(reinterpret_cast<char *>(m + 36), name, 32);
        });
    };
    struct {
        const char *what;
        std::vector<uint8_t> req;
        uint32_t error, id, count;
    } steps[] = {
        {"first", client(1, 0, "snmpd"), 0, 1, 1},
        {"same name", client(1, 0, "snmpd"), 17, 0, 1},
        {"second", client(1, 0, "tarn"), 0, 2, 2},
        {"over the limit", client(1, 0, "dcd"), 35, 0, 2},
        {"remove", client(3, 1, ""), 0, 1, 1},
        {"remove again", client(3, 1, ""), 2, 1, 1},
        {"room again", client(1, 0, "dcd"), 0, 3, 2},
    };
    for (const auto &s : steps) {
        const auto answers = kernel_->handle_message(asker_, s.req.data(), s.req.size());
        ASSERT_EQ(answers.size(), 1u) << s.what;
        const auto &a = answers[0].bytes;
        EXPECT_EQ(word(a, 16), s.error) << s.what;
        EXPECT_EQ(word(a, 24), s.id) << s.what;
        EXPECT_EQ(word(a, 28), 2u) << s.what;
        EXPECT_EQ(word(a, 32), s.count) << s.what;
    }
    const auto list = client(4, 0, "");
    const auto answers = kernel_->handle_message(asker_, list.data(), list.size());
    ASSERT_EQ(answers.size(), 1u);
    const auto &a = answers[0].bytes;
    ASSERT_EQ(a.size(), 68u + 2 * 36);
    EXPECT_EQ(word(a, RTS_HDR_LEN_OFF), a.size());
    EXPECT_EQ(word(a, 68), 2u);
    EXPECT_STREQ(reinterpret_cast<const char *>(a.data() + 72), "tarn");
    EXPECT_EQ(word(a, 104), 3u);
    EXPECT_STREQ(reinterpret_cast<const char *>(a.data() + 108), "dcd");
}

}  // namespace
