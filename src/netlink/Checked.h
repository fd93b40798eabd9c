// Arithmetic on lengths, offsets and counters that come from outside. A result that does not fit ends the process: what
// would follow from a wrapped length is worse.
#ifndef VESK_CHECKED_H
#define VESK_CHECKED_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#ifdef __ANDROID__
#include <android/set_abort_message.h>
#endif

namespace Vesk {

[[noreturn]] inline void overflowAbort(const char* operation, int line)
{
    char text[128];
    std::snprintf(text, sizeof text, "%s(): arithmetic overflow at line %d", operation, line);
#ifdef __ANDROID__
    android_set_abort_message(text);
#endif
    std::fprintf(stderr, "%s\n", text);
    std::abort();
}

// The sum, if `Result` can hold it. The operation that is named on failure is the calling function.
template <typename Result, typename A, typename B>
Result addOrAbort(A a, B b, const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    Result sum;
    if (__builtin_add_overflow(a, b, &sum))
        overflowAbort(operation, line);
    return sum;
}

// The difference, if `Result` can hold it.
template <typename Result, typename A, typename B>
Result subOrAbort(A a, B b, const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    Result difference;
    if (__builtin_sub_overflow(a, b, &difference))
        overflowAbort(operation, line);
    return difference;
}

// A value that a limit leaves no room for.
inline void limitOrAbort(std::size_t value, std::size_t limit, const char* operation = __builtin_FUNCTION(),
                         int line = __builtin_LINE())
{
    if (value > limit)
        overflowAbort(operation, line);
}

} // namespace Vesk

#endif
