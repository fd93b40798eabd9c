// Commands for the table of IPv6 address labels.

#include "Command.h"
#include "kernel/Kernel.h"
#include "kernel/Looks.h"
#include "print/Text.h"

#include <netlink/Numbers.h>
#include <vesk/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <random>
#include <set>

#include <net/if.h>
#include <netinet/in.h>

namespace {

const std::string kPurged =
    "a label of " + std::to_string(Vesk::kDefaultLabel) + ", or " + std::to_string(Vesk::kFirstOwnLabel) + " or more";

// Whether an entry is of the prefix length and device that are purged.
bool isCandidate(const Label& each, const Arguments& a)
{
    return a.prefix.address.ss_family == AF_INET6 && each.length == a.prefix.length && each.device == a.index;
}

// Whether it is the one that the arguments name. The kernel keeps it without bits behind the prefix.
bool isEntryOf(const Label& each, const Arguments& a)
{
    return isCandidate(each, a) && takesIn(prefixOf(each.text()), a.prefix);
}

// The kernel has one errno for several reasons.
void adviseOnPrefix(Answer& answer, const Arguments& a)
{
    char name[IF_NAMESIZE];
    answer.advise(EOPNOTSUPP, a.prefix.address.ss_family == AF_INET
                                  ? "mainline kernels refuse this always: they have labels for IPv6 only"
                                  : "this kernel has no labels; its IPv6 may have to be loaded");
    answer.advise(EINVAL, a.label == UINT32_MAX ? "0xffffffff stands for no label"
                          : a.index != 0 && if_indextoname(a.index, name) == nullptr
                              ? "there is no such device; only label del takes the number of one that is gone"
                              : "for such an address, the kernel takes another prefix length: 128 for ::1, 96 for IPv4 "
                                "addresses behind ::, at most 96 behind ::ffff:");
}

template <decltype(Vesk::addrlabelAdd)* operation>
Operation labelChange(Arguments& a)
{
    a.prefix          = prefixOf(a.address);
    a.index           = indexOrNumberOf(a.device);
    const auto call   = [&a](Answer&) { return operation(&a.prefix.address, a.prefix.length, a.label, a.index); };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const auto all   = installedLabels();
        const auto known = std::find_if(all.begin(), all.end(), [&a](const Label& each) { return isEntryOf(each, a); });
        if (known == all.end()) {
            makeCall();
            return adviseOnPrefix(answer, a);
        }
        const std::string label = std::to_string(known->label), has = known->text() + " has label " + label;
        if (operation == Vesk::addrlabelDel && known->label != a.label) // the kernel does not compare labels
            throw Refusal(has + ", and would be deleted all the same; write that label", Refused);
        makeCall();
        answer.advise(EEXIST, has + "; delete it first: veskctl label del " + known->text() + ' ' + label +
                                  (a.device.empty() ? "" : " --device=" + forShell(a.device)));
        if (operation == Vesk::addrlabelAdd && answer.result == 0) // which some kernels do
            a.warnings.push_back(has + " as well");
        adviseOnPrefix(answer, a);
    };
    return {.call = call, .around = around};
}

void judgePurge(const Arguments& a, const std::vector<Label>& before, Answer& answer)
{
    const auto after = installedLabels();
    std::vector<Label> purged, left;
    const auto own = std::find_if(before.begin(), before.end(), [&a](const Label& each) { return isEntryOf(each, a); });
    for (const Label& each : before)
        if (std::count(after.begin(), after.end(), each) == 0)
            purged.push_back(each);
    for (const Label& each : after)
        if (own != before.end() && isCandidate(each, a) && (each.label == own->label || isEntryOf(each, a)))
            left.push_back(each);

    for (const Label& each : purged)
        answer.findings["purged"].push_back({{"prefix", each.text()}, {"label", each.label}});
    if (!purged.empty())
        answer.text = "purged " + joined(purged, ", ", std::mem_fn(&Label::text)) + '\n';
    if (answer.result != 0 && !purged.empty())
        answer.inPart("some were purged, the rest was not");
    if (answer.result != 0)
        return adviseOnPrefix(answer, a);
    if (own == before.end())
        answer.notAsAsked(
            "nothing to purge: no entry has this prefix length, address and device; veskctl label list shows all");
    else if (purged.empty() && own->label != Vesk::kDefaultLabel && own->label < Vesk::kFirstOwnLabel)
        answer.notAsAsked("nothing was purged: " + own->text() + " has label " + std::to_string(own->label) +
                          "; only " + kPurged + " is purged; veskctl label del deletes one");
    else if (purged.empty() && !mayChangeNetworks())
        answer.notAsAsked(std::string("nothing was purged: ") + kNoRights);
    else if (purged.empty())
        answer.notAsAsked(
            "nothing was purged: for this address, the kernel takes another entry; give an address that only " +
            own->text() + " matches best");
    else if (!left.empty())
        answer.notAsAsked("left: " + joined(left, ", ", std::mem_fn(&Label::text)) + "; purge again with one of them");
}

