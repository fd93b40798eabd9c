// The language of the wire tests: a case is a row with named fields, in the order in which things happen.
#ifndef WIRE_TEST_H
#define WIRE_TEST_H

#include <Operation.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace wire {

using namespace Vesk::Testing;
using namespace Vesk;

constexpr int kAck   = NLM_F_REQUEST | NLM_F_ACK;
constexpr int kNew   = kAck | NLM_F_EXCL | NLM_F_CREATE;
constexpr int kDump  = NLM_F_REQUEST | NLM_F_DUMP;
constexpr int kMulti = NLM_F_MULTI;

inline const std::string kEnd = endOfDump();
inline const LogLine kAcked   = acknowledged();
inline const LogLine kNoText  = core("extack")(3, "No EXTACK content");
inline const Log kDumpRefused = core("messageDump")(4, "kernel reports errno [%d, %s]", EPERM, strerror(EPERM));

inline const auto miscounted = [](int sent, unsigned length) {
    return core("messageSend")(4, "sending full NL message failed: %d of %u", sent, length);
};

// A line of level 4 that ends in an errno and its text.
inline const auto failure = [](const LoggedBy& by, const char* format, int error) {
    return by(4, format, error, strerror(error));
};

using Answers = std::vector<std::vector<Reply>>; // to each request; an empty one is the usual

struct Case {
    const char* what                           = nullptr; // the first line of the log, where that says it all
    std::function<void(ScriptedKernel&)> given = {}; // said to the kernel first; it knows "lo" as 1 and "wlan0" as 3
    Answers answers                            = {};
    Operation call                             = {};
    std::optional<Result> result               = {}; // 0
    std::optional<int> error                   = {}; // errno after it; a failure names it, of a success only dumps do
    Sends sends                                = {};
    Log log                                    = {};
};

// Runs cases. What a case leaves out is as in the one that is given here.
class Check {
public:
    explicit Check(Case common = {}, int protocolOfAll = NETLINK_ROUTE, log_level lowest = log_level_verbose)
        : usual(std::move(common)), protocol(protocolOfAll), from(lowest)
    {}

    void operator()(const Case& row, const char* file = __builtin_FILE(), int line = __builtin_LINE()) const
    {
        const std::string what     = row.what != nullptr ? row.what : row.log.empty() ? "" : row.log.front().text;
        const std::string expected = row.result.value_or(usual.result.value_or(0)).text;
        const bool fails           = expected.find("-1") != std::string::npos;
        const std::optional named  = row.error || !fails ? row.error : usual.error;
        ScriptedKernel kernel;
        kernel.addInterface("lo", 1);
        kernel.addInterface("wlan0", 3);
        kernel.answerEach(row.answers.empty() ? usual.answers : row.answers);
        if (row.given || usual.given)
            (row.given ? row.given : usual.given)(kernel);

        std::string differences;
        {
            const testing::ScopedTrace trace(file, line, what);
            const Result result = kernel.run(row.call ? row.call : usual.call);
            const int error     = errno;
            if (result.text != expected)
                differences = std::string("result ") + result.text + ", not " + expected + '\n';
            if (!named && fails)
                differences += "the row does not say which errno it fails with\n";
            if (named && error != *named)
                differences += "errno " + std::to_string(error) + ", not " + std::to_string(*named) + '\n';
        }
        const bool sends = row.sends.any || !row.sends.digits.empty();
        differences +=
            unmet(kernel, sends ? row.sends : usual.sends, row.log.empty() ? usual.log : row.log, protocol, from);
        if (!differences.empty()) // in full for the first case of a test that fails, since others tend to fail likewise
            ADD_FAILURE_AT(file, line) << what << '\n' << (testing::Test::HasFailure() ? "" : differences);
    }

private:
    Case usual;
    int protocol;
    log_level from;
};

namespace routing {
inline const Check check;
inline const Check acked({.log = kAcked});
inline const Check rejects({.result = -1}); // sends nothing
inline const Check refused({.answers = {{refusal(-EPERM)}}, .result = -1, .error = EPERM, .sends = kAnything});
} // namespace routing

} // namespace wire

#endif
