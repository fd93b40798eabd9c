// Requests to NETLINK_ROUTE:
//
//     RTM_NEWADDR                  ifaddrmsg      IFA_LOCAL, IFA_CACHEINFO
//     RTM_NEWLINK                  ifinfomsg      IFLA_GSO_MAX_SIZE
//     RTM_GETROUTE (query)         rtmsg          RTA_DST, RTA_MARK
//     RTM_NEWROUTE, RTM_DELROUTE   rtmsg          RTA_TABLE, DST, OIF, GATEWAY, METRICS { RTAX_ADVMSS }, PRIORITY
//     RTM_GETRULE (dump)           fib_rule_hdr
//     RTM_NEWQDISC, RTM_DELQDISC   tcmsg          TCA_KIND, [OPTIONS { prio options }]

#include <vesk/netlink.h>

#include "AddressBytes.h"
#include "Log.h"
#include "Message.h"
#include "Numbers.h"
#include "Zeroed.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

namespace Vesk {

namespace {

constexpr char kLogSource[] = "src/netlink/RTNetlinkHelper";

constexpr __u32 kForever          = 0xFFFFFFFF; // a lifetime, in seconds
constexpr std::size_t kAddressMax = 16;

// Attributes of a higher type are passed over. Those that are read have lower ones; so the tables stay small when
// newer kernels send more.
constexpr __u32 kMaxRouteType = 30;
constexpr __u32 kMaxRuleType  = 30;

bool isIPv4Or6(unsigned char family)
{
    return family == AF_INET || family == AF_INET6;
}

int addressSize(unsigned char family)
{
    return family == AF_INET ? 4 : 16;
}

} // namespace

// Addresses and links

int RTNetlinkAddressCfg(std::string& device, sockaddr_storage* address, unsigned int prefixLength,
                        AddressLifetimeChange change, unsigned int validLifetime) noexcept
{
    const unsigned int index = if_nametoindex(device.c_str());
    if (index == 0)
        return FAIL("%s(): no duch device %s", device.c_str()); // sic
    const AddressBytes bytes = addressBytes(address);
    if (bytes.size == 0)
        return FAIL_WITH(EAFNOSUPPORT, "%s(): invalid addr family %u", address->ss_family);

    // Two independent choices: a value that is none of the enumerators replaces the address, with infinite lifetimes.
    const bool replace    = change != AddressAdd && change != AddressAddDeprecated;
    const bool deprecated = change == AddressDeprecate || change == AddressAddDeprecated;

    static_assert(sizeof(ifaddrmsg) == 8 && sizeof(ifa_cacheinfo) == 16);
    auto payload = zeroed<ifaddrmsg>(); // ifa_family stays AF_UNSPEC: the platform's kernel judges by the address
    payload.ifa_prefixlen = static_cast<__u8>(prefixLength);
    payload.ifa_index     = index;

    auto lifetimes         = zeroed<ifa_cacheinfo>();
    lifetimes.ifa_prefered = deprecated ? 0 : kForever;
    lifetimes.ifa_valid    = deprecated ? validLifetime : kForever;

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWADDR,
                       static_cast<unsigned short>(kAcknowledged | (replace ? NLM_F_REPLACE : 0)));
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

    static_assert(sizeof(ifinfomsg) == 16);
    auto payload      = zeroed<ifinfomsg>();
    payload.ifi_index = static_cast<int>(index);

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWLINK, kAcknowledged);
    msg.addMsgPayload(sizeof payload, &payload);
    msg.addNLAttribute(IFLA_GSO_MAX_SIZE, gsoMaxSize); // 2 bytes, where mainline kernels want 4
    if (msg.messageTransact() != 0)
        return FAIL("%s(): configuring gso max size failed for dev %s", device.c_str());
    LOG(verbose, "%s(): configured gso max size %u for dev %s", gsoMaxSize, device.c_str());
    return 0;
}

// The gateway of a route

