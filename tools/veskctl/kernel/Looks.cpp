#include "Looks.h"

#include "Kernel.h"

#include <ScriptedKernel.h>
#include <netlink/Numbers.h>
#include <vesk/netlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <system_error>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Vesk::Messages;

namespace {

// `found` is what `each` finds, in one reading.
template <typename Found>
void look(const Dump& what, Found& found, const std::function<void(const Fields&, Bytes)>& each)
{
    const int result = readAll(
        what, [&found] { found = {}; }, each);
    if (result != 0 || errno == EINTR)
        throw std::system_error(errno, std::generic_category());
}

std::string word(const Fields& fields, const char* name)
{
    const Field* const field = fieldOf(fields, name);
    return field != nullptr ? field->inWords() : "";
}

std::uint64_t number(const Fields& fields, const char* name)
{
    const Field* const field = fieldOf(fields, name);
    return field != nullptr ? field->number() : 0;
}

struct Ends {
    Ends(const Record& r, bool tx)
        : source(addressText(tx ? r.local_addr : r.remote_addr)),
          destination(addressText(tx ? r.remote_addr : r.local_addr))
    {}
    [[nodiscard]] std::string text() const { return source + " > " + destination; }
    std::string source, destination;
};

// "esp tunnel 192.0.2.1 > 192.0.2.254", of an SA or a template
std::string pathOf(const Fields& fields)
{
    return word(fields, "protocol") + ' ' + word(fields, "mode") + ' ' + word(fields, "source") + " > " +
           word(fields, "destination");
}

std::vector<std::string> templatesOf(const Fields& policy)
{
    std::map<std::size_t, Fields> items;
    for (Field each : policy)
        if (each.group == "templates") {
            each.group.clear(); // as if it was all that there is
            items[each.item].push_back(each);
        }
    std::vector<std::string> all(items.size());
    std::transform(items.begin(), items.end(), all.begin(), [](const auto& each) { return pathOf(each.second); });
    return all;
}

// The value of an attribute, without the key in it, or that key.
std::vector<unsigned char> valueIn(const Fields& fields, Bytes message, const char* attribute, bool key)
{
    std::vector<unsigned char> value;
    for (const Field& each : fields)
        if (each.part == attribute && each.kind != Kind::Header && (each.kind == Kind::Key) == key) {
            const Bytes bytes = message.subspan(each.valueAt, each.valueSize);
            value.insert(value.end(), bytes.begin(), bytes.end());
        }
    return value;
}

// What an update leaves, besides algorithms and keys; by its names in lists.
constexpr const char* kKept[] = {"mode",
                                 "source",
                                 "reqid",
                                 "if_id",
                                 "replay_window",
                                 "flags",
                                 "selected_source",
                                 "selected_destination",
                                 "selected_ip_protocol",
                                 "selected_source_port",
                                 "selected_destination_port",
                                 "selected_device",
                                 "padded_to_bytes",
                                 "extra_flags"};

std::string unusual(const Fields& fields, const char* name)
{
    const Field* const field = fieldOf(fields, name);
    return field == nullptr || field->usual ? "" : field->inWords();
}

// What an SA has otherwise than the request for it among these, keys aside when they are hidden.
std::string keptBy(const Fields& state, Bytes message, const Requests& wanted, bool hidden)
{
    for (const auto& request : wanted) {
        const Fields asked = decode(NETLINK_XFRM, request);
        if (word(asked, "spi") != word(state, "spi") || word(asked, "destination") != word(state, "destination"))
            continue;
        std::vector<std::string> kept;
        for (const char* const each : kKept)
            if (unusual(asked, each) != unusual(state, each))
                kept.emplace_back(each);
        for (const auto& [attribute, name] :
             {std::pair("XFRMA_ALG_CRYPT", "cipher"), std::pair("XFRMA_ALG_AUTH_TRUNC", "hash"),
              std::pair("XFRMA_ENCAP", "UDP encapsulation"), std::pair("XFRMA_SET_MARK", "output mark")}) {
            if (valueIn(asked, request, attribute, false) != valueIn(state, message, attribute, false))
                kept.emplace_back(name);
            if (!hidden && valueIn(asked, request, attribute, true) != valueIn(state, message, attribute, true))
                kept.push_back(std::string(name) + " key");
        }
        if (fieldOf(state, "mask") != nullptr)
            kept.emplace_back("mark");
        return joined(kept);
    }
    return "";
}

} // namespace

