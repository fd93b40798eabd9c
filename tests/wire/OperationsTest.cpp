// All operations but those of IPsec: their requests byte for byte, their logs line by line.
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
    check("deprecate, for 0 seconds", address("wlan0", "192.0.2.1", 24, AddressDeprecate, 0), 0, route("34000000 1400 0501" + v4 + "00000000 00000000 00000000 00000000"),
          {kAcked});
    check("renew", address("wlan0", "192.0.2.1", 24, AddressRenew, 60), 0, route("34000000 1400 0501" + v4 + "ffffffff ffffffff 00000000 00000000"), {kAcked});
    check("add as deprecated, for 60 seconds", address("wlan0", "192.0.2.1", 24, AddressAddDeprecated, 60), 0,
          route("34000000 1400 0500" + v4 + "00000000 3c000000 00000000 00000000"), {kAcked});
    check("an unknown change replaces, for ever; a prefix length's low 8 bits; IPv6", address("lo", "2001:db8::1", 264, 7, 60), 0,
          route("40000000 1400 0501 00000000 00000000 | 00 08 00 00 01000000 |"
                "1400 0200 20010db8 00000000 00000000 00000001 | 1400 0600 ffffffff ffffffff 00000000 00000000"),
          {kAcked});
    check("the device is tested before the family", address("wlan9", "none", 24, AddressAdd, 0), -1, kNothing, {rtnl(4, "%s(): no duch device %s", cfg, "wlan9")});
    check("neither IPv4 nor IPv6", address("wlan0", "none", 24, AddressAdd, 0), -1, kNothing, {rtnl(4, "%s(): invalid addr family %u", cfg, 0)});
    check("refused", address("wlan0", "192.0.2.1", 24, AddressAdd, 0), -1, kAnything, {refused(-EOPNOTSUPP), kNoExtAckText, rtnl(4, "%s(): configuring address failed", cfg)},
          {{refusal(-EOPNOTSUPP)}});
}

static const auto gso = [](std::string device, unsigned short size) { return Operation([=]() mutable { return RTNetlinkSetGSOMaxSize(device, size); }); };

TEST(Operations, SetTheGSOSize)
{
    const auto set = "RTNetlinkSetGSOMaxSize";

    check("two bytes", gso("wlan0", 65534), 0, route("28000000 1000 0500 00000000 00000000 | 00 00 0000 03000000 00000000 00000000 | 0600 2900 feff0000"),
          {kAcked, rtnl(1, "%s(): configured gso max size %u for dev %s", set, 65534, "wlan0")});
    check("no such device", gso("wlan9", 1), -1, kNothing, {rtnl(4, "%s(): no such device %s", set, "wlan9")});
    check("refused", gso("lo", 1), -1, kAnything, {refused(-ERANGE), kNoExtAckText, rtnl(4, "%s(): configuring gso max size failed for dev %s", set, "lo")}, {{refusal(-ERANGE)}});
}

static Operation modify(decltype(addrlabelAdd)* operation, const char* text, unsigned prefix)
{
    return [=] {
        sockaddr_storage address = socketAddress(text);
        return operation(&address, prefix, 0x12345, 3);
    };
}

TEST(Operations, ModifyLabels)
{
    check("add, IPv6", modify(addrlabelAdd, "fe80::1", 64), 0,
          route("38000000 4800 0506 00000000 00000000 | 0a 00 40 00 03000000 00000000 |"
                "0800 0200 45230100 | 1400 0100 fe800000 00000000 00000000 00000001"),
          {kAcked});
    check("delete, IPv4; a prefix length's low 8 bits", modify(addrlabelDel, "192.0.2.1", 0x118), 0,
          route("2c000000 4900 0500 00000000 00000000 | 02 00 18 00 03000000 00000000 |"
                "0800 0200 45230100 | 0800 0100 c0000201"),
          {kAcked});
    check("neither IPv4 nor IPv6", modify(addrlabelAdd, "none", 64), -1, kNothing, {labels(4, "%S(): invalid addr family %u", "addrlabelModify", 0)});
    check("refused", modify(addrlabelAdd, "fe80::1", 64), -1, kAnything, {refused(-EEXIST), kNoExtAckText, labels(4, "%s(): modifying address label failed", "addrlabelModify")},
          {{refusal(-EEXIST)}});
}

