#include "gencfg.h"

#include <cstdio>

#include <tarn/rtsock_wire.h>

namespace tarn::kemu {
namespace {

constexpr uint32_t kErrNoEntry = 2;   // ENOENT
constexpr uint32_t kErrExists = 17;   // EEXIST
constexpr uint32_t kErrInvalid = 22;  // EINVAL
constexpr uint32_t kErrNoSpace = 28;  // ENOSPC
// What the library's lists can hold: more is a garbled request.
constexpr uint32_t kMaxPeers = 64;
constexpr uint32_t kMaxDeps = 40;

std::string hex(const std::vector<uint8_t> &bytes, size_t limit = SIZE_MAX)
{
    if (bytes.empty()) return "-";
    std::string s;
    char b[3];
    for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
        std::snprintf(b, sizeof b, "%02x", bytes[i]);
        s += b;
    }
    if (bytes.size() > limit) s += "...";
    return s;
}

bool answered(uint8_t op)
{
    return op == RTS_OP_GET || op == RTS_OP_GETNEXT || op == RTS_OP_ADD_ACK ||
           op == kGencfgOpChangeGet;
}

GencfgKey key_of(const gencfg_msg_t &req)
{
    GencfgKey k{req.major_type, req.minor_type, {}};
    if ((req.flags & kGencfgFlagKey) != 0 && req.key != nullptr)
        k.key.assign(req.key, req.key + req.key_len);
    return k;
}

GencfgObject object_of(const gencfg_msg_t &req)
{
    GencfgObject o;
    o.value3 = req.value3;
    o.value4 = req.value4;
    o.flags = req.flags;
    o.extra_value = req.extra_value;
    o.gen_id = req.gen_id;
    o.peer_capacity = req.peer_capacity;
    if (req.blob != nullptr) o.blob.assign(req.blob, req.blob + req.blob_len);
    for (uint32_t i = 0; req.deps != nullptr && i < req.deps_count; ++i) {
        if (req.deps[i] == nullptr) continue;
        GencfgDep d;
        d.fields = *req.deps[i];
        d.fields.data = nullptr;
        if (req.deps[i]->data != nullptr)
            d.data.assign(req.deps[i]->data, req.deps[i]->data + req.deps[i]->data_len);
        d.fields.data_len = static_cast<uint32_t>(d.data.size());
        o.deps.push_back(std::move(d));
    }
    for (uint32_t i = 0; req.peers != nullptr && i < req.peers_count; ++i)
        if (req.peers[i] != nullptr) o.peers.push_back(*req.peers[i]);
    for (uint32_t i = 0; req.ifd_info != nullptr && i < req.ifd_info_count; ++i)
        if (req.ifd_info[i] != nullptr) o.ifd_info.push_back(*req.ifd_info[i]);
    return o;
}

// A message pointing into a stored object, with the TLV presence maps of
// everything it carries; valid while the object and this value live.
struct OutMessage {
    gencfg_msg_t msg{};
    gencfg_msg_map_t map{};
    std::vector<gencfg_depinfo_t> deps;
    std::vector<gencfg_depinfo_t *> dep_ptrs;
    std::vector<gencfg_depinfo_map_t> dep_maps;
    std::vector<gencfg_peerinfo_t> peers;
    std::vector<gencfg_peerinfo_t *> peer_ptrs;
    std::vector<gencfg_peerinfo_map_t> peer_maps;
    std::vector<gencfg_type_ifd_t> ifds;
    std::vector<gencfg_type_ifd_t *> ifd_ptrs;
    std::vector<gencfg_type_ifd_map_t> ifd_maps;
    std::vector<uint8_t> key;

