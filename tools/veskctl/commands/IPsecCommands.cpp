// Commands for security associations and policies, made from a record.

#include "Command.h"
#include "kernel/Looks.h"
#include "print/Heard.h"
#include "print/Text.h"

#include <netlink/Numbers.h>
#include <vesk/netlink.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <set>
#include <utility>

#include <linux/xfrm.h>

namespace {

const std::string kSeePolicies = "; veskctl policy list shows what is there";

const std::string kMark      = " a mark, which requests of a record do not name";
const std::string kBothThere = "both are there, but the kernel's answer to the last request was lost";
const std::string kRenew     = "; to change that, veskctl sa remove and veskctl sa add";

const char* nameOf(bool tx)
{
    return tx ? "TX" : "RX";
}

// Security associations

// The first of these SAs that is of a direction and fulfils a condition; null when there is none.
template <typename Condition>
const InstalledState* oneOf(const std::vector<InstalledState>& states, bool tx, const Condition& condition)
{
    const auto found = std::find_if(states.begin(), states.end(),
                                    [&](const InstalledState& each) { return each.tx == tx && condition(each); });
    return found != states.end() ? &*found : nullptr;
}

bool isOwn(const InstalledState& state)
{
    return state.own;
}

bool isReached(const InstalledState& state)
{
    return !state.marked;
}

bool isOwnAndReached(const InstalledState& state)
{
    return state.own && !state.marked;
}

// The SA from elsewhere that has the SPI and destination of one of a record's; nothing where there is none.
std::string othersLike(const std::vector<InstalledState>& states, bool tx)
{
    const auto* const other = oneOf(states, tx, [](const InstalledState& each) { return !each.own && !each.marked; });
    return other == nullptr ? "" : "an SA from " + other->source + " has the SPI and destination of " + nameOf(tx);
}

void adviseOnAH(Answer& answer, const Record& record)
{
    if (record.ipsec_protocol == TRO_IPSEC_PROTOCOL_AH_V01)
        answer.advise(EINVAL, "mainline kernels refuse this always: SAs of AH take no cipher there");
}

bool isInUDP(const Record& record)
{
    return record.udp_encap_valid != 0 && record.udp_encap != 0;
}

auto changeStates(Arguments& a, decltype(Vesk::addXFRMStates)* operation)
{
    a.record.read(a.file, ForStates, a.warnings);
    return [&a, operation](Answer&) {
        return operation(a.record, static_cast<tro_technology_name_enum_v01>(a.technology), a.mark, a.mask);
    };
}

Operation addStates(Arguments& a)
{
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const bool before = oneOf(installedStates(a.record), true, isOwnAndReached) != nullptr;
        makeCall();
        if (answer.result == 0)
            return;
        const auto after         = installedStates(a.record);
        const bool isStream      = a.file == "-" || a.file.starts_with("/dev/");
        const std::string file   = (a.file.starts_with('-') ? "./" : "") + a.file; // which is no option
        const std::string remove = "veskctl sa remove" + (isStream ? ", with the same record" : ' ' + forShell(file));
        const std::string rx     = othersLike(after, false);
        if (answer.heard(kUnanswered) && oneOf(after, false, isOwnAndReached) != nullptr)
            return answer.inPart(kBothThere);
        if (!before && oneOf(after, true, isOwnAndReached) != nullptr)
            answer.inPart("TX was installed and stays, RX was not" +
                          (rx.empty() ? "" : ": " + rx + ", and is in the way") +
                          "; before another try, remove both: " + remove);
        adviseOnAH(answer, a.record);
        if (before)
            answer.advise(EEXIST,
                          "an SA with the SPI and ends of TX is there; if veskctl sa status takes it for the record's, "
                          "remove the SAs first: " +
                              remove);
        else if (const std::string other = othersLike(after, true); !other.empty())
            answer.advise(EEXIST, "in the way: " + other + "; veskctl sa list shows it");
    };
    return {.call = changeStates(a, Vesk::addXFRMStates), .around = around};
}