namespace {

// Takes the first message that shows a route with an IPv4 gateway; the table and the device are looked at for the log.
VeskNetlinkQueryReturn getRouterAddress(nlmsghdr* message, void* context) noexcept
{
    constexpr auto next         = NetlinkQueryContinue;
    constexpr unsigned int size = kMessageSize<rtmsg>;

    if (message->nlmsg_type != RTM_NEWROUTE)
        return YIELD(next, failure, "%s(): Wrong message type %d", message->nlmsg_type);
    if (message->nlmsg_len < size)
        return YIELD(next, failure, "%s(): Wrong message length %d, need %d more bytes",
                     static_cast<int>(message->nlmsg_len), static_cast<int>(size - message->nlmsg_len));

    const AttributeTable<kMaxRouteType> attributes(message, size);
    nlattr* table = attributes[RTA_TABLE];
    if (table == nullptr)
        return YIELD(next, failure, "%s(): Table attribute is missing in NEWROUTE message");
    if (!holdsU32(table))
        return YIELD(next, failure, "%s(): Table attribute is malformed");

    nlattr* gateway = attributes[RTA_GATEWAY];
    if (gateway == nullptr)
        return YIELD(next, failure, "%s(): Gateway attribute is missing in NEWROUTE message");
    if (!holdsU32(gateway)) // an IPv6 address does not, either
        return YIELD(next, failure, "%s(): Gateway attribute is malformed");
    char text[512] = {};
    if (inet_ntop(AF_INET, attributeValue(gateway), text, sizeof text) == nullptr)
        return YIELD(next, failure, "%s(): Gateway address conversion failed with error - %d %s", errno,
                     strerror(errno));

    nlattr* output = attributes[RTA_OIF];
    if (output == nullptr)
        return YIELD(next, failure, "%s(): Outgoing interface attribute is missing in NEWROUTE message");
    if (!holdsU32(output))
        return YIELD(next, failure, "%s(): Outgoing interface attribute is malformed");
    char device[IF_NAMESIZE] = {};
    if (if_indextoname(u32Of(output), device) == nullptr)
        return YIELD(next, failure, "%s(): Outgoing interface device lookup failed with error - %d %s", errno,
                     strerror(errno));

    LOG(verbose, "%s(): Table %u gateway address %s device %s", u32Of(table), text, device);
    *static_cast<std::string*>(context) = text;
    return NetlinkQueryDone;
}

} // namespace

RouterAddressResult RTNetlinkGetRoute(std::string destination, unsigned int mark, unsigned char family) noexcept
{
    if (!isIPv4Or6(family))
        return {"", FAIL_WITH(EAFNOSUPPORT, "%s(): Invalid family %u", family)};
    unsigned char address[kAddressMax] = {};
    const int converted                = inet_pton(family, destination.c_str(), address);
    if (converted != 1)
        return {"", FAIL_WITH(EINVAL, "%s(): inet_pton failed on destonation address %s with error %d", // sic
                              destination.c_str(), converted)};

    static_assert(sizeof(rtmsg) == 12);
    auto route        = zeroed<rtmsg>();
    route.rtm_family  = family;
    route.rtm_dst_len = static_cast<unsigned char>(8 * addressSize(family));
    route.rtm_flags   = RTM_F_LOOKUP_TABLE; // the answer names the table that it came from

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETROUTE, NLM_F_REQUEST);
    msg.addMsgPayload(sizeof route, &route);
    msg.addNLAttribute(RTA_DST, addressSize(family), address);
    msg.addNLAttribute(RTA_MARK, mark);

    std::string gateway;
    msg.setQueryCb(getRouterAddress, &gateway, false);
    if (msg.messageQuery() != 0)
        return {"", FAIL("%s(): Getting routes failed")};
    LOG(verbose, "%s(): Got router address %s", gateway.c_str());
    return {gateway, 0};
}

// Routes

