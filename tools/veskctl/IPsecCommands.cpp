// Commands for security associations and policies, made from a record.

#include "Command.h"

#include <vesk/netlink.h>

#include <cerrno>

#include <linux/xfrm.h>

namespace {

const std::string kSeePolicies = "; veskctl policy list shows what is there";

// What to do next, unless it is known already.
void advise(Answer& answer, int error, const std::string& what)
{
    if (answer.result != 0 && answer.error == error && answer.note.empty())
        answer.note = what;
}

// Security associations

auto changeStates(Arguments& a, decltype(Vesk::addXFRMStates)* operation)
{
    a.record.read(a.file, ForStates);
    return [&a, operation](Answer&) {
        return operation(a.record, static_cast<tro_technology_name_enum_v01>(a.technology), a.mark, a.mask);
    };
}

Operation addStates(Arguments& a)
{
    const auto judge = [&a](Answer& answer) {
        const std::string remove = "veskctl sa remove " + a.file;
        if (answer.logged("setting RX XFRM state failed"))
            answer.note = "TX was installed and stays, RX was refused; before another try, remove both: " + remove;
        if (a.record.ipsec_protocol == kAH)
            advise(answer, EINVAL, "mainline kernels always refuse this: SAs of AH take no cipher there");
        advise(answer, EEXIST, "TX is installed already; remove the SAs first: " + remove);
    };
    return {.call = changeStates(a, Vesk::addXFRMStates), .judge = judge};
}

Operation updateStates(Arguments& a)
{
    const auto judge = [&a](Answer& answer) {
        if (answer.result != 0)
            return;
        if (answer.logged("updating RX XFRM state failed"))
            answer.notAsAsked("TX was updated, RX was refused; veskctl sa list shows what is there");
        else if (answer.logged("updating sequence TX failed"))
            answer.notAsAsked("both were updated, but the counters of TX were refused");
        else if (installedStates(a.record).otherKeys)
            answer.notAsAsked("the kernel took the marks and kept the old keys, as mainline kernels do; for new keys, "
                              "veskctl sa remove and veskctl sa add");
    };
    return {.call = changeStates(a, Vesk::updateXFRMStates), .judge = judge};
}

Operation removeStates(Arguments& a)
{
    a.record.read(a.file, ForRemoval);
    const auto judge = [&a](Answer& answer) {
        if (answer.result != 0)
            return;
        const InstalledStates before = a.statesBefore, after = installedStates(a.record);
        const auto fate = [](bool was, bool is) { return is ? "still there" : was ? "removed" : "not installed"; };
        answer.findings = {{"tx", fate(before.tx, after.tx)}, {"rx", fate(before.rx, after.rx)}};
        if (after.tx || after.rx)
            answer.notAsAsked("an SA of the record is left; veskctl sa list shows it");
        else if (!before.tx && !before.rx)
            answer.notAsAsked("nothing was removed: no SA has the record's protocol, SPIs and addresses; "
                              "veskctl sa list shows what is there");
        else if (!before.tx || !before.rx)
            answer.notAsAsked("only one of the two was installed; if the other should have been, compare its SPI and "
                              "addresses with veskctl sa list");
    };
    return {.call  = [&a](Answer&) { return Vesk::removeXFRMStates(a.record); },
            .look  = [&a] { a.statesBefore = installedStates(a.record); },
            .judge = judge};
}

Operation stateList(Arguments&)
{
    return {listStates};
}

// Policies

Operation addPolicies(Arguments& a)
{
    checkSelectors(a.source, a.destination);
    a.record.read(a.file, ForPolicies);
    const auto call = [&a](Answer&) {
        return Vesk::addXFRMPolicies(a.record, a.source, a.destination, a.protocol, !a.inbound);
    };
    const auto judge = [](Answer& answer) {
        if (answer.logged("inserting forwarding XFRM policy failed"))
            answer.note = "the in policy was installed and stays, the fwd policy was refused" + kSeePolicies;
    };
    return {.call = call, .judge = judge};
}

Operation removePolicies(Arguments& a)
{
    checkSelectors(a.source, a.destination);
    const auto call = [&a](Answer&) {
        return Vesk::removeXFRMPolicies(a.source, a.destination, a.protocol, !a.inbound);
    };
    const auto judge = [](Answer& answer) {
        if (answer.logged("removing forwarding XFRM policy failed"))
            answer.note = "the in policy was removed, the fwd policy was not" + kSeePolicies;
    };
    return {.call = call, .judge = judge};
}

Operation bypass(Arguments& a, decltype(Vesk::addXFRMPolicyEx)* operation)
{
    const unsigned char direction = a.direction == "in"    ? XFRM_POLICY_IN
                                    : a.direction == "out" ? XFRM_POLICY_OUT
                                                           : XFRM_POLICY_FWD;
    return {[direction, operation](Answer&) { return operation(direction); }};
}

Operation addBypass(Arguments& a)
{
    return bypass(a, Vesk::addXFRMPolicyEx);
}

Operation removeBypass(Arguments& a)
{
    return bypass(a, Vesk::removeXFRMPolicyEx);
}

Operation policyList(Arguments&)
{
    return {listPolicies};
}

Operation migrate(Arguments& a)
{
    checkSelectors(a.source, a.destination);
    if (a.file == "-" && a.otherFile == "-")
        throw Refusal("both records from standard input; write a file's name for one of them");
    a.record.read(a.file, ForMigration);
    a.otherRecord.read(a.otherFile, ForMigration);
    const auto call = [&a](Answer&) {
        return Vesk::migrateXFRMInfo(a.record, a.otherRecord, a.source, a.destination, a.protocol);
    };
    const auto judge = [](Answer& answer) {
        if (answer.logged("rolling back"))
            answer.note = "part of it was moved and could not be moved back" + kSeePolicies;
        else if (answer.logged("has changed"))
            answer.note = "the two records may differ in the local address alone";
    };
    return {.call = call, .judge = judge};
}

// Records

Operation checkRecord(Arguments& a)
{
    a.record.read(a.file, ForStates);
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
const Argument kOutputMark = {"--mark", "NUMBER", "Output mark of TX", &Arguments::mark};
const Argument kOutputMask = {"--mask", "NUMBER", "Its mask; all bits when not given", &Arguments::mask};
const Argument kTechnology = {"--technology", "NUMBER", "The technology; -32640 gives RX a mark, 0x20002",
                              &Arguments::technology};
const Argument kFrom       = {"source", "PREFIX", "Selector, or \"\"", &Arguments::source};
const Argument kTo         = {"destination", "PREFIX", "Selector, or \"\"", &Arguments::destination};
const Argument kProtocol   = {"--protocol", "NUMBER", "IP protocol; any when not given", &Arguments::protocol};
const Argument kInbound    = {"--in", "", "The in and fwd policies, instead of the out policy", &Arguments::inbound};
const Argument kDirection  = {"direction", "{in,out,fwd}", "Direction", &Arguments::direction};

const Advice kNoPolicy = {ENOENT, "no policy has this selector, protocol and direction" + kSeePolicies};

} // namespace

std::vector<Command> ipsecCommands()
{
    const auto exists = [](const char* remove) {
        return Advice{EEXIST, std::string("there is such a policy; remove it first: veskctl policy ") + remove};
    };
    const std::string algorithm   = "this kernel lacks the cipher or the hash; its module may have to be loaded";
    const std::string marks       = "The bit 0x20000 is added to mark and mask.\n";
    const std::string listIsThere = "the list is in it";
    return {
        {.path      = "sa add",
         .what      = "Install the two SAs of a record, TX then RX",
         .example   = "handset.ini --mark 1 --mask 0xff",
         .arguments = {kRecord, kOutputMark, kOutputMask, kTechnology},
         .prepare   = addStates,
         .notes     = marks + "When RX is refused, TX stays. Mainline kernels refuse SAs of AH (EINVAL).",
         .advice    = {{ENOSYS, algorithm},
                       {ENOENT, algorithm},
                       {EPROTONOSUPPORT, "this kernel lacks ESP or AH, or IPsec; a module may have to be loaded"}}},
        {.path       = "sa update",
         .what       = "Update the two SAs of a record in place",
         .example    = "handset.ini --mark 1 --mask 0xff",
         .arguments  = {kRecord, kOutputMark, kOutputMask, kTechnology},
         .prepare    = updateStates,
         .notes      = marks + "Mainline kernels keep the keys of an installed SA: remove it, then add it.\n"
                               "Status 3 when they did, or when RX was refused.",
         .advice     = {{ESRCH, "TX is not installed; veskctl sa add installs both"}},
         .unanswered = "ids and counters in the last two requests are those of the installed SAs"},
        {.path       = "sa remove",
         .what       = "Remove the two SAs of a record",
         .example    = "handset.ini",
         .arguments  = {kRecord},
         .prepare    = removeStates,
         .notes      = "Status 3 when one of the two was not there, or still is.",
         .unanswered = "XFRM_MSG_DELSA would follow for each SA that the record names"},
        {.path = "sa list", .what = "All SAs, without keys", .prepare = stateList, .unanswered = listIsThere},

        {.path      = "policy add",
         .what      = "Install the policies of one side",
         .example   = "handset.ini 10.0.0.0/16 10.1.0.0/16",
         .arguments = {kRecord, kFrom, kTo, kInbound, kProtocol},
         .prepare   = addPolicies,
         .notes     = "With --in, the peer's prefix is the source.",
         .advice    = {exists("remove")}},
        {.path      = "policy remove",
         .what      = "Remove the policies of one side",
         .example   = "10.0.0.0/16 10.1.0.0/16",
         .arguments = {kFrom, kTo, kInbound, kProtocol},
         .prepare   = removePolicies,
         .advice    = {kNoPolicy}},
        {.path = "policy list", .what = "All policies", .prepare = policyList, .unanswered = listIsThere},
        {.path      = "policy bypass add",
         .what      = "Let ICMPv6 to fe80::/64 past IPsec",
         .example   = "out",
         .arguments = {kDirection},
         .prepare   = addBypass,
         .advice    = {exists("bypass remove")}},
        {.path      = "policy bypass remove",
         .what      = "No longer let it",
         .example   = "out",
         .arguments = {kDirection},
         .prepare   = removeBypass,
         .advice    = {kNoPolicy}},

        {.path      = "migrate",
         .what      = "Move SAs and policies to a new local address",
         .example   = "old.ini new.ini 10.0.0.0/16 10.1.0.0/16",
         .arguments = {{"old", "FILE", "Record as it was installed", &Arguments::file},
                       {"new", "FILE", "Record as it is now", &Arguments::otherFile},
                       {"local", "PREFIX", "This end's selector", &Arguments::source},
                       {"remote", "PREFIX", "The peer's selector", &Arguments::destination},
                       kProtocol},
         .prepare   = migrate,
         .notes     = "All three directions have to have policies. What was moved is moved back when\n"
                      "one is refused.",
         .advice    = {kNoPolicy, {ENOPROTOOPT, "this kernel was built without CONFIG_XFRM_MIGRATE"}}},

        {.path      = "record check",
         .what      = "Look at a record, and send nothing",
         .example   = "handset.ini",
         .arguments = {kRecord},
         .prepare   = checkRecord},
        {.path = "record explain", .what = "Every name of a record, its words and codes", .prepare = explain},
    };
}
