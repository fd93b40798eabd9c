// Tables of what the library sends, and a walk over a datagram by them:
//
//     nlmsghdr | payload | attribute: header, value, padding | attribute ...
//
// A value is a number, a text, an address, a structure, or attributes again.

#include "Decoder.h"

#include "Text.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <map>

#include <linux/fib_rules.h>
#include <linux/genetlink.h>
#include <linux/if_addr.h>
#include <linux/if_addrlabel.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using Names = std::map<std::uint64_t, const char*>;

enum class Kind {
    Number,
    Limit,  // a number, or none
    Hex,    // a number that is read in hexadecimal
    Flags,  // whose bits have names
    Big,    // a number in network order
    BigHex, // and read in hexadecimal
    Address,
    Family, // of the addresses beside it
    Text,
    Bytes,
};

struct Structure;
struct Attribute;
using KnownAttributes = std::vector<Attribute>;

// How bytes are read: as a value, whose numbers may have names; as a structure; as attributes.
struct Format {
    Kind kind                         = Kind::Number;
    const Names* names                = nullptr;
    const Structure* structure        = nullptr;
    const KnownAttributes* attributes = nullptr;
};

struct Field {
    const char* name;
    std::size_t offset, size;
    Format format = {};
};

struct Structure {
    const char* name;
    std::size_t size;
    std::vector<Field> fields;
};

struct Attribute {
    int type;
    const char* name;
    Format format  = {};
    bool keyBehind = false; // behind its structure
};

struct Message {
    int protocol;
    unsigned int type;
    const char* name;
    const Structure* payload;
    const KnownAttributes* attributes;
};

Field field(const char* name, std::size_t offset, std::size_t size, const Format& format = {})
{
    return {name, offset, size, format};
}

Attribute attribute(int type, const char* name, const Format& format = {}, bool keyBehind = false)
{
    return {type, name, format, keyBehind};
}

