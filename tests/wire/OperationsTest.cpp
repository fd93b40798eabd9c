// The free functions: their requests byte for byte, their refusals line by line.
#include "WireTest.h"

using namespace wire;
using namespace Vesk;

static Operation address(const char* device, const char* text, unsigned prefix, int change, unsigned valid)
{
    return [=] {
        std::string name = device;
        sockaddr_storage address = socketAddress(text);
        return RTNetlinkAddressCfg(name, &address, prefix, static_cast<AddressLifetimeChange>(change), valid);
    };
}

TEST(Operations, ConfigureAnAddress)
{
    const std::string v4 = "00000000 00000000 | 00 18 00 00 03000000 | 0800 0200 c0000201 | 1400 0600"; // /24, wlan0
    const auto cfg = "RTNetlinkAddressCfg";

    check("add", address("wlan0", "192.0.2.1", 24, AddressAdd, 60), 0, route("34000000 1400 0500" + v4 + "ffffffff ffffffff 00000000 00000000"), {kAcked});
    check("deprecate, for 0 seconds", address("wlan0", "192.0.2.1", 24, AddressDeprecate, 0), 0,
          route("34000000 1400 0501" + v4 + "00000000 00000000 00000000 00000000"), {kAcked});
    check("renew", address("wlan0", "192.0.2.1", 24, AddressRenew, 60), 0, route("34000000 1400 0501" + v4 + "ffffffff ffffffff 00000000 00000000"), {kAcked});
    check("add as deprecated, for 60 seconds", address("wlan0", "192.0.2.1", 24, AddressAddDeprecated, 60), 0,
          route("34000000 1400 0500" + v4 + "00000000 3c000000 00000000 00000000"), {kAcked});
    check("an unknown change replaces, for ever; a prefix length's low 8 bits; IPv6", address("lo", "2001:db8::1", 264, 7, 60), 0,
          route("40000000 1400 0501 00000000 00000000 | 00 08 00 00 01000000 |"
                "1400 0200 20010db8 00000000 00000000 00000001 | 1400 0600 ffffffff ffffffff 00000000 00000000"),
          {kAcked});
    check("the device is tested before the family", address("wlan9", "none", 24, AddressAdd, 0), -1, kNothing,
          {rtnl(4, "%s(): no duch device %s", cfg, "wlan9")});
    check("neither IPv4 nor IPv6", address("wlan0", "none", 24, AddressAdd, 0), -1, kNothing, {rtnl(4, "%s(): invalid addr family %u", cfg, 0)});
    check("refused", address("wlan0", "192.0.2.1", 24, AddressAdd, 0), -1, kAnything,
          {refused(-EOPNOTSUPP), kNoExtAckText, rtnl(4, "%s(): configuring address failed", cfg)}, {{refusal(-EOPNOTSUPP)}});
}

static Operation gso(std::string device, unsigned short size)
{
    return [=]() mutable { return RTNetlinkSetGSOMaxSize(device, size); };
}

TEST(Operations, SetTheGSOSize)
{
    const auto set = "RTNetlinkSetGSOMaxSize";

    check("two bytes", gso("wlan0", 65534), 0, route("28000000 1000 0500 00000000 00000000 | 00 00 0000 03000000 00000000 00000000 | 0600 2900 feff0000"),
          {kAcked, rtnl(1, "%s(): configured gso max size %u for dev %s", set, 65534, "wlan0")});
    check("no such device", gso("wlan9", 1), -1, kNothing, {rtnl(4, "%s(): no such device %s", set, "wlan9")});
    check("refused", gso("lo", 1), -1, kAnything, {refused(-ERANGE), kNoExtAckText, rtnl(4, "%s(): configuring gso max size failed for dev %s", set, "lo")},
          {{refusal(-ERANGE)}});
}

static Operation modify(decltype(addrlabelAdd)* operation, const char* text, unsigned prefix)
{
    return [=] {
        sockaddr_storage address = socketAddress(text);
        return operation(&address, prefix, 7, 3);
    };
}

TEST(Operations, ModifyLabels)
{
    check("add, IPv6", modify(addrlabelAdd, "fe80::1", 64), 0,
          route("38000000 4800 0506 00000000 00000000 | 0a 00 40 00 03000000 00000000 |"
                "0800 0200 07000000 | 1400 0100 fe800000 00000000 00000000 00000001"),
          {kAcked});
    check("delete, IPv4; a prefix length's low 8 bits", modify(addrlabelDel, "192.0.2.1", 0x118), 0,
          route("2c000000 4900 0500 00000000 00000000 | 02 00 18 00 03000000 00000000 |"
                "0800 0200 07000000 | 0800 0100 c0000201"),
          {kAcked});
    check("neither IPv4 nor IPv6", modify(addrlabelAdd, "none", 64), -1, kNothing, {labels(4, "%S(): invalid addr family %u", "addrlabelModify", 0)});
    check("refused", modify(addrlabelAdd, "fe80::1", 64), -1, kAnything,
          {refused(-EEXIST), kNoExtAckText, labels(4, "%s(): modifying address label failed", "addrlabelModify")}, {{refusal(-EEXIST)}});
}
