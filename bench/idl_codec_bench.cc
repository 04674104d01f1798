// Encode and decode of three typical messages in TLV and IDR, beside
// protobuf-c on equivalent messages and a plain copy of as many bytes as the
// IDR image: a route (16-byte prefix, two information records), a logical
// interface (name, one address, statistics controls) and per-queue
// statistics (an array of eight records). Decoders allocate from an arena
// that is reset for every message, as the envelope does.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>
#include <protobuf-c/protobuf-c.h>

#include <tarn/idl.h>

#include "route_msg.pb-c.h"

namespace {

struct RouteFixture {
    uint8_t prefix[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    rts_msg_info_t infos[2]{};
    rts_msg_info_t *info_ptrs[2] = {&infos[0], &infos[1]};
    rts_msg_info_map_t info_maps[2]{};
    rt_msg_t rec{};
    rt_msg_map_t map{};

    RouteFixture()
    {
        infos[0].unnum_donor.donor_ifl_index = 1234;
        info_maps[0].bits = 1u << RTS_MSG_INFO_BIT_UNNUM_DONOR;
        info_maps[0].unnum_donor.bits = 1;
        infos[1].vrrp_state.state = 3;
        info_maps[1].bits = 1u << RTS_MSG_INFO_BIT_VRRP_STATE;
        info_maps[1].vrrp_state.bits = 1;
        rec.hdr.version = 104;
        rec.hdr.type = RTS_MSG_ROUTE;
        rec.hdr.op = RTS_OP_ADD;
        rec.hdr.msglen = 228;
        rec.hdr.seq = 4711;
        rec.hdr.hdrlen = 228;
        rec.hdr.info = info_ptrs;
        rec.hdr.info_count = 2;
        rec.tid = 0;
        rec.af = TARN_AF_INET6;
        rec.type = 1;
        rec.nh = 2;
        rec.nhflags = 0x10;
        rec.nhidx = 99;
        rec.flags = 0x801;
        rec.plen = 128;
        rec.prefix = prefix;
        rec.prefix_len = 16;
        map.bits = (1u << RT_MSG_BIT_HDR) | (1u << RT_MSG_BIT_TID) | (1u << RT_MSG_BIT_AF) |
                   (1u << RT_MSG_BIT_TYPE) | (1u << RT_MSG_BIT_NH) | (1u << RT_MSG_BIT_NHFLAGS) |
                   (1u << RT_MSG_BIT_NHIDX) | (1u << RT_MSG_BIT_FLAGS) | (1u << RT_MSG_BIT_PLEN) |
                   (1u << RT_MSG_BIT_PREFIX);
        map.hdr.bits = (1u << RTS_HDR_BIT_VERSION) | (1u << RTS_HDR_BIT_TYPE) |
                       (1u << RTS_HDR_BIT_OP) | (1u << RTS_HDR_BIT_MSGLEN) |
                       (1u << RTS_HDR_BIT_SEQ) | (1u << RTS_HDR_BIT_HDRLEN) |
                       (1u << RTS_HDR_BIT_INFO);
        map.hdr.info = info_maps;
    }
};

// A logical interface as its daemon announces it: a name, one IPv4 address.
struct IflFixture {
    uint8_t name[11] = {'g', 'e', '-', '0', '/', '0', '/', '1', '.', '0', 0};
    uint8_t addr_bytes[4] = {192, 0, 2, 1};
    idl_sockaddr_gen_t addr{};
    idl_sockaddr_gen_t *addr_ptrs[1] = {&addr};
    idl_sockaddr_gen_map_t addr_map{};
    ifl_msg_t rec{};
    ifl_msg_map_t map{};

