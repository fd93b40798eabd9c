// The language of the wire tests: a case is a row with named fields, in the order in which things happen.
#ifndef WIRE_TEST_H
#define WIRE_TEST_H

#include "Described.h"

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
inline const LogLine kNoText  = core("extack").notice("No EXTACK content");
inline const Log kDumpRefused = core("messageDump").failure("kernel reports errno [%d, %s]", EPERM, strerror(EPERM));

inline Log denied(const LogLine& operation)
{
    return refusedBy(-EPERM, operation);
}

inline LogLine miscounted(int sent, unsigned length)
{
    return core("messageSend").failure("sending full NL message failed: %d of %u", sent, length);
}

// A line of level 4 that ends in an errno and its text.
inline LogLine withErrno(const LoggedBy& by, const char* format, int error)
{
    return by.failure(format, error, strerror(error));
}

// A kernel with the devices "lo" and "wlan0", 1 and 3, to which nothing is sent that the description does not know.
struct Kernel : ScriptedKernel {
    Kernel()
    {
        addInterface("lo", 1);
        addInterface("wlan0", 3);
    }
    ~Kernel()
    {
        if (const std::string unknown = undescribed(requests()); !unknown.empty())
            ADD_FAILURE() << unknown;
    }
};

inline auto failing(Call call, int error, int nth = 1)
{
    return [=](ScriptedKernel& kernel) { kernel.fail(call, error, nth); };
}

using Answers = std::vector<std::vector<Reply>>; // to each request; an empty one is the usual

// What a row says of its requests or its log. One that says nothing means the usual, kNothing that there are none.
inline constexpr struct Nothing {
} kNothing;
template <typename Told>
struct Said : Told {
    using Told::Told;
    Said() : said(false) {}
    Said(const Told& told) : Told(told) {}
    Said(Nothing) {}
    bool said = true;
};

struct Case {
    const char* what                           = nullptr; // the first line of the log, where that says it all
    std::function<void(ScriptedKernel&)> given = {};      // said to the kernel first
    Answers answers                            = {};
    Operation call                             = {};
    std::optional<Result> result               = {}; // 0
    std::optional<int> error                   = {}; // errno after it; a failure names it, of a success only dumps do
    Said<Sends> sends                          = {};
    Said<Log> log                              = {}; // all lines, or
    Said<Log> steps                            = {}; // those of level 3 and 4
};

// Runs cases. What a case leaves out is as in the one that is given here; what that leaves out is nothing, 0, or what
// kernels say when all is well.
class Check {
public:
    explicit Check(Case common = {}, int protocolOfAll = NETLINK_ROUTE)
        : usual(std::move(common)), protocol(protocolOfAll)
    {}

    void operator()(const Case& row, const char* file = __builtin_FILE(), int line = __builtin_LINE()) const
    {
        const Said<Log>& said      = row.steps.said ? row.steps : row.log.said ? row.log : usual.log;
        const std::string what     = row.what != nullptr ? row.what : said.empty() ? "" : said.front().text;
        const std::string expected = row.result.value_or(usual.result.value_or(0)).text;
        const bool fails           = expected.find("-1") != std::string::npos;
        const std::optional named  = row.error || !fails ? row.error : usual.error;
        const testing::ScopedTrace trace(file, line, what);
        Kernel kernel;
        kernel.answerEach(row.answers.empty() ? usual.answers : row.answers);
        if (row.given || usual.given)
            (row.given ? row.given : usual.given)(kernel);

        const Result result = kernel.run(row.call ? row.call : usual.call);
        const int error     = errno;
        const Sends& sends  = row.sends.said ? row.sends : usual.sends;
        std::string differences =
            differingFields(kernel.requests(), sends) +
            unmet(kernel, sends, said, protocol, row.steps.said ? log_level_notice : log_level_verbose);
        if (result.text != expected)
            differences += std::string("result ") + result.text + ", not " + expected + '\n';
        if (!named && fails)
            differences += "the row does not say which errno it fails with\n";
        if (named && error != *named)
            differences += "errno " + std::to_string(error) + ", not " + std::to_string(*named) + '\n';
        if (!differences.empty())
            ADD_FAILURE_AT(file, line) << shown(differences, testing::Test::HasFailure());
    }

    // After the first row of a test that fails others tend to fail likewise: of these the first line.
    static std::string shown(const std::string& differences, bool laterRow)
    {
        return differences.substr(0, laterRow ? differences.find('\n') + 1 : std::string::npos);
    }

private:
    Case usual;
    int protocol;
};

// The usual ways to check the operations of a protocol.
struct Checks {
    explicit Checks(int protocol)
        : check({}, protocol), acked({.log = kAcked}, protocol), rejects({.result = -1, .error = EINVAL}, protocol),
          refused({.answers = {{refusal(-EPERM)}}, .result = -1, .error = EPERM, .sends = kAnything}, protocol)
    {}
    Check check;
    Check acked;   // sends, and the kernel acknowledges it
    Check rejects; // fails, and sends nothing
    Check refused; // fails, since the kernel refuses the first request
};

} // namespace wire

#endif
