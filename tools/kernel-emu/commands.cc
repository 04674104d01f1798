// The control path's commands: inspection, scripted faults and changes made
// behind the clients' backs.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <tarn/rtslib_route.h>

#include "kernel.h"

namespace tarn::kemu {
namespace {

// Blob bytes gencfg-show prints: a control answer holds far less than the
// largest blob.
constexpr size_t kShownBlobBytes = 256;

// "-" stands for no bytes.
bool parse_hex(const std::string &text, std::vector<uint8_t> &out)
{
    out.clear();
    if (text == "-") return true;
    if (text.empty() || text.size() % 2 != 0) return false;
    for (size_t i = 0; i < text.size(); i += 2) {
        const std::string pair = text.substr(i, 2);
        char *end = nullptr;
        const unsigned long byte = std::strtoul(pair.c_str(), &end, 16);
        if (end != pair.c_str() + 2) return false;
        out.push_back(static_cast<uint8_t>(byte));
    }
    return true;
}

template <size_t N>
std::string hex(const std::array<uint8_t, N> &bytes)
{
    std::string s;
    char b[3];
    for (uint8_t v : bytes) {
        std::snprintf(b, sizeof b, "%02x", v);
        s += b;
    }
    return s;
}

// Reads numbers in order; false unless all of them are there.
template <typename... T>
bool read_numbers(std::istream &in, T &...v)
{
    return static_cast<bool>((in >> ... >> v));
}

std::string printable(const std::string &name)
{
    std::string s = name;
    if (!s.empty() && s[0] == '\0') s[0] = '@';
    return s;
}

std::string state_text(const Socket &s)
{
    const SocketState &st = s.state;
    char buf[1024];
    std::snprintf(buf, sizeof buf,
                  "socket %" PRIu64 "\nname %s\nsender-id %u\nlr-id %u\nlisten-mask 0x%016" PRIx64
                  "\nasync-mode 0x%x\nslave-mode %u\nmaster-mode %u\nlocal-slave-mode %u\n"
                  "kernel-seq %u\nqueued %zu\nqueue-bound %zu\ndropped %" PRIu64 "\npaused %d\n",
                  st.id, printable(st.name).c_str(), st.sender_id, st.lr_id, st.listen_mask,
                  st.async_mode, st.slave_mode, st.master_mode, st.local_slave_mode, st.kernel_seq,
                  s.queue.size(), s.queue.bound, s.queue.dropped, s.queue.paused ? 1 : 0);
    return buf + ("subtypes " + hex(st.subtypes) + "\nfilters " + hex(st.filters) + "\n");
}

}  // namespace

struct Commands {
    using Run = int (*)(Kernel &, Socket *, std::istream &, std::string &);
    struct Entry {
        const char *name;
        const char *args;
        bool needs_socket;
        const char *help;
        Run run;
    };
    static const Entry kTable[];

    // A change made through the control path goes to listeners as TLV,
    // with no requester to answer.
    template <typename Record, typename Apply>
    static void change(Kernel &k, Record &req, Apply apply)
    {
        Emission out(k.sockets_, k.log_, 0, Encoding::kTlv);
        (k.routing_.*apply)(req, out);
        k.post(out.take());
    }