void adviseOnUpdate(Answer& answer, const Record& record, const std::vector<InstalledState>& after)
{
    adviseOnAH(answer, record);
    if (const auto* const tx = oneOf(after, true, isOwnAndReached); tx != nullptr && tx->inUDP != isInUDP(record))
        answer.advise(EINVAL, std::string("TX is installed ") + (tx->inUDP ? "with" : "without") +
                                  " UDP encapsulation" + kRenew);
    answer.advise(ESRCH, oneOf(after, true, isOwn) == nullptr ? "TX is not installed; veskctl sa add installs both"
                                                              : "TX is installed, but has" + kMark);
}

// What keeps an update from RX, as far as the lists tell.
std::string whyNotReached(const std::vector<InstalledState>& after)
{
    if (oneOf(after, false, isReached) != nullptr)
        return "";
    return oneOf(after, false, isOwn) != nullptr ? ": it has" + kMark : ": it is not installed";
}

// What the log tells of an update that went on.
constexpr std::pair<const char*, const char*> kMissed[] = {
    {kCountersUnread, "the counters were sent as 0, since the SAs could not be read"},
    {kTxCountersStay, "the request with the counters of TX failed"},
    {kRxCountersStay, "the request with the counters of RX failed"},
};

void judgeUpdate(Answer& answer, const Record& record, const std::vector<InstalledState>& after)
{
    if (answer.heard(kTxNotUpdated))
        return adviseOnUpdate(answer, record, after);
    std::vector<std::string> kept, missed;
    for (const InstalledState& each : after)
        if (!each.marked && !each.kept.empty())
            kept.push_back(std::string(nameOf(each.tx)) + " kept its " + each.kept);
    for (const InstalledState& each : after)
        if (!each.marked && each.hidden)
            kept.push_back(std::string(nameOf(each.tx)) + " may have kept its keys, which the kernel shows as zeros");
    if (answer.heard(kRxNotUpdated))
        missed.push_back((answer.heard(kUnanswered) ? "RX may not have been" : "RX was not") + whyNotReached(after));
    for (const auto& [format, what] : kMissed)
        if (answer.heard(format))
            missed.emplace_back(what);
    if (!missed.empty())
        answer.inPart("TX was updated" + (kept.empty() ? "" : " but " + joined(kept)) + ", " + joined(missed));
    else if (!kept.empty())
        answer.notAsAsked(joined(kept, "; ") + kRenew);
}

Operation updateStates(Arguments& a)
{
    const auto call     = changeStates(a, Vesk::updateXFRMStates);
    const auto compared = [&] {
        Answer ignored;
        return call(ignored);
    };
    const auto wanted = a.dry ? Requests() : requestsOf(compared); // a dry run has no use for copies of keys
    const auto around = [&a, wanted](Answer& answer, const auto& makeCall) {
        const auto before = installedStates(a.record);
        for (const bool tx : {true, false})
            if (const std::string other = othersLike(before, tx); !other.empty())
                throw Refusal("nothing was updated: " + other + "; the kernel would change that one, which keeps its " +
                                  "source; to move SAs to another address: veskctl migrate",
                              NotAsAsked);
        makeCall();
        if (answer.result != 0 && !answer.heard(kTxNotUpdated)) // which a look that fails would not tell
            answer.inPart("TX was updated");
        judgeUpdate(answer, a.record, installedStates(a.record, wanted));
    };
    return {.call = call, .around = around};
}

// The kernel removes what has the SPI and destination, wherever it comes from, and under no mark.
void refuseOthers(const std::vector<InstalledState>& states)
{
    for (const bool tx : {true, false}) {
        const std::string other = othersLike(states, tx);
        if (!other.empty() && oneOf(states, tx, isOwn) != nullptr)
            throw Refusal("in the way: " + other + ", and would be removed instead; remove it first, if it is not " +
                              "needed: ip xfrm state shows both",
                          Refused);
    }
}

