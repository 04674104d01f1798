// The result texts of every LSP-ping kind, whole: codes 1..N in order, then
// the neighbours of the range, which must give the kind's unknown text.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn_lsping.h>

namespace {

struct Kind {
    const char *name;
    const char *(*fn)(int);
    std::vector<std::string> texts;  // codes 1, 2, ...
    const char *unknown = "Unknown return value";
};

const std::vector<std::string> kL2vpnShared = {
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

std::vector<std::string> l2vpn(const char *two, const char *three)
{
    std::vector<std::string> t = {"VPN is not found", two, three};
    t.insert(t.end(), kL2vpnShared.begin(), kL2vpnShared.end());
    return t;
}

const Kind kKinds[] = {
    {"rsvp", rsvp_lsping_info_strerr,
     {"Requested LSP not found", "Requested LSP is not RSVP signaled",
      "LSP has no path information", "LSP has no route information", "LSP has no active path",
      "Requested standby path not found", "Record route object for requested CCC LSP not found",
      "Operation not supported for P2MP LSPs", "No Egress destinations found for P2MP LSP",
      "No flood nexthop found for P2MP LSP", "IFL-name needs to be specified for manual bypass",
      "LSP information was successuly retrieved", "Primary path", "Secondary path",
      "Bypass LSP"}},
    {"ldp", ldp_lsping_info_strerr,
     {"Requested FEC not found", "Requested P2MP FEC not found",
      "Requested routing-instance not found", "FEC information was successfully retrieved"}},
    {"bgp", bgp_lsping_info_strerr,
     {"Requested FEC not found", "Requested routing-instance not found",
      "FEC information was successfully retrieved"}},
    {"vpn", vpn_lsping_info_strerr,
     {"VPN not found", "Requested prefix not found in this VPN's table",
      "No nexthop information available for this prefix",
      "This prefix was not learnt from a remote site",
      "The nexthop for this prefix is not resolved",
      ("During graceful restart, cannot retrieve all the information necessary for issuing a "
      "l3vpn lsping"),
      "Route distinguisher and nexthop information were successfully retrieved"}},
    {"l2ckt", l2ckt_lsping_info_strerr,
     {"Requested connection is not found", "Requested connection is down",
      "Requested connection is not remote", "Requested route not found",
      "No nexthop information available for this connection",
      "The nexthop for this prefix is not resolved",
      ("During graceful restart, cannot retrieve all the information necessary for issuing a "
      "l2ckt lsping"),
      "Can't ping as there are more than 5 labels to push",
      "Encapsulation type and nexthop information were successfully retrieved"}},
    {"l2vpn", l2vpn_lsping_info_strerr,
     l2vpn("Local site is not found", "Remote site is not found")},
    {"l2vpn_fec129", l2vpn_fec129_lsping_info_strerr,
     l2vpn("SAI is not found", "TAI is not found")},
    {"lspmon", rsvp_lspmon_info_strerr,
     {"Requested LSP not found", "Requested LSP is down",
      "LSP information was successuly retrieved"}},
    {"static", static_lsp_info_strerr,
     {"Requested static LSP not found", "Requested static LSP is down",
      "Static LSP information was successuly retrieved"},
     "Unknown return value for static LSP"},
    {"endpt", endpt_lsping_info_strerr,
     {"BGP or LDP or RSVP route to prefix not found", "Requested routing-instance not found",
      "Route information was successfully retrieved"}},
};

TEST(LspingStrerr, EveryTableWhole)
{
    for (const Kind &k : kKinds) {
        SCOPED_TRACE(k.name);
        for (size_t i = 0; i < k.texts.size(); ++i)
            EXPECT_EQ(k.fn(static_cast<int>(i + 1)), k.texts[i]) << "code " << i + 1;
        const int n = static_cast<int>(k.texts.size());
        for (int code : {0, -1, n + 1, 1 << 30}) EXPECT_STREQ(k.fn(code), k.unknown) << code;
    }
}

// The success code of each kind names its "retrieved" text.
TEST(LspingStrerr, SuccessCodesNameTheSuccessText)
{
    const std::pair<const char *(*)(int), int> ok[] = {
        {rsvp_lsping_info_strerr, TARN_LSPING_RSVP_OK},
        {ldp_lsping_info_strerr, TARN_LSPING_LDP_OK},
        {bgp_lsping_info_strerr, TARN_LSPING_BGP_OK},
        {vpn_lsping_info_strerr, TARN_LSPING_VPN_OK},
        {l2ckt_lsping_info_strerr, TARN_LSPING_L2CKT_OK},
        {l2vpn_lsping_info_strerr, TARN_LSPING_L2VPN_OK},
        {rsvp_lspmon_info_strerr, TARN_LSPING_LSPMON_OK},
        {static_lsp_info_strerr, TARN_LSPING_STATIC_OK},
        {endpt_lsping_info_strerr, TARN_LSPING_ENDPT_OK},
    };
    for (const auto &[fn, code] : ok) {
        const std::string t = fn(code);
        EXPECT_TRUE(t.find("successfully retrieved") != std::string::npos ||
                    t.find("successuly retrieved") != std::string::npos)
            << t;
    }
}

}  // namespace
