// Interface requests and lookups: request layouts on a socket pair, the
// address-list walk over hand-built tables, and the lookups end to end
// through the kernel emulator's default interfaces.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "request_layout.h"
#include "report_collector.h"
#include "libtarn/os/os.h"
#include "libtarn/rtslib/objects/ifaddrs_walk.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::KernelEmulator;

// The emulator's default set: logical interfaces from index 64.
constexpr uint32_t kLo0 = 64, kEm0 = 65, kEm1 = 66, kGe0 = 67, kGe5 = 68;

using tarn::test::RequestLayout;

TEST_F(RequestLayout, NamesAreCutToFiftyNineCharactersAndANul)
{
    for (size_t len : {1u, 58u, 59u, 60u, 61u, 80u}) {
        const std::string name(len, 'x');
        ASSERT_EQ(rtslib_iflm_update(h_, 9, 2, 3, 4, name.c_str(), nullptr, RTS_OP_CHANGE), 0);
        ifl_msg_t *sent = written<ifl_msg_t>();
        ASSERT_NE(sent, nullptr);
        const size_t kept = len < 59 ? len : 59;
        EXPECT_EQ(sent->name_len, kept + 1) << len;
        EXPECT_EQ(std::string(reinterpret_cast<char *>(sent->name)), name.substr(0, kept));
        EXPECT_EQ(sent->hdr.seq, 0u);  // changes go unnumbered
        EXPECT_EQ(sent->hdr.hdrlen, RTS_IFL_FIXED_LEN);
        EXPECT_EQ(sent->iflm_index, 9u);
        EXPECT_EQ(sent->iflm_unit, 3u);
        rtslib_msg_idl_release(h_, sent);
    }
}

TEST_F(RequestLayout, FlagUpdatesAreChangesOnly)
{
    EXPECT_EQ(rtslib_iflm_update_flags(h_, 9, 0, 0, 0, nullptr, 0x40, RTS_OP_DELETE), EOPNOTSUPP);
    EXPECT_EQ(written<ifl_msg_t>(), nullptr);
    ASSERT_EQ(rtslib_iflm_update_flags(h_, 9, 0, 0, 0, nullptr, 0x40, RTS_OP_CHANGE), 0);
    ifl_msg_t *sent = written<ifl_msg_t>();
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->iflm_flags, 0x40u);
    EXPECT_EQ(sent->hdr.op, RTS_OP_CHANGE);
    rtslib_msg_idl_release(h_, sent);
}

