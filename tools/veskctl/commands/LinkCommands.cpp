// Commands for families, addresses, routes, rules and queueing disciplines.

#include "Command.h"
#include "kernel/Looks.h"
#include "print/Text.h"

#include <netlink/Numbers.h>
#include <vesk/netlink.h>

#include <cerrno>

#include <linux/rtnetlink.h>

namespace {

Operation family(Arguments& a)
{
    return {[&a](Answer& answer) {
        unsigned short id         = 0;
        const int result          = Vesk::queryGenericNetlinkFamily(a.name, 2, &id);
        answer.findings["family"] = id;
        return result;
    }};
}

template <Vesk::AddressLifetimeChange change>
Operation addressChange(Arguments& a)
{
    a.prefix = prefixOf(a.address);
    indexOf(a.device);
    return {[&a](Answer&) {
        return Vesk::RTNetlinkAddressCfg(a.device, &a.prefix.address, a.prefix.length, change, a.valid);
    }};
}

Operation gso(Arguments& a)
{
    indexOf(a.device);
    return {[&a](Answer&) { return Vesk::RTNetlinkSetGSOMaxSize(a.device, a.size); }};
}

// Why no gateway was found that the library takes; nothing where there is one.
std::string withoutGateway(const Arguments& a)
{
    const auto hop = nextHop(a.address, a.family, a.mark);
    if (!hop)
        return "the kernel has no route to " + a.address + " under this mark";
    if (hop->type == "local")
        return "no gateway: " + a.address + " leads to this host itself";
    if (hop->gateway.empty() && hop->type != "unicast")
        return "no gateway: " + a.address + " is a " + hop->type + " address on " + hop->device;
    if (hop->gateway.empty())
        return "on link, no gateway: " + a.address + " is reached over " + hop->device + " itself";
    if (hop->gateway.find(':') != std::string::npos)
        return "the gateway is " + hop->gateway + " over " + hop->device + "; only IPv4 gateways are taken";
    return "";
}

// What is said of a route that was not even asked for, since its gateway is none; or whose gateway is elsewhere.
void judgeGateway(const Arguments& a, Answer& answer, const char* nothing)
{
    if (answer.result == 0)
        return;
    if (!nextHop(a.address, a.family, a.mark)) {
        answer.advise(EINVAL, "a blackhole route or rule leads there");
        answer.advise(EACCES, "a prohibit route or rule leads there");
        answer.advise(EHOSTUNREACH, "an unreachable route or rule leads there");
        return answer.advise(ENETUNREACH, "no route leads there, or an unreachable rule does");
    }
    if (const std::string why = withoutGateway(a); !why.empty())
        answer.notAsAsked(nothing + why);
    answer.advise(ENETUNREACH, "the gateway is not on the link of " + a.device);
}

Operation routeGet(Arguments& a)
{
    a.family        = familyOf(a.address);
    const auto call = [&a](Answer& answer) {
        const Vesk::RouterAddressResult router = Vesk::RTNetlinkGetRoute(a.address, a.mark, a.family);
        if (router.status == 0 && !router.gateway.empty())
            answer.findings["gateway"] = router.gateway;
        return router.status;
    };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        makeCall();
        judgeGateway(a, answer, "");
        if (answer.result == 0 && answer.findings.empty())
            answer.notAsAsked(withoutGateway(a));
    };
    return {.call = call, .around = around};
}

Operation routeAdd(Arguments& a)
{
    a.family          = familyOf(a.address);
    a.index           = indexOf(a.device);
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        makeCall();
        judgeGateway(a, answer, "nothing was added: ");
    };
    return {.call   = [&a](Answer&) { return Vesk::RTNetlinkAddRoute(a.address, a.mark, a.family, a.table, a.index); },
            .around = around};
}

// Nobody waits for the kernel's answer to a removal, so that the table has to tell.
Operation routeDel(Arguments& a)
{
    a.family        = familyOf(a.address);
    a.index         = indexOf(a.device);
    const auto call = [&a](Answer&) {
        return Vesk::RTNetlinkDeleteRoute(a.address, a.mark, a.family, a.table, a.index);
    };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        const auto before       = routesTo(a.address, a.table, a.index);
        const std::string route = "route to " + a.address + " over " + a.device + " in table " +
                                  std::to_string(a.table != 0 ? a.table : RT_TABLE_MAIN);
        makeCall();
        judgeGateway(a, answer, "nothing was removed: ");
        if (answer.result != 0)
            return;
        const auto after = routesTo(a.address, a.table, a.index);
        if (before.empty())
            answer.notAsAsked("nothing to remove: there is no " + route);
        else if (after == before && !mayChangeNetworks())
            answer.notAsAsked("the " + route + " is still there: " + kNoRights);
        else if (after == before) {
            const auto hop = nextHop(a.address, a.family, a.mark);
            answer.notAsAsked("nothing was removed: what is there is " + joined(after) + ", asked for was via " +
                              (hop ? hop->gateway : "none") + " metric " + std::to_string(Vesk::kRouteMetric) +
                              " advmss " + std::to_string(Vesk::kAdvertisedMSS) +
                              " origin static scope universe type unicast tos 0x0");
        }
    };
    return {.call = call, .around = around};
}

