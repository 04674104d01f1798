#include "interfaces.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <tarn/rtsock_wire.h>

#include "routing.h"
#include "wire_bytes.h"

namespace tarn::kemu {
namespace {

constexpr uint8_t kVersions[RTS_MSG_TYPE_COUNT] = RTS_MSG_VERSIONS_INIT;
constexpr uint16_t kDevFixed = 148, kIflFixed = 184, kIffFixed = 252, kIfaFixed = 144;
constexpr uint32_t kHdrBits = (1u << RTS_HDR_BIT_INFO) - 1;
constexpr uint32_t kNameMax = 60;  // with the NUL
constexpr uint32_t kPointChange = 16;  // iflm_changed of a change carrying information records

rts_hdr_t header(uint8_t type, uint8_t op, uint16_t hdrlen)
{
    rts_hdr_t h{};
    h.version = kVersions[type];
    h.type = type;
    h.op = op;
    h.hdrlen = hdrlen;
    return h;
}

// A name field as sent: bytes up to the terminator, which the length counts.
std::string name_of(const uint8_t *p, uint32_t len)
{
    if (p == nullptr) return {};
    return std::string(reinterpret_cast<const char *>(p),
                       strnlen(reinterpret_cast<const char *>(p), len));
}

std::vector<uint8_t> name_bytes(const std::string &name)
{
    std::vector<uint8_t> v(name.begin(), name.end());
    v.push_back(0);
    return v;
}

// "em0.5" -> ("em0", 5); false when there is no unit.
bool split_name(const std::string &full, std::string &dev, uint32_t &unit)
{
    const size_t dot = full.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == full.size()) return false;
    char *end = nullptr;
    const unsigned long u = std::strtoul(full.c_str() + dot + 1, &end, 10);
    if (*end != '\0' || !std::isdigit(static_cast<unsigned char>(full[dot + 1])) || u > 0xffffffffUL)
        return false;
    dev = full.substr(0, dot);
    unit = static_cast<uint32_t>(u);
    return true;
}

// The records the kernel sends, with the storage their pointers refer to.
struct DeviceRecord {
    ifdev_msg_t m{};
    ifdev_msg_map_t map{};
    std::vector<uint8_t> name;
    DeviceRecord(const rts_hdr_t &hdr, uint16_t index, const Device *d)
    {
        m.hdr = hdr;
        m.hdr.info = nullptr;
        m.hdr.info_count = 0;
        m.hdr.hdrlen = kDevFixed;
        m.ifdm_index = index;
        map.hdr.bits = kHdrBits;
        map.bits = (1u << IFDEV_MSG_BIT_HDR) | (1u << IFDEV_MSG_BIT_IFDM_INDEX);
        if (d == nullptr) return;
        m.ifdm_snmp_id = index;
        m.ifdm_flags = d->flags;
        m.ifdm_devflags = d->devflags;
        m.ifdm_attr = d->attr;
        m.ifdm_media_type = d->media_type;
        m.ifdm_value = d->value;
        name = name_bytes(d->name);
        m.name = name.data();
        m.name_len = static_cast<uint32_t>(name.size());
        map.bits = (1u << (IFDEV_MSG_BIT_NAME + 1)) - 1;
    }
};

struct LogicalRecord {
    ifl_msg_t m{};
    ifl_msg_map_t map{};
    std::vector<uint8_t> name;
    LogicalRecord(const rts_hdr_t &hdr, uint32_t index, const Logical *l, const Device *d)
    {
        m.hdr = hdr;
        m.hdr.info = nullptr;
        m.hdr.info_count = 0;
        m.hdr.hdrlen = kIflFixed;
        m.iflm_index = index;
        map.hdr.bits = kHdrBits;
        map.bits = (1u << IFL_MSG_BIT_HDR) | (1u << IFL_MSG_BIT_IFLM_INDEX);
        if (l == nullptr) return;
        m.iflm_snmp_id = kLogicalSnmpBase + index;
        m.iflm_devindex = l->devindex;
        m.iflm_lr_index = l->lr_index;
        m.iflm_unit = l->unit;
        m.iflm_sid_high = l->devindex;
        m.iflm_sid_low = index;
        m.iflm_flags = l->flags;
        m.iflm_underlying_index = l->underlying;
        m.iflm_subset_iif = l->subset_iif;
        name = name_bytes(d != nullptr ? d->name : std::string());
        m.name = name.data();
        m.name_len = static_cast<uint32_t>(name.size());
        map.bits = (1u << (IFL_MSG_BIT_NAME + 1)) - 1;
    }
};

struct FamilyRecord {
    iff_msg_t m{};
    iff_msg_map_t map{};
    std::vector<uint8_t> name;
    rts_msg_info_t donor{};
    rts_msg_info_t *donor_slot = &donor;
    rts_msg_info_map_t donor_map{};
    FamilyRecord(const rts_hdr_t &hdr, uint32_t ifl, uint8_t af, const Family *f,
                 const Logical *l, const Device *d)
    {
        m.hdr = hdr;
        m.hdr.info = nullptr;
        m.hdr.info_count = 0;
        m.hdr.hdrlen = kIffFixed;
        m.iffm_index = ifl;
        m.iffm_af = af;
        map.hdr.bits = kHdrBits;
        map.bits = (1u << IFF_MSG_BIT_HDR) | (1u << IFF_MSG_BIT_IFFM_INDEX) |
                   (1u << IFF_MSG_BIT_IFFM_AF);
        if (f == nullptr) return;
        m.iffm_flags = f->flags;
        m.iffm_value1 = f->value1;
        m.iffm_value2 = f->value2;
        m.iffm_value3 = f->value3;
        m.iffm_value4 = f->value4;
        if (l != nullptr) {
            m.iffm_devindex = l->devindex;
            m.iffm_unit = l->unit;
        }
        name = name_bytes(d != nullptr ? d->name : std::string());
        m.name = name.data();
        m.name_len = static_cast<uint32_t>(name.size());
        map.bits = (1u << (IFF_MSG_BIT_NAME + 1)) - 1;
        if ((f->flags & kIffUnnumbered) != 0) {
            donor.unnum_donor.donor_ifl_index = f->donor;
            donor_map.bits = 1u << RTS_MSG_INFO_BIT_UNNUM_DONOR;
            donor_map.unnum_donor.bits = 1;
            m.hdr.info = &donor_slot;
            m.hdr.info_count = 1;
            map.hdr.bits |= 1u << RTS_HDR_BIT_INFO;
            map.hdr.info = &donor_map;
        }
    }
    FamilyRecord(const FamilyRecord &) = delete;
};

struct AddressRecord {
    ifa_msg_t m{};
    ifa_msg_map_t map{};
    std::vector<uint8_t> name, local, dest;
    AddressRecord(const rts_hdr_t &hdr, const Address *a, uint32_t ifl, uint8_t af,
                  const Logical *l, const Device *d)
    {
        m.hdr = hdr;
        m.hdr.info = nullptr;
        m.hdr.info_count = 0;
        m.hdr.hdrlen = kIfaFixed;
        m.ifam_index = ifl;
        m.ifam_af = af;
        map.hdr.bits = kHdrBits;
        map.bits = (1u << IFA_MSG_BIT_HDR) | (1u << IFA_MSG_BIT_IFAM_INDEX) |
                   (1u << IFA_MSG_BIT_IFAM_AF);
        if (a == nullptr) return;
        m.ifam_flags = a->flags;
        local = a->local;
        dest = a->dest;
        m.ifam_local_plen = a->local_plen;
        m.ifam_local = local.empty() ? nullptr : local.data();
        m.ifam_local_len = static_cast<uint32_t>(local.size());
        m.ifam_dest_plen = a->dest_plen;
        m.ifam_dest = dest.empty() ? nullptr : dest.data();
        m.ifam_dest_len = static_cast<uint32_t>(dest.size());
        if (l != nullptr) {
            m.ifam_unit = l->unit;
            m.ifam_devindex = l->devindex;
        }
        name = name_bytes(d != nullptr ? d->name : std::string());
        m.name = name.data();
        m.name_len = static_cast<uint32_t>(name.size());
        map.bits = (1u << (IFA_MSG_BIT_IFAM_DEVINDEX + 1)) - 1;
    }
};

bool same_prefix(const std::vector<uint8_t> &have, const uint8_t *want, uint32_t want_len,
                 uint16_t bits)
{
    // A request carries only the bytes its bit length covers.
    uint32_t n = bits != 0 ? (bits + 7u) / 8u : want_len;
    n = std::min<uint32_t>(n, want_len);
    if (n == 0 || n > have.size()) return false;
    return std::memcmp(have.data(), want, n) == 0;
}

bool parse_af(const std::string &w, uint8_t &af)
{
    if (w == "inet") af = TARN_AF_INET;
    else if (w == "inet6") af = TARN_AF_INET6;
    else return false;
    return true;
}

bool valid_device_name(const std::string &n)
{
    return !n.empty() && n.size() < kNameMax && n.find('.') == std::string::npos &&
           std::all_of(n.begin(), n.end(), [](char c) { return std::isgraph(static_cast<unsigned char>(c)); });
}

bool valid_logical_name(const std::string &n)
{
    std::string dev;
    uint32_t unit = 0;
    return split_name(n, dev, unit) && valid_device_name(dev);
}

// "192.0.2.1/24" or "2001:db8::1/64".
bool parse_prefix(const std::string &text, IfChange &c)
{
    const size_t slash = text.find('/');
    if (slash == std::string::npos) return false;
    const std::string addr = text.substr(0, slash), len = text.substr(slash + 1);
    uint8_t buf[16];
    if (inet_pton(AF_INET, addr.c_str(), buf) == 1) {
        c.af = TARN_AF_INET;
        c.addr.assign(buf, buf + 4);
    } else if (inet_pton(AF_INET6, addr.c_str(), buf) == 1) {
        c.af = TARN_AF_INET6;
        c.addr.assign(buf, buf + 16);
    } else {
        return false;
    }
    char *end = nullptr;
    const unsigned long p = std::strtoul(len.c_str(), &end, 10);
    if (len.empty() || *end != '\0' || !std::isdigit(static_cast<unsigned char>(len[0])) ||
        p > c.addr.size() * 8)
        return false;
    c.plen = static_cast<uint16_t>(p);
    return true;
}

std::string text_of(uint8_t af, const std::vector<uint8_t> &bytes)
{
    char buf[INET6_ADDRSTRLEN] = "?";
    if (af == TARN_AF_INET && bytes.size() == 4) inet_ntop(AF_INET, bytes.data(), buf, sizeof buf);
    if (af == TARN_AF_INET6 && bytes.size() == 16) inet_ntop(AF_INET6, bytes.data(), buf, sizeof buf);
    return buf;
}

const char *af_name(uint8_t af)
{
    return af == TARN_AF_INET ? "inet" : af == TARN_AF_INET6 ? "inet6" : "af";
}

}  // namespace

