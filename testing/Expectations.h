/**
 * @file
 * What a test expects of a call that a ScriptedKernel watched, written as a person reads it.
 *
 *     const LoggedBy transact = core("messageTransact");
 *     EXPECT_EQ(unmet(kernel, {message(RTM_DELADDRLABEL, NLM_F_REQUEST | NLM_F_ACK, {"12*00", attr(IFAL_LABEL, 7)})},
 *                     {transact.notice("NL ACK received form kernel")}),
 *               "");
 */
#ifndef VESK_EXPECTATIONS_H
#define VESK_EXPECTATIONS_H

#include <ScriptedKernel.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace Vesk::Testing {

/// @addtogroup testing
/// @{

/// The requests that are sent, in order, each as Messages.h writes it.
struct Sends {
    Sends() = default;
    Sends(std::initializer_list<std::string> datagrams) : digits(datagrams) {} ///< These.

    std::vector<std::string> digits; ///< a datagram each
    bool any = false;                ///< they do not matter
};
/// Whatever they are. Defined here, so that the objects of any file that includes this may be initialised from it.
inline const Sends kAnything = [] {
    Sends sends;
    sends.any = true;
    return sends;
}();

/// The same of a request that was recorded.
std::string digits(const Request& request);

/// Lines in order. A list of lines and of logs is one log.
class Log : public std::vector<LogLine> {
public:
    Log() = default;
    Log(const LogLine& line) : vector{line} {} ///< One line.
    Log(std::initializer_list<Log> parts);     ///< All of these, in order.
};

/// A log line by its source, level, format, and what fills the format.
LogLine logLine(const std::string& source, log_level level, const char* format, ...);

/// Makes the lines that a function of the library logs, as in `core("extack").notice("No EXTACK content")`. A format
/// goes without the "%s(): " before it; one that begins differently is given whole.
struct LoggedBy {
    const char* source;   ///< as the logger is given it
    const char* function; ///< the name that the line begins with

    /// A line of level 4.
    template <typename... Arguments>
    LogLine failure(const char* format, Arguments... arguments) const
    {
        return logLine(source, log_level_failure, whole(format).c_str(), function, arguments...);
    }
    /// A line of level 3.
    template <typename... Arguments>
    LogLine notice(const char* format, Arguments... arguments) const
    {
        return logLine(source, log_level_notice, whole(format).c_str(), function, arguments...);
    }
    /// A line of level 2.
    template <typename... Arguments>
    LogLine detail(const char* format, Arguments... arguments) const
    {
        return logLine(source, log_level_detail, whole(format).c_str(), function, arguments...);
    }
    /// A line of level 1.
    template <typename... Arguments>
    LogLine verbose(const char* format, Arguments... arguments) const
    {
        return logLine(source, log_level_verbose, whole(format).c_str(), function, arguments...);
    }

private:
    static std::string whole(const std::string& format);
};

LoggedBy core(const char* function);   ///< of the library's NetlinkHelper
LoggedBy rtnl(const char* function);   ///< of its RTNetlinkHelper
LoggedBy labels(const char* function); ///< of its AddrlabelHelper
LoggedBy xfrm(const char* function);   ///< of its XFRMHelper

/// What a transaction logs when it is acknowledged.
LogLine acknowledged();

/// What a transaction logs when it is refused without a text, and then the operation that it is part of.
Log refusedBy(int error, const Log& operation = {});

/// The address that a text stands for; of family 0 when it is neither IPv4 nor IPv6.
sockaddr_storage socketAddress(const char* text);

/**
 * Compares what happened with what was expected: the requests, block by block; the whole log, raw formats too; that
 * each socket was opened as this library opens them; that no reply was left or missing, and no socket or block stayed.
 * @param kernel    what happened
 * @param sends     the requests
 * @param log       the lines
 * @param protocol  of each request
 * @param from      lines of lower levels are not compared
 * @return a line for each request that differs, as in "request 1: nlmsg_flags 0x501, not 0x500" or "request 1, block 3:
 *         offset 4: 08000000, not 07000000" (a length is told of when nothing else differs, since it follows from the
 *         rest), one for the log, and one for whatever else does; empty when nothing differs
 */
std::string unmet(const ScriptedKernel& kernel, const Sends& sends, const Log& log, int protocol = NETLINK_ROUTE,
                  log_level from = log_level_verbose);

/// @}

} // namespace Vesk::Testing

#endif