Operation ruleGet(Arguments& a)
{
    a.index         = indexOf(a.device);
    const auto call = [&a](Answer& answer) {
        const auto rule = Vesk::RTNetlinkGetRule(a.device);
        if (rule)
            answer.findings = {{"mark", rule->first}, {"mask", rule->second}};
        return rule ? 0 : -1;
    };
    const auto around = [&a](Answer& answer, const auto& makeCall) {
        makeCall();
        if (answer.result != 0 && answer.error == ENOENT)
            answer.notAsAsked("found none: no IPv4 rule of priority " + std::to_string(Vesk::kRulePriority) +
                              " has a mark, a mask other than 0, and table " +
                              std::to_string(Vesk::kFirstTable + a.index) + ", which is that of " + a.device +
                              "; veskctl rule list shows all");
    };
    return {.call = call, .around = around};
}

// By operation codes of the library
constexpr unsigned char kAdd = 0, kDel = 1, kChange = 2;

// What the kernel's errno does not tell of queueing disciplines: whether there is one, and which.
Operation qdiscChange(Arguments& a, unsigned char operation, std::function<int()> call)
{
    a.index           = indexOf(a.device);
    const auto around = [&a, operation](Answer& answer, const auto& makeCall) {
        const std::string before = qdiscAt(a.index, a.parent);
        makeCall();
        if (answer.result == 0) {
            if (operation == kAdd && !before.empty())
                a.warnings.push_back("replaced what was there: " + before);
            return;
        }
        const std::string there = qdiscAt(a.index, a.parent);
        const std::string which = there.empty() ? "; none was installed there" : "; what is there is " + there;
        answer.advise(EEXIST, "there is one already" + which);
        if (operation == kAdd)
            answer.advise(ENOENT, "the kernel lacks this kind, or there is no such parent");
        else
            answer.advise(ENOENT, "there is none with this parent and handle" + which);
        if (operation == kDel)
            answer.advise(EINVAL, "there is none of this kind, parent and handle" + which);
    };
    return {.call = [call = std::move(call)](Answer&) { return call(); }, .around = around};
}

template <unsigned char operation>
Operation qdisc(Arguments& a)
{
    return qdiscChange(a, operation,
                       [&a] { return Vesk::RTNetlinkTCQdisc(a.device, a.kind, a.parent, a.handle, operation); });
}

template <unsigned char operation>
Operation prio(Arguments& a)
{
    return qdiscChange(a, operation, [&a] { return Vesk::RTNetlinkTCPrio(a.device, a.parent, a.handle, operation); });
}

template <unsigned char operation>
Operation flowControl(Arguments& a)
{
    return qdiscChange(a, operation, [&a] {
        return Vesk::RTNetlinkFlowControl(a.device, a.parent, a.handle, a.enable ? 1 : 0, operation);
    });
}

const Argument kDestination = {"destination", "ADDRESS", "Address of the host", &Arguments::address};
const Argument kOutput      = {"device", "DEVICE", "Interface that packets leave by", &Arguments::device};
const Argument kLookUpMark  = {"--mark", "NUMBER", "Mark of the packets whose gateway is looked up", &Arguments::mark};
const Argument kTable       = {"--table", "NUMBER", "Routing table; 254, main, when not given", &Arguments::table};
const Argument kValid       = {"--valid", "SECONDS", "How long it stays valid; required", &Arguments::valid, true};
const Argument kParent      = {"--parent", "PARENT", "Where, such as 2:1; the root when not given", &Arguments::parent};
const Argument kHandle = {"--handle", "HANDLE", "Its handle, such as 1:; chosen when not given", &Arguments::handle};
const Argument kKind   = {"kind", "KIND", "Kind of discipline, such as fq_codel", &Arguments::kind};
const Argument kEnable = {"--enable", "", "Switch flow control on; off when not given", &Arguments::enable};

} // namespace

