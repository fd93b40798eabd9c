// The errors that the header lists for an operation, from a kernel: `./dev docs` compares the two. A row of error 0
// leads to the next.
#include <RealKernel.h>
#include <vesk/netlink.h>

#include <gtest/gtest.h>

#include <Expectations.h>
#include <Records.h>

#include <cerrno>
#include <functional>

#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>

using namespace Vesk;
using namespace Vesk::Testing;

struct Row {
    const char* operation;
    int error;
    std::function<int()> call;
};

static void check(std::initializer_list<Row> rows)
{
    for (const Row& row : rows) {
        errno           = 0;
        const int error = reason(row.call());
        EXPECT_EQ(error, row.error) << row.operation << ", row " << &row - rows.begin() + 1;
    }
}

static NetlinkMessage& getLink(NetlinkMessage& msg)
{
    ifinfomsg loopback = {};
    loopback.ifi_index = 1;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETLINK, NLM_F_REQUEST);
    msg.addMsgPayload(sizeof loopback, &loopback);
    return msg;
}

static int query(VeskNetlinkQueryReturn verdict)
{
    NetlinkMessage msg;
    return getLink(msg).messageQuery(
        [](nlmsghdr*, void* given) { return *static_cast<VeskNetlinkQueryReturn*>(given); }, &verdict, true);
}

TEST(Errors, OfRequests)
{
    const LogCapture log;
    NetlinkMessage closed, sent;
    check({{"messageSend", EBADF, [&] { return closed.messageSend(); }},
           {"messageTransact", 0, [&] { return getLink(sent).messageTransact(); }},
           {"messageSend", EMSGSIZE, [&] { return sent.messageSend(); }},
           {"messageQuery", EINVAL, [] { return NetlinkMessage().messageQuery(nullptr, nullptr, true); }},
           {"messageQuery", ECANCELED, [] { return query(NetlinkQueryFailed); }},
           {"messageQuery", ENOENT, [] { return query(NetlinkQueryContinue); }},
           {"messageDump", EINVAL, [] { return NetlinkMessage().messageDump(nullptr, nullptr); }}});
}

TEST(Errors, OfFamiliesRoutesAndLabels)
{
    const LogCapture log;
    ASSERT_TRUE(enterOwnNetwork());
    if (!succeeds("ip link add wan0 type dummy"))
        GTEST_SKIP() << "this kernel has no dummy device";
    output("ip address add 192.0.2.1/24 dev wan0 && ip link set wan0 up && ip route add default via 192.0.2.254");
    output("ip route add unreachable 203.0.113.1 && ip route add prohibit 203.0.113.2");
    output("ip route add blackhole 203.0.113.3");
    const unsigned int index = if_nametoindex("wan0");
    std::string device       = "wan0";
    sockaddr_storage v4 = socketAddress("192.0.2.9"), v6 = socketAddress("2001:db8::1");
    unsigned int label = 0;

    const auto family = [](std::string name) {
        unsigned short id = 0;
        return queryGenericNetlinkFamily(name, 2, &id);
    };
    const auto gateway = [](const char* to) { return RTNetlinkGetRoute(to, 0, AF_INET).status; };
    const auto add     = [](const char* to, unsigned int by) { return RTNetlinkAddRoute(to, 0, AF_INET, 1234, by); };
    const auto qdisc   = [&](std::string kind, unsigned char operation) {
        return RTNetlinkTCQdisc(device, kind, 0, 0x10000, operation);
    };
    const auto flow = [&](unsigned int handle, unsigned char operation) {
        return RTNetlinkFlowControl(device, 0, handle, 1, operation);
    };
    check({{"queryGenericNetlinkFamily", ENOENT, [=] { return family("nobody"); }},
           {"queryGenericNetlinkFamily", EINVAL, [=] { return family("sixteencharacter"); }},
           {"queryGenericNetlinkFamily", ERANGE,
            [=] {
                return family({"fifteencharacte\0x", 17});
            }},
           {"RTNetlinkAddressCfg", EOPNOTSUPP, [&] { return RTNetlinkAddressCfg(device, &v4, 24, AddressAdd, 0); }},
           {"RTNetlinkSetGSOMaxSize", ERANGE, [&] { return RTNetlinkSetGSOMaxSize(device, 16384); }},
           {"RTNetlinkGetRoute", ENETUNREACH, [] { return RTNetlinkGetRoute("2001:db8::1", 0, AF_INET6).status; }},
           {"RTNetlinkGetRoute", EHOSTUNREACH, [=] { return gateway("203.0.113.1"); }},
           {"RTNetlinkGetRoute", EACCES, [=] { return gateway("203.0.113.2"); }},
           {"RTNetlinkGetRoute", EINVAL, [=] { return gateway("203.0.113.3"); }},
           {"RTNetlinkAddRoute", 0, [=] { return add("198.51.100.7", index); }},
           {"RTNetlinkAddRoute", EEXIST, [=] { return add("198.51.100.7", index); }},
           {"RTNetlinkAddRoute", ENOENT, [=] { return add("192.0.2.77", index); }},
           {"RTNetlinkAddRoute", ENETUNREACH, [=] { return add("198.51.100.8", 999); }},
           {"RTNetlinkDeleteRoute", ENOENT, [=] { return RTNetlinkDeleteRoute("192.0.2.77", 0, AF_INET, 1, index); }},
           {"RTNetlinkGetRule", ENOENT, [] { return RTNetlinkGetRule("wan0") ? 0 : -1; }},
           {"RTNetlinkTCQdisc", EINVAL, [=] { return qdisc("fq_codel", 1); }},
           {"RTNetlinkTCQdisc", ENOENT, [=] { return qdisc("nobody", 0); }},
           {"RTNetlinkTCPrio", EINVAL, [&] { return RTNetlinkTCPrio(device, 0, 0x10000, 0); }},
           {"RTNetlinkFlowControl", EINVAL, [=] { return flow(0x10000, 0); }},
           {"RTNetlinkFlowControl", ENOENT, [=] { return flow(0x10000, 2); }},
           {"RTNetlinkTCQdisc", 0, [=] { return qdisc("pfifo", 0); }},
           {"RTNetlinkTCQdisc", EEXIST, [=] { return qdisc("pfifo", 0); }},
           {"RTNetlinkFlowControl", EEXIST, [=] { return flow(0x20000, 2); }},
           {"addrlabelAdd", 0, [&] { return addrlabelAdd(&v6, 64, 22, 1); }},
           {"addrlabelAdd", EEXIST, [&] { return addrlabelAdd(&v6, 64, 23, 1); }},
           {"addrlabelAdd", EINVAL, [&] { return addrlabelAdd(&v6, 129, 22, 1); }},
           {"addrlabelAdd", EOPNOTSUPP, [&] { return addrlabelAdd(&v4, 32, 22, 1); }},
           {"addrlabelDel", ESRCH, [&] { return addrlabelDel(&v6, 65, 22, 1); }},
           {"addrlabelGenerate", EOPNOTSUPP, [&] { return addrlabelGenerate(AF_INET, false, &label); }},
           {"addrlabelPurge", EOPNOTSUPP, [&] { return addrlabelPurge(&v4, 32, 1); }},
           {"addrlabelPurge", EINVAL, [&] { return addrlabelPurge(&v6, 64, 999); }},
           {"addrlabelPurge", ESRCH, [&] { return output("ip addrlabel flush"), addrlabelPurge(&v6, 64, 1); }},
           {"addrlabelAdd", 0, [&] { return addrlabelAdd(&v6, 64, 0x80000000, 1); }},
           {"addrlabelGenerate", ENOSPC, [&] { return addrlabelGenerate(AF_INET6, false, &label); }}});
}

