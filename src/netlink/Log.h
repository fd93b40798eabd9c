// How a line is logged. Each source names itself in `kLogSource`; the function's name is the first argument of nearly
// every format, so the macros add it. Formats are literals where they are logged, so that the compiler checks them and
// a search for a message finds its line.
#ifndef VESK_LOG_H
#define VESK_LOG_H

#include <LogMgr.h>

#include <cerrno>

namespace Vesk {

// The platform's logger may change errno when it is first used, before the arguments that read it are evaluated.
inline LogMgr& logger()
{
    const int error  = errno;
    LogMgr& instance = LogMgr::getInstance();
    errno            = error;
    return instance;
}

} // namespace Vesk

// LOG(notice, "%s(): updating %u", label): a line of level 3 under the name of the function that logs it.
#define LOG(level, format, ...) LOG_AS(level, __func__, format __VA_OPT__(, ) __VA_ARGS__)

// The same under a given name, where functions share the code that logs.
#define LOG_AS(level, name, format, ...) LOG_TEXT(level, format, name __VA_OPT__(, ) __VA_ARGS__)

// The same without a name.
#define LOG_TEXT(level, ...) ::Vesk::logger().doLog(log_level_##level, kLogSource, __LINE__, __VA_ARGS__)

// Logs a failure and yields the -1 that reports it: `return FAIL("%s(): no such device %s", device.c_str());`
#define FAIL(format, ...) (LOG(failure, format __VA_OPT__(, ) __VA_ARGS__), -1)

#endif