bool parse_if_change(const std::vector<std::string> &w, bool remove, IfChange &c,
                     std::string &error)
{
    c = IfChange{};
    c.remove = remove;
    const std::string &kw = w.empty() ? std::string() : w[0];
    auto need = [&](size_t lo, size_t hi, const char *usage) {
        if (w.size() >= lo && w.size() <= hi) return true;
        error = std::string("usage: ") + usage;
        return false;
    };
    if (kw == "device") {
        if (!need(2, 2, "device NAME")) return false;
        c.kind = IfChange::kDevice;
        if (!valid_device_name(w[1])) {
            error = "bad device name \"" + w[1] + "\" (1 to 59 characters, no '.')";
            return false;
        }
    } else if (kw == "logical") {
        if (!need(2, 2, "logical NAME.UNIT")) return false;
        c.kind = IfChange::kLogical;
    } else if (kw == "address") {
        if (!need(3, 3, "address NAME.UNIT ADDRESS/PREFIXLEN")) return false;
        c.kind = IfChange::kAddress;
        if (!parse_prefix(w[2], c)) {
            error = "bad address \"" + w[2] + "\" (IPv4 or IPv6 address/prefix length)";
            return false;
        }
    } else if (kw == "unnumbered") {
        if (!need(3, 4, "unnumbered NAME.UNIT DONOR.UNIT [inet|inet6]")) return false;
        c.kind = IfChange::kUnnumbered;
        c.donor = w[2];
        c.af = TARN_AF_INET;
        if (w.size() == 4 && !parse_af(w[3], c.af)) {
            error = "bad family \"" + w[3] + "\" (inet or inet6)";
            return false;
        }
        if (!valid_logical_name(c.donor)) {
            error = "bad logical interface name \"" + c.donor + "\" (DEVICE.UNIT)";
            return false;
        }
    } else {
        error = "unknown keyword \"" + kw + "\" (device, logical, address, unnumbered)";
        return false;
    }
    c.name = w[1];
    if (c.kind != IfChange::kDevice && !valid_logical_name(c.name)) {
        error = "bad logical interface name \"" + c.name + "\" (DEVICE.UNIT)";
        return false;
    }
    return true;
}