TEST(IflArguments, RefusedBeforeAnyKernelRequest)
{
    // No kernel at all: a call that tried to reach one could not return EINVAL.
    ::setenv("TARN_KERNEL_SOCKET", "/nonexistent/tarn-kernel.sock", 1);
    uint8_t v = 0;
    EXPECT_EQ(ifl_get_subset_iif(kEm0, 16, &v), EINVAL);
    EXPECT_EQ(ifl_set_subset_iif(kEm0, 16, 1), EINVAL);
    char buf[8] = "keep";
    EXPECT_EQ(ifl_get_underlying_device_byifindex(0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "keep");
    for (const char *name : {static_cast<const char *>(nullptr), ""}) {
        errno = 0;
        EXPECT_EQ(ifl_getindexbyifname(name), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    ifl_msg_t *reply = reinterpret_cast<ifl_msg_t *>(&v);
    EXPECT_EQ(rtslib_iflm_get_by_name(nullptr, "em0", 0, RTS_OP_GET, &reply, nullptr), EINVAL);
    EXPECT_EQ(reply, nullptr);
    ::unsetenv("TARN_KERNEL_SOCKET");
}

TEST(IflDeviceName, SplitsAtTheLastDot)
{
    struct {
        const char *name;
        size_t size;
        int result;
        const char *device;
        uint32_t unit;
    } const cases[] = {
        {"ge-0/0/0.5", 60, 0, "ge-0/0/0", 5},
        {"em0", 60, 0, "em0", 0xFFFFFFFFu},
        {"a.b.17", 60, 0, "a.b", 17},
        {"em0.1", 5, -1, nullptr, 0},
    };
    for (const auto &c : cases) {
        char buf[60] = {};
        uint32_t unit = 0;
        ASSERT_EQ(ifl_get_device_name(c.name, buf, c.size, &unit), c.result) << c.name;
        if (c.result != 0) continue;
        EXPECT_STREQ(buf, c.device);
        EXPECT_EQ(unit, c.unit) << c.name;
    }
}

TEST(SendInterface, FollowsTheSocketsFamily)
{
    int unix_fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    errno = 0;
    EXPECT_EQ(ifl_setsendifbyifindex(unix_fd, 1), -1);
    EXPECT_EQ(errno, EPROTONOSUPPORT);
    ::close(unix_fd);

    // Index 1 is the host's loopback. The library hands the index to the
    // host's own option; where the host refuses that option (qemu-user does
    // not translate it for i386 programs), the library must fail the same way.
    const struct {
        int family, level, option;
    } kinds[] = {{AF_INET, IPPROTO_IP, IP_UNICAST_IF}, {AF_INET6, IPPROTO_IPV6, IPV6_UNICAST_IF}};
    for (const auto &k : kinds) {
        int probe = ::socket(k.family, SOCK_DGRAM, 0);
        if (probe < 0 && k.family == AF_INET6) continue;  // a host without IPv6
        ASSERT_GE(probe, 0);
        const uint32_t want = htonl(1);
        errno = 0;
        const bool host_has_option = ::setsockopt(probe, k.level, k.option, &want, sizeof want) == 0;
        const int host_errno = errno;
        ::close(probe);

        int fd = ::socket(k.family, SOCK_DGRAM, 0);
        ASSERT_GE(fd, 0);
        errno = 0;
        if (!host_has_option) {
            EXPECT_EQ(ifl_setsendifbyifindex(fd, 1), -1) << k.family;
            EXPECT_EQ(errno, host_errno) << k.family;
            ::close(fd);
            continue;
        }
        ASSERT_EQ(ifl_setsendifbyifindex(fd, 1), 0) << std::strerror(errno);
        uint32_t be = 0;
        socklen_t len = sizeof be;
        ASSERT_EQ(::getsockopt(fd, k.level, k.option, &be, &len), 0);
        EXPECT_EQ(be, want) << k.family;
        ::close(fd);
    }
}

// --- The address-list walk over tables built here -------------------------

class AddressWalk : public testing::Test {
protected:
    void SetUp() override
    {
        h_ = rtslib_open_nc();
        ASSERT_NE(h_, nullptr);
        rtslib_lib_error_register(h_, nullptr, nullptr);
    }
    void TearDown() override
    {
        wrl_freeifaddrs(list_);
        rtslib_close(h_);
    }
    void append(const void *record)
    {
        void *buf = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(h_, record, nullptr, &buf, &len), 0);
        const auto *b = static_cast<const uint8_t *>(buf);
        table_.insert(table_.end(), b, b + len);
        rtslib_msg_free(h_, buf);
    }
    void interface(uint32_t index, uint32_t state)
    {
        ifl_msg_t ifl{};
        ifl.hdr.version = RTS_IFL_VERSION;
        ifl.hdr.type = RTS_MSG_IFLOGICAL;
        ifl.iflm_index = index;
        ifl.iflm_flags = state;
        append(&ifl);
    }
    void address(uint32_t index, uint8_t af, std::vector<uint8_t> local, uint16_t plen,
                 std::vector<uint8_t> dest = {}, uint16_t dest_bits = 0)
    {
        ifa_msg_t ifa{};
        ifa.hdr.version = RTS_IFA_VERSION;
        ifa.hdr.type = RTS_MSG_IFADDR;
        ifa.ifam_index = index;
        ifa.ifam_af = af;
        ifa.ifam_local = local.data();
        ifa.ifam_local_len = static_cast<uint32_t>(local.size());
        ifa.ifam_local_plen = plen;
        ifa.ifam_dest = dest.empty() ? nullptr : dest.data();
        ifa.ifam_dest_len = static_cast<uint32_t>(dest.size());
        ifa.ifam_dest_plen = dest_bits;
        char name[] = "em0";
        ifa.name = reinterpret_cast<uint8_t *>(name);
        ifa.name_len = sizeof name;
        ifa.ifam_unit = index;
        append(&ifa);
    }
    int walk()
    {
        return tarn::ifaddrs_from_table(h_, table_.data(), table_.size(), &list_);
    }
    static std::string in4(const sockaddr *sa)
    {
        const auto *b = reinterpret_cast<const uint8_t *>(sa);
        EXPECT_EQ(b[0], 16);
        EXPECT_EQ(b[1], TARN_AF_INET);
        char text[INET_ADDRSTRLEN];
        return inet_ntop(AF_INET, b + 4, text, sizeof text);
    }

    rtslib_cookie *h_ = nullptr;
    std::vector<uint8_t> table_;
    ifaddrs *list_ = nullptr;
};

TEST_F(AddressWalk, FlagsOnlyOnAnInterfacesFirstAddress)
{
    interface(5, 0x10000);  // up (no down bits), bit 16
    address(5, TARN_AF_INET, {10, 0, 0, 1}, 24);
    address(5, TARN_AF_INET, {10, 0, 1, 1}, 32);
    interface(6, 1);  // down
    address(6, TARN_AF_INET, {10, 0, 2, 1}, 32, {10, 0, 2, 2}, 32);
    ASSERT_EQ(walk(), 0);
    struct {
        const char *name;
        unsigned flags;
        const char *addr, *mask, *dest;
    } const want[] = {
        {"em0.5", 17, "10.0.0.1", "255.255.255.0", nullptr},
        {"em0.5", 0, "10.0.1.1", "255.255.255.255", nullptr},
        {"em0.6", 0, "10.0.2.1", "255.255.255.255", "10.0.2.2"},
    };
    const ifaddrs *r = list_;
    for (const auto &w : want) {
        ASSERT_NE(r, nullptr);
        EXPECT_STREQ(r->ifa_name, w.name);
        EXPECT_EQ(r->ifa_flags, w.flags) << w.addr;
        EXPECT_EQ(in4(r->ifa_addr), w.addr);
        EXPECT_EQ(in4(r->ifa_netmask), w.mask);
        if (w.dest == nullptr) {
            EXPECT_EQ(r->ifa_dstaddr, nullptr);
        } else {
            EXPECT_EQ(in4(r->ifa_dstaddr), w.dest);
        }
        EXPECT_EQ(r->ifa_data, nullptr);
        r = r->ifa_next;
    }
    EXPECT_EQ(r, nullptr);
}

TEST_F(AddressWalk, NoIpv4AddressGivesANullList)
{
    interface(5, 0);
    address(5, TARN_AF_INET6, std::vector<uint8_t>(16, 1), 64);
    list_ = reinterpret_cast<ifaddrs *>(this);
    ASSERT_EQ(walk(), 0);
    EXPECT_EQ(list_, nullptr);
}

TEST_F(AddressWalk, ARuntMessageEndsTheWalk)
{
    interface(5, 0);
    address(5, TARN_AF_INET, {10, 0, 0, 1}, 24);
    std::vector<uint8_t> runt(24, 0);
    runt[RTS_HDR_LEN_OFF] = 20;
    table_.insert(table_.end(), runt.begin(), runt.end());
    address(5, TARN_AF_INET, {10, 0, 0, 2}, 24);
    ASSERT_EQ(walk(), 0);
    ASSERT_NE(list_, nullptr);
    EXPECT_EQ(list_->ifa_next, nullptr);
}

TEST_F(AddressWalk, MalformedTablesFail)
{
    interface(5, 0);
    address(5, TARN_AF_INET, {10, 0, 0, 1}, 24);
    const std::vector<uint8_t> good = table_;
    struct {
        const char *what;
        std::vector<uint8_t> table;
    } cases[] = {
        {"truncated", std::vector<uint8_t>(good.begin(), good.end() - 5)},
        {"unknown magic", good},
        {"lying length", good},
    };
    cases[1].table[0] ^= 0x40;
    cases[2].table[4] += 0x10;  // the first envelope's body length
    for (auto &c : cases) {
        table_ = c.table;
        errno = 0;
        EXPECT_EQ(walk(), -1) << c.what;
        EXPECT_EQ(errno, EINVAL) << c.what;
        EXPECT_EQ(list_, nullptr);
    }
    // An address longer than its socket-address slot.
    table_.clear();
    interface(5, 0);
    address(5, TARN_AF_INET, std::vector<uint8_t>(16, 1), 128);
    EXPECT_EQ(walk(), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(AddressWalk, AnInterleavedListAborts)
{
    interface(5, 0);
    address(6, TARN_AF_INET, {10, 0, 0, 1}, 24);
    EXPECT_DEATH(walk(), "");
}

// --- Through the emulator ------------------------------------------------

class Interfaces : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(emu_.running());
        h_ = rtslib_open_set_liberr(1, &reports_, tarn::test::ReportCollector::sink);
        ASSERT_NE(h_, nullptr);
    }
    void TearDown() override { rtslib_close(h_); }

    KernelEmulator emu_;
    tarn::test::ReportCollector reports_;
    rtslib_cookie *h_ = nullptr;
};

TEST_F(Interfaces, RequestsFindTheLogicalInterface)
{
    ifl_msg_t *r = nullptr;
    auto check = [&](int rc, const char *how) {
        ASSERT_EQ(rc, 0) << how;
        ASSERT_NE(r, nullptr) << how;
        EXPECT_EQ(r->hdr.error, 0u) << how;
        EXPECT_EQ(r->iflm_index, kEm1) << how;
        EXPECT_STREQ(reinterpret_cast<char *>(r->name), "em1") << how;
        rtslib_msg_idl_release(h_, r);
    };
    check(rtslib_iflm_get_by_index(h_, kEm1, RTS_OP_GET, &r, nullptr), "index");
    check(rtslib_iflm_get_by_snmp_index(h_, 1000 + kEm1, RTS_OP_GET, &r, nullptr), "snmp");
    check(rtslib_iflm_get_by_name(h_, "em1", 0, RTS_OP_GET, &r, nullptr), "name");
    check(rtslib_iflm_get_by_device(h_, 3, 0, RTS_OP_GET, &r, nullptr), "device");

    ifdev_msg_t *d = nullptr;
    ASSERT_EQ(rtslib_ifdm_get_by_name(h_, "em1", RTS_OP_GET, &d, nullptr), 0);
    EXPECT_EQ(d->ifdm_index, 3);
    rtslib_msg_idl_release(h_, d);
    EXPECT_EQ(rtslib_ifdm_get_by_snmp_index(h_, 3, RTS_OP_CHANGE, &d, nullptr), EINVAL);

    rtslib_msg_list *list = nullptr;
    ASSERT_EQ(rtslib_iflm_get_all(h_, &list), 0);
    EXPECT_EQ(list->count, 5);
    rtslib_msg_list_free(h_, list);
    ASSERT_EQ(rtslib_ifdm_get_all(h_, &list), 0);
    EXPECT_EQ(list->count, 4);
    EXPECT_EQ(list->type, RTS_MSG_IFDEV);
    rtslib_msg_list_free(h_, list);
}

TEST_F(Interfaces, NameAndIndexLookups)
{
    struct {
        const char *name;
        int index;
    } const by_name[] = {
        {"em0.0", static_cast<int>(kEm0)}, {"em0", static_cast<int>(kEm0)},  // no dot: unit 0
        {"ge-0/0/0.5", static_cast<int>(kGe5)}, {"em0.7", -1}, {"nosuch.0", -1},
    };
    for (const auto &c : by_name) {
        errno = 0;
        EXPECT_EQ(ifl_getindexbyifname(c.name), c.index) << c.name;
        if (c.index < 0) {
            EXPECT_EQ(errno, ENOENT) << c.name;
        }
    }
    char buf[64];
    ASSERT_EQ(ifl_getnamebyifindex(kGe5, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "ge-0/0/0.5");
    ASSERT_EQ(ifl_getnamebysnmpifindex(1000 + kLo0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "lo0.0");
    ASSERT_EQ(ifl_getnamebyifindex(kGe0, buf, 4), 0);
    EXPECT_STREQ(buf, "ge-");
    EXPECT_EQ(ifl_getindexbysnmpifindex(1000 + kEm1), static_cast<int>(kEm1));
    EXPECT_EQ(ifl_getlrindexbyifindex(kEm0), 0);
    ASSERT_EQ(ifl_get_underlying_device_byifindex(kGe5, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "ge-0/0/0");
    EXPECT_EQ(ifl_getnamebyifindex(999, buf, sizeof buf), -1);

    uint8_t v = 9;
    ASSERT_EQ(ifl_set_subset_iif(kEm0, 3, 1), 0);
    ASSERT_EQ(ifl_get_subset_iif(kEm0, 3, &v), 0);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(ifl_get_subset_iif(kEm0, 4, &v), 0);
    EXPECT_EQ(v, 0);
}

TEST_F(Interfaces, CLibraryLookupsAskWithTheWholeName)
{
    EXPECT_EQ(if_nametoindex("em1"), kEm1);
    errno = 0;
    EXPECT_EQ(if_nametoindex("em1.0"), 0u);  // the whole name, not device and unit
    EXPECT_EQ(errno, ENXIO);
    char buf[IF_NAMESIZE > 60 ? IF_NAMESIZE : 60];
    ASSERT_NE(if_indextoname(kGe0, buf), nullptr);
    EXPECT_STREQ(buf, "ge-0/0/0.0");
    EXPECT_EQ(if_indextoname(999, buf), nullptr);

    struct if_nameindex *all = if_nameindex();
    ASSERT_NE(all, nullptr);
    std::vector<std::pair<unsigned, std::string>> got;
    for (auto *p = all; p->if_index != 0; ++p) got.emplace_back(p->if_index, p->if_name);
    if_freenameindex(all);
    const std::vector<std::pair<unsigned, std::string>> want = {
        {kLo0, "lo0"}, {kEm0, "em0"}, {kEm1, "em1"}, {kGe0, "ge-0/0/0"}, {kGe5, "ge-0/0/0"}};
    EXPECT_EQ(got, want);
}

TEST_F(Interfaces, AddressListOfTheDefaultInterfaces)
{
    ifaddrs *list = nullptr;
    ASSERT_EQ(wrl_getifaddrs(&list), 0) << std::strerror(errno);
    std::vector<std::string> got;
    for (const ifaddrs *r = list; r != nullptr; r = r->ifa_next) {
        const auto *a = reinterpret_cast<const uint8_t *>(r->ifa_addr);
        const auto *m = reinterpret_cast<const uint8_t *>(r->ifa_netmask);
        char addr[INET_ADDRSTRLEN], mask[INET_ADDRSTRLEN];
        got.push_back(std::string(r->ifa_name) + " " + inet_ntop(AF_INET, a + 4, addr, sizeof addr) +
                      " " + inet_ntop(AF_INET, m + 4, mask, sizeof mask) + " " +
                      std::to_string(r->ifa_flags & 1));
    }
    wrl_freeifaddrs(list);
    const std::vector<std::string> want = {
        "lo0.0 127.0.0.1 255.255.255.255 1", "em0.0 192.0.2.1 255.255.255.0 1",
        "em1.0 198.51.100.1 255.255.255.0 1", "ge-0/0/0.0 203.0.113.1 255.255.255.0 1"};
    EXPECT_EQ(got, want);
}

}  // namespace

namespace {

TEST_F(RequestLayout, AddressPointChangeCarriesOnlyAVrrpState)
{
    const uint8_t local[4] = {10, 0, 0, 1};
    uint8_t tlv[6] = {};
    const uint16_t tag_226 = 226, tag_227 = 227, state = 0x0102;
    std::memcpy(tlv, &tag_226, 2);
    std::memcpy(tlv + 4, &state, 2);
    EXPECT_EQ(rtslib_ifa_pointchange(h_, 7, TARN_AF_INET, local, 32, tlv, sizeof tlv), EINVAL);
    EXPECT_EQ(written<ifl_msg_t>(), nullptr);
    std::memcpy(tlv, &tag_227, 2);
    EXPECT_EQ(rtslib_ifa_pointchange(h_, 7, TARN_AF_INET, local, 0, tlv, sizeof tlv), EINVAL);
    ASSERT_EQ(rtslib_ifa_pointchange(h_, 7, TARN_AF_INET, local, 32, tlv, sizeof tlv), 0);
    auto *sent = reinterpret_cast<ifa_msg_t *>(written<ifl_msg_t>());
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->hdr.op, RTS_OP_CHANGE);
    EXPECT_EQ(sent->ifam_flags, RTSLIB_IFA_POINT_CHANGE);
    ASSERT_EQ(sent->ifam_local_plen, 32);
    EXPECT_EQ(std::memcmp(sent->ifam_local, local, 4), 0);
    ASSERT_EQ(sent->hdr.info_count, 1u);
    EXPECT_EQ(sent->hdr.info[0]->vrrp_state.state, state);
    rtslib_msg_idl_release(h_, sent);
}

TEST_F(Interfaces, FamiliesAddressesAndDonors)
{
    ifa_msg_t *a = nullptr;
    ASSERT_EQ(rtslib_ifam_get_by_index(h_, kEm0, TARN_AF_INET, RTS_OP_GET, &a, nullptr), 0);
    EXPECT_EQ(a->ifam_local_plen, 24);
    ASSERT_GE(a->ifam_local_len, 4u);
    EXPECT_EQ(std::vector<uint8_t>(a->ifam_local, a->ifam_local + 4),
              (std::vector<uint8_t>{192, 0, 2, 1}));
    rtslib_msg_idl_release(h_, a);

    iff_msg_t *f = nullptr;
    ASSERT_EQ(rtslib_iffm_get_by_dev_name(h_, TARN_AF_INET, "em1", 0, RTS_OP_GET, &f, nullptr), 0);
    EXPECT_EQ(f->iffm_index, kEm1);
    rtslib_msg_idl_release(h_, f);

    uint32_t donor = 0;
    EXPECT_EQ(rtslib_unnum_get_donor_ifl_idx(h_, kGe5, TARN_AF_INET, &donor), 0);
    EXPECT_EQ(donor, kLo0);
    EXPECT_EQ(rtslib_unnum_get_donor_ifl_idx(h_, kEm0, TARN_AF_INET, &donor), EINVAL);
    EXPECT_EQ(rtslib_unnum_get_donor_ifl_idx(h_, kEm0, TARN_AF_INET, nullptr), EINVAL);
}

struct Call {
    void *cookie;
    uint8_t op, family;
    uint8_t first_byte;
    uint16_t dest_bits, flags;
    bool operator==(const Call &) const = default;
};
std::vector<Call> calls;
void record_call(void *cookie, uint8_t op, uint8_t family, const uint8_t *address,
                 uint16_t dest_bits, uint16_t flags)
{
    calls.push_back({cookie, op, family, address[0], dest_bits, flags});
}

TEST_F(Interfaces, UnnumberedRegistryFollowsRegisteredDonorsOnly)
{
    int c1 = 1, c2 = 2, c0 = 0;
    EXPECT_EQ(rtslib_unnum_ifa_register_callback(h_, record_call), EINVAL);  // not asynchronous
    EXPECT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kLo0, TARN_AF_INET6, 1, &c1), EINVAL);
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    ASSERT_EQ(rtslib_unnum_ifa_register_callback(h_, record_call), 0);

    EXPECT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kLo0, 5, 1, &c1), EINVAL);
    ASSERT_EQ(rtslib_unnum_ifa_register_interest(h_, 9, kLo0, TARN_AF_INET6, 1, &c2), 0);
    ASSERT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kLo0, TARN_AF_INET6, 1, &c1), 0);
    ASSERT_EQ(rtslib_unnum_ifa_register_interest(h_, 0, kLo0, TARN_AF_INET6, 1, &c0), 0);
    EXPECT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kLo0, TARN_AF_INET6, 1, &c2), EEXIST);
    EXPECT_EQ(rtslib_unnum_ifa_register_interest(h_, 6, kLo0, TARN_AF_INET6, 0, nullptr), ENOENT);
    EXPECT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kEm0, TARN_AF_INET6, 0, nullptr), ENOENT);
    EXPECT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kLo0, TARN_AF_INET, 0, nullptr), ENOENT);

    uint8_t v6[16] = {0x20, 0x01};
    ifa_msg_t msg{};
    msg.hdr.op = RTS_OP_DELETE;
    msg.ifam_index = kLo0;
    msg.ifam_af = TARN_AF_INET;  // the donor is registered for AF_INET6 only
    msg.ifam_local = v6;
    msg.ifam_local_len = sizeof v6;
    msg.ifam_dest_plen = 128;
    msg.ifam_flags = 0x40;
    EXPECT_EQ(rtslib_unnum_ifa_save_msg(h_, &msg), -1);
    msg.ifam_af = TARN_AF_INET6;
    msg.ifam_index = kEm0;
    EXPECT_EQ(rtslib_unnum_ifa_save_msg(h_, &msg), -1);
    msg.ifam_index = kLo0;
    ASSERT_EQ(rtslib_unnum_ifa_save_msg(h_, &msg), 0);
    EXPECT_EQ(rtslib_unnum_ifa_save_msg(h_, &msg), -1);  // one event at a time
    ASSERT_EQ(reports_.reports.size(), 1u);
    EXPECT_EQ(reports_.reports[0].text,
              "rtslib: WARNING Async event arrived while processing pending for a previous "
              "event\n");
    v6[0] = 0;  // the event keeps its own copy
    rtslib_unnum_ifa_report(h_);
    // Ascending interface index, and never the one filed under 0.
    const std::vector<Call> want = {{&c1, RTS_OP_DELETE, TARN_AF_INET6, 0x20, 128, 0x40},
                                    {&c2, RTS_OP_DELETE, TARN_AF_INET6, 0x20, 128, 0x40}};
    EXPECT_EQ(calls, want);

    ASSERT_EQ(rtslib_unnum_ifa_register_interest(h_, 5, kLo0, TARN_AF_INET6, 0, nullptr), 0);
    calls.clear();
    ASSERT_EQ(rtslib_unnum_ifa_save_msg(h_, &msg), 0);  // the report cleared the last one
    rtslib_unnum_ifa_report(h_);
    EXPECT_EQ(calls.size(), 1u);
}

}  // namespace

