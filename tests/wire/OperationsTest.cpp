// All operations but those of IPsec: their requests byte for byte, their logs line by line.
#include "WireTest.h"

#include <linux/fib_rules.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>

using namespace wire;

static const auto [check, acked, rejects, refused] = Checks(NETLINK_ROUTE);

// What programs were built with
static_assert(AddressAdd == 0 && AddressDeprecate == 1 && AddressRenew == 2 && AddressAddDeprecated == 3);

TEST(Operations, ConfigureAnAddress)
{
    const LoggedBy by     = rtnl("RTNetlinkAddressCfg");
    const auto configures = [](unsigned prefix, int change, unsigned valid, int flags, const std::string& lifetimes,
                               int line = __builtin_LINE()) {
        const std::string request =
            message(RTM_NEWADDR, kAck | flags,
                    {"00 18 00 00 03000000", attr(IFA_LOCAL, "c0000201"), attr(IFA_CACHEINFO, lifetimes + " 8*00")});
        acked({.call = {RTNetlinkAddressCfg, "wlan0", "192.0.2.1", prefix, change, valid}, .sends = {request}},
              __FILE__, line);
    };
    configures(24, AddressAdd, 60, 0, "ffffffff ffffffff");
    configures(24, AddressDeprecate, 0, NLM_F_REPLACE, "00000000 00000000");
    configures(24, AddressRenew, 60, NLM_F_REPLACE, "ffffffff ffffffff");
    configures(280, AddressAddDeprecated, 60, 0, "00000000 3c000000"); // of the prefix length the low 8 bits
    acked({.what  = "an unknown change replaces, for ever; IPv6",
           .call  = {RTNetlinkAddressCfg, "lo", "2001:db8::1", 8, 7, 60},
           .sends = {message(
               RTM_NEWADDR, kAck | NLM_F_REPLACE,
               {"00 08 00 00 01000000", attr(IFA_LOCAL, "20010db8 11*00 01"), attr(IFA_CACHEINFO, "8*ff 8*00")})}});
    rejects({.call  = {RTNetlinkAddressCfg, "wlan9", "none", 24, 0, 0},
             .error = ENODEV,
             .log   = by.failure("no duch device %s", "wlan9")});
    rejects({.call  = {RTNetlinkAddressCfg, "wlan0", "none", 24, 0, 0},
             .error = EAFNOSUPPORT,
             .log   = by.failure("invalid addr family %u", 0)});
    refused({.call = {RTNetlinkAddressCfg, "wlan0", "::", 24, 0, 0},
             .log  = denied(by.failure("configuring address failed"))});
}

TEST(Operations, SetTheGSOSize)
{
    const LoggedBy by = rtnl("RTNetlinkSetGSOMaxSize");

    check({.call  = {RTNetlinkSetGSOMaxSize, "wlan0", 65534},
           .sends = {message(RTM_NEWLINK, kAck, {"00 00 0000 03000000 8*00", attr(IFLA_GSO_MAX_SIZE, "feff")})},
           .log   = {kAcked, by.verbose("configured gso max size %u for dev %s", 65534, "wlan0")}});
    rejects({.call  = {RTNetlinkSetGSOMaxSize, "wlan9", 1},
             .error = ENODEV,
             .log   = by.failure("no such device %s", "wlan9")});
    refused({.call  = {RTNetlinkSetGSOMaxSize, "lo", 0},
             .sends = {message(RTM_NEWLINK, kAck, {"00 00 0000 01000000 8*00", attr(IFLA_GSO_MAX_SIZE, "0000")})},
             .log   = denied(by.failure("configuring gso max size failed for dev %s", "lo"))});
}

// Entries of the table of labels, for interface 3. Of two attributes of a type the last one counts.
static std::string entry(const std::string& attributes, const std::string& prefix = "40",
                         const std::string& family = "0a")
{
    return message(RTM_NEWADDRLABEL, kMulti, {family + " 00 " + prefix + " 00 03000000 00000000", attributes});
}

