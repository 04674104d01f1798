// tarn-idlgen: turns the type descriptions into the record header, one codec
// translation unit per family and the test metadata.
//
//   tarn-idlgen --header H --out-dir D [--meta M] [--descriptions T] [--types-per-unit N]
//               [--abi generic|i386|x86_64] [--reference R] [--sizes] FAMILY.idl...
//
// D receives <family>_codec.cc for every description and codec_bodies.h; with --types-per-unit a
// family of more than N types is split into <family>_codec.cc,
// <family>_codec_2.cc, ... of at most N types each (the build computes the
// same names from the descriptions); T receives the run-time type
// descriptions; R the field-by-field reference codecs for the tests. --abi
// names the memory layout of the build the codecs are compiled for (default
// generic: no block copies). Files are rewritten only when their
// content changes, so an unchanged family is not recompiled.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "idl_emit.h"
#include "idl_model.h"

namespace fs = std::filesystem;
using namespace tarn::idlgen;

namespace {

bool write_if_changed(const fs::path &path, const std::string &text)
{
    std::ifstream old(path, std::ios::binary);
    if (old) {
        std::ostringstream cur;
        cur << old.rdbuf();
        if (cur.str() == text) return true;
    }
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

int usage()
{
    std::cerr << "usage: tarn-idlgen --header H --out-dir D [--meta M] [--descriptions T] "
                 "[--types-per-unit N] [--abi generic|i386|x86_64] [--reference R] "
                 "[--sizes] FAMILY.idl...\n";
    return 2;
}

}  // namespace

int main(int argc, char **argv)
{
    fs::path header, out_dir, meta, descriptions, reference;
    Abi abi = Abi::Generic;
    bool sizes = false;
    std::size_t types_per_unit = 0;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "--header" || a == "--out-dir" || a == "--meta" || a == "--descriptions" ||
             a == "--reference") &&
            i + 1 < argc) {
            fs::path v = argv[++i];
            (a == "--header"         ? header
             : a == "--out-dir"      ? out_dir
             : a == "--meta"         ? meta
             : a == "--reference"    ? reference
                                     : descriptions) = v;
        } else if (a == "--abi" && i + 1 < argc) {
            std::optional<Abi> named = parse_abi(argv[++i]);
            if (!named) return usage();
            abi = *named;
        } else if (a == "--types-per-unit" && i + 1 < argc) {
            char *end = nullptr;
            unsigned long n = std::strtoul(argv[++i], &end, 10);
            if (!end || *end != '\0' || n == 0) return usage();
            types_per_unit = n;
        } else if (a == "--sizes") {
            sizes = true;
        } else if (!a.empty() && a[0] == '-') {
            return usage();
        } else {
            inputs.push_back(a);
        }
    }
    if (inputs.empty() || (!sizes && (header.empty() || out_dir.empty()))) return usage();

    Model model;
    std::vector<std::string> errors;
    for (const fs::path &in : inputs) {
        std::ifstream f(in, std::ios::binary);
        if (!f) {
            std::cerr << in.string() << ": cannot read\n";
            return 1;
        }
        std::ostringstream text;
        text << f.rdbuf();
        model.families.push_back(in.stem().string());
        parse_description(text.str(), in.stem().string(), in.string(), model, errors);
    }
    if (errors.empty()) check_model(model, errors);
    for (const std::string &e : errors) std::cerr << e << "\n";
    if (!errors.empty()) return 1;

    if (sizes) {
        std::cout << emit_size_report(model);
        if (header.empty()) return 0;
    }
    bool ok = write_if_changed(header, emit_header(model));
    ok = write_if_changed(out_dir / "codec_bodies.h", emit_bodies_header(model)) && ok;
    for (const std::string &fam : model.families) {
        std::size_t units = family_units(model, fam, types_per_unit);
        for (std::size_t u = 0; u < units; ++u) {
            std::string name = fam + "_codec" + (u ? "_" + std::to_string(u + 1) : "") + ".cc";
            ok = write_if_changed(out_dir / name, emit_family(model, fam, u, units, abi)) && ok;
        }
    }
    if (!meta.empty()) ok = write_if_changed(meta, emit_test_meta(model)) && ok;
    if (!reference.empty()) ok = write_if_changed(reference, emit_reference(model)) && ok;
    if (!descriptions.empty())
        ok = write_if_changed(descriptions, emit_descriptions(model)) && ok;
    if (!ok) {
        std::cerr << "tarn-idlgen: cannot write the output\n";
        return 1;
    }
    return 0;
}
