// Allocation failures in calls that need no kernel: handles without a
// socket, buffers, message lists, the envelope and the generated codecs with
// a malloc allocator, and the containers.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "quiet_sink.h"
#include "sweep.h"
#include <tarn/tarn.h>

namespace {

using tarn::test::alloc::kWrong;
using tarn::test::alloc::QuietSink;
using tarn::test::alloc::Row;
using tarn::test::alloc::sweep;

int code_of(const void *p) { return p != nullptr ? 0 : errno; }

void *malloc_alloc(uint32_t size, void *) { return std::calloc(1, size); }
void malloc_free(void *block, void *) { std::free(block); }

// A route with a prefix and two source addresses: a byte string, an array
// and its elements each take an allocation when decoded.
struct Route {
    uint8_t prefix[4] = {10, 1, 2, 0};
    uint8_t addr[2][4] = {{192, 0, 2, 1}, {192, 0, 2, 2}};
    idl_sockaddr_gen_t src[2]{};
    idl_sockaddr_gen_t *srcs[2] = {&src[0], &src[1]};
    idl_sockaddr_gen_map_t src_maps[2]{};
    rt_msg_t rt{};
    rt_msg_map_t map{};

    Route()
    {
        rt.hdr.version = RTS_ROUTE_VERSION;
        rt.hdr.type = RTS_MSG_ROUTE;
        rt.hdr.op = RTS_OP_ADD;
        rt.hdr.seq = 9;
        rt.tid = 3;
        rt.af = TARN_AF_INET;
        rt.plen = 24;
        rt.prefix = prefix;
        rt.prefix_len = sizeof prefix;
        for (int i = 0; i < 2; ++i) {
            src[i].sa_family = TARN_AF_INET;
            src[i].sa_addr = addr[i];
            src[i].sa_addr_len = 4;
            src_maps[i].bits = (1u << IDL_SOCKADDR_GEN_BIT_SA_FAMILY) |
                               (1u << IDL_SOCKADDR_GEN_BIT_SA_ADDR);
        }
        rt.source = srcs;
        rt.source_count = 2;
        map.bits = (1u << RT_MSG_BIT_HDR) | (1u << RT_MSG_BIT_TID) | (1u << RT_MSG_BIT_PLEN) |
                   (1u << RT_MSG_BIT_PREFIX) | (1u << RT_MSG_BIT_SOURCE);
        map.hdr.bits = (1u << RTS_HDR_BIT_SEQ) | (1u << RTS_HDR_BIT_TYPE);
        map.source = src_maps;
    }

    // The envelope's bytes, TLV with the map or IDR without.
    std::vector<uint8_t> encoded(rtslib_cookie *h, bool tlv)
    {
        void *buf = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(rtslib_msg_idl_encode(h, &rt, tlv ? &map : nullptr, &buf, &len), 0);
        auto *p = static_cast<uint8_t *>(buf);
        std::vector<uint8_t> out(p, p + len);
        rtslib_msg_free(h, buf);
        return out;
    }

    // 0 when `got` is this route as sent.
    static int compare(const rt_msg_t *got)
    {
        Route want;
        if (got == nullptr || got->tid != 3 || got->plen != 24 || got->prefix_len != 4 ||
            std::memcmp(got->prefix, want.prefix, 4) != 0 || got->source_count != 2)
            return kWrong;
        for (int i = 0; i < 2; ++i)
            if (got->source[i]->sa_addr_len != 4 ||
                std::memcmp(got->source[i]->sa_addr, want.addr[i], 4) != 0)
                return kWrong;
        return 0;
    }
};

class CoreSweep : public ::testing::Test {
protected:
    void SetUp() override
    {
        h_ = rtslib_open_nc();
        ASSERT_NE(h_, nullptr);
        rtslib_lib_error_register(h_, &sink_, QuietSink::sink);
    }
    void TearDown() override { rtslib_close(h_); }

    rtslib_cookie *h_ = nullptr;
    QuietSink sink_;
};

TEST_F(CoreSweep, HandlesBuffersAndLists)
{
    rtslib_cookie *made = nullptr;
    void *block = nullptr;
    rtslib_msg_list *list = nullptr;
    std::vector<uint8_t> tables;  // three table records back to back
    for (uint16_t tid = 1; tid <= 3; ++tid) {
        rtb_msg_t rec{};
        rec.hdr.version = RTS_RTTABLE_VERSION;
        rec.hdr.type = RTS_MSG_RTTABLE;
        rec.tid = tid;
        void *enc = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(rtslib_msg_idl_encode(h_, &rec, nullptr, &enc, &len), 0);
        tables.insert(tables.end(), static_cast<uint8_t *>(enc), static_cast<uint8_t *>(enc) + len);
        rtslib_msg_free(h_, enc);
    }
    void *raw[17] = {};
    auto make_list = [&] { list = rtslib_msg_list_alloc(h_); };
    auto free_list = [&] {
        rtslib_msg_list_free(h_, list);
        list = nullptr;
    };
    sweep({
        {.name = "rtslib_open_nc",
         .call = [&] { return code_of(made = rtslib_open_nc()); },
         .check = [&] { return made->fd == -1 && made->read_buffer != nullptr ? 0 : kWrong; },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_close(made); made = nullptr; }},
        {.name = "rtslib_size_alloc",
         .call = [&] { return code_of(block = rtslib_size_alloc(h_, 100)); },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_msg_free(h_, block); }},
        {.name = "rtslib_msg_malloc",
         .call = [&] { return code_of(block = rtslib_msg_malloc(h_)); },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_msg_free(h_, block); }},
        {.name = "rtslib_msg_list_alloc",
         .call = [&] { return code_of(list = rtslib_msg_list_alloc(h_)); },
         .failure = {ENOMEM},
         .cleanup = free_list},
        // The seventeenth add grows nothing: the array grew once, at the first.
        {.name = "rtslib_msg_list_add",
         .setup =
             [&] {
                 make_list();
                 raw[0] = rtslib_msg_malloc(h_);
             },
         .call = [&] { return rtslib_msg_list_add(h_, list, raw[0]); },
         .check = [&] { return list->count == 1 && list->entries[0] == raw[0] ? 0 : kWrong; },
         .failure = {ENOMEM},
         .cleanup =
             [&] {
                 if (list->count == 0)
                     rtslib_msg_free(h_, raw[0]);
                 free_list();
             }},
        {.name = "rtslib_msg_list_fillin (envelopes)",
         .setup = make_list,
         .call =
             [&] {
                 return rtslib_msg_list_fillin(h_, list, static_cast<uint32_t>(tables.size()),
                                               tables.data());
             },
         .check =
             [&] {
                 auto *third = static_cast<rtb_msg_t *>(rtslib_msg_list_get_by_index(list, 2));
                 return list->count == 3 && third != nullptr && third->tid == 3 ? 0 : kWrong;
             },
         .failure = {ENOMEM},
         .cleanup = free_list},
    });
}