// Attributes of replies: a length, a type, a value.
static std::string message(const char* length, const char* type, const std::string& payload, const std::string& attributes)
{
    return std::string(" ") + length + "000000 " + type + " 0200 00000000 00000000 " + payload + ' ' + attributes;
}

static const std::string kRouteGet = "2c000000 1a00 0100" + kSeqPid + "02 20 00 00 00 00 00 00 00100000 | 0800 0100 c6336407 | 0800 1000 2a000000";
static const std::string kTable = "0800 0f00 e8030000 ", kGateway = "0800 0500 c0000201 ", kOutput = "0800 0400 03000000 ";
static const std::string kRoute = message("34", "1800", "12*00", kTable + kGateway + kOutput);

static Operation getRoute(std::string destination, unsigned char family, std::string gateway)
{
    return [=] {
        const RouterAddressResult result = RTNetlinkGetRoute(destination, family == AF_INET ? 42 : 0, family);
        EXPECT_EQ(result.gateway, gateway);
        return result.status;
    };
}

TEST(Routes, AreLookedUpUnderAMark)
{
    const char *name = "RTNetlinkGetRoute", *cb = "getRouterAddress";
    const LogLine none = rtnl(1, "%s(): Got router address %s", name, "");
    const auto rejects = [&](const std::string& reply, const LogLine& line) {
        check(line.text.c_str(), getRoute("198.51.100.7", AF_INET, ""), 0, route(kRouteGet), {line, none}, {replies({reply})});
    };
    check("the second answer will do", getRoute("198.51.100.7", AF_INET, "192.0.2.1"), 0, route(kRouteGet),
          {rtnl(4, "%s(): Wrong message type %d", cb, 25), rtnl(1, "%s(): Table %u gateway address %s device %s", cb, 1000, "192.0.2.1", "wlan0"),
           rtnl(1, "%s(): Got router address %s", name, "192.0.2.1")},
          {replies({"10000000 1900 0000 00000000 00000000" + kRoute + kRoute})});
    check("an IPv6 gateway is none", getRoute("2001:db8::1", AF_INET6, ""), 0,
          route("38000000 1a00 0100" + kSeqPid + "0a 80 00 00 00 00 00 00 00100000 | 1400 0100 20010db8 00000000 00000000 00000001 | 0800 1000 00000000"),
          {rtnl(4, "%s(): Gateway attribute is malformed", cb), none}, {replies({message("38", "1800", "12*00", kTable + "1400 0500 fe80 13*00 01")})});
    rejects(message("1c", "1800", "12*00", ""), rtnl(4, "%s(): Table attribute is missing in NEWROUTE message", cb));
    rejects("1b000000 1800 0000 00000000 00000000 11*00 00", rtnl(4, "%s(): Wrong message length %d, need %d more bytes", cb, 27, 1));
    rejects(message("34", "1800", "12*00", "0600 0f00 e8030000" + kGateway + kOutput), rtnl(4, "%s(): Table attribute is malformed", cb));
    rejects(message("2c", "1800", "12*00", kTable + kOutput), rtnl(4, "%s(): Gateway attribute is missing in NEWROUTE message", cb));
    rejects(message("34", "1800", "12*00", kTable + "0700 0500 c0000201" + kOutput), rtnl(4, "%s(): Gateway attribute is malformed", cb));
    rejects(message("2c", "1800", "12*00", kTable + kGateway), rtnl(4, "%s(): Outgoing interface attribute is missing in NEWROUTE message", cb));
    rejects(message("34", "1800", "12*00", kTable + kGateway + "0700 0400 03000000"), rtnl(4, "%s(): Outgoing interface attribute is malformed", cb));
    rejects(message("34", "1800", "12*00", kTable + kGateway + "0800 0400 09000000"),
            rtnl(4, "%s(): Outgoing interface device lookup failed with error - %d %s", cb, ENXIO, "No such device or address"));
    check("another family", getRoute("198.51.100.7", 0, ""), -1, kNothing, {rtnl(4, "%s(): Invalid family %u", name, 0)});
    check("no address", getRoute("10.0.0.300", AF_INET, ""), -1, kNothing, {rtnl(4, "%s(): inet_pton failed on destonation address %s with error %d", name, "10.0.0.300", 0)});
    check("unreachable", getRoute("198.51.100.7", AF_INET, ""), -1, kAnything,
          {core(4, "%s(): kernel reports error %d", "messageQuery", -ENETUNREACH), kNoExtAckText, rtnl(4, "%s(): Getting routes failed", name)}, {{refusal(-ENETUNREACH)}});
}