Operation purge(Arguments& a)
{
    a.prefix          = prefixOf(a.address);
    a.index           = indexOrNumberOf(a.device);
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const auto before = installedLabels();
        makeCall();
        judgePurge(a, before, answer);
    };
    return {.call   = [&a](Answer&) { return Vesk::addrlabelPurge(&a.prefix.address, a.prefix.length, a.index); },
            .around = around};
}

Operation generate(Arguments& a)
{
    std::srand(std::random_device{}()); // the library takes the C library's numbers
    const auto call = [&a](Answer& answer) {
        unsigned int label       = 0;
        const int result         = Vesk::addrlabelGenerate(AF_INET6, a.useDefault, &label);
        answer.findings["label"] = label;
        return result;
    };
    const auto around = [&a](Answer&, const auto& makeCall) {
        std::set<unsigned int> labels;
        for (const Label& each : a.useDefault ? std::vector<Label>() : installedLabels())
            labels.insert(each.label);
        if (labels.size() > 1 && *labels.begin() > Vesk::kLastSystemLabel) // which ends the process
            throw Refusal("the library proposes labels only where there is one up to " +
                              std::to_string(Vesk::kLastSystemLabel) + "; the smallest is " +
                              std::to_string(*labels.begin()) + "; veskctl label add gives a prefix one",
                          Refused);
        makeCall();
    };
    return {.call = call, .around = around};
}

const Argument kEntryDevice = {"--device", "DEVICE", "Name or number; of no interface when not given",
                               &Arguments::device};
const Argument kLabel       = {"label", "NUMBER", "Label, below 0xffffffff", &Arguments::label};

} // namespace

std::vector<Command> labelCommands()
{
    const Advice none = {ESRCH, "there is no such entry; veskctl label list shows all"};
    return {
        Command("label add", "Give an IPv6 prefix a label", "2001:db8::/32 4711 --device wlan0",
                {kPrefix, kLabel, kEntryDevice}, labelChange<Vesk::addrlabelAdd>,
                {.notes = "Mainline kernels have no labels for IPv4 (EOPNOTSUPP)."}),
        Command("label del", "Delete the label of an IPv6 prefix", "2001:db8::/32 4711 --device wlan0",
                {kPrefix, kLabel, kEntryDevice}, labelChange<Vesk::addrlabelDel>, {.advice = {none}}),
        Command("label purge", "Delete a label from prefixes of one length and device", "2001:db8::/32 --device wlan0",
                {kPrefix, kEntryDevice}, purge,
                {.notes = "Deleted are the entry of the prefix, and those of the same prefix length and\n"
                          "device that have its label, if it is " +
                          kPurged +
                          ".\nLengths that are no multiple of 8 may take several calls. Status 3 when there\n"
                          "was none, or one is left.",
                 .advice     = {none},
                 .unanswered = "where it names " + kPurged +
                               ", a dump of all labels would follow, and "
                               "RTM_DELADDRLABEL for each that matches"}),
        Command("label generate", "Propose a label", "",
                {{"--default", "", "Propose the default label", &Arguments::useDefault}}, generate,
                {.notes = "Just below the first label above " + std::to_string(Vesk::kLastSystemLabel) +
                          " that has none before it, or a random one\n"
                          "above the largest.",
                 .unanswered = "the proposal depends on it"}),
    };
}
