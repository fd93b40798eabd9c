// The language of the wire tests. A case is a call of `check`: what happens in words, the call, its result, the requests
// that it sends, its whole log, and what the scripted kernel answers.
#ifndef WIRE_TEST_H
#define WIRE_TEST_H

#include <Expectations.h>
#include <vesk/netlink.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace wire {

using namespace Vesk::Testing;

using Operation = std::function<int()>;
using Answers = std::vector<std::vector<Reply>>; // to each request; an empty one is the usual

inline const Sends kNothing = std::vector<Sent>{};
inline const Sends kAnything = std::nullopt;
inline const std::string kSeqPid = "00000000 00000000 |";                         // of the header, which ends there
inline const std::string kEnd = " 14000000 0300 0200 00000000 00000000 00000000"; // of a dump
inline const LogLine kAcked = acknowledged();
inline const LogLine kNoExtAckText = core(3, "%s(): No EXTACK content", "extack");

inline LogLine refused(int error) { return core(4, "%s(): kernel reports error %d", "messageTransact", error); }

inline LogLine sentShort(int sent, unsigned int length) { return core(4, "%s(): sending full NL message failed: %d of %u", "messageSend", sent, length); }

inline Sends route(const std::string& digits) { return requests(NETLINK_ROUTE, {digits}); }

inline LogLine dumpRefused() { return core(4, "%s(): kernel reports errno [%d, %s]", "messageDump", EPERM, "Operation not permitted"); }

// The kernel knows "lo" as 1 and "wlan0" as 3.
inline void check(const char* what, const Operation& call, int result, const Sends& sends, const Log& log, const Answers& answers = {},
                  const std::function<void(ScriptedKernel&)>& trouble = {}, log_level from = log_level_verbose)
{
    ScriptedKernel kernel;
    kernel.addInterface("lo", 1);
    kernel.addInterface("wlan0", 3);
    kernel.answerEach(answers);
    if (trouble) trouble(kernel);
    EXPECT_EQ(kernel.run(call), result) << what;
    const std::string differences = unmet(kernel, sends, log, from);
    EXPECT_TRUE(differences.empty()) << what << '\n' << differences;
}

// Of the log, the lines of level 3 and 4 are compared.
inline void notable(const char* what, const Operation& call, int result, const Sends& sends, const Log& log, const Answers& answers = {})
{
    check(what, call, result, sends, log, answers, {}, log_level_notice);
}

} // namespace wire

#endif
