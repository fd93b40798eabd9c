// Requests of your own, with the object behind every operation: a dump of the interfaces, and a change of one.
//
//     own_request               lists the interfaces with their MTU
//     own_request DEVICE MTU    sets one, which requires root

#include <vesk/netlink.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

// A dump callback sees each message of the reply. Only its nlmsg_len was checked before. It checks the type, and that
// the structure is there, then asks for the attributes.
static void printLink(nlmsghdr* message, void* context)
{
    constexpr unsigned int start = NLMSG_SPACE(sizeof(ifinfomsg));
    if (message->nlmsg_type != RTM_NEWLINK || message->nlmsg_len < start)
        return;
    auto* first = reinterpret_cast<nlattr*>(reinterpret_cast<char*>(message) + start);
    std::unordered_map<int, nlattr*> attributes;
    Vesk::NetlinkMessage::parseAttributes(first, attributes, message->nlmsg_len - start, IFLA_MTU);

    const auto name = attributes.find(IFLA_IFNAME), mtu = attributes.find(IFLA_MTU);
    if (name == attributes.end() || mtu == attributes.end() ||
        mtu->second->nla_len != NLA_HDRLEN + sizeof(unsigned int))
        return;
    unsigned int bytes;
    std::memcpy(&bytes, reinterpret_cast<char*>(mtu->second) + NLA_HDRLEN, sizeof bytes);
    std::printf("%-16s %u\n", reinterpret_cast<char*>(name->second) + NLA_HDRLEN, bytes);
    ++*static_cast<int*>(context);
}

static int listLinks()
{
    // Without IFLA_EXT_MASK, kernels send no datagram that is longer than a receive. With it they may, and a cut
    // between two links would not show.
    ifinfomsg any = {};
    Vesk::NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP);
    msg.addMsgPayload(sizeof any, &any);
    int count = 0;
    if (msg.messageDump(printLink, &count) != 0) {
        std::perror("own_request");
        return 1;
    }
    if (errno == EINTR) // what a dump says of itself when it succeeds
        std::puts("The interfaces changed meanwhile: some may be missing.");
    return count > 0 ? 0 : 1;
}

static int setMTU(const char* device, unsigned int mtu)
{
    ifinfomsg link = {};
    link.ifi_index = static_cast<int>(if_nametoindex(device));
    Vesk::NetlinkMessage msg; // serves this one request
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK);
    msg.addMsgPayload(sizeof link, &link);
    msg.addNLAttribute(IFLA_MTU, mtu);
    if (msg.messageTransact() == 0)
        return 0;
    std::perror(device);
    return 1;
}

int main(int argc, char** argv)
{
    if (argc == 3)
        return setMTU(argv[1], static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)));
    return listLinks();
}