    IflFixture()
    {
        addr.sa_len = 16;
        addr.sa_family = TARN_AF_INET;
        addr.sa_ifindex = 72;
        addr.sa_addr = addr_bytes;
        addr.sa_addr_len = 4;
        addr_map.bits = (1u << IDL_SOCKADDR_GEN_BIT_SA_LEN) |
                        (1u << IDL_SOCKADDR_GEN_BIT_SA_FAMILY) |
                        (1u << IDL_SOCKADDR_GEN_BIT_SA_IFINDEX) |
                        (1u << IDL_SOCKADDR_GEN_BIT_SA_ADDR);
        rec.hdr.version = 104;
        rec.hdr.type = RTS_MSG_IFLOGICAL;
        rec.hdr.op = RTS_OP_ADD;
        rec.hdr.seq = 4712;
        rec.iflm_index = 72;
        rec.iflm_snmp_id = 530;
        rec.iflm_devindex = 140;
        rec.iflm_encaps = 2;
        rec.iflm_unit = 0;
        rec.iflm_flags = 0xc000;
        rec.iflm_mtu_class = 1;
        rec.iflm_generation = 9031;
        rec.name = name;
        rec.name_len = sizeof name;
        rec.addr = addr_ptrs;
        rec.addr_count = 1;
        rec.iflm_change_time.tv_sec = 1700000000;
        rec.iflm_change_time.tv_usec = 250000;
        map.bits = (1u << IFL_MSG_BIT_HDR) | (1u << IFL_MSG_BIT_IFLM_INDEX) |
                   (1u << IFL_MSG_BIT_IFLM_SNMP_ID) | (1u << IFL_MSG_BIT_IFLM_DEVINDEX) |
                   (1u << IFL_MSG_BIT_IFLM_ENCAPS) | (1u << IFL_MSG_BIT_IFLM_UNIT) |
                   (1u << IFL_MSG_BIT_IFLM_FLAGS) | (1u << IFL_MSG_BIT_IFLM_MTU_CLASS) |
                   (1u << IFL_MSG_BIT_IFLM_GENERATION) | (1u << IFL_MSG_BIT_NAME) |
                   (1u << IFL_MSG_BIT_ADDR) | (1u << IFL_MSG_BIT_IFLM_CHANGE_TIME);
        map.hdr.bits = (1u << RTS_HDR_BIT_VERSION) | (1u << RTS_HDR_BIT_TYPE) |
                       (1u << RTS_HDR_BIT_OP) | (1u << RTS_HDR_BIT_SEQ);
        map.addr = &addr_map;
        map.iflm_change_time.bits = 3;
    }
};

// Forwarding-class queue statistics of one device: eight records.
struct CosFixture {
    static constexpr uint32_t kQueues = 8;
    cos_fqstats_t stats[kQueues]{};
    cos_fqstats_t *stat_ptrs[kQueues]{};
    cos_fqstats_map_t stat_maps[kQueues]{};
    rt_cos_fqstats_msg_t rec{};
    rt_cos_fqstats_msg_map_t map{};

    CosFixture()
    {
        for (uint32_t q = 0; q < kQueues; ++q) {
            stats[q] = {q, 1000003 * (q + 1), q, 1500000007u * (q + 1), 2 * q, 17 * q};
            stat_ptrs[q] = &stats[q];
            stat_maps[q].bits = 0x3f;
        }
        rec.hdr.version = 104;
        rec.hdr.type = RTS_MSG_COS_FQSTATS;
        rec.hdr.op = RTS_OP_ADD;
        rec.hdr.seq = 4713;
        rec.ifd_index = 140;
        rec.queue_count = kQueues;
        rec.stats = stat_ptrs;
        rec.stats_count = kQueues;
        map.bits = 0xf;
        map.hdr.bits = (1u << RTS_HDR_BIT_VERSION) | (1u << RTS_HDR_BIT_TYPE) |
                       (1u << RTS_HDR_BIT_OP) | (1u << RTS_HDR_BIT_SEQ);
        map.stats = stat_maps;
    }
};

struct PbFixture {
    Tarnbench__InfoRecord info[2] = {TARNBENCH__INFO_RECORD__INIT, TARNBENCH__INFO_RECORD__INIT};
    Tarnbench__InfoRecord *info_ptrs[2] = {&info[0], &info[1]};
    Tarnbench__RtsHeader hdr = TARNBENCH__RTS_HEADER__INIT;
    Tarnbench__Route route = TARNBENCH__ROUTE__INIT;
    uint8_t prefix[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

    PbFixture()
    {
        info[0].unnum_donor = 1234;
        info[1].vrrp_state = 3;
        hdr.version = 104;
        hdr.type = RTS_MSG_ROUTE;
        hdr.op = RTS_OP_ADD;
        hdr.msglen = 228;
        hdr.seq = 4711;
        hdr.hdrlen = 228;
        hdr.n_info = 2;
        hdr.info = info_ptrs;
        route.hdr = &hdr;
        route.af = TARN_AF_INET6;
        route.type = 1;
        route.nh = 2;
        route.nhflags = 0x10;
        route.nhidx = 99;
        route.flags = 0x801;
        route.plen = 128;
        route.prefix.len = 16;
        route.prefix.data = prefix;
    }
};

struct PbIflFixture {
    Tarnbench__RtsHeader hdr = TARNBENCH__RTS_HEADER__INIT;
    Tarnbench__SockAddr addr = TARNBENCH__SOCK_ADDR__INIT;
    Tarnbench__SockAddr *addr_ptrs[1] = {&addr};
    Tarnbench__Ifl ifl = TARNBENCH__IFL__INIT;
    uint8_t name[11] = {'g', 'e', '-', '0', '/', '0', '/', '1', '.', '0', 0};
    uint8_t addr_bytes[4] = {192, 0, 2, 1};