    static int help(Kernel &, Socket *, std::istream &, std::string &out)
    {
        out = command_help();
        return 0;
    }
    static int dump(Kernel &k, Socket *, std::istream &, std::string &out)
    {
        out = k.routing_.dump() + k.interfaces_.dump() + k.gencfg_.dump();
        return 0;
    }
    // "device-add em2", "address-delete em0.0 192.0.2.1/24", ...: the
    // --interfaces line after the verb's first word.
    static int if_change(Kernel &k, std::istream &in, const char *kind, bool remove,
                         std::string &out)
    {
        std::vector<std::string> words{kind};
        for (std::string w; in >> w;) words.push_back(w);
        IfChange c;
        if (!parse_if_change(words, remove, c, out)) {
            out += "\n";
            return EINVAL;
        }
        Emission e(k.sockets_, k.log_, 0, Encoding::kTlv);
        const int rc = k.interfaces_.apply(c, e);
        k.post(e.take());
        return rc;
    }
#define TARN_IF_COMMAND(fn, kind, remove)                                            \
    static int fn(Kernel &k, Socket *, std::istream &in, std::string &out)            \
    {                                                                                 \
        return if_change(k, in, kind, remove, out);                                   \
    }
    TARN_IF_COMMAND(device_add, "device", false)
    TARN_IF_COMMAND(device_delete, "device", true)
    TARN_IF_COMMAND(logical_add, "logical", false)
    TARN_IF_COMMAND(logical_delete, "logical", true)
    TARN_IF_COMMAND(address_add, "address", false)
    TARN_IF_COMMAND(address_delete, "address", true)
    TARN_IF_COMMAND(unnumbered_add, "unnumbered", false)
    TARN_IF_COMMAND(unnumbered_delete, "unnumbered", true)
#undef TARN_IF_COMMAND
    // "traffic em0.0 [inet] IN_PKTS OUT_PKTS IN_BYTES OUT_BYTES".
    static int traffic(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        std::string name, word;
        if (!(in >> name >> word)) return EINVAL;
        uint8_t af = 0;
        std::istringstream rest;
        if (word == "inet" || word == "inet6") {
            af = word == "inet" ? TARN_AF_INET : TARN_AF_INET6;
        } else {
            rest.str(word);
        }
        Counters c;
        std::istream &first = af != 0 ? in : rest;
        if (!(first >> c.in_packets)) return EINVAL;
        if (!read_numbers(in, c.out_packets, c.in_bytes, c.out_bytes)) return EINVAL;
        return k.interfaces_.add_traffic(name, af, c);
    }
    static int ifs_max_clients(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        uint32_t n = 0;
        if (!read_numbers(in, n)) return EINVAL;
        k.ifs_max_clients_ = n;
        return 0;
    }
    static int count(Kernel &k, Socket *, std::istream &, std::string &out)
    {
        out = "routes " + std::to_string(k.routing_.route_count()) + "\n";
        return 0;
    }
    static int sockets(Kernel &k, Socket *, std::istream &, std::string &out)
    {
        char line[256];
        for (const auto &[id, s] : k.sockets_) {
            std::snprintf(line, sizeof line,
                          "socket %" PRIu64 " listen-mask 0x%016" PRIx64
                          " kernel-seq %u queued %zu dropped %" PRIu64 "\n",
                          id, s.state.listen_mask, s.state.kernel_seq, s.queue.size(),
                          s.queue.dropped);
            out += line;
        }
        return 0;
    }
    static int state(Kernel &, Socket *s, std::istream &, std::string &out)
    {
        out = state_text(*s);
        return 0;
    }
    static int drop_replies(Kernel &, Socket *s, std::istream &in, std::string &)
    {
        return read_numbers(in, s->state.drop_replies) ? 0 : EINVAL;
    }
    static int queue_bound(Kernel &, Socket *s, std::istream &in, std::string &)
    {
        return read_numbers(in, s->queue.bound) ? 0 : EINVAL;
    }
    static int pause(Kernel &, Socket *s, std::istream &, std::string &)
    {
        s->queue.paused = true;
        return 0;
    }
    static int resume(Kernel &, Socket *s, std::istream &, std::string &)
    {
        s->queue.paused = false;
        return 0;
    }
    static int inject(Kernel &k, Socket *s, std::istream &in, std::string &)
    {
        std::string text;
        std::vector<uint8_t> bytes;
        if (!(in >> text) || !parse_hex(text, bytes) || bytes.empty()) return EINVAL;
        k.post({{s->state.id, std::move(bytes), false}});
        return 0;
    }
    static int notify(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        std::string text;
        std::vector<uint8_t> bytes;
        if (!(in >> text) || !parse_hex(text, bytes)) return EINVAL;
        Emission out(k.sockets_, k.log_, 0, Encoding::kTlv);
        if (!out.notify_bytes(bytes)) return EINVAL;
        k.post(out.take());
        return 0;
    }
    // "TID AF HEX BITS": the table and the prefix (or group) a change names.
    struct Target {
        unsigned tid = 0, af = 0, bits = 0;
        std::vector<uint8_t> bytes;
        bool read(std::istream &in)
        {
            std::string text;
            return (in >> tid >> af >> text >> bits) && parse_hex(text, bytes);
        }
        uint8_t *data() { return bytes.empty() ? nullptr : bytes.data(); }
        uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }
    };
    static rts_hdr_t header(uint8_t version, uint8_t type, uint8_t op)
    {
        rts_hdr_t h{};
        h.version = version;
        h.type = type;
        h.op = op;
        return h;
    }
    static int route_change(Kernel &k, std::istream &in, uint8_t op)
    {
        Target at;
        unsigned nh = 0, nhidx = 0;
        if (!at.read(in) || (op == RTS_OP_ADD && !read_numbers(in, nh, nhidx))) return EINVAL;
        rt_msg_t req{};
        req.hdr = header(RTS_ROUTE_VERSION, RTS_MSG_ROUTE, op);
        req.tid = static_cast<uint16_t>(at.tid);
        req.af = static_cast<uint8_t>(at.af);
        req.plen = static_cast<uint16_t>(at.bits);
        req.prefix = at.data();
        req.prefix_len = at.size();
        req.nh = static_cast<uint8_t>(nh);
        req.nhidx = nhidx;
        const size_t before = k.routing_.route_count();
        change(k, req, &Routing::route_request);
        if (k.routing_.route_count() != before) return 0;
        return op == RTS_OP_ADD ? EEXIST : ENOENT;
    }
    static int route_add(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        return route_change(k, in, RTS_OP_ADD);
    }
    static int route_delete(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        return route_change(k, in, RTS_OP_DELETE);
    }
    static int mgroup_change(Kernel &k, std::istream &in, uint8_t op)
    {
        Target at;
        unsigned iif = 0;
        PrefixKey key;
        if (!at.read(in) || (op == RTS_OP_ADD && !read_numbers(in, iif)) ||
            !make_prefix_key(at.data(), at.size(), static_cast<uint16_t>(at.bits), key))
            return EINVAL;
        mgr_msg_t req{};
        req.hdr = header(RTS_MGROUP_VERSION, RTS_MSG_MGROUP, op);
        req.tid = static_cast<uint16_t>(at.tid);
        req.af = static_cast<uint8_t>(at.af);
        req.grp_plen = static_cast<uint16_t>(at.bits);
        req.group = at.data();
        req.group_len = at.size();
        req.iif_index = iif;
        change(k, req, &Routing::mgroup_request);
        return 0;
    }
    static int mgroup_add(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        return mgroup_change(k, in, RTS_OP_ADD);
    }
    static int mgroup_delete(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        return mgroup_change(k, in, RTS_OP_DELETE);
    }
    // "MAJOR MINOR KEYHEX": the object a gencfg command names.
    static bool read_gencfg_key(std::istream &in, GencfgKey &key)
    {
        unsigned major = 0, minor = 0;
        std::string text;
        if (!(in >> major >> minor >> text) || major > 0xffff || minor > 0xffff ||
            !parse_hex(text, key.key))
            return false;
        key.major = static_cast<uint16_t>(major);
        key.minor = static_cast<uint16_t>(minor);
        return true;
    }
    static int gencfg_list(Kernel &k, Socket *, std::istream &, std::string &out)
    {
        out = k.gencfg_.dump();
        return 0;
    }
    static int gencfg_show(Kernel &k, Socket *, std::istream &in, std::string &out)
    {
        GencfgKey key;
        if (!read_gencfg_key(in, key)) return EINVAL;
        return k.gencfg_.show(key, kShownBlobBytes, out) ? 0 : ENOENT;
    }
    static int gencfg_change(Kernel &k, std::istream &in, uint8_t op)
    {
        GencfgKey key;
        std::vector<uint8_t> blob;
        std::string text;
        unsigned long flags = 0;
        if (!read_gencfg_key(in, key)) return EINVAL;
        if (op == RTS_OP_ADD) {
            if (!(in >> text) || !parse_hex(text, blob) || blob.size() >= kGencfgMaxBlob)
                return EINVAL;
            if (in >> text) {
                char *end = nullptr;
                flags = std::strtoul(text.c_str(), &end, 0);
                if (*end != '\0' || flags > 0xffffffffUL) return EINVAL;
            }
        }
        const bool present = k.gencfg_.find(key) != nullptr;
        if (op == RTS_OP_ADD && present) return EEXIST;
        if (op == RTS_OP_DELETE && !present) return ENOENT;
        gencfg_msg_t req{};
        req.hdr = header(kGencfgVersion, RTS_MSG_GENCFG, op);
        req.major_type = key.major;
        req.minor_type = key.minor;
        // Lists and the extra value cannot be given here; their flags would
        // promise what the object does not carry.
        req.flags = static_cast<uint32_t>(flags) & ~(kGencfgFlagDeps | kGencfgFlagExtra);
        if (!key.key.empty()) req.flags |= kGencfgFlagKey;
        req.key = key.key.data();
        req.key_len = static_cast<uint32_t>(key.key.size());
        req.blob = blob.data();
        req.blob_len = static_cast<uint32_t>(blob.size());
        Emission out(k.sockets_, k.log_, 0, Encoding::kTlv);
        k.gencfg_.request(req, out);
        k.post(out.take());
        return 0;
    }
    static int gencfg_add(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        return gencfg_change(k, in, RTS_OP_ADD);
    }
    static int gencfg_delete(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        return gencfg_change(k, in, RTS_OP_DELETE);
    }
    static int table_add(Kernel &k, Socket *, std::istream &in, std::string &)
    {
        unsigned tid = 0, af = 0;
        std::string name;
        if (!(in >> tid >> af >> name)) return EINVAL;
        std::vector<uint8_t> name_z(name.begin(), name.end());
        name_z.push_back(0);
        static const uint8_t kNoLr[] = "null";
        rtb_msg_t req{};
        req.hdr = header(RTS_RTTABLE_VERSION, RTS_MSG_RTTABLE, RTS_OP_ADD);
        req.tid = static_cast<uint16_t>(tid);
        req.af = static_cast<uint8_t>(af);
        req.name = name_z.data();
        req.name_len = static_cast<uint32_t>(name_z.size());
        req.lr_name = const_cast<uint8_t *>(kNoLr);
        req.lr_name_len = sizeof kNoLr;
        if (k.routing_.has_table(req.tid, req.af)) return EEXIST;
        change(k, req, &Routing::table_request);
        return 0;
    }
};