// The kernel's headers have the names.
#define NAMED(constant)          std::pair(constant, #constant)
#define FLAG(name)               std::pair(NLM_F_##name, #name)
#define AT(member, ...)          field(#member, offsetof(S, member), sizeof(S::member) __VA_OPT__(, ) __VA_ARGS__)
#define ATTRIBUTE(constant, ...) attribute(constant, #constant __VA_OPT__(, ) __VA_ARGS__)
#define MESSAGE(constant)        constant, #constant
#define STRUCTURE(type, ...)                                                                                           \
    [] {                                                                                                               \
        using S = type;                                                                                                \
        return Structure{#type, sizeof(S), {__VA_ARGS__}};                                                             \
    }()

const Names kProtocols      = {NAMED(NETLINK_ROUTE), NAMED(NETLINK_XFRM), NAMED(NETLINK_GENERIC)};
const Names kFamilies       = {NAMED(AF_UNSPEC), NAMED(AF_INET), NAMED(AF_INET6)};
const Names kIPProtocols    = {NAMED(IPPROTO_AH), NAMED(IPPROTO_ESP), NAMED(IPPROTO_ICMPV6)};
const Names kModes          = {NAMED(XFRM_MODE_TRANSPORT), NAMED(XFRM_MODE_TUNNEL)};
const Names kDirections     = {NAMED(XFRM_POLICY_IN), NAMED(XFRM_POLICY_OUT), NAMED(XFRM_POLICY_FWD)};
const Names kActions        = {NAMED(XFRM_POLICY_ALLOW), NAMED(XFRM_POLICY_BLOCK)};
const Names kOrigins        = {NAMED(RTPROT_UNSPEC), NAMED(RTPROT_STATIC)};
const Names kRouteTypes     = {NAMED(RTN_UNSPEC), NAMED(RTN_UNICAST)};
const Names kCommands       = {NAMED(CTRL_CMD_GETFAMILY)};
const Names kParents        = {NAMED(TC_H_ROOT)};
const Names kEncapsulations = {{2, "UDP_ENCAP_ESPINUDP"}};
const Names kRouteFlags     = {NAMED(RTM_F_LOOKUP_TABLE)};
const Names kStateFlags     = {NAMED(XFRM_STATE_NOPMTUDISC), NAMED(XFRM_STATE_AF_UNSPEC)};
const Names kHeaderFlags    = {FLAG(REQUEST), FLAG(ACK), FLAG(REPLACE), FLAG(EXCL), FLAG(CREATE)};
const Names kGetFlags       = {FLAG(REQUEST), FLAG(DUMP)};

constexpr Format named(const Names& names)
{
    return {Kind::Number, &names};
}

constexpr Format made(const Structure& structure)
{
    return {Kind::Number, nullptr, &structure};
}

constexpr Format kHex = {Kind::Hex}, kBig = {Kind::Big}, kBigHex = {Kind::BigHex}, kLimit = {Kind::Limit};
constexpr Format kAddress = {Kind::Address}, kText = {Kind::Text}, kBytes = {Kind::Bytes};
constexpr Format kFamily = {Kind::Family, &kFamilies}, kIPProtocol = named(kIPProtocols), kMode = named(kModes);

const Structure kHeader =
    STRUCTURE(nlmsghdr, AT(nlmsg_len), AT(nlmsg_type), AT(nlmsg_flags), AT(nlmsg_seq), AT(nlmsg_pid));
const Structure kGeneric = STRUCTURE(genlmsghdr, AT(cmd, named(kCommands)), AT(version), AT(reserved));
const Structure kInterfaceAddress =
    STRUCTURE(ifaddrmsg, AT(ifa_family, kFamily), AT(ifa_prefixlen), AT(ifa_flags, kHex), AT(ifa_scope), AT(ifa_index));
const Structure kLifetimes =
    STRUCTURE(ifa_cacheinfo, AT(ifa_prefered, kLimit), AT(ifa_valid, kLimit), AT(cstamp), AT(tstamp));
const Structure kLink  = STRUCTURE(ifinfomsg, AT(ifi_family, kFamily), AT(ifi_type), AT(ifi_index), AT(ifi_flags, kHex),
                                   AT(ifi_change, kHex));
const Structure kRoute = STRUCTURE(rtmsg, AT(rtm_family, kFamily), AT(rtm_dst_len), AT(rtm_src_len), AT(rtm_tos),
                                   AT(rtm_table), AT(rtm_protocol, named(kOrigins)), AT(rtm_scope),
                                   AT(rtm_type, named(kRouteTypes)), AT(rtm_flags, {Kind::Flags, &kRouteFlags}));
const Structure kRule  = STRUCTURE(fib_rule_hdr, AT(family, kFamily), AT(dst_len), AT(src_len), AT(tos), AT(table),
                                   AT(res1), AT(res2), AT(action), AT(flags, kHex));
const Structure kQdisc = STRUCTURE(tcmsg, AT(tcm_family, kFamily), AT(tcm__pad1), AT(tcm__pad2), AT(tcm_ifindex),
                                   AT(tcm_handle, kHex), AT(tcm_parent, {Kind::Hex, &kParents}), AT(tcm_info));
const Structure kLabel = STRUCTURE(ifaddrlblmsg, AT(ifal_family, kFamily), AT(__ifal_reserved), AT(ifal_prefixlen),
                                   AT(ifal_flags, kHex), AT(ifal_index), AT(ifal_seq));

// The platform's own: tc_prio_qopt, and a switch behind it.
struct prio_options {
    std::int32_t bands;
    unsigned char priomap[16], flow_control, filler[3];
};
const Structure kPrio = STRUCTURE(prio_options, AT(bands), AT(priomap, kBytes), AT(flow_control), AT(filler, kBytes));

const Structure kSelector =
    STRUCTURE(xfrm_selector, AT(daddr, kAddress), AT(saddr, kAddress), AT(dport, kBig), AT(dport_mask, kBigHex),
              AT(sport, kBig), AT(sport_mask, kBigHex), AT(family, kFamily), AT(prefixlen_d), AT(prefixlen_s),
              AT(proto, kIPProtocol), AT(ifindex), AT(user));
const Structure kId = STRUCTURE(xfrm_id, AT(daddr, kAddress), AT(spi, kBigHex), AT(proto, kIPProtocol));
const Structure kLimits =
    STRUCTURE(xfrm_lifetime_cfg, AT(soft_byte_limit, kLimit), AT(hard_byte_limit, kLimit),
              AT(soft_packet_limit, kLimit), AT(hard_packet_limit, kLimit), AT(soft_add_expires_seconds),
              AT(hard_add_expires_seconds), AT(soft_use_expires_seconds), AT(hard_use_expires_seconds));
const Structure kUse   = STRUCTURE(xfrm_lifetime_cur, AT(bytes), AT(packets), AT(add_time), AT(use_time));
const Structure kStats = STRUCTURE(xfrm_stats, AT(replay_window), AT(replay), AT(integrity_failed));
const Structure kState =
    STRUCTURE(xfrm_usersa_info, AT(sel, made(kSelector)), AT(id, made(kId)), AT(saddr, kAddress),
              AT(lft, made(kLimits)), AT(curlft, made(kUse)), AT(stats, made(kStats)), AT(seq), AT(reqid),
              AT(family, kFamily), AT(mode, kMode), AT(replay_window), AT(flags, {Kind::Flags, &kStateFlags}));
const Structure kStateId =
    STRUCTURE(xfrm_usersa_id, AT(daddr, kAddress), AT(spi, kBigHex), AT(family, kFamily), AT(proto, kIPProtocol));
const Structure kEvent =
    STRUCTURE(xfrm_aevent_id, AT(sa_id, made(kStateId)), AT(saddr, kAddress), AT(flags, kHex), AT(reqid));
const Structure kPolicy = STRUCTURE(xfrm_userpolicy_info, AT(sel, made(kSelector)), AT(lft, made(kLimits)),
                                    AT(curlft, made(kUse)), AT(priority), AT(index), AT(dir, named(kDirections)),
                                    AT(action, named(kActions)), AT(flags, kHex), AT(share));
const Structure kPolicyId =
    STRUCTURE(xfrm_userpolicy_id, AT(sel, made(kSelector)), AT(index), AT(dir, named(kDirections)));
const Structure kTemplate =
    STRUCTURE(xfrm_user_tmpl, AT(id, made(kId)), AT(family, kFamily), AT(saddr, kAddress), AT(reqid), AT(mode, kMode),
              AT(share), AT(optional), AT(aalgos, kHex), AT(ealgos, kHex), AT(calgos, kHex));
const Structure kMigrate =
    STRUCTURE(xfrm_user_migrate, AT(old_daddr, kAddress), AT(old_saddr, kAddress), AT(new_daddr, kAddress),
              AT(new_saddr, kAddress), AT(proto, kIPProtocol), AT(mode, kMode), AT(reserved), AT(reqid),
              AT(old_family, kFamily), AT(new_family, kFamily));
const Structure kCipher = STRUCTURE(xfrm_algo, AT(alg_name, kText), AT(alg_key_len));
const Structure kHash   = STRUCTURE(xfrm_algo_auth, AT(alg_name, kText), AT(alg_key_len), AT(alg_trunc_len));
const Structure kEncap  = STRUCTURE(xfrm_encap_tmpl, AT(encap_type, named(kEncapsulations)), AT(encap_sport, kBig),
                                    AT(encap_dport, kBig), AT(encap_oa, kAddress));
const Structure kReplay = STRUCTURE(xfrm_replay_state, AT(oseq), AT(seq), AT(bitmap, kHex));

const KnownAttributes kOfFamilies  = {ATTRIBUTE(CTRL_ATTR_FAMILY_NAME, kText)};
const KnownAttributes kOfAddresses = {ATTRIBUTE(IFA_LOCAL, kAddress), ATTRIBUTE(IFA_CACHEINFO, made(kLifetimes))};
const KnownAttributes kOfLinks     = {ATTRIBUTE(IFLA_GSO_MAX_SIZE)};
const KnownAttributes kOfMetrics   = {ATTRIBUTE(RTAX_ADVMSS)};
const KnownAttributes kOfRoutes    = {ATTRIBUTE(RTA_TABLE),
                                      ATTRIBUTE(RTA_DST, kAddress),
                                      ATTRIBUTE(RTA_OIF),
                                      ATTRIBUTE(RTA_GATEWAY, kAddress),
                                      ATTRIBUTE(RTA_METRICS, {Kind::Number, nullptr, nullptr, &kOfMetrics}),
                                      ATTRIBUTE(RTA_PRIORITY),
                                      ATTRIBUTE(RTA_MARK, kHex)};
const KnownAttributes kOfPrio      = {{2, "prio_options", made(kPrio)}};
const KnownAttributes kOfQdiscs    = {ATTRIBUTE(TCA_KIND, kText),
                                      ATTRIBUTE(TCA_OPTIONS, {Kind::Number, nullptr, nullptr, &kOfPrio})};
const KnownAttributes kOfLabels    = {ATTRIBUTE(IFAL_LABEL), ATTRIBUTE(IFAL_ADDRESS, kAddress)};
const KnownAttributes kOfIPsec     = {ATTRIBUTE(XFRMA_ALG_CRYPT, made(kCipher), true),
                                      ATTRIBUTE(XFRMA_ALG_AUTH_TRUNC, made(kHash), true),
                                      ATTRIBUTE(XFRMA_ENCAP, made(kEncap)),
                                      ATTRIBUTE(XFRMA_SET_MARK, kHex),
                                      ATTRIBUTE(XFRMA_SET_MARK_MASK, kHex),
                                      ATTRIBUTE(XFRMA_SRCADDR, kAddress),
                                      ATTRIBUTE(XFRMA_REPLAY_VAL, made(kReplay)),
                                      ATTRIBUTE(XFRMA_TMPL, made(kTemplate)),
                                      ATTRIBUTE(XFRMA_MIGRATE, made(kMigrate))};

const Message kMessages[] = {
    {NETLINK_GENERIC, MESSAGE(GENL_ID_CTRL), &kGeneric, &kOfFamilies},
    {NETLINK_ROUTE, MESSAGE(RTM_NEWADDR), &kInterfaceAddress, &kOfAddresses},
    {NETLINK_ROUTE, MESSAGE(RTM_NEWLINK), &kLink, &kOfLinks},
    {NETLINK_ROUTE, MESSAGE(RTM_GETROUTE), &kRoute, &kOfRoutes},
    {NETLINK_ROUTE, MESSAGE(RTM_NEWROUTE), &kRoute, &kOfRoutes},
    {NETLINK_ROUTE, MESSAGE(RTM_DELROUTE), &kRoute, &kOfRoutes},
    {NETLINK_ROUTE, MESSAGE(RTM_GETRULE), &kRule, nullptr},
    {NETLINK_ROUTE, MESSAGE(RTM_NEWQDISC), &kQdisc, &kOfQdiscs},
    {NETLINK_ROUTE, MESSAGE(RTM_DELQDISC), &kQdisc, &kOfQdiscs},
    {NETLINK_ROUTE, MESSAGE(RTM_NEWADDRLABEL), &kLabel, &kOfLabels},
    {NETLINK_ROUTE, MESSAGE(RTM_DELADDRLABEL), &kLabel, &kOfLabels},
    {NETLINK_ROUTE, MESSAGE(RTM_GETADDRLABEL), &kLabel, &kOfLabels},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_NEWSA), &kState, &kOfIPsec},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_UPDSA), &kState, &kOfIPsec},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_DELSA), &kStateId, &kOfIPsec},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_GETSA), nullptr, nullptr},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_NEWAE), &kEvent, &kOfIPsec},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_NEWPOLICY), &kPolicy, &kOfIPsec},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_DELPOLICY), &kPolicyId, &kOfIPsec},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_GETPOLICY), nullptr, nullptr},
    {NETLINK_XFRM, MESSAGE(XFRM_MSG_MIGRATE), &kPolicyId, &kOfIPsec},
};