std::vector<InstalledState> installedStates(const Record& r, const Requests& wanted)
{
    std::vector<InstalledState> found;
    const auto add = [&](const Fields& fields, Bytes message) {
        std::vector<unsigned char> keys;
        for (const Field& each : fields)
            if (const Bytes key = message.subspan(each.valueAt, each.valueSize); each.kind == Kind::Key)
                keys.insert(keys.end(), key.begin(), key.end());
        const bool hidden = !keys.empty() && isZero(keys);
        for (const bool tx : {true, false})
            if (const Ends ends(r, tx); word(fields, "protocol") == protocolOf(r) &&
                                        number(fields, "spi") == (tx ? r.spi_tx : r.spi_rx) &&
                                        word(fields, "destination") == ends.destination)
                found.push_back({tx, number(fields, "mark") != 0, word(fields, "source") == ends.source,
                                 word(fields, "source"), keptBy(fields, message, wanted, hidden),
                                 number(fields, "packets"), word(fields, "first_used"), word(fields, "last_used"),
                                 hidden, word(fields, "state") == "larval",
                                 fieldOf(fields, "encapsulation") != nullptr});
    };
    look(kStates, found, add);
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

std::vector<InstalledPolicy> installedPolicies(const xfrm_selector& sel, unsigned char direction)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&sel);
    std::vector<InstalledPolicy> found;
    look(kPolicies, found, [&](const Fields& fields, Bytes message) {
        if (number(fields, "direction") != direction ||
            !std::equal(bytes, bytes + sizeof sel, message.begin() + NLMSG_HDRLEN)) // it is the first in the message
            return;
        std::vector<std::string> words;
        if ((number(fields, "mark") | number(fields, "mask")) != 0)
            words.push_back("mark " + word(fields, "mark") + '/' + word(fields, "mask"));
        if (number(fields, "if_id") != 0)
            words.push_back("if_id " + word(fields, "if_id"));
        if (const std::string context = word(fields, "security_context"); !context.empty())
            words.push_back("context " + context);
        if (number(fields, "policy_type") != XFRM_POLICY_TYPE_MAIN)
            words.emplace_back("ptype sub");
        found.push_back({joined(words), word(fields, "action"), templatesOf(fields)});
    });
    return found;
}

std::set<std::string> betweenEnds(const Record& r, const xfrm_selector& out, const xfrm_selector& in)
{
    const bool tunnel      = r.encap_mode == TRO_IPSEC_ENCAP_MODE_TUNNEL_V01;
    const std::string kind = protocolOf(r) + std::string(tunnel ? " tunnel " : " transport ");
    const std::string tx = kind + Ends(r, true).text(), rx = kind + Ends(r, false).text();

    std::set<std::string> found;
    look(kStates, found, [&](const Fields& fields, Bytes) {
        const auto spi         = number(fields, "spi");
        const bool marked      = number(fields, "mark") != 0;
        const std::string name = "SA with SPI " + word(fields, "spi") + (marked ? " and a mark" : "");
        if (pathOf(fields) == tx)
            found.insert(!marked && (r.spi_tx_valid == 0 || spi == r.spi_tx) ? "TX" : "the outgoing " + name);
        if (pathOf(fields) == rx)
            found.insert(!marked && (r.spi_rx_valid == 0 || spi == r.spi_rx) ? "RX" : "the incoming " + name);
    });
    const auto addPolicies = [&](const char* name, const xfrm_selector& sel, unsigned char direction) {
        for (const InstalledPolicy& each : installedPolicies(sel, direction))
            if (std::count(each.templates.begin(), each.templates.end(), direction == XFRM_POLICY_OUT ? tx : rx) != 0)
                found.insert(name + (each.otherwise.empty() ? "" : " with " + each.otherwise));
    };
    addPolicies("the out policy", out, XFRM_POLICY_OUT);
    addPolicies("the in policy", in, XFRM_POLICY_IN);
    addPolicies("the fwd policy", in, XFRM_POLICY_FWD);
    return found;
}

int removePolicy(const xfrm_selector& sel, unsigned char direction)
{
    xfrm_userpolicy_id id = {};
    id.sel                = sel;
    id.dir                = direction;
    Vesk::NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_DELPOLICY, Vesk::kAcknowledged);
    msg.addMsgPayload(sizeof id, &id);
    return msg.messageTransact() == 0 ? 0 : errno;
}