namespace {

std::vector<std::string> ipv4_list()
{
    std::vector<std::string> out;
    ifaddrs *list = nullptr;
    EXPECT_EQ(wrl_getifaddrs(&list), 0);
    for (const ifaddrs *r = list; r != nullptr; r = r->ifa_next) {
        char text[INET_ADDRSTRLEN];
        out.push_back(std::string(r->ifa_name) + " " +
                      inet_ntop(AF_INET, reinterpret_cast<const uint8_t *>(r->ifa_addr) + 4, text,
                                sizeof text));
    }
    wrl_freeifaddrs(list);
    return out;
}

TEST_F(Interfaces, IoctlsAddAndDeleteAddresses)
{
    uint8_t req[108] = {};
    std::memcpy(req, "em1.0", 6);
    req[61] = TARN_AF_INET;
    const uint8_t addr[4] = {10, 9, 9, 9};
    std::memcpy(req + 64, addr, 4);
    struct {
        int fd;
        unsigned long request;
        void *arg;
        int error;
    } const refused[] = {
        {-1, WRL_SIOCAIFADDR, req, EBADF},
        {0, 0xc0206911UL, req, EOPNOTSUPP},
        {0, WRL_SIOCAIFADDR, nullptr, EINVAL},
    };
    for (const auto &c : refused) {
        errno = 0;
        EXPECT_EQ(wrl_ioctl(c.fd, c.request, c.arg), -1);
        EXPECT_EQ(errno, c.error) << c.request;
    }
    const std::string added = "em1.0 10.9.9.9";
    ASSERT_EQ(wrl_ioctl(0, WRL_SIOCAIFADDR, req), 0) << std::strerror(errno);
    auto now = ipv4_list();
    EXPECT_NE(std::find(now.begin(), now.end(), added), now.end());
    ASSERT_EQ(wrl_ioctl(0, WRL_SIOCDIFADDR, req), 0) << std::strerror(errno);
    now = ipv4_list();
    EXPECT_EQ(std::find(now.begin(), now.end(), added), now.end());

    std::memcpy(req, "em0.0", 6);
    req[61] = TARN_AF_INET6;
    errno = 0;
    EXPECT_EQ(wrl_ioctl(0, WRL_SIOCAIFADDR, req), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
}

}  // namespace

namespace {

std::vector<std::string> order;
void donor_seen(void *, uint8_t op, uint8_t, const uint8_t *, uint16_t, uint16_t)
{
    order.push_back("donor " + std::to_string(op));
}
int address_handler(rtslib_cookie *h, void *, void *msg, void *)
{
    order.push_back("handler " + std::to_string(static_cast<ifa_msg_t *>(msg)->hdr.op));
    rtslib_msg_idl_release(h, msg);
    return 0;
}

TEST_F(Interfaces, DonorAddressNotificationsReachTheRegistry)
{
    ASSERT_EQ(rtslib_create_async_context(h_), 0);
    ASSERT_EQ(rtslib_ifam_async_register(h_, 1, nullptr, address_handler), 0);
    ASSERT_EQ(rtslib_unnum_ifa_register_callback(h_, donor_seen), 0);
    int cookie = 1;
    ASSERT_EQ(rtslib_unnum_ifa_register_interest(h_, kGe5, kEm1, TARN_AF_INET, 1, &cookie), 0);

    uint8_t req[108] = {};
    std::memcpy(req, "em1.0", 6);
    req[61] = TARN_AF_INET;
    req[64] = 10;
    req[67] = 7;
    // A deleted donor address is reported before the handler, any other
    // change after it.
    struct {
        unsigned long request;
        std::vector<std::string> want;
    } const steps[] = {
        {WRL_SIOCAIFADDR, {"handler 1", "donor 1"}},
        {WRL_SIOCDIFADDR, {"donor 3", "handler 3"}},
    };
    for (const auto &s : steps) {
        order.clear();
        ASSERT_EQ(wrl_ioctl(0, s.request, req), 0);
        pollfd p{h_->fd, POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 5000), 1);
        ASSERT_EQ(rtslib_async_event_process(h_), 0);
        EXPECT_EQ(order, s.want);
    }
}

}  // namespace