#undef NAMED
#undef FLAG
#undef STRUCTURE
#undef MESSAGE
#undef AT
#undef ATTRIBUTE

// The walk

using Bytes = std::vector<unsigned char>;

std::uint64_t numberIn(const Bytes& bytes, bool networkOrder)
{
    const bool lastFirst = networkOrder == (std::endian::native == std::endian::big);
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        number = number << 8 | bytes[lastFirst ? bytes.size() - 1 - i : i];
    return number;
}

// "REQUEST ACK"; what has no name is a number.
std::string flagText(std::uint64_t flags, const Names& names)
{
    std::vector<std::string> set;
    for (const auto& [bit, name] : names)
        if ((flags & bit) != 0) {
            set.emplace_back(name);
            flags &= ~bit;
        }
    if (flags != 0 || set.empty())
        set.push_back(hexadecimal(flags));
    return joined(set, " ");
}

class Walk {
public:
    Walk(const Bytes& given, bool keysShown) : datagram(given), showKeys(keysShown) {}

    std::vector<DecodedField> message(int protocol)
    {
        structure(kHeader.name, "", kHeader);
        const std::uint64_t type = fields[1].value.get<std::uint64_t>(), flags = fields[2].value.get<std::uint64_t>();
        const auto* const known = std::find_if(std::begin(kMessages), std::end(kMessages), [&](const Message& each) {
            return each.protocol == protocol && each.type == type;
        });
        const bool isKnown      = known != std::end(kMessages);
        const std::string name  = isKnown ? known->name : std::to_string(type);
        fields[1].text          = name;
        fields[2].text          = flagText(flags, name.find("_GET") != std::string::npos ? kGetFlags : kHeaderFlags);
        if (isKnown && known->payload != nullptr)
            structure(known->payload->name, "", *known->payload);
        attributes(isKnown && known->attributes != nullptr ? *known->attributes : KnownAttributes(), datagram.size());
        return fields;
    }

private:
    [[nodiscard]] Bytes bytesTo(std::size_t end) const
    {
        const auto size = static_cast<std::ptrdiff_t>(datagram.size());
        return {datagram.begin() + std::min(static_cast<std::ptrdiff_t>(at), size),
                datagram.begin() + std::min(static_cast<std::ptrdiff_t>(end), size)};
    }
    Bytes take(std::size_t end)
    {
        Bytes taken = bytesTo(end);
        at          = end;
        return taken;
    }

