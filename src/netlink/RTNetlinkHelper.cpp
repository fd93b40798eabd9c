// Requests to NETLINK_ROUTE:
//
//     RTM_NEWADDR   ifaddrmsg   IFA_LOCAL, IFA_CACHEINFO
//     RTM_NEWLINK   ifinfomsg   IFLA_GSO_MAX_SIZE

#include <vesk/netlink.h>

#include "AddressBytes.h"
#include "Log.h"
#include "Zeroed.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

namespace Vesk {

namespace {

constexpr char kLogSource[] = "src/netlink/RTNetlinkHelper";

constexpr __u32 kForever = 0xFFFFFFFF; // a lifetime, in seconds

} // namespace

int RTNetlinkAddressCfg(std::string& device, sockaddr_storage* address, unsigned int prefixLength,
                        AddressLifetimeChange change, unsigned int validLifetime) noexcept
{
    const unsigned int index = if_nametoindex(device.c_str());
    if (index == 0)
        return FAIL("%s(): no duch device %s", device.c_str()); // sic
    const AddressBytes bytes = addressBytes(address);
    if (bytes.size == 0)
        return FAIL("%s(): invalid addr family %u", address->ss_family);

    // Two independent choices: a value that is none of the enumerators replaces the address, with infinite lifetimes.
    const bool replace    = change != AddressAdd && change != AddressAddDeprecated;
    const bool deprecated = (change & ~2) == AddressDeprecate;

    auto payload = zeroed<ifaddrmsg>(); // ifa_family stays AF_UNSPEC: the platform's kernel judges by the address
    payload.ifa_prefixlen = static_cast<__u8>(prefixLength);
    payload.ifa_index     = index;

    auto lifetimes         = zeroed<ifa_cacheinfo>();
    lifetimes.ifa_prefered = deprecated ? 0 : kForever;
    lifetimes.ifa_valid    = deprecated ? validLifetime : kForever;

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWADDR,
                       static_cast<unsigned short>(NLM_F_REQUEST | NLM_F_ACK | (replace ? NLM_F_REPLACE : 0)));
    msg.addMsgPayload(sizeof payload, &payload);
    msg.addNLAttribute(IFA_LOCAL, bytes.size, bytes.data);
    msg.addNLAttribute(IFA_CACHEINFO, sizeof lifetimes, &lifetimes);
    if (msg.messageTransact() != 0)
        return FAIL("%s(): configuring address failed");
    return 0;
}

int RTNetlinkSetGSOMaxSize(std::string& device, unsigned short gsoMaxSize) noexcept
{
    const unsigned int index = if_nametoindex(device.c_str());
    if (index == 0)
        return FAIL("%s(): no such device %s", device.c_str());

    auto payload      = zeroed<ifinfomsg>();
    payload.ifi_index = static_cast<int>(index);

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK);
    msg.addMsgPayload(sizeof payload, &payload);
    msg.addNLAttribute(IFLA_GSO_MAX_SIZE, gsoMaxSize); // 2 bytes, where mainline kernels want 4
    if (msg.messageTransact() != 0)
        return FAIL("%s(): configuring gso max size failed for dev %s", device.c_str());
    LOG(verbose, "%s(): configured gso max size %u for dev %s", gsoMaxSize, device.c_str());
    return 0;
}

} // namespace Vesk
