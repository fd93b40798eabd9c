// All but IPsec on a real kernel; compared with what `ip` and `tc` show.
#include <RealKernel.h>
#include <vesk/netlink.h>

#include <gtest/gtest.h>

#include <Expectations.h>

#include <cerrno>

#include <linux/rtnetlink.h>
#include <net/if.h>

using namespace Vesk;
using namespace Vesk::Testing;

TEST(Kernel, NumbersAFamily)
{
    LogCapture log;
    std::string controller = "nlctrl", unknown = "no such family";
    unsigned short id = 0;
    EXPECT_EQ(queryGenericNetlinkFamily(controller, 2, &id), 0);
    EXPECT_EQ(id, 16);
    EXPECT_EQ(failures(log), "");
    EXPECT_EQ(reason(queryGenericNetlinkFamily(unknown, 2, &id)), ENOENT);
    EXPECT_EQ(id, 16);
    EXPECT_EQ(failures(log),
              "messageQuery(): kernel reports error -2\nqueryGenericNetlinkFamily(): Netlink query failed\n");
}

// The kernel's text is found when the last 12 bytes of the request are whole attributes.
TEST(Kernel, ExplainsARefusal)
{
    ifinfomsg loopback = {};
    loopback.ifi_index = 1;
    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK);
    msg.addMsgPayload(sizeof loopback, &loopback);
    msg.addNLAttribute(IFLA_UNSPEC, 0, nullptr);
    msg.addNLAttribute(IFLA_MTU, static_cast<unsigned short>(1));

    LogCapture log;
    EXPECT_EQ(reason(msg.messageTransact()), ERANGE);
    EXPECT_EQ(msg.getKernelError(), -ERANGE);
    EXPECT_EQ(failures(log), "messageTransact(): kernel reports error -34\n"
                             "extack(): EXTACK reports Attribute failed policy validation\n");
}

// A kernel sizes the datagrams of this dump by its devices. A hundred names of a hundred characters are longer than any
// receive.
TEST(Kernel, SaysThatAReplyWasCutOff)
{
    const auto names = [](const char* verb) {
        return "seq 100 | xargs printf 'link property " + std::string(verb) +
               " dev lo altname a%099d\\n' | ip -batch -";
    };
    ifinfomsg any = {};
    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP);
    msg.addMsgPayload(sizeof any, &any);
    msg.addNLAttribute(IFLA_EXT_MASK, static_cast<unsigned int>(RTEXT_FILTER_SKIP_STATS));

    output(names("add"));
    LogCapture log;
    EXPECT_EQ(reason(msg.messageDump([](nlmsghdr*, void*) {}, nullptr)), EMSGSIZE);
    EXPECT_NE(failures(log).find("messageDump(): NL reply was cut off at "), std::string::npos);
    output(names("del"));
}

TEST(MainlineRefuses, AddressesOfAnyFamily)
{
    std::string device  = "lo";
    sockaddr_storage v4 = socketAddress("192.0.2.1"), v6 = socketAddress("2001:db8::1");
    for (const int change : {AddressAdd, AddressDeprecate, AddressRenew, AddressAddDeprecated})
        for (sockaddr_storage* address : {&v4, &v6}) {
            const auto how = static_cast<AddressLifetimeChange>(change);
            EXPECT_EQ(reason(RTNetlinkAddressCfg(device, address, 32, how, 60)), EOPNOTSUPP);
        }
    EXPECT_EQ(output("ip address show dev lo").find("192.0.2.1"), std::string::npos);
}

TEST(MainlineRefuses, TheGSOSizeInTwoBytes)
{
    if (!succeeds("ip link add gso0 type dummy"))
        GTEST_SKIP() << "this kernel has no dummy device";
    std::string device = "gso0";
    EXPECT_EQ(reason(RTNetlinkSetGSOMaxSize(device, 16384)), ERANGE);
    EXPECT_NE(output("ip -d link show dev gso0").find("gso_max_size 65536"), std::string::npos);
}

// A device of its own, 192.0.2.1/24, with a default route.
struct OnADevice : testing::Test {
    std::string device = "wan0";
    unsigned int index = 0;

    void SetUp() override
    {
        if (!succeeds("ip link add wan0 type dummy"))
            GTEST_SKIP() << "this kernel has no dummy device";
        output("ip address add 192.0.2.1/24 dev wan0");
        output("ip link set wan0 up");
        output("ip route add default via 192.0.2.254");
        index = if_nametoindex("wan0");
    }
    void TearDown() override { succeeds("ip link del wan0"); }
};
using Routes = OnADevice;
using Qdiscs = OnADevice;