    // `shown` are the bytes beside the value: all of an attribute, header and padding included.
    void add(const std::string& part, const std::string& name, const Format& format, const Bytes& value,
             const Bytes& shown)
    {
        const Kind kind    = format.kind;
        DecodedField field = {part, name, {}, "", shown};
        if (kind == Kind::Address) {
            field.value =
                addressText(value.data(), family == AF_INET ? std::min<std::size_t>(value.size(), 4) : value.size());
        } else if (kind == Kind::Text) {
            const auto* const first = reinterpret_cast<const char*>(value.data());
            field.value             = std::string(first, strnlen(first, value.size()));
        } else if (kind == Kind::Bytes) {
            field.value = value;
        } else {
            const std::uint64_t number = numberIn(value, kind == Kind::Big || kind == Kind::BigHex);
            field.value                = number;
            if (kind == Kind::Flags)
                field.text = flagText(number, *format.names);
            else if (format.names != nullptr && format.names->contains(number))
                field.text = format.names->at(number);
            else if (kind == Kind::Limit && number == UINT64_MAX >> (64 - 8 * value.size()))
                field.text = "no limit";
            else if (kind == Kind::Hex || kind == Kind::BigHex)
                field.text = hexadecimal(number);
        }
        if (field.text.empty())
            field.text = field.value.is_string() ? field.value.get<std::string>() : field.value.dump();
        fields.push_back(field);
    }
    void addPadding(const std::string& part, const std::string& prefix, std::size_t end)
    {
        if (at < end)
            fields.push_back({part, prefix + "(padding)", nullptr, "", take(end)});
    }
    void addKey(const std::string& part, std::size_t end)
    {
        const std::string size = std::to_string(end - at) + " bytes";
        const Bytes key        = take(end);
        fields.push_back({part, "alg_key", nullptr, showKeys ? size : size + ", hidden", showKeys ? key : Bytes()});
    }

