// Commands that show what is in the kernel.

#include "Command.h"
#include "kernel/Kernel.h"
#include "kernel/Looks.h"
#include "print/Listing.h"
#include "print/Text.h"

#include <vesk/netlink.h>

#include <algorithm>
#include <cerrno>
#include <map>

using namespace Vesk::Messages;

namespace {

constexpr ListStyle kStateStyle  = {"sas", "{protocol} {mode} {source} > {destination} spi {spi}",
                                    "{packets} {bytes} {added?} {first_used?} {last_used?}", ""};
constexpr ListStyle kPolicyStyle = {"policies", "{direction} {source} > {destination}",
                                    "{priority} {action} {index} {added?} {used?}",
                                    "{protocol} {mode} {source} > {destination}"};
constexpr ListStyle kRuleStyle   = {"rules", "{family} {priority}", "{action} {table?} {target?} {device?}", ""};
constexpr ListStyle kLabelStyle  = {"labels", "{prefix}", "{label} {device?} {device_index?}", ""};

constexpr const char* kIncomplete   = "this may be incomplete: it changed each time the kernel was asked";
constexpr const char* kNotInstalled = "what the record says is not what is installed";

using Wanted = std::function<bool(const Fields&)>;

// All of a kind that are wanted.
Operation list(const Dump& what, const ListStyle& style, const Wanted& isWanted)
{
    return {[=](Answer& answer) {
        Listing listing(answer, style);
        std::size_t shown = 0, left = 0;
        const auto begin = [&] {
            listing.clear();
            shown = left = 0;
        };
        const int result = readAll(what, begin, [&](const Fields& fields, Bytes) {
            ++(isWanted(fields) ? shown : left);
            if (isWanted(fields))
                listing.add(fields);
        });
        if (result == 0 && errno == EINTR)
            answer.notAsAsked(kIncomplete);
        else if (shown == 0 && left != 0)
            answer.note = "none of " + std::to_string(left) + ' ' + style.name + " is chosen";
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

// Whether a template is of a record's protocol, and between its ends. Where it leaves one open, the traffic's counts.
bool isBetween(const Fields& policy, const Record& r)
{
    std::map<std::size_t, int> matches; // of each template: the protocol, the local and the remote end
    for (const Field& each : policy) {
        if (each.group != "templates")
            continue;
        const Field& end = each.usual && each.kind == Kind::Address ? *fieldOf(policy, each.listed) : each;
        matches[each.item] |= (each.listed == "protocol" && each.inWords() == protocolOf(r) ? 1 : 0) |
                              (isEndAt(end, addressText(r.local_addr)) ? 2 : 0) |
                              (isEndAt(end, addressText(r.remote_addr)) ? 4 : 0);
    }
    return std::any_of(matches.begin(), matches.end(), [](const auto& each) { return each.second == 7; });
}

// Whether an SA is of this direction: it says so, from Linux 6.10 on, or an end of it is one of these prefixes.
bool isOfDirection(const Fields& state, const std::string& direction, const std::vector<std::string>& local)
{
    if (const Field* const said = fieldOf(state, "direction"))
        return said->inWords() == direction;
    const std::string end = fieldOf(state, direction == "in" ? "destination" : "source")->text;
    return std::any_of(local.begin(), local.end(), [&end](const std::string& each) {
        return end != "any" && takesIn(prefixOf(each), prefixOf(end));
    });
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
    return {[&a](Answer& answer) {
        const auto local    = a.direction.empty() || a.dry ? std::vector<std::string>() : localPrefixes();
        const auto isWanted = [&](const Fields& fields) {
            return isChosen(fields, a) && (a.direction.empty() || isOfDirection(fields, a.direction, local)) &&
                   (a.file.empty() || isOf(a.record, fields));
        };
        return list(kStates, kStateStyle, isWanted).call(answer);
    }};
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
    const InstalledState* is = nullptr; // the one that requests of the record reach, if there is one
    for (const InstalledState& each : all)
        if (each.tx == tx && each.own && (is == nullptr || is->marked))
            is = &each;
    std::string& text = answer.text +=
        bold(tx ? "tx" : "rx") + " spi " + hexadecimal(tx ? record.spi_tx : record.spi_rx);
    const bool installed = is != nullptr && !is->larval;
    Json& finding = answer.findings[tx ? "tx" : "rx"] = {{"installed", installed}};
    if (!installed) {
        answer.notAsAsked(kNotInstalled);
        text += is == nullptr ? "  not installed\n" : "  larval, without keys yet\n";
        return;
    }
    // The output mark is none of the record's.
    const std::string kept    = replaced(", " + is->kept, ", output mark", "");
    const std::string differs = kept.size() > 2 ? kept.substr(2) : "";
    const std::string keys    = differs.find(" key") != std::string::npos ? "others"
                                : is->hidden                              ? "hidden, or all zeros"
                                                                          : "the record's";
    if (!differs.empty())
        answer.notAsAsked(kNotInstalled);
    else if (is->hidden)
        answer.notAsAsked("whether the keys are the record's cannot be told: the kernel shows zeros");
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
    const auto call = [&a] {
        return Vesk::updateXFRMStates(a.record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 0, UINT32_MAX);
    };
    const auto requests = a.dry ? Requests() : requestsOf(call);
    return {[&a, requests](Answer& answer) {
        const auto all = installedStates(a.record, requests);
        for (const bool tx : {true, false})
            addStatus(answer, a.record, all, tx);
        return 0;
    }};
}

const Argument kSPI     = {"--spi", "SPI", "Those with this SPI alone", &Arguments::spi};
const Argument kAddress = {"--address", "ADDRESS", "Those with this address at an end alone", &Arguments::address};

} // namespace

std::vector<Command> listCommands()
{
    const std::string unanswered = "the list is in it";
    return {
        Command("rule list", "All rules", "", {}, ruleList,
                {.notes      = "The device behind a table is the one whose own table that is, 1000 + its index.",
                 .unanswered = unanswered}),
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
        Command(
            "policy list", "Policies", "--direction out",
            {{"--record", "FILE", "Those between the ends of a record alone", &Arguments::file},
             kSPI,
             kAddress,
             {"--direction", "{in,out,fwd,socket-in,socket-out}", "Those of this direction", &Arguments::direction}},
            policyList,
            {.notes      = "A policy has the SPIs and ends of its templates, and each address that its\n"
                           "selector takes in. Policies of a record are those with a template for it.",
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
