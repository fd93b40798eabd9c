// later-requests OPERATION: the requests that an operation sends after it has read the reply to its first, a block of the
// datagram each line. veskctl's dry run takes replies as empty; here a scripted kernel plays them.
#include <Messages.h>
#include <Records.h>
#include <ScriptedKernel.h>
#include <vesk/netlink.h>

#include <cstdio>
#include <functional>
#include <map>

#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <netinet/in.h>

using namespace Vesk;
using namespace Vesk::Testing;

namespace {

struct Exchange {
    std::vector<std::vector<Reply>> replies; // to each request
    std::function<int()> call;
};

const std::string kRoute = message(
    RTM_NEWROUTE, 0, {"12*00", attr(RTA_TABLE, 254) + attr(RTA_GATEWAY, "c00002fe") + attr(RTA_OIF, 3)}); // 192.0.2.254
const std::string kLabel =
    message(RTM_NEWADDRLABEL, NLM_F_MULTI,
            {"0a 00 40 00 00000000 00000000", attr(IFAL_ADDRESS, "20010db8 0001 10*00") + attr(IFAL_LABEL, 21)});
const std::string kState = message(
    XFRM_MSG_NEWSA, NLM_F_MULTI,
    {XfrmUsersaInfo{
        .daddr = "192.0.2.254", .spi = 0x11223344, .proto = IPPROTO_ESP, .saddr = "192.0.2.1", .family = AF_INET}});

int purge()
{
    sockaddr_storage address                           = {};
    address.ss_family                                  = AF_INET6;
    reinterpret_cast<sockaddr_in6&>(address).sin6_addr = {{{0x20, 0x01, 0x0d, 0xb8, 0, 1}}};
    return addrlabelPurge(&address, 64, 0);
}

int remove()
{
    auto record = espTunnel("192.0.2.1", "192.0.2.254");
    return removeXFRMStates(record);
}

const std::map<std::string, Exchange> kExchanges = {
    {"RTNetlinkAddRoute", {{{kRoute}}, [] { return RTNetlinkAddRoute("198.51.100.7", 0, AF_INET, 1003, 3); }}},
    {"RTNetlinkDeleteRoute", {{{kRoute}}, [] { return RTNetlinkDeleteRoute("198.51.100.7", 0, AF_INET, 1003, 3); }}},
    {"addrlabelPurge", {{{kLabel}, {kLabel, endOfDump()}}, purge}},
    {"removeXFRMStates", {{{kState, endOfDump()}}, remove}},
};

void print(const Request& request)
{
    std::printf("%s, %zu bytes\n", request.protocol == NETLINK_XFRM ? "NETLINK_XFRM" : "NETLINK_ROUTE",
                request.datagram.size());
    std::size_t at = 0;
    for (const std::size_t length : request.scatter) {
        for (std::size_t i = 0; i < length; ++i, ++at)
            std::printf("%s%02x", i % 4 != 0 ? "" : i != 0 ? " " : "  ", request.datagram[at]);
        std::puts("");
    }
}

} // namespace

int main(int argc, char** argv)
{
    const auto found = kExchanges.find(argc == 2 ? argv[1] : "");
    if (found == kExchanges.end())
        return 2;
    ScriptedKernel kernel;
    kernel.addInterface("wlan0", 3);
    kernel.answerEach(found->second.replies);
    if (kernel.run(found->second.call) != 0 || kernel.unreadReplies() != 0)
        return 1;
    for (std::size_t i = 1; i < kernel.requests().size(); ++i)
        print(kernel.requests()[i]);
}
