// The language of the wire tests. A case is a call of `check`: what happens in words, the call, its result, the requests
// that it sends, its whole log, and what the scripted kernel answers.
#ifndef WIRE_TEST_H
#define WIRE_TEST_H

#include <Expectations.h>
#include <vesk/netlink.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace wire {

using namespace Vesk::Testing;

using Operation = std::function<int()>;
using Log = std::vector<LogLine>;

inline Log operator+(Log first, const Log& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline const Sends kNothing = std::vector<Sent>{};
inline const Sends kAnything = std::nullopt;

inline Sends route(std::string digits)
{
    return {{{NETLINK_ROUTE, std::move(digits)}}};
}

// The kernel knows "lo" as 1 and "wlan0" as 3; requests without an answer get what `answerAsUsual` gives.
inline void check(const char* what, const Operation& call, int result, const Sends& sends, const Log& log,
                  const std::vector<Reply>& answer = {}, const std::function<void(ScriptedKernel&)>& trouble = {},
                  log_level from = log_level_verbose)
{
    ScriptedKernel kernel;
    kernel.addInterface("lo", 1);
    kernel.addInterface("wlan0", 3);
    if (!answer.empty())
        kernel.answer(answer);
    if (trouble)
        trouble(kernel);
    EXPECT_EQ(kernel.run(call), result) << what;
    const std::string differences = unmet(kernel, sends, log, from);
    EXPECT_TRUE(differences.empty()) << what << '\n'
                                     << differences;
}

// Lines of the sources.
template <typename... Arguments>
LogLine core(int level, const char* format, Arguments... arguments)
{
    return logLine("src/netlink/NetlinkHelper", level, format, arguments...);
}
inline const LogLine kAcked = core(3, "%s(): NL ACK received form kernel", "messageTransact");
inline const LogLine kNoExtAckText = core(3, "%s(): No EXTACK content", "extack");

inline LogLine refused(int error)
{
    return core(4, "%s(): kernel reports error %d", "messageTransact", error);
}

inline LogLine sentShort(int sent, unsigned int length)
{
    return core(4, "%s(): sending full NL message failed: %d of %u", "messageSend", sent, length);
}

} // namespace wire

#endif
