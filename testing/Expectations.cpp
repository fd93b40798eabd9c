#include "Expectations.h"

#include <FormatLogLine.h>

#include <algorithm>

#include <arpa/inet.h>

namespace Vesk::Testing {

namespace {

// Four bytes a line, so that a difference shows the field.
std::string inLines(const std::string& expected)
{
    std::string text  = "    ";
    std::size_t count = 0;
    for (const char c : spelledOut(expected)) {
        if (c == '|') {
            text += " |\n    ";
            count = 0;
        } else {
            text += count != 0 && count % 8 == 0 ? "\n    " : "";
            text += c;
            ++count;
        }
    }
    return text + '\n';
}

std::string inLines(const std::vector<LogLine>& log, log_level from)
{
    std::string text;
    for (const LogLine& line : log)
        if (line.level >= from)
            text += "    " + std::to_string(line.level) + ' ' + line.source + " \"" + line.format + "\": " + line.text +
                    '\n';
    return text;
}

std::string difference(const std::string& what, const std::string& expected, const std::string& actual)
{
    return expected == actual ? "" : what + ", expected:\n" + expected + "  actual:\n" + actual;
}

std::string socketsOf(const Request& request)
{
    const bool usual = request.socketType == (SOCK_RAW | SOCK_CLOEXEC) && request.address.nl_family == AF_NETLINK &&
                       request.address.nl_pid == 0 && request.address.nl_groups == 0 &&
                       request.options == std::vector<std::array<int, 3>>{{SOL_NETLINK, NETLINK_EXT_ACK, 1}};
    return usual ? "" : "a socket was not opened as usual\n";
}

} // namespace

std::string digits(const Request& request)
{
    std::string text;
    std::size_t at = 0;
    for (const std::size_t size : request.scatter) {
        text += at == 0 ? "" : "|";
        for (const std::size_t end = at + size; at < end; ++at) {
            char byte[3];
            std::snprintf(byte, sizeof byte, "%02x", request.datagram[at]);
            text += byte;
        }
    }
    return text;
}

LogLine logLine(const std::string& source, int level, const char* format, ...)
{
    char text[1024];
    std::va_list arguments;
    va_start(arguments, format);
    formatLogLine(text, sizeof text, format, arguments);
    va_end(arguments);
    return {static_cast<log_level>(level), source, format, text};
}

LogLine acknowledged()
{
    return core(3, "%s(): NL ACK received form kernel", "messageTransact");
}

Log refusedBy(int error, const LogLine& operation)
{
    return {core(4, "%s(): kernel reports error %d", "messageTransact", error),
            core(3, "%s(): No EXTACK content", "extack"), operation};
}

Log operator+(Log first, const Log& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Sends requests(int protocol, std::initializer_list<std::string> datagrams)
{
    std::vector<Sent> all;
    for (const std::string& datagram : datagrams)
        all.push_back({protocol, datagram});
    return all;
}

std::vector<Reply> replies(std::initializer_list<std::string> datagrams)
{
    std::vector<Reply> all;
    std::transform(datagrams.begin(), datagrams.end(), std::back_inserter(all),
                   [](const std::string& text) { return reply(hex(text)); });
    return all;
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

std::string unmet(const ScriptedKernel& kernel, const Sends& sends, const std::vector<LogLine>& log, log_level from)
{
    const std::vector<Request>& requests = kernel.requests();
    std::string text                     = difference("log", inLines(log, from), inLines(kernel.log(), from));
    for (const Request& request : requests)
        text += socketsOf(request);
    if (sends) {
        text += difference("requests", std::to_string(sends->size()) + '\n', std::to_string(requests.size()) + '\n');
        for (std::size_t i = 0; i < std::min(sends->size(), requests.size()); ++i) {
            const std::string name = "request " + std::to_string(i);
            text += difference(name + ", protocol", std::to_string((*sends)[i].protocol) + '\n',
                               std::to_string(requests[i].protocol) + '\n');
            text += difference(name, inLines((*sends)[i].digits), inLines(digits(requests[i])));
        }
    }

    const auto left = [](std::size_t count, const char* what) {
        return count == 0 ? "" : std::to_string(count) + ' ' + what + '\n';
    };
    for (const std::string& complaint : kernel.complaints())
        text += complaint + '\n';
    return text + left(kernel.unreadReplies(), "unread replies") + left(kernel.openSockets(), "sockets left open") +
           left(kernel.liveBlocks(), "blocks not freed");
}

} // namespace Vesk::Testing
