#include "Kernel.h"

#include "Dump.h"
#include "Text.h"

#include <algorithm>
#include <map>

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>

namespace {

constexpr unsigned int kFirstTable = 1000; // a device's own table is this and its index

int dumpStates(const Show<xfrm_usersa_info>& show)
{
    return dump<xfrm_usersa_info>(NETLINK_XFRM, XFRM_MSG_GETSA, XFRM_MSG_NEWSA, nullptr, show);
}

// Words

std::string named(const std::map<unsigned int, const char*>& names, unsigned int number)
{
    const auto found = names.find(number);
    return found != names.end() ? found->second : std::to_string(number);
}

std::string protocolName(unsigned int protocol)
{
    return named({{IPPROTO_ESP, "esp"}, {IPPROTO_AH, "ah"}, {IPPROTO_COMP, "comp"}}, protocol);
}

std::string modeName(unsigned int mode)
{
    return named({{XFRM_MODE_TRANSPORT, "transport"}, {XFRM_MODE_TUNNEL, "tunnel"}, {XFRM_MODE_BEET, "beet"}}, mode);
}

std::string deviceName(unsigned int index)
{
    char name[IF_NAMESIZE] = {};
    return if_indextoname(index, name) != nullptr ? name : std::to_string(index);
}

std::string textOf(const xfrm_address_t& address, unsigned int family)
{
    return addressText(&address, family == AF_INET ? 4 : 16);
}

std::string selected(const xfrm_address_t& address, unsigned int length, unsigned int family)
{
    return family == AF_UNSPEC ? "any" : textOf(address, family) + '/' + std::to_string(length);
}

void addMark(Json& entry, const Attributes& attributes)
{
    if (const auto* const mark = attributes.as<xfrm_mark>(XFRMA_MARK))
        entry.update({{"mark", mark->v}, {"mask", mark->m}});
    if (const auto id = attributes.number(XFRMA_IF_ID))
        entry["if_id"] = *id;
}

// What a selector asks for beside its two prefixes.
void addSelected(Json& entry, const xfrm_selector& sel)
{
    if (sel.proto != 0)
        entry["ip_protocol"] = sel.proto;
    if (sel.sport_mask != 0)
        entry["source_port"] = ntohs(sel.sport);
    if (sel.dport_mask != 0)
        entry["destination_port"] = ntohs(sel.dport);
    if (sel.ifindex != 0)
        entry["device"] = deviceName(static_cast<unsigned int>(sel.ifindex));
}

// When it was added and, if ever, used.
void addTimes(Json& entry, const xfrm_lifetime_cur& times)
{
    entry["added"] = times.add_time;
    if (times.use_time != 0)
        entry["used"] = times.use_time;
}

Json entryOf(const xfrm_usersa_info& state, const Attributes& attributes)
{
    Json entry = {{"protocol", protocolName(state.id.proto)},
                  {"mode", modeName(state.mode)},
                  {"source", textOf(state.saddr, state.family)},
                  {"destination", textOf(state.id.daddr, state.family)},
                  {"spi", ntohl(state.id.spi)}};
    if (state.reqid != 0)
        entry["reqid"] = state.reqid;
    if (state.sel.prefixlen_s != 0 || state.sel.prefixlen_d != 0)
        entry.update({{"selected_source", selected(state.sel.saddr, state.sel.prefixlen_s, state.family)},
                      {"selected_destination", selected(state.sel.daddr, state.sel.prefixlen_d, state.family)}});
    addSelected(entry, state.sel);
    if (const auto* const cipher = attributes.as<xfrm_algo>(XFRMA_ALG_CRYPT))
        entry.update({{"cipher", attributes.text(XFRMA_ALG_CRYPT)}, {"cipher_key_bits", cipher->alg_key_len}});
    if (const auto* const aead = attributes.as<xfrm_algo_aead>(XFRMA_ALG_AEAD))
        entry.update({{"cipher", attributes.text(XFRMA_ALG_AEAD)}, {"cipher_key_bits", aead->alg_key_len}});
    if (const auto* const hash = attributes.as<xfrm_algo_auth>(XFRMA_ALG_AUTH_TRUNC))
        entry.update({{"hash", attributes.text(XFRMA_ALG_AUTH_TRUNC)},
                      {"hash_key_bits", hash->alg_key_len},
                      {"hash_cut_to_bits", hash->alg_trunc_len}});
    if (attributes.has(XFRMA_ALG_COMP))
        entry["compression"] = attributes.text(XFRMA_ALG_COMP);
    if (const auto* const udp = attributes.as<xfrm_encap_tmpl>(XFRMA_ENCAP))
        entry.update({{"udp_source", ntohs(udp->encap_sport)}, {"udp_destination", ntohs(udp->encap_dport)}});
    addMark(entry, attributes);
    if (const auto mark = attributes.number(XFRMA_SET_MARK))
        entry["output_mark"] = *mark;
    if (const auto mask = attributes.number(XFRMA_SET_MARK_MASK))
        entry["output_mask"] = *mask;
    entry.update({{"packets", state.curlft.packets}, {"bytes", state.curlft.bytes}});
    if (const auto* const extended = attributes.as<xfrm_replay_state_esn>(XFRMA_REPLAY_ESN_VAL))
        entry.update({{"sequence_out", std::uint64_t{extended->oseq_hi} << 32 | extended->oseq},
                      {"sequence_in", std::uint64_t{extended->seq_hi} << 32 | extended->seq},
                      {"replay_window", extended->replay_window}});
    else if (const auto* const replay = attributes.as<xfrm_replay_state>(XFRMA_REPLAY_VAL))
        entry.update(
            {{"sequence_out", replay->oseq}, {"sequence_in", replay->seq}, {"replay_window", state.replay_window}});
    entry.update({{"replayed", state.stats.replay}, {"integrity_failed", state.stats.integrity_failed}});
    addTimes(entry, state.curlft);
    return entry;
}

Json entryOf(const xfrm_userpolicy_info& policy, const Attributes& attributes)
{
    static const std::map<unsigned int, const char*> directions = {
        {XFRM_POLICY_IN, "in"},
        {XFRM_POLICY_OUT, "out"},
        {XFRM_POLICY_FWD, "fwd"},
        {XFRM_POLICY_MAX + XFRM_POLICY_IN, "socket-in"}, // of one socket alone
        {XFRM_POLICY_MAX + XFRM_POLICY_OUT, "socket-out"},
    };
    const auto& sel = policy.sel;
    Json entry      = {{"direction", named(directions, policy.dir)},
                       {"source", selected(sel.saddr, sel.prefixlen_s, sel.family)},
                       {"destination", selected(sel.daddr, sel.prefixlen_d, sel.family)},
                       {"priority", policy.priority},
                       {"action", policy.action == XFRM_POLICY_ALLOW ? "allow" : "block"},
                       {"index", policy.index}};
    addSelected(entry, sel);
    addMark(entry, attributes);
    addTimes(entry, policy.curlft);
    entry["templates"]     = Json::array();
    const std::size_t size = attributes.size(XFRMA_TMPL);
    for (std::size_t at = 0; at + sizeof(xfrm_user_tmpl) <= size; at += sizeof(xfrm_user_tmpl)) {
        xfrm_user_tmpl each;
        std::memcpy(&each, attributes.value(XFRMA_TMPL) + at, sizeof each);
        entry["templates"].push_back({{"protocol", protocolName(each.id.proto)},
                                      {"mode", modeName(each.mode)},
                                      {"source", textOf(each.saddr, each.family)},
                                      {"destination", textOf(each.id.daddr, each.family)},
                                      {"spi", ntohl(each.id.spi)}});
        if (each.reqid != 0)
            entry["templates"].back()["reqid"] = each.reqid;
        if (each.optional != 0)
            entry["templates"].back()["optional"] = true;
    }
    return entry;
}

Json entryOf(const fib_rule_hdr& rule, const Attributes& attributes)
{
    static const std::map<unsigned int, const char*> actions = {
        {FR_ACT_TO_TBL, "lookup"},
        {FR_ACT_GOTO, "goto"},
        {FR_ACT_NOP, "nop"},
        {FR_ACT_BLACKHOLE, "blackhole"},
        {FR_ACT_UNREACHABLE, "unreachable"},
        {FR_ACT_PROHIBIT, "prohibit"},
    };
    Json entry = {{"family", rule.family == AF_INET ? "ipv4" : "ipv6"},
                  {"priority", attributes.number(FRA_PRIORITY).value_or(0)}};
    if ((rule.flags & FIB_RULE_INVERT) != 0)
        entry["not"] = true;
    const std::tuple<const char*, int, unsigned int> prefixes[] = {{"from", FRA_SRC, rule.src_len},
                                                                   {"to", FRA_DST, rule.dst_len}};
    for (const auto& [name, type, length] : prefixes)
        if (attributes.has(type))
            entry[name] = addressText(attributes.value(type), attributes.size(type)) + '/' + std::to_string(length);
    for (const auto& [name, type] : {std::pair("in", FRA_IIFNAME), std::pair("out", FRA_OIFNAME)})
        if (attributes.has(type))
            entry[name] = attributes.text(type);
    if (const auto mask = attributes.number(FRA_FWMASK)) // without a mark, which is 0 then
        entry.update({{"mark", attributes.number(FRA_FWMARK).value_or(0)}, {"mask", *mask}});
    if (rule.tos != 0)
        entry["tos"] = rule.tos;
    if (const auto* const protocol = attributes.as<unsigned char>(FRA_IP_PROTO))
        entry["ip_protocol"] = *protocol;
    for (const auto& [name, type] :
         {std::pair("source_ports", FRA_SPORT_RANGE), std::pair("destination_ports", FRA_DPORT_RANGE)})
        if (const auto* const ports = attributes.as<fib_rule_port_range>(type))
            entry[name] = std::to_string(ports->start) + '-' + std::to_string(ports->end);
    if (const auto* const users = attributes.as<fib_rule_uid_range>(FRA_UID_RANGE))
        entry["users"] = std::to_string(users->start) + '-' + std::to_string(users->end);
    const unsigned int table = attributes.number(FRA_TABLE).value_or(rule.table);
    entry["action"]          = named(actions, rule.action);
    if (const auto target = attributes.number(FRA_GOTO))
        entry["target"] = *target;
    else if (attributes.has(FRA_L3MDEV))
        entry["table"] = "that of the packet's l3mdev";
    else
        entry["table"] = table;
    for (const auto& [name, type] : {std::pair("suppress_prefix_length", FRA_SUPPRESS_PREFIXLEN),
                                     std::pair("suppress_group", FRA_SUPPRESS_IFGROUP)})
        if (const auto value = attributes.number(type); value && *value != UINT32_MAX)
            entry[name] = *value;
    char device[IF_NAMESIZE] = {};
    if (table > kFirstTable && if_indextoname(table - kFirstTable, device) != nullptr)
        entry["device"] = device;
    return entry;
}

// The values of these fields, as an entry begins.
std::string headline(const Json& entry, std::initializer_list<const char*> fields, const char* between)
{
    return joined(fields, between, [&entry](const char* field) {
        return entry[field].is_string() ? entry[field].get<std::string>() : entry[field].dump();
    });
}

} // namespace