TEST(Errors, OfIPsec)
{
    const LogCapture log;
    ASSERT_TRUE(enterOwnNetwork());
    auto record = espTunnel("192.0.2.1", "198.51.100.7"), moved = espTunnel("192.0.2.9", "198.51.100.7");
    auto inUdp = record, another = espTunnel("192.0.2.1", "198.51.100.8");
    inUdp.udp_encap_port_valid = inUdp.udp_encap_valid = inUdp.udp_encap = 1;
    std::string here = "10.0.0.0/8", there = "10.1.0.0/16", tooLong = "10.0.0.0/33";

    const auto states  = [](auto operation, auto& of) { return operation(of, {}, 0, 0); };
    const auto policy  = [&](std::string& source) { return addXFRMPolicies(record, source, there, 0, true); };
    const auto migrate = [&](auto& from, auto& to) { return migrateXFRMInfo(from, to, here, there, 0); };
    check({{"migrateXFRMInfo", EINVAL, [&] { return migrate(record, another); }},
           {"migrateXFRMInfo", ENOENT, [&] { return migrate(record, moved); }},
           {"removeXFRMPolicies", ENOENT, [&] { return removeXFRMPolicies(here, there, 0, true); }},
           {"addXFRMPolicies", EINVAL, [&] { return policy(tooLong); }},
           {"addXFRMPolicies", 0, [&] { return policy(here); }},
           {"addXFRMPolicies", EEXIST, [&] { return policy(here); }},
           {"migrateXFRMInfo", ENODATA, [&] { return migrate(moved, record); }},
           {"addXFRMPolicyEx", EINVAL, [] { return addXFRMPolicyEx(3); }},
           {"addXFRMPolicyEx", 0, [] { return addXFRMPolicyEx(XFRM_POLICY_IN); }},
           {"addXFRMPolicyEx", EEXIST, [] { return addXFRMPolicyEx(XFRM_POLICY_IN); }},
           {"removeXFRMPolicyEx", EINVAL, [] { return removeXFRMPolicyEx(3); }},
           {"removeXFRMPolicyEx", ENOENT, [] { return removeXFRMPolicyEx(XFRM_POLICY_OUT); }}});

    if (states(addXFRMStates, record) != 0) { // a kernel without ESP, or without an algorithm
        EXPECT_TRUE(errno == EPROTONOSUPPORT || errno == ENOSYS || errno == ENOENT) << errno;
        return;
    }
    check({{"addXFRMStates", EEXIST, [&] { return states(addXFRMStates, record); }},
           {"updateXFRMStates", EINVAL, [&] { return states(updateXFRMStates, inUdp); }},
           {"updateXFRMStates", ESRCH, [&] { return states(updateXFRMStates, another); }},
           {"addXFRMStates", EINVAL, [&] { return another.crypto_key_tx_len = 15, states(addXFRMStates, another); }},
           {"removeXFRMStates", 0, [&] { return removeXFRMStates(record); }}});
}