    OutMessage(const GencfgKey &k, const GencfgObject &o, const rts_hdr_t &hdr)
        : deps(o.deps.size()), dep_maps(o.deps.size()), peers(o.peers), peer_maps(o.peers.size()),
          ifds(o.ifd_info), ifd_maps(o.ifd_info.size()), key(k.key)
    {
        msg.hdr = hdr;
        msg.hdr.info = nullptr;
        msg.hdr.info_count = 0;
        msg.hdr.version = kGencfgVersion;
        msg.hdr.type = RTS_MSG_GENCFG;
        msg.major_type = k.major;
        msg.minor_type = k.minor;
        msg.value3 = o.value3;
        msg.value4 = o.value4;
        msg.flags = o.flags;
        msg.extra_value = o.extra_value;
        msg.gen_id = o.gen_id;
        msg.peer_capacity = o.peer_capacity;
        msg.blob = const_cast<uint8_t *>(o.blob.data());
        msg.blob_len = static_cast<uint32_t>(o.blob.size());
        msg.key = key.data();
        msg.key_len = static_cast<uint32_t>(key.size());
        for (size_t i = 0; i < deps.size(); ++i) {
            deps[i] = o.deps[i].fields;
            deps[i].data = const_cast<uint8_t *>(o.deps[i].data.data());
            dep_maps[i].bits = (1u << (GENCFG_DEPINFO_BIT_DATA + 1)) - 1;
            dep_ptrs.push_back(&deps[i]);
        }
        for (size_t i = 0; i < peers.size(); ++i) {
            peer_maps[i].bits = (1u << (GENCFG_PEERINFO_BIT_PEER + 1)) - 1;
            peer_maps[i].peer.bits = (1u << (GENCFG_PEER_INDEX_TYPE_BIT_WORD3 + 1)) - 1;
            peer_ptrs.push_back(&peers[i]);
        }
        for (size_t i = 0; i < ifds.size(); ++i) {
            ifd_maps[i].bits = (1u << (GENCFG_TYPE_IFD_BIT_PEER_INDEX + 1)) - 1;
            ifd_ptrs.push_back(&ifds[i]);
        }
        msg.deps = dep_ptrs.data();
        msg.deps_count = static_cast<uint32_t>(deps.size());
        msg.peers = peer_ptrs.data();
        msg.peers_count = static_cast<uint32_t>(peers.size());
        msg.ifd_info = ifd_ptrs.data();
        msg.ifd_info_count = static_cast<uint32_t>(ifds.size());
        map.bits = (1u << (GENCFG_MSG_BIT_GEN_ID + 1)) - 1;
        map.hdr.bits = (1u << RTS_HDR_BIT_INFO) - 1;
        map.deps = dep_maps.data();
        map.peers = peer_maps.data();
        map.ifd_info = ifd_maps.data();
    }
    OutMessage(const OutMessage &) = delete;
};

}  // namespace

uint32_t Gencfg::check(const gencfg_msg_t &req)
{
    const uint8_t op = req.hdr.op;
    if (req.blob_len >= kGencfgMaxBlob) return kErrNoSpace;
    // A key flag with no key bytes only makes sense for a walk from the start.
    if ((req.flags & kGencfgFlagKey) != 0 && (req.key == nullptr || req.key_len == 0) &&
        op != RTS_OP_GETNEXT)
        return kErrInvalid;
    if ((req.flags & kGencfgFlagDeps) != 0 && req.deps_count == 0) return kErrInvalid;
    if (req.deps_count > kMaxDeps || req.peers_count > kMaxPeers) return kErrInvalid;
    return 0;
}

const GencfgObject *Gencfg::find(const GencfgKey &key) const
{
    auto it = objects_.find(key);
    return it == objects_.end() ? nullptr : &it->second;
}

void Gencfg::emit(const GencfgKey &key, const GencfgObject &obj, const rts_hdr_t &hdr,
                  uint32_t error, Emission &out, bool notification)
{
    OutMessage m(key, obj, hdr);
    m.msg.hdr.error = error;
    if (notification)
        out.notify(&m.msg, &m.map);
    else
        out.answer(&m.msg, &m.map);
}

