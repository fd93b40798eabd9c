#include "Answer.h"

#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <sstream>

using Vesk::Testing::LogCapture;
using Vesk::Testing::LogLine;

namespace {

constexpr std::size_t kColumns = 80;

// The line feeds that some lines end with are not shown.
std::string textOf(const LogLine& line)
{
    return line.text.substr(0, line.text.find_last_not_of('\n') + 1);
}

// The errno that a line about an exchange carries, or 0: "... reports error -17", "... errno=[1, Operation ...".
int errnoIn(const LogLine& line)
{
    const std::size_t word = line.format.find("err");
    if (line.level != log_level_failure || line.source != "src/netlink/NetlinkHelper" || word == std::string::npos)
        return 0;
    const std::size_t number = line.text.find_first_of("0123456789", line.text.find("err"));
    return number == std::string::npos ? 0 : static_cast<int>(std::strtol(line.text.c_str() + number, nullptr, 10));
}

std::string valueText(const std::string& name, const Json& value)
{
    static const std::set<std::string> inHexadecimal = {"spi",  "spi_tx",      "spi_rx",     "mark",
                                                        "mask", "output_mark", "output_mask"};
    static const std::set<std::string> times         = {"added", "used"};
    if (inHexadecimal.contains(name))
        return hexadecimal(value.get<std::uint64_t>());
    if (times.contains(name)) {
        const auto seconds = value.get<std::time_t>();
        std::tm local      = {};
        char text[32]      = {};
        std::strftime(text, sizeof text, "%FT%T", localtime_r(&seconds, &local));
        return text;
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// "name value" behind what is there, on a new line where it would not fit.
class Words {
public:
    explicit Words(const std::string& headline) : text(bold(headline)), column(headline.size()) {}

    void add(const std::string& name, const std::string& value)
    {
        const std::size_t size = 2 + name.size() + (value.empty() ? 0 : 1 + value.size());
        const bool fits        = column + size <= kColumns;
        text += (fits ? "  " : "\n    ") + faint(name) + (value.empty() ? "" : ' ' + value);
        column = fits ? column + size : size + 2;
    }
    void addAll(const Json& fields, std::size_t skipped = 0)
    {
        for (const auto& [name, value] : fields.items()) {
            if (skipped != 0) {
                --skipped;
            } else if (value.is_array()) {
                for (const Json& each : value) {
                    add(name, "");
                    addAll(each);
                }
            } else {
                add(name, valueText(name, value));
            }
        }
    }

    std::string text;

private:
    std::size_t column;
};

int flushed(Status status)
{
    if (std::fflush(stdout) == 0)
        return status;
    std::fprintf(stderr, "veskctl: the answer could not be written: %s\n", std::strerror(errno));
    return Refused;
}

// Text that is no UTF-8, a device's name perhaps, is shown as far as it goes.
void putJson(const Json& json)
{
    std::puts(json.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

void complain(const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        std::fprintf(stderr, "veskctl: %s\n", line.c_str());
}

} // namespace

bool Answer::logged(const char* piece) const
{
    return std::any_of(log.begin(), log.end(),
                       [piece](const LogLine& line) { return line.format.find(piece) != std::string::npos; });
}

Answer perform(const Operation& operation)
{
    Answer answer;
    if (operation.look) {
        const LogCapture unheard;
        operation.look();
    }
    {
        LogCapture heard;
        answer.result = operation.call(answer);
        answer.log    = std::move(heard.lines);
    }
    if (answer.result != 0) {
        answer.status   = Refused;
        answer.findings = Json::object();
        answer.text.clear();
        for (const LogLine& line : answer.log)
            if (answer.error == 0)
                answer.error = errnoIn(line);
    }
    if (operation.judge) {
        const LogCapture unheard;
        operation.judge(answer);
    }
    return answer;
}

void addEntry(Answer& answer, const char* list, const std::string& headline, const Json& fields, std::size_t inHeadline)
{
    answer.findings[list].push_back(fields);
    Words words(headline);
    words.addAll(fields, inHeadline);
    answer.text += words.text + '\n';
}

int print(const Answer& answer, bool json, int logLevel)
{
    Json failures = Json::array();
    for (const LogLine& line : answer.log) {
        if (line.level >= logLevel)
            std::fprintf(stderr, "%c %s:%u %s\n", "?VDNF"[line.level], line.source.c_str(), line.line,
                         textOf(line).c_str());
        if (line.level == log_level_failure)
            failures.push_back(textOf(line));
    }

    const std::string name    = errorName(answer.error);
    const std::string refused = answer.error != 0 ? "refused: " + name + ", " + std::strerror(answer.error) : "refused";
    if (json) {
        Json all = {{"result", answer.result}, {"status", answer.status}};
        all.update(answer.findings);
        if (answer.error != 0)
            all.update(Json{{"errno", answer.error}, {"name", name}, {"text", std::strerror(answer.error)}});
        if (!answer.note.empty() || answer.status != Done)
            all["message"] = answer.note.empty() ? refused : answer.note;
        if (answer.status != Done)
            all["failures"] = failures;
        putJson(all);
        return flushed(answer.status);
    }

    std::fputs(answer.text.c_str(), stdout);
    for (const auto& [finding, value] : answer.findings.items())
        if (answer.text.empty() && !value.is_array()) // which was an empty list
            std::printf("%s %s\n", finding.c_str(), valueText(finding, value).c_str());
    if (answer.status == Refused)
        complain(refused);
    if (!answer.note.empty())
        complain(answer.note);
    return flushed(answer.status);
}

int print(const Refusal& refusal, bool json)
{
    if (json)
        putJson({{"status", refusal.status}, {"message", refusal.what()}});
    else
        complain(refusal.what());
    return flushed(refusal.status);
}
