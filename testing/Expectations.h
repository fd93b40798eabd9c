/**
 * @file
 * What a test expects of a call that a ScriptedKernel watched, written as a person reads it.
 *
 *     EXPECT_EQ(unmet(kernel, {{{NETLINK_ROUTE, "18000000 4900 0500 00000000 00000000 | 0800 0200 07000000"}}},
 *                     {logLine("src/netlink/NetlinkHelper", 3, "%s(): NL ACK received form kernel", "messageTransact")}),
 *               "");
 */
#ifndef VESK_EXPECTATIONS_H
#define VESK_EXPECTATIONS_H

#include <ScriptedKernel.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace Vesk::Testing {

/// A datagram as hexadecimal digits, with a bar where a block of the scatter list ends and the next begins. A word such
/// as "56*00" stands for 56 zero bytes; spaces do not count otherwise.
struct Sent {
    int protocol;
    std::string digits;
};

/// Requests in order; no value when they do not matter.
using Sends = std::optional<std::vector<Sent>>;

/// The same of a request that was recorded, without spaces and with every byte written out.
std::string digits(const Request& request);

/// Requests to one protocol.
Sends requests(int protocol, std::initializer_list<std::string> datagrams);

using Log = std::vector<LogLine>;
Log operator+(Log first, const Log& second);

/// A log line by its source, level, format, and what fills the format.
LogLine logLine(const std::string& source, int level, const char* format, ...);

// Lines of the library's sources, from `core(4, "%s(): kernel reports error %d", "messageTransact", -17)` on.

template <typename... Arguments>
LogLine core(int level, const char* format, Arguments... arguments)
{
    return logLine("src/netlink/NetlinkHelper", level, format, arguments...);
}

template <typename... Arguments>
LogLine rtnl(int level, const char* format, Arguments... arguments)
{
    return logLine("src/netlink/RTNetlinkHelper", level, format, arguments...);
}

template <typename... Arguments>
LogLine labels(int level, const char* format, Arguments... arguments)
{
    return logLine("src/netlink/AddrlabelHelper", level, format, arguments...);
}

template <typename... Arguments>
LogLine xfrm(int level, const char* format, Arguments... arguments)
{
    return logLine("src/netlink/XFRMHelper", level, format, arguments...);
}

/// What a transaction logs when it is acknowledged.
LogLine acknowledged();

/// What a transaction logs when it is refused without a text, and then the operation that it is part of.
Log refusedBy(int error, const LogLine& operation);

/// One receive's datagram each.
std::vector<Reply> replies(std::initializer_list<std::string> datagrams);

/// The address that a text stands for; of family 0 when it is neither IPv4 nor IPv6.
sockaddr_storage socketAddress(const char* text);

/**
 * Compares what happened with what was expected: the requests, block by block; the whole log, raw formats too; that
 * each socket was opened as this library opens them; that no reply was left or missing, and no socket or block stayed.
 * @param from  lines of lower levels are not compared
 * @return what differs, four bytes a line; empty when nothing does
 */
std::string unmet(const ScriptedKernel& kernel, const Sends& sends, const std::vector<LogLine>& log,
                  log_level from = log_level_verbose);

} // namespace Vesk::Testing

#endif
