// Each system call and each allocation that an operation makes fails in turn: it is logged, reported, and nothing is left behind.
#include "WireTest.h"

#include <Records.h>

using namespace wire;
using namespace Vesk;

struct Exposed {
    const char* name;
    Operation call;
    Answers answers;
};

static std::vector<Exposed> operations()
{
    static auto record = espTunnel("192.0.2.1", "198.51.100.7"), moved = espTunnel("192.0.2.9", "198.51.100.7");
    static auto address = socketAddress("fe80::1");
    static std::string device = "wlan0", kind = "pfifo", name = "nlctrl", here = "10.0.0.0/8", there = "10.1.0.0/16";
    const auto technology = static_cast<tro_technology_name_enum_v01>(0);
    const std::string family = "1c000000 1000 0000 8*00 01020000 0600 0100 1000 0000",
                      route = "34000000 1800 0000 8*00 12*00 0800 0f00 e8030000 0800 0500 c0000201 0800 0400 03000000";
    const std::string rule = "3c000000 2000 0200 8*00 12*00 0800 0600 803e0000 0800 0a00 10000000 0800 1000 ff000000 0800 0f00 eb030000";
    const std::string label = "38000000 4800 0200 8*00 0a 00 40 00 03000000 00000000 1400 0100 fe80 13*00 01 0800 0200 14000000";
    const std::string state = "f0000000 1000 0200 8*00 56*00 c6336407 12*00 11223344 32 000000 c0000201 12*00 116*00 0200 01 00 00 7*00";
    return {
        {"family",
         [] {
             unsigned short id;
             return queryGenericNetlinkFamily(name, 2, &id);
         },
         {replies({family})}},
        {"address", [] { return RTNetlinkAddressCfg(device, &address, 64, AddressAdd, 0); }, {}},
        {"gso", [] { return RTNetlinkSetGSOMaxSize(device, 1500); }, {}},
        {"route get", [] { return RTNetlinkGetRoute("198.51.100.7", 42, AF_INET).gateway.empty() ? -1 : 0; }, {replies({route})}},
        {"route add", [] { return RTNetlinkAddRoute("198.51.100.7", 42, AF_INET, 1000, 3); }, {replies({route})}},
        {"route del", [] { return RTNetlinkDeleteRoute("198.51.100.7", 42, AF_INET, 1000, 3); }, {replies({route})}},
        {"rule", [] { return RTNetlinkGetRule(device).has_value() ? 0 : -1; }, {replies({rule, kEnd})}},
        {"qdisc", [] { return RTNetlinkTCQdisc(device, kind, 0, 0x10000, 0); }, {}},
        {"prio", [] { return RTNetlinkTCPrio(device, 0, 0x10000, 0); }, {}},
        {"flow", [] { return RTNetlinkFlowControl(device, 0, 0x10000, 1, 2); }, {}},
        {"label add", [] { return addrlabelAdd(&address, 64, 20, 3); }, {}},
        {"label del", [] { return addrlabelDel(&address, 64, 20, 3); }, {}},
        {"label generate",
         [] {
             unsigned found;
             return addrlabelGenerate(AF_INET6, false, &found);
         },
         {replies({label, kEnd})}},
        {"label purge", [] { return addrlabelPurge(&address, 64, 3); }, {replies({label}), replies({label, kEnd})}},
        {"states add", [=] { return addXFRMStates(record, technology, 1, 1); }, {}},
        {"states update", [=] { return updateXFRMStates(record, technology, 1, 1); }, {replies({state, kEnd})}},
        {"states remove", [] { return removeXFRMStates(record); }, {replies({state, kEnd})}},
        {"policies add", [] { return addXFRMPolicies(record, here, there, 0, false); }, {}},
        {"policies remove", [] { return removeXFRMPolicies(here, there, 0, false); }, {}},
        {"bypass", [] { return addXFRMPolicyEx(1); }, {}},
        {"migrate", [] { return migrateXFRMInfo(record, moved, here, there, 0); }, {}},
    };
}

// With one failure, or none: the kernel afterwards.
static std::unique_ptr<ScriptedKernel> expose(const Exposed& operation, Call call, int nth, int& result)
{
    auto kernel = std::make_unique<ScriptedKernel>();
    kernel->addInterface("wlan0", 3);
    kernel->answerEach(operation.answers);
    if (nth > 0) kernel->fail(call, EIO, nth);
    result = kernel->run(operation.call);
    return kernel;
}

class Faults : public testing::TestWithParam<Call> {};

TEST_P(Faults, LeaveNothingBehind)
{
    const Call call = GetParam();
    const bool harmless = call == Call::SetSockOpt || call == Call::Close;
    const bool decides = !harmless && call != Call::Allocate; // without memory a request may go out that lacks an attribute, for the kernel to judge
    for (const Exposed& operation : operations()) {
        int result = -1;
        const int count = expose(operation, call, 0, result)->count(call);
        EXPECT_EQ(result, 0) << operation.name;
        for (int nth = 1; nth <= count; ++nth) {
            SCOPED_TRACE(operation.name + std::string(", call ") + std::to_string(nth) + " of " + std::to_string(count));
            const auto kernel = expose(operation, call, nth, result);
            const bool logged = std::any_of(kernel->log().begin(), kernel->log().end(), [](const LogLine& line) { return line.level == log_level_failure; });
            EXPECT_EQ(logged, !harmless);
            const bool first = nth == 1 && operation.name != std::string("states update"); // which goes on after a failed dump
            EXPECT_TRUE(harmless ? result == 0 : !first || !decides || result != 0) << result;
            EXPECT_EQ(kernel->openSockets() + kernel->liveBlocks(), 0u);
            EXPECT_TRUE(kernel->complaints().empty()) << kernel->complaints()[0];
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Each, Faults,
                         testing::Values(Call::Socket, Call::SetSockOpt, Call::Bind, Call::SendMsg, Call::RecvFrom, Call::Close, Call::NameToIndex, Call::IndexToName,
                                         Call::Allocate));

// A container that runs out of memory ends the process.
TEST(FaultsDeathTest, EndTheProcess)
{
    for (const Exposed& operation : operations()) {
        int result = 0;
        const int count = expose(operation, Call::AllocateOrThrow, 0, result)->count(Call::AllocateOrThrow);
        for (int nth = 1; nth <= count; ++nth) EXPECT_EXIT(expose(operation, Call::AllocateOrThrow, nth, result), testing::KilledBySignal(SIGABRT), "") << operation.name;
    }
}
