// Commands that show what is in the kernel.

#include "Command.h"
#include "kernel/Kernel.h"
#include "kernel/Looks.h"
#include "print/Listing.h"
#include "print/Text.h"

#include <vesk/netlink.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include <arpa/inet.h>
#include <ifaddrs.h>

using namespace Vesk::Messages;

namespace {

constexpr ListStyle kStateStyle  = {"sas", "{protocol} {mode} {source} > {destination} spi {spi}",
                                    "{packets} {bytes} {added?} {first_used?} {last_used?}", ""};
constexpr ListStyle kPolicyStyle = {"policies", "{direction} {source} > {destination}",
                                    "{priority} {action} {index} {added?} {used?}",
                                    "{protocol} {mode} {source} > {destination}"};
constexpr ListStyle kRuleStyle   = {"rules", "{family} {priority}", "{action} {table?} {target?} {device?}", ""};
constexpr ListStyle kLabelStyle  = {"labels", "{prefix}", "{label} {device?} {device_index?}", ""};

constexpr const char* kIncomplete = "this may be incomplete: changes interrupted the kernel each time it was asked";

using Wanted = std::function<bool(const Fields&)>;

// All of a kind that are wanted.
Operation list(const Dump& what, const ListStyle& style, const Wanted& isWanted)
{
    return {[=](Answer& answer) {
        Listing listing(answer, style);
        const int result = readAll(
            what, [&listing] { listing.clear(); },
            [&](const Fields& fields, Bytes) {
                if (isWanted(fields))
                    listing.add(fields);
            });
        if (result == 0 && errno == EINTR)
            answer.notAsAsked(kIncomplete);
        return result;
    }};
}

// Whether this SA is one of a record's.
bool isOf(const Record& r, const Fields& state)
{
    const auto is = [&](const char* name, const std::string& text) { return fieldOf(state, name)->inWords() == text; };
    const std::string local = addressText(r.local_addr), remote = addressText(r.remote_addr);
    return is("protocol", protocolOf(r)) &&
           ((is("spi", hexadecimal(r.spi_tx)) && is("source", local) && is("destination", remote)) ||
            (is("spi", hexadecimal(r.spi_rx)) && is("source", remote) && is("destination", local)));
}

// Whether this is an end that is this address, or a prefix that it is in.
bool isEndAt(const Field& field, const std::string& address)
{
    if (field.kind != Kind::Address || (field.listed != "source" && field.listed != "destination"))
        return false;
    return field.text == "any" || takesIn(prefixOf(field.inWords()), prefixOf(address));
}

// Whether a template is between the ends of a record.
bool isBetween(const Fields& policy, const Record& r)
{
    const auto itemsAt = [&policy](const std::string& address) {
        std::set<std::size_t> items;
        for (const Field& each : policy)
            if (each.group == "templates" && isEndAt(each, address))
                items.insert(each.item);
        return items;
    };
    const auto local = itemsAt(addressText(r.local_addr)), remote = itemsAt(addressText(r.remote_addr));
    return std::any_of(local.begin(), local.end(), [&remote](std::size_t item) { return remote.contains(item); });
}

bool isLocal(const std::string& address)
{
    ifaddrs* all = nullptr;
    bool found   = false;
    static_cast<void>(getifaddrs(&all));
    for (const ifaddrs* each = all; each != nullptr; each = each->ifa_next) {
        const int family = each->ifa_addr != nullptr ? each->ifa_addr->sa_family : AF_UNSPEC;
        if (family == AF_INET)
            found |= addressText(&reinterpret_cast<const sockaddr_in*>(each->ifa_addr)->sin_addr, 4) == address;
        else if (family == AF_INET6)
            found |= addressText(&reinterpret_cast<const sockaddr_in6*>(each->ifa_addr)->sin6_addr, 16) == address;
    }
    freeifaddrs(all);
    return found;
}

// What of both lists is chosen by the SPI and the address that are given, if any are.
bool isChosen(const Fields& fields, const Arguments& a)
{
    const auto hasSPI = [&a](const Field& each) { return each.listed == "spi" && each.number() == a.spi; };
    const auto isAt   = [&a](const Field& each) { return isEndAt(each, a.address); };
    return (a.spi == 0 || std::any_of(fields.begin(), fields.end(), hasSPI)) &&
           (a.address.empty() || std::any_of(fields.begin(), fields.end(), isAt));
}

void prepareChoice(Arguments& a)
{
    if (!a.file.empty())
        a.record.read(a.file, ForRemoval, a.warnings);
    if (!a.address.empty())
        familyOf(a.address);
}

Operation stateList(Arguments& a)
{
    prepareChoice(a);
    return list(kStates, kStateStyle, [&a](const Fields& fields) {
        const char* const end = a.direction == "in" ? "destination" : "source"; // which is here
        return isChosen(fields, a) && (a.direction.empty() || isLocal(fieldOf(fields, end)->text)) &&
               (a.file.empty() || isOf(a.record, fields));
    });
}

Operation policyList(Arguments& a)
{
    prepareChoice(a);
    return list(kPolicies, kPolicyStyle, [&a](const Fields& fields) {
        return isChosen(fields, a) && (a.direction.empty() || fieldOf(fields, "direction")->inWords() == a.direction) &&
               (a.file.empty() || isBetween(fields, a.record));
    });
}

bool all(const Fields&)
{
    return true;
}

Operation ruleList(Arguments&)
{
    return list(kRules, kRuleStyle, all);
}

Operation labelList(Arguments&)
{
    return list(kLabels, kLabelStyle, all);
}

void addStatus(Answer& answer, const Record& record, const std::vector<InstalledState>& all, bool tx)
{
    const auto is =
        std::find_if(all.begin(), all.end(), [tx](const InstalledState& each) { return each.tx == tx && each.own; });
    std::string& text = answer.text +=
        bold(tx ? "tx" : "rx") + " spi " + hexadecimal(tx ? record.spi_tx : record.spi_rx);
    // The output mark is none of the record's.
    const std::string kept    = is == all.end() ? ", all" : replaced(", " + is->kept, ", output mark", "");
    const std::string differs = kept.size() > 2 ? kept.substr(2) : "";
    if (!differs.empty())
        answer.notAsAsked("what the record says is not what is installed");
    const bool installed = is != all.end() && !is->larval;
    Json& finding = answer.findings[tx ? "tx" : "rx"] = {{"installed", installed}};
    if (!installed) {
        text += is == all.end() ? "  not installed\n" : "  larval, without keys yet\n";
        return;
    }
    const std::string keys = differs.find(" key") != std::string::npos ? "others"
                             : is->hidden                              ? "hidden, or all zeros"
                                                                       : "the record's";
    finding.update({{"keys", keys}, {"packets", is->packets}, {"first_used", is->firstUsed}, {"differs", differs}});
    if (!is->lastUsed.empty())
        finding["last_used"] = is->lastUsed;
    text += "  installed  keys " + keys + "  packets " + std::to_string(is->packets) + "  first_used " + is->firstUsed +
            (is->lastUsed.empty() ? "" : "  last_used " + is->lastUsed) +
            (differs.empty() ? "" : "  differs in " + differs) + '\n';
}

Operation stateStatus(Arguments& a)
{
    a.record.read(a.file, ForStates, a.warnings);
    const auto requests =
        requestsOf([&a] { return Vesk::updateXFRMStates(a.record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 0, UINT32_MAX); });
    return {[&a, requests](Answer& answer) {
        int result     = 0;
        const auto all = installedStates(a.record, requests, &result);
        if (result == 0 && errno == EINTR)
            answer.notAsAsked(kIncomplete);
        for (const bool tx : {true, false})
            if (result == 0)
                addStatus(answer, a.record, all, tx);
        return result;
    }};
}

const Argument kSPI     = {"--spi", "SPI", "Those with this SPI alone", &Arguments::spi};
const Argument kAddress = {"--address", "ADDRESS", "Those with this address at an end alone", &Arguments::address};

} // namespace

