// Requests to NETLINK_ROUTE about the table of address labels, which source-address selection consults:
//
//     RTM_NEWADDRLABEL, RTM_DELADDRLABEL   ifaddrlblmsg   IFAL_LABEL, IFAL_ADDRESS
//     RTM_GETADDRLABEL (query)             ifaddrlblmsg   IFAL_ADDRESS
//     RTM_GETADDRLABEL (dump)              ifaddrlblmsg

#include <vesk/netlink.h>

#include "AddressBytes.h"
#include "Checked.h"
#include "Log.h"
#include "Message.h"
#include "Numbers.h"
#include "Zeroed.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>

namespace Vesk {

namespace {

constexpr char kLogSource[] = "src/netlink/AddrlabelHelper";

constexpr std::size_t kUsualLabels = 64;

using LabelAttributes = AttributeTable<IFAL_LABEL>;
using LabelSet        = std::vector<unsigned int>; // ascending, without duplicates

int addrlabelModify(int type, sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                    unsigned int ifIndex)
{
    const AddressBytes bytes = addressBytes(address);
    if (bytes.size == 0) {
        WITH_CAPITAL_S(return FAIL_WITH(EAFNOSUPPORT, "%S(): invalid addr family %u", address->ss_family)) // sic
    }

    static_assert(sizeof(ifaddrlblmsg) == 12);
    auto entry           = zeroed<ifaddrlblmsg>();
    entry.ifal_family    = static_cast<__u8>(address->ss_family);
    entry.ifal_prefixlen = static_cast<__u8>(prefixLength);
    entry.ifal_index     = ifIndex;

    NetlinkMessage msg;
    if (type == RTM_NEWADDRLABEL)
        msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWADDRLABEL, kCreate);
    else
        msg.setNLMsgHeader(NETLINK_ROUTE, RTM_DELADDRLABEL, kAcknowledged);
    msg.addMsgPayload(sizeof entry, &entry);
    msg.addNLAttribute(IFAL_LABEL, label);
    msg.addNLAttribute(IFAL_ADDRESS, bytes.size, bytes.data);
    const int result = msg.messageTransact();
    if (result != 0)
        LOG(failure, "%s(): modifying address label failed");
    return result;
}

// False when the label is there already. Kernels list labels much as they were added, which is mostly at the end.
bool insert(LabelSet& labels, unsigned int label)
{
    const auto at =
        labels.empty() || labels.back() < label ? labels.end() : std::lower_bound(labels.begin(), labels.end(), label);
    if (at != labels.end() && *at == label)
        return false;
    labels.insert(at, label);
    return true;
}

void addrlabelGenerateCb(nlmsghdr* message, void* context) noexcept
{
    auto& labels = *static_cast<LabelSet*>(context);
    if (message->nlmsg_type != RTM_NEWADDRLABEL)
        return LOG(verbose, "%s(): ignoring non-NEWADDRLABEL message");
    if (message->nlmsg_len < kMessageSize<ifaddrlblmsg>)
        return LOG(failure, "%s(): invalid NEWADDRLABEL message received");

    nlattr* label = LabelAttributes(message, kMessageSize<ifaddrlblmsg>)[IFAL_LABEL];
    if (label == nullptr)
        return LOG(failure, "%s(): label attribute is missing in NEWADDRLABEL message");
    if (!holdsU32(label))
        return LOG(failure, "%s(): label attribute is malformed");
    if (!insert(labels, u32Of(label)))
        LOG(failure, "%s(): inserting label %u failed", u32Of(label));
}

// What the two callbacks of a purge share.
struct addrlabelPurgeCtx {
    sockaddr_storage* addr;
    __u32 prefixlen;
    __u32 label; // 0: not found, or not one to purge
    __u32 ifindex;
};

// 0 when the message shows an entry of the caller's family, prefix length and interface, with address and label.
int addrlabelPurgeNLMsgParse(nlmsghdr* message, LabelAttributes& attributes, const addrlabelPurgeCtx& context)
{
    if (message->nlmsg_type != RTM_NEWADDRLABEL) {
        LOG(verbose, "%s(): ignoring non-NEWADDRLABEL message");
        return -1;
    }
    if (message->nlmsg_len < kMessageSize<ifaddrlblmsg>) {
        WITH_CAPITAL_S(return FAIL("%S(): invalid NEWADDRLABEL message received")) // sic
    }

    const auto entry = payloadOf<ifaddrlblmsg>(message);
    if (entry.ifal_family != context.addr->ss_family || entry.ifal_prefixlen != context.prefixlen ||
        entry.ifal_index != context.ifindex)
        return -1;
    attributes = LabelAttributes(message, kMessageSize<ifaddrlblmsg>);
    if (attributes[IFAL_ADDRESS] == nullptr || attributes[IFAL_LABEL] == nullptr)
        return FAIL("%s(): address/label is missing in NEWADDRLABEL message");
    return 0;
}

VeskNetlinkQueryReturn addrlabelPurgeQueryCb(nlmsghdr* message, void* given) noexcept
{
    auto& context = *static_cast<addrlabelPurgeCtx*>(given);
    LabelAttributes attributes;
    if (addrlabelPurgeNLMsgParse(message, attributes, context) != 0)
        return NetlinkQueryContinue;
    nlattr* label = attributes[IFAL_LABEL];
    if (attributeLength(label) < sizeof(__u32))
        return NetlinkQueryContinue;

    const __u32 value = u32Of(label);
    const bool purged = value >= kFirstOwnLabel || value == kDefaultLabel;
    context.label     = purged ? value : 0;
    return purged ? NetlinkQueryDone : NetlinkQueryContinue;
}

void addrlabelPurgeDumpCb(nlmsghdr* message, void* given) noexcept
{
    const auto& context = *static_cast<addrlabelPurgeCtx*>(given);
    LabelAttributes attributes;
    if (addrlabelPurgeNLMsgParse(message, attributes, context) != 0)
        return;

    // Of an IPv6 prefix whole bytes are compared, of an IPv4 address all of it.
    const AddressBytes own = addressBytes(context.addr);
    const auto width       = static_cast<std::size_t>(own.size);
    const std::size_t compared =
        context.addr->ss_family == AF_INET ? width : std::min<std::size_t>(context.prefixlen / 8, width);
    nlattr *address = attributes[IFAL_ADDRESS], *label = attributes[IFAL_LABEL];
    if (attributeLength(address) < compared || attributeLength(label) < sizeof(__u32))
        return;

    auto victim = zeroed<sockaddr_storage>();
    if (std::memcmp(attributeValue(address), own.data, compared) == 0) {
        LOG_TEXT(detail, "Matches address");
        victim = *context.addr;
    } else if (u32Of(label) == context.label && attributeLength(address) >= width) {
        LOG_TEXT(detail, "Label match for");
        victim.ss_family = context.addr->ss_family;
        std::memcpy(addressBytes(&victim).data, attributeValue(address), width);
    } else {
        return;
    }

    if (addrlabelModify(RTM_DELADDRLABEL, &victim, context.prefixlen, u32Of(label), context.ifindex) != 0)
        LOG(failure, "%s(): purging address with label %u failed", u32Of(label));
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

int addrlabelGenerate(int family, bool useDefault, unsigned int* label) noexcept
{
    if (useDefault) {
        *label = kDefaultLabel;
        errno  = 0; // as after a dump that was whole
        return 0;
    }
    if (family != AF_INET && family != AF_INET6)
        return FAIL_WITH(EAFNOSUPPORT, "%s(): invalid addr type 0x%x", static_cast<unsigned int>(family));

    auto any        = zeroed<ifaddrlblmsg>();
    any.ifal_family = static_cast<__u8>(family);

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETADDRLABEL, kDump);
    msg.addMsgPayload(sizeof any, &any);
    LabelSet labels;
    labels.reserve(kUsualLabels);
    msg.setDumpCb(addrlabelGenerateCb, &labels);
    const int result = msg.messageDump();
    if (result != 0) {
        LOG(failure, "%s(): gathering list of currentl labels failed"); // sic
        return result;
    }

    // A gap is between a label and the one before it. Kept: the first label is compared with the second, if there is
    // one, which ends the process when the first is above 20.
    unsigned int last = kLastSystemLabel;
    for (auto it = std::upper_bound(labels.begin(), labels.end(), kLastSystemLabel); it != labels.end(); ++it) {
        const auto partner = it == labels.begin() ? std::next(it) : std::prev(it);
        if (partner != labels.end() && subOrAbort<unsigned int>(*it, *partner) >= 2) {
            *label = *it - 1;
            return 0;
        }
        last = *it;
    }
    if (last > INT_MAX)
        return FAIL_WITH(ENOSPC, "%s(): generating unique label failed");
    *label = addOrAbort<unsigned int>(last, rand());
    return 0;
}

int addrlabelPurge(sockaddr_storage* address, unsigned int prefixLength, unsigned int ifIndex) noexcept
{
    const AddressBytes bytes = addressBytes(address);
    if (bytes.size == 0)
        return FAIL_WITH(EAFNOSUPPORT, "%s(): invalid addr type 0x%x", address->ss_family);

    addrlabelPurgeCtx context = {address, prefixLength, 0, ifIndex};
    auto entry                = zeroed<ifaddrlblmsg>();
    entry.ifal_family         = static_cast<__u8>(address->ss_family);
    entry.ifal_prefixlen      = static_cast<__u8>(8 * bytes.size); // the kernel looks an address up, not a prefix
    entry.ifal_index          = ifIndex;

    NetlinkMessage query;
    query.setNLMsgHeader(NETLINK_ROUTE, RTM_GETADDRLABEL, NLM_F_REQUEST);
    query.addMsgPayload(sizeof entry, &entry);
    query.addNLAttribute(IFAL_ADDRESS, bytes.size, bytes.data);
    query.setQueryCb(addrlabelPurgeQueryCb, &context, false);
    int result = query.messageQuery();
    if (result != 0) {
        LOG(failure, "%s(): querying label failed");
        return result;
    }
    if (context.label == 0)
        return 0;

    NetlinkMessage dump;
    dump.setNLMsgHeader(NETLINK_ROUTE, RTM_GETADDRLABEL, kDump);
    dump.addMsgPayload(sizeof entry, &entry);
    dump.setDumpCb(addrlabelPurgeDumpCb, &context);
    result = dump.messageDump();
    if (result != 0)
        LOG(failure, "%s(): dumping labels failed");
    return result;
}

} // namespace Vesk