    PbIflFixture()
    {
        hdr.version = 104;
        hdr.type = RTS_MSG_IFLOGICAL;
        hdr.op = RTS_OP_ADD;
        hdr.seq = 4712;
        addr.family = TARN_AF_INET;
        addr.ifindex = 72;
        addr.addr = {sizeof addr_bytes, addr_bytes};
        ifl.hdr = &hdr;
        ifl.index = 72;
        ifl.snmp_id = 530;
        ifl.devindex = 140;
        ifl.encaps = 2;
        ifl.flags = 0xc000;
        ifl.mtu_class = 1;
        ifl.generation = 9031;
        ifl.name = {sizeof name, name};
        ifl.n_addr = 1;
        ifl.addr = addr_ptrs;
        ifl.change_sec = 1700000000;
        ifl.change_usec = 250000;
    }
};

struct PbCosFixture {
    static constexpr uint32_t kQueues = 8;
    Tarnbench__RtsHeader hdr = TARNBENCH__RTS_HEADER__INIT;
    Tarnbench__QueueStats stats[kQueues];
    Tarnbench__QueueStats *stat_ptrs[kQueues];
    Tarnbench__CosStats msg = TARNBENCH__COS_STATS__INIT;

    PbCosFixture()
    {
        hdr.version = 104;
        hdr.type = RTS_MSG_COS_FQSTATS;
        hdr.op = RTS_OP_ADD;
        hdr.seq = 4713;
        for (uint32_t q = 0; q < kQueues; ++q) {
            stats[q] = TARNBENCH__QUEUE_STATS__INIT;
            stats[q].queue = q;
            stats[q].pkts_lo = 1000003 * (q + 1);
            stats[q].pkts_hi = q;
            stats[q].bytes_lo = 1500000007u * (q + 1);
            stats[q].bytes_hi = 2 * q;
            stats[q].drops = 17 * q;
            stat_ptrs[q] = &stats[q];
        }
        msg.hdr = &hdr;
        msg.ifd_index = 140;
        msg.queue_count = kQueues;
        msg.n_stats = kQueues;
        msg.stats = stat_ptrs;
    }
};

// A bump allocator for protobuf-c's unpack, reset per message.
struct Bump {
    std::vector<uint8_t> block = std::vector<uint8_t>(1 << 16);
    size_t used = 0;
    static void *alloc(void *self, size_t size)
    {
        auto *b = static_cast<Bump *>(self);
        size = (size + 15) & ~size_t{15};
        if (b->used + size > b->block.size()) return nullptr;
        void *p = b->block.data() + b->used;
        b->used += size;
        return p;
    }
    static void free(void *, void *) {}
};

// The codecs of one message with both fixtures: R the IDL record, M its map.
template <class R, class M>
using TlvEncodeFn = uint32_t (*)(const R *, const M *, void *, uint32_t);
template <class R, class M>
using TlvDecodeFn = int32_t (*)(R *, M *, const void *, uint32_t, tarn_idl_alloc_fn, void *);
template <class R>
using IdrEncodeFn = uint32_t (*)(const R *, void *, uint32_t);
template <class R>
using IdrDecodeFn = int32_t (*)(R *, const void *, uint32_t, tarn_idl_alloc_fn, void *);

template <class Fx, class R, class M, TlvEncodeFn<R, M> TE, TlvDecodeFn<R, M> TD,
          IdrEncodeFn<R> IE, IdrDecodeFn<R> ID, class PbFx, class Pb, size_t (*PbSize)(const Pb *),
          size_t (*PbPack)(const Pb *, uint8_t *),
          Pb *(*PbUnpack)(ProtobufCAllocator *, size_t, const uint8_t *), Pb PbFx::*PbMsg>
struct Message {
    using Fixture = Fx;
    using Record = R;
    using Map = M;
    using PbFixture = PbFx;
    static uint32_t tlv_encode(const Fx &f, void *out, uint32_t len) { return TE(&f.rec, &f.map, out, len); }
    static int32_t tlv_decode(R *r, M *m, const void *in, uint32_t len, rtslib_idl_arena *a)
    {
        return TD(r, m, in, len, &rtslib_idl_arena_alloc, a);
    }
    static uint32_t idr_encode(const Fx &f, void *out, uint32_t len) { return IE(&f.rec, out, len); }
    static int32_t idr_decode(R *r, const void *in, uint32_t len, rtslib_idl_arena *a)
    {
        return ID(r, in, len, &rtslib_idl_arena_alloc, a);
    }
    static constexpr IdrDecodeFn<R> idr_decode_with = ID;
    static const Pb *pb(const PbFx &f) { return &(f.*PbMsg); }
    static size_t pb_size(const PbFx &f) { return PbSize(pb(f)); }
    static size_t pb_pack(const PbFx &f, uint8_t *out) { return PbPack(pb(f), out); }
    static const void *pb_unpack(ProtobufCAllocator *a, const std::vector<uint8_t> &in)
    {
        return PbUnpack(a, in.size(), in.data());
    }
};

using Route = Message<RouteFixture, rt_msg_t, rt_msg_map_t, &tlv_encode_rt_msg_0,
                      &tlv_decode_rt_msg_0, &idr_encode_rt_msg_0, &idr_decode_rt_msg_0, PbFixture,
                      Tarnbench__Route, &tarnbench__route__get_packed_size, &tarnbench__route__pack,
                      &tarnbench__route__unpack, &PbFixture::route>;
using Ifl = Message<IflFixture, ifl_msg_t, ifl_msg_map_t, &tlv_encode_ifl_msg_0, &tlv_decode_ifl_msg_0,
                    &idr_encode_ifl_msg_0, &idr_decode_ifl_msg_0, PbIflFixture, Tarnbench__Ifl,
                    &tarnbench__ifl__get_packed_size, &tarnbench__ifl__pack, &tarnbench__ifl__unpack,
                    &PbIflFixture::ifl>;
using Cos = Message<CosFixture, rt_cos_fqstats_msg_t, rt_cos_fqstats_msg_map_t,
                    &tlv_encode_rt_cos_fqstats_msg_0, &tlv_decode_rt_cos_fqstats_msg_0,
                    &idr_encode_rt_cos_fqstats_msg_0, &idr_decode_rt_cos_fqstats_msg_0,
                    PbCosFixture, Tarnbench__CosStats, &tarnbench__cos_stats__get_packed_size,
                    &tarnbench__cos_stats__pack, &tarnbench__cos_stats__unpack, &PbCosFixture::msg>;

template <class Msg>
void BM_TlvEncode(benchmark::State &state)
{
    typename Msg::Fixture f;
    std::vector<uint8_t> out(4096);
    for (auto _ : state) {
        uint32_t n = Msg::tlv_encode(f, out.data(), static_cast<uint32_t>(out.size()));
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = Msg::tlv_encode(f, nullptr, 0);
}

template <class Msg>
void BM_TlvDecode(benchmark::State &state)
{
    typename Msg::Fixture f;
    std::vector<uint8_t> in(Msg::tlv_encode(f, nullptr, 0));
    Msg::tlv_encode(f, in.data(), static_cast<uint32_t>(in.size()));
    alignas(16) static uint8_t arena_block[1 << 16];
    for (auto _ : state) {
        rtslib_idl_arena arena{arena_block, sizeof arena_block, 0};
        typename Msg::Record rec;
        typename Msg::Map map;
        int32_t r = Msg::tlv_decode(&rec, &map, in.data(), static_cast<uint32_t>(in.size()), &arena);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(rec);
    }
}

template <class Msg>
void BM_IdrEncode(benchmark::State &state)
{
    typename Msg::Fixture f;
    std::vector<uint8_t> out(4096);
    for (auto _ : state) {
        uint32_t n = Msg::idr_encode(f, out.data(), static_cast<uint32_t>(out.size()));
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = Msg::idr_encode(f, nullptr, 0);
}

template <class Msg>
void BM_IdrDecode(benchmark::State &state)
{
    typename Msg::Fixture f;
    std::vector<uint8_t> in(Msg::idr_encode(f, nullptr, 0));
    Msg::idr_encode(f, in.data(), static_cast<uint32_t>(in.size()));
    alignas(16) static uint8_t arena_block[1 << 16];
    for (auto _ : state) {
        rtslib_idl_arena arena{arena_block, sizeof arena_block, 0};
        typename Msg::Record rec;
        int32_t r = Msg::idr_decode(&rec, in.data(), static_cast<uint32_t>(in.size()), &arena);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(rec);
    }
}

template <class Msg>
void BM_MemcpyIdrImage(benchmark::State &state)
{
    typename Msg::Fixture f;
    size_t n = Msg::idr_encode(f, nullptr, 0);
    std::vector<uint8_t> src(n, 0x5A), dst(n);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), n);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(n);
}

// The allocator calls an IDR decode of the message makes, in order: the
// sizes asked for, recorded through a wrapper around the arena allocator.
template <class Msg>
std::vector<uint32_t> idr_decode_allocations(const std::vector<uint8_t> &image)
{
    struct Recorder {
        rtslib_idl_arena arena;
        std::vector<uint32_t> sizes;
        static void *alloc(uint32_t size, void *ctx)
        {
            auto *r = static_cast<Recorder *>(ctx);
            r->sizes.push_back(size);
            return rtslib_idl_arena_alloc(size, &r->arena);
        }
    };
    alignas(16) static uint8_t block[1 << 16];
    Recorder r{{block, sizeof block, 0}, {}};
    typename Msg::Record rec;
    if (Msg::idr_decode_with(&rec, image.data(), static_cast<uint32_t>(image.size()),
                             &Recorder::alloc, &r) <= 0)
        r.sizes.clear();
    return r.sizes;
}

// The floor under BM_IdrDecode: a copy of the image plus the same allocator
// calls the decoder makes (same sizes, same order, through a pointer, from
// an arena reset per message), and nothing else.
template <class Msg>
void BM_IdrDecodeFloor(benchmark::State &state)
{
    typename Msg::Fixture f;
    std::vector<uint8_t> in(Msg::idr_encode(f, nullptr, 0));
    Msg::idr_encode(f, in.data(), static_cast<uint32_t>(in.size()));
    const std::vector<uint32_t> sizes = idr_decode_allocations<Msg>(in);
    if (sizes.empty()) {
        state.SkipWithError("decode failed");
        return;
    }
    std::vector<uint8_t> out(in.size());
    tarn_idl_alloc_fn alloc = &rtslib_idl_arena_alloc;
    alignas(16) static uint8_t arena_block[1 << 16];
    for (auto _ : state) {
        benchmark::DoNotOptimize(alloc);
        rtslib_idl_arena arena{arena_block, sizeof arena_block, 0};
        std::memcpy(out.data(), in.data(), in.size());
        for (uint32_t size : sizes) {
            void *p = alloc(size, &arena);
            benchmark::DoNotOptimize(p);
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.counters["allocs"] = static_cast<double>(sizes.size());
}

template <class Msg>
void BM_ProtobufPack(benchmark::State &state)
{
    typename Msg::PbFixture f;
    std::vector<uint8_t> out(Msg::pb_size(f));
    for (auto _ : state) {
        size_t n = Msg::pb_pack(f, out.data());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}

template <class Msg>
void BM_ProtobufPackWithSize(benchmark::State &state)
{
    typename Msg::PbFixture f;
    std::vector<uint8_t> out(4096);
    for (auto _ : state) {
        size_t need = Msg::pb_size(f);
        size_t n = need <= out.size() ? Msg::pb_pack(f, out.data()) : 0;
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}

template <class Msg>
void BM_ProtobufUnpack(benchmark::State &state)
{
    typename Msg::PbFixture f;
    std::vector<uint8_t> in(Msg::pb_size(f));
    Msg::pb_pack(f, in.data());
    Bump bump;
    ProtobufCAllocator alloc{&Bump::alloc, &Bump::free, &bump};
    for (auto _ : state) {
        bump.used = 0;
        const void *r = Msg::pb_unpack(&alloc, in);
        benchmark::DoNotOptimize(r);
    }
}

}  // namespace

// Side by side per message, so that one run gives every ratio.
#define TARN_CODEC_BENCHES(Msg)                   \
    BENCHMARK_TEMPLATE(BM_TlvEncode, Msg);        \
    BENCHMARK_TEMPLATE(BM_ProtobufPack, Msg);     \
    BENCHMARK_TEMPLATE(BM_ProtobufPackWithSize, Msg); \
    BENCHMARK_TEMPLATE(BM_TlvDecode, Msg);        \
    BENCHMARK_TEMPLATE(BM_ProtobufUnpack, Msg);   \
    BENCHMARK_TEMPLATE(BM_IdrEncode, Msg);        \
    BENCHMARK_TEMPLATE(BM_IdrDecode, Msg);        \
    BENCHMARK_TEMPLATE(BM_IdrDecodeFloor, Msg);   \
    BENCHMARK_TEMPLATE(BM_MemcpyIdrImage, Msg)

TARN_CODEC_BENCHES(Route);
TARN_CODEC_BENCHES(Ifl);
TARN_CODEC_BENCHES(Cos);

BENCHMARK_MAIN();
