#include "CommandLine.h"

#include "DryRun.h"
#include "Manual.h"
#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <set>

namespace {

constexpr std::ptrdiff_t kScreen = 23; // lines, and one for the prompt
constexpr int kNoLog             = 5;

// What the names of groups stand for.
const std::map<std::string, const char*> kGroups = {
    {"address", "Addresses of an interface"},
    {"route", "Routes through a looked-up gateway"},
    {"rule", "Policy rules"},
    {"qdisc", "Queueing disciplines"},
    {"prio", "The platform's five-band queueing discipline"},
    {"flow", "The platform's three-band queueing discipline"},
    {"label", "IPv6 address labels"},
    {"sa", "IPsec security associations of a record"},
    {"policy", "IPsec policies"},
    {"policy bypass", "Let link-local ICMPv6 past IPsec"},
    {"record", "Files with records"},
};

// Narrow, and where it would not fit a screen, without empty lines.
class Help : public CLI::Formatter {
public:
    Help()
    {
        column_width(26);
        label("Positionals", "Arguments");
        label("SUBCOMMAND", "COMMAND");
    }
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override
    {
        std::string text = Formatter::make_help(app, std::move(name), mode);
        const auto thin  = [&text](const std::string& much, const std::string& little) {
            for (std::size_t at = 0; (at = text.find(much, at)) != std::string::npos;)
                text.replace(at, much.size(), little);
        };
        thin("\n\n\n", "\n\n");
        if (std::count(text.begin(), text.end(), '\n') > kScreen)
            thin("\n\n", "\n");
        return text;
    }
};

const CLI::App* deepest(const CLI::App& app)
{
    const CLI::App* at = &app;
    while (!at->get_subcommands().empty())
        at = at->get_subcommands().back();
    return at;
}

std::string commandName(const CLI::App* app)
{
    return app->get_name();
}

// What to write instead of a text that is no such number, or nothing.
template <typename Number>
std::string noNumber(const std::string& text)
{
    constexpr std::int64_t lowest = std::numeric_limits<Number>::min(), highest = std::numeric_limits<Number>::max();
    const auto number = numberOf(text);
    return number && *number >= lowest && *number <= highest
               ? ""
               : "write a number from " + std::to_string(lowest) + " to " + std::to_string(highest) +
                     ", decimal or with 0x";
}

std::string noDevice(const std::string& text)
{
    return text.empty() ? "write one of " + joined(devices()) : "";
}

} // namespace

CommandLine::CommandLine()
    : root("Changes the kernel's networking state over netlink, one operation a call.", "veskctl")
{
    root.formatter(std::make_shared<Help>());
    root.require_subcommand(1);
    root.fallthrough(); // the options of all commands may stand anywhere
    root.get_help_ptr()->description("This help");
    root.set_version_flag("--version", "veskctl " VESK_VERSION, "The version");
    root.add_flag("--json", json, "Answer in JSON");
    chosenLevel = root.add_option("--log", logLevel, "Log lines from 1 (all) to 4 (failures) on, or 5: none")
                      ->envname("VESK_LOG_LEVEL")
                      ->check(CLI::Range(1, kNoLog))
                      ->option_text("LEVEL");
    root.add_flag("--dry-run", dry, "Show the requests by name, and send none");
    root.add_flag("--show-keys", showKeys, "With the keys");
    root.footer("Status: 0 done, 1 refused, 2 wrong usage, 3 done, but not (all) that was asked.");
    for (auto table : {linkCommands, labelCommands, ipsecCommands})
        for (Command& each : table())
            commands.push_back(std::move(each));
    for (const Command& each : commands)
        add(each);
}

// The group that a command is in, made where it is not there yet.
CLI::App* CommandLine::parentOf(const std::string& path)
{
    const std::size_t last = path.rfind(' ');
    if (last == std::string::npos)
        return &root;
    const std::string group = path.substr(0, last);
    CLI::App* const parent  = parentOf(group);
    const std::string name  = group.substr(group.rfind(' ') + 1);
    const auto existing = parent->get_subcommands([&name](const CLI::App* each) { return each->get_name() == name; });
    return existing.empty() ? parent->add_subcommand(name, kGroups.at(group))->group("Commands")->require_subcommand(1)
                            : existing[0];
}