TEST_F(Routes, LeadThroughTheGatewayOfTheirDestination)
{
    LogCapture log;
    ASSERT_EQ(RTNetlinkAddRoute("198.51.100.7", 0, AF_INET, 1234, index), 0);
    EXPECT_EQ(output("ip route show table 1234"),
              "198.51.100.7 via 192.0.2.254 dev wan0 proto static metric 100 advmss 1140 \n");
    output("ip rule add priority 5 lookup 1234");
    EXPECT_NE(output("ip route get 198.51.100.7").find("via 192.0.2.254 dev wan0 table 1234"), std::string::npos);
    output("ip rule del priority 5");
    EXPECT_EQ(failures(log), "");
    EXPECT_EQ(RTNetlinkDeleteRoute("198.51.100.7", 0, AF_INET, 1234, index), 0);
    EXPECT_EQ(output("ip route show table 1234"), "");
    EXPECT_EQ(RTNetlinkDeleteRoute("198.51.100.7", 0, AF_INET, 1234, index), 0) << "nobody waits for the refusal";
}

TEST_F(Routes, AreLookedUpAsTheKernelWould)
{
    const auto looksUp = [](const char* destination, unsigned int mark, unsigned char family, int error,
                            const char* gateway) {
        const RouterAddressResult result = RTNetlinkGetRoute(destination, mark, family);
        EXPECT_EQ(reason(result.status), error) << destination;
        EXPECT_EQ(result.gateway, gateway) << destination;
    };
    output("ip rule add priority 5 fwmark 0x2a lookup 77");
    output("ip route add default via 192.0.2.253 table 77");
    output("ip route add unreachable 203.0.113.0/24");
    output("ip route add 2001:db8:2::/48 via fe80::2 dev wan0");
    LogCapture log;
    looksUp("198.51.100.7", 0, AF_INET, 0, "192.0.2.254");
    looksUp("198.51.100.7", 42, AF_INET, 0, "192.0.2.253");
    EXPECT_EQ(failures(log), "");
    looksUp("192.0.2.7", 0, AF_INET, 0, ""); // on the link
    looksUp("2001:db8:2::1", 0, AF_INET6, 0, "");
    looksUp("203.0.113.1", 0, AF_INET, EHOSTUNREACH, "");
    EXPECT_EQ(failures(log), "getRouterAddress(): Gateway attribute is missing in NEWROUTE message\n"
                             "getRouterAddress(): Gateway attribute is malformed\n"
                             "messageQuery(): kernel reports error -113\nRTNetlinkGetRoute(): Getting routes failed\n");
    output("ip rule del priority 5");
}

TEST(Rules, AreFoundAmongAThousand)
{
    const auto batch = [](const char* verb) {
        return "seq 15500 16500 | grep -v 16000 | sed 's/.*/rule " + std::string(verb) +
               " priority & fwmark & table 1001/' | ip -batch -";
    };
    output(batch("add"));
    LogCapture log;
    EXPECT_EQ(RTNetlinkGetRule("lo"), std::nullopt);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(failures(log), "RTNetlinkGetRule(): Invalid fwmark 0x0000/0x0000 for dev lo\n");
    output("ip rule add priority 16000 fwmark 0x10/0xff table 1001"); // the index of lo is 1
    output("ip rule add priority 16000 fwmark 0x20/0xff table 1002");
    EXPECT_EQ(RTNetlinkGetRule("lo"), (std::pair{0x10u, 0xffu}));
    EXPECT_EQ(errno, 0) << "the dump was whole";
    output("ip rule del priority 16000; ip rule del priority 16000");
    output(batch("del"));
}

TEST(Labels, AreGeneratedAroundWhatIsInstalled)
{
    const auto generates = [] {
        unsigned int label = 0;
        EXPECT_EQ(addrlabelGenerate(AF_INET6, false, &label), 0);
        return label;
    };
    std::vector<sockaddr_storage> prefixes{socketAddress("2001:db8:1::"), socketAddress("2001:db8:2::"),
                                           socketAddress("2001:db8:3::")};
    EXPECT_GE(generates(), 20u) << "above the system's";
    LogCapture log;
    EXPECT_EQ(addrlabelAdd(&prefixes[0], 64, 22, 1), 0);
    EXPECT_NE(output("ip addrlabel").find("prefix 2001:db8:1::/64 dev lo label 22"), std::string::npos);
    EXPECT_EQ(failures(log), "");
    EXPECT_EQ(generates(), 21u);
    EXPECT_EQ(addrlabelAdd(&prefixes[1], 64, 21, 1), 0);
    EXPECT_EQ(generates(), 20u);
    EXPECT_EQ(addrlabelAdd(&prefixes[2], 64, 20, 1), 0);
    EXPECT_GE(generates(), 22u) << "no gap is left";
    for (unsigned int i = 0; i < 3; ++i)
        EXPECT_EQ(addrlabelDel(&prefixes[i], 64, 22 - i, 1), 0);
}

