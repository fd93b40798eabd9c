// What a wire test that fails says of it.
#include "WireTest.h"

#include <gtest/gtest-spi.h>
#include <linux/if_addrlabel.h>

using namespace wire;

static const Operation kAdd(addrlabelAdd, "fe80::1", 64, 7, 3);

static std::string label(int type, int flags, unsigned value = 7, const std::string& prefix = "40")
{
    return message(
        type, flags,
        {"0a 00 " + prefix + " 00 03000000 00000000", attr(IFAL_LABEL, value), attr(IFAL_ADDRESS, "fe80 13*00 01")});
}

TEST(Diagnosis, NamesWhatDiffers)
{
    Kernel kernel;
    kernel.run(kAdd);
    const auto tells = [&](const char* field, const char* piece, const Sends& sends, int line = __builtin_LINE()) {
        const testing::ScopedTrace trace(__FILE__, line, "");
        EXPECT_EQ(differingFields(kernel.requests(), sends), field);
        EXPECT_EQ(unmet(kernel, sends, acknowledged()), piece);
    };

    tells("", "", {label(72, kNew)});
    tells("request 1: nlmsghdr nlmsg_type RTM_NEWADDRLABEL, not RTM_DELADDRLABEL\n",
          "request 1: nlmsg_type 0x48, not 0x49\n", {label(73, kNew)});
    tells("request 1: nlmsghdr nlmsg_flags REQUEST ACK EXCL CREATE, not REQUEST ACK\n",
          "request 1: nlmsg_flags 0x605, not 0x5\n", {label(72, kAck)});
    tells("request 1: ifaddrlblmsg ifal_prefixlen 64, not 65\n",
          "request 1, block 2: offset 0: 0a004000, not 0a004100\n", {label(72, kNew, 7, "41")});
    tells("request 1: IFAL_LABEL 7, not 263\n", "request 1, block 3: offset 4: 07000000, not 07010000\n",
          {label(72, kNew, 263)});
    tells("request 1: the end, not rest\n", "request 1, block 5 is missing\n",
          {label(72, kNew) + '|' + attr(IFAL_ADDRESS, "00")});
    tells("", "requests: 1, not 0\n", {});
}

TEST(Diagnosis, IsNeverEmpty)
{
    static const Check check({.call = kAdd, .sends = kAnything});
    EXPECT_NONFATAL_FAILURE(check({.log = core("extack").notice("No EXTACK content")}),
                            "log, line 1: 3 src/netlink/NetlinkHelper: messageTransact(): NL ACK received form kernel, "
                            "not 3 src/netlink/NetlinkHelper: extack(): No EXTACK content");
    EXPECT_NONFATAL_FAILURE(check({.sends = kNothing, .log = kAcked}), "requests: 1, not 0");
    EXPECT_NONFATAL_FAILURE(check({.log = kNothing}), "NL ACK received form kernel, not the end");
    EXPECT_EQ(Check::shown("one\ntwo\n", true) + Check::shown("three\nfour\n", false), "one\nthree\nfour\n");
    EXPECT_THROW(Operation(addXFRMPolicyEx, 256), std::out_of_range);
    EXPECT_THROW(attr(0x10000, ""), std::out_of_range);
    EXPECT_THROW(Result(std::string(64, 'x')), std::length_error);
}
