// Overwrites memory that may have held a key. Not `explicit_bzero`, which the device's C library lacks: the empty
// assembly keeps the compiler from dropping the stores as dead.
#ifndef VESK_WIPE_H
#define VESK_WIPE_H

#include <cstddef>
#include <cstring>

namespace Vesk {

inline void wipe(void* memory, std::size_t size)
{
    std::memset(memory, 0, size);
    __asm__ __volatile__("" : : "r"(memory) : "memory");
}

} // namespace Vesk

#endif