void judgeRemoval(Answer& answer, const std::vector<InstalledState>& before, const std::vector<InstalledState>& after)
{
    bool left = false;
    std::vector<std::string> marked, removed;
    for (const bool tx : {true, false}) {
        const bool is        = oneOf(after, tx, isOwnAndReached) != nullptr;
        const bool was       = oneOf(before, tx, isOwnAndReached) != nullptr;
        const bool hasMarked = !is && oneOf(after, tx, isOwn) != nullptr;

        answer.findings[tx ? "tx" : "rx"] = is ? "still there" : was ? "removed" : hasMarked ? "left" : "not installed";
        if (was && !is)
            removed.emplace_back(nameOf(tx));
        left |= is;
        if (hasMarked)
            marked.emplace_back(nameOf(tx));
    }
    if (answer.result != 0 && !removed.empty())
        answer.inPart("removed: " + joined(removed));
    if (answer.result != 0)
        return;
    if (left)
        answer.notAsAsked("an SA of the record is left; veskctl sa list shows it");
    else if (!marked.empty())
        answer.notAsAsked("an SA with the SPI and ends of " + joined(marked, " and one with those of ") +
                          " is left: it has" + kMark);
    else if (removed.empty())
        answer.notAsAsked("nothing was removed: no SA has the record's protocol, SPIs and addresses; veskctl sa list "
                          "shows what is there");
    else if (removed.size() == 1)
        answer.notAsAsked("only one of the two was installed; if the other should have been, compare its SPI and "
                          "addresses with veskctl sa list");
}

Operation removeStates(Arguments& a)
{
    a.record.read(a.file, ForRemoval, a.warnings);
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const auto before = installedStates(a.record);
        refuseOthers(before);
        makeCall();
        judgeRemoval(answer, before, installedStates(a.record));
    };
    return {.call = [&a](Answer&) { return Vesk::removeXFRMStates(a.record); }, .around = around};
}

// Policies

// The one that the library reaches, or else another one with that selector and direction; nothing where there is none.
std::optional<InstalledPolicy> policyOf(const Arguments& a, unsigned char direction)
{
    const auto all   = installedPolicies(selectorOf(a.source, a.destination, a.protocol), direction);
    const auto found = std::find_if(all.begin(), all.end(), [](const auto& each) { return each.otherwise.empty(); });
    return found != all.end() ? std::optional(*found) : all.empty() ? std::nullopt : std::optional(all[0]);
}

// Why there is no such policy for the library.
std::string noPolicy(const Arguments& a, unsigned char direction)
{
    const auto found = policyOf(a, direction);
    return !found ? "no policy has this selector, protocol and direction" + kSeePolicies
                  : "the policy with this selector has " + found->otherwise +
                        ", which this command cannot name; ip xfrm policy delete can";
}

bool isThere(const Arguments& a, unsigned char direction)
{
    const auto found = policyOf(a, direction);
    return found && found->otherwise.empty();
}

Operation addPolicies(Arguments& a)
{
    a.warnings = checkSelectors(a.source, a.destination);
    a.record.read(a.file, ForPolicies, a.warnings);
    const auto call = [&a](Answer&) {
        return Vesk::addXFRMPolicies(a.record, a.source, a.destination, a.protocol, !a.inbound);
    };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const bool before = a.inbound && isThere(a, XFRM_POLICY_IN);
        makeCall();
        const std::string remove = "veskctl policy remove" + std::string(a.inbound ? " --in " : " ") +
                                   (a.protocol != 0 ? "--protocol " + std::to_string(a.protocol) + ' ' : "") +
                                   forShell(a.source) + ' ' + forShell(a.destination);
        if (answer.result == 0)
            return;
        if (a.inbound && answer.heard(kUnanswered) && isThere(a, XFRM_POLICY_FWD))
            return answer.inPart(kBothThere);
        if (a.inbound && !before && isThere(a, XFRM_POLICY_IN))
            answer.inPart("the in policy was installed and stays, the fwd policy was not" + kSeePolicies);
        answer.advise(EEXIST, "there is a policy with this selector" + kSeePolicies +
                                  "; to replace it, remove it first: " + remove);
    };
    return {.call = call, .around = around};
}

