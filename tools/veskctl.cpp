// veskctl: one subcommand an operation of the library, for engineers who bring a device up.

#include "RecordFile.h"

#include <vesk/netlink.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <linux/xfrm.h>
#include <net/if.h>

namespace {

// Arguments of any of the subcommands. One is run a process, so they share them.
struct Arguments {
    std::string name, device, address, kind, file, otherFile, source, destination, direction;
    unsigned int mark = 0, mask = 0xffffffff, table = 254, parent = 0, handle = 0, label = 0, valid = 0;
    unsigned short size    = 0;
    unsigned char protocol = 0;
    int technology         = 0;
    int family             = AF_INET6;
    bool enable = false, useDefault = false, inbound = false;
};

// What an operation found, by name.
using Findings = std::vector<std::pair<std::string, std::string>>;

struct Outcome {
    int result;
    Findings findings = {};
};

using Action = std::function<Outcome(Arguments&)>;

struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct NoDevice : Refusal {
    using Refusal::Refusal;
};

struct Prefix {
    sockaddr_storage address;
    unsigned int length;
};

// "address" or "address/length"; a whole address when nothing else is said.
Prefix prefixOf(const std::string& text)
{
    const std::size_t slash = text.find('/');
    const std::string host  = text.substr(0, slash);
    Prefix prefix           = {};
    if (inet_pton(AF_INET, host.c_str(), &reinterpret_cast<sockaddr_in&>(prefix.address).sin_addr) == 1) {
        prefix.address.ss_family = AF_INET;
        prefix.length            = 32;
    } else if (inet_pton(AF_INET6, host.c_str(), &reinterpret_cast<sockaddr_in6&>(prefix.address).sin6_addr) == 1) {
        prefix.address.ss_family = AF_INET6;
        prefix.length            = 128;
    } else {
        throw Refusal(text + " is no address");
    }
    if (slash != std::string::npos && !CLI::detail::lexical_cast(text.substr(slash + 1), prefix.length))
        throw Refusal(text + " has no prefix length");
    return prefix;
}

unsigned char familyOf(const std::string& address)
{
    if (address.find('/') != std::string::npos)
        throw Refusal(address + " is a prefix, not an address");
    return static_cast<unsigned char>(prefixOf(address).address.ss_family);
}

// 0 for no device.
unsigned int indexOf(const std::string& device)
{
    const unsigned int index = device.empty() ? 0 : if_nametoindex(device.c_str());
    if (index == 0 && !device.empty())
        throw NoDevice("no such device: " + device);
    return index;
}

unsigned char policyDirection(const std::string& name)
{
    return name == "in" ? XFRM_POLICY_IN : name == "out" ? XFRM_POLICY_OUT : XFRM_POLICY_FWD;
}

// A record for the length of one operation.
struct FileRecord : Record {
    explicit FileRecord(const std::string& path) : Record()
    {
        try {
            readRecord(path, *this);
        } catch (...) {
            forgetKeys(*this);
            throw;
        }
    }
    ~FileRecord() { forgetKeys(*this); }
    FileRecord(const FileRecord&)            = delete;
    FileRecord& operator=(const FileRecord&) = delete;
};

std::string hexadecimal(unsigned int value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

// The operations

Outcome family(Arguments& a)
{
    unsigned short id = 0;
    const int result  = Vesk::queryGenericNetlinkFamily(a.name, 2, &id);
    return {result, {{"family", std::to_string(id)}}};
}

Action addressChange(Vesk::AddressLifetimeChange change)
{
    return [change](Arguments& a) {
        Prefix prefix = prefixOf(a.address);
        return Outcome{Vesk::RTNetlinkAddressCfg(a.device, &prefix.address, prefix.length, change, a.valid)};
    };
}

Outcome routeGet(Arguments& a)
{
    const Vesk::RouterAddressResult router = Vesk::RTNetlinkGetRoute(a.address, a.mark, familyOf(a.address));
    return {router.status, {{"gateway", router.gateway}}};
}

Action routeChange(decltype(Vesk::RTNetlinkAddRoute)* operation)
{
    return [operation](Arguments& a) {
        return Outcome{operation(a.address, a.mark, familyOf(a.address), a.table, indexOf(a.device))};
    };
}

Outcome ruleGet(Arguments& a)
{
    const auto rule = Vesk::RTNetlinkGetRule(a.device);
    if (!rule)
        return {-1};
    return {0, {{"mark", hexadecimal(rule->first)}, {"mask", hexadecimal(rule->second)}}};
}

Action qdisc(unsigned char operation)
{
    return [operation](Arguments& a) {
        return Outcome{Vesk::RTNetlinkTCQdisc(a.device, a.kind, a.parent, a.handle, operation)};
    };
}

Action prio(unsigned char operation)
{
    return
        [operation](Arguments& a) { return Outcome{Vesk::RTNetlinkTCPrio(a.device, a.parent, a.handle, operation)}; };
}

Action flowControl(unsigned char operation)
{
    return [operation](Arguments& a) {
        return Outcome{Vesk::RTNetlinkFlowControl(a.device, a.parent, a.handle, a.enable ? 1 : 0, operation)};
    };
}

Action labelChange(decltype(Vesk::addrlabelAdd)* operation)
{
    return [operation](Arguments& a) {
        Prefix prefix = prefixOf(a.address);
        return Outcome{operation(&prefix.address, prefix.length, a.label, indexOf(a.device))};
    };
}

Outcome labelGenerate(Arguments& a)
{
    unsigned int label = 0;
    const int result   = Vesk::addrlabelGenerate(a.family, a.useDefault, &label);
    return {result, {{"label", std::to_string(label)}}};
}

Outcome labelPurge(Arguments& a)
{
    Prefix prefix = prefixOf(a.address);
    return {Vesk::addrlabelPurge(&prefix.address, prefix.length, indexOf(a.device))};
}

Action statesChange(decltype(Vesk::addXFRMStates)* operation)
{
    return [operation](Arguments& a) {
        FileRecord record(a.file);
        return Outcome{operation(record, static_cast<tro_technology_name_enum_v01>(a.technology), a.mark, a.mask)};
    };
}

Outcome statesRemove(Arguments& a)
{
    FileRecord record(a.file);
    return {Vesk::removeXFRMStates(record)};
}

Outcome policiesAdd(Arguments& a)
{
    FileRecord record(a.file);
    return {Vesk::addXFRMPolicies(record, a.source, a.destination, a.protocol, !a.inbound)};
}

Outcome policiesRemove(Arguments& a)
{
    return {Vesk::removeXFRMPolicies(a.source, a.destination, a.protocol, !a.inbound)};
}

Action bypass(decltype(Vesk::addXFRMPolicyEx)* operation)
{
    return [operation](Arguments& a) { return Outcome{operation(policyDirection(a.direction))}; };
}

Outcome migrate(Arguments& a)
{
    FileRecord before(a.file), after(a.otherFile);
    return {Vesk::migrateXFRMInfo(before, after, a.source, a.destination, a.protocol)};
}

// The command line

class CommandLine {
public:
    CommandLine()
    {
        app.require_subcommand(1);
        app.fallthrough(); // --json and --log may stand anywhere
        app.set_version_flag("--version", "veskctl " VESK_VERSION, "Print the version and exit");
        app.add_flag("--json", json, "Print the result as JSON");
        app.add_option("--log", logLevel, "Lowest level of log lines: 1 (all) to 4 (failures), or 5 (none)")
            ->envname("VESK_LOG_LEVEL")
            ->check(CLI::Range(1, 5))
            ->capture_default_str();
        addRouteCommands();
        addQdiscCommands();
        addLabelCommands();
        addIPsecCommands();
    }

    int run(int argc, char** argv)
    {
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : 2;
        }
        setenv("VESK_LOG_LEVEL", std::to_string(logLevel).c_str(), 1); // read at the first line
        try {
            return tell(action(arguments));
        } catch (const std::runtime_error& error) {
            std::fprintf(stderr, "veskctl: %s\n", error.what());
            const bool asTheLibraryRefuses = dynamic_cast<const NoDevice*>(&error) != nullptr;
            return asTheLibraryRefuses ? 1 : 2;
        }
    }

private:
    CLI::App* group(CLI::App* parent, const char* name, const char* what)
    {
        return parent->add_subcommand(name, what)->require_subcommand(1);
    }

    CLI::App* command(CLI::App* parent, const char* name, const char* what, const std::string& example,
                      const Action& does)
    {
        CLI::App* added = parent->add_subcommand(name, what);
        added->footer("Example:\n  veskctl " + example);
        added->callback([this, does] { action = does; });
        return added;
    }

    template <typename Value>
    static CLI::Option* required(CLI::App* added, const char* name, Value& value, const char* what)
    {
        return added->add_option(name, value, what)->required();
    }

    void addRouteCommands()
    {
        Arguments& a = arguments;
        required(command(&app, "family", "Number of a generic netlink family", "family nlctrl", family), "name", a.name,
                 "Such as nlctrl");

        CLI::App* address    = group(&app, "address", "Addresses of an interface");
        const auto addChange = [&](const char* name, const char* what, const char* example,
                                   Vesk::AddressLifetimeChange c) {
            CLI::App* added = command(address, name, what, example, addressChange(c));
            required(added, "device", a.device, "Interface");
            required(added, "address", a.address, "Address, with its prefix length behind a slash");
            added->add_option("--valid", a.valid, "Valid lifetime of a deprecated address, in seconds");
        };
        addChange("add", "Add, for ever", "address add wlan0 192.0.2.1/24", Vesk::AddressAdd);
        addChange("renew", "Replace, for ever", "address renew wlan0 192.0.2.1/24", Vesk::AddressRenew);
        addChange("deprecate", "Replace, preferred no more", "address deprecate wlan0 192.0.2.1/24 --valid 60",
                  Vesk::AddressDeprecate);
        addChange("add-deprecated", "Add, preferred no more", "address add-deprecated wlan0 192.0.2.1/24 --valid 60",
                  Vesk::AddressAddDeprecated);

        CLI::App* gso = command(&app, "gso", "Set the largest GSO size", "gso wlan0 16384",
                                [](Arguments& b) { return Outcome{Vesk::RTNetlinkSetGSOMaxSize(b.device, b.size)}; });
        required(gso, "device", a.device, "Interface");
        required(gso, "size", a.size, "Bytes");

        CLI::App* route = group(&app, "route", "Routes through a looked-up gateway");
        CLI::App* get = command(route, "get", "Gateway to a destination", "route get 198.51.100.7 --mark 42", routeGet);
        CLI::App* add = command(route, "add", "Install a route", "route add 198.51.100.7 wlan0 --table 1003",
                                routeChange(Vesk::RTNetlinkAddRoute));
        CLI::App* del = command(route, "del", "Remove a route", "route del 198.51.100.7 wlan0 --table 1003",
                                routeChange(Vesk::RTNetlinkDeleteRoute));
        for (CLI::App* added : {get, add, del}) {
            required(added, "destination", a.address, "Address");
            added->add_option("--mark", a.mark, "Firewall mark of the look-up");
        }
        for (CLI::App* added : {add, del}) {
            required(added, "device", a.device, "Output interface");
            added->add_option("--table", a.table, "Routing table")->capture_default_str();
        }

        CLI::App* rule = group(&app, "rule", "Policy rules");
        required(command(rule, "get", "Mark and mask of a device's rule", "rule get wlan0", ruleGet), "device",
                 a.device, "Interface");
    }

    void addQdiscCommands()
    {
        Arguments& a       = arguments;
        CLI::App* any      = group(&app, "qdisc", "Queueing disciplines");
        CLI::App* ofPrio   = group(&app, "prio", "The platform's five-band queueing discipline");
        CLI::App* ofFlow   = group(&app, "flow", "The platform's three-band queueing discipline with flow control");
        const auto options = [&](CLI::App* added) {
            required(added, "device", a.device, "Interface");
            added->add_option("--parent", a.parent, "Parent, as 0x20001 for 2:1; the root when not given");
            added->add_option("--handle", a.handle, "Handle, as 0x10000 for 1:");
            return added;
        };
        const struct {
            const char *name, *what;
            unsigned char code;
        } operations[] = {{"add", "Install", 0}, {"del", "Remove", 1}, {"change", "Change", 2}};
        for (const auto& [name, what, code] : operations) {
            const std::string example = std::string(name) + " wlan0 --handle 0x10000";
            if (code != 2) { // only flow control can be changed
                required(options(command(any, name, what, "qdisc " + example + " fq_codel", qdisc(code))), "kind",
                         a.kind, "Such as fq_codel");
                options(command(ofPrio, name, what, "prio " + example, prio(code)));
            }
            options(command(ofFlow, name, what, "flow " + example + (code == 1 ? "" : " --enable"), flowControl(code)))
                ->add_flag("--enable", a.enable, "Switch flow control on");
        }
    }

    void addLabelCommands()
    {
        Arguments& a        = arguments;
        CLI::App* label     = group(&app, "label", "IPv6 address labels");
        CLI::App* add       = command(label, "add", "Add an entry", "label add 2001:db8::/32 4711 --device wlan0",
                                      labelChange(Vesk::addrlabelAdd));
        CLI::App* del       = command(label, "del", "Delete an entry", "label del 2001:db8::/32 4711 --device wlan0",
                                      labelChange(Vesk::addrlabelDel));
        CLI::App* purge     = command(label, "purge", "Delete an entry and those with its label",
                                      "label purge 2001:db8::/32 --device wlan0", labelPurge);
        CLI::App* generated = command(label, "generate", "Propose a label", "label generate", labelGenerate);
        for (CLI::App* added : {add, del, purge}) {
            required(added, "prefix", a.address, "Address, with its prefix length behind a slash");
            added->add_option("--device", a.device, "Interface; entries of no interface when not given");
        }
        for (CLI::App* added : {add, del})
            required(added, "label", a.label, "Label");
        generated->add_flag("--default", a.useDefault, "Propose the default label");
    }

    void addIPsecCommands()
    {
        Arguments& a     = arguments;
        CLI::App* sa     = group(&app, "sa", "IPsec security associations of a record");
        CLI::App* add    = command(sa, "add", "Install both", "sa add handset.ini --mark 1 --mask 0xff",
                                   statesChange(Vesk::addXFRMStates));
        CLI::App* update = command(sa, "update", "Update both in place", "sa update handset.ini --mark 1 --mask 0xff",
                                   statesChange(Vesk::updateXFRMStates));
        CLI::App* remove = command(sa, "remove", "Remove both", "sa remove handset.ini", statesRemove);
        for (CLI::App* added : {add, update, remove})
            required(added, "record", a.file, "File with the record");
        for (CLI::App* added : {add, update}) {
            added->add_option("--mark", a.mark, "Output mark of TX");
            added->add_option("--mask", a.mask, "Its mask");
            added->add_option("--technology", a.technology, "The modem's number of the radio technology");
        }

        CLI::App* policy = group(&app, "policy", "IPsec policies");
        CLI::App* addOne = command(policy, "add", "Install the policies of one side",
                                   "policy add handset.ini 10.0.0.0/16 10.1.0.0/16", policiesAdd);
        CLI::App* delOne = command(policy, "remove", "Remove the policies of one side",
                                   "policy remove 10.0.0.0/16 10.1.0.0/16", policiesRemove);
        required(addOne, "record", a.file, "File with the record");
        for (CLI::App* added : {addOne, delOne}) {
            required(added, "source", a.source, "Selector: prefix, or \"\"");
            required(added, "destination", a.destination, "Selector: prefix, or \"\"");
            added->add_option("--protocol", a.protocol, "IP protocol number; any when not given");
            added->add_flag("--in", a.inbound, "The in and fwd policies, instead of the out policy");
        }
        CLI::App* past = group(policy, "bypass", "Let link-local ICMPv6 past IPsec");
        for (CLI::App* added :
             {command(past, "add", "Install", "policy bypass add out", bypass(Vesk::addXFRMPolicyEx)),
              command(past, "remove", "Remove", "policy bypass remove out", bypass(Vesk::removeXFRMPolicyEx))})
            required(added, "direction", a.direction, "in, out or fwd")->check(CLI::IsMember({"in", "out", "fwd"}));

        CLI::App* move = command(&app, "migrate", "Move SAs and policies to a new local address",
                                 "migrate old.ini new.ini 10.0.0.0/16 10.1.0.0/16", migrate);
        required(move, "old", a.file, "Record as it was installed");
        required(move, "new", a.otherFile, "Record as it is now");
        required(move, "local", a.source, "This end's selector");
        required(move, "remote", a.destination, "The peer's selector");
        move->add_option("--protocol", a.protocol, "IP protocol number; any when not given");
    }

    // Prints what came of it; the kernel's errno and text are in the log, on standard error.
    [[nodiscard]] int tell(const Outcome& outcome) const
    {
        const bool done = outcome.result == 0;
        if (json) {
            std::printf(R"({"result":%d)", outcome.result);
            for (const auto& [name, value] : done ? outcome.findings : Findings{})
                std::printf(R"(,"%s":"%s")", name.c_str(), value.c_str());
            std::puts("}");
        } else if (done) {
            for (const auto& [name, value] : outcome.findings)
                std::printf("%s %s\n", name.c_str(), value.c_str());
        } else {
            std::fputs("veskctl: refused\n", stderr);
        }
        return done && std::fflush(stdout) == 0 ? 0 : 1;
    }

    CLI::App app{"Changes the kernel's networking state over netlink, one operation a call.\n"
                 "Exit status: 0 done, 1 refused (the reason is on standard error), 2 wrong usage.",
                 "veskctl"};
    Arguments arguments;
    Action action;
    int logLevel = 4;
    bool json    = false;
};

} // namespace

int main(int argc, char** argv)
{
    return CommandLine().run(argc, argv);
}