void CommandLine::add(const Command& command)
{
    CLI::App* const app = parentOf(command.path)
                              ->add_subcommand(command.path.substr(command.path.rfind(' ') + 1), command.what)
                              ->group("Commands");
    for (const Argument& each : command.arguments)
        add(*app, each);
    std::string footer = command.notes.empty() ? "" : command.notes + "\n";
    if (command.mainlineRefusal != 0)
        footer += "Mainline kernels always refuse this (" + errorName(command.mainlineRefusal) + ").\n";
    app->footer(footer + "Example:\n  veskctl " + command.path +
                (command.example.empty() ? "" : ' ' + command.example));
    app->callback([this, &command] { chosen = &command; });
}

void CommandLine::add(CLI::App& app, const Argument& argument)
{
    const auto added = [&](auto field) {
        auto& value = arguments.*field;
        using Value = std::remove_reference_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, bool>)
            return app.add_flag(argument.name, value, argument.what);
        else if constexpr (std::is_integral_v<Value>)
            return app.add_option(argument.name, value, argument.what)
                ->option_text(argument.type)
                ->type_name(argument.type) // in messages
                ->check(noNumber<Value>);
        else
            return app.add_option(argument.name, value, argument.what)->option_text(argument.type);
    };
    CLI::Option* const option = std::visit(added, argument.field);
    option->required(argument.required);
    if (argument.type == "DEVICE")
        option->check(noDevice);
    if (argument.type.starts_with('{'))
        option->check(CLI::IsMember(CLI::detail::split(argument.type.substr(1, argument.type.size() - 2), ',')));
}

// A parse error in words that name what there is.
std::string CommandLine::mistake(const CLI::ParseError& error) const
{
    const CLI::App* const app = deepest(root);
    const auto known          = app->get_subcommands(std::function<bool(const CLI::App*)>());
    const auto left           = root.remaining(true);
    std::string path          = "veskctl";
    for (const CLI::App* at = &root; at != app; path += ' ' + at->get_name())
        at = at->get_subcommands().back();

    if (left.empty() && !known.empty())
        return path + " which? One of " + joined(known, ", ", commandName);
    if (left.empty())
        return std::string(error.what()) + "; " + path + " --help says more";
    if (!left[0].starts_with('-'))
        return known.empty() ? "one word too many: " + left[0] + "; " + path + " --help shows what it takes"
                             : "unknown command: " + left[0] + "; one of " + joined(known, ", ", commandName);
    std::set<std::string> options;
    for (const CLI::App* at : {app, &root})
        for (const CLI::Option* each : at->get_options([](const CLI::Option* o) { return o->nonpositional(); }))
            options.insert("--" + each->get_lnames()[0]);
    if (options.contains(left[0].substr(0, left[0].find('='))))
        return left[0] + ": in the wrong place; write it behind " + path;
    return "unknown option: " + left[0] + "; one of " + joined(options);
}

int CommandLine::run(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--manual") == 0) // for the build, which makes the manual page of it
        return printManual(root);
    json = std::any_of(argv, argv + argc, [](const char* word) { return std::strcmp(word, "--json") == 0; });
    try {
        root.parse(argc, argv);
    } catch (const CLI::Success& wanted) { // the help or the version
        return root.exit(wanted);
    } catch (const CLI::ParseError& error) {
        return print(Refusal(mistake(error)), json);
    }
    try {
        const Answer what = answer();
        return print(what, json, logFrom(what));
    } catch (const Refusal& refusal) {
        return print(refusal, json);
    }
}

Answer CommandLine::answer()
{
    if (showKeys && !dry)
        throw Refusal("--show-keys goes with --dry-run; keys are hidden everywhere else");
    const Operation operation = chosen->prepare(arguments);
    if (!showKeys && dry) { // what is not shown need not be copied into requests either
        arguments.record.forgetKeys();
        arguments.otherRecord.forgetKeys();
    }
    if (dry)
        return dryRun(operation, chosen->unanswered, showKeys);
    Answer answer = perform(operation);
    if (answer.status != Refused || answer.error == 0 || !answer.note.empty())
        return answer;
    for (const Advice& each : chosen->advice)
        if (each.error == answer.error)
            answer.note = each.text;
    if (answer.error == chosen->mainlineRefusal)
        answer.note = "mainline kernels always refuse this";
    if (answer.error == EPERM)
        answer.note = "this process has no CAP_NET_ADMIN; run it as root";
    if (answer.note.empty() && answer.error == EPROTONOSUPPORT)
        answer.note = "this kernel lacks the protocol; for IPsec, its module xfrm_user may have to be loaded";
    return answer;
}

// Unless it is said, JSON has the failures already, and those of a dry run mean nothing where requests are shown.
int CommandLine::logFrom(const Answer& answer) const
{
    return chosenLevel->count() == 0 && (json || (dry && answer.status == Done)) ? kNoLog : logLevel;
}