TEST(Routes, AreInstalledAndRemovedThroughTheGateway)
{
    const auto change = [](decltype(RTNetlinkAddRoute)* operation, std::string destination, unsigned char family = AF_INET) {
        return [=] { return operation(destination, 42, family, 1000, 3); };
    };
    const auto sent = [](const char* typeAndFlags) {
        const std::string request = "50000000 " + std::string(typeAndFlags) + kSeqPid + "02 20 00 00 00 04 00 01 00000000 | 0800 0f00 e8030000 |" +
                                    "0800 0100 c6336407 | 0800 0400 03000000 | 0800 0500 c0000201 | 0c00 0880 | 0800 0800 74040000 | 0800 0600 64000000";
        return Sends{{{NETLINK_ROUTE, kRouteGet}, {NETLINK_ROUTE, request}}};
    };
    const Log found{rtnl(1, "%s(): Table %u gateway address %s device %s", "getRouterAddress", 1000, "192.0.2.1", "wlan0"),
                    rtnl(1, "%s(): Got router address %s", "RTNetlinkGetRoute", "192.0.2.1")};
    const char *add = "RTNetlinkAddRoute", *del = "RTNetlinkDeleteRoute";

    check("installed", change(RTNetlinkAddRoute, "198.51.100.7"), 0, sent("1800 0506"), found + Log{kAcked, rtnl(1, "%s(): Successfully installed ip route", add)},
          {replies({kRoute})});
    check("refused", change(RTNetlinkAddRoute, "198.51.100.7"), -1, sent("1800 0506"),
          found + Log{refused(-EEXIST), kNoExtAckText, rtnl(4, "%s(): Failed to install ip route", add)}, {replies({kRoute}), {refusal(-EEXIST)}});
    check("removed, nobody waits for an answer", change(RTNetlinkDeleteRoute, "198.51.100.7"), 0, sent("1900 0100"),
          found + Log{core(2, "%s(): not requesting ACK for NL message\n", "messageTransact"), rtnl(1, "%s(): Successfully removed ip route", del)}, {replies({kRoute})});
    check("not sent", change(RTNetlinkDeleteRoute, "198.51.100.7"), -1, kAnything,
          found + Log{core(4, "%s(): sending NL message failed. errno=[%d, %s]", "messageSend", EPERM, "Operation not permitted"), rtnl(4, "%s(): Failed to remove ip route", del)},
          {replies({kRoute})}, [](ScriptedKernel& kernel) { kernel.fail(Call::SendMsg, EPERM, 2); });

    const LogLine noGateway = rtnl(1, "%s(): Got router address %s", "RTNetlinkGetRoute", "");
    const Log unreachable{core(4, "%s(): kernel reports error %d", "messageQuery", -ENETUNREACH), kNoExtAckText, rtnl(4, "%s(): Getting routes failed", "RTNetlinkGetRoute")};
    for (const auto& [operation, name, badDestination, badGateway] :
         {std::tuple(&RTNetlinkAddRoute, add, "%s(): inet_pton failed on destination address %s with error %d", "%s(): inet_pton failed on gateway address %s - rc %d"),
          std::tuple(&RTNetlinkDeleteRoute, del, "%s(): inet_pton failed on source address %s - rc %d", "%s(): inet_pton failed on source address %s - rc %d")}) {
        check("another family", change(operation, "198.51.100.7", 18), -1, kNothing, {rtnl(4, "%s(): Invalid family %u", name, 18)});
        check("no address", change(operation, "fe80::1"), -1, kNothing, {rtnl(4, badDestination, name, "fe80::1", 0)});
        check("no gateway", change(operation, "198.51.100.7"), -1, route(kRouteGet), {noGateway, rtnl(4, badGateway, name, "", 0)}, {{reply({})}});
        check("unreachable", change(operation, "198.51.100.7"), -1, route(kRouteGet),
              unreachable + Log{rtnl(4, "%s(): Unable to get gateway address address %s mark %u with error %d", name, "198.51.100.7", 42, -1)}, {{refusal(-ENETUNREACH)}});
    }
}

