// Requests to NETLINK_ROUTE about the table of address labels, which source-address selection consults:
//
//     RTM_NEWADDRLABEL, RTM_DELADDRLABEL   ifaddrlblmsg   IFAL_LABEL, IFAL_ADDRESS

#include <vesk/netlink.h>

#include "AddressBytes.h"
#include "Log.h"
#include "Zeroed.h"

#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>

namespace Vesk {

namespace {

constexpr char kLogSource[] = "src/netlink/AddrlabelHelper";

constexpr unsigned short kDelete = NLM_F_REQUEST | NLM_F_ACK;
constexpr unsigned short kCreate = kDelete | NLM_F_EXCL | NLM_F_CREATE;

int addrlabelModify(int type, sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                    unsigned int ifIndex)
{
    const AddressBytes bytes = addressBytes(address);
    if (bytes.size == 0) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
        return FAIL("%S(): invalid addr family %u", address->ss_family); // sic: the logger reads %S as %s
#pragma GCC diagnostic pop
    }

    auto entry           = zeroed<ifaddrlblmsg>();
    entry.ifal_family    = static_cast<__u8>(address->ss_family);
    entry.ifal_prefixlen = static_cast<__u8>(prefixLength);
    entry.ifal_index     = ifIndex;

    NetlinkMessage msg;
    if (type == RTM_NEWADDRLABEL)
        msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWADDRLABEL, kCreate);
    else
        msg.setNLMsgHeader(NETLINK_ROUTE, RTM_DELADDRLABEL, kDelete);
    msg.addMsgPayload(sizeof entry, &entry);
    msg.addNLAttribute(IFAL_LABEL, label);
    msg.addNLAttribute(IFAL_ADDRESS, bytes.size, bytes.data);
    const int result = msg.messageTransact();
    if (result != 0)
        LOG(failure, "%s(): modifying address label failed");
    return result;
}

} // namespace

int addrlabelAdd(sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                 unsigned int ifIndex) noexcept
{
    return addrlabelModify(RTM_NEWADDRLABEL, address, prefixLength, label, ifIndex);
}

int addrlabelDel(sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                 unsigned int ifIndex) noexcept
{
    return addrlabelModify(RTM_DELADDRLABEL, address, prefixLength, label, ifIndex);
}

} // namespace Vesk
