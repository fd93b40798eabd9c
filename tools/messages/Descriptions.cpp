// The messages that the library sends and that lists read. What has no name in lists is in other fields, too, or says
// nothing about an object.

#include "Description.h"

#include <netlink/Numbers.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>

#include <linux/fib_rules.h>
#include <linux/genetlink.h>
#include <linux/if_addr.h>
#include <linux/if_addrlabel.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <netinet/in.h>

namespace Vesk::Messages {

namespace {

// The kernel's headers have the names.
#define NAMES(prefix, ...)       namesOf(prefix, #__VA_ARGS__, {__VA_ARGS__})
#define AT(member, ...)          Member(#member, offsetof(S, member), sizeof(S::member) __VA_OPT__(, ) __VA_ARGS__)
#define ATTRIBUTE(constant, ...) Attribute(constant, #constant __VA_OPT__(, ) __VA_ARGS__)
#define MESSAGE(protocol, constant, ...)                                                                               \
    Message                                                                                                            \
    {                                                                                                                  \
        protocol, constant, #constant, __VA_ARGS__                                                                     \
    }
#define STRUCTURE(type, ...)                                                                                           \
    [] {                                                                                                               \
        using S = type;                                                                                                \
        return Structure{#type, sizeof(S), {__VA_ARGS__}};                                                             \
    }()

using enum Kind;

// `constants` are the names of the values, with commas between them.
Names namesOf(const char* prefix, std::string_view constants, std::initializer_list<std::uint64_t> values)
{
    Names all = {prefix, {}};
    for (const std::uint64_t each : values) {
        const std::size_t end = std::min(constants.find(','), constants.size());
        all.names.push_back({each, std::string(constants.substr(0, end))});
        constants.remove_prefix(std::min(end + 2, constants.size()));
    }
    return all;
}

// Those that have words of their own, or are younger than some kernel's headers, and the others.
Names with(std::vector<Name> own, Names names)
{
    names.names.insert(names.names.begin(), own.begin(), own.end());
    return names;
}

} // namespace

const Names& ipProtocolNames()
{
    static const Names all =
        with({{IPPROTO_IP, "IPPROTO_IP", "any"}},
             NAMES("IPPROTO_", IPPROTO_ICMP, IPPROTO_IGMP, IPPROTO_IPIP, IPPROTO_TCP, IPPROTO_UDP, IPPROTO_DCCP,
                   IPPROTO_IPV6, IPPROTO_ROUTING, IPPROTO_GRE, IPPROTO_ESP, IPPROTO_AH, IPPROTO_ICMPV6, IPPROTO_DSTOPTS,
                   IPPROTO_COMP, IPPROTO_SCTP, IPPROTO_MH, IPPROTO_UDPLITE));
    return all;
}

namespace {

const Names& kIPProtocols   = ipProtocolNames();
const Names kIPsecProtocols = with({{255, "IPSEC_PROTO_ANY", "any-ipsec"}}, kIPProtocols); // of SAs and templates

const Names kFamilies = with({{AF_INET, "AF_INET", "ipv4"},
                              {AF_INET6, "AF_INET6", "ipv6"},
                              {128, "RTNL_FAMILY_IPMR", "ipv4-multicast"},
                              {129, "RTNL_FAMILY_IP6MR", "ipv6-multicast"}},
                             NAMES("", AF_UNSPEC));
const Format kFamily(kFamilies, Family);
const Names kModes = with({{XFRM_MODE_ROUTEOPTIMIZATION, "XFRM_MODE_ROUTEOPTIMIZATION", "ro"},
                           {XFRM_MODE_IN_TRIGGER, "XFRM_MODE_IN_TRIGGER", "in-trigger"},
                           {5, "XFRM_MODE_IPTFS"}},
                          NAMES("XFRM_MODE_", XFRM_MODE_TRANSPORT, XFRM_MODE_TUNNEL, XFRM_MODE_BEET));
const Names kDirections =
    with({{XFRM_POLICY_MAX + XFRM_POLICY_IN, "socket-in"}, {XFRM_POLICY_MAX + XFRM_POLICY_OUT, "socket-out"}},
         NAMES("XFRM_POLICY_", XFRM_POLICY_IN, XFRM_POLICY_OUT, XFRM_POLICY_FWD));
const Names kActions     = NAMES("XFRM_POLICY_", XFRM_POLICY_ALLOW, XFRM_POLICY_BLOCK);
const Names kShares      = NAMES("XFRM_SHARE_", XFRM_SHARE_ANY, XFRM_SHARE_SESSION, XFRM_SHARE_USER, XFRM_SHARE_UNIQUE);
const Names kPolicyTypes = NAMES("XFRM_POLICY_TYPE_", XFRM_POLICY_TYPE_MAIN, XFRM_POLICY_TYPE_SUB);
const Names kStateDirections = {"", {{1, "in"}, {2, "out"}}};
const Names kOrigins =
    NAMES("RTPROT_", RTPROT_UNSPEC, RTPROT_REDIRECT, RTPROT_KERNEL, RTPROT_BOOT, RTPROT_STATIC, RTPROT_RA, RTPROT_DHCP);
const Names kScopes =
    NAMES("RT_SCOPE_", RT_SCOPE_UNIVERSE, RT_SCOPE_SITE, RT_SCOPE_LINK, RT_SCOPE_HOST, RT_SCOPE_NOWHERE);
const Names kRouteTypes = NAMES("RTN_", RTN_UNSPEC, RTN_UNICAST, RTN_LOCAL, RTN_BROADCAST, RTN_ANYCAST, RTN_MULTICAST,
                                RTN_BLACKHOLE, RTN_UNREACHABLE, RTN_PROHIBIT, RTN_THROW);
const Names kRuleActions =
    with({{FR_ACT_TO_TBL, "FR_ACT_TO_TBL", "lookup"}}, NAMES("FR_ACT_", FR_ACT_UNSPEC, FR_ACT_GOTO, FR_ACT_NOP,
                                                             FR_ACT_BLACKHOLE, FR_ACT_UNREACHABLE, FR_ACT_PROHIBIT));
const Names kCommands       = NAMES("CTRL_CMD_", CTRL_CMD_GETFAMILY);
const Names kEncapsulations = {
    "UDP_ENCAP_", {{1, "UDP_ENCAP_ESPINUDP_NON_IKE"}, {2, "UDP_ENCAP_ESPINUDP"}, {7, "TCP_ENCAP_ESPINTCP"}}};
const Names kRouteFlags = NAMES("RTM_F_", RTM_F_NOTIFY, RTM_F_CLONED, RTM_F_LOOKUP_TABLE);
const Names kRuleFlags =
    with({{FIB_RULE_INVERT, "FIB_RULE_INVERT", "inverted"}},
         NAMES("FIB_RULE_", FIB_RULE_PERMANENT, FIB_RULE_UNRESOLVED, FIB_RULE_IIF_DETACHED, FIB_RULE_OIF_DETACHED));
const Names kStateFlags =
    NAMES("XFRM_STATE_", XFRM_STATE_NOECN, XFRM_STATE_DECAP_DSCP, XFRM_STATE_NOPMTUDISC, XFRM_STATE_WILDRECV,
          XFRM_STATE_ICMP, XFRM_STATE_AF_UNSPEC, XFRM_STATE_ALIGN4, XFRM_STATE_ESN);
const Names kExtraFlags  = NAMES("XFRM_SA_XFLAG_", XFRM_SA_XFLAG_DONT_ENCAP_DSCP, XFRM_SA_XFLAG_OSEQ_MAY_WRAP);
const Names kPolicyFlags = NAMES("XFRM_POLICY_", XFRM_POLICY_LOCALOK, XFRM_POLICY_ICMP);
const Names kOffloadFlags =
    with({{4, "XFRM_OFFLOAD_PACKET"}}, NAMES("XFRM_OFFLOAD_", XFRM_OFFLOAD_IPV6, XFRM_OFFLOAD_INBOUND));

const Structure kGeneric          = STRUCTURE(genlmsghdr, AT(cmd, kCommands), AT(version), AT(reserved));
const Structure kInterfaceAddress = STRUCTURE(ifaddrmsg, AT(ifa_family, kFamily), AT(ifa_prefixlen), AT(ifa_flags, Hex),
                                              AT(ifa_scope, kScopes), AT(ifa_index, Device));
const Structure kLifetimes =
    STRUCTURE(ifa_cacheinfo, AT(ifa_prefered, Limit), AT(ifa_valid, Limit), AT(cstamp), AT(tstamp));
const Structure kLink = STRUCTURE(ifinfomsg, AT(ifi_family, kFamily), AT(ifi_type), AT(ifi_index, Device),
                                  AT(ifi_flags, Hex), AT(ifi_change, Hex));
const Structure kRoute =
    STRUCTURE(rtmsg, AT(rtm_family, kFamily), AT(rtm_dst_len, Prefix, "destination"), AT(rtm_src_len),
              AT(rtm_tos, Hex, "tos"), AT(rtm_table), AT(rtm_protocol, kOrigins, "origin"),
              AT(rtm_scope, kScopes, "scope"), AT(rtm_type, kRouteTypes, "type"), AT(rtm_flags, {kRouteFlags, Flags}));
const Structure kRule = STRUCTURE(fib_rule_hdr, AT(family, kFamily, "family"), AT(dst_len, Prefix, "to"),
                                  AT(src_len, Prefix, "from"), AT(tos, Hex, "tos"), AT(table), AT(res1), AT(res2),
                                  AT(action, kRuleActions, "action"), AT(flags, {kRuleFlags, Flags}, "flags"));
const Structure kQdisc =
    STRUCTURE(tcmsg, AT(tcm_family, kFamily), AT(tcm__pad1), AT(tcm__pad2), AT(tcm_ifindex, Device, "device"),
              AT(tcm_handle, Handle, "handle"), AT(tcm_parent, Handle, "parent"), AT(tcm_info));
const Structure kLabel =
    STRUCTURE(ifaddrlblmsg, AT(ifal_family, kFamily), AT(__ifal_reserved), AT(ifal_prefixlen, Prefix, "prefix"),
              AT(ifal_flags, Hex, "flags"), AT(ifal_index, Device, "device"), AT(ifal_seq));

const Structure kPrio = STRUCTURE(PrioOptions, AT(bands), AT(priomap, Bytes), AT(flowControl), AT(filler, Bytes));

struct realms { // halves of one number
    std::uint16_t half[2];
};
constexpr bool kLittle = std::endian::native == std::endian::little;
const Structure kRealms =
    STRUCTURE(realms, AT(half[0], Number, kLittle ? "to" : "from"), AT(half[1], Number, kLittle ? "from" : "to"));
const Structure kPorts = STRUCTURE(fib_rule_port_range, AT(start, Number, "first"), AT(end, Number, "last"));
const Structure kUsers = STRUCTURE(fib_rule_uid_range, AT(start, Limit, "first"), AT(end, Limit, "last"));

// A port counts where its mask has bits. ICMP has type and code in place of the ports, GRE a key in two halves.
void finishSelector(std::span<Field> fields)
{
    const auto value  = [&](std::size_t of) -> std::uint64_t& { return std::get<std::uint64_t>(fields[of].value); };
    const auto rename = [&](std::size_t of, std::string_view from, const char* to) {
        for (Field& each : fields.subspan(of, 2))
            each.listed.replace(each.listed.find(from), from.size(), to);
    };
    constexpr std::size_t kDPort = 2, kSPort = 4, kProto = 9; // behind the ports, their masks
    for (const std::size_t port : {kDPort, kSPort}) {
        fields[port].usual     = value(port + 1) == 0;
        fields[port + 1].usual = fields[port].usual || fields[port + 1].usual;
    }
    const std::uint64_t protocol = value(kProto);
    if (protocol == IPPROTO_GRE) {
        for (const std::size_t half : {kSPort, kSPort + 1})
            value(half) = value(half) << 16 | value(half - 2);
        const std::uint64_t mask = value(kSPort + 1);
        fields[kSPort].usual     = mask == 0;
        fields[kSPort].text      = std::to_string(value(kSPort));
        fields[kSPort + 1].usual = mask == 0 || mask == UINT32_MAX;
        fields[kSPort + 1].text  = hexadecimal(mask);
        fields[kDPort].usual = fields[kDPort + 1].usual = true;
        rename(kSPort, "source_port", "gre_key");
    } else if (protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6 || protocol == IPPROTO_MH) {
        rename(kSPort, "source_port", "message_type");
        rename(kDPort, "destination_port", "message_code");
    }
}

Structure finished(Structure structure, void (*finish)(std::span<Field>))
{
    structure.finish = finish;
    return structure;
}

const Structure kSelector = finished(
    STRUCTURE(xfrm_selector, AT(daddr, Address, "destination"), AT(saddr, Address, "source"),
              AT(dport, Big, "destination_port"), AT(dport_mask, BigMask, "destination_port_mask"),
              AT(sport, Big, "source_port"), AT(sport_mask, BigMask, "source_port_mask"), AT(family, kFamily, "family"),
              AT(prefixlen_d, Prefix, "destination"), AT(prefixlen_s, Prefix, "source"),
              AT(proto, kIPProtocols, "ip_protocol"), AT(ifindex, Device, "device"), AT(user, Number, "user")),
    finishSelector);
const Structure kId     = STRUCTURE(xfrm_id, AT(daddr, Address, "destination"), AT(spi, BigHex, "spi"),
                                    AT(proto, kIPsecProtocols, "protocol"));
const Structure kLimits = STRUCTURE(
    xfrm_lifetime_cfg, AT(soft_byte_limit, Limit, "soft_bytes"), AT(hard_byte_limit, Limit, "hard_bytes"),
    AT(soft_packet_limit, Limit, "soft_packets"), AT(hard_packet_limit, Limit, "hard_packets"),
    AT(soft_add_expires_seconds, Number, "soft_seconds"), AT(hard_add_expires_seconds, Number, "hard_seconds"),
    AT(soft_use_expires_seconds, Number, "soft_seconds_of_use"),
    AT(hard_use_expires_seconds, Number, "hard_seconds_of_use"));
const Structure kUse = STRUCTURE(xfrm_lifetime_cur, AT(bytes, Number, "bytes"), AT(packets, Number, "packets"),
                                 AT(add_time, Time, "added"), AT(use_time, Time, "used"));
const Structure kStateUse =
    STRUCTURE(xfrm_lifetime_cur, AT(bytes, Number, "bytes"), AT(packets, Number, "packets"),
              AT(add_time, Time, "added"), AT(use_time, Time, "first_used")); // which later use leaves
const Structure kStats = STRUCTURE(xfrm_stats, AT(replay_window, Number, "outside_window"),
                                   AT(replay, Number, "replayed"), AT(integrity_failed, Number, "integrity_failed"));

// An SA whose traffic is of another family than itself says so.
void finishState(std::span<Field> fields)
{
    const auto family = [fields](const char* name) -> Field& {
        return *std::find_if(fields.begin(), fields.end(), [name](const Field& each) { return each.name == name; });
    };
    Field& selected = family("sel.family");
    selected.usual  = selected.number() == AF_UNSPEC || selected.number() == family("family").number();
}

const Structure kState =
    finished(STRUCTURE(xfrm_usersa_info, AT(sel, kSelector, "selected"), AT(id, kId), AT(saddr, Address, "source"),
                       AT(lft, kLimits), AT(curlft, kStateUse), AT(stats, kStats), AT(seq, Number, "acquire_sequence"),
                       AT(reqid, Number, "reqid"), AT(family, kFamily), AT(mode, kModes, "mode"),
                       AT(replay_window, Number, "replay_window"), AT(flags, {kStateFlags, Flags}, "flags")),
             finishState);
const Structure kStateId =
    STRUCTURE(xfrm_usersa_id, AT(daddr, Address), AT(spi, BigHex), AT(family, kFamily), AT(proto, kIPsecProtocols));
const Structure kEvent = STRUCTURE(xfrm_aevent_id, AT(sa_id, kStateId), AT(saddr, Address), AT(flags, Hex), AT(reqid));
const Structure kPolicy =
    STRUCTURE(xfrm_userpolicy_info, AT(sel, kSelector, ""), AT(lft, kLimits), AT(curlft, kUse),
              AT(priority, Number, "priority"), AT(index, Number, "index"), AT(dir, kDirections, "direction"),
              AT(action, kActions, "action"), AT(flags, {kPolicyFlags, Flags}, "flags"), AT(share, kShares, "share"));
const Structure kPolicyId = STRUCTURE(xfrm_userpolicy_id, AT(sel, kSelector), AT(index), AT(dir, kDirections));
const Structure kTemplate = STRUCTURE(
    xfrm_user_tmpl, AT(id, kId, ""), AT(family, kFamily), AT(saddr, Address, "source"), AT(reqid, Number, "reqid"),
    AT(mode, kModes, "mode"), AT(share, kShares, "share"), AT(optional, Number, "optional"), AT(aalgos, Mask, "hashes"),
    AT(ealgos, Mask, "ciphers"), AT(calgos, Mask, "compressions"));
const Structure kMigrate =
    STRUCTURE(xfrm_user_migrate, AT(old_daddr, Address), AT(old_saddr, Address),
              AT(new_daddr, Address, nullptr, offsetof(S, new_family)),
              AT(new_saddr, Address, nullptr, offsetof(S, new_family)), AT(proto, kIPProtocols), AT(mode, kModes),
              AT(reserved), AT(reqid), AT(old_family, kFamily), AT(new_family, kFamilies));
const Structure kAlgorithm = STRUCTURE(xfrm_algo, AT(alg_name, Text, ""), AT(alg_key_len, Number, "key_bits"));
const Structure kHash      = STRUCTURE(xfrm_algo_auth, AT(alg_name, Text, ""), AT(alg_key_len, Number, "key_bits"),
                                       AT(alg_trunc_len, Number, "cut_to_bits"));
const Structure kAead      = STRUCTURE(xfrm_algo_aead, AT(alg_name, Text, ""), AT(alg_key_len, Number, "key_bits"),
                                       AT(alg_icv_len, Number, "icv_bits"));
const Structure kEncap =
    STRUCTURE(xfrm_encap_tmpl, AT(encap_type, kEncapsulations, ""), AT(encap_sport, Big, "source_port"),
              AT(encap_dport, Big, "destination_port"), AT(encap_oa, Address, "original_address"));
const Structure kReplay = STRUCTURE(xfrm_replay_state, AT(oseq, Number, "sequence_out"), AT(seq, Number, "sequence_in"),
                                    AT(bitmap, Hex, "replay_bitmap"));
const Structure kExtended =
    STRUCTURE(xfrm_replay_state_esn, AT(bmp_len), AT(oseq, Number, "sequence_out"), AT(seq, Number, "sequence_in"),
              AT(oseq_hi, Number, "sequence_out_high"), AT(seq_hi, Number, "sequence_in_high"),
              AT(replay_window, Number, "replay_window"));
const Structure kMark = STRUCTURE(xfrm_mark, AT(v, Hex, "mark"), AT(m, Mask, "mask"));
const Structure kType =
    STRUCTURE(xfrm_userpolicy_type, AT(type, kPolicyTypes, "policy_type"), AT(reserved1), AT(reserved2));
const Structure kOffload =
    STRUCTURE(xfrm_user_offload, AT(ifindex, Device, "device"), AT(flags, {kOffloadFlags, Flags}, "flags"));
const Structure kContext = STRUCTURE(xfrm_user_sec_ctx, AT(len), AT(exttype), AT(ctx_alg, Number, "algorithm"),
                                     AT(ctx_doi, Number, "domain"), AT(ctx_len));

const Structure kVia = STRUCTURE(rtvia, AT(rtvia_family, kFamily));

const Member kKeyBehind("alg_key", 0, 0, Key);
const Member kBitmapBehind("bmp", 0, 0, Bitmap, "extended_replay_bitmap");
const Member kViaBehind("rtvia_addr", 0, 0, Address, "gateway");
const Member kTextBehind("context", 0, 0, Text, "security_context");

using Attributes = std::vector<Attribute>;

const Attributes kOfFamilies  = {ATTRIBUTE(CTRL_ATTR_FAMILY_NAME, Text)};
const Attributes kOfAddresses = {ATTRIBUTE(IFA_LOCAL, Address), ATTRIBUTE(IFA_CACHEINFO, kLifetimes)};
const Attributes kOfLinks     = {ATTRIBUTE(IFLA_GSO_MAX_SIZE)};
const Attributes kOfMetrics   = {ATTRIBUTE(RTAX_ADVMSS)};
const Attributes kOfRoutes    = {
       ATTRIBUTE(RTA_TABLE, Number, "table"),
       ATTRIBUTE(RTA_DST, Address, "destination"),
       ATTRIBUTE(RTA_OIF, Device, "device"),
       ATTRIBUTE(RTA_GATEWAY, Address, "gateway"),
       ATTRIBUTE(RTA_VIA, kVia, nullptr, &kViaBehind), // of another family than the destination
       ATTRIBUTE(RTA_MULTIPATH, Bytes),
       ATTRIBUTE(RTA_NH_ID),
       ATTRIBUTE(RTA_METRICS, kOfMetrics),
       ATTRIBUTE(RTA_PRIORITY, Number, "metric"),
       ATTRIBUTE(RTA_MARK, Hex),
};
const Attributes kOfRules = {
    ATTRIBUTE(FRA_PRIORITY, Number, "priority"),
    ATTRIBUTE(FRA_SRC, Address, "from"),
    ATTRIBUTE(FRA_DST, Address, "to"),
    ATTRIBUTE(FRA_IIFNAME, Text, "in"),
    ATTRIBUTE(FRA_OIFNAME, Text, "out"),
    ATTRIBUTE(FRA_FWMARK, Hex, "mark"),
    ATTRIBUTE(FRA_FWMASK, Mask, "mask"),
    ATTRIBUTE(FRA_TUN_ID, Big, "tun_id"),
    ATTRIBUTE(FRA_IP_PROTO, kIPProtocols, "ip_protocol"),
    ATTRIBUTE(FRA_SPORT_RANGE, kPorts, "source_port"),
    ATTRIBUTE(FRA_DPORT_RANGE, kPorts, "destination_port"),
    ATTRIBUTE(FRA_UID_RANGE, kUsers, "user"),
    ATTRIBUTE(FRA_TABLE, Number, "table"),
    ATTRIBUTE(FRA_GOTO, Number, "target"),
    ATTRIBUTE(FRA_L3MDEV, Number, "l3mdev"),
    ATTRIBUTE(FRA_FLOW, kRealms, "realm"),
    ATTRIBUTE(FRA_SUPPRESS_PREFIXLEN, Limit, "suppress_prefix_length"),
    ATTRIBUTE(FRA_SUPPRESS_IFGROUP, Limit, "suppress_group"),
    ATTRIBUTE(FRA_PROTOCOL, kOrigins, "origin"),
    ATTRIBUTE(FRA_PAD, Padding),
    Attribute(28, "FRA_SPORT_MASK", Mask, "source_port_mask"), // of kernels from 6.15 on
    Attribute(29, "FRA_DPORT_MASK", Mask, "destination_port_mask"),
};
const Attributes kOfPrio   = {Attribute(kPrioOptions, "prio_options", kPrio)};
const Attributes kOfQdiscs = {ATTRIBUTE(TCA_KIND, Text), ATTRIBUTE(TCA_OPTIONS, kOfPrio)};
const Attributes kOfLabels = {ATTRIBUTE(IFAL_LABEL, Number, "label"), ATTRIBUTE(IFAL_ADDRESS, Address, "prefix")};
const Attributes kOfStates = {
    ATTRIBUTE(XFRMA_ALG_CRYPT, kAlgorithm, "cipher", &kKeyBehind),
    ATTRIBUTE(XFRMA_ALG_AEAD, kAead, "cipher", &kKeyBehind),
    ATTRIBUTE(XFRMA_ALG_AUTH, kAlgorithm, "hash", &kKeyBehind), // a copy of the next one, where that is there
    ATTRIBUTE(XFRMA_ALG_AUTH_TRUNC, kHash, "hash", &kKeyBehind),
    ATTRIBUTE(XFRMA_ALG_COMP, kAlgorithm, "compression", &kKeyBehind),
    ATTRIBUTE(XFRMA_ENCAP, kEncap, "encapsulation"),
    ATTRIBUTE(XFRMA_MARK, kMark),
    ATTRIBUTE(XFRMA_SET_MARK, Hex, "output_mark"),
    ATTRIBUTE(XFRMA_SET_MARK_MASK, Mask, "output_mask"),
    ATTRIBUTE(XFRMA_IF_ID, Hex, "if_id"),
    ATTRIBUTE(XFRMA_SRCADDR, Address),
    ATTRIBUTE(XFRMA_COADDR, Address, "care_of_address"),
    ATTRIBUTE(XFRMA_LASTUSED, Time, "last_used"),
    ATTRIBUTE(XFRMA_REPLAY_VAL, kReplay),
    ATTRIBUTE(XFRMA_REPLAY_ESN_VAL, kExtended, nullptr, &kBitmapBehind),
    ATTRIBUTE(XFRMA_REPLAY_THRESH, Number, "event_after_packets"),
    ATTRIBUTE(XFRMA_ETIMER_THRESH, Number, "event_after_deciseconds"),
    ATTRIBUTE(XFRMA_MTIMER_THRESH, Number, "mapping_change_seconds"),
    ATTRIBUTE(XFRMA_TFCPAD, Number, "padded_to_bytes"),
    ATTRIBUTE(XFRMA_SA_EXTRA_FLAGS, {kExtraFlags, Flags}, "extra_flags"),
    ATTRIBUTE(XFRMA_OFFLOAD_DEV, kOffload, "offload"),
    ATTRIBUTE(XFRMA_SEC_CTX, kContext, "security", &kTextBehind),
    ATTRIBUTE(XFRMA_PAD, Padding),
    Attribute(33, "XFRMA_SA_DIR", kStateDirections, "direction"), // of kernels from 6.10 on
};

const Attributes kOfPolicies = {
    ATTRIBUTE(XFRMA_MARK, kMark),
    ATTRIBUTE(XFRMA_IF_ID, Hex, "if_id"),
    ATTRIBUTE(XFRMA_SEC_CTX, kContext, "security", &kTextBehind),
    ATTRIBUTE(XFRMA_POLICY_TYPE, kType),
    ATTRIBUTE(XFRMA_OFFLOAD_DEV, kOffload, "offload"),
    ATTRIBUTE(XFRMA_TMPL, kTemplate, "templates", &kMore),
};
const Attributes kOfMigrations = {ATTRIBUTE(XFRMA_MIGRATE, kMigrate, nullptr, &kMore), ATTRIBUTE(XFRMA_ENCAP, kEncap)};

const Message kMessages[] = {
    MESSAGE(NETLINK_GENERIC, GENL_ID_CTRL, &kGeneric, &kOfFamilies),
    MESSAGE(NETLINK_ROUTE, RTM_NEWADDR, &kInterfaceAddress, &kOfAddresses),
    MESSAGE(NETLINK_ROUTE, RTM_NEWLINK, &kLink, &kOfLinks),
    MESSAGE(NETLINK_ROUTE, RTM_GETROUTE, &kRoute, &kOfRoutes, &kGetFlags),
    MESSAGE(NETLINK_ROUTE, RTM_NEWROUTE, &kRoute, &kOfRoutes),
    MESSAGE(NETLINK_ROUTE, RTM_DELROUTE, &kRoute, &kOfRoutes),
    MESSAGE(NETLINK_ROUTE, RTM_NEWRULE, &kRule, &kOfRules),
    MESSAGE(NETLINK_ROUTE, RTM_GETRULE, &kRule, &kOfRules, &kGetFlags),
    MESSAGE(NETLINK_ROUTE, RTM_NEWQDISC, &kQdisc, &kOfQdiscs),
    MESSAGE(NETLINK_ROUTE, RTM_DELQDISC, &kQdisc, &kOfQdiscs),
    MESSAGE(NETLINK_ROUTE, RTM_NEWADDRLABEL, &kLabel, &kOfLabels),
    MESSAGE(NETLINK_ROUTE, RTM_DELADDRLABEL, &kLabel, &kOfLabels),
    MESSAGE(NETLINK_ROUTE, RTM_GETADDRLABEL, &kLabel, &kOfLabels, &kGetFlags),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_NEWSA, &kState, &kOfStates),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_UPDSA, &kState, &kOfStates),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_DELSA, &kStateId, &kOfStates),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_GETSA, nullptr, nullptr, &kGetFlags),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_NEWAE, &kEvent, &kOfStates),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_NEWPOLICY, &kPolicy, &kOfPolicies),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_DELPOLICY, &kPolicyId, &kOfPolicies),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_GETPOLICY, nullptr, nullptr, &kGetFlags),
    MESSAGE(NETLINK_XFRM, XFRM_MSG_MIGRATE, &kPolicyId, &kOfMigrations),
};

} // namespace

