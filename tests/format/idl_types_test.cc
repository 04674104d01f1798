// The run-time descriptions against the generator's test metadata (offsets
// taken by the compiler), and the lookups.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <tarn/idl_records.h>
#include <tarn/idl_types.h>
#include <tarn/rtsock_wire.h>

#include "idl_meta.h"

namespace meta = tarn::test::idlmeta;

namespace {

TEST(IdlTypes, EveryTypeAndFieldIsDescribed)
{
    ASSERT_EQ(tarn_idl_type_count(), meta::type_count);
    for (std::size_t i = 0; i < meta::type_count; ++i) {
        const meta::Type &want = meta::types[i];
        const tarn_idl_type *t = tarn_idl_type_by_name(want.name);
        ASSERT_NE(t, nullptr) << want.name;
        EXPECT_EQ(t, tarn_idl_type_at(static_cast<uint32_t>(i)));
        EXPECT_STREQ(tarn_idl_type_name(t), want.name);
        EXPECT_EQ(tarn_idl_type_size(t), want.size) << want.name;
        ASSERT_EQ(tarn_idl_type_field_count(t), want.field_count) << want.name;
        for (uint32_t k = 0; k < want.field_count; ++k) {
            const meta::Field &wf = want.fields[k];
            tarn_idl_field f;
            ASSERT_EQ(tarn_idl_type_field(t, k, &f), 0);
            SCOPED_TRACE(std::string(want.name) + "." + wf.name);
            EXPECT_STREQ(f.name, wf.name);
            EXPECT_EQ(f.kind, static_cast<uint32_t>(wf.kind));
            EXPECT_EQ(f.offset, wf.offset);
            EXPECT_EQ(f.count_offset, wf.count_offset);
            EXPECT_EQ(f.tag, wf.tag);
            EXPECT_EQ(f.type, wf.sub < 0 ? nullptr : tarn_idl_type_at(static_cast<uint32_t>(wf.sub)));
            if (wf.kind == meta::FieldKind::Record) {
                EXPECT_EQ(f.size, meta::types[wf.sub].size);
            } else if (wf.kind == meta::FieldKind::U64) {
                EXPECT_EQ(f.size, 8u);
            }
        }
    }
    EXPECT_EQ(tarn_idl_type_at(static_cast<uint32_t>(meta::type_count)), nullptr);
}

TEST(IdlTypes, MessageTypesMapToTheEnvelopeMembers)
{
    std::size_t members = 0;
    for (std::size_t i = 0; i < meta::choice_member_count; ++i) {
        const meta::ChoiceEntry &c = meta::choice_members[i];
        if (std::strcmp(c.choice, "rts_msg") != 0) continue;
        ++members;
        EXPECT_EQ(tarn_idl_type_for_msg(c.discriminant),
                  tarn_idl_type_at(static_cast<uint32_t>(c.type)))
            << c.discriminant;
    }
    std::size_t found = 0;
    for (uint32_t t = 0; t < 300; ++t) found += tarn_idl_type_for_msg(t) != nullptr;
    EXPECT_EQ(found, members);
    EXPECT_EQ(tarn_idl_type_for_msg(RTS_MSG_IFDEV), tarn_idl_type_by_name("ifdev_msg"));
    EXPECT_EQ(tarn_idl_type_for_msg(RTS_MSG_RTSTATS), nullptr);
}

TEST(IdlTypes, BadArguments)
{
    const tarn_idl_type *t = tarn_idl_type_by_name("rts_hdr");
    ASSERT_NE(t, nullptr);
    tarn_idl_field f;
    EXPECT_EQ(tarn_idl_type_field(t, tarn_idl_type_field_count(t), &f), EINVAL);
    EXPECT_EQ(tarn_idl_type_field(nullptr, 0, &f), EINVAL);
    EXPECT_EQ(tarn_idl_type_field(t, 0, nullptr), EINVAL);
    for (const char *name : {"", "rts_hd", "rts_hdrx", "zzz", "aaa"})
        EXPECT_EQ(tarn_idl_type_by_name(name), nullptr) << name;
    EXPECT_EQ(tarn_idl_type_by_name(nullptr), nullptr);
    EXPECT_EQ(tarn_idl_type_name(nullptr), nullptr);
    EXPECT_EQ(tarn_idl_type_size(nullptr), 0u);
}

}  // namespace

namespace {

// A compact rendering through the walker: what a JSON printer would see.
int render(void *ctx, int event, const tarn_idl_value *v)
{
    auto &out = *static_cast<std::string *>(ctx);
    if (event == TARN_IDL_VISIT_VALUE) {
        out += std::string(v->field->name) + "=";
        out += v->field->kind == TARN_IDL_KIND_BYTES
                   ? "[" + std::string(reinterpret_cast<const char *>(v->bytes), v->length) + "]"
                   : std::to_string(v->scalar);
        out += " ";
    } else if (event == TARN_IDL_VISIT_BEGIN) {
        out += v->element ? "#" + std::to_string(v->index) + (v->record ? "{" : "null{")
                          : std::string(v->field->name) +
                                (v->field->kind == TARN_IDL_KIND_ARRAY
                                     ? "(" + std::to_string(v->count) + "){"
                                     : "{");
    } else {
        out += "} ";
    }
    return 0;
}

TEST(IdlTypes, WalkVisitsNestedRecordsArraysAndBytes)
{
    gencfg_depinfo_t dep{};
    dep.dep_type = 9;
    dep.value1 = 300;
    uint8_t data[] = {'a', 'b'};
    dep.data = data;
    dep.data_len = 2;
    gencfg_depinfo_t *deps[] = {&dep, nullptr};
    gencfg_msg_t m{};
    m.hdr.type = 72;
    m.hdr.seq = 5;
    m.major_type = 2;
    m.deps = deps;
    m.deps_count = 2;
    m.gen_id = 0xffffffffu;
    std::string out;
    ASSERT_EQ(tarn_idl_walk(tarn_idl_type_by_name("gencfg_msg"), &m, render, &out), 0);
    EXPECT_EQ(out,
              "hdr{msg_magic=0 version=0 type=72 op=0 op_flags=0 msglen=0 seq=5 error=0 hdrlen=0 "
              "subtype=0 info(0){} } major_type=2 minor_type=0 value3=0 value4=0 flags=0 blob=[] "
              "key=[] deps(2){#0{value0=0 dep_type=9 value1=300 value2=0 dep_flags=0 "
              "dep_object_id=0 dep_generation=0 data=[ab] } #1null{} } peers(0){} extra_value=0 "
              "ifd_info(0){} peer_capacity=0 gen_id=4294967295 ");

    // A visitor's non-zero result stops the walk at once.
    int calls = 0;
    auto stop_third = [](void *ctx, int, const tarn_idl_value *) {
        return ++*static_cast<int *>(ctx) == 3 ? 7 : 0;
    };
    EXPECT_EQ(tarn_idl_walk(tarn_idl_type_by_name("gencfg_msg"), &m, stop_third, &calls), 7);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(tarn_idl_walk(nullptr, &m, render, &out), EINVAL);
    EXPECT_EQ(tarn_idl_walk(tarn_idl_type_by_name("gencfg_msg"), nullptr, render, &out), EINVAL);
}

}  // namespace
