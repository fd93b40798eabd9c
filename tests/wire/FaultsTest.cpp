// Each system call and each allocation that an operation makes fails in turn: it is logged, reported, and nothing is
// left behind.
#include "WireTest.h"

#include <AnyOperation.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include <linux/fib_rules.h>
#include <linux/genetlink.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <netinet/in.h>

using namespace wire;

// What lets an operation go all its way.
static std::map<std::string, Answers> answers()
{
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
        {"queryGenericNetlinkFamily", id}, {"RTNetlinkGetRoute", route}, {"RTNetlinkAddRoute", route},
        {"RTNetlinkDeleteRoute", route},   {"RTNetlinkGetRule", rule},   {"addrlabelGenerate", {{label, kEnd}}},
        {"updateXFRMStates", state},       {"removeXFRMStates", state},  {"addrlabelPurge", {{label}, {label, kEnd}}},
    };
}

// Calls with one failure, or none, and says why the call failed; 0 when it did not.
static std::unique_ptr<ScriptedKernel> expose(const AnyOperation& operation, Call call, int nth, int& error)
{
    ByteSource usual(nullptr, 0);
    auto kernel = std::make_unique<ScriptedKernel>();
    kernel->addInterface("wlan0", 3);
    kernel->answerEach(answers()[operation.name]);
    if (nth > 0)
        kernel->fail(call, EIO, nth);
    const Result result = kernel->run(operation.make(usual));
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
        for (const AnyOperation& operation : anyOperations()) {
            const bool harmless = call == Call::SetSockOpt || call == Call::Close;
            const bool update   = operation.name == "updateXFRMStates"; // goes on after a dump that fails
            int error           = 0;
            auto kernel         = expose(operation, call, 0, error);
            EXPECT_EQ(error, 0) << operation.name;
            EXPECT_EQ(undescribed(kernel->requests()), "") << operation.name;
            const std::set<std::string> whole = ofIpsec(*kernel);
            for (int nth = kernel->count(call); nth > 0; --nth) {
                kernel.reset(); // there is one at a time
                kernel = expose(operation, call, nth, error);
                SCOPED_TRACE(operation.name + ", kind " + std::to_string(static_cast<int>(call)) + ", call " +
                             std::to_string(nth));
                EXPECT_EQ(std::any_of(kernel->log().begin(), kernel->log().end(), isFailure), !harmless);
                EXPECT_EQ(kernel->openSockets() + kernel->liveBlocks() + kernel->complaints().size(), 0u);

                // A policy without its template would let the traffic pass in the clear, an SA without its hash would
                // go unauthenticated. Other requests may be sent without an attribute, for the kernel to judge.
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
    for (const AnyOperation& operation : anyOperations())
        for (int nth = expose(operation, Call::AllocateOrThrow, 0, error)->count(Call::AllocateOrThrow); nth > 0; --nth)
            EXPECT_EXIT(expose(operation, Call::AllocateOrThrow, nth, error), testing::KilledBySignal(SIGABRT), "")
                << operation.name;
}
