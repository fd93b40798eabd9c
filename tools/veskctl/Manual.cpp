#include "Manual.h"

#include "RecordFile.h"

#include <cstdio>
#include <sstream>

namespace {

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

void put(const std::string& line)
{
    std::printf("%s\n", line.c_str());
}

void putVerbatim(const std::string& text)
{
    put(".nf\n" + escaped(text) + "\n.fi");
}

void putOptions(const CLI::App& app)
{
    for (const CLI::Option* each : app.get_options([](const CLI::Option*) { return true; })) {
        if (each == app.get_help_ptr() && app.get_parent() != nullptr)
            continue;
        put(".TP\n\\fB" + escaped(each->get_name(each->get_positional())) + "\\fR \\fI" +
            escaped(each->get_option_text()) + "\\fR");
        put(escaped(each->get_description()));
    }
}

void putCommands(const CLI::App& group, const std::string& path)
{
    for (const CLI::App* each : group.get_subcommands(std::function<bool(const CLI::App*)>())) {
        const std::string name = path + ' ' + each->get_name();
        if (!each->get_subcommands(std::function<bool(const CLI::App*)>()).empty()) {
            putCommands(*each, name);
            continue;
        }
        put(".SS " + escaped(name));
        put(escaped(each->get_description()) + '.');
        putOptions(*each);
        put(".PP");
        const std::string footer  = each->get_footer();
        const std::size_t example = footer.find("Example:");
        put(escaped(footer.substr(0, example)) + ".PP");
        putVerbatim(footer.substr(example));
    }
}

} // namespace

int printManual(const CLI::App& root)
{
    Answer record;
    explainRecord(record);
    put(".TH VESKCTL 8 \"\" \"veskctl " VESK_VERSION "\" \"System administration\"");
    put(".SH NAME\nveskctl \\- changes the kernel's networking state, one operation a call");
    put(".SH SYNOPSIS\n.B veskctl\n[\\fIoptions\\fR] \\fIcommand\\fR [\\fIarguments\\fR]");
    put(".SH DESCRIPTION\n" + escaped(root.get_description()));
    put(".SH OPTIONS");
    putOptions(root);
    put(".SH COMMANDS");
    putCommands(root, "veskctl");
    put(".SH RECORDS\n"
        "A record is a file with one \"name = value\" a line; behind ; or # is a comment. It holds keys, so it is\n"
        "refused when others than its owner may read it. Words stand for codes:");
    putVerbatim(record.text);
    put(".SH EXIT STATUS");
    for (const auto& [status, meaning] :
         {std::pair(Done, "Done."),
          std::pair(Refused, "Refused by the kernel, or by the library before anything was sent."),
          std::pair(WrongUsage, "Wrong usage, or a record that cannot be meant. Nothing was sent."),
          std::pair(NotAsAsked, "The call succeeded, but nothing happened, or not all that was asked.")})
        put(".TP\n" + std::to_string(status) + '\n' + meaning);
    put(".SH ENVIRONMENT\n"
        ".TP\nVESK_LOG_LEVEL\nThe level of \\-\\-log where that is not given.\n"
        ".TP\nNO_COLOR\nNo colours on a terminal either.");
    put(".SH FILES\n/usr/share/doc/libvesk\\-netlink/examples holds records to begin with.");
    put(".SH SEE ALSO\nip(8), ip\\-xfrm(8), ip\\-addrlabel(8), ip\\-rule(8), tc(8)");
    return std::fflush(stdout) == 0 ? Done : Refused;
}
