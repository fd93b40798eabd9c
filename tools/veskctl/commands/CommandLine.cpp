#include "CommandLine.h"

#include "print/Text.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <set>

namespace {

const std::string kProgram = "veskctl";

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

// What may be written instead of a number, by the type of the argument.
struct Kind {
    std::string advice;
    std::map<std::string, std::uint64_t> words;
};
const std::map<std::string, Kind> kKinds = {
    {"HANDLE", {"a handle as tc shows it, such as 1:, or ", {}}},
    {"PARENT", {"a handle as tc shows it, such as 1:1, or root, or ", {{"root", 0}}}},
    {"PROTOCOL", {"a name such as tcp, or ", Vesk::Messages::ipProtocols()}},
    {"{marked-rx}", {"", {{"marked-rx", TRO_TECHNOLOGY_NAME_MARKED_RX_V01}}}},
};

// "1:" and "1:1": two hexadecimal halves, the second of which may be missing.
std::optional<std::int64_t> handleOf(const std::string& text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos)
        return std::nullopt;
    const auto half = [](const std::string& figures) { // std::nullopt also where it has a 0x of its own
        return figures.size() > 4 ? std::nullopt : numberOf("0x" + figures);
    };
    const auto major = half(text.substr(0, colon)),
               minor = half(colon + 1 < text.size() ? text.substr(colon + 1) : "0");
    return major && minor ? std::optional(*major << 16 | *minor) : std::nullopt;
}

template <typename Number>
Number numberFor(const Argument& argument, const std::string& name, const std::string& text)
{
    constexpr std::int64_t highest = std::numeric_limits<Number>::max();
    const std::int64_t lowest      = argument.type == "SPI" ? 1 : std::numeric_limits<Number>::min();
    const auto kind                = kKinds.find(argument.type);
    auto number = (argument.type == "HANDLE" || argument.type == "PARENT") && text.find(':') != std::string::npos
                      ? handleOf(text)
                      : numberOf(text);
    if (kind != kKinds.end() && kind->second.words.contains(text))
        number = static_cast<std::int64_t>(kind->second.words.at(text));
    if (!number || *number < lowest || *number > highest)
        throw Refusal(name + ": write " + (kind != kKinds.end() ? kind->second.advice : "") +
                      numberFrom(lowest, highest));
    return static_cast<Number>(*number);
}

void set(Arguments& arguments, const Argument& argument, const std::string& name, const std::string& text)
{
    const std::string& type   = argument.type;
    const std::string choices = type.starts_with('{') ? ',' + type.substr(1, type.size() - 2) + ',' : "";
    if (!choices.empty() &&
        (text.find(',') != std::string::npos || choices.find(',' + text + ',') == std::string::npos))
        throw Refusal(name + ": write one of " + replaced(type.substr(1, type.size() - 2), ",", ", "));
    const auto setField = [&](auto field) {
        auto& value = arguments.*field;
        using Value = std::remove_reference_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, bool>)
            value = true;
        else if constexpr (!std::is_same_v<Value, std::string>)
            value = numberFor<Value>(argument, name, text);
        else if (text.empty() && type != "PREFIX") // a script's unset variable, perhaps
            throw Refusal(name + ": write " + (type == "DEVICE" ? "one of " + devices() : "something; it is empty"));
        else
            value = text;
    };
    std::visit(setField, argument.field);
}

const Argument* named(const std::vector<Argument>& arguments, const std::string& name)
{
    const auto found = std::find_if(arguments.begin(), arguments.end(), [&](const Argument& each) {
        return each.name == name || (name == "-h" && each.name == "--help");
    });
    return found != arguments.end() ? &*found : nullptr;
}

const Command* commandAt(const std::string& path)
{
    const auto& all  = allCommands();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Command& each) { return each.path == path; });
    return found != all.end() ? &*found : nullptr;
}

std::string behind(const std::string& first, const std::string& next)
{
    return first + (first.empty() || next.empty() ? "" : " ") + next;
}

std::string choices(const std::string& path)
{
    return "one of " + joined(nextWords(path), ", ", [](const auto& each) { return each.first; });
}

std::string helpFor(const std::string& path)
{
    return behind(kProgram, path) + " --help shows what it takes";
}

// One pass over the words.
class Parser {
public:
    Parser(const std::vector<std::string>& words, Arguments& to) : given(words), arguments(to) {}

    const Command& parse()
    {
        bool optionsEnded = false;
        for (std::size_t i = 0; i < given.size(); ++i) {
            const std::string& word = given[i];
            if (!optionsEnded && word == "--") {
                optionsEnded = true;
            } else if (!optionsEnded && word.size() > 1 && word[0] == '-') {
                takeOption(i);
            } else if (command != nullptr) {
                takePositional(word);
            } else {
                takeCommand(word);
            }
        }
        if (command == nullptr)
            throw Refusal(behind(kProgram, path) + " which? One" + choices(path).substr(3));
        refuseMissing();
        const char* const level = std::getenv("VESK_LOG_LEVEL");
        if (level != nullptr && *level != '\0' && arguments.logLevel == 0)
            set(arguments, *named(commonOptions(), "--log"), std::string("VESK_LOG_LEVEL=") + level, level);
        return *command;
    }

private:
    void takeCommand(const std::string& word)
    {
        path    = behind(path, word);
        command = commandAt(path);
        if (nextWords(path).empty() && command == nullptr) {
            const std::string group = path.substr(0, path.size() - word.size());
            throw Refusal("unknown command: " + word + "; " +
                          choices(group.substr(0, group.find_last_not_of(' ') + 1)));
        }
    }

