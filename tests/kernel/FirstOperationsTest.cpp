// Families, labels, and what mainline kernels refuse.
#include <RealKernel.h>
#include <vesk/netlink.h>

#include <gtest/gtest.h>

#include <Expectations.h>

#include <cerrno>

#include <linux/rtnetlink.h>

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
    EXPECT_EQ(queryGenericNetlinkFamily(unknown, 2, &id), -1);
    EXPECT_EQ(id, 16);
    EXPECT_EQ(failures(log), "messageQuery(): kernel reports error -2\nqueryGenericNetlinkFamily(): Netlink query failed\n");
}

TEST(Kernel, KeepsLabels)
{
    sockaddr_storage address = socketAddress("2001:db8:1::");
    const unsigned int loopback = 1;
    const std::string listed = "prefix 2001:db8:1::/48 dev lo label 4711";
    LogCapture log;

    EXPECT_EQ(addrlabelAdd(&address, 48, 4711, loopback), 0);
    EXPECT_NE(output("ip addrlabel").find(listed), std::string::npos);
    EXPECT_EQ(failures(log), "");

    EXPECT_EQ(addrlabelAdd(&address, 48, 4711, loopback), -1) << "it exists";
    EXPECT_EQ(failures(log), "messageTransact(): kernel reports error -17\naddrlabelModify(): modifying address label failed\n");

    EXPECT_EQ(addrlabelDel(&address, 48, 4711, loopback), 0);
    EXPECT_EQ(output("ip addrlabel").find("2001:db8:1::"), std::string::npos);
    EXPECT_EQ(addrlabelDel(&address, 48, 4711, loopback), -1) << "it is gone";
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
    EXPECT_EQ(msg.messageTransact(), -1);
    EXPECT_EQ(msg.getKernelError(), -ERANGE);
    EXPECT_EQ(failures(log), "messageTransact(): kernel reports error -34\n"
                             "extack(): EXTACK reports Attribute failed policy validation\n");
}

TEST(MainlineRefuses, TheAddressOfAnyFamily)
{
    std::string device = "lo";
    sockaddr_storage v4 = socketAddress("192.0.2.1"), v6 = socketAddress("2001:db8::1");
    for (const int change : {AddressAdd, AddressDeprecate, AddressRenew, AddressAddDeprecated})
        for (sockaddr_storage* address : {&v4, &v6}) {
            LogCapture log;
            EXPECT_EQ(RTNetlinkAddressCfg(device, address, 32, static_cast<AddressLifetimeChange>(change), 60), -1);
            EXPECT_EQ(failures(log), "messageTransact(): kernel reports error -95\n"
                                     "RTNetlinkAddressCfg(): configuring address failed\n");
        }
    EXPECT_EQ(output("ip address show dev lo").find("192.0.2.1"), std::string::npos);
}

TEST(MainlineRefuses, TheGSOSizeInTwoBytes)
{
    if (!succeeds("ip link add gso0 type dummy")) GTEST_SKIP() << "this kernel has no dummy device";
    std::string device = "gso0";
    LogCapture log;
    EXPECT_EQ(RTNetlinkSetGSOMaxSize(device, 16384), -1);
    EXPECT_EQ(failures(log), "messageTransact(): kernel reports error -34\n"
                             "RTNetlinkSetGSOMaxSize(): configuring gso max size failed for dev gso0\n");
    EXPECT_NE(output("ip -d link show dev gso0").find("gso_max_size 65536"), std::string::npos);
}

TEST(MainlineRefuses, AnIPv4Label)
{
    sockaddr_storage address = socketAddress("192.0.2.1");
    LogCapture log;
    EXPECT_EQ(addrlabelAdd(&address, 32, 4711, 0), -1);
    EXPECT_EQ(failures(log), "messageTransact(): kernel reports error -95\naddrlabelModify(): modifying address label failed\n");
}