std::vector<std::string> routesTo(const std::string& destination, unsigned int table, unsigned int device)
{
    table = table != RT_TABLE_UNSPEC ? table : RT_TABLE_MAIN; // as the kernel takes it
    std::vector<std::string> routes;
    look(kRoutes, routes, [&](const Fields& fields, Bytes) {
        if (word(fields, "destination") != destination + "/32" || number(fields, "table") != table ||
            (number(fields, "RTA_OIF") != device && fieldOf(fields, "RTA_MULTIPATH") == nullptr))
            return;
        const std::string gateway = word(fields, "gateway");
        const std::string object  = word(fields, "RTA_NH_ID");
        const std::string direct  = fieldOf(fields, "RTA_MULTIPATH") != nullptr ? "via several gateways" : "on link";
        routes.push_back(
            (gateway.empty() ? direct : "via " + gateway) + (object.empty() ? "" : " by nexthop object " + object) +
            " metric " + std::to_string(number(fields, "metric")) + " advmss " +
            std::to_string(number(fields, "RTAX_ADVMSS")) + " origin " + word(fields, "origin") + " scope " +
            word(fields, "scope") + " type " + word(fields, "type") + " tos " + word(fields, "tos"));
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

    Vesk::NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_ROUTE, RTM_GETROUTE, NLM_F_REQUEST);
    msg.addMsgPayload(sizeof about, &about);
    msg.addNLAttribute(RTA_DST, size, address.data());
    msg.addNLAttribute(RTA_MARK, mark);
    std::optional<NextHop> found;
    const int result = msg.messageQuery(
        [](nlmsghdr* message, void* context) {
            if (message->nlmsg_type != RTM_NEWROUTE)
                return Vesk::NetlinkQueryContinue;
            const Fields fields                            = decoded(kRoutes, message);
            *static_cast<std::optional<NextHop>*>(context) = {word(fields, "gateway"), word(fields, "RTA_OIF"),
                                                              word(fields, "type")};
            return Vesk::NetlinkQueryDone;
        },
        &found, false);
    if (constexpr int kNoWay[] = {ENETUNREACH, EHOSTUNREACH, EACCES, EINVAL};
        result != 0 && std::find(std::begin(kNoWay), std::end(kNoWay), errno) == std::end(kNoWay))
        throw std::system_error(errno, std::generic_category());
    return found;
}

std::string qdiscAt(unsigned int device, unsigned int parent)
{
    std::string found;
    look(kQdiscs, found, [&](const Fields& fields, Bytes) {
        // A handle of 0 is that of the kernel's own.
        if (number(fields, "device") == device && number(fields, "handle") != 0 &&
            number(fields, "parent") == (parent == 0 ? TC_H_ROOT : parent) && fieldOf(fields, "TCA_KIND") != nullptr)
            found = word(fields, "TCA_KIND") + ' ' + word(fields, "handle");
    });
    return found;
}

std::vector<std::string> localPrefixes()
{
    std::vector<std::string> found;
    look(kRoutes, found, [&found](const Fields& fields, Bytes) {
        if (word(fields, "type") == "local" && fieldOf(fields, "destination") != nullptr)
            found.push_back(word(fields, "destination"));
    });
    return found;
}

std::string Label::text() const
{
    return addressText(address.data(), address.size()) + '/' + std::to_string(length);
}

std::vector<Label> installedLabels()
{
    std::vector<Label> labels;
    look(kLabels, labels, [&labels](const Fields& fields, Bytes message) {
        const Field* const prefix = fieldOf(fields, "prefix");
        const Field* const label  = fieldOf(fields, "label");
        const Field* device       = fieldOf(fields, "device");
        if (device == nullptr)
            device = fieldOf(fields, "device_index");
        Label entry = {};
        if (prefix == nullptr || prefix->valueSize != entry.address.size() || label == nullptr || device == nullptr)
            return;
        std::copy_n(message.begin() + static_cast<std::ptrdiff_t>(prefix->valueAt), entry.address.size(),
                    entry.address.begin());
        entry.length = static_cast<unsigned int>(prefix->prefix);
        entry.device = static_cast<unsigned int>(device->number());
        entry.label  = static_cast<unsigned int>(label->number());
        labels.push_back(entry);
    });
    return labels;
}

bool mayChangeNetworks()
{
    __user_cap_header_struct header                         = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, rights) == 0 && (rights[0].effective & (1U << CAP_NET_ADMIN)) != 0;
}