TEST_F(CoreSweep, EnvelopeAndCodecs)
{
    Route route;
    const std::vector<uint8_t> tlv = route.encoded(h_, true);
    const std::vector<uint8_t> idr = route.encoded(h_, false);
    void *buf = nullptr;
    uint32_t len = 0;
    void *msg = nullptr;
    void *map = nullptr;
    rts_msg_t env{};
    rts_msg_map_t env_map{};
    auto release_env = [&] {
        tlv_release_rts_msg_0(&env, &env_map, malloc_free, nullptr);
        env = {};
        env_map = {};
    };
    sweep({
        {.name = "rtslib_msg_idl_encode",
         .call = [&] { return rtslib_msg_idl_encode(h_, &route.rt, &route.map, &buf, &len); },
         .check = [&] { return len == tlv.size() && !std::memcmp(buf, tlv.data(), len) ? 0 : kWrong; },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_msg_free(h_, buf); }},
        {.name = "rtslib_msg_idl_decode (TLV)",
         .call =
             [&] {
                 return rtslib_msg_idl_decode(h_, tlv.data(), static_cast<uint32_t>(tlv.size()),
                                              &msg, &map);
             },
         .check = [&] { return Route::compare(static_cast<rt_msg_t *>(msg)); },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_msg_idl_release(h_, msg); msg = nullptr; }},
        {.name = "tlv_decode_rts_msg_0 (malloc allocator)",
         .call =
             [&] {
                 return tlv_decode_rts_msg_0(&env, &env_map, tlv.data(),
                                             static_cast<uint32_t>(tlv.size()), malloc_alloc,
                                             nullptr) > 0 ? 0 : TARN_IDL_E_ALLOC;
             },
         .check = [&] { return Route::compare(static_cast<rt_msg_t *>(env.member)); },
         .failure = {TARN_IDL_E_ALLOC},
         .cleanup = release_env},
        {.name = "idr_decode_rts_msg_0 (malloc allocator)",
         .call =
             [&] {
                 int32_t rc = idr_decode_rts_msg_0(&env, idr.data(),
                                                   static_cast<uint32_t>(idr.size()),
                                                   malloc_alloc, nullptr);
                 return rc > 0 ? 0 : rc;
             },
         .check = [&] { return Route::compare(static_cast<rt_msg_t *>(env.member)); },
         .failure = {TARN_IDL_E_ALLOC},
         .cleanup =
             [&] {
                 idr_release_rts_msg_0(&env, malloc_free, nullptr);
                 env = {};
             }},
    });
}

TEST_F(CoreSweep, Containers)
{
    patricia_root *root = nullptr;
    itable16 *t16 = nullptr;
    itable32 *t32 = nullptr;
    int value = 0;
    uint16_t i16 = 0;
    uint32_t i32 = 0;
    auto destroy = [&] {
        if (t16 != nullptr)
            itable16_destroy(t16);
        if (t32 != nullptr)
            itable32_destroy(t32);
        t16 = nullptr;
        t32 = nullptr;
    };
    sweep({
        {.name = "patricia_root_init",
         .call = [&] { return code_of(root = patricia_root_init(nullptr, 0, 4, 0)); },
         .failure = {ENOMEM},
         .cleanup = [&] { if (root != nullptr) patricia_root_delete(root); }},
        {.name = "itable16_create",
         .call = [&] { return code_of(t16 = itable16_create()); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable32_create",
         .call = [&] { return code_of(t32 = itable32_create()); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable16_insert",
         .setup = [&] { t16 = itable16_create(); i16 = 40000; },
         .call = [&] { return itable16_insert(t16, &value, &i16); },
         .check = [&] { return itable16_lookup(t16, &i16) == &value ? 0 : kWrong; },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable32_insert",
         .setup = [&] { t32 = itable32_create(); i32 = 0x30005; },
         .call = [&] { return itable32_insert(t32, &value, &i32); },
         .check = [&] { return itable32_lookup(t32, &i32) == &value ? 0 : kWrong; },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable32_alloc",
         .setup = [&] { t32 = itable32_create(); },
         .call = [&] { return itable32_alloc(t32, &value, &i32); },
         .check = [&] { return itable32_lookup(t32, &i32) == &value ? 0 : kWrong; },
         .failure = {ENOMEM},
         .cleanup = destroy},
    });
}

}  // namespace