Operation removePolicies(Arguments& a)
{
    a.warnings      = checkSelectors(a.source, a.destination);
    const auto call = [&a](Answer&) {
        return Vesk::removeXFRMPolicies(a.source, a.destination, a.protocol, !a.inbound);
    };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const bool in = a.inbound && isThere(a, XFRM_POLICY_IN), fwd = a.inbound && isThere(a, XFRM_POLICY_FWD);
        makeCall();
        if (answer.result == 0)
            return;
        if (a.inbound && in && !isThere(a, XFRM_POLICY_IN)) {
            const bool both = fwd && !isThere(a, XFRM_POLICY_FWD);
            answer.inPart(both  ? "the in and fwd policies are gone, but the kernel's answer is, too"
                          : fwd ? "the in policy was removed, the fwd policy was not" + kSeePolicies
                                : "the in policy was removed; of fwd, " + noPolicy(a, XFRM_POLICY_FWD));
        } else if (a.inbound && !in && fwd && answer.error == ENOENT) { // which the library does not come to
            answer.log.clear();
            answer.error = removePolicy(selectorOf(a.source, a.destination, a.protocol), XFRM_POLICY_FWD);
            if (answer.error != 0 && isThere(a, XFRM_POLICY_FWD)) {
                answer.status = NotAsAsked;
                answer.note   = "nothing was removed: there is no in policy, and removing the fwd policy failed";
                return;
            }
            answer.notAsAsked("the fwd policy was removed");
            answer.note += "; of in, " + noPolicy(a, XFRM_POLICY_IN);
            return;
        }
        answer.advise(ENOENT,
                      a.inbound ? "of in, " + noPolicy(a, XFRM_POLICY_IN) + "; of fwd, " + noPolicy(a, XFRM_POLICY_FWD)
                                : noPolicy(a, XFRM_POLICY_OUT));
    };
    return {.call = call, .around = around};
}

Operation bypass(Arguments& a, decltype(Vesk::addXFRMPolicyEx)* operation)
{
    a.destination                 = Vesk::kBypassSelector;
    a.protocol                    = IPPROTO_ICMPV6;
    const unsigned char direction = a.direction == "in"    ? XFRM_POLICY_IN
                                    : a.direction == "out" ? XFRM_POLICY_OUT
                                                           : XFRM_POLICY_FWD;
    const std::string remove      = "veskctl policy bypass remove " + a.direction;
    const auto around             = [direction, remove, &a](Answer& answer, const auto& makeCall) {
        makeCall();
        if (answer.result == 0)
            return;
        if (const auto found = policyOf(a, direction))
            answer.advise(EEXIST, "a policy with this selector is there, with action " + found->action +
                                                  "; if it is not needed, remove it first: " + remove);
        answer.advise(ENOENT, noPolicy(a, direction));
    };
    return {.call = [direction, operation](Answer&) { return operation(direction); }, .around = around};
}

using Names = std::set<std::string>;

Names without(const Names& all, const Names& others)
{
    Names left;
    std::set_difference(all.begin(), all.end(), others.begin(), others.end(), std::inserter(left, left.end()));
    return left;
}

// What became of what was between the old addresses, whatever the kernel said.
void judgeMigration(Answer& answer, const Arguments& a, const Names& before, const Names& after)
{
    const Names own = {"TX", "RX", "the out policy", "the in policy", "the fwd policy"}, moved = without(before, after);
    if (answer.result != 0) {
        if (!moved.empty())
            answer.inPart("moved: " + joined(moved) + "; the rest was not");
        else if (answer.heard(kUnanswered))
            answer.notAsAsked("nothing is moved now; an answer of the kernel was lost");
        return;
    }
    std::vector<std::string> said;
    for (const char* const each : {"TX", "RX"}) {
        answer.findings[each == std::string("TX") ? "tx" : "rx"] = after.contains(each)   ? "still there"
                                                                   : moved.contains(each) ? "moved"
                                                                                          : "not installed";
        if (!before.contains(each))
            said.push_back("between the old addresses, there was no SA with the SPI of " + std::string(each));
    }
    if (const Names left = without(own, without(own, after)); !left.empty())
        said.push_back("still between the old addresses: " + joined(left));
    if (const Names others = without(moved, own); !others.empty())
        said.push_back("moved, but not the record's: " + joined(others));
    for (const InstalledState& each : installedStates(a.otherRecord))
        if (each.own && !each.marked && each.inUDP != isInUDP(a.otherRecord))
            said.push_back(std::string(nameOf(each.tx)) + (each.inUDP ? " kept its" : " has no") +
                           " UDP encapsulation" + kRenew);
    if (!said.empty())
        answer.notAsAsked(joined(said, "; "));
}