static std::string label(unsigned value)
{
    return attr(IFAL_LABEL, value);
}

static std::string address(const std::string& digits)
{
    return attr(IFAL_ADDRESS, digits);
}

static const std::string kOwn = address("fe80 13*00 01"), kOther = address("fe80 13*00 02");

TEST(Operations, ModifyLabels)
{
    const LoggedBy by = labels("addrlabelModify");

    acked({.call  = {addrlabelAdd, "fe80::1", 64, 0x12345, 3},
           .sends = {message(RTM_NEWADDRLABEL, kNew, {"0a 00 40 00 03000000 00000000", label(0x12345), kOwn})}});
    acked(
        {.what  = "a prefix length's low 8 bits; zeros are sent, too",
         .call  = {addrlabelDel, "192.0.2.1", 0x118, 0, 0},
         .sends = {message(RTM_DELADDRLABEL, kAck, {"02 00 18 00 00000000 00000000", label(0), address("c0000201")})}});
    rejects({.call  = {addrlabelAdd, "none", 64, 7, 3},
             .error = EAFNOSUPPORT,
             .log   = by.failure("%S(): invalid addr family %u", 0)});
    refused({.call = {addrlabelAdd, "::", 64, 7, 3}, .log = denied(by.failure("modifying address label failed"))});
}

// The look-up of 198.51.100.7 under mark 42. The answer: table 1000, gateway 192.0.2.1, device 3.
static const std::string kLookUp = message(
    RTM_GETROUTE, NLM_F_REQUEST, {"02 20 00 00 00 00 00 00 00100000", attr(RTA_DST, "c6336407"), attr(RTA_MARK, 42)});
static const std::string kTable = attr(RTA_TABLE, 1000), kGateway = attr(RTA_GATEWAY, "c0000201"),
                         kOutput = attr(RTA_OIF, 3);
static std::string answer(const std::string& attributes)
{
    return message(RTM_NEWROUTE, kMulti, {"12*00", attributes});
}

static const LoggedBy kGet = rtnl("RTNetlinkGetRoute"), kCb = rtnl("getRouterAddress");
static const LogLine kNone    = kGet.verbose("Got router address %s", "");
static const Log kFound       = {kCb.verbose("Table %u gateway address %s device %s", 1000, "192.0.2.1", "wlan0"),
                                 kGet.verbose("Got router address %s", "192.0.2.1")};
static const Log kUnreachable = {core("messageQuery").failure("kernel reports error %d", -EPERM), kNoText,
                                 kGet.failure("Getting routes failed")};

