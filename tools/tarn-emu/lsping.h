// The routing daemon's answers to the LSP-ping queries, from a table of
// paths read from configuration lines:
//
//   KIND KEY... [ATTR=VALUE]...
//
//   lsp NAME          src dst tunnel lsp-id uptime path standby ccc=yes
//   p2mp-lsp NAME     id branch=DST/IFL/NEXTHOP/L1,L2 (repeated)
//   fec ADDR/LEN      instance flags
//   bgp-fec ADDR/LEN  instance
//   p2mp-fec ROOT ID  instance branch=... (repeated)
//   vpn NAME ADDR/LEN rd=ASN:N pnh local=yes
//   endpoint ADDR/LEN instance protocol=rsvp|ldp|bgp
//   l2ckt NEIGHBOUR VC ifname encap cw remote=no
//   l2vpn NAME LOCAL REMOTE  ifname rd pe cw
//   fec129 NAME SAI TAI      rd pe cw
//   static-lsp NAME
//   tdmpw ID NEIGHBOUR
// and on every kind: ifl, nh (IPv4 next hop), labels=L1,L2,..., state=down,
// resolved=no (next hop unresolved). Addresses are IPv4.
//
// Answers follow from the table (unknown name: not found; unknown instance;
// a down path; more than five labels; ...); every other result code comes
// from the daemon's forced results. A failure carries a zero-filled record.
#ifndef TARN_TARN_EMU_LSPING_H
#define TARN_TARN_EMU_LSPING_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "frame.h"

namespace tarn::temu {

struct LspingEntry {
    std::string kind;
    std::vector<std::string> keys;
    std::multimap<std::string, std::string> attrs;
};

struct LspingConfig {
    std::vector<LspingEntry> entries;
};

// True when `verb` names a kind of path; then `rest` (the line after the
// verb) is parsed into `cfg`, false with `error` when it is bad.
bool is_lsping_kind(const std::string &verb);
bool parse_lsping_line(const std::string &verb, const std::string &rest, LspingConfig &cfg,
                       std::string &error);
// The table a demo gets without a configuration file.
LspingConfig default_lsping_config();

// True when `type` is an LSP-ping query.
bool is_lsping_query(uint16_t type);
// The reply to a query, answered with `*forced` when given. False when the
// request is malformed (no reply); `what` says what was asked and answered.
bool lsping_answer(const LspingConfig &cfg, const Frame &request, const uint32_t *forced,
                   Frame &reply, std::string &what);

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_LSPING_H
