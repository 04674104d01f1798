// The codec catalogue against what the library really exports: the shared
// library's dynamic symbol table (read straight from its ELF image, 32- or
// 64-bit) must hold every tlv_/idr_ function and size object that
// catalogue.txt implies and nothing else under those prefixes; the generated
// type list must name the same types with the same encodings.
#include <elf.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "idl_meta.h"

namespace tarn::test {
namespace {

struct Entry {
    bool tlv = false, idr = false, sizes = true;
};

std::map<std::string, Entry> read_catalogue()
{
    std::ifstream in(TARN_IDL_CATALOGUE);
    EXPECT_TRUE(in.good()) << TARN_IDL_CATALOGUE;
    std::map<std::string, Entry> out;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        std::string name, w;
        words >> name;
        Entry e;
        while (words >> w) {
            if (w == "tlv") e.tlv = true;
            else if (w == "idr") e.idr = true;
            else if (w == "no-sizes") e.sizes = false;
            else ADD_FAILURE() << "unknown word '" << w << "' for " << name;
        }
        EXPECT_TRUE(e.tlv || e.idr) << name;
        EXPECT_TRUE(out.emplace(name, e).second) << name << " listed twice";
    }
    return out;
}

enum class SymKind { Function, Object, Other };

struct Symbol {
    SymKind kind;
    uint64_t size;
};

template <class Ehdr, class Shdr, class Sym>
std::map<std::string, Symbol> dynamic_symbols(const std::vector<char> &image)
{
    std::map<std::string, Symbol> out;
    auto fits = [&](uint64_t off, uint64_t len) {
        return off <= image.size() && len <= image.size() - off;
    };
    Ehdr eh;
    if (!fits(0, sizeof eh)) return out;
    std::memcpy(&eh, image.data(), sizeof eh);
    if (eh.e_shentsize != sizeof(Shdr) || !fits(eh.e_shoff, uint64_t{eh.e_shnum} * sizeof(Shdr)))
        return out;
    std::vector<Shdr> sections(eh.e_shnum);
    std::memcpy(sections.data(), image.data() + eh.e_shoff, sections.size() * sizeof(Shdr));
    for (const Shdr &s : sections) {
        if (s.sh_type != SHT_DYNSYM || s.sh_link >= sections.size()) continue;
        const Shdr &strtab = sections[s.sh_link];
        if (!fits(s.sh_offset, s.sh_size) || !fits(strtab.sh_offset, strtab.sh_size)) continue;
        for (uint64_t at = 0; at + sizeof(Sym) <= s.sh_size; at += sizeof(Sym)) {
            Sym sym;
            std::memcpy(&sym, image.data() + s.sh_offset + at, sizeof sym);
            if (sym.st_shndx == SHN_UNDEF || sym.st_name >= strtab.sh_size) continue;
            const char *name = image.data() + strtab.sh_offset + sym.st_name;
            std::size_t len = strnlen(name, strtab.sh_size - sym.st_name);
            unsigned type = sym.st_info & 0xf;
            SymKind kind = type == STT_FUNC ? SymKind::Function
                           : type == STT_OBJECT ? SymKind::Object
                                                : SymKind::Other;
            out[std::string(name, len)] = {kind, sym.st_size};
        }
    }
    return out;
}

std::map<std::string, Symbol> library_symbols()
{
    std::ifstream in(TARN_SHARED_LIBRARY, std::ios::binary);
    EXPECT_TRUE(in.good()) << TARN_SHARED_LIBRARY;
    std::vector<char> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (image.size() < EI_NIDENT || std::memcmp(image.data(), ELFMAG, SELFMAG) != 0) {
        ADD_FAILURE() << "not an ELF image";
        return {};
    }
    if (image[EI_CLASS] == ELFCLASS32) return dynamic_symbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(image);
    return dynamic_symbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(image);
}

TEST(Catalogue, CountsPerEncoding)
{
    std::map<std::string, Entry> cat = read_catalogue();
    std::size_t tlv = 0, idr = 0, tlv_only = 0, idr_only = 0, sizeless = 0;
    for (const auto &[name, e] : cat) {
        tlv += e.tlv, idr += e.idr;
        tlv_only += e.tlv && !e.idr, idr_only += e.idr && !e.tlv;
        sizeless += !e.sizes;
    }
    EXPECT_EQ(cat.size(), 564u);
    EXPECT_EQ(tlv, 559u);
    EXPECT_EQ(idr, 476u);
    EXPECT_EQ(tlv_only, 88u);
    EXPECT_EQ(idr_only, 5u);
    EXPECT_EQ(sizeless, 1u);
    EXPECT_FALSE(cat.at("sockaddr_idl").sizes);
    EXPECT_TRUE(cat.count("_dfw_filter_head"));  // leading underscores are part of names
    EXPECT_TRUE(cat.count("vlan_map_"));
}

TEST(Catalogue, SharedLibraryExportsExactlyTheCodecs)
{
    std::map<std::string, Entry> cat = read_catalogue();
    std::map<std::string, SymKind> expected;
    for (const auto &[n, e] : cat) {
        for (const char *enc : {"tlv", "idr"}) {
            if (!(std::strcmp(enc, "tlv") == 0 ? e.tlv : e.idr)) continue;
            for (const char *op : {"encode", "decode", "release"})
                expected[std::string(enc) + "_" + op + "_" + n + "_0"] = SymKind::Function;
            if (!e.sizes) continue;
            expected[std::string(enc) + "_rtti_sizeof_" + n + "_0"] = SymKind::Object;
            if (std::strcmp(enc, "tlv") == 0)
                expected["tlv_rtti_sizeof_map_" + n + "_0"] = SymKind::Object;
        }
    }
    EXPECT_EQ(expected.size(), 559u * 5 + 476u * 4 - 3);  // sockaddr_idl: 3 objects fewer

    std::map<std::string, Symbol> syms = library_symbols();
    std::size_t seen = 0;
    for (const auto &[name, sym] : syms) {
        if (name.rfind("tlv_", 0) != 0 && name.rfind("idr_", 0) != 0) continue;
        ++seen;
        auto it = expected.find(name);
        if (it == expected.end()) {
            ADD_FAILURE() << "exported but not in the catalogue: " << name;
            continue;
        }
        EXPECT_TRUE(sym.kind == it->second) << name << " has the wrong symbol type";
        if (it->second == SymKind::Object) {
            EXPECT_EQ(sym.size, 4u) << name;
        }
    }
    for (const auto &[name, kind] : expected)
        EXPECT_TRUE(syms.count(name)) << "in the catalogue but not exported: " << name;
    EXPECT_EQ(seen, expected.size());
}

TEST(Catalogue, GeneratedTypesMatch)
{
    std::map<std::string, Entry> cat = read_catalogue();
    std::set<std::string> generated;
    for (std::size_t i = 0; i < idlmeta::type_count; ++i) {
        const idlmeta::Type &t = idlmeta::types[i];
        generated.insert(t.name);
        auto it = cat.find(t.name);
        if (it == cat.end()) {
            ADD_FAILURE() << "generated but not in the catalogue: " << t.name;
            continue;
        }
        EXPECT_EQ(t.tlv_encode != nullptr, it->second.tlv) << t.name;
        EXPECT_EQ(t.idr_encode != nullptr, it->second.idr) << t.name;
        EXPECT_EQ(t.tlv_sizeof != nullptr, it->second.tlv && it->second.sizes) << t.name;
        EXPECT_EQ(t.idr_sizeof != nullptr, it->second.idr && it->second.sizes) << t.name;
    }
    // The envelope is a choice, not a record: the only catalogue entry the
    // record list lacks.
    for (const auto &[name, e] : cat)
        if (name != "rts_msg") {
            EXPECT_TRUE(generated.count(name)) << "not generated: " << name;
        }
    EXPECT_EQ(generated.size(), cat.size() - 1);
}

}  // namespace
}  // namespace tarn::test