Operation migrate(Arguments& a)
{
    a.warnings = checkSelectors(a.source, a.destination);
    if (a.file == "-" && a.otherFile == "-")
        throw Refusal("both records from standard input; write a file's name for one of them");
    a.record.read(a.file, ForMigration, a.warnings);
    a.otherRecord.read(a.otherFile, ForMigration, a.warnings);
    if (const auto names = differences(a.record, a.otherRecord); !names.empty())
        throw Refusal("the two records may differ in the local address and in udp_encap alone, but do so in " +
                      joined(names));
    if (addressText(a.record.local_addr) == addressText(a.otherRecord.local_addr))
        throw Refusal("the two records have the same local address, so nothing would move");
    const auto call = [&a](Answer&) {
        return Vesk::migrateXFRMInfo(a.record, a.otherRecord, a.source, a.destination, a.protocol);
    };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const auto look = [&a, out = selectorOf(a.source, a.destination, a.protocol),
                           in = selectorOf(a.destination, a.source, a.protocol)] {
            return betweenEnds(a.record, out, in);
        };
        const Names before = look();
        makeCall();
        judgeMigration(answer, a, before, look());
        if (answer.result == 0)
            return;
        answer.advise(ENOENT, "a policy of one of the three directions, out, in and fwd, is missing" + kSeePolicies);
        for (const InstalledState& each : installedStates(a.otherRecord))
            if (each.own && !each.marked && before.contains(nameOf(each.tx)))
                answer.advise(ENODATA, std::string("an SA with the SPI of ") + nameOf(each.tx) +
                                           " is at the new address already; veskctl sa list shows it");
        if (!without({"the out policy", "the in policy", "the fwd policy"}, before).empty())
            answer.advise(ENODATA,
                          "a policy has no template of the records' mode, protocol and old addresses" + kSeePolicies);
    };
    return {.call = call, .around = around};
}

// Records

Operation checkRecord(Arguments& a)
{
    a.record.read(a.file, ForStates, a.warnings);
    return {[&a](Answer& answer) {
        answer.findings = a.record.described();
        return 0;
    }};
}

Operation explain(Arguments&)
{
    return {[](Answer& answer) {
        explainRecord(answer);
        return 0;
    }};
}

const Argument kRecord     = {"record", "FILE", "File with the record; - for standard input", &Arguments::file};
const Argument kOutputMark = {"--mark", "NUMBER", "Mark of what TX sends", &Arguments::mark};
const Argument kOutputMask = {"--mask", "NUMBER", "The bits of that mark to set; all when not given", &Arguments::mask};
const Argument kTechnology = {"--technology", "{marked-rx}",
                              "What RX receives gets mark " + hexadecimal(Vesk::kMarkedRx), &Arguments::technology};
const Argument kFrom       = {"source", "PREFIX", "Source of the traffic; \"\" for any", &Arguments::source};
const Argument kTo         = {"destination", "PREFIX", "Its destination; \"\" for any", &Arguments::destination};
const Argument kProtocol   = {"--protocol", "PROTOCOL", "Of this IP protocol alone, such as tcp", &Arguments::protocol};
const Argument kInbound    = {"--in", "", "The in and fwd policies, instead of the out policy", &Arguments::inbound};
const Argument kDirection  = {"direction", "{in,out,fwd}", "Direction of the policy", &Arguments::direction};

} // namespace