static Operation getRule(std::string device, unsigned mark, unsigned mask)
{
    return [=] {
        const auto rule = RTNetlinkGetRule(device);
        EXPECT_EQ(rule.value_or(std::pair(0u, 0u)), std::pair(mark, mask));
        return rule.has_value() ? 1 : 0;
    };
}

TEST(Rules, AreFoundByPriorityAndTable)
{
    const char *name = "RTNetlinkGetRule", *cb = "getRuleMark";
    const std::string priority = "0800 0600 803e0000 ", mark = "0800 0a00 10000000 ", mask = "0800 1000 ff000000 ", table = "0800 0f00 eb030000 ";
    const Sends dump = route("1c000000 2200 0103" + kSeqPid + "02 11*00");
    const LogLine invalid = rtnl(4, "%s(): Invalid fwmark 0x%04x/0x%04x for dev %s", name, 0, 0, "wlan0");
    const auto dumped = [](const std::string& attributes, const char* length = "3c") { return message(length, "2000", "12*00", attributes); };
    const auto passes = [&](const std::string& rule, const LogLine& line) { check(line.text.c_str(), getRule("wlan0", 0, 0), 0, dump, {line, invalid}, {replies({rule, kEnd})}); };
    const auto matches = [&](unsigned m, unsigned k) { return rtnl(1, "%s(): fwmark 0x%04x/0x%04x", cb, m, k); };

    check("the last of two", getRule("wlan0", 0x12345, 0x1ff), 1, dump,
          {matches(0x10, 0xff), matches(0x12345, 0x1ff), rtnl(1, "%s(): Got rule fwmark 0x%04x/0x%04x for dev %s", name, 0x12345, 0x1ff, "wlan0")},
          {replies({dumped(priority + mark + mask + table) + dumped(priority + "0800 0a00 45230100 0800 1000 ff010000 " + table), kEnd})});
    check("a mask of 0", getRule("wlan0", 0, 0), 0, dump, {matches(0x10, 0), rtnl(4, "%s(): Invalid fwmark 0x%04x/0x%04x for dev %s", name, 0x10, 0, "wlan0")},
          {replies({dumped(priority + mark + "0800 1000 00000000 " + table), kEnd})});
    passes(message("1c", "2100", "12*00", ""), rtnl(4, "%s(): Wrong message type %d", cb, 33));
    passes("1b000000 2000 0000 00000000 00000000 11*00 00", rtnl(4, "%s(): Wrong message length %d, need %d more bytes", cb, 27, 1));
    passes(dumped("", "1c"), rtnl(3, "%s(): Priority attribute is missing in NEWRULE message", cb));
    passes(dumped("0700 0600 803e0000 " + mark + mask + table), rtnl(4, "%s(): Mark attribute is malformed", cb));
    passes(dumped("0800 0600 813e0000 ", "24"), rtnl(3, "%s(): Mark attribute is not as expected", cb));
    passes(dumped(priority, "24"), rtnl(4, "%s(): Mark attribute is missing in NEWRULE message", cb));
    passes(dumped(priority + "0700 0a00 10000000 " + mask + table), rtnl(4, "%s(): Mark attribute is malformed", cb));
    passes(dumped(priority + mark, "2c"), rtnl(4, "%s(): Mask attribute is missing in NEWRULE message", cb));
    passes(dumped(priority + mark + "0700 1000 ff000000 " + table), rtnl(4, "%s(): Mask attribute is malformed", cb));
    passes(dumped(priority + mark + mask, "34"), rtnl(4, "%s(): Table attribute is missing in NEWRULE message", cb));
    passes(dumped(priority + mark + mask + "0700 0f00 eb030000 "), rtnl(4, "%s(): Table attribute is malformed", cb));
    passes(dumped(priority + mark + mask + "0800 0f00 ea030000 "), rtnl(3, "%s(): Table index is not as expected for dev %s", cb, "wlan0"));
    check("no such device", getRule("wlan9", 0, 0), 0, dump,
          {rtnl(4, "%s(): Unable to ifindex for dev %s", cb, "wlan9"), rtnl(4, "%s(): Invalid fwmark 0x%04x/0x%04x for dev %s", name, 0, 0, "wlan9")},
          {replies({dumped(priority + mark + mask + table), kEnd})});
    check("an index whose table would pass 32 bits", getRule("last", 0, 0), 0, dump,
          {rtnl(3, "%s(): Table index is not as expected for dev %s", cb, "last"), rtnl(4, "%s(): Invalid fwmark 0x%04x/0x%04x for dev %s", name, 0, 0, "last")},
          {replies({dumped(priority + mark + mask + "0800 0f00 e7030000 "), kEnd})}, [](ScriptedKernel& kernel) { kernel.addInterface("last", 0xffffffff); });
    check("the dump fails", getRule("wlan0", 0, 0), 0, dump, {dumpRefused(), rtnl(4, "%s(): Getting rules failed for dev %s", name, "wlan0")}, {{refusal(-EPERM)}});
}