// Lists

int listStates(Answer& answer)
{
    answer.findings["sas"] = Json::array();
    return dumpStates([&](const xfrm_usersa_info& state, const Attributes& attributes) {
        const Json entry       = entryOf(state, attributes);
        const std::string ends = headline(entry, {"source", "destination"}, " > ");
        addEntry(answer, "sas",
                 headline(entry, {"protocol", "mode"}, " ") + ' ' + ends + " spi " + hexadecimal(ntohl(state.id.spi)),
                 entry, 5);
    });
}

int listPolicies(Answer& answer)
{
    answer.findings["policies"]           = Json::array();
    const Show<xfrm_userpolicy_info> show = [&](const xfrm_userpolicy_info& policy, const Attributes& attributes) {
        const Json entry       = entryOf(policy, attributes);
        const std::string ends = headline(entry, {"source", "destination"}, " > ");
        addEntry(answer, "policies", headline(entry, {"direction"}, "") + ' ' + ends, entry, 3);
    };
    return dump<xfrm_userpolicy_info>(NETLINK_XFRM, XFRM_MSG_GETPOLICY, XFRM_MSG_NEWPOLICY, nullptr, show);
}

int listLabels(Answer& answer)
{
    answer.findings["labels"] = Json::array();
    std::vector<Label> labels;
    const int result = readLabels(labels);
    for (const Label& each : labels) {
        Json entry = {{"prefix", each.text()}, {"label", each.label}};
        if (each.device != 0)
            entry["device"] = deviceName(each.device);
        addEntry(answer, "labels", each.text(), entry, 1);
    }
    return result;
}