TEST(Routes, AreLookedUpUnderAMark)
{
    const std::string good = kTable + kGateway + kOutput; // of two attributes of a type the last one counts
    const auto passes      = [](const std::string& reply, const LogLine& line, int at = __builtin_LINE()) {
        check({.answers = {{reply}},
                    .call    = {RTNetlinkGetRoute, "198.51.100.7", 42, AF_INET},
                    .sends   = {kLookUp},
                    .log     = {line, kNone}},
                   __FILE__, at);
    };
    passes(message(25, 0), kCb.failure("Wrong message type %d", 25));
    passes("1b000000 1800 0000 8*00 11*00 00", kCb.failure("Wrong message length %d, need %d more bytes", 27, 1));
    passes(answer(""), kCb.failure("Table attribute is missing in NEWROUTE message"));
    passes(answer(good + attr(RTA_TABLE, "e8030000 00")), kCb.failure("Table attribute is malformed"));
    passes(answer(kTable), kCb.failure("Gateway attribute is missing in NEWROUTE message"));
    passes(answer(good + attr(RTA_GATEWAY, "c00002")), kCb.failure("Gateway attribute is malformed"));
    passes(answer(kTable + kGateway), kCb.failure("Outgoing interface attribute is missing in NEWROUTE message"));
    passes(answer(good + attr(RTA_OIF, "03000000 00")), kCb.failure("Outgoing interface attribute is malformed"));
    passes(answer(good + attr(RTA_OIF, 9)),
           withErrno(kCb, "Outgoing interface device lookup failed with error - %d %s", ENXIO));
    check({.what    = "the first answer that will do; an IPv6 gateway is none",
           .answers = {{answer(good + attr(RTA_GATEWAY, "16*01")) + answer(good) +
                        answer(good + attr(RTA_GATEWAY, "c0000202"))}},
           .call    = {RTNetlinkGetRoute, "2001:db8::1", 0, AF_INET6},
           .result  = "192.0.2.1 0",
           .sends   = {message(
                 RTM_GETROUTE, NLM_F_REQUEST,
                 {"0a 80 00 00 00 00 00 00 00100000", attr(RTA_DST, "20010db8 11*00 01"), attr(RTA_MARK, 0)})},
           .log     = {kCb.failure("Gateway attribute is malformed"), kFound}});
    rejects({.call  = {RTNetlinkGetRoute, "10.0.0.300", 0, 0},
             .error = EAFNOSUPPORT,
             .log   = kGet.failure("Invalid family %u", 0)});
    rejects({.call  = {RTNetlinkGetRoute, "10.0.0.300", 0, AF_INET},
             .error = EINVAL,
             .log   = kGet.failure("inet_pton failed on destonation address %s with error %d", "10.0.0.300", 0)});
    refused({.call = {RTNetlinkGetRoute, "198.51.100.7", 42, AF_INET}, .log = kUnreachable});
}

TEST(Routes, AreInstalledAndRemovedThroughTheGateway)
{
    const LoggedBy add = rtnl("RTNetlinkAddRoute"), del = rtnl("RTNetlinkDeleteRoute");
    const auto sends = [](int type, int flags, unsigned table = 1000, unsigned output = 3) {
        return Sends{kLookUp, message(type, flags,
                                      {"02 20 00 00 00 04 00 01 00000000", attr(RTA_TABLE, table),
                                       attr(RTA_DST, "c6336407"), attr(RTA_OIF, output), kGateway,
                                       nest(RTA_METRICS, {attr(RTAX_ADVMSS, 1140)}), attr(RTA_PRIORITY, 100)})};
    };
    const std::vector<Reply> found{answer(kTable + kGateway + kOutput)};
    const auto change = [](decltype(RTNetlinkAddRoute)* operation, const char* destination = "198.51.100.7",
                           int family = AF_INET) { return Operation(operation, destination, 42, family, 1000, 3); };

    check({.answers = {found},
           .call    = change(RTNetlinkAddRoute),
           .sends   = sends(RTM_NEWROUTE, kNew),
           .log     = {kFound, kAcked, add.verbose("Successfully installed ip route")}});
    refused({.answers = {found, {refusal(-EPERM)}},
             .call    = change(RTNetlinkAddRoute),
             .log     = {kFound, denied(add.failure("Failed to install ip route"))}});
    check({.answers = {found},
           .call    = {RTNetlinkDeleteRoute, "198.51.100.7", 42, AF_INET, 0, 0},
           .sends   = sends(RTM_DELROUTE, NLM_F_REQUEST, 0, 0),
           .log     = {kFound, core("messageTransact").detail("not requesting ACK for NL message\n"),
                       del.verbose("Successfully removed ip route")}});
    refused({.given   = failing(Call::SendMsg, EPERM, 2),
             .answers = {found},
             .call    = change(RTNetlinkDeleteRoute),
             .log     = {kFound, withErrno(core("messageSend"), "sending NL message failed. errno=[%d, %s]", EPERM),
                         del.failure("Failed to remove ip route")}});

    for (const auto& [operation, by, badDestination, badGateway] :
         {std::tuple(&RTNetlinkAddRoute, add, "inet_pton failed on destination address %s with error %d",
                     "inet_pton failed on gateway address %s - rc %d"),
          std::tuple(&RTNetlinkDeleteRoute, del, "inet_pton failed on source address %s - rc %d",
                     "inet_pton failed on source address %s - rc %d")}) {
        rejects({.call  = change(operation, "10.0.0.300", 18),
                 .error = EAFNOSUPPORT,
                 .log   = by.failure("Invalid family %u", 18)});
        rejects(
            {.call = change(operation, "fe80::1"), .error = EINVAL, .log = by.failure(badDestination, "fe80::1", 0)});
        refused({.answers = {{""}},
                 .call    = change(operation),
                 .error   = ENOENT,
                 .sends   = {kLookUp},
                 .log     = {kNone, by.failure(badGateway, "", 0)}});
        refused({.what    = "IPv6, whose gateway would be one of IPv4",
                 .answers = {found},
                 .call    = change(operation, "2001:db8::7", AF_INET6),
                 .error   = ENOENT,
                 .log     = {kFound, by.failure(badGateway, "192.0.2.1", 0)}});
        refused({.call  = change(operation),
                 .sends = {kLookUp},
                 .log   = {kUnreachable, by.failure("Unable to get gateway address address %s mark %u with error %d",
                                                    "198.51.100.7", 42, -1)}});
    }
}