bool parse_interfaces_text(const std::string &text, std::vector<IfChange> &out,
                           std::string &error)
{
    out.clear();
    Interfaces scratch;
    Emission::Sockets none;
    EmuLog quiet(false);
    std::istringstream in(text);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string s; words >> s;) w.push_back(s);
        if (w.empty()) continue;
        IfChange c;
        std::string why;
        if (!parse_if_change(w, false, c, why)) {
            error = "line " + std::to_string(n) + ": " + why;
            return false;
        }
        Emission e(none, quiet, 0, Encoding::kIdr);
        const int rc = scratch.apply(c, e);
        if (rc != 0) {
            error = "line " + std::to_string(n) + ": " +
                    (rc == EEXIST ? "\"" + c.name + "\" is already there"
                                  : rc == ENOENT ? "\"" + c.name + "\" refers to an interface not defined above"
                                                 : "\"" + c.name + "\" cannot be added");
            return false;
        }
        out.push_back(std::move(c));
    }
    return true;
}

std::vector<IfChange> default_interfaces()
{
    static const char kDefault[] =
        "device lo0\nlogical lo0.0\naddress lo0.0 127.0.0.1/32\naddress lo0.0 ::1/128\n"
        "device em0\nlogical em0.0\naddress em0.0 192.0.2.1/24\naddress em0.0 2001:db8::1/64\n"
        "device em1\nlogical em1.0\naddress em1.0 198.51.100.1/24\n"
        "device ge-0/0/0\nlogical ge-0/0/0.0\naddress ge-0/0/0.0 203.0.113.1/24\n"
        "logical ge-0/0/0.5\nunnumbered ge-0/0/0.5 lo0.0\n";
    std::vector<IfChange> out;
    std::string error;
    parse_interfaces_text(kDefault, out, error);
    return out;
}

// --- lookups ---------------------------------------------------------------

uint16_t Interfaces::device_by_name(const std::string &name) const
{
    for (const auto &[i, d] : devices_)
        if (d.name == name) return i;
    return 0;
}

uint32_t Interfaces::logical_by(uint16_t devindex, uint32_t unit) const
{
    for (const auto &[i, l] : logicals_)
        if (l.devindex == devindex && l.unit == unit) return i;
    return 0;
}