int listRules(Answer& answer)
{
    answer.findings["rules"]      = Json::array();
    const Show<fib_rule_hdr> show = [&](const fib_rule_hdr& rule, const Attributes& attributes) {
        const Json entry = entryOf(rule, attributes);
        if (rule.family == AF_INET || rule.family == AF_INET6) // multicast has rules too
            addEntry(answer, "rules", headline(entry, {"family", "priority"}, " "), entry, 2);
    };
    fib_rule_hdr about = {}; // of all families
    return dump<fib_rule_hdr>(NETLINK_ROUTE, RTM_GETRULE, RTM_NEWRULE, &about, show);
}

// Labels

std::string Label::text() const
{
    return addressText(address.data(), address.size()) + '/' + std::to_string(length);
}

int readLabels(std::vector<Label>& labels)
{
    const Show<ifaddrlblmsg> show = [&](const ifaddrlblmsg& entry, const Attributes& attributes) {
        const auto* const address = attributes.as<std::array<unsigned char, 16>>(IFAL_ADDRESS);
        const auto label          = attributes.number(IFAL_LABEL);
        if (address != nullptr && label)
            labels.push_back({*address, entry.ifal_prefixlen, entry.ifal_index, *label});
    };
    ifaddrlblmsg about = {};
    about.ifal_family  = AF_INET6;
    return dump<ifaddrlblmsg>(NETLINK_ROUTE, RTM_GETADDRLABEL, RTM_NEWADDRLABEL, &about, show);
}
