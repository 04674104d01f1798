// The kernel model's answers and notifications, without processes: what
// each family sends to whom, listen-mask selection, per-socket sequence
// numbers, queue bounds and the control commands.
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel.h"
#include <tarn/tarn.h>

namespace {

using tarn::kemu::EmuConfig;
using tarn::kemu::EmuLog;
using tarn::kemu::Encoding;
using tarn::kemu::Kernel;
using tarn::kemu::Outgoing;

constexpr uint64_t kLow = 1;
constexpr uint64_t kHigh = uint64_t{1} << 32;

// What a test needs to know of one message the kernel sends.
struct Seen {
    uint64_t socket;
    uint32_t magic;  // 0 for a raw message
    uint8_t type, op;
    uint32_t seq, error;
    bool notification;
    bool operator==(const Seen &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Seen &s)
{
    return os << "{socket " << s.socket << " magic 0x" << std::hex << s.magic << std::dec
              << " type " << int{s.type} << " op " << int{s.op} << " seq " << s.seq << " error "
              << s.error << (s.notification ? " notification}" : " answer}");
}

class Fanout : public testing::Test {
protected:
    Fanout()
    {
        cfg_.types = RTS_MSG_TYPE_COUNT;
        cfg_.interface_version = RTS_INTERFACE_VERSION;
        kernel_ = std::make_unique<Kernel>(cfg_, log_);
    }
    ~Fanout() override { rtslib_close(codec_); }

    uint64_t open(uint64_t mask)
    {
        const uint64_t id = kernel_->open_socket("s" + std::to_string(mask));
        kernel_->socket(id)->state.listen_mask = mask;
        return id;
    }

    Seen seen(const Outgoing &o)
    {
        uint32_t magic = 0;
        std::memcpy(&magic, o.bytes.data(), 4);
        if (magic == 0) {
            uint32_t seq = 0;
            std::memcpy(&seq, o.bytes.data() + RTS_HDR_SEQ_OFF, 4);
            return {o.socket, 0, o.bytes[RTS_HDR_TYPE_OFF], o.bytes[RTS_HDR_OP_OFF], seq, 0,
                    o.notification};
        }
        void *rec = nullptr;
        const int rc = rtslib_msg_idl_decode_pa(codec_, o.bytes.data(),
                                                static_cast<uint32_t>(o.bytes.size()), &rec,
                                                nullptr, arena_.data(),
                                                static_cast<uint32_t>(arena_.size()));
        EXPECT_EQ(rc, 0);
        if (rc != 0) return {};
        const auto &h = *static_cast<const rts_hdr_t *>(rec);
        return {o.socket, magic, h.type, h.op, h.seq, h.error, o.notification};
    }
    std::vector<Seen> seen(const std::vector<Outgoing> &out)
    {
        std::vector<Seen> v;
        for (const auto &o : out) v.push_back(seen(o));
        return v;
    }

    std::vector<Outgoing> send(uint64_t from, const void *record, const void *map, Encoding enc)
    {
        const auto bytes = tarn::kemu::encode_envelope(record, map, enc);
        return kernel_->handle_message(from, bytes.data(), bytes.size());
    }
    void receive(uint64_t from, const void *record, const void *map, Encoding enc)
    {
        kernel_->post(send(from, record, map, enc));
    }

    std::string run(uint64_t id, const std::string &text, int expect = 0)
    {
        std::string out;
        EXPECT_EQ(kernel_->command(id, text, out), expect) << text;
        return out;
    }

    // Everything waiting for socket `id`, taken from its queue.
    std::vector<Seen> drain(uint64_t id)
    {
        std::vector<Seen> v;
        auto &q = kernel_->socket(id)->queue;
        for (; !q.empty(); q.pop()) v.push_back(seen({id, q.front(), false}));
        return v;
    }