TEST(Rules, AreFoundByPriorityAndTable)
{
    const LoggedBy get = rtnl("RTNetlinkGetRule"), cb = rtnl("getRuleMark");
    const std::string priority = attr(FRA_PRIORITY, 16000), mark = attr(FRA_FWMARK, 0x10),
                      mask = attr(FRA_FWMASK, 0xff);
    const std::string good =
        priority + mark + mask + attr(FRA_TABLE, 1003); // of two attributes of a type the last one counts
    const auto rule = [](const std::string& attributes) { return message(RTM_NEWRULE, kMulti, {"12*00", attributes}); };
    const auto seen = [&](unsigned m, unsigned k) { return cb.verbose("fwmark 0x%04x/0x%04x", m, k); };
    const auto none = [&](unsigned m, unsigned k, const char* device) {
        return get.failure("Invalid fwmark 0x%04x/0x%04x for dev %s", m, k, device);
    };
    const Check finds({.answers = {{rule(good), kEnd}},
                       .call    = {RTNetlinkGetRule, "wlan0"},
                       .result  = -1,
                       .error   = ENOENT,
                       .sends   = {message(RTM_GETRULE, kDump, {"02 11*00"})}});
    const auto passes = [&](const std::string& reply, const LogLine& line, int at = __builtin_LINE()) {
        finds({.answers = {{reply, kEnd}}, .log = {line, none(0, 0, "wlan0")}}, __FILE__, at);
    };

    finds({.what    = "the last of two",
           .answers = {{rule(good) + rule(good + attr(FRA_FWMARK, 0x12345) + attr(FRA_FWMASK, 0x1ff)), kEnd}},
           .result  = "0x12345/0x1ff",
           .error   = 0,
           .log     = {seen(0x10, 0xff), seen(0x12345, 0x1ff),
                       get.verbose("Got rule fwmark 0x%04x/0x%04x for dev %s", 0x12345, 0x1ff, "wlan0")}});
    finds({.answers = {{rule(good + attr(FRA_FWMASK, 0)), kEnd}}, .log = {seen(0x10, 0), none(0x10, 0, "wlan0")}});
    finds({.answers = {{rule(good + attr(FRA_FWMARK, 0)), kEnd}}, .log = {seen(0, 0xff), none(0, 0xff, "wlan0")}});
    passes(message(33, 0), cb.failure("Wrong message type %d", 33));
    passes("1b000000 2000 0000 8*00 11*00 00", cb.failure("Wrong message length %d, need %d more bytes", 27, 1));
    passes(rule(""), cb.notice("Priority attribute is missing in NEWRULE message"));
    passes(rule(good + attr(FRA_PRIORITY, "803e0000 00")), cb.failure("Mark attribute is malformed"));
    passes(rule(attr(FRA_PRIORITY, 16001)), cb.notice("Mark attribute is not as expected"));
    passes(rule(priority), cb.failure("Mark attribute is missing in NEWRULE message"));
    passes(rule(good + attr(FRA_FWMARK, "10000000 00")), cb.failure("Mark attribute is malformed"));
    passes(rule(priority + mark), cb.failure("Mask attribute is missing in NEWRULE message"));
    passes(rule(good + attr(FRA_FWMASK, "ff000000 00")), cb.failure("Mask attribute is malformed"));
    passes(rule(priority + mark + mask), cb.failure("Table attribute is missing in NEWRULE message"));
    passes(rule(good + attr(FRA_TABLE, "eb030000 00")), cb.failure("Table attribute is malformed"));
    passes(rule(good + attr(FRA_TABLE, 1002)), cb.notice("Table index is not as expected for dev %s", "wlan0"));
    finds({.call = {RTNetlinkGetRule, "wlan9"},
           .log  = {cb.failure("Unable to ifindex for dev %s", "wlan9"), none(0, 0, "wlan9")}});
    finds({.what    = "an index whose table would pass 32 bits",
           .given   = [](ScriptedKernel& kernel) { kernel.addInterface("last", 0xffffffff); },
           .answers = {{rule(good + attr(FRA_TABLE, 999)), kEnd}},
           .call    = {RTNetlinkGetRule, "last"},
           .log     = {cb.notice("Table index is not as expected for dev %s", "last"), none(0, 0, "last")}});
    const std::string interrupted = message(NLMSG_DONE, NLM_F_DUMP_INTR, {"00000000"});
    finds({.what    = "an interrupted dump is no failure",
           .answers = {{rule(good), interrupted}},
           .result  = "0x10/0xff",
           .error   = EINTR,
           .log = {seen(0x10, 0xff), get.verbose("Got rule fwmark 0x%04x/0x%04x for dev %s", 0x10, 0xff, "wlan0")}});
    finds({.what    = "unless it may have missed the rule",
           .answers = {{interrupted}},
           .error   = EINTR,
           .log     = none(0, 0, "wlan0")});
    finds({.answers = {{refusal(-EPERM)}},
           .error   = EPERM,
           .log     = {kDumpRefused, get.failure("Getting rules failed for dev %s", "wlan0")}});
}

