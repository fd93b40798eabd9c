#include "Manual.h"

#include "CommandLine.h"
#include "print/Text.h"

#include <algorithm>

namespace {

const std::string kPurpose = "Changes the kernel's networking state over netlink, one operation a call.";

constexpr std::pair<Status, const char*> kStatuses[] = {
    {Done, "Done."},
    {Refused, "Refused, by the kernel, the library or veskctl itself, or failed. The message says why."},
    {WrongUsage, "Wrong usage, or a record that cannot be meant. Nothing was sent."},
    {NotAsAsked, "Done in part, or not as asked: the message says what happened. What was asked for may also\n"
                 "not be there, or nobody could tell."},
    {Lost, "Done, but the answer could not be written whole."},
};

std::string row(const std::string& name, const std::string& what)
{
    return padded("  " + name + "  ", 26) + what + '\n';
}

std::string nameOf(const Argument& argument)
{
    return (argument.name == "--help" ? "-h," : "") + argument.name +
           (argument.type.empty() ? "" : ' ' + argument.type);
}

bool isOption(const Argument& argument)
{
    return argument.name.starts_with('-');
}

std::string section(const std::string& title, const std::vector<Argument>& arguments, bool options)
{
    std::string text;
    for (const Argument& each : arguments)
        if (isOption(each) == options)
            text += row(nameOf(each), each.what);
    return text.empty() ? "" : title + ":\n" + text;
}

std::string notesOf(const Command& command)
{
    return (command.more.notes.empty() ? "" : command.more.notes + '\n') +
           (command.more.mainlineRefusal == 0
                ? ""
                : "Mainline kernels refuse this always (" + errorName(command.more.mainlineRefusal) +
                      ", if nothing else is wrong).\n");
}

std::string exampleOf(const Command& command)
{
    return "  veskctl " + command.path + (command.example.empty() ? "" : ' ' + command.example) + '\n';
}

// Text as man wants it. What begins a line with a dot or a quote would be a request.
std::string escaped(const std::string& text)
{
    std::string to;
    for (const char each : text) {
        if ((each == '.' || each == '\'') && (to.empty() || to.back() == '\n'))
            to += "\\&";
        to += each == '-' ? "\\-" : each == '\\' ? "\\e" : std::string(1, each);
    }
    return to;
}

std::string listed(const std::vector<Argument>& arguments)
{
    std::string text;
    for (const Argument& each : arguments)
        text += ".TP\n\\fB" + escaped(nameOf(each)) + "\\fR\n" + escaped(each.what) + ".\n";
    return text;
}

std::string verbatim(const std::string& text)
{
    return ".nf\n" + escaped(text) + ".fi\n";
}

} // namespace

std::string helpOn(const std::string& path)
{
    const auto& all   = allCommands();
    const auto found  = std::find_if(all.begin(), all.end(), [&](const Command& each) { return each.path == path; });
    std::string usage = "Usage: veskctl " + path;
    if (found == all.end()) {
        std::string text = path.empty() ? kPurpose + '\n' : "";
        text += usage + (path.empty() ? "" : " ") + "COMMAND [ARGUMENTS] [OPTIONS]\n";
        if (path.empty())
            text += section("Options", commonOptions(), true);
        text += "Commands:\n";
        for (const auto& [word, what] : nextWords(path))
            text += row(word, what);
        return text +
               (path.empty() ? "Status: 0 done, 1 failed, 2 wrong usage, 3 in part or otherwise, 4 answer lost\n" : "");
    }
    for (const Argument& each : found->arguments)
        if (!isOption(each))
            usage += ' ' + each.name;
    return found->what + '\n' + usage + " [OPTIONS]\n" + section("Arguments", found->arguments, false) +
           section("Options", found->arguments, true) + "veskctl --help shows the options of all commands.\n" +
           notesOf(*found) + "Example:\n" + exampleOf(*found);
}