const Commands::Entry Commands::kTable[] = {
    {"help", "", false, "this list", help},
    {"dump", "", false,
     "route tables, routes, multicast groups, interfaces (with families and addresses) and "
     "configuration objects, one a line",
     dump},
    {"count", "", false, "the number of routes", count},
    {"sockets", "", false, "every routing socket with its listen mask, sequence and queue", sockets},
    {"state", "", true,
     "the socket's options, sequence counter, queue and drop count, one \"name value\" a line",
     state},
    {"drop-replies", "N", true, "drop the socket's next N answers", drop_replies},
    {"queue-bound", "N", true,
     "notifications beyond N waiting messages are dropped and counted", queue_bound},
    {"pause", "", true, "stop sending to the socket (a stalled reader); its queue fills", pause},
    {"resume", "", true, "send to the socket again", resume},
    {"inject", "HEX", true, "queue the bytes on the socket as one message, as they are", inject},
    {"notify", "HEX", false,
     "send the message to every socket listening for its type, raw ones with each socket's "
     "sequence number",
     notify},
    {"route-add", "TID AF HEX PLEN NH NHIDX", false, "add a route and notify listeners",
     route_add},
    {"route-delete", "TID AF HEX PLEN", false, "delete a route and notify listeners",
     route_delete},
    {"mgroup-add", "TID AF HEX BITS IIF", false, "add a multicast group and notify listeners",
     mgroup_add},
    {"mgroup-delete", "TID AF HEX BITS", false,
     "delete a multicast group and notify listeners", mgroup_delete},
    {"table-add", "TID AF NAME", false, "add a route table and notify listeners", table_add},
    {"device-add", "NAME", false, "add an interface device (em2) and notify listeners",
     device_add},
    {"device-delete", "NAME", false,
     "delete a device with its logical interfaces, families and addresses, notifying listeners",
     device_delete},
    {"logical-add", "NAME.UNIT", false, "add a logical interface and notify listeners",
     logical_add},
    {"logical-delete", "NAME.UNIT", false,
     "delete a logical interface with its families and addresses, notifying listeners",
     logical_delete},
    {"address-add", "NAME.UNIT ADDRESS/PLEN", false,
     "add an IPv4 or IPv6 address (and its family when new) and notify listeners", address_add},
    {"address-delete", "NAME.UNIT ADDRESS/PLEN", false, "delete an address and notify listeners",
     address_delete},
    {"unnumbered-add", "NAME.UNIT DONOR.UNIT [inet|inet6]", false,
     "make the interface's family unnumbered, borrowing the donor's address", unnumbered_add},
    {"unnumbered-delete", "NAME.UNIT DONOR.UNIT [inet|inet6]", false,
     "remove the unnumbered family", unnumbered_delete},
    {"traffic", "NAME [inet|inet6] IN_PKTS OUT_PKTS IN_BYTES OUT_BYTES", false,
     "count traffic on a device, or on a logical interface (and its device, and the family "
     "when named); the statistics requests answer it",
     traffic},
    {"ifs-max-clients", "N", false, "set the sysctl hw.product.ifs_max_clients",
     ifs_max_clients},
    {"gencfg-list", "", false,
     "configuration objects, one a line: major, minor, key, flags, blob length, list sizes",
     gencfg_list},
    {"gencfg-show", "MAJOR MINOR KEYHEX", false,
     "one configuration object, one \"name value\" a line (blob bytes cut after 256)",
     gencfg_show},
    {"gencfg-add", "MAJOR MINOR KEYHEX BLOBHEX [FLAGS]", false,
     "add a configuration object and notify listeners (0x20000 in FLAGS: the blob is "
     "compressed)",
     gencfg_add},
    {"gencfg-delete", "MAJOR MINOR KEYHEX", false,
     "delete a configuration object and notify listeners", gencfg_delete},
};

