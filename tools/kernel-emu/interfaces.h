// The kernel's interfaces: devices (em0), logical interfaces on them (em0.5),
// the address families configured on a logical interface, and addresses.
// One handler per message family, in the style of the routing state:
// requests arrive decoded, answers and change notifications leave as records
// through an Emission.
//
// Index spaces: devices are numbered from 1 and their SNMP index is the
// device index; logical interfaces are numbered from 64, their SNMP index is
// 1000 + index and their statistics identifier is (device index, index).
#ifndef TARN_KERNEL_EMU_INTERFACES_H
#define TARN_KERNEL_EMU_INTERFACES_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <tarn/idl.h>

#include "emission.h"

namespace tarn::kemu {

// Family flag of an interface that borrows its address from a donor.
inline constexpr uint32_t kIffUnnumbered = 0x20000000;
inline constexpr uint32_t kFirstLogicalIndex = 64;
inline constexpr uint32_t kLogicalSnmpBase = 1000;

// Traffic counters answered by the statistics requests, as they travel.
struct Counters {
    uint32_t in_packets = 0, out_packets = 0, in_bytes = 0, out_bytes = 0;
};

struct Device {
    std::string name;
    Counters stats;
    uint32_t flags = 0, devflags = 0, value = 0;
    uint16_t attr = 0, media_type = 0;
};

struct Logical {
    uint16_t devindex = 0;
    uint32_t unit = 0;
    uint32_t flags = 0;  // bits 0-1: down states; bit 16: point-to-point
    uint8_t lr_index = 0;
    uint32_t underlying = 0;
    uint16_t subset_iif = 0;
    Counters stats;
};

struct Family {
    uint32_t flags = 0;
    uint32_t value1 = 0, value2 = 0;
    uint16_t value3 = 0, value4 = 0;
    uint32_t donor = 0;  // donor's logical index when unnumbered
    Counters stats;
};

struct Address {
    uint32_t ifl = 0;
    uint8_t af = 0;
    uint16_t flags = 0;
    std::vector<uint8_t> local;  // the whole address, 4 or 16 bytes
    uint16_t local_plen = 0;     // prefix length
    std::vector<uint8_t> dest;   // point-to-point peer, usually empty
    uint16_t dest_plen = 0;
};

// One change of the interface set, as the --interfaces file and the control
// commands state it.
struct IfChange {
    enum Kind { kDevice, kLogical, kAddress, kUnnumbered } kind = kDevice;
    bool remove = false;
    std::string name;   // "em0" for devices, "em0.5" otherwise
    std::string donor;  // unnumbered: the donor's logical name
    uint8_t af = 0;     // address, unnumbered
    std::vector<uint8_t> addr;
    uint16_t plen = 0;
};

// Parses "device NAME", "logical NAME.UNIT", "address NAME.UNIT ADDR/PLEN",
// "unnumbered NAME.UNIT DONOR.UNIT [inet|inet6]" (keyword already read from
// `words[0]`). False with a message in `error`.
bool parse_if_change(const std::vector<std::string> &words, bool remove, IfChange &out,
                     std::string &error);

// The whole --interfaces text: one change a line, '#' comments, blank lines.
// False with "line N: ..." in `error`; the changes are also applied to a
// scratch set so that references to unknown interfaces are found here.
bool parse_interfaces_text(const std::string &text, std::vector<IfChange> &out,
                           std::string &error);

// The set a new emulator starts with.
std::vector<IfChange> default_interfaces();

class Interfaces {
public:
    // Families.
    void device_request(const ifdev_msg_t &req, Emission &out);
    void logical_request(const ifl_msg_t &req, Emission &out);
    void family_request(const iff_msg_t &req, Emission &out);
    void address_request(const ifa_msg_t &req, Emission &out);

    // Statistics of devices (type 15), logical interfaces (16) and families
    // (70) travel raw; a malformed request gets no answer.
    void stats_request(const uint8_t *req, uint32_t len, Emission &out);
    // Adds traffic to "em0" (the device), "em0.0" (the logical interface and
    // its device) or "em0.0" with `af` (also the family). 0 or ENOENT.
    int add_traffic(const std::string &name, uint8_t af, const Counters &c);

    // A control-path change: 0 or EEXIST, ENOENT, EINVAL, ENOSPC; listeners hear of
    // it through `out`.
    int apply(const IfChange &c, Emission &out);

    // The routing sysctl's interface list of `kind` (1 devices, 2 logical
    // interfaces, 10 logical interfaces each followed by its addresses), as
    // consecutive IDR envelopes. False for an unknown kind.
    bool iflist(int kind, std::vector<uint8_t> &out) const;

    std::string dump() const;

    const std::map<uint16_t, Device> &devices() const { return devices_; }
    const std::map<uint32_t, Logical> &logicals() const { return logicals_; }
    const std::vector<Address> &addresses() const { return addresses_; }
    const Family *family(uint32_t ifl, uint8_t af) const;
    // Logical index of "em0.5" (or "em0" as unit 0); 0 when unknown.
    uint32_t logical_by_name(const std::string &name) const;

private:
    std::map<uint16_t, Device> devices_;
    std::map<uint32_t, Logical> logicals_;
    std::map<std::pair<uint32_t, uint8_t>, Family> families_;
    std::vector<Address> addresses_;  // grouped by logical interface

    uint16_t device_by_name(const std::string &name) const;
    const Logical *find_logical(uint32_t ifl) const;
    const Device *device_of(const Logical *l) const;
    uint32_t logical_by(uint16_t devindex, uint32_t unit) const;
    uint16_t free_device_index() const;  // 0 when every index is taken
    uint16_t new_device(const std::string &name, Emission &out);
    uint32_t new_logical(uint16_t devindex, uint32_t unit, Emission &out);
    Family &ensure_family(uint32_t ifl, uint8_t af, Emission &out);
    void remove_logical(uint32_t ifl, Emission &out);
    void remove_family(uint32_t ifl, uint8_t af, Emission &out);
    int add_address(Address &&a, Emission &out);
    int remove_address(uint32_t ifl, uint8_t af, const std::vector<uint8_t> &local,
                       Emission &out);
    std::vector<Address>::iterator find_address(uint32_t ifl, uint8_t af, const uint8_t *local,
                                                uint32_t local_len, uint16_t local_plen);

    void notify_device(uint16_t index, uint8_t op, Emission &out) const;
    void notify_logical(uint32_t index, uint8_t op, Emission &out) const;
    void notify_family(uint32_t ifl, uint8_t af, const Family &f, uint8_t op,
                       Emission &out) const;
    void notify_address(const Address &a, uint8_t op, Emission &out) const;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_INTERFACES_H