std::string manual()
{
    std::string page = ".TH VESKCTL 8 \"\" \"veskctl " VESK_VERSION "\" \"System administration\"\n"
                       ".SH NAME\nveskctl \\- changes the kernel's networking state, one operation a call\n"
                       ".SH SYNOPSIS\n.B veskctl\n\\fIcommand\\fR [\\fIarguments\\fR] [\\fIoptions\\fR]\n"
                       ".SH DESCRIPTION\n" +
                       escaped(kPurpose) +
                       "\nWhat cannot be meant is refused before anything is sent. Where the kernel's answer does not\n"
                       "tell what happened, the kernel is looked at before and after.\n.SH OPTIONS\n" +
                       listed(commonOptions()) + ".SH COMMANDS\n";
    for (const Command& each : allCommands())
        page += ".SS " + escaped("veskctl " + each.path) + '\n' + escaped(each.what) + ".\n" + listed(each.arguments) +
                ".PP\n" + escaped(notesOf(each)) + ".PP\nExample:\n" + verbatim(exampleOf(each));
    Answer record;
    explainRecord(record);
    page +=
        ".SH RECORDS\n"
        "A record is a file with one \"name = value\" a line; the rest of a line from ; or # on is ignored. It\n"
        "holds keys. So a regular file, standard input included, is refused when its mode lets its group or others\n"
        "read or write it; the mode of other files, such as pipes, is not looked at. Root is told when\n"
        "a regular file belongs to another user. While keys are held, the process leaves no core file.\n"
        ".PP\nRefused are keys that are all zeros and, except when SAs are removed, ends that are equal, unspecified\n"
        "(::, 0.0.0.0 and the rest of 0.0.0.0/8), loopback, multicast, reserved, broadcast, or IPv4 in IPv6's form\n"
        "(::ffff:192.0.2.1). Words stand for codes:\n" +
        verbatim(record.text) +
        ".SH LISTS AND JSON\n"
        "Lists name what is not as usual: what is left out is 0, none, any, without limit, or, of masks, all bits.\n"
        "Rules and labels are read until two readings agree, four times at most. \"unknown\" are\n"
        "attributes and bytes that veskctl cannot read, by number and length. On a terminal, lines end where it\n"
        "does; elsewhere each object is one line.\n"
        ".PP\nAnswers in JSON have result, the library's, a number, and status, that of veskctl. Where there is one:\n"
        "errno, a number, its name and text; kernel, the kernel's own words; message, what happened and what to do;\n"
        "warnings and failures, arrays of texts, the latter of the library's log; requests, of a dry run. sa status\n"
        "has tx and rx, with installed, true or false; keys and differs, texts; packets, a number; first_used and\n"
        "last_used, times. sa remove and migrate have tx and rx as texts. label purge has purged, an array of prefix\n"
        "and label.\n"
        ".PP\nA field has the same type in all answers of a list: numbers are decimal, in the units of their names;\n"
        "words stand for numbers, and those without a word are digits in a text. In place of source_port and\n"
        "destination_port, and in the names that these are a part of, selectors of ICMP and of mobility headers\n"
        "have message_type and message_code, those of GRE gre_key, all numbers. SAs that the kernel has no keys\n"
        "for yet have the state larval. The device of a rule is the one whose own table it looks up.\n" +
        verbatim(explainedLists()) + ".SH EXIT STATUS\n";
    for (const auto& [status, meaning] : kStatuses)
        page += ".TP\n" + std::to_string(status) + '\n' + meaning + '\n';
    return page +
           ".SH ENVIRONMENT\n"
           ".TP\nVESK_LOG_LEVEL\nThe level of \\-\\-log where that is not given: 1 to 5, and 4 when neither is.\n"
           ".TP\nNO_COLOR\nNo colours on a terminal either.\n"
           ".SH FILES\n/usr/share/doc/libvesk\\-netlink/examples holds records to begin with.\n"
           ".SH SEE ALSO\nip(8), ip\\-xfrm(8), ip\\-addrlabel(8), ip\\-rule(8), tc(8)\n";
}