uint32_t Interfaces::logical_by_name(const std::string &name) const
{
    std::string dev = name;
    uint32_t unit = 0;
    if (device_by_name(name) == 0) split_name(name, dev, unit);
    const uint16_t d = device_by_name(dev);
    return d == 0 ? 0 : logical_by(d, unit);
}

const Logical *Interfaces::find_logical(uint32_t ifl) const
{
    auto it = logicals_.find(ifl);
    return it == logicals_.end() ? nullptr : &it->second;
}

const Device *Interfaces::device_of(const Logical *l) const
{
    if (l == nullptr) return nullptr;
    auto it = devices_.find(l->devindex);
    return it == devices_.end() ? nullptr : &it->second;
}

const Family *Interfaces::family(uint32_t ifl, uint8_t af) const
{
    auto it = families_.find({ifl, af});
    return it == families_.end() ? nullptr : &it->second;
}

// --- notifications ---------------------------------------------------------

void Interfaces::notify_device(uint16_t index, uint8_t op, Emission &out) const
{
    auto it = devices_.find(index);
    DeviceRecord r(header(RTS_MSG_IFDEV, op, kDevFixed), index,
                   it == devices_.end() ? nullptr : &it->second);
    out.notify(&r.m, &r.map);
}

void Interfaces::notify_logical(uint32_t index, uint8_t op, Emission &out) const
{
    const Logical *l = find_logical(index);
    LogicalRecord r(header(RTS_MSG_IFLOGICAL, op, kIflFixed), index, l, device_of(l));
    out.notify(&r.m, &r.map);
}

void Interfaces::notify_family(uint32_t ifl, uint8_t af, const Family &f, uint8_t op,
                               Emission &out) const
{
    const Logical *l = find_logical(ifl);
    FamilyRecord r(header(RTS_MSG_IFFAMILY, op, kIffFixed), ifl, af, &f, l, device_of(l));
    out.notify(&r.m, &r.map);
}

void Interfaces::notify_address(const Address &a, uint8_t op, Emission &out) const
{
    const Logical *l = find_logical(a.ifl);
    AddressRecord r(header(RTS_MSG_IFADDR, op, kIfaFixed), &a, a.ifl, a.af, l, device_of(l));
    out.notify(&r.m, &r.map);
}

// --- changes ---------------------------------------------------------------

uint16_t Interfaces::free_device_index() const
{
    // Device indexes are 16-bit and 0 means none.
    if (devices_.size() >= 0xffff) return 0;
    uint16_t index = 1;
    while (devices_.count(index) != 0) ++index;
    return index;
}

uint16_t Interfaces::new_device(const std::string &name, Emission &out)
{
    const uint16_t index = free_device_index();
    if (index == 0) return 0;
    devices_[index].name = name;
    notify_device(index, RTS_OP_ADD, out);
    return index;
}

uint32_t Interfaces::new_logical(uint16_t devindex, uint32_t unit, Emission &out)
{
    uint32_t index = kFirstLogicalIndex;
    while (logicals_.count(index) != 0) ++index;
    Logical &l = logicals_[index];
    l.devindex = devindex;
    l.unit = unit;
    notify_logical(index, RTS_OP_ADD, out);
    return index;
}

Family &Interfaces::ensure_family(uint32_t ifl, uint8_t af, Emission &out)
{
    auto [it, inserted] = families_.try_emplace({ifl, af});
    if (inserted) notify_family(ifl, af, it->second, RTS_OP_ADD, out);
    return it->second;
}

void Interfaces::remove_family(uint32_t ifl, uint8_t af, Emission &out)
{
    auto it = families_.find({ifl, af});
    if (it == families_.end()) return;
    for (size_t i = addresses_.size(); i-- > 0;) {
        if (addresses_[i].ifl != ifl || addresses_[i].af != af) continue;
        notify_address(addresses_[i], RTS_OP_DELETE, out);
        addresses_.erase(addresses_.begin() + static_cast<ptrdiff_t>(i));
    }
    notify_family(ifl, af, it->second, RTS_OP_DELETE, out);
    families_.erase(it);
}

void Interfaces::remove_logical(uint32_t ifl, Emission &out)
{
    std::vector<uint8_t> afs;
    for (const auto &[key, f] : families_)
        if (key.first == ifl) afs.push_back(key.second);
    for (uint8_t af : afs) remove_family(ifl, af, out);
    notify_logical(ifl, RTS_OP_DELETE, out);
    logicals_.erase(ifl);
}

std::vector<Address>::iterator Interfaces::find_address(uint32_t ifl, uint8_t af,
                                                        const uint8_t *local, uint32_t local_len,
                                                        uint16_t local_plen)
{
    return std::find_if(addresses_.begin(), addresses_.end(), [&](const Address &a) {
        return a.ifl == ifl && a.af == af &&
               (local == nullptr || local_len == 0 || same_prefix(a.local, local, local_len, local_plen));
    });
}