namespace {

int sendRoute(unsigned short type, unsigned short flags, unsigned char family, unsigned int table,
              unsigned int outputIfIndex, unsigned char* destination, unsigned char* gateway)
{
    auto route         = zeroed<rtmsg>();
    route.rtm_family   = family;
    route.rtm_dst_len  = static_cast<unsigned char>(8 * addressSize(family));
    route.rtm_protocol = RTPROT_STATIC;
    route.rtm_scope    = RT_SCOPE_UNIVERSE;
    route.rtm_type     = RTN_UNICAST;

    NetlinkMessage msg;
    NestedAttrHandle metrics;
    msg.setNLMsgHeader(NETLINK_ROUTE, type, flags);
    msg.addMsgPayload(sizeof route, &route);
    msg.addNLAttribute(RTA_TABLE, table);
    msg.addNLAttribute(RTA_DST, addressSize(family), destination);
    msg.addNLAttribute(RTA_OIF, outputIfIndex);
    msg.addNLAttribute(RTA_GATEWAY, addressSize(family), gateway);
    msg.startNestedNLAttribute(RTA_METRICS, metrics);
    msg.addNLAttribute(RTAX_ADVMSS, kAdvertisedMSS);
    msg.endNestedNLAttribute(metrics);
    msg.addNLAttribute(RTA_PRIORITY, kRouteMetric);
    return msg.messageTransact();
}

} // namespace

int RTNetlinkAddRoute(std::string destination, unsigned int mark, unsigned char family, unsigned int table,
                      unsigned int outputIfIndex) noexcept
{
    unsigned char to[kAddressMax] = {}, via[kAddressMax] = {};
    if (!isIPv4Or6(family))
        return FAIL_WITH(EAFNOSUPPORT, "%s(): Invalid family %u", family);
    int rc = inet_pton(family, destination.c_str(), to);
    if (rc != 1)
        return FAIL_WITH(EINVAL, "%s(): inet_pton failed on destination address %s with error %d", destination.c_str(),
                         rc);
    const auto [gateway, status] = RTNetlinkGetRoute(destination, mark, family);
    if (status != 0)
        return FAIL("%s(): Unable to get gateway address address %s mark %u with error %d", destination.c_str(), mark,
                    status); // sic
    rc = inet_pton(family, gateway.c_str(), via);
    if (rc != 1)
        return FAIL_WITH(ENOENT, "%s(): inet_pton failed on gateway address %s - rc %d", gateway.c_str(), rc);

    if (sendRoute(RTM_NEWROUTE, kCreate, family, table, outputIfIndex, to, via) != 0)
        return FAIL("%s(): Failed to install ip route");
    LOG(verbose, "%s(): Successfully installed ip route");
    return 0;
}

int RTNetlinkDeleteRoute(std::string destination, unsigned int mark, unsigned char family, unsigned int table,
                         unsigned int outputIfIndex) noexcept
{
    unsigned char to[kAddressMax] = {}, via[kAddressMax] = {};
    if (!isIPv4Or6(family))
        return FAIL_WITH(EAFNOSUPPORT, "%s(): Invalid family %u", family);
    int rc = inet_pton(family, destination.c_str(), to);
    if (rc != 1)
        return FAIL_WITH(EINVAL, "%s(): inet_pton failed on source address %s - rc %d", destination.c_str(), rc); // sic
    const auto [gateway, status] = RTNetlinkGetRoute(destination, mark, family);
    if (status != 0)
        return FAIL("%s(): Unable to get gateway address address %s mark %u with error %d", destination.c_str(), mark,
                    status); // sic
    rc = inet_pton(family, gateway.c_str(), via);
    if (rc != 1)
        return FAIL_WITH(ENOENT, "%s(): inet_pton failed on source address %s - rc %d", gateway.c_str(), rc); // sic

    // Not acknowledged, so that this succeeds whether or not there is such a route.
    if (sendRoute(RTM_DELROUTE, NLM_F_REQUEST, family, table, outputIfIndex, to, via) != 0)
        return FAIL("%s(): Failed to remove ip route");
    LOG(verbose, "%s(): Successfully removed ip route");
    return 0;
}

// The mark of a device's rule

