#include "LogMgr.h"

#include "FormatLogLine.h"

LogMgr& LogMgr::getInstance()
{
    static LogMgr instance;
    return instance;
}

void LogMgr::doLog(log_level level, const char* file, unsigned int line, const char* format, ...)
{
    static const int lowest = lowestLogLevel();
    if (level < lowest)
        return;

    char text[2048];
    std::va_list arguments;
    va_start(arguments, format);
    formatLogLine(text, sizeof text, format, arguments);
    va_end(arguments);
    for (char* feed = text; (feed = std::strchr(feed, '\n')) != nullptr;)
        *feed = feed[1] != '\0' ? ' ' : '\0';

    static const char letters[] = "?VDNF";
    std::fprintf(stderr, "%c %s:%u %s\n", letters[level <= log_level_failure ? level : 0], file, line, text);
}