int Interfaces::add_address(Address &&a, Emission &out)
{
    if (logicals_.count(a.ifl) == 0) return ENOENT;
    const size_t want = a.af == TARN_AF_INET ? 4 : a.af == TARN_AF_INET6 ? 16 : 0;
    if (want != 0 && a.local.size() != want) return EINVAL;
    if (a.local.empty()) return EINVAL;
    for (const Address &x : addresses_)
        if (x.ifl == a.ifl && x.af == a.af && x.local == a.local) return EEXIST;
    ensure_family(a.ifl, a.af, out);
    // Keep each interface's addresses together, in the order they came.
    auto pos = std::find_if(addresses_.rbegin(), addresses_.rend(),
                            [&](const Address &x) { return x.ifl == a.ifl; });
    auto it = addresses_.insert(pos.base(), std::move(a));
    notify_address(*it, RTS_OP_ADD, out);
    return 0;
}

int Interfaces::remove_address(uint32_t ifl, uint8_t af, const std::vector<uint8_t> &local,
                               Emission &out)
{
    auto it = std::find_if(addresses_.begin(), addresses_.end(), [&](const Address &a) {
        return a.ifl == ifl && a.af == af && a.local == local;
    });
    if (it == addresses_.end()) return ENOENT;
    const Address gone = *it;
    addresses_.erase(it);
    notify_address(gone, RTS_OP_DELETE, out);
    return 0;
}

int Interfaces::apply(const IfChange &c, Emission &out)
{
    if (c.kind == IfChange::kDevice) {
        const uint16_t d = device_by_name(c.name);
        if (!c.remove) return d != 0 ? EEXIST : new_device(c.name, out) != 0 ? 0 : ENOSPC;
        if (d == 0) return ENOENT;
        std::vector<uint32_t> ifls;
        for (const auto &[i, l] : logicals_)
            if (l.devindex == d) ifls.push_back(i);
        for (uint32_t i : ifls) remove_logical(i, out);
        notify_device(d, RTS_OP_DELETE, out);
        devices_.erase(d);
        return 0;
    }
    std::string dev;
    uint32_t unit = 0;
    if (!split_name(c.name, dev, unit)) return EINVAL;
    const uint16_t d = device_by_name(dev);
    if (d == 0) return ENOENT;
    const uint32_t ifl = logical_by(d, unit);
    switch (c.kind) {
    case IfChange::kLogical:
        if (c.remove) return ifl == 0 ? ENOENT : (remove_logical(ifl, out), 0);
        return ifl != 0 ? EEXIST : (new_logical(d, unit, out), 0);
    case IfChange::kAddress: {
        if (ifl == 0) return ENOENT;
        if (c.remove) return remove_address(ifl, c.af, c.addr, out);
        Address a;
        a.ifl = ifl;
        a.af = c.af;
        a.local = c.addr;
        a.local_plen = c.plen;
        return add_address(std::move(a), out);
    }
    case IfChange::kUnnumbered: {
        const uint32_t donor = logical_by_name(c.donor);
        if (ifl == 0 || donor == 0 || donor == ifl) return ENOENT;
        if (c.remove) {
            if (families_.count({ifl, c.af}) == 0) return ENOENT;
            remove_family(ifl, c.af, out);
            return 0;
        }
        if (families_.count({ifl, c.af}) != 0) return EEXIST;
        Family &f = families_[{ifl, c.af}];
        f.flags |= kIffUnnumbered;
        f.donor = donor;
        notify_family(ifl, c.af, f, RTS_OP_ADD, out);
        return 0;
    }
    default:
        return EINVAL;
    }
}

// --- requests --------------------------------------------------------------

void Interfaces::device_request(const ifdev_msg_t &req, Emission &out)
{
    const uint8_t op = req.hdr.op;
    const std::string name = name_of(req.name, req.name_len);
    uint16_t index = req.ifdm_index;
    if (index == 0 && !name.empty()) index = device_by_name(name);
    if (index == 0 && req.name == nullptr && req.ifdm_snmp_id != 0 && req.ifdm_snmp_id <= 0xffff)
        index = static_cast<uint16_t>(req.ifdm_snmp_id);  // device SNMP index = device index
    auto it = devices_.find(index);
    switch (op) {
    case RTS_OP_GET:
    case RTS_OP_GETNEXT: {
        if (op == RTS_OP_GETNEXT) it = devices_.upper_bound(req.ifdm_index);
        const bool found = it != devices_.end();
        DeviceRecord r(req.hdr, found ? it->first : req.ifdm_index, found ? &it->second : nullptr);
        r.m.hdr.error = found ? 0 : kErrNoEntry;
        out.answer(&r.m, &r.map);
        return;
    }
    case RTS_OP_ADD: {
        if (!valid_device_name(name) || device_by_name(name) != 0) return;
        if (req.ifdm_index != 0 && devices_.count(req.ifdm_index) != 0) return;
        const uint16_t at = req.ifdm_index != 0 ? req.ifdm_index : free_device_index();
        if (at == 0) return;
        Device &d = devices_[at];
        d.name = name;
        d.flags = req.ifdm_flags;
        d.devflags = req.ifdm_devflags;
        d.attr = req.ifdm_attr;
        d.media_type = req.ifdm_media_type;
        d.value = req.ifdm_value;
        notify_device(at, RTS_OP_ADD, out);
        return;
    }
    case RTS_OP_CHANGE:
        if (it == devices_.end()) return;
        // A point change names the bits it touches; a full change states them all.
        if (req.ifdm_flags_mask != 0)
            it->second.flags = (it->second.flags & ~req.ifdm_flags_mask) |
                               (req.ifdm_flags & req.ifdm_flags_mask);
        else
            it->second.flags = req.ifdm_flags;
        it->second.attr = req.ifdm_attr;
        notify_device(it->first, RTS_OP_CHANGE, out);
        return;
    case RTS_OP_DELETE: {
        if (it == devices_.end()) return;
        IfChange c;
        c.kind = IfChange::kDevice;
        c.remove = true;
        c.name = it->second.name;
        apply(c, out);
        return;
    }
    default:
        return;
    }
}