// Labels

static std::string entry(const std::string& label, const std::string& address = "1400 0100 fe80 13*00 01 ", const char* familyPrefixIndex = "0a 00 40 00 03000000",
                         const char* length = "38")
{
    return message(length, "4800", familyPrefixIndex + std::string(" 00000000"), address + label);
}

static Operation generate(int family, bool useDefault, unsigned expected)
{
    return [=] {
        unsigned label = 0xdead;
        const int result = addrlabelGenerate(family, useDefault, &label);
        EXPECT_EQ(label, expected);
        return result;
    };
}

TEST(Labels, AreGeneratedBelowTheFirstGap)
{
    const char *name = "addrlabelGenerate", *cb = "addrlabelGenerateCb";
    const unsigned untouched = 0xdead;
    const Sends dump = route("1c000000 4a00 0103" + kSeqPid + "0a 00 00 00 00000000 00000000");
    const auto dumped = [](std::initializer_list<unsigned> values) {
        std::vector<Reply> all;
        for (const unsigned value : values) {
            char digits[32];
            std::snprintf(digits, sizeof digits, "0800 0200 %08x ", __builtin_bswap32(value));
            all.push_back(reply(hex(entry(digits))));
        }
        all.push_back(reply(hex(kEnd)));
        return all;
    };
    const auto proposes = [&](std::initializer_list<unsigned> values, int random, unsigned label, const Log& log = {}) {
        check("labels", generate(AF_INET6, false, label), label == untouched ? -1 : 0, dump, log, {dumped(values)}, [=](ScriptedKernel& kernel) { kernel.setRandom(random); });
    };
    check("the default", generate(3, true, 1), 0, kNothing, {});
    check("another family", generate(258, false, untouched), -1, kNothing, {labels(4, "%s(): invalid addr type 0x%x", name, 258)});
    check("the dump fails", generate(AF_INET, false, untouched), -1, route("1c000000 4a00 0103" + kSeqPid + "02 00 00 00 00000000 00000000"),
          {dumpRefused(), labels(4, "%s(): gathering list of currentl labels failed", name)}, {{refusal(-EPERM)}});
    proposes({}, 5, 25);
    proposes({0, 1, 13, 20}, 0, 20);
    proposes({0, 13, 25, 22, 21}, 5, 20);              // 21 is 8 above 13
    proposes({20, 21, 22, 24}, 5, 23);                 // 24 is 2 above 22
    proposes({20, 21, 22}, 5, 27);                     // no gap
    proposes({30}, 5, 35);                             // a lone label has none
    proposes({20, 21, 22, 0x7fffffff}, 5, 0x7ffffffe); //
    proposes({20, 21, 22, 21}, 5, 27, {labels(4, "%s(): inserting label %u failed", cb, 21)});
    proposes({0x7fffffff}, 0x7fffffff, 0xfffffffe);
    proposes({0x80000000}, 5, untouched, {labels(4, "%s(): generating unique label failed", name)});

    const auto ignores = [&](const std::string& message, const LogLine& line) {
        check(line.text.c_str(), generate(AF_INET6, false, 20), 0, dump, {line}, {replies({message, kEnd})});
    };
    ignores("10000000 4900 0000 00000000 00000000", labels(1, "%s(): ignoring non-NEWADDRLABEL message", cb));
    ignores("1b000000 4800 0000 00000000 00000000 11*00 00", labels(4, "%s(): invalid NEWADDRLABEL message received", cb));
    ignores(message("1c", "4800", "12*00", ""), labels(4, "%s(): label attribute is missing in NEWADDRLABEL message", cb));
    ignores(entry("0600 0200 15000000", "", "0a 00 40 00 03000000", "24"), labels(4, "%s(): label attribute is malformed", cb));
    EXPECT_EXIT(
        {
            ScriptedKernel kernel;
            kernel.answer(dumped({30, 31}));
            generate(AF_INET6, false, 0)();
        },
        testing::KilledBySignal(SIGABRT), "addrlabelGenerate\\(\\): .*overflow"); // the first label is compared with the second
}

