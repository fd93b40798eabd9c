// IPsec policies: those of a record's tunnel, and those that bypass it.
#include "IpsecTest.h"

using namespace wire;
using namespace wire::ipsec;

static const LoggedBy kSel = xfrm("setXFRMSel"), kText = xfrm("setXFRMAddress");
static LogLine source(const char* text, unsigned prefix)
{
    return kSel.detail("%s()\t..sel.saddr = %s/%u\n", text, prefix);
}

static LogLine destination(const char* text, unsigned prefix)
{
    return kSel.detail("%s()\t..sel.daddr = %s/%u\n", text, prefix);
}

static LogLine protocol(unsigned number)
{
    return kSel.detail("%s()\t..sel.proto = %u\n", number);
}

static std::string policy(const XfrmSelector& sel, int dir, int priority)
{
    return std::string(XfrmUserpolicyInfo{.sel = sel, .lft = XFRM_INF, .priority = priority, .dir = dir});
}

static std::string deletes(const XfrmSelector& sel, int dir)
{
    return message(XFRM_MSG_DELPOLICY, kAck, {XfrmUserpolicyId{.sel = sel, .dir = dir}});
}

TEST(Policies, SteerASelectorIntoATemplate)
{
    const LoggedBy all = xfrm("addXFRMPolicies"), one = xfrm("addXFRMPolicy"), tmpl = xfrm("setXFRMTmpl");
    const LogLine out   = all.notice("inserting output XFRM policy\n"),
                  noOut = all.failure("setting outgoing XFRM policy failed\n");
    const LogLine in = all.notice("inserting input XFRM policy\n"), fwd = all.notice("inserting forward XFRM policy\n");
    const Log exists  = denied(one.failure("sending XFRM policy failed\n"));
    const auto family = [&](const char* suffix) { return tmpl.detail("%s(): \t..tmpl.family = AF_INET%s\n", suffix); };
    const auto adds   = [](int dir, const char* saddr, const char* daddr, unsigned spi, int ofSource) {
        return message(XFRM_MSG_NEWPOLICY, kAck,
                         {policy(selector("10.0.0.0", 8, "10.1.0.0", 16, 17), dir, 100),
                        attr(XFRMA_TMPL, XfrmUserTmpl{.daddr  = daddr,
                                                        .spi    = spi,
                                                        .proto  = IPPROTO_ESP,
                                                        .family = ofSource,
                                                        .saddr  = saddr,
                                                        .mode   = XFRM_MODE_TUNNEL,
                                                        .algos  = 0xffffffff})});
    };
    const auto add = [](bool outbound, Change change = same, const char* from = "10.0.0.0/8") {
        return Operation(addXFRMPolicies, v4(change), from, "10.1.0.0/16", 17, outbound);
    };

    check({.call  = add(true),
           .sends = {adds(XFRM_POLICY_OUT, kHere, kPeer, kTxSpi, AF_INET)},
           .log   = {out, source("10.0.0.0/8", 8), destination("10.1.0.0/16", 16), protocol(17), identity(kTxSpi),
                     family(""), kAcked}});
    check({.what  = "addresses of no family",
           .call  = add(true,
                        [](Record& r) {
                           r.local_addr.ip_type  = 5;
                           r.remote_addr.ip_type = 7;
                       }),
           .sends = {adds(XFRM_POLICY_OUT, "", "", kTxSpi, 0)},
           .log   = {out, source("10.0.0.0/8", 8), destination("10.1.0.0/16", 16), protocol(17),
                     identity(kTxSpi, {noAddress(5), noAddress(7)}), family("6"), kAcked}});
    check({.what  = "in, then fwd; the family of the source counts",
           .call  = add(false, [](Record& r) { r.remote_addr = modemAddress(kPeer6); }),
           .sends = {adds(XFRM_POLICY_IN, kPeer6, kHere, kRxSpi, AF_INET6),
                     adds(XFRM_POLICY_FWD, kPeer6, kHere, kRxSpi, AF_INET6)},
           .steps = {in, kAcked, fwd, kAcked}});
    refused({.call = add(true), .steps = {out, exists, noOut}});
    refused({.call = add(false), .steps = {in, exists, all.failure("inserting incoming XFRM policy failed")}});
    refused({.what    = "in stays",
             .answers = {{}, {refusal(-EPERM)}},
             .call    = add(false),
             .steps   = {in, kAcked, fwd, exists, all.failure("inserting forwarding XFRM policy failed\n")}});

    rejects({.what  = "the template is added first; without it nothing is sent",
             .given = failing(Call::Allocate, 0),
             .call  = add(true),
             .error = ENOMEM,
             .steps = {out, core("addNLAttribute").failure("adding attribute of type %d failed", XFRMA_TMPL),
                       one.failure("sending XFRM policy failed\n"), noOut}});
    const Log noTemplate{one.failure("setting policy templace failed\n"), noOut};
    rejects({.call  = add(true, same, "nonsense"),
             .steps = {out, kText.failure("invalid IPv4 address %s\n", "nonsense"),
                       kSel.failure("setting selector source address failed\n"),
                       one.failure("setting policy selector failed\n"), noOut}});
    rejects({.call  = add(true, [](Record& r) { r.spi_tx_valid = r.encap_mode_valid = 0; }),
             .steps = {out, kId.failure("%s SPI value is marked as invalid\n", "TX"),
                       tmpl.failure("setting template ID failed\n"), noTemplate}});
    rejects({.call  = add(true, [](Record& r) { r.encap_mode = 0; }),
             .steps = {out, kMode.failure("invalid XFRM mode 0x%x\n", 0),
                       tmpl.failure("setting templade mode failed\n"), noTemplate}});
}