namespace {

class InterfaceStateClients : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(emu_.running());
        h_ = rtslib_open(1);
        ASSERT_NE(h_, nullptr);
    }
    void TearDown() override { rtslib_close(h_); }
    std::string printed(const void *msg, uint32_t len, int *rc)
    {
        char *text = nullptr;
        size_t size = 0;
        FILE *out = open_memstream(&text, &size);
        *rc = rtslib_ifsm_print(out, msg, len);
        std::fclose(out);
        std::string s(text, size);
        std::free(text);
        return s;
    }

    KernelEmulator emu_{{"--ifs-max-clients", "2"}};
    rtslib_cookie *h_ = nullptr;
};

TEST_F(InterfaceStateClients, RegisterListAndRemove)
{
    uint32_t limit = 0;
    ASSERT_EQ(rtslib_ifsclim_get(&limit), 0);
    EXPECT_EQ(limit, 2u);

    uint32_t a = 0, b = 0, c = 0;
    ASSERT_EQ(rtslib_ifsm_register(h_, "ifmond", &a), 0);
    EXPECT_EQ(rtslib_ifsm_register(h_, "ifmond", &c), EEXIST);
    ASSERT_EQ(rtslib_ifsm_register(h_, "snmpd", &b), 0);
    EXPECT_EQ(rtslib_ifsm_register(h_, "third", &c), EAGAIN);

    void *reply = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(rtslib_ifsm_get(h_, &reply, &len), 0);
    int rc = -1;
    EXPECT_EQ(printed(reply, len, &rc), "ifstate clients: 2 of 2\n  client " + std::to_string(a) +
                                            ": ifmond\n  client " + std::to_string(b) +
                                            ": snmpd\n");
    EXPECT_EQ(rc, 0);
    // A count promising more clients than the answer holds.
    std::vector<uint8_t> lying(static_cast<uint8_t *>(reply), static_cast<uint8_t *>(reply) + len);
    lying[RTS_IFSTATE_COUNT_OFF] = 3;
    EXPECT_EQ(printed(lying.data(), len, &rc), "");
    EXPECT_EQ(rc, EINVAL);
    EXPECT_EQ(printed(reply, len - 1, &rc), "");
    EXPECT_EQ(rc, EINVAL);
    rtslib_msg_free(h_, reply);

    ASSERT_EQ(rtslib_ifsm_unregister(h_, a), 0);
    EXPECT_EQ(rtslib_ifsm_unregister(h_, a), ENOENT);
    ASSERT_EQ(rtslib_ifsm_register(h_, "third", &c), 0);
}

}  // namespace