static Operation purge(const char* address, unsigned prefix)
{
    return [=] {
        sockaddr_storage own = socketAddress(address);
        return addrlabelPurge(&own, prefix, 3);
    };
}

TEST(Labels, ArePurgedWithTheirCompanions)
{
    const char *name = "addrlabelPurge", *cb = "addrlabelPurgeDumpCb", *parse = "addrlabelPurgeNLMsgParse";
    const std::string head = "1c000000 4a00 0103" + kSeqPid, payload = "0a 00 80 00 03000000 00000000";
    const std::string query = "30000000 4a00 0100" + kSeqPid + payload + " | 1400 0100 fe80 13*00 01", dump = head + payload;
    const std::string seven = "0800 0200 07000000 ", twenty = "0800 0200 14000000 ", one = "0800 0200 01000000 ";
    const std::string other = "1400 0100 fe80 13*00 02 ";
    const auto deletes = [](const std::string& label, const std::string& address, const char* prefix = "40") {
        return Sent{NETLINK_ROUTE, "38000000 4900 0500" + kSeqPid + "0a 00 " + prefix + " 00 03000000 00000000 | " + label + " | 1400 0100 " + address};
    };
    const LogLine address = labels(2, "Matches address"), companion = labels(2, "Label match for");

    check("the address, whatever its label, and what has the label that was found", purge("fe80::1", 255), 0,
          {{{NETLINK_ROUTE, query}, {NETLINK_ROUTE, dump}, deletes(seven, "fe80 13*00 01", "ff"), deletes(twenty, "fe80 13*00 02", "ff")}},
          {address, kAcked, companion, refused(-ESRCH), kNoExtAckText, labels(4, "%s(): modifying address label failed", "addrlabelModify"),
           labels(4, "%s(): purging address with label %u failed", cb, 20)},
          {replies({entry(twenty, "1400 0100 fe80 13*00 01 ", "0a 00 ff 00 03000000")}),
           replies({entry(seven, "1400 0100 fe80 13*00 01 ", "0a 00 ff 00 03000000") + entry("0800 0200 15000000 ", other, "0a 00 ff 00 03000000"),
                    entry(twenty, other, "0a 00 ff 00 03000000"), kEnd}),
           {},
           {refusal(-ESRCH)}});
    check("of a prefix of 63 bits 7 bytes are compared; others stay", purge("fe80::1", 63), 0,
          {{{NETLINK_ROUTE, query}, {NETLINK_ROUTE, dump}, deletes(one, "fe80 13*00 01", "3f")}}, {address, kAcked},
          {replies({entry(one, "1400 0100 fe80 13*00 01 ", "0a 00 3f 00 03000000")}),
           replies({entry(seven, "1400 0100 fe80 0000 0000 00 ff 8*00 ", "0a 00 3e 00 03000000") + entry(seven, "1400 0100 fe80 0000 0000 00 ff 8*00 ", "0a 00 3f 00 00000000") +
                        entry(one, "1400 0100 fe80 0000 0000 00 ff 8*00 ", "0a 00 3f 00 03000000"),
                    kEnd})});
    check("IPv4: the whole address counts, whatever the prefix", purge("192.0.2.1", 24), 0,
          {{{NETLINK_ROUTE, "24000000 4a00 0100" + kSeqPid + "02 00 20 00 03000000 00000000 | 0800 0100 c0000201"},
            {NETLINK_ROUTE, head + "02 00 20 00 03000000 00000000"},
            {NETLINK_ROUTE, "2c000000 4900 0500" + kSeqPid + "02 00 18 00 03000000 00000000 | 0800 0200 14000000 | 0800 0100 c0000202"}}},
          {companion, kAcked},
          {replies({entry(twenty, "0800 0100 c0000200 ", "02 00 18 00 03000000", "2c")}),
           replies({entry(twenty, "0800 0100 c0000202 ", "02 00 18 00 03000000", "2c") + entry(seven, "0800 0100 c0000203 ", "02 00 18 00 03000000", "2c"), kEnd})});

    const auto leaves = [&](const char* what, const std::string& found, const Log& log) { check(what, purge("fe80::1", 64), 0, route(query), log, {replies({found})}); };
    leaves("labels of the system's", entry("0800 0200 02000000 ") + entry("0800 0200 06000000 ") + entry("0800 0200 13000000 "), {});
    leaves("label 0, then an entry of another prefix", entry("0800 0200 00000000 ") + entry(twenty, other, "0a 00 41 00 03000000"), {});
    leaves("another family", entry(twenty, other, "02 00 40 00 03000000"), {});
    leaves("half a label", entry("0600 0200 14000000 "), {});
    leaves("another type", "10000000 4700 0000 00000000 00000000", {labels(1, "%s(): ignoring non-NEWADDRLABEL message", parse)});
    leaves("too short", "1b000000 4800 0000 00000000 00000000 11*00 00", {labels(4, "%S(): invalid NEWADDRLABEL message received", parse)});
    leaves("no address", entry(twenty, "", "0a 00 40 00 03000000", "24"), {labels(4, "%s(): address/label is missing in NEWADDRLABEL message", parse)});
    leaves("no label", entry("", other, "0a 00 40 00 03000000", "30"), {labels(4, "%s(): address/label is missing in NEWADDRLABEL message", parse)});

    check("entries that are too short for what is read from them are left", purge("fe80::1", 64), 0, {{{NETLINK_ROUTE, query}, {NETLINK_ROUTE, dump}}}, {},
          {replies({entry(twenty)}), replies({entry(twenty, "0a00 0100 fe80 00000000 0000 ", "0a 00 40 00 03000000", "30") + entry("0600 0200 14000000") +
                                                  entry(twenty, "0c00 0100 ffff 6*00 ", "0a 00 40 00 03000000", "30"),
                                              kEnd})});
    check("another family", purge("none", 64), -1, kNothing, {labels(4, "%s(): invalid addr type 0x%x", name, 0)});
    check("the query fails", purge("fe80::1", 64), -1, route(query),
          {core(4, "%s(): kernel reports error %d", "messageQuery", -EPERM), kNoExtAckText, labels(4, "%s(): querying label failed", name)}, {{refusal(-EPERM)}});
    check("the dump fails", purge("fe80::1", 64), -1, {{{NETLINK_ROUTE, query}, {NETLINK_ROUTE, dump}}}, {dumpRefused(), labels(4, "%s(): dumping labels failed", name)},
          {replies({entry(twenty)}), {refusal(-EPERM)}});
}