void Interfaces::logical_request(const ifl_msg_t &req, Emission &out)
{
    const uint8_t op = req.hdr.op;
    uint32_t index = req.iflm_index;
    if (index == 0 && req.name != nullptr) {
        // The name is a device name, matched exactly: a whole "em0.5" (as
        // if_nametoindex sends it) names no device and finds nothing.
        const uint16_t d = device_by_name(name_of(req.name, req.name_len));
        index = d != 0 ? logical_by(d, req.iflm_unit) : 0;
    } else if (index == 0 && req.iflm_snmp_id > kLogicalSnmpBase) {
        index = req.iflm_snmp_id - kLogicalSnmpBase;
    } else if (index == 0 && (req.iflm_sid_high != 0 || req.iflm_sid_low != 0)) {
        auto it = logicals_.find(req.iflm_sid_low);
        if (it != logicals_.end() && it->second.devindex == req.iflm_sid_high) index = it->first;
    } else if (index == 0 && req.iflm_devindex != 0) {
        index = logical_by(req.iflm_devindex, req.iflm_unit);
    }
    auto it = logicals_.find(index);
    switch (op) {
    case RTS_OP_GET:
    case RTS_OP_GETNEXT: {
        if (op == RTS_OP_GETNEXT) it = logicals_.upper_bound(req.iflm_index);
        const bool found = it != logicals_.end();
        const Logical *l = found ? &it->second : nullptr;
        LogicalRecord r(req.hdr, found ? it->first : req.iflm_index, l, device_of(l));
        r.m.hdr.error = found ? 0 : kErrNoEntry;
        out.answer(&r.m, &r.map);
        return;
    }
    case RTS_OP_CHANGE: {
        if (it == logicals_.end()) return;
        Logical &l = it->second;
        // A point change (changed word 16) carries only its information
        // records; a plain change states the flags.
        if (req.iflm_changed != kPointChange) l.flags = req.iflm_flags;
        for (uint32_t i = 0; req.iflm_changed == kPointChange && i < req.hdr.info_count; ++i) {
            const rts_msg_info_t *info = req.hdr.info != nullptr ? req.hdr.info[i] : nullptr;
            if (info == nullptr) continue;
            const auto &s = info->subset_iif;
            if (s.subset < 16)
                l.subset_iif = static_cast<uint16_t>(
                    s.value ? l.subset_iif | (1u << s.subset) : l.subset_iif & ~(1u << s.subset));
        }
        notify_logical(it->first, RTS_OP_CHANGE, out);
        return;
    }
    case RTS_OP_ADD: {
        uint16_t d = req.iflm_devindex;
        if (d == 0 && req.name != nullptr) d = device_by_name(name_of(req.name, req.name_len));
        if (devices_.count(d) == 0 || logical_by(d, req.iflm_unit) != 0) return;
        const uint32_t i = new_logical(d, req.iflm_unit, out);
        logicals_[i].flags = req.iflm_flags;
        return;
    }
    case RTS_OP_DELETE:
        if (it != logicals_.end()) remove_logical(it->first, out);
        return;
    default:
        return;
    }
}

void Interfaces::family_request(const iff_msg_t &req, Emission &out)
{
    const uint8_t op = req.hdr.op;
    uint32_t ifl = req.iffm_index;
    if (ifl == 0 && req.name != nullptr) {
        const uint16_t d = device_by_name(name_of(req.name, req.name_len));
        ifl = d != 0 ? logical_by(d, req.iffm_unit) : 0;
    }
    auto it = families_.find({ifl, req.iffm_af});
    switch (op) {
    case RTS_OP_GET:
    case RTS_OP_GETNEXT: {
        if (op == RTS_OP_GETNEXT) it = families_.upper_bound({ifl, req.iffm_af});
        const bool found = it != families_.end();
        const Logical *l = found ? find_logical(it->first.first) : nullptr;
        FamilyRecord r(req.hdr, found ? it->first.first : ifl,
                       found ? it->first.second : req.iffm_af, found ? &it->second : nullptr, l,
                       device_of(l));
        r.m.hdr.error = found ? 0 : kErrNoEntry;
        out.answer(&r.m, &r.map);
        return;
    }
    case RTS_OP_ADD:
    case RTS_OP_CHANGE: {
        if (logicals_.count(ifl) == 0) return;
        const bool existed = it != families_.end();
        Family &f = families_[{ifl, req.iffm_af}];
        f.value1 = req.iffm_value1;
        f.value2 = req.iffm_value2;
        f.value3 = req.iffm_value3;
        f.value4 = req.iffm_value4;
        if ((req.iffm_flags & ~kIffUnnumbered) != 0 || op == RTS_OP_ADD)
            f.flags = (req.iffm_flags & ~kIffUnnumbered) | (f.flags & kIffUnnumbered);
        notify_family(ifl, req.iffm_af, f, existed ? RTS_OP_CHANGE : RTS_OP_ADD, out);
        return;
    }
    case RTS_OP_DELETE:
        remove_family(ifl, req.iffm_af, out);
        return;
    default:
        return;
    }
}

