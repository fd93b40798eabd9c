// Overwrites what may have held a key: memory, and the registers that a copy passed through.
#ifndef VESK_WIPE_H
#define VESK_WIPE_H

#include <cstddef>
#include <cstring>

namespace Vesk {

// Not `explicit_bzero`, which the device's C library lacks: the empty assembly keeps the compiler from dropping the
// stores as dead.
inline void wipe(void* memory, std::size_t size)
{
    std::memset(memory, 0, size);
    __asm__ __volatile__("" : : "r"(memory) : "memory");
}

// After a key was copied, and before anything is logged: on arm64 a variadic function, such as the logger's, saves q0
// to q7 on the stack at its entry, whatever they hold.
#if __has_attribute(zero_call_used_regs)
__attribute__((noinline, zero_call_used_regs("all"))) inline void wipeRegisters()
{
    __asm__ __volatile__("");
}
#elif defined(__aarch64__)
inline void wipeRegisters()
{
#define WIPE(n) __asm__ __volatile__("movi v" #n ".2d, #0" : : : "v" #n);
    WIPE(0)
    WIPE(1)
    WIPE(2)
    WIPE(3) WIPE(4) WIPE(5) WIPE(6) WIPE(7) // the arguments
        WIPE(16) WIPE(17) WIPE(18) WIPE(19) WIPE(20) WIPE(21) WIPE(22) WIPE(23) WIPE(24) WIPE(25) WIPE(26) WIPE(27)
            WIPE(28) WIPE(29) WIPE(30) WIPE(31)
#undef WIPE
}
#else
inline void wipeRegisters() {} // a call that passes no floating-point arguments makes no other processor save them
#endif

} // namespace Vesk

#endif
