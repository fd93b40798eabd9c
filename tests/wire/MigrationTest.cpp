// The migration of IPsec states and policies to another local address.
#include "IpsecTest.h"

using namespace wire;
using namespace wire::ipsec;

static const LoggedBy kAll = xfrm("migrateXFRMInfo"), kOne = xfrm("migrateOneXFRM");
static const LogLine kOut   = kAll.notice("migrating outgoing XFRM info\n"),
                     kIn    = kAll.notice("migrating incoming XFRM info\n");
static const LogLine kFwd   = kAll.notice("migrating forwarding XFRM info\n");
static const LogLine kNoOut = kAll.failure("migrating TX XFRM info failed\n"),
                     kNoIn  = kAll.failure("migrating RX XFRM info failed\n"),
                     kNoFwd = kAll.failure("migrating FWD XFRM info failed\n");
static const Log kNo        = denied(kOne.failure("sending XFRM migration failed\n"));

static Operation migrate(const Record& before, const Record& after, const char* local = "10.0.0.0/8")
{
    return Operation(migrateXFRMInfo, before, after, local, "10.1.0.0/16", 17);
}

struct Address {
    const char* text;
    int family;
};

static std::string migrates(int dir, const char* peer, Address from, Address to, int proto, int mode,
                            const std::string& more = "")
{
    const bool out = dir == XFRM_POLICY_OUT;
    const XfrmSelector sel =
        out ? selector("10.0.0.0", 8, "10.1.0.0", 16, 17) : selector("10.1.0.0", 16, "10.0.0.0", 8, 17);
    const XfrmUserMigrate entry{.old_daddr  = out ? peer : from.text,
                                .old_saddr  = out ? from.text : peer,
                                .new_daddr  = out ? peer : to.text,
                                .new_saddr  = out ? to.text : peer,
                                .proto      = proto,
                                .mode       = mode,
                                .old_family = from.family,
                                .new_family = to.family};
    return message(XFRM_MSG_MIGRATE, kAck,
                   {XfrmUserpolicyId{.sel = sel, .dir = dir}, attr(XFRMA_MIGRATE, entry) + more});
}

TEST(Migration, MovesTheLocalAddressAndBackWhenItFails)
{
    const Record before = v4([](Record& r) {
        r.ipsec_protocol = r.encap_mode = 2;
        r.remote_addr.addr[4]           = 9;
    }); // the 4 bytes before it count
    Record after = before, unread = before;
    after.local_addr           = modemAddress("fe80::9");
    after.remote_addr          = modemAddress(kPeer);
    after.remote_addr.addr_len = 9;
    inUdp(after);
    unread.encap_mode_valid = 0;

    const auto there = [](int dir) {
        const bool out = dir == XFRM_POLICY_OUT;
        const XfrmEncapTmpl ports{
            .encap_type = 2, .encap_sport = out ? 0x1234 : 4500, .encap_dport = out ? 4500 : 0x1234};
        return migrates(dir, kPeer, {kHere, AF_INET}, {"fe80::9", AF_INET6}, IPPROTO_AH, XFRM_MODE_TRANSPORT,
                        '|' + attr(XFRMA_ENCAP, ports));
    };
    const auto back = [](int dir) {
        return migrates(dir, kPeer, {"fe80::9", AF_INET6}, {kHere, AF_INET}, IPPROTO_AH, XFRM_MODE_TRANSPORT);
    };
    const std::string out = there(XFRM_POLICY_OUT), in = there(XFRM_POLICY_IN), fwd = there(XFRM_POLICY_FWD);
    const std::vector<Reply> no{refusal(-EPERM)};
    const Check fails({.call = migrate(before, after), .result = -1, .error = EPERM}, NETLINK_XFRM);
    const std::vector<Reply> gone{refusal(-ESRCH)};
    const Log noneThere = refusedBy(-ESRCH, kOne.failure("sending XFRM migration failed\n"));

    check({.what  = "three directions; the mode is that of the new record",
           .call  = migrate(unread, after),
           .sends = {out, in, fwd},
           .steps = {kOut, kAcked, kIn, kAcked, kFwd, kAcked}});
    fails({.what = "out fails: nothing to move back", .answers = {no}, .sends = {out}, .steps = {kOut, kNo, kNoOut}});
    fails({.what    = "in fails: out is moved back, which fails too",
           .answers = {{}, no, gone},
           .sends   = {out, in, back(XFRM_POLICY_OUT)},
           .steps   = {kOut, kAcked, kIn, kNo, kNoIn, kNoEncap, noneThere,
                       kAll.failure("rolling back TX XFRM migration failed\n")}});
    fails({.what    = "fwd fails: in, which fails too, and out are moved back",
           .answers = {{}, {}, no, gone},
           .sends   = {out, in, fwd, back(XFRM_POLICY_IN), back(XFRM_POLICY_OUT)},
           .steps   = {kOut, kAcked, kIn, kAcked, kFwd, kNo, kNoFwd, kNoEncap, noneThere,
                       kAll.failure("rolling back RX XFRM migration failed\n"), kNoEncap, kAcked}});
}

