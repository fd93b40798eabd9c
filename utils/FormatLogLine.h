// What is done to every log line. Shared by whatever takes the logger's place.
#ifndef FORMAT_LOG_LINE_H
#define FORMAT_LOG_LINE_H

#include "LogMgr.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The level that VESK_LOG_LEVEL names; lines below it are for nobody.
inline int lowestLogLevel()
{
    const char* chosen = std::getenv("VESK_LOG_LEVEL");
    return chosen != nullptr ? static_cast<int>(std::strtol(chosen, nullptr, 10)) : log_level_notice;
}

// "%S" means a wide string to printf; the library passes narrow ones under it.
inline void formatLogLine(char* text, std::size_t size, const char* format, std::va_list arguments)
{
    char narrow[512];
    std::snprintf(narrow, sizeof narrow, "%s", format);
    for (char* at = narrow; (at = std::strchr(at, '%')) != nullptr && at[1] != '\0'; at += 2)
        if (at[1] == 'S')
            at[1] = 's';
    std::vsnprintf(text, size, narrow, arguments);
}

#endif