namespace {

TEST_F(RequestLayout, InformationTlvsBecomeOneRecordEach)
{
    // tag 225 with 2 bytes (padded to 4), then tag 9 with 5 bytes.
    const std::vector<uint8_t> tlvs = {225, 0, 2, 0, 3, 1, 0, 0, 9, 0, 5, 0, 1, 2, 3, 4, 5};
    ASSERT_EQ(rtslib_iflm_pointchange_tlv(h_, 70, 0, 0, 0, nullptr, tlvs.data(),
                                          static_cast<uint32_t>(tlvs.size())),
              0);
    ifl_msg_t *sent = written<ifl_msg_t>();
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->iflm_changed, RTSLIB_IFL_POINT_CHANGE);
    ASSERT_EQ(sent->hdr.info_count, 2u);
    EXPECT_EQ(sent->hdr.info[0]->opaque.info_word, 225u);
    EXPECT_EQ(std::vector<uint8_t>(sent->hdr.info[0]->opaque.data,
                                   sent->hdr.info[0]->opaque.data + sent->hdr.info[0]->opaque.data_len),
              (std::vector<uint8_t>{3, 1}));
    EXPECT_EQ(sent->hdr.info[1]->opaque.info_word, 9u);
    EXPECT_EQ(sent->hdr.info[1]->opaque.data_len, 5u);
    rtslib_msg_idl_release(h_, sent);