TEST(Qdiscs, AreAddedDeletedAndChanged)
{
    const auto qdisc = [](std::string device, std::string kind, unsigned parent, unsigned char operation) {
        return [=]() mutable { return RTNetlinkTCQdisc(device, kind, parent, 0x10000, operation); };
    };
    const auto prio = [](std::string device, unsigned char operation) { return [=]() mutable { return RTNetlinkTCPrio(device, 0, 0x10000, operation); }; };
    const auto flow = [](std::string device, unsigned parent, unsigned char enable, unsigned char operation) {
        return [=]() mutable { return RTNetlinkFlowControl(device, parent, 0x10000, enable, operation); };
    };
    const std::string root = kSeqPid + "00 000000 03000000 00000100 ffffffff 00000000 |", child = kSeqPid + "00 000000 03000000 00000100 01000200 00000000 |";
    const std::string kind = "0900 0100 7072696f 00000000", five = " | 2000 0280 | 1c00 0200 05000000 03040404 03040202 04030201 00000000 01 000000";
    const auto three = [](const std::string& enable) { return " | 2000 0280 | 1c00 0200 03000000 01020202 01020000 01010101 01010101 " + enable + " 010101"; };
    const auto trace = [](const char* word, unsigned parent, const char* state) {
        return rtnl(1, "%s(): sending nlmsg \"tc qdisc %s dev %s parent:0x%x hndl:0x%x prio flow %s", "RTNetlinkFlowControl", word, "wlan0", parent, 0x10000, state);
    };

    check("any kind", qdisc("wlan0", "pfifo", 0x20001, 0), 0, route("30000000 2400 0506" + child + "0a00 0100 70666966 6f000000"), {kAcked});
    check("deleted", qdisc("wlan0", "pfifo", 0, 1), 0, route("30000000 2500 0500" + root + "0a00 0100 70666966 6f000000"), {kAcked});
    check("five bands", prio("wlan0", 0), 0, route("50000000 2400 0506" + root + kind + five), {kAcked});
    check("deleted", prio("wlan0", 1), 0, route("30000000 2500 0500" + root + kind), {kAcked});
    check("three bands and the switch", flow("wlan0", 0, 7, 0), 0, route("50000000 2400 0506" + root + kind + three("07")), {trace("add", 0xffffffff, "enable"), kAcked});
    check("changed", flow("wlan0", 0x20001, 0, 2), 0, route("50000000 2400 0500" + child + kind + three("00")), {trace("change", 0x20001, "disable"), kAcked});
    check("deleted", flow("wlan0", 0, 0, 1), 0, route("30000000 2500 0500" + root + kind), {trace("del", 0xffffffff, "disable"), kAcked});
    for (const auto& [operation, name] : {std::pair(Operation(qdisc("wlan0", "pfifo", 0, 1)), "RTNetlinkTCQdisc"), std::pair(Operation(prio("wlan0", 1)), "RTNetlinkTCPrio"),
                                          std::pair(Operation(flow("wlan0", 0, 1, 1)), "RTNetlinkFlowControl")})
        notable(name, operation, -1, kAnything, refusedBy(-ENOENT, rtnl(4, "%s(): tc qdisc transaction failed", name)), {{refusal(-ENOENT)}});
    for (const auto& [operation, name] : {std::pair(Operation(qdisc("wlan9", "pfifo", 0, 9)), "RTNetlinkTCQdisc"), std::pair(Operation(prio("wlan9", 0)), "RTNetlinkTCPrio"),
                                          std::pair(Operation(flow("wlan9", 0, 1, 0)), "RTNetlinkFlowControl")})
        check(name, operation, -1, kNothing, {rtnl(4, "%s(): no such device %s", name, "wlan9")});
    for (const auto& [operation, name] : {std::pair(Operation(qdisc("wlan0", "pfifo", 0, 2)), "RTNetlinkTCQdisc"), std::pair(Operation(prio("wlan0", 255)), "RTNetlinkTCPrio"),
                                          std::pair(Operation(flow("wlan0", 0, 1, 3)), "RTNetlinkFlowControl")})
        check(name, operation, -1, kNothing, {rtnl(4, "%s(): tc qdisc invalid flag operation", name)});
}