std::vector<Command> ipsecCommands()
{
    const std::string algorithm = "this kernel lacks the cipher or the hash; its module may have to be loaded";
    const std::string marks     = "The bit " + hexadecimal(Vesk::kOutputMark) + " is set in mark and mask, always.\n";
    return {
        Command(
            "sa add", "Install the two SAs of a record, TX then RX", "handset.ini --mark 1 --mask 0xff",
            {kRecord, kOutputMark, kOutputMask, kTechnology}, addStates,
            {.notes  = marks + "When RX is refused, TX stays: status 3. Mainline kernels refuse SAs of AH.",
             .advice = {{ENOSYS, algorithm},
                        {ENOENT, algorithm},
                        {EPROTONOSUPPORT, "this kernel lacks ESP or AH, or IPsec; a module may have to be loaded"}}}),
        Command("sa update", "Update the two SAs of a record in place", "handset.ini --mark 1 --mask 0xff",
                {kRecord, kOutputMark, kOutputMask, kTechnology}, updateStates,
                {.notes      = marks + "Mainline kernels keep mode, algorithms, keys, whether ESP goes in UDP\n"
                                       "and, without --technology, RX's mark: remove the SAs and add them instead.\n"
                                       "Limits are lifted. Status 3 when what is kept differs, and for what was not\n"
                                       "updated. An SA of the same SPI and destination from another source is in the\n"
                                       "way: status 3, and nothing is done.",
                 .unanswered = "ids and counters in the last two requests are those of the installed SAs"}),
        Command("sa remove", "Remove the two SAs of a record", "handset.ini", {kRecord}, removeStates,
                {.notes      = "Status 3 when one of the two was not there, or still is. Refused when another\n"
                               "SA would be removed, of the same SPI and destination from another source.",
                 .unanswered = "XFRM_MSG_DELSA would follow for each SA that the record names"}),

        Command("policy add", "Install the policies of one side", "handset.ini 10.0.0.0/16 10.1.0.0/16",
                {kRecord, kFrom, kTo, kInbound, kProtocol}, addPolicies,
                {.notes = "With --in, the peer's prefix is the source. Status 3 when in was installed, but\n"
                          "not fwd."}),
        Command("policy remove", "Remove the policies of one side", "10.0.0.0/16 10.1.0.0/16",
                {kFrom, kTo, kInbound, kProtocol}, removePolicies,
                {.notes = "With --in, status 3 when one of the two was not there."}),
        Command("policy bypass add", std::string("Let ICMPv6 to ") + Vesk::kBypassSelector + " past IPsec", "out",
                {kDirection}, [](Arguments& a) { return bypass(a, Vesk::addXFRMPolicyEx); }),
        Command("policy bypass remove", "Remove that policy again", "out", {kDirection},
                [](Arguments& a) { return bypass(a, Vesk::removeXFRMPolicyEx); }),

        Command("migrate", "Move SAs and policies to a new local address", "old.ini new.ini 10.0.0.0/16 10.1.0.0/16",
                {{"old", "FILE", "Record as it was installed", &Arguments::file},
                 {"new", "FILE", "Record as it is now", &Arguments::otherFile},
                 {"local", "PREFIX", "This end's selector", &Arguments::source},
                 {"remote", "PREFIX", "The peer's selector", &Arguments::destination},
                 kProtocol},
                migrate,
                {.notes  = "There have to be policies out, in and fwd. When one is refused, what was moved\n"
                           "is moved back. Status 3 when there was no SA to move, or one is left. Policies\n"
                           "with other selectors keep the old address.",
                 .advice = {{ENOPROTOOPT, "this kernel was built without CONFIG_XFRM_MIGRATE"}}}),

        Command("record check", "Look at a record, and send nothing", "handset.ini", {kRecord}, checkRecord),
        Command("record explain", "Every name of a record, its words and codes", "", {}, explain),
    };
}
