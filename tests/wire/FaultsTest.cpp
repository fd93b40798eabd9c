// Each system call and each allocation that an operation makes fails in turn: it is logged, reported, and nothing is
// left behind.
#include "WireTest.h"

#include <Records.h>

#include <algorithm>
#include <memory>
#include <set>

#include <linux/fib_rules.h>
#include <linux/genetlink.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <netinet/in.h>

using namespace wire;

struct Exposed {
    std::string name;
    Operation call;
    Answers answers = {};
};

static std::vector<Exposed> operations()
{
    const auto inUdp = [](const char* local) {
        auto record                 = espTunnel(local, "198.51.100.7");
        record.udp_encap_port_valid = record.udp_encap_valid = record.udp_encap = 1;
        return record;
    };
    const auto record = inUdp("192.0.2.1"), moved = inUdp("192.0.2.9");
    const auto family = [](unsigned short id = 0) {
        std::string name = "nlctrl";
        return queryGenericNetlinkFamily(name, 2, &id);
    };
    const auto generate = [](unsigned label = 0) { return addrlabelGenerate(AF_INET6, false, &label); };
    const auto gateway  = [] {
        const auto [found, status] = RTNetlinkGetRoute("198.51.100.7", 42, AF_INET);
        if (status == 0 && found.empty())
            errno = ENOENT;
        return found.empty() ? -1 : 0;
    };
    const char *here = "10.0.0.0/8", *there = "10.1.0.0/16";

    const Answers id{{message(GENL_ID_CTRL, 0, {"01020000", attr(CTRL_ATTR_FAMILY_ID, "1000")})}};
    const Answers route{{message(RTM_NEWROUTE, 0,
                                 {"12*00", attr(RTA_TABLE, 1000) + attr(RTA_GATEWAY, "c0000201") + attr(RTA_OIF, 3)})}};
    const Answers rule{{message(RTM_NEWRULE, kMulti,
                                {"12*00", attr(FRA_PRIORITY, 16000) + attr(FRA_FWMARK, 16) + attr(FRA_FWMASK, 255) +
                                              attr(FRA_TABLE, 1003)}),
                        kEnd}};
    const std::string label =
        message(RTM_NEWADDRLABEL, kMulti,
                {"0a 00 40 00 03000000 00000000", attr(IFAL_ADDRESS, "fe80 13*00 01") + attr(IFAL_LABEL, 20)});
    const Answers state{{message(XFRM_MSG_NEWSA, kMulti,
                                 {XfrmUsersaInfo{.daddr  = "198.51.100.7",
                                                 .spi    = 0x11223344,
                                                 .proto  = IPPROTO_ESP,
                                                 .saddr  = "192.0.2.1",
                                                 .family = AF_INET}}),
                         kEnd}};
    return {
        {"queryGenericNetlinkFamily", family, id},
        {"RTNetlinkAddressCfg", {RTNetlinkAddressCfg, "wlan0", "fe80::1", 64, AddressAdd, 0}},
        {"RTNetlinkSetGSOMaxSize", {RTNetlinkSetGSOMaxSize, "wlan0", 1500}},
        {"RTNetlinkGetRoute", gateway, route},
        {"RTNetlinkAddRoute", {RTNetlinkAddRoute, "198.51.100.7", 42, AF_INET, 1000, 3}, route},
        {"RTNetlinkDeleteRoute", {RTNetlinkDeleteRoute, "198.51.100.7", 42, AF_INET, 1000, 3}, route},
        {"RTNetlinkGetRule", {RTNetlinkGetRule, "wlan0"}, rule},
        {"RTNetlinkTCQdisc", {RTNetlinkTCQdisc, "wlan0", "pfifo", 0, 0x10000, 0}},
        {"RTNetlinkTCPrio", {RTNetlinkTCPrio, "wlan0", 0, 0x10000, 0}},
        {"RTNetlinkFlowControl", {RTNetlinkFlowControl, "wlan0", 0, 0x10000, 1, 2}},
        {"addrlabelAdd", {addrlabelAdd, "fe80::1", 64, 20, 3}},
        {"addrlabelDel", {addrlabelDel, "fe80::1", 64, 20, 3}},
        {"addrlabelGenerate", generate, {{label, kEnd}}},
        {"addrlabelPurge", {addrlabelPurge, "fe80::1", 64, 3}, {{label}, {label, kEnd}}},
        {"addXFRMStates", {addXFRMStates, record, 0, 1, 1}},
        {"updateXFRMStates", {updateXFRMStates, record, 0, 1, 1}, state},
        {"removeXFRMStates", {removeXFRMStates, record}, state},
        {"addXFRMPolicies", {addXFRMPolicies, record, here, there, 0, false}},
        {"removeXFRMPolicies", {removeXFRMPolicies, here, there, 0, false}},
        {"addXFRMPolicyEx", {addXFRMPolicyEx, 1}},
        {"removeXFRMPolicyEx", {removeXFRMPolicyEx, 1}},
        {"migrateXFRMInfo", {migrateXFRMInfo, record, moved, here, there, 0}},
    };
}

