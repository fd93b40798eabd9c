// A kernel structure with every byte zero, padding included: what is not assigned is sent as zeros.
#ifndef VESK_ZEROED_H
#define VESK_ZEROED_H

#include <type_traits>

namespace Vesk {

// `T()` zeroes padding too, unlike `T{}`; nothing is copied on the way out.
template <typename T>
T zeroed()
{
    static_assert(std::is_trivial_v<T>);
    return T();
}

} // namespace Vesk

#endif