std::vector<Command> linkCommands()
{
    using namespace Vesk;
    const std::string gateway = "with the gateway that it names";
    const auto address        = [](const char* name, const char* what, auto prepare, bool deprecates) {
        std::vector<Argument> arguments = {kDevice, kPrefix};
        if (deprecates)
            arguments.push_back(kValid);
        return Command(std::string("address ") + name, what,
                              std::string("wlan0 192.0.2.1/24") + (deprecates ? " --valid 60" : ""), arguments, prepare,
                              {.mainlineRefusal = EOPNOTSUPP});
    };
    return {
        Command("family", "Number of a generic netlink family", "nlctrl",
                {{"name", "NAME", "Name of the family, such as nlctrl", &Arguments::name}}, family,
                {.advice     = {{ENOENT, "the kernel has no such family; its module may have to be loaded"}},
                 .unanswered = "the number is in it"}),

        address("add", "Add an address, for ever", addressChange<AddressAdd>, false),
        address("renew", "Replace an address, for ever", addressChange<AddressRenew>, false),
        address("deprecate", "Replace an address, as a deprecated one", addressChange<AddressDeprecate>, true),
        address("add-deprecated", "Add an address, as a deprecated one", addressChange<AddressAddDeprecated>, true),

        Command("gso", "Set the largest GSO size", "wlan0 16384",
                {kDevice, {"size", "BYTES", "Largest size, up to 65535", &Arguments::size}}, gso,
                {.mainlineRefusal = ERANGE}),

        Command("route get", "Gateway to a destination", "198.51.100.7 --mark 42", {kDestination, kLookUpMark},
                routeGet,
                {.notes      = "Status 3 where there is none: on the link, or with an IPv6 gateway.",
                 .unanswered = "the gateway is in it"}),
        Command(
            "route add", "Install a host route through today's gateway", "198.51.100.7 wlan0 --table 1003",
            {kDestination, kOutput, kLookUpMark, kTable}, routeAdd,
            {.notes = "The gateway is looked up as by route get. Metric " + std::to_string(kRouteMetric) +
                      ", advertised MSS " + std::to_string(kAdvertisedMSS) + ".",
             .advice = {{EEXIST, "there is a route to this host of the same metric; ip route show table all lists it"}},
             .unanswered = "RTM_NEWROUTE would follow, " + gateway}),
        Command("route del", "Remove a host route that route add installed", "198.51.100.7 wlan0 --table 1003",
                {kDestination, kOutput, kLookUpMark, kTable}, routeDel,
                {.notes      = "The kernel's answer is not waited for. So the table is looked at before and\n"
                               "after; status 3 when the route was not there, or still is.",
                 .unanswered = "RTM_DELROUTE would follow, " + gateway}),

        Command("rule get", "Mark and mask of a device's rule", "wlan0", {kDevice}, ruleGet,
                {.notes = "Looked for: an IPv4 rule of priority " + std::to_string(kRulePriority) + ", of the table " +
                          std::to_string(kFirstTable) +
                          " + the device's\n"
                          "index, with a mark and a mask other than 0. The last one counts.",
                 .unanswered = "mark and mask are in it"}),

        Command("qdisc add", "Install a queueing discipline", "wlan0 --handle 1: fq_codel",
                {kDevice, kKind, kParent, kHandle}, qdisc<kAdd>),
        Command("qdisc del", "Remove a queueing discipline", "wlan0 --handle 1: fq_codel",
                {kDevice, kKind, kParent, kHandle}, qdisc<kDel>),

        Command("prio add", "Install the platform's five bands", "wlan0 --handle 1:", {kDevice, kParent, kHandle},
                prio<kAdd>, {.mainlineRefusal = EINVAL}),
        Command("prio del", "Remove the platform's five bands", "wlan0 --handle 1:", {kDevice, kParent, kHandle},
                prio<kDel>),

        Command("flow add", "Install the platform's three bands", "wlan0 --handle 1: --enable",
                {kDevice, kParent, kHandle, kEnable}, flowControl<kAdd>, {.mainlineRefusal = EINVAL}),
        Command("flow change", "Switch their flow control", "wlan0 --handle 1: --enable",
                {kDevice, kParent, kHandle, kEnable}, flowControl<kChange>, {.mainlineRefusal = EINVAL}),
        Command("flow del", "Remove the platform's three bands", "wlan0 --handle 1:", {kDevice, kParent, kHandle},
                flowControl<kDel>),
    };
}