TEST(Policies, AreRemovedBySelectorAndDirection)
{
    const LoggedBy all = xfrm("removeXFRMPolicies"), one = xfrm("removeXFRMPolicy");
    const LogLine out   = all.notice("removing output XFRM policy\n"),
                  noOut = all.failure("removing outgoing XFRM policy failed\n");
    const LogLine in = all.notice("removing input XFRM policy\n"), fwd = all.notice("removing forward XFRM policy\n");
    const Log missing = denied(one.failure("sending XFRM policy delete failed\n"));
    const auto remove = [](const std::string& from, const std::string& to, unsigned char proto, bool outbound) {
        return Operation(removeXFRMPolicies, from, to, proto, outbound);
    };
    const auto selects = [&](const std::string& from, const std::string& to, const XfrmSelector& sel, const Log& log,
                             int line = __builtin_LINE()) {
        check({.what  = from.c_str(),
               .call  = remove(from, to, 0, true),
               .sends = {deletes(sel, XFRM_POLICY_OUT)},
               .log   = {out, log, kAcked}},
              __FILE__, line);
    };
    const char* ten = "10.0.0.0";

    selects("10.0.0.0/8", "", selector(ten, 8, "", 0), source("10.0.0.0/8", 8));
    selects("", "fe80::1", selector("", 0, "fe80::1", 128, 0, AF_INET6), destination("fe80::1", 128));
    selects("192.0.2.1", "fe80::/0x40",
            selector("192.0.2.1", 32, "fe80::", 64, 0, AF_INET6), // the destination's family stays
            {source("192.0.2.1", 32), destination("fe80::/0x40", 64)});
    selects("10.0.0.0/010", "10.0.0.0/300", selector(ten, 8, ten, 44), // octal; the low 8 bits
            {source("10.0.0.0/010", 8), destination("10.0.0.0/300", 44)});
    selects("10.0.0.0/x", "10.0.0.0/9/7", selector(ten, 0, ten, 9), // no number; a second slash
            {source("10.0.0.0/x", 0), destination("10.0.0.0/9/7", 9)});
    const std::string cut = "10.0.0.0/" + std::string(53, '0') + "17"; // 64 characters, the last one is cut off
    selects(cut, "10.0.0.0/1:2", selector(ten, 1, ten, 1), {source(cut.c_str(), 1), destination("10.0.0.0/1:2", 1)});

    check({.what  = "in, then fwd, of one protocol",
           .call  = remove("10.0.0.0", "", 17, false),
           .sends = {deletes(selector(ten, 32, "", 0, 17), XFRM_POLICY_IN),
                     deletes(selector(ten, 32, "", 0, 17), XFRM_POLICY_FWD)},
           .steps = {in, kAcked, fwd, kAcked}});
    const Log noSelector{one.failure("setting policy selector failed\n"), noOut};
    rejects({.call  = remove("", "", 17, true),
             .steps = {out, kSel.failure("selector must have either source or destination\n"), noSelector}});
    rejects({.call  = remove("10.0.0.1", "host:name/64", 0, true),
             .steps = {out, kText.failure("invalid IPv6 address %s\n", "host:name"),
                       kSel.failure("setting selector destination address failed\n"), noSelector}});
    refused({.call = remove(ten, "", 0, true), .steps = {out, missing, noOut}});
    refused({.call  = remove(ten, "", 0, false),
             .steps = {in, missing, all.failure("removing incoming XFRM policy failed")}});
    refused({.what    = "in is gone",
             .answers = {{}, {refusal(-EPERM)}},
             .call    = remove(ten, "", 0, false),
             .steps   = {in, kAcked, fwd, missing, all.failure("removing forwarding XFRM policy failed\n")}});
}

TEST(Policies, LetLinkLocalICMPv6Bypass)
{
    const XfrmSelector sel = selector("", 0, "fe80::", 64, IPPROTO_ICMPV6, AF_INET6);
    const Log selected{destination("fe80::/64", 64), protocol(58)};

    check({.call  = {addXFRMPolicyEx, 2},
           .sends = {message(XFRM_MSG_NEWPOLICY, kAck, {policy(sel, 2, 10)})},
           .log   = {selected, kAcked}});
    check({.call = {removeXFRMPolicyEx, 2}, .sends = {deletes(sel, 2)}, .log = {selected, kAcked}});
    refused({.what  = "any direction is sent",
             .call  = {addXFRMPolicyEx, 3},
             .sends = {message(XFRM_MSG_NEWPOLICY, kAck, {policy(sel, 3, 10)})},
             .steps = denied(xfrm("addXFRMPolicyEx").failure("sending XFRM policy failed\n"))});
}
