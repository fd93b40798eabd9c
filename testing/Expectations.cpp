#include "Expectations.h"

#include <FormatLogLine.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

#include <arpa/inet.h>

namespace Vesk::Testing {

namespace {

using Lines = std::vector<std::string>;

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

// The first line that differs.
std::string difference(const std::string& what, Lines expected, Lines actual)
{
    if (expected == actual)
        return "";
    expected.emplace_back("the end");
    actual.emplace_back("the end");
    const auto [one, other] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    return what + ", line " + std::to_string(one - expected.begin() + 1) + ": " + *other + ", not " + *one + '\n';
}

std::vector<Bytes> blocksOf(const std::string& digits)
{
    std::vector<Bytes> blocks;
    std::istringstream divided(spelledOut(digits) + '|');
    for (std::string block; std::getline(divided, block, '|');)
        blocks.push_back(hex(block));
    return blocks;
}

// A field by its name, or what lies at an offset.
struct Piece {
    std::size_t offset, size;
    const char* name = nullptr;
};

// Of a request's block, in the order in which a difference tells most: an attribute's length follows from the rest.
std::vector<Piece> piecesOf(std::size_t block, std::size_t size)
{
    const bool isHeader = block == 0, isAttribute = block > 1; // what is behind header and payload
    std::vector<Piece> pieces;
    if (isHeader)
        pieces = {{4, 2, "nlmsg_type"}, {6, 2, "nlmsg_flags"}, {8, 4, "nlmsg_seq"}, {12, 4, "nlmsg_pid"}};
    if (isAttribute)
        pieces.push_back({2, 2, "nla_type"});
    for (std::size_t at = isHeader ? NLMSG_HDRLEN : isAttribute ? NLA_HDRLEN : 0; at < size; at += 4)
        pieces.push_back({at, 4});
    if (isAttribute)
        pieces.push_back({0, 2, "nla_len"});
    return pieces;
}

std::string text(const Piece& piece, const Bytes& block)
{
    const std::size_t begin = std::min(piece.offset, block.size()), size = std::min(piece.size, block.size() - begin);
    if (piece.name == nullptr || size < piece.size)
        return size == 0 ? "the end" : digitsOf(&block[begin], size);
    std::uint32_t number = 0;
    std::memcpy(&number, &block[begin], size);
    char digits[16];
    std::snprintf(digits, sizeof digits, "0x%x", number);
    return digits;
}

std::string difference(const Piece& piece, const Bytes& expected, const Bytes& actual)
{
    const std::string one = text(piece, expected), other = text(piece, actual);
    const std::string name = piece.name != nullptr ? piece.name : "offset " + std::to_string(piece.offset) + ':';
    return one == other ? "" : name + ' ' + other + ", not " + one + '\n';
}

// The first difference of a request, as what follows the request's name.
std::string difference(const std::string& digits, const Request& request)
{
    const std::vector<Bytes> expected = blocksOf(digits), actual = blocksOf(Testing::digits(request));
    for (std::size_t i = 0; i < std::max(expected.size(), actual.size()); ++i) {
        std::string block = i == 0 ? "" : ", block " + std::to_string(i + 1);
        if (i == actual.size())
            return block + " is missing\n";
        if (i == expected.size())
            return block.append(" is too much: ").append(digitsOf(actual[i].data(), actual[i].size())) + '\n';
        for (const Piece& piece : piecesOf(i, std::max(expected[i].size(), actual[i].size())))
            if (const std::string found = difference(piece, expected[i], actual[i]); !found.empty())
                return block.append(": ").append(found);
    }
    const std::string length = difference({0, 4, "nlmsg_len"}, expected[0], actual[0]);
    return length.empty() ? "" : ": " + length;
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

LogLine logLine(const std::string& source, log_level level, const char* format, ...)
{
    char text[2048];
    std::va_list arguments;
    va_start(arguments, format);
    formatLogLine(text, sizeof text, format, arguments);
    va_end(arguments);
    return {level, source, format, text};
}

std::string LoggedBy::whole(const std::string& format)
{
    const bool isWhole = format.starts_with("%s()") || format.starts_with("%S()");
    return (isWhole ? "" : format[0] == '\t' ? "%s():" : "%s(): ") + format;
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
    return core("messageTransact").notice("NL ACK received form kernel");
}

Log refusedBy(int error, const Log& operation)
{
    return {core("messageTransact").failure("kernel reports error %d", error),
            core("extack").notice("No EXTACK content"), operation};
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
    const std::vector<Request>& requests = kernel.requests();
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const std::string name = "request " + std::to_string(i + 1);
        if (!openedAsUsual(requests[i]))
            text += name + ": its socket was not opened as usual\n";
        if (requests[i].protocol != protocol)
            text.append(name).append(": protocol ").append(std::to_string(requests[i].protocol)) += '\n';
        if (!sends.any && i < sends.digits.size())
            if (const std::string found = difference(sends.digits[i], requests[i]); !found.empty())
                text.append(name).append(found);
    }
    if (!sends.any && sends.digits.size() != requests.size())
        text += "requests: " + std::to_string(requests.size()) + ", not " + std::to_string(sends.digits.size()) + '\n';

    const auto inLog = [&](const char* what, std::string LogLine::*part) {
        return difference(what, inLines(log, from, part), inLines(kernel.log(), from, part));
    };
    const std::string texts = inLog("log", &LogLine::text);
    text += texts.empty() ? inLog("formats of the log", &LogLine::format) : texts;

    const auto left = [](std::size_t count, const char* what) {
        return count == 0 ? "" : std::to_string(count) + ' ' + what + '\n';
    };
    for (const std::string& complaint : kernel.complaints())
        text += complaint + '\n';
    return text + left(kernel.unreadReplies(), "unread replies") + left(kernel.openSockets(), "sockets left open") +
           left(kernel.liveBlocks(), "blocks not freed");
}

} // namespace Vesk::Testing