    EmuConfig cfg_;
    EmuLog log_{false};
    std::unique_ptr<Kernel> kernel_;
    rtslib_cookie *codec_ = rtslib_open_nc();
    std::vector<uint8_t> arena_ = std::vector<uint8_t>(64 * 1024);
};

// A route request for 10/8 (or `net`/8) in the default IPv4 table.
struct RouteRequest {
    uint8_t prefix[4];
    rt_msg_t msg{};
    rt_msg_map_t map{};
    RouteRequest(uint8_t op, uint8_t net = 10) : prefix{net, 0, 0, 0}
    {
        msg.hdr = {0, RTS_ROUTE_VERSION, RTS_MSG_ROUTE, op, 0, 0, 77, 0, 0, 0, nullptr, 0};
        msg.af = TARN_AF_INET;
        msg.plen = 8;
        msg.prefix = prefix;
        msg.prefix_len = 4;
        msg.nh = 2;
        msg.nhidx = 9;
        map.bits = ((1u << RT_MSG_BIT_COS) - 1) & ~(1u << RT_MSG_BIT_CHANGED);
        map.hdr.bits = (1u << RTS_HDR_BIT_INFO) - 1;
    }
};

struct TableRequest {
    uint8_t name[6] = "extra";
    rtb_msg_t msg{};
    rtb_msg_map_t map{};
    TableRequest(uint8_t op, uint16_t tid)
    {
        msg.hdr = {0, RTS_RTTABLE_VERSION, RTS_MSG_RTTABLE, op, 0, 0, 78, 0, 0, 0, nullptr, 0};
        msg.tid = tid;
        msg.af = TARN_AF_INET;
        msg.name = name;
        msg.name_len = sizeof name;
        map.bits = (1u << RTB_MSG_BIT_SEQ) - 1;
        map.hdr.bits = (1u << RTS_HDR_BIT_INFO) - 1;
    }
};

struct GroupRequest {
    uint8_t group[4] = {224, 0, 0, 9};
    mgr_msg_t msg{};
    mgr_msg_map_t map{};
    explicit GroupRequest(uint8_t op)
    {
        msg.hdr = {0, RTS_MGROUP_VERSION, RTS_MSG_MGROUP, op, 0, 0, 79, 0, 0, 0, nullptr, 0};
        msg.af = TARN_AF_INET;
        msg.grp_plen = 32;
        msg.group = group;
        msg.group_len = 4;
        msg.iif_index = 3;
        map.bits = (1u << (MGR_MSG_BIT_IIF_INDEX + 1)) - 1;
        map.hdr.bits = (1u << RTS_HDR_BIT_INFO) - 1;
    }
};

// Who gets what for one request of each family: the requester (listening
// to routes) gets its answer first, then every selected listener, the
// requester included, a notification in the request's encoding.
TEST_F(Fanout, EachFamilyAnswersTheRequesterAndNotifiesItsListeners)
{
    const uint64_t req = open(0x200 * kLow);      // listens to routes
    const uint64_t routes = open(0x80 * kLow);    // another route bit
    const uint64_t tables = open(0x2000 * kLow);
    const uint64_t groups = open(0x400 * kLow);
    const uint64_t deaf = open(0);
    run(0, "route-add 0 2 0a 8 2 9");
    run(0, "table-add 5 2 five");
    run(0, "mgroup-add 0 2 e0000009 32 3");
    for (uint64_t id : {req, routes, tables, groups, deaf}) drain(id);
    const uint32_t T = RTS_IDL_MAGIC_TLV, I = RTS_IDL_MAGIC_IDR;
    // Sequence numbers: each socket's next; the control-path changes above
    // used up 1 for every listener.
    struct Case {
        const char *name;
        std::function<std::vector<Outgoing>()> request;
        std::vector<Seen> expect;
    } const cases[] = {
        {"route add, IDR",
         [&] { RouteRequest r(RTS_OP_ADD, 11); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{req, I, 2, RTS_OP_ADD, 2, 0, true}, {routes, I, 2, RTS_OP_ADD, 2, 0, true}}},
        {"route add with acknowledgement, TLV",
         [&] { RouteRequest r(RTS_OP_ADD_ACK, 12); return send(req, &r.msg, &r.map, Encoding::kTlv); },
         {{req, T, 2, RTS_OP_ADD_ACK, 77, 0, false},
          {req, T, 2, RTS_OP_ADD, 2, 0, true},
          {routes, T, 2, RTS_OP_ADD, 2, 0, true}}},
        {"refused add with acknowledgement",
         [&] { RouteRequest r(RTS_OP_ADD_ACK); return send(req, &r.msg, &r.map, Encoding::kTlv); },
         {{req, T, 2, RTS_OP_ADD_ACK, 77, 17, false}}},
        {"refused plain add", [&] { RouteRequest r(RTS_OP_ADD); return send(req, &r.msg, nullptr, Encoding::kIdr); }, {}},
        {"route change",
         [&] { RouteRequest r(RTS_OP_CHANGE); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{req, I, 2, RTS_OP_CHANGE, 2, 0, true}, {routes, I, 2, RTS_OP_CHANGE, 2, 0, true}}},
        {"route get",
         [&] { RouteRequest r(RTS_OP_GET); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{req, I, 2, RTS_OP_GET, 77, 0, false}}},
        {"route delete",
         [&] { RouteRequest r(RTS_OP_DELETE); return send(req, &r.msg, &r.map, Encoding::kTlv); },
         {{req, T, 2, RTS_OP_DELETE, 2, 0, true}, {routes, T, 2, RTS_OP_DELETE, 2, 0, true}}},
        {"table add",
         [&] { TableRequest r(RTS_OP_ADD, 7); return send(req, &r.msg, &r.map, Encoding::kTlv); },
         {{tables, T, 1, RTS_OP_ADD, 2, 0, true}}},
        {"table update",
         [&] { TableRequest r(RTS_OP_CHANGE, 5); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{tables, I, 1, RTS_OP_CHANGE, 2, 0, true}}},
        {"table get",
         [&] { TableRequest r(RTS_OP_GET, 5); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{req, I, 1, RTS_OP_GET, 78, 0, false}}},
        {"multicast group delete",
         [&] { GroupRequest r(RTS_OP_DELETE); return send(req, &r.msg, &r.map, Encoding::kTlv); },
         {{groups, T, 13, RTS_OP_DELETE, 2, 0, true}}},
        {"multicast group add",
         [&] { GroupRequest r(RTS_OP_ADD); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{groups, I, 13, RTS_OP_ADD, 2, 0, true}}},
        {"multicast group get",
         [&] { GroupRequest r(RTS_OP_GET); return send(req, &r.msg, nullptr, Encoding::kIdr); },
         {{req, I, 13, RTS_OP_GET, 79, 0, false}}},
        {"route statistics, raw",
         [&] {
             std::vector<uint8_t> m(RTS_RTSTATS_FIXED_LEN + 4, 0);
             const uint32_t len = static_cast<uint32_t>(m.size()), seq = 80;
             m[RTS_HDR_VERSION_OFF] = RTS_RTSTATS_VERSION;
             m[RTS_HDR_TYPE_OFF] = RTS_MSG_RTSTATS;
             m[RTS_HDR_OP_OFF] = RTS_OP_GET;
             std::memcpy(&m[RTS_HDR_LEN_OFF], &len, 4);
             std::memcpy(&m[RTS_HDR_SEQ_OFF], &seq, 4);
             m[RTS_HDR_FIXED_LEN_OFF] = RTS_RTSTATS_FIXED_LEN;
             m[23] = TARN_AF_INET;
             m[34] = 8;
             m[48] = 10;
             return kernel_->handle_message(req, m.data(), m.size());
         },
         {{req, 0, RTS_MSG_RTSTATS, RTS_OP_GET, 80, 0, false}}},
    };
    for (const auto &c : cases) {
        // Each case starts from the same sequence numbers.
        for (uint64_t id : {req, routes, tables, groups, deaf})
            kernel_->socket(id)->state.kernel_seq = 2;
        EXPECT_EQ(seen(c.request()), c.expect) << c.name;
    }
}

// A socket is selected when its mask meets the type's registration bits.
TEST_F(Fanout, ListenMaskSelectsByTheRegistrationBitsOfEachType)
{
    struct {
        uint8_t type;
        uint64_t mask;
        bool selected;
    } const cases[] = {
        {RTS_MSG_ROUTE, 0x200 * kLow, true},
        {RTS_MSG_ROUTE, 0x200000 * kLow, true},
        {RTS_MSG_ROUTE, 0x2000 * kLow, false},
        {RTS_MSG_ROUTE, 0x200380 * kHigh, false},
        {RTS_MSG_RTTABLE, 0x2000 * kLow, true},
        {RTS_MSG_MGROUP, 0x400 * kLow, true},
        {RTS_MSG_MGROUP, 0x200 * kLow, false},
        {RTS_MSG_RT_CLASS, 0x200000 * kLow, true},
        {RTS_MSG_RT_CLASS, 0x100 * kLow, false},
        {RTS_MSG_IFFAMILY, 0x4 * kLow, true},
        {RTS_MSG_IFFAMILY, 0x10 * kLow, true},
        {RTS_MSG_IFADDR, 0x8 * kLow, true},
        {RTS_MSG_IFDEST, 0x20000 * kHigh, true},
        {RTS_MSG_IFDEST, 0x20000 * kLow, false},
        {RTS_MSG_PK_CRYPTO_SYS_REPLY, 0x40000000 * kHigh, true},
        {RTS_MSG_COS_FRAGMAP, 0x10000 * kLow, true},
        {RTS_MSG_CPIC_FILE_SPEC, 0x20000000 * kLow, true},
        {RTS_MSG_CPIC_FILE_SPEC, 0x10000000 * kLow, false},
        {RTS_MSG_KSYNC, 0x80000000 * kLow, true},
        {RTS_MSG_GENCFG, 0x1 * kHigh, true},
        {RTS_MSG_GENCFG, 0x1 * kLow, false},
        {RTS_MSG_QSV, 0x10 * kHigh, true},
        {RTS_MSG_NOTIFY_MSG, 0x400000 * kHigh, true},
        {RTS_MSG_UNKNOWN, 0x1000000 * kHigh, true},
        {RTS_MSG_DFWSTATS, ~uint64_t{0}, false},
        {RTS_MSG_IFSCLINFO, ~uint64_t{0}, false},
        {RTS_MSG_RTSTATS, ~uint64_t{0}, false},
    };
    for (const auto &c : cases) {
        const uint64_t id = open(c.mask);
        std::vector<uint8_t> raw(RTS_HDR_MIN_LEN, 0);
        raw[RTS_HDR_TYPE_OFF] = c.type;
        raw[RTS_HDR_LEN_OFF] = RTS_HDR_MIN_LEN;
        run(0, "notify " + tarn::test::hex(raw));
        EXPECT_EQ(drain(id).size(), c.selected ? 1u : 0u)
            << "type " << int{c.type} << " mask 0x" << std::hex << c.mask;
        kernel_->close_socket(id);
    }
}

// Each socket numbers its own notifications; option 3 reads the next one,
// and a dropped notification uses its number up.
TEST_F(Fanout, SequenceNumbersArePerSocket)
{
    const uint64_t a = open(0x200 * kLow);
    const uint64_t b = open(0x200 * kLow | 0x400 * kLow);
    run(0, "mgroup-add 0 2 e0000001 32 1");
    run(0, "mgroup-add 0 2 e0000002 32 1");
    run(b, "queue-bound 2");
    RouteRequest r(RTS_OP_ADD);
    receive(a, &r.msg, nullptr, Encoding::kIdr);
    run(0, "notify " + tarn::test::hex(std::vector<uint8_t>{0, 0, 0, 0, 'h', RTS_MSG_ROUTE, 1, 0,
                                                           16, 0, 0, 0, 0xee, 0xee, 0xee, 0xee}));
    const uint32_t I = RTS_IDL_MAGIC_IDR;
    EXPECT_EQ(drain(a), (std::vector<Seen>{{a, I, 2, RTS_OP_ADD, 1, 0, false},
                                           {a, 0, 2, RTS_OP_ADD, 2, 0, false}}));
    // b's third and fourth did not fit in its queue of two.
    EXPECT_EQ(kernel_->socket(b)->queue.dropped, 2u);
    std::vector<uint8_t> v(4);
    ASSERT_EQ(kernel_->get_option(kernel_->socket(b)->state, TARN_SOL_ROUTE, ROUTE_KERNEL_SEQ, v), 0);
    EXPECT_EQ(v, (std::vector<uint8_t>{5, 0, 0, 0}));
    ASSERT_EQ(kernel_->get_option(kernel_->socket(a)->state, TARN_SOL_ROUTE, ROUTE_KERNEL_SEQ, v), 0);
    EXPECT_EQ(v, (std::vector<uint8_t>{3, 0, 0, 0}));
}

// A listener that stops reading loses notifications beyond its bound; the
// requester still gets every answer and other listeners everything.
TEST_F(Fanout, QueueBoundDropsNotificationsButNeverAnswers)
{
    const uint64_t req = open(0x200 * kLow);
    const uint64_t slow = open(0x200 * kLow);
    const uint64_t other = open(0x100 * kLow);
    run(req, "queue-bound 1");
    run(slow, "queue-bound 2");
    for (uint8_t net : {1, 2, 3}) {
        RouteRequest r(RTS_OP_ADD_ACK, net);
        receive(req, &r.msg, nullptr, Encoding::kIdr);
    }
    const auto answers = drain(req);
    ASSERT_EQ(answers.size(), 3u);
    for (const auto &s : answers) EXPECT_EQ(s.op, RTS_OP_ADD_ACK);
    EXPECT_EQ(kernel_->socket(req)->queue.dropped, 3u);
    EXPECT_EQ(drain(slow).size(), 2u);
    EXPECT_EQ(kernel_->socket(slow)->queue.dropped, 1u);
    EXPECT_EQ(drain(other).size(), 3u);
    EXPECT_EQ(kernel_->socket(other)->queue.dropped, 0u);
    // Injected messages are scripted, not notifications: never dropped.
    run(slow, "queue-bound 0");
    run(slow, "inject 0102");
    EXPECT_EQ(kernel_->socket(slow)->queue.size(), 1u);
}

TEST_F(Fanout, StateShowsWhatTheOptionsSet)
{
    const uint64_t id = open(0);
    auto &st = kernel_->socket(id)->state;
    auto set = [&](int opt, std::vector<uint8_t> v) {
        EXPECT_EQ(kernel_->set_option(st, TARN_SOL_ROUTE, opt, v.data(), v.size()), 0) << opt;
    };
    set(ROUTE_SENDER_ID, {9});
    set(ROUTE_LR_ID, {7, 1});
    set(ROUTE_LISTEN_MASK, {0x80, 0x03, 0x20, 0, 1, 0, 0, 0});
    set(ROUTE_ASYNC_MODE, {0x9f, 3, 0, 0});
    set(ROUTE_SLAVE_MODE, {1, 0, 0, 0});
    set(ROUTE_MASTER_MODE, {2, 0, 0, 0});
    set(ROUTE_LOCAL_SLAVE_MODE, {3, 0, 0, 0});
    set(ROUTE_LISTEN_SUBTYPES, {35, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xab});
    run(id, "queue-bound 9");
    run(id, "pause");
    const std::string state = run(id, "state");
    const std::string expect = "sender-id 9\nlr-id 263\nlisten-mask 0x0000000100200380\n"
                               "async-mode 0x39f\nslave-mode 1\nmaster-mode 2\n"
                               "local-slave-mode 3\nkernel-seq 1\nqueued 0\nqueue-bound 9\n"
                               "dropped 0\npaused 1\nsubtypes 2300000000000000000000ab\n";
    EXPECT_NE(state.find(expect), std::string::npos) << state;

    // The filter block carries the mask it applies to.
    std::vector<uint8_t> filters(ROUTE_FILTERS_LEN, 0);
    filters[1] = 0x20;
    filters[8] = 0x5a;
    set(ROUTE_FILTERS, filters);
    EXPECT_EQ(st.listen_mask, 0x2000u);
    EXPECT_NE(run(id, "state").find("\nfilters 5a00"), std::string::npos);
}

TEST_F(Fanout, ControlCommandsCheckTheirArgumentsAndExplainThemselves)
{
    const uint64_t id = open(0);
    const std::string help = run(0, "help");
    for (const char *line : {"help\n", "dump\n", "count\n", "sockets\n", "state (socket)\n",
                             "drop-replies N (socket)\n", "queue-bound N (socket)\n",
                             "pause (socket)\n", "resume (socket)\n", "inject HEX (socket)\n",
                             "notify HEX\n", "route-add TID AF HEX PLEN NH NHIDX\n",
                             "route-delete TID AF HEX PLEN\n", "mgroup-add TID AF HEX BITS IIF\n",
                             "mgroup-delete TID AF HEX BITS\n", "table-add TID AF NAME\n"})
        EXPECT_TRUE(help.rfind(line, 0) == 0 || help.find(std::string("\n") + line) != std::string::npos)
            << line;
    struct {
        uint64_t socket;
        const char *text;
        int err;
    } const cases[] = {
        {0, "no-such-command", EOPNOTSUPP},
        {0, "state", EINVAL},
        {id, "drop-replies x", EINVAL},
        {id, "inject 0g", EINVAL},
        {id, "inject -", EINVAL},
        {0, "notify 01", EINVAL},
        {0, "route-add 0 2 0a 8", EINVAL},
        {0, "route-add 0 2 0a 8 2 9", 0},
        {0, "route-add 0 2 0a 8 2 9", EEXIST},
        {0, "route-add 9 2 0a 8 2 9", EEXIST},
        {0, "route-delete 0 2 0b 8", ENOENT},
        {0, "route-delete 0 2 0a 8", 0},
        {0, "table-add 0 2 default", EEXIST},
        {0, "mgroup-add 0 2 e0000001 200 1", EINVAL},
    };
    for (const auto &c : cases) run(c.socket, c.text, c.err);
    EXPECT_EQ(run(0, "count"), "routes 0\n");
}

}  // namespace
