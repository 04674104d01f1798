// Encode and decode of one route message (16-byte prefix, two information
// records) in TLV and IDR, beside protobuf-c on an equivalent message and a
// plain copy of as many bytes as the IDR image. Decoders allocate from an
// arena that is reset for every message, as the envelope does.
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
    rt_msg_t rt{};
    rt_msg_map_t map{};

    RouteFixture()
    {
        infos[0].unnum_donor.donor_ifl_index = 1234;
        info_maps[0].bits = 1u << RTS_MSG_INFO_BIT_UNNUM_DONOR;
        info_maps[0].unnum_donor.bits = 1;
        infos[1].vrrp_state.state = 3;
        info_maps[1].bits = 1u << RTS_MSG_INFO_BIT_VRRP_STATE;
        info_maps[1].vrrp_state.bits = 1;
        rt.hdr.version = 104;
        rt.hdr.type = RTS_MSG_ROUTE;
        rt.hdr.op = RTS_OP_ADD;
        rt.hdr.msglen = 228;
        rt.hdr.seq = 4711;
        rt.hdr.hdrlen = 228;
        rt.hdr.info = info_ptrs;
        rt.hdr.info_count = 2;
        rt.tid = 0;
        rt.af = TARN_AF_INET6;
        rt.type = 1;
        rt.nh = 2;
        rt.nhflags = 0x10;
        rt.nhidx = 99;
        rt.flags = 0x801;
        rt.plen = 128;
        rt.prefix = prefix;
        rt.prefix_len = 16;
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

void BM_TlvEncode(benchmark::State &state)
{
    RouteFixture f;
    std::vector<uint8_t> out(4096);
    for (auto _ : state) {
        uint32_t n = tlv_encode_rt_msg_0(&f.rt, &f.map, out.data(), static_cast<uint32_t>(out.size()));
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = tlv_encode_rt_msg_0(&f.rt, &f.map, nullptr, 0);
}

void BM_TlvDecode(benchmark::State &state)
{
    RouteFixture f;
    std::vector<uint8_t> in(tlv_encode_rt_msg_0(&f.rt, &f.map, nullptr, 0));
    tlv_encode_rt_msg_0(&f.rt, &f.map, in.data(), static_cast<uint32_t>(in.size()));
    alignas(16) static uint8_t arena_block[1 << 16];
    for (auto _ : state) {
        rtslib_idl_arena arena{arena_block, sizeof arena_block, 0};
        rt_msg_t rec;
        rt_msg_map_t map;
        int32_t r = tlv_decode_rt_msg_0(&rec, &map, in.data(), static_cast<uint32_t>(in.size()),
                                        &rtslib_idl_arena_alloc, &arena);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(rec);
    }
}

void BM_IdrEncode(benchmark::State &state)
{
    RouteFixture f;
    std::vector<uint8_t> out(4096);
    for (auto _ : state) {
        uint32_t n = idr_encode_rt_msg_0(&f.rt, out.data(), static_cast<uint32_t>(out.size()));
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = idr_encode_rt_msg_0(&f.rt, nullptr, 0);
}

void BM_IdrDecode(benchmark::State &state)
{
    RouteFixture f;
    std::vector<uint8_t> in(idr_encode_rt_msg_0(&f.rt, nullptr, 0));
    idr_encode_rt_msg_0(&f.rt, in.data(), static_cast<uint32_t>(in.size()));
    alignas(16) static uint8_t arena_block[1 << 16];
    for (auto _ : state) {
        rtslib_idl_arena arena{arena_block, sizeof arena_block, 0};
        rt_msg_t rec;
        int32_t r = idr_decode_rt_msg_0(&rec, in.data(), static_cast<uint32_t>(in.size()),
                                        &rtslib_idl_arena_alloc, &arena);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(rec);
    }
}

void BM_MemcpyIdrImage(benchmark::State &state)
{
    RouteFixture f;
    size_t n = idr_encode_rt_msg_0(&f.rt, nullptr, 0);
    std::vector<uint8_t> src(n, 0x5A), dst(n);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), n);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(n);
}

void BM_ProtobufPack(benchmark::State &state)
{
    PbFixture f;
    std::vector<uint8_t> out(tarnbench__route__get_packed_size(&f.route));
    for (auto _ : state) {
        size_t n = tarnbench__route__pack(&f.route, out.data());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}

void BM_ProtobufPackWithSize(benchmark::State &state)
{
    PbFixture f;
    std::vector<uint8_t> out(4096);
    for (auto _ : state) {
        size_t need = tarnbench__route__get_packed_size(&f.route);
        size_t n = need <= out.size() ? tarnbench__route__pack(&f.route, out.data()) : 0;
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}

void BM_ProtobufUnpack(benchmark::State &state)
{
    PbFixture f;
    std::vector<uint8_t> in(tarnbench__route__get_packed_size(&f.route));
    tarnbench__route__pack(&f.route, in.data());
    Bump bump;
    ProtobufCAllocator alloc{&Bump::alloc, &Bump::free, &bump};
    for (auto _ : state) {
        bump.used = 0;
        Tarnbench__Route *r = tarnbench__route__unpack(&alloc, in.size(), in.data());
        benchmark::DoNotOptimize(r);
    }
}

}  // namespace

BENCHMARK(BM_TlvEncode);
BENCHMARK(BM_IdrEncode);
BENCHMARK(BM_ProtobufPack);
BENCHMARK(BM_ProtobufPackWithSize);
BENCHMARK(BM_TlvDecode);
BENCHMARK(BM_IdrDecode);
BENCHMARK(BM_ProtobufUnpack);
BENCHMARK(BM_MemcpyIdrImage);

BENCHMARK_MAIN();
