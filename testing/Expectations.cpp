#include "Expectations.h"

#include <FormatLogLine.h>

#include <algorithm>
#include <iterator>

#include <arpa/inet.h>

namespace Vesk::Testing {

namespace {

using Lines = std::vector<std::string>;

// Four bytes a line, so that a difference shows the field.
Lines inLines(const std::string& digits)
{
    Lines lines{""};
    std::size_t count = 0;
    for (const char c : digits) {
        if (c == '|' || (count != 0 && count % 8 == 0)) {
            lines.emplace_back(c == '|' ? "| " : "  ");
            count = 0;
        }
        if (c != '|') {
            lines.back() += c;
            ++count;
        }
    }
    return lines;
}

Lines inLines(const std::vector<LogLine>& log, log_level from, std::string LogLine::*part)
{
    Lines lines;
    for (const LogLine& line : log) {
        std::string text = std::to_string(line.level) + ' ' + line.source + ": ";
        for (const char c : line.*part)
            text += c == '\n' ? "\\n" : std::string(1, c);
        if (line.level >= from)
            lines.push_back(text);
    }
    return lines;
}

// The first difference, looked for from a line on, with two lines around it.
std::string difference(const std::string& what, Lines expected, Lines actual, std::ptrdiff_t from = 0)
{
    if (expected == actual)
        return "";
    expected.emplace_back("(the end)");
    actual.emplace_back("(the end)");
    const auto [one, other] =
        std::mismatch(expected.begin() + from, expected.end(), actual.begin() + from, actual.end());
    const auto at = one == expected.end() ? 0 : one - expected.begin(); // 0: it is in what was passed over

    std::string text = what + ", line " + std::to_string(at + 1) + ":\n";
    const auto show  = [&text](const char* mark, const Lines& lines, std::ptrdiff_t first, std::ptrdiff_t last) {
        for (auto i = std::max<std::ptrdiff_t>(first, 0); i < std::min(last, std::ssize(lines)); ++i)
            text += (i == first ? mark : "           ") + lines[static_cast<std::size_t>(i)] + '\n';
    };
    show("           ", expected, at - 2, at);
    show("  expected ", expected, at, at + 3);
    show("  actual   ", actual, at, at + 3);
    return text;
}

bool openedAsUsual(const Request& request)
{
    return request.socketType == (SOCK_RAW | SOCK_CLOEXEC) && request.address.nl_family == AF_NETLINK &&
           request.address.nl_pid == 0 && request.address.nl_groups == 0 &&
           request.options == std::vector<std::array<int, 3>>{{SOL_NETLINK, NETLINK_EXT_ACK, 1}};
}

} // namespace

std::string digits(const Request& request)
{
    std::string text;
    std::size_t at = 0;
    for (const std::size_t size : request.scatter) {
        text += at == 0 ? "" : "|";
        text += digitsOf(request.datagram.data() + at, size);
        at += size;
    }
    return text;
}

Log::Log(std::initializer_list<Log> parts)
{
    for (const Log& part : parts)
        insert(end(), part.begin(), part.end());
}

LogLine logLine(const std::string& source, int level, const char* format, ...)
{
    char text[2048];
    std::va_list arguments;
    va_start(arguments, format);
    formatLogLine(text, sizeof text, format, arguments);
    va_end(arguments);
    return {static_cast<log_level>(level), source, format, text};
}

LoggedBy core(const char* function)
{
    return {"src/netlink/NetlinkHelper", function};
}

LoggedBy rtnl(const char* function)
{
    return {"src/netlink/RTNetlinkHelper", function};
}

LoggedBy labels(const char* function)
{
    return {"src/netlink/AddrlabelHelper", function};
}

LoggedBy xfrm(const char* function)
{
    return {"src/netlink/XFRMHelper", function};
}

LogLine acknowledged()
{
    return core("messageTransact")(3, "NL ACK received form kernel");
}

Log refusedBy(int error, const Log& operation)
{
    return {core("messageTransact")(4, "kernel reports error %d", error), core("extack")(3, "No EXTACK content"),
            operation};
}

sockaddr_storage socketAddress(const char* text)
{
    sockaddr_storage address = {};
    if (inet_pton(AF_INET, text, &reinterpret_cast<sockaddr_in&>(address).sin_addr) == 1)
        address.ss_family = AF_INET;
    else if (inet_pton(AF_INET6, text, &reinterpret_cast<sockaddr_in6&>(address).sin6_addr) == 1)
        address.ss_family = AF_INET6;
    return address;
}

std::string unmet(const ScriptedKernel& kernel, const Sends& sends, const Log& log, int protocol, log_level from)
{
    std::string text;
    for (const auto part : {&LogLine::text, &LogLine::format})
        if (text.empty())
            text = difference(part == &LogLine::text ? "log" : "formats of the log", inLines(log, from, part),
                              inLines(kernel.log(), from, part));

    const std::vector<Request>& requests = kernel.requests();
    std::string differing;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const std::string name = "request " + std::to_string(i + 1);
        if (!openedAsUsual(requests[i]))
            text += name + ": its socket was not opened as usual\n";
        if (requests[i].protocol != protocol)
            text += name + ": protocol " + std::to_string(requests[i].protocol) + '\n';
        if (!sends.any && i < sends.digits.size() && differing.empty())
            differing = difference(name, inLines(spelledOut(sends.digits[i])), inLines(digits(requests[i])), 1);
    }
    text += differing;
    if (!sends.any && sends.digits.size() != requests.size())
        text += "requests: " + std::to_string(requests.size()) + ", not " + std::to_string(sends.digits.size()) + '\n';

    const auto left = [](std::size_t count, const char* what) {
        return count == 0 ? "" : std::to_string(count) + ' ' + what + '\n';
    };
    for (const std::string& complaint : kernel.complaints())
        text += complaint + '\n';
    return text + left(kernel.unreadReplies(), "unread replies") + left(kernel.openSockets(), "sockets left open") +
           left(kernel.liveBlocks(), "blocks not freed");
}

} // namespace Vesk::Testing
