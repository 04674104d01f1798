// Allocation failures in calls that need no kernel: handles without a
// socket, buffers, message lists, the envelope and the generated codecs with
// a malloc allocator, and the containers.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "quiet_sink.h"
#include "route_record.h"
#include "sweep.h"
#include <tarn/tarn.h>
#ifdef TARN_ALLOC_SWEEP_COMPRESS
#include <tarn/compress.h>
#endif

namespace {

using tarn::test::alloc::code_of;
using tarn::test::alloc::kWrong;
using tarn::test::alloc::QuietSink;
using tarn::test::alloc::Route;
using tarn::test::alloc::Row;
using tarn::test::alloc::sweep;
using tarn::test::alloc::wrong_unless;

void *malloc_alloc(uint32_t size, void *) { return std::calloc(1, size); }
void malloc_free(void *block, void *) { std::free(block); }

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
         .check = [&] { return wrong_unless(made->fd == -1 && made->read_buffer != nullptr); },
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
         .check = [&] { return wrong_unless(list->count == 1 && list->entries[0] == raw[0]); },
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
                 return wrong_unless(list->count == 3 && third != nullptr && third->tid == 3);
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
         .check = [&] { return wrong_unless(len == tlv.size() && !std::memcmp(buf, tlv.data(), len)); },
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
    void *block = nullptr;
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
         .check = [&] { return wrong_unless(itable16_lookup(t16, &i16) == &value); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable32_insert",
         .setup = [&] { t32 = itable32_create(); i32 = 0x30005; },
         .call = [&] { return itable32_insert(t32, &value, &i32); },
         .check = [&] { return wrong_unless(itable32_lookup(t32, &i32) == &value); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable16_create_ext",
         .call = [&] { return code_of(t16 = itable16_create_ext(itable_def_alloc, itable_def_free, nullptr)); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable32_create_ext",
         .call = [&] { return code_of(t32 = itable32_create_ext(itable_def_alloc, itable_def_free, nullptr)); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        {.name = "itable_def_alloc",
         .call = [&] { return code_of(block = itable_def_alloc(nullptr, 64)); },
         .failure = {ENOMEM},
         .cleanup = [&] { itable_def_free(nullptr, block); }},
        {.name = "itable16_alloc",
         .setup = [&] { t16 = itable16_create(); },
         .call = [&] { return itable16_alloc(t16, &value, &i16); },
         .check = [&] { return wrong_unless(itable16_lookup(t16, &i16) == &value); },
         .failure = {ENOMEM},
         .cleanup = destroy},
        // A missing sub-table is made even though a fresh one has no slot to fill.
        {.name = "itable32_replace",
         .setup = [&] { t32 = itable32_create(); i32 = 0x30005; },
         .call = [&] { return wrong_unless(itable32_replace(t32, &i32, &value) == nullptr); },
         .failure = {0},
         .cleanup = destroy},
        {.name = "itable32_alloc",
         .setup = [&] { t32 = itable32_create(); },
         .call = [&] { return itable32_alloc(t32, &value, &i32); },
         .check = [&] { return wrong_unless(itable32_lookup(t32, &i32) == &value); },
         .failure = {ENOMEM},
         .cleanup = destroy},
    });
}

}  // namespace

#ifdef TARN_ALLOC_SWEEP_COMPRESS
// The compression hooks on their own: the libraries under them allocate
// their working state per call.
TEST(CompressSweep, Hooks)
{
    using Hook = int (*)(void *, uint32_t *, const void *, uint32_t);
    const std::vector<uint8_t> plain(4000, 'x');
    std::vector<uint8_t> packed(8192), out(8192);
    uint32_t len = 0;
    std::vector<Row> rows;
    for (const auto &[name, pack, unpack] :
         {std::tuple<const char *, Hook, Hook>{"zlib", tarn_zlib_compress, tarn_zlib_decompress},
          {"zstd", tarn_zstd_compress, tarn_zstd_decompress}}) {
        auto inflated = [&, unpack = unpack] {
            len = static_cast<uint32_t>(out.size());
            return unpack(out.data(), &len, packed.data(), static_cast<uint32_t>(packed.size()));
        };
        auto deflate = [&, pack = pack] {
            len = static_cast<uint32_t>(packed.size());
            int rc = pack(packed.data(), &len, plain.data(), static_cast<uint32_t>(plain.size()));
            packed.resize(len);
            return rc;
        };
        auto same = [&] { return wrong_unless(len == plain.size() && !std::memcmp(out.data(), plain.data(), len)); };
        rows.push_back({.name = std::string("tarn_") + name + "_compress",
                        .setup = [&] { packed.assign(8192, 0); },
                        .call = deflate,
                        .check = [&, inflated, same] { return inflated() != 0 ? kWrong : same(); },
                        .failure = {ENOMEM}});
        rows.push_back({.name = std::string("tarn_") + name + "_decompress",
                        .setup = [&, deflate] { packed.assign(8192, 0); ASSERT_EQ(deflate(), 0); },
                        .call = inflated,
                        .check = same,
                        .failure = {ENOMEM}});
    }
    sweep(rows);
}
#endif