static const std::string kOtherType = message(RTM_DELADDRLABEL, 0), kTooShort = "1b000000 4800 0000 8*00 11*00 00";

// The label that is proposed, or how it failed.
static Operation generate(int family, bool useDefault = false)
{
    return [=] {
        unsigned proposed = 0xdead;
        const int result  = addrlabelGenerate(family, useDefault, &proposed);
        return proposed == 0xdead ? std::to_string(result)
                                  : std::to_string(proposed) + (result == 0 ? "" : " though it failed");
    };
}

TEST(Labels, AreGeneratedBelowTheFirstGap)
{
    const LoggedBy by = labels("addrlabelGenerate"), cb = labels("addrlabelGenerateCb");
    const auto all = [](std::initializer_list<unsigned> values) {
        std::string datagram;
        for (const unsigned value : values)
            datagram += entry(label(value));
        return Answers{{datagram, kEnd}};
    };
    const LogLine malformed = cb.failure("label attribute is malformed");
    const auto random       = [](int value) { return [=](ScriptedKernel& kernel) { kernel.setRandom(value); }; };
    const auto dump         = [](const char* family) {
        return message(RTM_GETADDRLABEL, kDump, {family + std::string("11*00")});
    };
    const Check proposes({.given = random(5), .call = generate(AF_INET6), .sends = {dump("0a ")}});

    check({.what = "the default", .call = generate(3, true), .result = 1, .error = 0});
    rejects({.call = generate(258), .error = EAFNOSUPPORT, .log = by.failure("invalid addr type 0x%x", 258)});
    refused({.call  = generate(AF_INET),
             .sends = {dump("02 ")},
             .log   = {kDumpRefused, by.failure("gathering list of currentl labels failed")}});
    proposes({.what = "none of its own", .given = random(0), .answers = all({0, 1, 13, 20}), .result = 20, .error = 0});
    proposes({.what    = "an interrupted dump",
              .answers = {{message(NLMSG_DONE, NLM_F_DUMP_INTR, {"00000000"})}},
              .result  = 25,
              .error   = EINTR});
    proposes({.what = "21 is 8 above 13", .answers = all({0, 13, 25, 22, 21}), .result = 20});
    proposes(
        {.what = "24 is 2 above 22, whatever follows", .answers = all({20, 21, 22, 24, 0x80000000}), .result = 23});
    proposes({.what = "a lone label has no gap", .answers = all({30}), .result = 35});
    proposes({.answers = all({20, 21, 22, 22, 21}),
              .result  = 27,
              .log     = {cb.failure("inserting label %u failed", 22), cb.failure("inserting label %u failed", 21)}});
    proposes(
        {.what = "the highest sum", .given = random(0x7fffffff), .answers = all({0x7fffffff}), .result = "4294967294"});
    proposes({.answers = all({0x80000000}),
              .result  = -1,
              .error   = ENOSPC,
              .log     = by.failure("generating unique label failed")});
    proposes(
        {.answers = {{kOtherType + kTooShort + entry("") + entry(attr(IFAL_LABEL, "1500")) +
                          entry(attr(IFAL_LABEL, "15000000 00000000")),
                      kEnd}},
         .result  = 25,
         .log = {cb.verbose("ignoring non-NEWADDRLABEL message"), cb.failure("invalid NEWADDRLABEL message received"),
                 cb.failure("label attribute is missing in NEWADDRLABEL message"), malformed, malformed}});

    Kernel kernel;
    kernel.answerEach(all({30, 31})); // the first one is compared with the second
    EXPECT_EXIT(generate(AF_INET6)(), testing::KilledBySignal(SIGABRT), "addrlabelGenerate.*overflow");
}