    // The family of the addresses in a structure; 0 when it says none.
    [[nodiscard]] std::uint64_t familyIn(const Structure& s, std::size_t start) const
    {
        std::uint64_t found = 0;
        for (const Field& field : s.fields) {
            const auto first = datagram.begin() + static_cast<std::ptrdiff_t>(start + field.offset);
            if (found == 0 && field.format.structure != nullptr)
                found = familyIn(*field.format.structure, start + field.offset);
            else if (found == 0 && field.format.kind == Kind::Family)
                found = numberIn({first, first + static_cast<std::ptrdiff_t>(field.size)}, false);
        }
        return found;
    }

    void structure(const std::string& part, const std::string& prefix, const Structure& s)
    {
        const std::size_t start = at;
        if (start + s.size > datagram.size())
            return;
        if (const std::uint64_t own = familyIn(s, start); own != 0)
            family = own;
        for (const Field& field : s.fields) {
            addPadding(part, prefix, start + field.offset);
            if (field.format.structure != nullptr) {
                structure(part, prefix + field.name + '.', *field.format.structure);
            } else {
                const Bytes bytes = take(start + field.offset + field.size);
                add(part, prefix + field.name, field.format, bytes, bytes);
            }
        }
        addPadding(part, prefix, start + s.size);
    }

