#include "Looks.h"

#include "Checks.h"
#include "Dump.h"
#include "Text.h"

#include <ScriptedKernel.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <linux/pkt_sched.h>
#include <linux/xfrm.h>
#include <net/if.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

template <typename Payload>
void dumpAll(int protocol, unsigned short request, unsigned short type, Payload about, const Show<Payload>& show)
{
    static_cast<void>(dump<Payload>(protocol, request, type, &about, show));
}

void dumpStates(const Show<xfrm_usersa_info>& show)
{
    static_cast<void>(dump<xfrm_usersa_info>(NETLINK_XFRM, XFRM_MSG_GETSA, XFRM_MSG_NEWSA, nullptr, show));
}

std::string textOf(const xfrm_address_t& address, unsigned int family)
{
    return addressText(&address, family == AF_INET ? sizeof address.a4 : sizeof address.a6);
}

unsigned int protocolOf(const Record& r)
{
    return r.ipsec_protocol == kAH ? IPPROTO_AH : IPPROTO_ESP;
}

// An algorithm's name and key, or any other attribute. A kernel that keeps keys to itself shows them as zeros.
std::string differing(const Attributes& wanted, const Attributes& installed, int type, std::size_t head,
                      const std::string& name)
{
    const auto *const one = wanted.value(type), *const other = installed.value(type);
    const std::size_t size = wanted.size(type);
    if (one == nullptr || other == nullptr || size != installed.size(type) ||
        std::memcmp(one, other, std::min(size, head)) != 0)
        return one == other ? "" : name;
    const bool hidden = std::all_of(other + head, other + size, [](unsigned char byte) { return byte == 0; });
    return hidden || std::memcmp(one + head, other + head, size - head) == 0 ? "" : name + " key";
}

// What an SA has otherwise than the request for it among these.
std::string keptBy(const xfrm_usersa_info& state, const Attributes& attributes, const Requests& wanted)
{
    for (std::vector<unsigned char> request : wanted) {
        auto* const message = reinterpret_cast<nlmsghdr*>(request.data());
        if (message->nlmsg_len < NLMSG_LENGTH(sizeof(xfrm_usersa_info)) || message->nlmsg_type != XFRM_MSG_UPDSA)
            continue;
        xfrm_usersa_info info;
        std::memcpy(&info, NLMSG_DATA(message), sizeof info);
        if (info.id.spi != state.id.spi || std::memcmp(&info.id.daddr, &state.id.daddr, sizeof info.id.daddr) != 0)
            continue;
        const Attributes asked(message, sizeof info);
        std::vector<std::string> kept = {
            info.mode != state.mode ? "mode" : "",
            std::memcmp(&info.saddr, &state.saddr, sizeof info.saddr) != 0 ? "source" : "",
            differing(asked, attributes, XFRMA_ALG_CRYPT, sizeof(xfrm_algo), "cipher"),
            differing(asked, attributes, XFRMA_ALG_AUTH_TRUNC, sizeof(xfrm_algo_auth), "hash"),
            differing(asked, attributes, XFRMA_ENCAP, sizeof(xfrm_encap_tmpl), "UDP encapsulation"),
            differing(asked, attributes, XFRMA_SET_MARK, sizeof(__u32), "output mark"),
        };
        std::erase(kept, "");
        return joined(kept);
    }
    return "";
}

xfrm_selector selectorOf(const std::string& source, const std::string& destination, unsigned char protocol)
{
    xfrm_selector sel = {};
    sel.proto         = protocol;
    const auto set    = [&sel](const std::string& text, xfrm_address_t& address, __u8& length) {
        if (text.empty())
            return;
        const Prefix prefix = prefixOf(text);
        sel.family          = prefix.address.ss_family;
        length              = static_cast<__u8>(prefix.length);
        if (sel.family == AF_INET)
            address.a4 = reinterpret_cast<const sockaddr_in&>(prefix.address).sin_addr.s_addr;
        else
            std::memcpy(&address, &reinterpret_cast<const sockaddr_in6&>(prefix.address).sin6_addr, sizeof address);
    };
    set(source, sel.saddr, sel.prefixlen_s);
    set(destination, sel.daddr, sel.prefixlen_d);
    return sel;
}