TEST(Labels, ArePurgedWithTheirCompanions)
{
    const LoggedBy by = labels("addrlabelPurge"), cb = labels("addrlabelPurgeDumpCb"),
                   parse      = labels("addrlabelPurgeNLMsgParse");
    const LogLine own         = logLine(by.source, log_level_detail, "Matches address"),
                  companion   = logLine(by.source, log_level_detail, "Label match for");
    const std::string payload = "0a 00 80 00 03000000 00000000", v4 = "02 00 20 00 03000000 00000000";
    const std::string query = message(RTM_GETADDRLABEL, NLM_F_REQUEST, {payload, kOwn}),
                      dump  = message(RTM_GETADDRLABEL, kDump, {payload});
    const auto deletes      = [](const std::string& labelled, const std::string& from, const std::string& prefix,
                            const std::string& family = "0a") {
        return message(RTM_DELADDRLABEL, kAck, {family + " 00 " + prefix + " 00 03000000 00000000", labelled, from});
    };

    check({.what = "the address, whatever its label, and what has the first own label that was found; 255 bits are 128",
           .answers = {{entry(kOwn + attr(IFAL_LABEL, "14000000 ffffffff"), "ff") + entry(kOwn + label(21), "ff")},
                       {entry(attr(IFAL_LABEL, "07000000 ffffffff") + kOwn, "ff") + entry(label(21) + kOther, "ff"),
                        entry(label(20) + kOther, "ff"), kEnd},
                       {},
                       {refusal(-ESRCH)}},
           .call    = {addrlabelPurge, "fe80::1", 255, 3},
           .sends   = {query, dump, deletes(label(7), kOwn, "ff"), deletes(label(20), kOther, "ff")},
           .log     = {own, kAcked, companion,
                       refusedBy(-ESRCH, labels("addrlabelModify").failure("modifying address label failed")),
                       cb.failure("purging address with label %u failed", 20)}});
    const std::string beyond    = address("fe80 5*00 ff 8*00") + label(1),
                      elsewhere = message(RTM_NEWADDRLABEL, kMulti, {"0a 00 3f 00 00000000 00000000", beyond});
    check({.what    = "of a prefix of 63 bits 7 bytes are compared; other prefixes and interfaces stay",
           .answers = {{entry(kOwn + label(1), "3f")}, {entry(beyond, "3e") + elsewhere + entry(beyond, "3f"), kEnd}},
           .call    = {addrlabelPurge, "fe80::1", 63, 3},
           .sends   = {query, dump, deletes(label(1), kOwn, "3f")},
           .log     = {own, kAcked}});
    check({.what    = "of one of 7 bits none; the dump fails after a deletion",
           .answers = {{entry(kOwn + label(1), "07")}, {entry(address("16*20") + label(7), "07"), endOfDump(-EINTR)}},
           .call    = {addrlabelPurge, "fe80::1", 7, 3},
           .result  = -1,
           .error   = EINTR,
           .sends   = {query, dump, deletes(label(7), kOwn, "07")},
           .log     = {own, kAcked, withErrno(core("messageDump"), "NL dump reports errno [%d, %s]", EINTR),
                       by.failure("dumping labels failed")}});
    check({.what    = "IPv4: the whole address counts, whatever the prefix",
           .answers = {{entry(address("c0000200") + label(20), "18", "02")},
                       {entry(address("c0000202") + label(20), "18", "02") +
                            entry(address("c0000203") + label(7), "18", "02"),
                        kEnd}},
           .call    = {addrlabelPurge, "192.0.2.1", 24, 3},
           .sends   = {message(RTM_GETADDRLABEL, NLM_F_REQUEST, {v4, address("c0000201")}),
                       message(RTM_GETADDRLABEL, kDump, {v4}), deletes(label(20), address("c0000202"), "18", "02")},
           .log     = {companion, kAcked}});
    check({.what    = "labels of the system's, and answers that are passed over",
           .answers = {{kOtherType + kTooShort + entry("") + entry(label(20)) + entry(kOwn) +
                        entry(kOwn + attr(IFAL_LABEL, "1400")) + entry(kOwn + label(20), "41") +
                        entry(kOwn + label(20), "40", "02") + entry(kOwn + label(2)) + entry(kOwn + label(19)) +
                        entry(kOwn + label(0))}},
           .call    = {addrlabelPurge, "fe80::1", 64, 3},
           .sends   = {query},
           .log     = {parse.verbose("ignoring non-NEWADDRLABEL message"),
                       parse.failure("%S(): invalid NEWADDRLABEL message received"),
                       parse.failure("address/label is missing in NEWADDRLABEL message"),
                       parse.failure("address/label is missing in NEWADDRLABEL message"),
                       parse.failure("address/label is missing in NEWADDRLABEL message")}});
    const auto twice = [] {
        sockaddr_storage from = socketAddress("fe80::1");
        return 10 * addrlabelPurge(&from, 64, 3) + addrlabelPurge(&from, 64, 3);
    };
    check({.what = "entries that are too short are left; the next call, which the system's label answers, starts anew",
           .answers = {{entry(kOwn + label(20))},
                       {entry(address("fe80 4*00") + label(20)) + entry(kOwn + attr(IFAL_LABEL, "1400")) +
                            entry(address("fe80 5*00 ff") + label(20)),
                        kEnd},
                       {entry(address("16*00") + label(1), "00")}},
           .call    = twice,
           .sends   = {query, dump, query}});
    rejects({.call  = {addrlabelPurge, "none", 64, 3},
             .error = EAFNOSUPPORT,
             .log   = by.failure("invalid addr type 0x%x", 0)});
    refused({.call = {addrlabelPurge, "fe80::1", 64, 3},
             .log  = {core("messageQuery").failure("kernel reports error %d", -EPERM), kNoText,
                      by.failure("querying label failed")}});
}