TEST(Migration, SendsAnAddressOfNoFamilyAsZeros)
{
    const Address here{kHere6, AF_INET6}, none{"", 0};
    const auto sends = [](int dir, const char* peer, Address from, Address to) {
        return migrates(dir, peer, from, to, IPPROTO_ESP, XFRM_MODE_TUNNEL);
    };
    const Log step{noAddress(5), kNoEncap};
    refused({.what    = "and back, where the peer is that of the record that it comes from, as far as it reaches",
             .answers = {{}, {}, {refusal(-EPERM)}},
             .call    = migrate(v6(), v6([](Record& r) {
                                 r.local_addr.ip_type   = 5;
                                 r.remote_addr.addr_len = 8;
                             })),
             .sends   = {sends(XFRM_POLICY_OUT, kPeer6, here, none), sends(XFRM_POLICY_IN, kPeer6, here, none),
                         sends(XFRM_POLICY_FWD, kPeer6, here, none), sends(XFRM_POLICY_IN, "fe80::", none, here),
                         sends(XFRM_POLICY_OUT, "fe80::", none, here)},
             .steps   = {kOut, step, kAcked, kIn, step, kAcked, kFwd, step, kNo, kNoFwd, step, kAcked, step, kAcked}});
}

TEST(Migration, RefusesOtherChanges)
{
    const auto refuses = [](Change change, const Log& log, const Record& before = v4(), int line = __builtin_LINE()) {
        Record after = before;
        change(after);
        rejects({.call = migrate(before, after), .steps = log}, __FILE__, line);
    };
    const LogLine peer = kAll.failure("remote address has changed\n");

    refuses([](Record& r) { r.encap_mode = r.ipsec_protocol = r.remote_addr.ip_type = 2; },
            kAll.failure("XFRM mode has changed\n"));
    refuses([](Record& r) { r.ipsec_protocol = r.remote_addr.ip_type = 2; },
            kAll.failure("XFRM protocol has changed\n"));
    refuses([](Record& r) { r.remote_addr.addr[3] ^= 1; }, peer);
    refuses([](Record& r) { r.remote_addr.ip_type = 6; }, peer);
    refuses(same, peer, v4([](Record& r) { r.remote_addr.ip_type = 5; }));
    refuses([](Record& r) { r.remote_addr.addr[15] ^= 1; }, peer, v6([](Record& r) { r.remote_addr.addr_len = 8; }));
    for (const unsigned protocol : {0x102u, 0x103u}) { // the whole value counts
        Record record         = v4();
        record.ipsec_protocol = protocol;
        refuses(same, {kOut, kOne.failure("invalid IPSEC protocol %d\n", protocol), kNoOut}, record);
    }
    refuses(
        same,
        {kOut, kMode.failure("invalid XFRM mode 0x%x\n", 0), kOne.failure("setting XFRM state mode failed\n"), kNoOut},
        v4([](Record& r) { r.encap_mode = 0; }));
    rejects({.call  = migrate(v4(), v4(), "nonsense"),
             .steps = {kOut, kNoEncap, xfrm("setXFRMAddress").failure("invalid IPv4 address %s\n", "nonsense"),
                       xfrm("setXFRMSel").failure("setting selector source address failed\n"),
                       kOne.failure("setting policy selector failed\n"), kNoOut}});
}
