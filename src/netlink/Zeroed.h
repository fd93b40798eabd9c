// A kernel structure with every byte zero, padding included: what is not assigned is sent as zeros.
#ifndef VESK_ZEROED_H
#define VESK_ZEROED_H

#include <cstring>
#include <type_traits>

namespace Vesk {

template <typename T>
T zeroed()
{
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memset(&value, 0, sizeof value);
    return value;
}

} // namespace Vesk

#endif