std::string command_help()
{
    std::string out;
    for (const auto &c : Commands::kTable) {
        std::string head = std::string(c.name) + (*c.args ? " " : "") + c.args;
        if (c.needs_socket) head += " (socket)";
        out += head + "\n    " + c.help + "\n";
    }
    return out;
}

namespace {

// The longest command line taken: the largest argument (a hex blob) fits
// well below it, and anything beyond is a runaway script, not a command.
constexpr size_t kMaxCommandLen = 4096;

size_t count_words(const std::string &text)
{
    std::istringstream in(text);
    size_t n = 0;
    for (std::string w; in >> w;) ++n;
    return n;
}

// Why a command line is refused before any command sees it; empty when it
// is well formed: bounded, printable, and no more words than its verb takes.
std::string malformed(const std::string &text, const char *verb, const char *args)
{
    char why[128];
    if (text.size() > kMaxCommandLen) {
        std::snprintf(why, sizeof why, "command of %zu bytes is longer than %zu", text.size(),
                      kMaxCommandLen);
        return why;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const auto b = static_cast<unsigned char>(text[i]);
        if ((b < 0x20 || b > 0x7e) && b != '\t' && b != '\n' && b != '\r') {
            std::snprintf(why, sizeof why, "byte 0x%02x at offset %zu is not printable", b, i);
            return why;
        }
    }
    if (verb != nullptr && count_words(text) > 1 + count_words(args)) {
        std::snprintf(why, sizeof why, "%s takes at most %zu arguments", verb, count_words(args));
        return why;
    }
    return {};
}

}  // namespace

int Kernel::command(uint64_t id, const std::string &text, std::string &out)
{
    std::istringstream in(text.size() > kMaxCommandLen ? std::string() : text);
    std::string verb;
    in >> verb;
    const Commands::Entry *entry = nullptr;
    for (const auto &c : Commands::kTable)
        if (verb == c.name) entry = &c;
    const std::string why = malformed(text, entry ? entry->name : nullptr, entry ? entry->args : "");
    if (!why.empty()) {
        log_.line("command refused: %s", why.c_str());
        out = why + "\n";
        return text.size() > kMaxCommandLen ? E2BIG : EINVAL;
    }
    if (entry == nullptr) return EOPNOTSUPP;
    Socket *s = socket(id);
    if (entry->needs_socket && s == nullptr) return EINVAL;
    return entry->run(*this, s, in, out);
}

}  // namespace tarn::kemu