TEST(Labels, ArePurgedWithTheirCompanionsAndNobodyElse)
{
    const auto add = [](const char* text, unsigned int prefix, unsigned int label, unsigned int device) {
        sockaddr_storage address = socketAddress(text);
        EXPECT_EQ(addrlabelAdd(&address, prefix, label, device), 0) << text;
    };
    const std::string before = output("ip addrlabel");
    add("2001:db8:1::", 64, 4711, 1), add("2001:db8:2::", 64, 4711, 1);                                   // go
    add("2001:db8:3::", 64, 4712, 1), add("2001:db8:4::", 64, 4711, 0), add("2001:db8:5::", 48, 4711, 1); // stay
    sockaddr_storage address = socketAddress("2001:db8:1::");
    EXPECT_EQ(addrlabelPurge(&address, 64, 1), 0);
    EXPECT_EQ(output("ip addrlabel | grep -o '2001:db8:[0-9]::/.*' | sort"),
              "2001:db8:3::/64 dev lo label 4712 \n2001:db8:4::/64 label 4711 \n2001:db8:5::/48 dev lo label 4711 \n");
    for (const auto& [text, prefix, device] : {std::tuple("2001:db8:3::", 64u, 1u), std::tuple("2001:db8:4::", 64u, 0u),
                                               std::tuple("2001:db8:5::", 48u, 1u)}) {
        address = socketAddress(text);
        EXPECT_EQ(addrlabelPurge(&address, prefix, device), 0);
    }
    EXPECT_EQ(output("ip addrlabel"), before);
}

// More than a kernel puts into two datagrams, of 8 KiB at most.
TEST(Labels, AreGeneratedAndPurgedAmongThreeHundred)
{
    const auto batch = [](const char* verb) {
        return "seq 21 320 | sed 's|.*|addrlabel " + std::string(verb) +
               " prefix 2001:db8:&::/64 dev lo label &|' | ip -batch -";
    };
    const std::string before = output("ip addrlabel");
    sockaddr_storage first = socketAddress("2001:db8:1000::"), last = socketAddress("2001:db8:2000::");
    EXPECT_EQ(addrlabelAdd(&first, 64, 20, 1), 0);
    output(batch("add"));
    EXPECT_EQ(addrlabelAdd(&last, 64, 322, 1), 0);
    unsigned int label = 0;
    EXPECT_EQ(addrlabelGenerate(AF_INET6, false, &label), 0);
    EXPECT_EQ(label, 321u) << "the only gap";
    for (sockaddr_storage* address : {&first, &last})
        EXPECT_EQ(addrlabelPurge(address, 64, 1), 0);
    output(batch("del"));
    EXPECT_EQ(output("ip addrlabel"), before);
}

TEST_F(Qdiscs, OfAnyKindAreInstalledAndRemoved)
{
    for (std::string kind : {"fq_codel", "pfifo", "sfq"}) {
        EXPECT_EQ(RTNetlinkTCQdisc(device, kind, 0, 0x10000, 0), 0);
        EXPECT_NE(output("tc qdisc show dev wan0").find("qdisc " + kind + " 1: root"), std::string::npos) << kind;
        EXPECT_EQ(RTNetlinkTCQdisc(device, kind, 0, 0x10000, 1), 0);
        EXPECT_EQ(output("tc qdisc show dev wan0").find(kind), std::string::npos);
    }
}

// Its options are the platform's own.
TEST_F(Qdiscs, OfThePlatformAreRefusedByMainline)
{
    EXPECT_EQ(reason(RTNetlinkTCPrio(device, 0, 0x10000, 0)), EINVAL);
    EXPECT_EQ(reason(RTNetlinkFlowControl(device, 0, 0x10000, 1, 0)), EINVAL);
    output("tc qdisc add dev wan0 root handle 1: prio");
    EXPECT_EQ(reason(RTNetlinkFlowControl(device, 0, 0x10000, 0, 2)), EINVAL);
    EXPECT_EQ(RTNetlinkTCPrio(device, 0, 0x10000, 1), 0) << "deleting needs no options";
}