const Member kMore("", 0, 0);

const Structure kHeader =
    STRUCTURE(nlmsghdr, AT(nlmsg_len), AT(nlmsg_type), AT(nlmsg_flags, Hex), AT(nlmsg_seq), AT(nlmsg_pid));
const Names kProtocols = NAMES("NETLINK_", NETLINK_ROUTE, NETLINK_XFRM, NETLINK_GENERIC);
// The C library's own names of errnos came to the platform later than veskctl.
const Names kErrors = NAMES("", EPERM, ENOENT, ESRCH, EINTR, EIO, ENXIO, E2BIG, EBADF, EAGAIN, ENOMEM, EACCES, EFAULT,
                            EBUSY, EEXIST, ENODEV, EINVAL, ENFILE, EMFILE, ENOSPC, EDOM, ERANGE, ENOSYS, ENODATA,
                            EPROTO, EBADMSG, EOVERFLOW, EMSGSIZE, EPROTONOSUPPORT, ESOCKTNOSUPPORT, EOPNOTSUPP,
                            EPFNOSUPPORT, EAFNOSUPPORT, EADDRINUSE, EADDRNOTAVAIL, ENETDOWN, ENETUNREACH, ENOPROTOOPT,
                            ECONNREFUSED, ECONNRESET, ENOBUFS, ENOTCONN, ETIMEDOUT, EHOSTUNREACH, EALREADY, ECANCELED);
const Names kHeaderFlags = NAMES("NLM_F_", NLM_F_REQUEST, NLM_F_MULTI, NLM_F_ACK, NLM_F_ECHO, NLM_F_DUMP_INTR,
                                 NLM_F_REPLACE, NLM_F_EXCL, NLM_F_CREATE, NLM_F_APPEND);
const Names kGetFlags    = NAMES("NLM_F_", NLM_F_REQUEST, NLM_F_ACK, NLM_F_DUMP);

const Message* messageOf(int protocol, std::uint64_t type)
{
    const auto* const found = std::find_if(std::begin(kMessages), std::end(kMessages), [&](const Message& each) {
        return each.protocol == protocol && each.type == type;
    });
    return found != std::end(kMessages) ? found : nullptr;
}

} // namespace Vesk::Messages