std::vector<Command> listCommands()
{
    const std::string unanswered = "the list is in it";
    return {
        Command("rule list", "All rules", "", {}, ruleList, {.unanswered = unanswered}),
        Command("label list", "All labels", "", {}, labelList, {.unanswered = unanswered}),
        Command("sa status", "Whether the two SAs of a record are installed", "handset.ini",
                {{"record", "FILE", "File with the record; - for standard input", &Arguments::file}}, stateStatus,
                {.notes      = "With whose keys, how many packets, and when used: first, and last where the\n"
                               "kernel tells. Status 3 when one is "
                               "missing or has other keys.",
                 .unanswered = "what is installed is in it"}),
        Command("sa list", "SAs, without keys", "--spi 0x1001",
                {{"--record", "FILE", "Those of a record alone", &Arguments::file},
                 kSPI,
                 kAddress,
                 {"--direction", "{in,out}", "Those that end here, or begin here", &Arguments::direction}},
                stateList, {.unanswered = unanswered}),
        Command("policy list", "Policies", "--direction out",
                {{"--record", "FILE", "Those between the ends of a record alone", &Arguments::file},
                 kSPI,
                 kAddress,
                 {"--direction", "{in,out,fwd}", "Those of this direction", &Arguments::direction}},
                policyList,
                {.notes      = "A policy has the SPIs and ends of its templates, and each address that its\n"
                               "selector takes in.",
                 .unanswered = unanswered}),
    };
}

std::string explainedLists()
{
    std::string text;
    for (const auto& [style, dump] : {std::pair(kStateStyle, kStates), std::pair(kPolicyStyle, kPolicies),
                                      std::pair(kRuleStyle, kRules), std::pair(kLabelStyle, kLabels)})
        text += explained(style, mayShow(dump));
    return text;
}
