#include "Answer.h"

#include "Heard.h"
#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <system_error>

#include <unistd.h>

using Vesk::Testing::LogCapture;
using Vesk::Testing::LogLine;

namespace {

// The line feeds that some lines end with are not shown.
std::string textOf(const LogLine& line)
{
    return line.text.substr(0, line.text.find_last_not_of('\n') + 1);
}

// What the kernel said in words, or nothing.
std::string kernelsWords(const Answer& answer)
{
    for (const LogLine& line : answer.log)
        if (line.format == kKernelSays)
            return textOf(line).substr(line.text.find(kSaysBehind) + std::strlen(kSaysBehind));
    return "";
}

// "EEXIST, File exists"
std::string errorText(int error)
{
    return errorName(error) + ", " + std::strerror(error);
}

// "EEXIST, File exists; the kernel says: Exclusivity flag on, cannot modify"
std::string reasonOf(const Answer& answer)
{
    const std::string words = kernelsWords(answer);
    return errorText(answer.error) + (words.empty() ? "" : "; the kernel says: " + words);
}

// A look at the kernel failed, before the call or after it.
void judgeLook(Answer& answer, int error)
{
    const std::string what = std::string("could not be looked at") + (error == EINTR ? ": it kept changing" : "");
    if (!answer.called) {
        answer.result = -1;
        answer.status = Refused;
        answer.error  = error;
        answer.warnings.push_back("nothing was done, since the kernel " + what);
    } else if (answer.result == 0) {
        answer.notAsAsked("the call succeeded, but what came of it " + what + " (" + errorText(error) + ')');
    } else if (answer.note.empty()) {
        answer.note = "what is there " + what + " (" + errorText(error) + ')';
    }
}

// That the kernel refused is certain where it says so; that the library did, where it is no reason of the system's.
std::string verdictOn(const Answer& answer)
{
    const bool byKernel  = std::any_of(std::begin(kKernelRefuses), std::end(kKernelRefuses),
                                       [&](const char* format) { return answer.heard(format); });
    const bool byLibrary = answer.error == EINVAL || answer.error == ENODEV || answer.error == EAFNOSUPPORT;
    return byKernel || byLibrary ? "refused" : "failed";
}

std::string valueText(const std::string& name, const Json& value)
{
    static const std::set<std::string> inHexadecimal = {"spi_tx", "spi_rx", "mark", "mask"};
    if (inHexadecimal.contains(name))
        return hexadecimal(value.get<std::uint64_t>());
    return value.is_string() ? visible(value.get<std::string>()) : value.dump();
}

// Beyond ASCII there may be what a terminal obeys. Text that is no UTF-8, a device's name perhaps, is shown as far as
// it goes.
std::string jsonText(const Json& json)
{
    return json.dump(-1, ' ', true, Json::error_handler_t::replace) + '\n';
}

void complain(const std::string& line)
{
    if (!line.empty())
        std::fprintf(stderr, "veskctl: %s\n", visible(line).c_str());
}

Json jsonOf(const Answer& answer, const std::string& verdict, const Json& failures)
{
    Json all = {{"result", answer.result}, {"status", answer.status}};
    all.update(answer.findings);
    if (answer.error != 0)
        all.update(
            Json{{"errno", answer.error}, {"name", errorName(answer.error)}, {"text", std::strerror(answer.error)}});
    if (const std::string words = kernelsWords(answer); !words.empty())
        all["kernel"] = words;
    if (!answer.note.empty() || answer.status != Done)
        all["message"] = answer.note.empty() ? verdict : answer.note;
    if (!answer.warnings.empty())
        all["warnings"] = answer.warnings;
    if (answer.status != Done)
        all["failures"] = failures;
    return all;
}

} // namespace

bool Answer::heard(const char* format) const
{
    return std::any_of(log.begin(), log.end(), [format](const LogLine& line) { return line.format == format; });
}

Answer perform(const Operation& operation)
{
    Answer answer;
    LogCapture heard;
    const auto makeCall = [&] {
        const std::size_t before = heard.lines.size();
        errno                    = 0;
        answer.result            = operation.call(answer);
        answer.error             = answer.result != 0 ? errno : 0;
        answer.called            = true;
        answer.log.assign(heard.lines.begin() + static_cast<std::ptrdiff_t>(before), heard.lines.end());
        if (answer.result != 0) {
            answer.status   = Refused;
            answer.findings = Json::object();
            answer.text.clear();
        }
    };
    try {
        if (operation.around)
            operation.around(answer, makeCall);
        else
            makeCall();
    } catch (const std::system_error& failed) {
        if (!answer.called)
            answer.log = heard.lines;
        judgeLook(answer, failed.code().value());
    }
    if (answer.status == Refused && answer.heard(kUnanswered)) {
        answer.status = NotAsAsked;
        answer.note   = "the kernel's answer was lost; nobody can tell whether it was done" +
                      (answer.note.empty() ? "" : "; " + answer.note);
    }
    return answer;
}

int put(const std::string& text, int status)
{
    for (std::string_view left = text; !left.empty();) {
        const ssize_t written = write(STDOUT_FILENO, left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            complain(std::string("the answer could not be written: ") + std::strerror(errno));
            if (status == Done)
                return Lost;
            std::fprintf(stderr, "%s", text.c_str());
            return status;
        }
    }
    return status;
}

int print(const Answer& answer, bool json, int logLevel)
{
    Json failures = Json::array();
    for (const LogLine& line : answer.log) {
        if (line.level >= logLevel)
            std::fprintf(stderr, "%c %s:%u %s\n", "?VDNF"[line.level], line.source.c_str(), line.line,
                         visible(textOf(line)).c_str());
        if (line.level == log_level_failure)
            failures.push_back(textOf(line));
    }

    const std::string reason = answer.error != 0 ? reasonOf(answer) : "";
    const std::string verdict =
        answer.status == Refused ? verdictOn(answer) + (reason.empty() ? "" : ": " + reason) : "";
    if (json)
        return put(jsonText(jsonOf(answer, verdict, failures)), answer.status);

    std::string text = answer.text;
    for (const auto& [finding, value] : answer.findings.items())
        if (answer.text.empty() && !value.is_array()) // which was an empty list
            text += finding + ' ' + valueText(finding, value) + '\n';
    for (const std::string& each : answer.warnings)
        complain("warning: " + each);
    complain(verdict);
    complain(answer.note + (answer.status == NotAsAsked && !reason.empty() ? " (" + reason + ')' : ""));
    return put(text, answer.status);
}

int print(const Refusal& refusal, const std::vector<std::string>& warnings, bool json)
{
    if (json) {
        Json all = {{"status", refusal.status}, {"message", refusal.what()}};
        if (!warnings.empty())
            all["warnings"] = warnings;
        return put(jsonText(all), refusal.status);
    }
    for (const std::string& each : warnings)
        complain("warning: " + each);
    for (const std::string& line : refusal.lines)
        complain(line);
    return refusal.status;
}