    void attributes(const KnownAttributes& known, std::size_t end)
    {
        while (at + NLA_HDRLEN <= end) {
            nlattr header;
            std::memcpy(&header, datagram.data() + at, sizeof header);
            const int type         = header.nla_type & NLA_TYPE_MASK;
            const std::size_t stop = std::min(at + std::max<std::size_t>(header.nla_len, NLA_HDRLEN), end);
            const std::size_t next = std::min(at + NLA_ALIGN(stop - at), end);
            const auto found =
                std::find_if(known.begin(), known.end(), [type](const Attribute& each) { return each.type == type; });
            const std::string name = found != known.end() ? found->name : "attribute " + std::to_string(type);
            const Format format    = found != known.end() ? found->format : kBytes;
            if (format.structure == nullptr && format.attributes == nullptr) {
                const Bytes all = bytesTo(next);
                at += NLA_HDRLEN;
                add(name, "", format, bytesTo(stop), all);
                at = next;
                continue;
            }
            const std::size_t size = stop - at;
            fields.push_back({name, "nla_len, nla_type", size, std::to_string(size) + " bytes", take(at + NLA_HDRLEN)});
            if (format.attributes != nullptr)
                attributes(*format.attributes, stop);
            else
                structure(name, "", *format.structure);
            if (found->keyBehind)
                addKey(name, stop);
            addPadding(name, "", next);
        }
        addPadding("rest", "", end);
    }

    const Bytes& datagram;
    bool showKeys;
    std::size_t at       = 0;
    std::uint64_t family = 0;
    std::vector<DecodedField> fields;
};

} // namespace

std::string protocolName(int protocol)
{
    const auto found = kProtocols.find(static_cast<std::uint64_t>(protocol));
    return found != kProtocols.end() ? found->second : std::to_string(protocol);
}

std::vector<DecodedField> decoded(int protocol, const std::vector<unsigned char>& datagram, bool showKeys)
{
    return Walk(datagram, showKeys).message(protocol);
}
