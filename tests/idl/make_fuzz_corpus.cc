// Writes the seed corpora of the codec fuzz targets, from random records
// encoded by the library's own encoders: for the envelope targets one message
// per member of rts_msg; for the per-type target one input per type and
// encoding (the type's name, a NUL, the mode byte, the body), so every type the
// generator knows is seeded.
//
//   idl_make_fuzz_corpus TLV_DIR IDR_DIR RECORDS_DIR
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include <tarn/idl.h>

#include "idl_test_support.h"

namespace fs = std::filesystem;
using namespace tarn::test;

namespace {

void write(const fs::path &p, const std::vector<uint8_t> &b)
{
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(b.data()), static_cast<std::streamsize>(b.size()));
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s TLV_DIR IDR_DIR RECORDS_DIR\n", argv[0]);
        return 2;
    }
    fs::path tlv_dir = argv[1], idr_dir = argv[2], records_dir = argv[3];
    fs::create_directories(tlv_dir);
    fs::create_directories(idr_dir);
    fs::create_directories(records_dir);
    std::mt19937 rng(2026);
    for (std::size_t i = 0; i < idlmeta::choice_member_count; ++i) {
        const idlmeta::ChoiceEntry &c = idlmeta::choice_members[i];
        const idlmeta::Type &t = idlmeta::types[c.type];
        Pool pool;
        RandomRecord r = random_record(t, rng, pool, true, 2);
        auto *hdr = static_cast<rts_hdr_t *>(r.rec);
        hdr->type = static_cast<uint8_t>(c.discriminant);
        rts_msg_t msg{c.discriminant, r.rec};
        rts_msg_map_t map{r.map};
        std::vector<uint8_t> b(tlv_encode_rts_msg_0(&msg, &map, nullptr, 0));
        tlv_encode_rts_msg_0(&msg, &map, b.data(), static_cast<uint32_t>(b.size()));
        write(tlv_dir / (std::string(t.name) + ".bin"), b);
        b.assign(idr_encode_rts_msg_0(&msg, nullptr, 0), 0);
        idr_encode_rts_msg_0(&msg, b.data(), static_cast<uint32_t>(b.size()));
        write(idr_dir / (std::string(t.name) + ".bin"), b);
    }
    // Nested arrays start deeper here so that the per-type seeds stay small.
    for (std::size_t i = 0; i < idlmeta::type_count; ++i) {
        const idlmeta::Type &t = idlmeta::types[i];
        std::vector<uint8_t> prefix(t.name, t.name + std::strlen(t.name) + 1);
        if (t.tlv_encode) {
            Pool pool;
            RandomRecord r = random_record(t, rng, pool, true, 3);
            std::vector<uint8_t> b = prefix;
            b.push_back(0);
            std::size_t at = b.size();
            b.resize(at + t.tlv_encode(r.rec, r.map, nullptr, 0));
            t.tlv_encode(r.rec, r.map, b.data() + at, static_cast<uint32_t>(b.size() - at));
            write(records_dir / (std::string(t.name) + ".tlv"), b);
        }
        if (t.idr_encode) {
            Pool pool;
            RandomRecord r = random_record(t, rng, pool, false, 3);
            std::vector<uint8_t> b = prefix;
            b.push_back(1);
            std::size_t at = b.size();
            b.resize(at + t.idr_encode(r.rec, nullptr, 0));
            t.idr_encode(r.rec, b.data() + at, static_cast<uint32_t>(b.size() - at));
            write(records_dir / (std::string(t.name) + ".idr"), b);
        }
    }
    return 0;
}