// For XFRM and routes, text of an address attribute.
std::string addressIn(const Attributes& attributes, int type, std::size_t behind = 0)
{
    return attributes.size(type) > behind ? addressText(attributes.value(type) + behind, attributes.size(type) - behind)
                                          : "";
}

std::string gatewayOf(const Attributes& attributes)
{
    return attributes.has(RTA_GATEWAY) ? addressIn(attributes, RTA_GATEWAY)
                                       : addressIn(attributes, RTA_VIA, sizeof(rtvia));
}

} // namespace

std::vector<InstalledState> installedStates(const Record& r, const Requests& wanted)
{
    std::vector<InstalledState> found;
    const std::string local = addressText(r.local_addr), remote = addressText(r.remote_addr);
    dumpStates([&](const xfrm_usersa_info& state, const Attributes& attributes) {
        const std::string source = textOf(state.saddr, state.family), to = textOf(state.id.daddr, state.family);
        const auto* const mark = attributes.as<xfrm_mark>(XFRMA_MARK);
        for (const bool tx : {true, false})
            if (state.id.proto == protocolOf(r) && ntohl(state.id.spi) == (tx ? r.spi_tx : r.spi_rx) &&
                to == (tx ? remote : local))
                found.push_back({tx, mark != nullptr && mark->v != 0, source == (tx ? local : remote), source,
                                 keptBy(state, attributes, wanted)});
    });
    return found;
}

Requests requestsOf(const std::function<int()>& operation)
{
    Vesk::Testing::ScriptedKernel kernel;
    static_cast<void>(operation());
    Requests all;
    for (const Vesk::Testing::Request& each : kernel.requests())
        all.push_back(each.datagram);
    return all;
}

int statesBetween(const Record& r, bool tx)
{
    int count               = 0;
    const std::string local = addressText(r.local_addr), remote = addressText(r.remote_addr);
    dumpStates([&](const xfrm_usersa_info& state, const Attributes&) {
        const bool between = textOf(state.saddr, state.family) == (tx ? local : remote) &&
                             textOf(state.id.daddr, state.family) == (tx ? remote : local);
        const bool tunnel = state.mode == XFRM_MODE_TUNNEL;
        count += between && state.id.proto == protocolOf(r) && tunnel == (r.encap_mode == kTunnel) ? 1 : 0;
    });
    return count;
}

std::vector<std::string> otherwiseOf(const std::string& source, const std::string& destination, unsigned char protocol,
                                     unsigned char direction)
{
    const xfrm_selector sel = selectorOf(source, destination, protocol);
    std::vector<std::string> found;
    static_cast<void>(
        dump<xfrm_userpolicy_info>(NETLINK_XFRM, XFRM_MSG_GETPOLICY, XFRM_MSG_NEWPOLICY, nullptr,
                                   [&](const xfrm_userpolicy_info& policy, const Attributes& attributes) {
                                       if (policy.dir != direction || std::memcmp(&policy.sel, &sel, sizeof sel) != 0)
                                           return;
                                       const auto* const mark = attributes.as<xfrm_mark>(XFRMA_MARK);
                                       const auto* const type = attributes.as<xfrm_userpolicy_type>(XFRMA_POLICY_TYPE);
                                       const auto id          = attributes.number(XFRMA_IF_ID);
                                       std::vector<std::string> words;
                                       if (mark != nullptr && (mark->v | mark->m) != 0)
                                           words.push_back("mark " + hexadecimal(mark->v) + '/' + hexadecimal(mark->m));
                                       if (id && *id != 0)
                                           words.push_back("if_id " + hexadecimal(*id));
                                       if (type != nullptr && type->type != XFRM_POLICY_TYPE_MAIN)
                                           words.emplace_back("ptype sub");
                                       found.push_back(joined(words));
                                   }));
    return found;
}