    [[nodiscard]] const Argument* optionCalled(const std::string& name) const
    {
        const Argument* option = named(commonOptions(), name);
        if (option == nullptr && command != nullptr)
            option = named(command->arguments, name);
        if (option != nullptr)
            return option;
        const Command* const meant = commandAt(CommandLine(given).path());
        if (command == nullptr && meant != nullptr && named(meant->arguments, name) != nullptr)
            throw Refusal(name + ": in the wrong place; write it behind " + behind(kProgram, meant->path));
        std::set<std::string> known = {"-h"};
        for (const auto* list : {&commonOptions(), command != nullptr ? &command->arguments : &commonOptions()})
            for (const Argument& each : *list)
                if (each.name.starts_with('-'))
                    known.insert(each.name);
        throw Refusal("unknown option: " + name + "; one of " + joined(known) +
                      "; other words with a dash go behind --");
    }

    void takeOption(std::size_t& i)
    {
        const std::size_t sign       = given[i].find('=');
        const std::string name       = given[i].substr(0, sign);
        const Argument* const option = optionCalled(name);
        if (std::holds_alternative<bool Arguments::*>(option->field)) {
            if (sign != std::string::npos)
                throw Refusal(name + ": takes no value");
            return set(arguments, *option, name, "");
        }
        if (!seen.insert(name).second)
            throw Refusal(name + ": given twice; write it once");
        if (sign == std::string::npos && i + 1 == given.size())
            throw Refusal(name + ": write its value behind it; " + helpFor(path));
        set(arguments, *option, name, sign != std::string::npos ? given[i].substr(sign + 1) : given[++i]);
    }

    void takePositional(const std::string& word)
    {
        for (std::size_t i = 0; i < command->arguments.size(); ++i)
            if (!command->arguments[i].name.starts_with('-') && i >= place) {
                place = i + 1;
                return set(arguments, command->arguments[i], command->arguments[i].name, word);
            }
        throw Refusal("one word too many: " + word + "; " + helpFor(path));
    }

    void refuseMissing() const
    {
        std::vector<std::string> missing;
        for (std::size_t i = 0; i < command->arguments.size(); ++i) {
            const Argument& each = command->arguments[i];
            if (each.required && (each.name.starts_with('-') ? !seen.contains(each.name) : i >= place))
                missing.push_back(each.name);
        }
        if (!missing.empty())
            throw Refusal("missing: " + joined(missing) + "; " + helpFor(path));
    }

    const std::vector<std::string>& given;
    Arguments& arguments;
    const Command* command = nullptr;
    std::string path;
    std::size_t place = 0; // among the positional arguments
    std::set<std::string> seen;
};

} // namespace

const std::vector<Argument>& commonOptions()
{
    static const std::vector<Argument> all = {
        {"--help", "", "Show this help; behind a command, the command's", &Arguments::help},
        {"--version", "", "Show the version", &Arguments::version},
        {"--json", "", "Answer in JSON, on one line", &Arguments::json},
        {"--log", "{1,2,3,4,5}", "Log from 1, all, to 4, failures; 5 is none", &Arguments::logLevel},
        {"--dry-run", "", "Show the requests by name, and send none", &Arguments::dry},
        {"--show-keys", "", "Show keys, which a dry run hides otherwise", &Arguments::showKeys},
    };
    return all;
}

const std::vector<Command>& allCommands()
{
    static const std::vector<Command> all = [] {
        std::vector<Command> commands;
        for (const auto table : {linkCommands, labelCommands, ipsecCommands, listCommands})
            for (Command& each : table()) { // behind the last one of its group
                const std::string group = each.path.substr(0, each.path.find(' ') + 1);
                const auto last         = std::find_if(commands.rbegin(), commands.rend(), [&](const Command& other) {
                    return !group.empty() && other.path.starts_with(group);
                });
                commands.insert(last != commands.rend() ? last.base() : commands.end(), std::move(each));
            }
        return commands;
    }();
    return all;
}

std::vector<std::pair<std::string, std::string>> nextWords(const std::string& path)
{
    std::vector<std::pair<std::string, std::string>> words;
    const std::string begin = path.empty() ? "" : path + ' ';
    for (const Command& each : allCommands()) {
        if (!each.path.starts_with(begin))
            continue;
        const std::string next = each.path.substr(0, each.path.find(' ', begin.size()));
        const std::string word = next.substr(begin.size());
        if (words.empty() || words.back().first != word)
            words.emplace_back(word, next == each.path ? each.what : kGroups.at(next));
    }
    return words;
}

std::string CommandLine::path() const
{
    std::string path;
    for (const std::string& word : given)
        for (const auto& [next, what] : nextWords(path))
            if (next == word) {
                path = behind(path, word);
                break;
            }
    return path;
}

bool CommandLine::has(const std::string& option) const
{
    const auto end = std::find(given.begin(), given.end(), "--");
    return std::any_of(given.begin(), end,
                       [&](const std::string& word) { return word == option || (option == "--help" && word == "-h"); });
}

const Command& CommandLine::parse(Arguments& arguments) const
{
    return Parser(given, arguments).parse();
}