    // A value running past the bytes given; a device without a name.
    EXPECT_EQ(rtslib_iflm_pointchange_tlv(h_, 70, 0, 0, 0, nullptr, tlvs.data(), 15), EINVAL);
    EXPECT_EQ(rtslib_ifdm_add(h_, nullptr, 3, 0, nullptr, nullptr, nullptr), EINVAL);
    EXPECT_EQ(written<ifl_msg_t>(), nullptr);
}

TEST_F(Interfaces, DeviceChangesStartFromTheCurrentFlags)
{
    auto flags = [&] {
        ifdev_msg_t *d = nullptr;
        EXPECT_EQ(rtslib_ifdm_get_by_index(h_, 2, RTS_OP_GET, &d, nullptr), 0);
        const uint32_t f = d == nullptr ? 0xdeadu : d->ifdm_flags;
        rtslib_msg_idl_release(h_, d);
        return f;
    };
    const uint8_t data[3] = {1, 2, 3};
    ASSERT_EQ(rtslib_ifdm_pointchange(h_, 2, 0x107, nullptr, data, sizeof data), 0);
    const uint32_t before = flags();
    ASSERT_EQ(before & 0x107u, 0x107u);
    ASSERT_EQ(rtslib_ifdm_change_flags(h_, 2, 0x4, 1), 0);
    EXPECT_EQ(flags(), before & ~0x4u);
    ASSERT_EQ(rtslib_ifdm_change_flags(h_, 2, 0x4, 0), 0);
    EXPECT_EQ(flags(), before);
    const uint8_t tlv[8] = {9, 0, 4, 0, 1, 2, 3, 4};
    ASSERT_EQ(rtslib_ifdm_change_tlvs(h_, 2, 0x10, tlv, sizeof tlv), 0);
    EXPECT_EQ(flags(), before);  // the device's own flags went out, not 0x10
    EXPECT_EQ(rtslib_ifdm_change_flags(h_, 99, 0x4, 1), ENOENT);
}

}  // namespace