// Calls with one failure, or none, and says why the call failed; 0 when it did not.
static std::unique_ptr<ScriptedKernel> expose(const Exposed& operation, Call call, int nth, int& error)
{
    auto kernel = std::make_unique<ScriptedKernel>();
    kernel->addInterface("wlan0", 3);
    kernel->answerEach(operation.answers);
    if (nth > 0)
        kernel->fail(call, EIO, nth);
    const Result result = kernel->run(operation.call);
    error               = result.text == std::string("-1") ? errno : 0;
    return kernel;
}

// Length and type of each request of IPsec.
static std::set<std::string> ofIpsec(const ScriptedKernel& kernel)
{
    std::set<std::string> all;
    for (const Request& request : kernel.requests())
        if (request.protocol == NETLINK_XFRM)
            all.insert(digits(request).substr(0, 12));
    return all;
}

TEST(Faults, LeaveNothingBehind)
{
    const auto isFailure = [](const LogLine& line) { return line.level == log_level_failure; };
    for (const Call call : {Call::Socket, Call::SetSockOpt, Call::Bind, Call::SendMsg, Call::RecvFrom, Call::Close,
                            Call::NameToIndex, Call::IndexToName, Call::Allocate})
        for (const Exposed& operation : operations()) {
            const bool harmless = call == Call::SetSockOpt || call == Call::Close;
            const bool update   = operation.name == "updateXFRMStates"; // goes on after a dump that fails
            int error           = 0;
            auto kernel         = expose(operation, call, 0, error);
            EXPECT_EQ(error, 0) << operation.name;
            const std::set<std::string> whole = ofIpsec(*kernel);
            for (int nth = kernel->count(call); nth > 0; --nth) {
                kernel.reset(); // there is one at a time
                kernel = expose(operation, call, nth, error);
                SCOPED_TRACE(operation.name + ", kind " + std::to_string(static_cast<int>(call)) + ", call " +
                             std::to_string(nth));
                EXPECT_EQ(std::any_of(kernel->log().begin(), kernel->log().end(), isFailure), !harmless);
                EXPECT_EQ(kernel->openSockets() + kernel->liveBlocks() + kernel->complaints().size(), 0u);

                // A policy without its template would let the traffic pass in clear, an SA without its hash would go
                // unauthenticated. Other requests may go out without an attribute, for the kernel to judge.
                const std::set<std::string> sent = ofIpsec(*kernel);
                EXPECT_TRUE(std::includes(whole.begin(), whole.end(), sent.begin(), sent.end()));
                const bool decides =
                    call == Call::Allocate ? !whole.empty() && operation.name != "removeXFRMStates" : nth == 1;
                EXPECT_TRUE(harmless ? error == 0 : error != 0 || update || !decides);
                const bool ofLookUp =
                    call == Call::IndexToName || (call == Call::NameToIndex && operation.name == "RTNetlinkGetRule");
                const int reason = ofLookUp ? ENOENT : call == Call::Allocate ? ENOMEM : EIO;
                // An update whose dump is not sent gets the dump's answer to its next request.
                EXPECT_TRUE(error == 0 || error == reason || (update && nth == 1 && error == EBADMSG)) << error;
            }
        }
}

// A container that runs out of memory ends the process.
TEST(FaultsDeathTest, EndTheProcess)
{
    int error = 0;
    for (const Exposed& operation : operations())
        for (int nth = expose(operation, Call::AllocateOrThrow, 0, error)->count(Call::AllocateOrThrow); nth > 0; --nth)
            EXPECT_EXIT(expose(operation, Call::AllocateOrThrow, nth, error), testing::KilledBySignal(SIGABRT), "")
                << operation.name;
}