int removePolicy(const std::string& source, const std::string& destination, unsigned char protocol,
                 unsigned char direction)
{
    xfrm_userpolicy_id id = {};
    id.sel                = selectorOf(source, destination, protocol);
    id.dir                = direction;
    Vesk::NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_DELPOLICY, NLM_F_REQUEST | NLM_F_ACK);
    msg.addMsgPayload(sizeof id, &id);
    return msg.messageTransact() == 0 ? 0 : errno;
}

std::vector<std::string> routesTo(const std::string& destination, unsigned int table, unsigned int device)
{
    table            = table != RT_TABLE_UNSPEC ? table : RT_TABLE_MAIN; // as the kernel takes it
    rtmsg about      = {};
    about.rtm_family = AF_INET;
    std::vector<std::string> routes;
    dumpAll<rtmsg>(NETLINK_ROUTE, RTM_GETROUTE, RTM_NEWROUTE, about,
                   [&](const rtmsg& route, const Attributes& attributes) {
                       if (route.rtm_dst_len != 32 || addressIn(attributes, RTA_DST) != destination ||
                           attributes.number(RTA_TABLE) != table || attributes.number(RTA_OIF) != device)
                           return;
                       const std::string gateway = gatewayOf(attributes);
                       routes.push_back((gateway.empty() ? "on link" : "via " + gateway) + " metric " +
                                        std::to_string(attributes.number(RTA_PRIORITY).value_or(0)));
                   });
    return routes;
}

std::optional<NextHop> nextHop(const std::string& destination, unsigned char family, unsigned int mark)
{
    const int size                        = family == AF_INET ? 4 : 16;
    std::array<unsigned char, 16> address = {};
    inet_pton(family, destination.c_str(), address.data());
    rtmsg about       = {};
    about.rtm_family  = family;
    about.rtm_dst_len = static_cast<unsigned char>(8 * size);

    std::optional<NextHop> found;
    const Show<rtmsg> show = [&](const rtmsg&, const Attributes& attributes) {
        char device[IF_NAMESIZE] = {};
        if_indextoname(attributes.number(RTA_OIF).value_or(0), device);
        found = {gatewayOf(attributes), device};
    };
    Shown<rtmsg> shown = {RTM_NEWROUTE, show};
    Vesk::NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETROUTE, NLM_F_REQUEST);
    msg.addMsgPayload(sizeof about, &about);
    msg.addNLAttribute(RTA_DST, size, address.data());
    msg.addNLAttribute(RTA_MARK, mark);
    static_cast<void>(msg.messageQuery(
        [](nlmsghdr* message, void* context) {
            return static_cast<Shown<rtmsg>*>(context)->take(message) ? Vesk::NetlinkQueryDone
                                                                      : Vesk::NetlinkQueryContinue;
        },
        &shown, false));
    return found;
}

std::string qdiscAt(unsigned int device, unsigned int parent)
{
    std::string found;
    dumpAll<tcmsg>(
        NETLINK_ROUTE, RTM_GETQDISC, RTM_NEWQDISC, {}, [&](const tcmsg& qdisc, const Attributes& attributes) {
            // A handle of 0 is that of the kernel's own.
            if (qdisc.tcm_ifindex == static_cast<int>(device) && qdisc.tcm_handle != 0 &&
                qdisc.tcm_parent == (parent == 0 ? TC_H_ROOT : parent) && attributes.has(TCA_KIND))
                found = attributes.text(TCA_KIND) + ' ' + hexadecimal(qdisc.tcm_handle >> 16).substr(2) + ':';
        });
    return found;
}

bool mayChangeNetworks()
{
    __user_cap_header_struct header                         = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, rights) == 0 && (rights[0].effective & (1U << CAP_NET_ADMIN)) != 0;
}
