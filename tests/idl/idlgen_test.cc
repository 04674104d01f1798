// The generator on its own: descriptions in, diagnostics, target layouts and
// the shape of the emitted code out.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "idl_emit.h"
#include "idl_model.h"

namespace tarn::idlgen {
namespace {

using testing::HasSubstr;
using testing::Not;

Model parse_ok(const std::string &text, const std::string &family = "fam")
{
    Model m;
    std::vector<std::string> errors;
    parse_description(text, family, family + ".idl", m, errors);
    check_model(m, errors);
    EXPECT_TRUE(errors.empty()) << (errors.empty() ? "" : errors[0]);
    return m;
}

std::vector<std::string> errors_of(const std::string &text)
{
    Model m;
    std::vector<std::string> errors;
    parse_description(text, "fam", "fam.idl", m, errors);
    if (errors.empty()) check_model(m, errors);
    return errors;
}

const char *kHeaderLike = R"(
# comment
type info
  u8 tos 1
end
type hdr
  u32 magic 1
  u8 version 2
  u8 type 3
  u8 op 4
  u8 flags 5
  u32 len 6
  u32 seq 7
  u32 origin 8
  u16 hdrlen 9
  u8 subtype 10
  array info infos 11
end
type base
  record hdr hdr 1
end
)";

TEST(IdlGen, TargetLayoutOfAHeaderWithAnArray)
{
    Model m = parse_ok(kHeaderLike);
    Layout l = target_layout(m, *m.find("hdr"));
    EXPECT_EQ(l.size, 32u);
    EXPECT_EQ(l.map_size, 8u);
    EXPECT_EQ(l.offsets, (std::vector<uint32_t>{0, 4, 5, 6, 7, 8, 12, 16, 20, 22, 24}));
    Layout b = target_layout(m, *m.find("base"));
    EXPECT_EQ(b.size, 32u);
    EXPECT_EQ(b.map_size, 12u);
    Layout i = target_layout(m, *m.find("info"));
    EXPECT_EQ(i.size, 1u);
    EXPECT_EQ(i.map_size, 4u);
}

TEST(IdlGen, SixtyFourBitScalarsAlignToFourOnTheTarget)
{
    Model m = parse_ok("type t\n  u8 a 1\n  u64 b 2\nend\n");
    Layout l = target_layout(m, m.types[0]);
    EXPECT_EQ(l.offsets, (std::vector<uint32_t>{0, 4}));
    EXPECT_EQ(l.size, 12u);
}

TEST(IdlGen, EmittedFunctionsAreStraightLineRuntimeCalls)
{
    Model m = parse_ok(kHeaderLike);
    std::string src = emit_family(m, "fam");
    // TLV encoders test the map's bits a group of eight fields at a time.
    EXPECT_THAT(src, HasSubstr("    const uint32_t b = m ? m->bits : ~0u;\n    if (b & 0xffu) {\n"));
    EXPECT_THAT(src, HasSubstr("        if (b & (1u << 1)) e.u8(1, 2, r->version);\n"));
    EXPECT_THAT(src, HasSubstr("    }\n    if (b & 0x700u) {\n"));
    EXPECT_THAT(src, HasSubstr("        if (b & (1u << 10)) e.array(10, 11, r->infos, r->infos_count, "
                               "m ? m->infos : nullptr, &tlv_put_info);\n"));
    EXPECT_THAT(src, HasSubstr("    if (b & (1u << 0)) e.record(0, 1, r->hdr, m ? &m->hdr : nullptr, &tlv_put_hdr);\n"));
    // TLV decoders go from a field straight to the next field's case.
    EXPECT_THAT(src, HasSubstr("        case 9:\n        f8:\n            d.u16(8, &r->hdrlen);\n"
                               "            more = d.next();\n"
                               "            if (more && d.tag() == 10) goto f9;\n            continue;\n"));
    EXPECT_THAT(src, HasSubstr("    e.count(idl::live_count(r->infos, r->infos_count));\n    e.end_fixed();\n"
                               "    e.array(r->infos, r->infos_count, &idr_put_info);\n"));
    EXPECT_THAT(src, HasSubstr("    d.each(&r->infos, r->infos_count, &idr_get_info);\n"));
    EXPECT_THAT(src, HasSubstr("    d.nest(&r->hdr, &idr_get_hdr);\n"));
    EXPECT_THAT(emit_bodies_header(m), HasSubstr("uint32_t idr_put_hdr(const hdr_t *, void *, uint32_t);\n"));
    // Exported decoders clear the record once; the bodies they call, and
    // those of nested records, fill it.
    EXPECT_THAT(src, HasSubstr("    *r = base_t{};\n    if (m) *m = base_map_t{};\n"
                               "    return tlv_fill_base(r, m, in, in_len, alloc, ctx);\n"));
    EXPECT_THAT(src, HasSubstr("{\n    idl::TlvDecoder d(in, in_len, m ? &m->bits : nullptr, alloc, ctx);\n"));
    EXPECT_THAT(src, HasSubstr("    *r = base_t{};\n    idl::IdrDecoder d(in, in_len, alloc, ctx);\n"
                               "    idr_get_base(d, r);\n"));
    EXPECT_THAT(src, HasSubstr("    d.count(&r->infos_count);\n    d.end_fixed();\n"));
    // Types without pointers release nothing.
    EXPECT_THAT(src, HasSubstr("void tlv_release_info_0(info_t *r, info_map_t *m, tarn_idl_free_fn f, void *c)\n"
                               "{\n    (void)r;\n"));
    EXPECT_THAT(src, HasSubstr("static_assert(sizeof(hdr_t) == 32 && sizeof(hdr_map_t) == 8"));
    EXPECT_THAT(src, Not(HasSubstr("for (")));
}

TEST(IdlGen, HeaderDeclaresRecordsMapsAndBits)
{
    Model m = parse_ok(kHeaderLike);
    std::string h = emit_header(m);
    EXPECT_THAT(h, HasSubstr("for codec runtime version 1"));
    EXPECT_THAT(h, HasSubstr("struct hdr_s {\n    uint32_t magic; /* tag 1 */\n"));
    EXPECT_THAT(h, HasSubstr("    info_t **infos;\n    uint32_t infos_count; /* tag 11 */\n"));
    EXPECT_THAT(h, HasSubstr("struct base_map_s {\n    uint32_t bits;\n    hdr_map_t hdr;\n};"));
    EXPECT_THAT(h, HasSubstr("HDR_BIT_INFOS = 10\n"));
    EXPECT_THAT(h, HasSubstr("TARN_API uint32_t idr_encode_hdr_0(const hdr_t *rec, void *out, uint32_t out_len);"));
    // Nested records are defined before their users.
    EXPECT_LT(h.find("struct info_s {"), h.find("struct hdr_s {"));
    EXPECT_LT(h.find("struct hdr_s {"), h.find("struct base_s {"));
}

TEST(IdlGen, OutputIsReproducible)
{
    Model a = parse_ok(kHeaderLike), b = parse_ok(kHeaderLike);
    EXPECT_EQ(emit_header(a), emit_header(b));
    EXPECT_EQ(emit_family(a, "fam"), emit_family(b, "fam"));
    EXPECT_EQ(emit_test_meta(a), emit_test_meta(b));
}

TEST(IdlGen, EncodingSetsAndChoices)
{
    Model m = parse_ok(std::string(kHeaderLike) +
                       "type only_tlv tlv-only\n  u8 a 1\nend\n"
                       "choice msg header hdr limit 4\n  0 base\nend\n");
    std::string src = emit_family(m, "fam");
    EXPECT_THAT(src, HasSubstr("tlv_encode_only_tlv_0"));
    EXPECT_THAT(src, Not(HasSubstr("idr_encode_only_tlv_0")));
    EXPECT_THAT(src, HasSubstr("const idl::ChoiceMember *const msg_members[4] = {\n"
                               "    &idl::choice_member<base_t, base_map_t,"));
    EXPECT_THAT(src, HasSubstr("    nullptr,\n    nullptr,\n    nullptr,\n};"));
    std::string h = emit_header(m);
    EXPECT_THAT(h, HasSubstr("typedef struct msg_s {\n    uint32_t type;\n    void *member;\n} msg_t;"));
}

// "no-sizes" drops the exported size objects and nothing else; it combines
// with an encoding set in either order.
TEST(IdlGen, TypesWithoutSizeObjects)
{
    Model m = parse_ok(std::string(kHeaderLike) +
                       "type bare no-sizes\n  u32 a 1\nend\n"
                       "type bare_tlv no-sizes tlv-only\n  u8 a 1\nend\n"
                       "type sized_tlv tlv-only\n  u8 a 1\nend\n");
    ASSERT_EQ(m.types.size(), 6u);
    EXPECT_FALSE(m.types[3].sizes);
    EXPECT_TRUE(m.types[3].tlv && m.types[3].idr);
    EXPECT_FALSE(m.types[4].sizes);
    EXPECT_TRUE(m.types[4].tlv && !m.types[4].idr);
    EXPECT_TRUE(m.types[5].sizes);
    for (const std::string &text : {emit_family(m, "fam"), emit_header(m), emit_test_meta(m)}) {
        EXPECT_THAT(text, Not(HasSubstr("rtti_sizeof_bare_0")));
        EXPECT_THAT(text, Not(HasSubstr("rtti_sizeof_map_bare_0")));
        EXPECT_THAT(text, Not(HasSubstr("rtti_sizeof_bare_tlv_0")));
        EXPECT_THAT(text, Not(HasSubstr("rtti_sizeof_map_bare_tlv_0")));
    }
    std::string src = emit_family(m, "fam");
    EXPECT_THAT(src, HasSubstr("uint32_t tlv_encode_bare_0("));
    EXPECT_THAT(src, HasSubstr("uint32_t idr_encode_bare_0("));
    EXPECT_THAT(src, HasSubstr("void tlv_release_bare_tlv_0("));
    EXPECT_THAT(src, HasSubstr("const uint32_t tlv_rtti_sizeof_sized_tlv_0 = sizeof(sized_tlv_t);\n"));
    EXPECT_THAT(src, HasSubstr("const uint32_t tlv_rtti_sizeof_map_hdr_0 = sizeof(hdr_map_t);\n"));
    EXPECT_THAT(src, HasSubstr("const uint32_t idr_rtti_sizeof_hdr_0 = sizeof(hdr_t);\n"));
    // The test metadata hands the tests null size pointers for such a type.
    std::string meta = emit_test_meta(m);
    EXPECT_THAT(meta, HasSubstr("\"bare\", \"fam\""));
    EXPECT_THAT(meta, HasSubstr("     nullptr, nullptr,\n     [](const void *r, void *out, uint32_t len) "
                                "{ return idr_encode_bare_0("));
}

// A large family is split into translation units of contiguous runs of its
// types; every type's codecs and sizes land in exactly one unit, the choice
// table in the first.
TEST(IdlGen, LargeFamiliesSplitIntoUnits)
{
    std::string text = std::string(kHeaderLike) + "choice msg header hdr limit 2\n  0 base\nend\n";
    for (int i = 1; i <= 4; ++i)
        text += "type extra" + std::to_string(i) + "\n  u32 v 1\nend\n";
    Model m = parse_ok(text);  // 7 types: info hdr base extra1..extra4
    EXPECT_EQ(family_units(m, "fam", 0), 1u);
    EXPECT_EQ(family_units(m, "fam", 7), 1u);
    EXPECT_EQ(family_units(m, "fam", 3), 3u);
    EXPECT_EQ(family_units(m, "fam", 4), 2u);
    EXPECT_EQ(family_units(m, "other", 4), 1u);
    std::vector<std::string> units;
    for (std::size_t u = 0; u < 2; ++u) units.push_back(emit_family(m, "fam", u, 2));
    const char *first[] = {"info", "hdr", "base", "extra1"}, *second[] = {"extra2", "extra3", "extra4"};
    for (const char *n : first) {
        EXPECT_THAT(units[0], HasSubstr(std::string("uint32_t tlv_encode_") + n + "_0("));
        EXPECT_THAT(units[0], HasSubstr(std::string("const uint32_t idr_rtti_sizeof_") + n + "_0"));
        EXPECT_THAT(units[1], Not(HasSubstr(std::string("_") + n + "_0(")));
    }
    for (const char *n : second) {
        EXPECT_THAT(units[1], HasSubstr(std::string("int32_t idr_decode_") + n + "_0("));
        EXPECT_THAT(units[1], HasSubstr(std::string("static_assert(sizeof(") + n + "_t) == 4"));
        EXPECT_THAT(units[0], Not(HasSubstr(std::string("_") + n + "_0(")));
    }
    EXPECT_THAT(units[0], HasSubstr("msg_members[2]"));
    EXPECT_THAT(units[0], HasSubstr("const uint32_t tlv_rtti_sizeof_msg_0"));
    EXPECT_THAT(units[1], Not(HasSubstr("msg_")));
    EXPECT_THAT(units[1], HasSubstr("codecs of family fam, part 2 of 2"));
    // Unsplit, the one unit is what the two hold together.
    std::string whole = emit_family(m, "fam");
    for (const char *n : {"info", "extra4"})
        EXPECT_THAT(whole, HasSubstr(std::string("void idr_release_") + n + "_0("));
}

struct BadCase {
    const char *text;
    const char *message;
};

TEST(IdlGen, DiagnosesBadDescriptions)
{
    std::string many = "type big\n";
    for (int i = 1; i <= 33; ++i) many += "  u8 f" + std::to_string(i) + " " + std::to_string(i) + "\n";
    many += "end\n";
    const BadCase cases[] = {
        {many.c_str(), "has 33 fields; a record has at most 32"},
        {"type t\n  u8 a 1\n  u8 b 1\nend\n", "tag 1 used twice"},
        {"type t\n  u8 a 1\n  u16 a 2\nend\n", "field a defined twice"},
        {"type t\n  record nope x 1\nend\n", "unknown type nope"},
        {"type t\n  record t self 1\nend\n", "nests itself"},
        {"type t\n  u8 a 1\n", "missing 'end'"},
        {"type t\n  u9 a 1\nend\n", "unknown field kind 'u9'"},
        {"type t\n  u8 a x\nend\n", "bad tag 'x'"},
        {"type t\nend\n", "has no fields"},
        {"type t\n  bytes s6_addr 1\nend\n", "field name 's6_addr' is a macro of the system headers"},
        {"type t tlv-only\n  u8 a 1\nend\ntype u\n  record t x 1\nend\n", "lacks an encoding"},
        {"type h\n  u8 a 1\nend\ntype m\n  u8 a 1\nend\nchoice c header h limit 2\n  1 m\nend\n",
         "does not begin with a h record"},
        {"type h\n  u8 a 1\nend\nchoice c header h limit 2\n  2 h\nend\n", "not below the choice's limit"},
        {"type t no-sizes no-sizes\n  u8 a 1\nend\n", "unknown or repeated type option 'no-sizes'"},
        {"type t tlv-only idr-only\n  u8 a 1\nend\n", "unknown or repeated type option 'idr-only'"},
        {"type t sizeless\n  u8 a 1\nend\n", "unknown or repeated type option 'sizeless'"},
        {"type h\n  u8 a 1\nend\ntype m no-sizes\n  record h x 1\nend\nchoice c header h limit 2\n  1 m\nend\n",
         "member m has no size objects"},
    };
    for (const BadCase &c : cases) {
        std::vector<std::string> errors = errors_of(c.text);
        ASSERT_FALSE(errors.empty()) << c.message;
        EXPECT_THAT(errors[0], HasSubstr(c.message));
    }
    EXPECT_THAT(errors_of("type t\n  u9 a 1\nend\n")[0], HasSubstr("fam.idl:2: "));
}

// Hostile input must not drive the decoders' recursion: no type may reach
// itself, through records or arrays.
TEST(IdlGen, RecursionThroughArraysIsRefused)
{
    std::vector<std::string> e = errors_of("type node\n  u32 v 1\n  array node kids 2\nend\n");
    ASSERT_FALSE(e.empty());
    EXPECT_THAT(e[0], HasSubstr("node nests itself"));
    e = errors_of("type a\n  array b bs 1\nend\ntype b\n  record a x 1\nend\n");
    ASSERT_FALSE(e.empty());
    EXPECT_THAT(e[0], HasSubstr("nests itself"));
}

}  // namespace
}  // namespace tarn::idlgen