TEST(Qdiscs, AreAddedDeletedAndChanged)
{
    const LoggedBy tc = rtnl("RTNetlinkTCQdisc"), prio = rtnl("RTNetlinkTCPrio"), flow = rtnl("RTNetlinkFlowControl");
    const std::string root  = "00 000000 03000000 30000200 ffffffff 00000000",
                      child = "00 000000 03000000 30000200 01000200 00000000";
    const std::string pfifo = attr(TCA_KIND, "70666966 6f00"), kind = attr(TCA_KIND, "7072696f 00");
    const auto options     = [](const std::string& digits) { return nest(TCA_OPTIONS, {attr(2, digits)}); };
    const std::string five = options("05000000 03040404 03040202 04030201 00000000 01 000000");
    const auto three       = [&](const std::string& enable) {
        return options("03000000 01020202 01020000 01010101 01010101 " + enable + " 010101");
    };
    const auto trace = [&](const char* word, unsigned parent, const char* state) {
        return flow.verbose("sending nlmsg \"tc qdisc %s dev %s parent:0x%x hndl:0x%x prio flow %s", word, "wlan0",
                            parent, 0x20030, state);
    };
    const auto qdisc = [](unsigned parent, int operation, const char* device = "wlan0") {
        return Operation(RTNetlinkTCQdisc, device, "pfifo", parent, 0x20030, operation);
    };
    const auto bands   = [](int operation) { return Operation(RTNetlinkTCPrio, "wlan0", 0, 0x20030, operation); };
    const auto control = [](unsigned parent, int enable, int operation) {
        return Operation(RTNetlinkFlowControl, "wlan0", parent, 0x20030, enable, operation);
    };

    acked({.call = qdisc(0x20001, 0), .sends = {message(RTM_NEWQDISC, kNew, {child, pfifo})}});
    acked({.call = qdisc(0, 1), .sends = {message(RTM_DELQDISC, kAck, {root, pfifo})}});
    acked({.call = bands(0), .sends = {message(RTM_NEWQDISC, kNew, {root, kind, five})}});
    acked({.call = bands(1), .sends = {message(RTM_DELQDISC, kAck, {root, kind})}});
    check({.call  = control(0, 7, 0),
           .sends = {message(RTM_NEWQDISC, kNew, {root, kind, three("07")})},
           .log   = {trace("add", 0xffffffff, "enable"), kAcked}});
    check({.call  = control(0x20001, 0, 2),
           .sends = {message(RTM_NEWQDISC, kAck, {child, kind, three("00")})},
           .log   = {trace("change", 0x20001, "disable"), kAcked}});
    refused({.call  = control(0, 0, 1),
             .sends = {message(RTM_DELQDISC, kAck, {root, kind})},
             .log   = {trace("del", 0xffffffff, "disable"), denied(flow.failure("tc qdisc transaction failed"))}});
    refused({.call = qdisc(0, 1), .log = denied(tc.failure("tc qdisc transaction failed"))});
    refused({.call = bands(1), .log = denied(prio.failure("tc qdisc transaction failed"))});
    rejects({.call = qdisc(0, 9, "wlan9"), .error = ENODEV, .log = tc.failure("no such device %s", "wlan9")});
    rejects({.call = qdisc(0, 2), .error = EINVAL, .log = tc.failure("tc qdisc invalid flag operation")});
    rejects({.call = bands(2), .error = EINVAL, .log = prio.failure("tc qdisc invalid flag operation")});
    rejects({.call = control(0, 1, 3), .error = EINVAL, .log = flow.failure("tc qdisc invalid flag operation")});
}
