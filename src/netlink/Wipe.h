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

// After a key was copied, and before anything is logged: on arm64 a variadic function, such as the logger's, saves the
// registers that arguments may be in (x0 to x7, q0 to q7) on the stack at its entry, whatever they hold.
#if __has_attribute(zero_call_used_regs)
__attribute__((noinline, zero_call_used_regs("all"))) inline void wipeRegisters()
{
    __asm__ __volatile__(""); // or the call of a function that does nothing is dropped
}
#elif defined(__aarch64__)
__attribute__((noinline)) inline void wipeRegisters() // all that a call may change; x18 is the platform's own
{
    __asm__ __volatile__(
        ".irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17\n"
        "mov x\\n, xzr\n"
        ".endr\n"
        ".irp n, 0, 1, 2, 3, 4, 5, 6, 7, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31\n"
        "movi v\\n\\().2d, #0\n"
        ".endr"
        :
        :
        : "x0", "x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10", "x11", "x12", "x13", "x14", "x15", "x16",
          "x17", "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23",
          "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31");
}
#else
inline void wipeRegisters() {} // no other processor saves registers for a call without floating-point arguments
#endif

} // namespace Vesk

#endif