namespace {

TEST_F(Interfaces, StatisticsCountTraffic)
{
    int err = -1;
    tarn::test::command(-1, "traffic em0.0 inet 5 6 700 800", &err);
    ASSERT_EQ(err, 0);
    auto counters = [&](void *reply, uint32_t off) {
        std::vector<uint32_t> c(4);
        EXPECT_NE(reply, nullptr);
        if (reply != nullptr) std::memcpy(c.data(), static_cast<uint8_t *>(reply) + off, 16);
        rtslib_msg_free(h_, reply);
        return c;
    };
    const std::vector<uint32_t> want = {5, 6, 700, 800};
    void *reply = nullptr;
    ASSERT_EQ(rtslib_ifdsm_get_by_name(h_, "em0", 0, RTS_OP_GET, &reply), 0);
    EXPECT_EQ(counters(reply, RTS_IFDSTATS_COUNTERS_OFF), want);
    ASSERT_EQ(__rtslib_iflsm_get_by_name(h_, "em0", 0, RTS_OP_GET, &reply), 0);
    EXPECT_EQ(counters(reply, RTS_IFLSTATS_COUNTERS_OFF), want);
    ASSERT_EQ(__rtslib_iflsm_get_by_index(h_, kEm0, RTS_OP_GET, &reply), 0);
    EXPECT_EQ(counters(reply, RTS_IFLSTATS_COUNTERS_OFF), want);
    ASSERT_EQ(rtslib_iffsm_get_by_index(h_, kEm0, TARN_AF_INET, 0, RTS_OP_GET, &reply), 0);
    EXPECT_EQ(counters(reply, RTS_IFFSTATS_COUNTERS_OFF), want);

    ASSERT_EQ(__rtslib_iflsm_clear_by_index(h_, kEm0), 0);
    ASSERT_EQ(__rtslib_iflsm_get_by_index(h_, kEm0, RTS_OP_GET, &reply), 0);
    EXPECT_EQ(counters(reply, RTS_IFLSTATS_COUNTERS_OFF), std::vector<uint32_t>(4, 0));
    ASSERT_EQ(rtslib_ifdsm_clear_by_index(h_, 2, 0), 0);
    ASSERT_EQ(rtslib_ifdsm_get_by_index(h_, 2, 0, RTS_OP_GET, &reply), 0);
    EXPECT_EQ(counters(reply, RTS_IFDSTATS_COUNTERS_OFF), std::vector<uint32_t>(4, 0));
    EXPECT_EQ(__rtslib_iflsm_get_by_name(h_, nullptr, 0, RTS_OP_GET, &reply), EINVAL);
}

}  // namespace

namespace {

TEST_F(Interfaces, SysctlReadsFollowSysctlsConventions)
{
    size_t size = 0;
    ASSERT_EQ(tarn::os::route_iflist(RTSLIB_IFLIST_ADDRESSES, nullptr, &size), 0);
    ASSERT_GT(size, 24u);
    std::vector<uint8_t> table(size);
    size_t got = size;
    ASSERT_EQ(tarn::os::route_iflist(RTSLIB_IFLIST_ADDRESSES, table.data(), &got), 0);
    EXPECT_EQ(got, size);
    got = size - 1;
    errno = 0;
    EXPECT_EQ(tarn::os::route_iflist(RTSLIB_IFLIST_ADDRESSES, table.data(), &got), -1);
    EXPECT_EQ(errno, ENOMEM);

    uint32_t value = 0;
    size_t len = sizeof value;
    errno = 0;
    EXPECT_EQ(tarn::os::sysctl_by_name("hw.product.no_such_thing", &value, &len, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
