// The control path's commands: inspection, forced results and scripted
// faults on client connections.
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "server.h"
#include "wire.h"

namespace tarn::temu {

struct Commands {
    using Run = int (*)(Server &, std::istream &, std::string &);
    struct Entry {
        const char *name;
        const char *args;
        const char *help;
        Run run;
    };
    static const Entry kTable[];

    template <typename... T>
    static bool read_numbers(std::istream &in, T &...v)
    {
        return static_cast<bool>((in >> ... >> v));
    }
    // The connection a command names, or null.
    static Server::Conn *client(Server &s, std::istream &in, uint64_t &id)
    {
        if (!(in >> id)) return nullptr;
        auto it = s.conns_.find(id);
        return it == s.conns_.end() ? nullptr : &it->second;
    }

    static int help(Server &, std::istream &, std::string &out)
    {
        out = command_help();
        return 0;
    }
    static int dump(Server &s, std::istream &, std::string &out)
    {
        char line[160];
        for (const auto &[id, c] : s.conns_) {
            std::snprintf(line, sizeof line, "connection %" PRIu64 " queued %zu stalled %d\n", id,
                          c.queued, c.stalled ? 1 : 0);
            out += line;
        }
        out += s.daemon_.dump();
        s.log_.lines("state: ", out);
        return 0;
    }
    static int force(Server &s, std::istream &in, std::string &)
    {
        unsigned type = 0, code = 0, count = 1;
        if (!read_numbers(in, type, code) || type > 0xffff) return EINVAL;
        if (!in.eof() && !(in >> count)) return EINVAL;
        s.daemon_.force(static_cast<uint16_t>(type), code, count);
        return 0;
    }
    static int refuse(Server &s, std::istream &in, std::string &)
    {
        unsigned count = 1, code = wire::kDefaultRefusal;
        if (!in.eof() && !(in >> count)) return EINVAL;
        if (!in.eof() && !(in >> code)) return EINVAL;
        s.daemon_.refuse(code, count);
        return 0;
    }
    static int stall(Server &s, std::istream &in, std::string &)
    {
        uint64_t id = 0;
        Server::Conn *c = client(s, in, id);
        long ms = 0;
        if (c == nullptr || (!in.eof() && !(in >> ms)) || ms < 0) return EINVAL;
        c->stalled = true;
        c->stalled_until =
            ms == 0 ? 0
                    : std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now().time_since_epoch())
                              .count() +
                          ms;
        return 0;
    }
    static int resume(Server &s, std::istream &in, std::string &)
    {
        uint64_t id = 0;
        Server::Conn *c = client(s, in, id);
        if (c == nullptr) return EINVAL;
        c->stalled = false;
        return 0;
    }
    static int reset(Server &s, std::istream &in, std::string &)
    {
        uint64_t id = 0;
        if (client(s, in, id) == nullptr) return EINVAL;
        s.drop(id, "reset", true);
        return 0;
    }
    // A header promising 64 payload bytes, 8 of them, then the close.
    static int truncate(Server &s, std::istream &in, std::string &)
    {
        uint64_t id = 0;
        Server::Conn *c = client(s, in, id);
        unsigned type = wire::kRouteLookupReply;
        if (c == nullptr || (!in.eof() && !(in >> type)) || type > 0xffff) return EINVAL;
        std::vector<uint8_t> bytes = encode_frame(static_cast<uint16_t>(type), std::vector<uint8_t>(64));
        bytes.resize(wire::kHeaderLen + 8);
        s.enqueue(id, *c, {true, 0, std::move(bytes)});
        c->close_when_sent = true;
        return 0;
    }
    static int garbage(Server &s, std::istream &in, std::string &)
    {
        uint64_t id = 0;
        Server::Conn *c = client(s, in, id);
        std::string text;
        if (c == nullptr || !(in >> text) || text.empty() || text.size() % 2 != 0) return EINVAL;
        std::vector<uint8_t> bytes;
        for (size_t i = 0; i < text.size(); i += 2) {
            char *end = nullptr;
            const std::string pair = text.substr(i, 2);
            bytes.push_back(static_cast<uint8_t>(std::strtoul(pair.c_str(), &end, 16)));
            if (end != pair.c_str() + 2) return EINVAL;
        }
        s.enqueue(id, *c, {true, 0, std::move(bytes)});
        return 0;
    }
    static int shutdown(Server &s, std::istream &, std::string &)
    {
        s.shutdown_ = true;
        return 0;
    }
};

const Commands::Entry Commands::kTable[] = {
    {"help", "", "this list", help},
    {"dump", "",
     "connections, clients with their identification, protocols, routes per table, flash "
     "registrations, aliases and counters, one a line (also into the log)",
     dump},
    {"force", "TYPE CODE [N]",
     "answer the next N (1) requests of message type TYPE with result CODE, whatever they ask; "
     "they change nothing",
     force},
    {"refuse", "[N] [CODE]", "refuse the next N (1) connections with CODE (61), then close them",
     refuse},
    {"stall", "CLIENT [MS]",
     "stop reading the client's socket, until resume or for MS milliseconds", stall},
    {"resume", "CLIENT", "read the client's socket again", resume},
    {"reset", "CLIENT", "close the client's connection with a reset", reset},
    {"truncate", "CLIENT [TYPE]",
     "send a header of type TYPE (7) announcing 64 bytes, only 8 of them, then close", truncate},
    {"garbage", "CLIENT HEX", "send the bytes as they are", garbage},
    {"shutdown", "", "stop the emulator", shutdown},
};

std::string command_help()
{
    std::string out;
    for (const auto &c : Commands::kTable)
        out += std::string(c.name) + (*c.args ? " " : "") + c.args + "\n    " + c.help + "\n";
    return out;
}

namespace {

size_t count_words(const std::string &text)
{
    std::istringstream in(text);
    size_t n = 0;
    for (std::string w; in >> w;) ++n;
    return n;
}

}  // namespace

std::string Server::command(const std::string &line, int &err)
{
    // Trailing blanks (and a CR from a terminal) would read as an argument.
    const std::string text = line.substr(0, line.find_last_not_of(" \t\r") + 1);
    for (size_t i = 0; i < text.size(); ++i) {
        const auto b = static_cast<unsigned char>(text[i]);
        if ((b < 0x20 || b > 0x7e) && b != '\t') {
            char why[80];
            std::snprintf(why, sizeof why, "byte 0x%02x at offset %zu is not printable\n", b, i);
            err = EINVAL;
            return why;
        }
    }
    std::istringstream in(text);
    std::string verb, out;
    in >> verb;
    in >> std::ws;
    for (const auto &c : Commands::kTable)
        if (verb == c.name) {
            // Words beyond those the command takes are a mistake, not
            // something to ignore.
            if (count_words(text) > 1 + count_words(c.args)) {
                err = EINVAL;
                return verb + " takes at most " + std::to_string(count_words(c.args)) + " arguments\n";
            }
            err = c.run(*this, in, out);
            return out;
        }
    err = EOPNOTSUPP;
    return "unknown command; \"help\" lists them\n";
}

}  // namespace tarn::temu
