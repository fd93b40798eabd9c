// How a line is logged. Each source names itself in `kLogSource`; the function's name is the first argument of nearly
// every format, so the macros add it. Formats are literals where they are logged, so that the compiler checks them and
// a search for a message finds its line. A line never changes errno, which says why an operation failed.
#ifndef VESK_LOG_H
#define VESK_LOG_H

#include "Errno.h"

#include <LogMgr.h>

namespace Vesk {

// Keeps errno while a line is logged. The platform's logger may change it on first use, before the line's arguments
// read it, and while it writes.
class LogCall {
public:
    [[nodiscard]] LogMgr& logger() const
    {
        LogMgr& instance = LogMgr::getInstance();
        kept.restore();
        return instance;
    }

private:
    KeptErrno kept;
};

} // namespace Vesk

// LOG(notice, "%s(): updating %u", label): a line of level 3 under the name of the function that logs it.
#define LOG(level, format, ...) LOG_AS(level, __func__, format __VA_OPT__(, ) __VA_ARGS__)

// The same under a given name, where functions share the code that logs.
#define LOG_AS(level, name, format, ...) LOG_TEXT(level, format, name __VA_OPT__(, ) __VA_ARGS__)

// The same without a name.
#define LOG_TEXT(level, ...) ::Vesk::LogCall().logger().doLog(log_level_##level, kLogSource, __LINE__, __VA_ARGS__)

// Logs a line, then yields a value to return: `return YIELD(NetlinkQueryContinue, failure, "%s(): Wrong type");`
// The value is a constant, or errno would be put back after a call for it.
#define YIELD(value, ...)    (LOG(__VA_ARGS__), value)
#define YIELD_AS(value, ...) (LOG_AS(__VA_ARGS__), value)

// Logs a failure and yields the -1 that reports it. Where a caller of the library sees it, the reason is in errno
// already: the call that failed left it there.
#define FAIL(...) YIELD(-1, failure, __VA_ARGS__)

// The same, with this reason: `return FAIL_WITH(EINVAL, "%s(): Invalid family %u", family);`
#define FAIL_WITH(reason, ...) (errno = (reason), FAIL(__VA_ARGS__))

// Around a statement that logs a format with "%S" and passes a narrow string: the logger reads that as "%s", which the
// compiler's check cannot know.
// NOLINTBEGIN(bugprone-macro-parentheses): a statement has none
#define WITH_CAPITAL_S(statement)                                                                                      \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wformat\"") statement;                           \
    _Pragma("GCC diagnostic pop")
// NOLINTEND(bugprone-macro-parentheses)

#endif
