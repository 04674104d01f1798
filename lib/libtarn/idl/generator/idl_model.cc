#include "idl_model.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <set>
#include <sstream>

namespace tarn::idlgen {
namespace {

std::vector<std::string> split_words(const std::string &line)
{
    std::string body = line.substr(0, line.find('#'));
    std::istringstream in(body);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

bool is_identifier(const std::string &s)
{
    if (s.empty() || !(std::isalpha(static_cast<unsigned char>(s[0])) || s[0] == '_')) return false;
    return std::all_of(s.begin(), s.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
    });
}

// Lower-case object-like macros of the system headers a daemon includes
// beside ours (socket, address, interface, route, netdb, ifaddrs, signal,
// stat and stdio headers of glibc and the BSDs, and the compilers' own): a
// record field of one of these names would be rewritten by the preprocessor
// in any file that includes that header first.
bool is_system_macro(const std::string &s)
{
    static const std::set<std::string> names = {
        "errno", "h_addr", "h_errno", "i386", "ifa_broadaddr", "ifa_dstaddr", "ifc_buf",
        "ifc_req", "ifr_addr", "ifr_bandwidth", "ifr_broadaddr", "ifr_buffer", "ifr_curcap",
        "ifr_data", "ifr_dstaddr", "ifr_fib", "ifr_flags", "ifr_flagshigh", "ifr_hwaddr",
        "ifr_ifindex", "ifr_index", "ifr_lan_pcp", "ifr_map", "ifr_media", "ifr_metric",
        "ifr_mtu", "ifr_name", "ifr_netmask", "ifr_newname", "ifr_phys", "ifr_qlen",
        "ifr_reqcap", "ifr_slave", "ifr_vlan_pcp", "linux", "rt_mss", "s6_addr", "s6_addr16",
        "s6_addr32", "s6_addr8", "sa_handler", "sa_sigaction", "si_addr", "si_addr_lsb",
        "si_arch", "si_band", "si_call_addr", "si_fd", "si_int", "si_lower", "si_overrun",
        "si_pid", "si_pkey", "si_ptr", "si_status", "si_stime", "si_syscall", "si_timerid",
        "si_uid", "si_upper", "si_utime", "si_value", "sigev_notify_attributes",
        "sigev_notify_function", "st_atime", "st_birthtime", "st_ctime", "st_mtime", "stderr",
        "stdin", "stdout", "sun", "unix",
    };
    return names.count(s) != 0;
}

std::optional<uint32_t> parse_number(const std::string &s)
{
    if (s.empty() || s.size() > 10) return std::nullopt;
    if (!std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    uint64_t v = std::stoull(s);
    if (v > UINT32_MAX) return std::nullopt;
    return static_cast<uint32_t>(v);
}

std::optional<Kind> scalar_kind(const std::string &w)
{
    if (w == "u8") return Kind::U8;
    if (w == "u16") return Kind::U16;
    if (w == "u32") return Kind::U32;
    if (w == "u64") return Kind::U64;
    if (w == "bytes") return Kind::Bytes;
    return std::nullopt;
}

}  // namespace

const char *kind_name(Kind k)
{
    switch (k) {
    case Kind::U8: return "u8";
    case Kind::U16: return "u16";
    case Kind::U32: return "u32";
    case Kind::U64: return "u64";
    case Kind::Bytes: return "bytes";
    case Kind::Record: return "record";
    case Kind::Array: return "array";
    }
    return "?";
}

const Type *Model::find(const std::string &name) const
{
    for (const Type &t : types)
        if (t.name == name) return &t;
    return nullptr;
}

void parse_description(const std::string &text, const std::string &family,
                       const std::string &file, Model &model, std::vector<std::string> &errors)
{
    std::istringstream in(text);
    std::string line;
    int lineno = 0;
    Type *open_type = nullptr;
    Choice *open_choice = nullptr;
    auto error = [&](const std::string &msg) {
        errors.push_back(file + ":" + std::to_string(lineno) + ": " + msg);
    };
    while (std::getline(in, line)) {
        ++lineno;
        std::vector<std::string> w = split_words(line);
        if (w.empty()) continue;
        if (w[0] == "end") {
            if (!open_type && !open_choice) error("'end' without 'type' or 'choice'");
            open_type = nullptr;
            open_choice = nullptr;
            continue;
        }
        if (open_choice) {
            auto disc = parse_number(w[0]);
            if (w.size() != 2 || !disc || !is_identifier(w[1])) {
                error("choice member must be '<discriminant> <type>'");
                continue;
            }
            if (*disc >= open_choice->limit)
                error("discriminant " + w[0] + " is not below the choice's limit");
            else if (!open_choice->members.emplace(*disc, w[1]).second)
                error("discriminant " + w[0] + " listed twice");
            continue;
        }
        if (open_type) {
            Field f;
            f.line = lineno;
            std::size_t tag_at;
            if (auto k = scalar_kind(w[0])) {
                f.kind = *k;
                if (w.size() != 3) {
                    error("field must be '<kind> <name> <tag>'");
                    continue;
                }
                f.name = w[1];
                tag_at = 2;
            } else if (w[0] == "record" || w[0] == "array") {
                f.kind = w[0] == "record" ? Kind::Record : Kind::Array;
                if (w.size() != 4 || !is_identifier(w[1])) {
                    error("field must be '" + w[0] + " <type> <name> <tag>'");
                    continue;
                }
                f.type = w[1];
                f.name = w[2];
                tag_at = 3;
            } else {
                error("unknown field kind '" + w[0] + "'");
                continue;
            }
            if (!is_identifier(f.name)) {
                error("bad field name '" + f.name + "'");
                continue;
            }
            if (is_system_macro(f.name)) {
                error("field name '" + f.name + "' is a macro of the system headers");
                continue;
            }
            auto tag = parse_number(w[tag_at]);
            if (!tag) {
                error("bad tag '" + w[tag_at] + "'");
                continue;
            }
            f.tag = *tag;
            open_type->fields.push_back(f);
            continue;
        }
        if (w[0] == "type") {
            if (w.size() < 2 || w.size() > 4 || !is_identifier(w[1])) {
                error("expected 'type <name> [tlv-only|idr-only] [no-sizes]'");
                continue;
            }
            Type t;
            t.name = w[1];
            t.family = family;
            t.line = lineno;
            bool encodings_given = false;
            for (std::size_t i = 2; i < w.size(); ++i) {
                if ((w[i] == "tlv-only" || w[i] == "idr-only") && !encodings_given) {
                    encodings_given = true;
                    (w[i] == "tlv-only" ? t.idr : t.tlv) = false;
                } else if (w[i] == "no-sizes" && t.sizes) {
                    t.sizes = false;
                } else {
                    error("unknown or repeated type option '" + w[i] + "'");
                }
            }
            model.types.push_back(t);
            open_type = &model.types.back();
            continue;
        }
        if (w[0] == "choice") {
            auto limit = w.size() == 6 ? parse_number(w[5]) : std::nullopt;
            if (w.size() != 6 || w[2] != "header" || w[4] != "limit" || !is_identifier(w[1]) ||
                !is_identifier(w[3]) || !limit || *limit == 0) {
                error("expected 'choice <name> header <type> limit <count>'");
                continue;
            }
            Choice c;
            c.name = w[1];
            c.family = family;
            c.header = w[3];
            c.limit = *limit;
            model.choices.push_back(c);
            open_choice = &model.choices.back();
            continue;
        }
        error("unexpected '" + w[0] + "'");
    }
    if (open_type || open_choice) error("missing 'end'");
}

void check_model(const Model &model, std::vector<std::string> &errors)
{
    std::set<std::string> names;
    for (const Type &t : model.types) {
        auto where = t.family + ": type " + t.name + ": ";
        if (!names.insert(t.name).second) errors.push_back(where + "defined twice");
        if (t.fields.empty()) errors.push_back(where + "has no fields");
        if (t.fields.size() > kMaxFields)
            errors.push_back(where + "has " + std::to_string(t.fields.size()) +
                             " fields; a record has at most 32 (one presence word)");
        std::set<uint32_t> tags;
        std::set<std::string> fnames;
        for (const Field &f : t.fields) {
            if (!tags.insert(f.tag).second)
                errors.push_back(where + "tag " + std::to_string(f.tag) + " used twice");
            if (!fnames.insert(f.name).second)
                errors.push_back(where + "field " + f.name + " defined twice");
            if (f.kind == Kind::Record || f.kind == Kind::Array) {
                const Type *sub = model.find(f.type);
                if (!sub) {
                    errors.push_back(where + "field " + f.name + ": unknown type " + f.type);
                    continue;
                }
                if ((t.tlv && !sub->tlv) || (t.idr && !sub->idr))
                    errors.push_back(where + "field " + f.name + ": " + f.type +
                                     " lacks an encoding that " + t.name + " has");
            }
        }
    }
    for (const Choice &c : model.choices) {
        if (names.count(c.name)) errors.push_back("choice " + c.name + " clashes with a type");
        for (const auto &[disc, member] : c.members) {
            const Type *m = model.find(member);
            if (!m) {
                errors.push_back("choice " + c.name + ": unknown member " + member);
                continue;
            }
            if (m->fields.empty() || m->fields[0].kind != Kind::Record ||
                m->fields[0].type != c.header)
                errors.push_back("choice " + c.name + ": member " + member +
                                 " does not begin with a " + c.header + " record");
            if (!m->tlv || !m->idr)
                errors.push_back("choice " + c.name + ": member " + member +
                                 " needs both encodings");
            // The envelope sizes a member's allocation from its exported size.
            if (!m->sizes)
                errors.push_back("choice " + c.name + ": member " + member +
                                 " has no size objects");
        }
    }
    // Records nest by value, so a cycle through record fields cannot be laid
    // out; a cycle through arrays could, but would let hostile input drive the
    // decoders' recursion as deep as it likes, so the type graph stays acyclic
    // and its depth bounds the recursion.
    std::map<std::string, int> state;
    std::function<void(const Type &)> visit = [&](const Type &t) {
        state[t.name] = 1;
        for (const Field &f : t.fields) {
            if (f.kind != Kind::Record && f.kind != Kind::Array) continue;
            const Type *sub = model.find(f.type);
            if (!sub) continue;
            if (state[sub->name] == 1)
                errors.push_back("type " + t.name + ": " + sub->name + " nests itself");
            else if (state[sub->name] == 0)
                visit(*sub);
        }
        state[t.name] = 2;
    };
    for (const Type &t : model.types)
        if (state[t.name] == 0) visit(t);
}

Layout target_layout(const Model &model, const Type &type)
{
    Layout l;
    uint32_t off = 0;
    uint32_t map_off = 4;  // the presence word
    for (const Field &f : type.fields) {
        uint32_t size = 0, align = 1;
        switch (f.kind) {
        case Kind::U8: size = align = 1; break;
        case Kind::U16: size = align = 2; break;
        case Kind::U32: size = align = 4; break;
        case Kind::U64: size = 8, align = 4; break;
        case Kind::Bytes:
        case Kind::Array:
            size = 8, align = 4;
            if (f.kind == Kind::Array) map_off += 4;
            break;
        case Kind::Record: {
            Layout sub = target_layout(model, *model.find(f.type));
            size = sub.size, align = sub.align;
            map_off += sub.map_size;
            break;
        }
        }
        off = (off + align - 1) / align * align;
        l.offsets.push_back(off);
        off += size;
        l.align = std::max(l.align, align);
    }
    l.size = (off + l.align - 1) / l.align * l.align;
    l.map_size = map_off;
    return l;
}

std::optional<Abi> parse_abi(const std::string &name)
{
    if (name == "generic") return Abi::Generic;
    if (name == "i386") return Abi::I386;
    if (name == "x86_64") return Abi::X86_64;
    return std::nullopt;
}

MemoryLayout memory_layout(const Model &model, const Type &type, Abi abi)
{
    // i386 aligns 64-bit members to 4 inside structures; x86-64 to 8.
    const uint32_t ptr = abi == Abi::X86_64 ? 8 : 4;
    const uint32_t u64_align = abi == Abi::X86_64 ? 8 : 4;
    MemoryLayout l;
    uint32_t off = 0;
    auto place = [&](uint32_t size, uint32_t align) {
        off = (off + align - 1) / align * align;
        uint32_t at = off;
        off += size;
        l.align = std::max(l.align, align);
        return at;
    };
    for (const Field &f : type.fields) {
        switch (f.kind) {
        case Kind::U8: l.offsets.push_back(place(1, 1)); break;
        case Kind::U16: l.offsets.push_back(place(2, 2)); break;
        case Kind::U32: l.offsets.push_back(place(4, 4)); break;
        case Kind::U64: l.offsets.push_back(place(8, u64_align)); break;
        case Kind::Bytes:
        case Kind::Array:
            l.offsets.push_back(place(ptr, ptr));
            place(4, 4);  // the count member
            break;
        case Kind::Record: {
            MemoryLayout sub = memory_layout(model, *model.find(f.type), abi);
            l.offsets.push_back(place(sub.size, sub.align));
            break;
        }
        }
    }
    l.size = (off + l.align - 1) / l.align * l.align;
    return l;
}

std::vector<const Type *> dependency_order(const Model &model)
{
    std::vector<const Type *> out;
    std::set<std::string> done;
    std::function<void(const Type &)> visit = [&](const Type &t) {
        if (done.count(t.name)) return;
        done.insert(t.name);
        for (const Field &f : t.fields)
            if (f.kind == Kind::Record)
                if (const Type *sub = model.find(f.type)) visit(*sub);
        out.push_back(&t);
    };
    for (const Type &t : model.types) visit(t);
    return out;
}

}  // namespace tarn::idlgen