void Interfaces::address_request(const ifa_msg_t &req, Emission &out)
{
    const uint8_t op = req.hdr.op;
    uint32_t ifl = req.ifam_index;
    if (ifl == 0 && req.name != nullptr) {
        const std::string name = name_of(req.name, req.name_len);
        const uint16_t d = device_by_name(name);
        ifl = d != 0 ? logical_by(d, req.ifam_unit) : logical_by_name(name);
    }
    switch (op) {
    case RTS_OP_GET:
    case RTS_OP_GETNEXT: {
        auto it = find_address(ifl, req.ifam_af, req.ifam_local, req.ifam_local_len,
                               req.ifam_local_plen);
        if (it != addresses_.end() && req.ifam_dest != nullptr && req.ifam_dest_len != 0 &&
            !same_prefix(it->dest, req.ifam_dest, req.ifam_dest_len, req.ifam_dest_plen))
            it = addresses_.end();
        if (op == RTS_OP_GETNEXT && it != addresses_.end()) {
            // The next address of the same interface and family.
            it = std::find_if(it + 1, addresses_.end(), [&](const Address &a) {
                return a.ifl == ifl && a.af == req.ifam_af;
            });
        }
        const bool found = it != addresses_.end();
        const Logical *l = found ? find_logical(it->ifl) : nullptr;
        AddressRecord r(req.hdr, found ? &*it : nullptr, ifl, req.ifam_af, l, device_of(l));
        r.m.hdr.error = found ? 0 : kErrNoEntry;
        out.answer(&r.m, &r.map);
        return;
    }
    case RTS_OP_ADD: {
        if ((req.ifam_af != TARN_AF_INET && req.ifam_af != TARN_AF_INET6) || req.ifam_local == nullptr)
            return;
        Address a;
        a.ifl = ifl;
        a.af = req.ifam_af;
        a.flags = req.ifam_flags;
        // The request carries the bytes its bit length covers, padded to
        // words; the kernel keeps the whole address.
        a.local.assign(req.ifam_local, req.ifam_local + req.ifam_local_len);
        a.local.resize(a.af == TARN_AF_INET ? 4 : 16, 0);
        a.local_plen = req.ifam_local_plen;
        if (req.ifam_dest != nullptr && req.ifam_dest_len != 0) {
            a.dest.assign(req.ifam_dest, req.ifam_dest + req.ifam_dest_len);
            a.dest.resize(a.local.size(), 0);
            a.dest_plen = req.ifam_dest_plen;
        }
        add_address(std::move(a), out);
        return;
    }
    case RTS_OP_DELETE: {
        auto it = find_address(ifl, req.ifam_af, req.ifam_local, req.ifam_local_len,
                               req.ifam_local_plen);
        if (it != addresses_.end() && req.ifam_local != nullptr)
            remove_address(ifl, req.ifam_af, std::vector<uint8_t>(it->local), out);
        return;
    }
    case RTS_OP_CHANGE: {
        auto it = find_address(ifl, req.ifam_af, req.ifam_local, req.ifam_local_len,
                               req.ifam_local_plen);
        if (it == addresses_.end()) return;
        it->flags = req.ifam_flags;
        notify_address(*it, RTS_OP_CHANGE, out);
        return;
    }
    default:
        return;
    }
}

// --- statistics ------------------------------------------------------------

namespace {

struct StatsLayout {
    uint8_t type;
    uint16_t fixed;
    uint32_t counters;  // offset of the four counter words
};
constexpr StatsLayout kDevStats{RTS_MSG_IFDSTATS, 52, 32};
constexpr StatsLayout kIflStats{RTS_MSG_IFLSTATS, 72, 48};
constexpr StatsLayout kIffStats{70, 48, 32};

void put_counters(uint8_t *p, const Counters &c)
{
    store_u32(p, c.in_packets);
    store_u32(p + 4, c.out_packets);
    store_u32(p + 8, c.in_bytes);
    store_u32(p + 12, c.out_bytes);
}

void add(Counters &to, const Counters &c)
{
    to.in_packets += c.in_packets;
    to.out_packets += c.out_packets;
    to.in_bytes += c.in_bytes;
    to.out_bytes += c.out_bytes;
}

// The name behind the fixed part, `n` bytes with the NUL; "" when absent or
// longer than the message.
std::string stats_name(const uint8_t *req, uint32_t len, uint32_t fixed, uint32_t n)
{
    if (n == 0 || n > kNameMax || fixed + n > len) return {};
    return name_of(req + fixed, n);
}

}  // namespace