namespace {

struct RuleMarkCtx {
    std::string device;
    __u32 fwmark;
    __u32 fwmask;
};

void getRuleMark(nlmsghdr* message, void* context) noexcept
{
    constexpr unsigned int size = kMessageSize<fib_rule_hdr>;

    auto& rule = *static_cast<RuleMarkCtx*>(context);
    if (message->nlmsg_type != RTM_NEWRULE)
        return LOG(failure, "%s(): Wrong message type %d", message->nlmsg_type);
    if (message->nlmsg_len < size)
        return LOG(failure, "%s(): Wrong message length %d, need %d more bytes", static_cast<int>(message->nlmsg_len),
                   static_cast<int>(size - message->nlmsg_len));

    const AttributeTable<kMaxRuleType> attributes(message, size);
    nlattr* priority = attributes[FRA_PRIORITY];
    if (priority == nullptr)
        return LOG(notice, "%s(): Priority attribute is missing in NEWRULE message");
    if (!holdsU32(priority))
        return LOG(failure, "%s(): Mark attribute is malformed"); // sic
    if (u32Of(priority) != kRulePriority)
        return LOG(notice, "%s(): Mark attribute is not as expected"); // sic

    nlattr* mark = attributes[FRA_FWMARK];
    if (mark == nullptr)
        return LOG(failure, "%s(): Mark attribute is missing in NEWRULE message");
    if (!holdsU32(mark))
        return LOG(failure, "%s(): Mark attribute is malformed");
    nlattr* mask = attributes[FRA_FWMASK];
    if (mask == nullptr)
        return LOG(failure, "%s(): Mask attribute is missing in NEWRULE message");
    if (!holdsU32(mask))
        return LOG(failure, "%s(): Mask attribute is malformed");
    nlattr* table = attributes[FRA_TABLE];
    if (table == nullptr)
        return LOG(failure, "%s(): Table attribute is missing in NEWRULE message");
    if (!holdsU32(table))
        return LOG(failure, "%s(): Table attribute is malformed");

    const unsigned int index = if_nametoindex(rule.device.c_str());
    if (index == 0)
        return LOG(failure, "%s(): Unable to ifindex for dev %s", rule.device.c_str()); // sic
    if (u32Of(table) < kFirstTable || u32Of(table) - kFirstTable != index)
        return LOG(notice, "%s(): Table index is not as expected for dev %s", rule.device.c_str());

    rule.fwmark = u32Of(mark);
    rule.fwmask = u32Of(mask);
    LOG(verbose, "%s(): fwmark 0x%04x/0x%04x", rule.fwmark, rule.fwmask);
}

} // namespace

std::optional<std::pair<unsigned int, unsigned int>> RTNetlinkGetRule(std::string device) noexcept
{
    static_assert(sizeof(fib_rule_hdr) == 12);
    auto any   = zeroed<fib_rule_hdr>();
    any.family = AF_INET;

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETRULE, kDump);
    msg.addMsgPayload(sizeof any, &any);

    RuleMarkCtx rule = {device, 0, 0};
    msg.setDumpCb(getRuleMark, &rule);
    if (msg.messageDump() != 0)
        return YIELD(std::nullopt, failure, "%s(): Getting rules failed for dev %s", device.c_str());
    if (rule.fwmark == 0 || rule.fwmask == 0) {
        if (errno == 0) // the dump was whole; an interrupted one may have missed the rule, and says so
            errno = ENOENT;
        return YIELD(std::nullopt, failure, "%s(): Invalid fwmark 0x%04x/0x%04x for dev %s", rule.fwmark, rule.fwmask,
                     device.c_str());
    }
    LOG(verbose, "%s(): Got rule fwmark 0x%04x/0x%04x for dev %s", rule.fwmark, rule.fwmask, device.c_str());
    return std::pair(rule.fwmark, rule.fwmask);
}

// Queueing disciplines