void Gencfg::request(const gencfg_msg_t &req, Emission &out)
{
    const uint8_t op = req.hdr.op;
    GencfgKey key = key_of(req);
    // Refusals echo the request's identity with nothing else.
    auto refuse = [&](uint32_t error) {
        if (!answered(op)) return;
        GencfgObject echo;
        echo.flags = req.flags & kGencfgFlagKey;
        emit(key, echo, req.hdr, error, out, false);
    };
    if (const uint32_t error = check(req); error != 0) return refuse(error);

    auto it = objects_.find(key);
    switch (op) {
    case RTS_OP_ADD:
    case RTS_OP_ADD_ACK: {
        if (it != objects_.end()) return refuse(kErrExists);
        it = objects_.emplace(key, object_of(req)).first;
        break;
    }
    case RTS_OP_CHANGE:
    case kGencfgOpChangeGet:
        if (it == objects_.end()) return refuse(kErrNoEntry);
        it->second = object_of(req);
        break;
    case RTS_OP_DELETE: {
        if (it == objects_.end()) return;
        rts_hdr_t hdr = req.hdr;
        hdr.op = RTS_OP_DELETE;
        const GencfgObject gone = std::move(it->second);
        objects_.erase(it);
        emit(key, gone, hdr, 0, out, true);
        return;
    }
    case RTS_OP_GET:
        if (it == objects_.end()) return refuse(kErrNoEntry);
        return emit(it->first, it->second, req.hdr, 0, out, false);
    case RTS_OP_GETNEXT: {
        // Without a key the walk starts at the minor type's first object.
        auto next = key.key.empty() && (req.flags & kGencfgFlagKey) == 0 ? objects_.lower_bound(key)
                                                                        : objects_.upper_bound(key);
        if (next == objects_.end() || next->first.major != key.major) return refuse(kErrNoEntry);
        return emit(next->first, next->second, req.hdr, 0, out, false);
    }
    default: return;
    }
    // An add or change was stored: the answer first when asked for, then
    // the listeners.
    if (answered(op)) emit(it->first, it->second, req.hdr, 0, out, false);
    rts_hdr_t hdr = req.hdr;
    hdr.op = op == RTS_OP_ADD || op == RTS_OP_ADD_ACK ? RTS_OP_ADD : RTS_OP_CHANGE;
    emit(it->first, it->second, hdr, 0, out, true);
}

std::string Gencfg::dump() const
{
    std::string out;
    char line[160];
    for (const auto &[k, o] : objects_) {
        std::snprintf(line, sizeof line, "gencfg %u %u ", k.major, k.minor);
        out += line + hex(k.key);
        std::snprintf(line, sizeof line, " flags 0x%x blob %zu peers %zu deps %zu\n", o.flags,
                      o.blob.size(), o.peers.size(), o.deps.size());
        out += line;
    }
    return out;
}

bool Gencfg::show(const GencfgKey &key, size_t blob_bytes, std::string &out) const
{
    const GencfgObject *o = find(key);
    if (o == nullptr) return false;
    char line[200];
    std::snprintf(line, sizeof line,
                  "major %u\nminor %u\nvalue3 %u\nvalue4 %u\nflags 0x%x\nextra-value %u\n"
                  "gen-id %u\npeer-capacity %u\nblob-len %zu\n",
                  key.major, key.minor, o->value3, o->value4, o->flags, o->extra_value, o->gen_id,
                  o->peer_capacity, o->blob.size());
    out = "key " + hex(key.key) + "\n" + line + "blob " + hex(o->blob, blob_bytes) + "\n";
    for (const auto &p : o->peers) {
        std::snprintf(line, sizeof line, "peer type %u choice %u words %08x %08x %08x %08x\n",
                      p.peer_type, p.peer_choice, p.peer.word0, p.peer.word1, p.peer.word2,
                      p.peer.word3);
        out += line;
    }
    for (const auto &d : o->deps) {
        std::snprintf(line, sizeof line, "dep type %u values %u %u %u data ", d.fields.dep_type,
                      d.fields.value0, d.fields.value1, d.fields.value2);
        out += line + hex(d.data) + "\n";
    }
    return true;
}

}  // namespace tarn::kemu
