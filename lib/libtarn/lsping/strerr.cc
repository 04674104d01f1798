// Result texts of the LSP-ping queries. Each kind numbers its codes from 1;
// a table holds the texts in code order, so a lookup is a bounds check.
#include <tarn/tarn_lsping.h>

namespace {

constexpr const char *kUnknown = "Unknown return value";

template <unsigned N>
const char *text(const char *const (&table)[N], int code, const char *unknown = kUnknown)
{
    return code >= 1 && static_cast<unsigned>(code) <= N ? table[code - 1] : unknown;
}

constexpr const char *kRsvp[] = {
    "Requested LSP not found",
    "Requested LSP is not RSVP signaled",
    "LSP has no path information",
    "LSP has no route information",
    "LSP has no active path",
    "Requested standby path not found",
    "Record route object for requested CCC LSP not found",
    "Operation not supported for P2MP LSPs",
    "No Egress destinations found for P2MP LSP",
    "No flood nexthop found for P2MP LSP",
    "IFL-name needs to be specified for manual bypass",
    "LSP information was successuly retrieved",
    "Primary path",
    "Secondary path",
    "Bypass LSP",
};

constexpr const char *kLdp[] = {
    "Requested FEC not found",
    "Requested P2MP FEC not found",
    "Requested routing-instance not found",
    "FEC information was successfully retrieved",
};

constexpr const char *kBgp[] = {
    "Requested FEC not found",
    "Requested routing-instance not found",
    "FEC information was successfully retrieved",
};

constexpr const char *kVpn[] = {
    "VPN not found",
    "Requested prefix not found in this VPN's table",
    "No nexthop information available for this prefix",
    "This prefix was not learnt from a remote site",
    "The nexthop for this prefix is not resolved",
    ("During graceful restart, cannot retrieve all the information necessary for issuing a l3vpn "
     "lsping"),
    "Route distinguisher and nexthop information were successfully retrieved",
};

constexpr const char *kL2ckt[] = {
    "Requested connection is not found",
    "Requested connection is down",
    "Requested connection is not remote",
    "Requested route not found",
    "No nexthop information available for this connection",
    "The nexthop for this prefix is not resolved",
    ("During graceful restart, cannot retrieve all the information necessary for issuing a l2ckt "
     "lsping"),
    "Can't ping as there are more than 5 labels to push",
    "Encapsulation type and nexthop information were successfully retrieved",
};

// The two layer-2 VPN kinds share every code but 2 and 3, which name the
// sites of a BGP-signalled VPN in one and the attachment identifiers of an
// FEC-129 one in the other.
constexpr const char *kL2vpn[] = {
    "VPN is not found",
    "Local site is not found",
    "Remote site is not found",
    "Requested interface is not found",
    "Requested connection is not found",
    "Requested connection is not remote",
    "Requested route not found in this L2VPN's table",
    "No nexthop information available for this connection",
    "The nexthop for this prefix is not resolved",
    ("During graceful restart, cannot retrieve all the information necessary for issuing a l2vpn "
     "lsping"),
    ("Can't ping with control-channel router-alert-Label,as it will result in, more than 5 labels "
     "being pushed"),
    "Route distinguisher and nexthop information were successfully retrieved",
};

constexpr const char *kLspmon[] = {
    "Requested LSP not found",
    "Requested LSP is down",
    "LSP information was successuly retrieved",
};

constexpr const char *kStatic[] = {
    "Requested static LSP not found",
    "Requested static LSP is down",
    "Static LSP information was successuly retrieved",
};

constexpr const char *kEndpt[] = {
    "BGP or LDP or RSVP route to prefix not found",
    "Requested routing-instance not found",
    "Route information was successfully retrieved",
};

}  // namespace

extern "C" {

const char *rsvp_lsping_info_strerr(int code) { return text(kRsvp, code); }
const char *ldp_lsping_info_strerr(int code) { return text(kLdp, code); }
const char *bgp_lsping_info_strerr(int code) { return text(kBgp, code); }
const char *vpn_lsping_info_strerr(int code) { return text(kVpn, code); }
const char *l2ckt_lsping_info_strerr(int code) { return text(kL2ckt, code); }
const char *l2vpn_lsping_info_strerr(int code) { return text(kL2vpn, code); }

const char *l2vpn_fec129_lsping_info_strerr(int code)
{
    if (code == 2) return "SAI is not found";
    if (code == 3) return "TAI is not found";
    return text(kL2vpn, code);
}

const char *rsvp_lspmon_info_strerr(int code) { return text(kLspmon, code); }

const char *static_lsp_info_strerr(int code)
{
    return text(kStatic, code, "Unknown return value for static LSP");
}

const char *endpt_lsping_info_strerr(int code) { return text(kEndpt, code); }

}  // extern "C"