namespace {

struct QdiscOperation {
    const char* word;
    unsigned short type;
    unsigned short flags;
    bool withOptions;
};

// By operation code; the last one is for flow control only.
constexpr QdiscOperation kQdiscOperations[] = {
    {"add", RTM_NEWQDISC, kCreate, true},
    {"del", RTM_DELQDISC, kAcknowledged, false},
    {"change", RTM_NEWQDISC, kAcknowledged, true},
};
constexpr unsigned char kWithoutChange = 2, kWithChange = 3;

unsigned int parentOrRoot(unsigned int parent)
{
    return parent == 0 ? TC_H_ROOT : parent;
}

// Everything up to the options; null when the device or the operation is refused.
const QdiscOperation* buildQdisc(NetlinkMessage& msg, const char* name, const std::string& device, std::string kind,
                                 unsigned int parent, unsigned int handle, unsigned char operation,
                                 unsigned char operations)
{
    const unsigned int index = if_nametoindex(device.c_str());
    if (index == 0)
        return YIELD_AS(nullptr, failure, name, "%s(): no such device %s", device.c_str());

    static_assert(sizeof(tcmsg) == 20);
    auto qdisc        = zeroed<tcmsg>();
    qdisc.tcm_ifindex = static_cast<int>(index);
    qdisc.tcm_handle  = handle;
    qdisc.tcm_parent  = parentOrRoot(parent);
    msg.addMsgPayload(sizeof qdisc, &qdisc);
    msg.addNLAttribute(TCA_KIND, kind);

    if (operation >= operations) {
        errno = EINVAL;
        return YIELD_AS(nullptr, failure, name, "%s(): tc qdisc invalid flag operation");
    }
    const QdiscOperation& chosen = kQdiscOperations[operation];
    msg.setNLMsgHeader(NETLINK_ROUTE, chosen.type, chosen.flags);
    return &chosen;
}

void addPrioOptions(NetlinkMessage& msg, PrioOptions options)
{
    NestedAttrHandle nest;
    msg.startNestedNLAttribute(TCA_OPTIONS, nest);
    msg.addNLAttribute(kPrioOptions, sizeof options, &options);
    msg.endNestedNLAttribute(nest);
}

int transactQdisc(NetlinkMessage& msg, const char* name)
{
    const int result = msg.messageTransact();
    if (result != 0)
        LOG_AS(failure, name, "%s(): tc qdisc transaction failed");
    return result;
}

} // namespace

int RTNetlinkTCQdisc(std::string& device, std::string& kind, unsigned int parent, unsigned int handle,
                     unsigned char operation) noexcept
{
    NetlinkMessage msg;
    if (buildQdisc(msg, __func__, device, kind, parent, handle, operation, kWithoutChange) == nullptr)
        return -1;
    return transactQdisc(msg, __func__);
}

int RTNetlinkTCPrio(std::string& device, unsigned int parent, unsigned int handle, unsigned char operation) noexcept
{
    NetlinkMessage msg;
    const QdiscOperation* chosen = buildQdisc(msg, __func__, device, "prio", parent, handle, operation, kWithoutChange);
    if (chosen == nullptr)
        return -1;
    if (chosen->withOptions)
        addPrioOptions(msg, {5, {3, 4, 4, 4, 3, 4, 2, 2, 4, 3, 2, 1, 0, 0, 0, 0}, 1, {0, 0, 0}});
    return transactQdisc(msg, __func__);
}

int RTNetlinkFlowControl(std::string& device, unsigned int parent, unsigned int handle, unsigned char enable,
                         unsigned char operation) noexcept
{
    NetlinkMessage msg;
    const QdiscOperation* chosen = buildQdisc(msg, __func__, device, "prio", parent, handle, operation, kWithChange);
    if (chosen == nullptr)
        return -1;
    if (chosen->withOptions)
        addPrioOptions(msg, {3, {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1}, enable, {1, 1, 1}});
    LOG(verbose, "%s(): sending nlmsg \"tc qdisc %s dev %s parent:0x%x hndl:0x%x prio flow %s", chosen->word,
        device.c_str(), parentOrRoot(parent), handle, enable != 0 ? "enable" : "disable"); // sic: the quote stays open
    return transactQdisc(msg, __func__);
}

} // namespace Vesk