void Interfaces::stats_request(const uint8_t *req, uint32_t len, Emission &out)
{
    const uint8_t type = req[RTS_HDR_TYPE_OFF];
    const StatsLayout &l = type == RTS_MSG_IFDSTATS ? kDevStats : type == RTS_MSG_IFLSTATS ? kIflStats : kIffStats;
    if (len < l.fixed || load_u16(req + RTS_HDR_FIXED_LEN_OFF) != l.fixed) return;
    Counters *c = nullptr;
    if (type == RTS_MSG_IFDSTATS) {
        uint16_t index = load_u16(req + 24);
        if (index == 0) index = device_by_name(stats_name(req, len, l.fixed, req[27]));
        auto it = devices_.find(index);
        if (it != devices_.end()) c = &it->second.stats;
    } else if (type == RTS_MSG_IFLSTATS) {
        uint32_t index = load_u32(req + 28);
        const std::string name = stats_name(req, len, l.fixed, req[25]);
        if (index == 0 && !name.empty()) {
            const uint16_t d = device_by_name(name);
            index = d != 0 ? logical_by(d, load_u32(req + 40)) : 0;
        } else if (index == 0) {
            index = load_u32(req + 36);  // the statistics id's low word is the index
            auto it = logicals_.find(index);
            if (it != logicals_.end() && it->second.devindex != load_u32(req + 32)) index = 0;
        }
        auto it = logicals_.find(index);
        if (it != logicals_.end()) c = &it->second.stats;
    } else {
        auto it = families_.find({load_u32(req + 24), req[28]});
        if (it != families_.end()) c = &it->second.stats;
    }
    const uint8_t op = req[RTS_HDR_OP_OFF];
    if (op == RTS_OP_CLEAR) {
        if (c != nullptr) *c = Counters{};
        return;
    }
    if (op != RTS_OP_GET) return;
    std::vector<uint8_t> answer(req, req + len);
    store_u32(answer.data() + 16, c != nullptr ? 0 : kErrNoEntry);
    put_counters(answer.data() + l.counters, c != nullptr ? *c : Counters{});
    out.answer_raw(std::move(answer));
}

int Interfaces::add_traffic(const std::string &name, uint8_t af, const Counters &c)
{
    if (const uint16_t d = device_by_name(name); d != 0 && af == 0) {
        add(devices_[d].stats, c);
        return 0;
    }
    const uint32_t ifl = logical_by_name(name);
    if (ifl == 0 || name.find('.') == std::string::npos) return ENOENT;
    Family *f = nullptr;
    if (af != 0) {
        auto it = families_.find({ifl, af});
        if (it == families_.end()) return ENOENT;
        f = &it->second;
    }
    Logical &l = logicals_[ifl];
    add(l.stats, c);
    add(devices_[l.devindex].stats, c);
    if (f != nullptr) add(f->stats, c);
    return 0;
}

// --- tables and dumps ------------------------------------------------------

bool Interfaces::iflist(int kind, std::vector<uint8_t> &out) const
{
    out.clear();
    auto append = [&](const void *rec, const void *map) {
        const auto bytes = encode_envelope(rec, map, Encoding::kIdr);
        out.insert(out.end(), bytes.begin(), bytes.end());
    };
    switch (kind) {
    case 1:
        for (const auto &[i, d] : devices_) {
            DeviceRecord r(header(RTS_MSG_IFDEV, RTS_OP_GET, kDevFixed), i, &d);
            append(&r.m, &r.map);
        }
        return true;
    case 2:
    case 10:
        for (const auto &[i, l] : logicals_) {
            const Device *d = device_of(&l);
            LogicalRecord r(header(RTS_MSG_IFLOGICAL, RTS_OP_GET, kIflFixed), i, &l, d);
            append(&r.m, &r.map);
            if (kind != 10) continue;
            for (const Address &a : addresses_) {
                if (a.ifl != i) continue;
                AddressRecord ar(header(RTS_MSG_IFADDR, RTS_OP_GET, kIfaFixed), &a, i, a.af, &l, d);
                append(&ar.m, &ar.map);
            }
        }
        return true;
    default:
        return false;
    }
}

std::string Interfaces::dump() const
{
    std::string s;
    char line[256];
    for (const auto &[di, d] : devices_) {
        std::snprintf(line, sizeof line, "device %s index %u snmp %u flags 0x%x\n", d.name.c_str(),
                      di, di, d.flags);
        s += line;
        for (const auto &[li, l] : logicals_) {
            if (l.devindex != di) continue;
            std::snprintf(line, sizeof line, "  logical %s.%u index %u snmp %u flags 0x%x\n",
                          d.name.c_str(), l.unit, li, kLogicalSnmpBase + li, l.flags);
            s += line;
            for (const auto &[key, f] : families_) {
                if (key.first != li) continue;
                std::snprintf(line, sizeof line, "    family %s flags 0x%x", af_name(key.second),
                              f.flags);
                s += line;
                if ((f.flags & kIffUnnumbered) != 0) s += " unnumbered donor " + std::to_string(f.donor);
                s += "\n";
                for (const Address &a : addresses_) {
                    if (a.ifl != li || a.af != key.second) continue;
                    s += "      address " + text_of(a.af, a.local) + "/" + std::to_string(a.local_plen);
                    if (!a.dest.empty()) s += " dest " + text_of(a.af, a.dest);
                    s += "\n";
                }
            }
        }
    }
    return s;
}

}  // namespace tarn::kemu
