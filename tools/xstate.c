/* Preloaded into User-Mode Linux by ./inkernel.
 *
 * That kernel saves and restores its processes' registers in a buffer of a fixed size. A processor with larger state
 * (AMX has 8 KiB of it) makes the host refuse the smaller buffer when it is written back, and the first process dies.
 * The part that is missing is zero: nothing in there uses such registers. So it is padded. */
#define _GNU_SOURCE
#include <elf.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

long ptrace(enum __ptrace_request request, ...)
{
    static char padded[1 << 14];
    struct iovec whole = {padded, sizeof padded};
    va_list arguments;
    va_start(arguments, request);
    const pid_t pid     = va_arg(arguments, pid_t);
    void* const address = va_arg(arguments, void*);
    void* data          = va_arg(arguments, void*);
    va_end(arguments);

    const int peek = request == PTRACE_PEEKTEXT || request == PTRACE_PEEKDATA || request == PTRACE_PEEKUSER;
    long word      = 0;
    if (request == PTRACE_SETREGSET && address == (void*)NT_X86_XSTATE) {
        const struct iovec* given = data;
        memset(padded, 0, sizeof padded);
        memcpy(padded, given->iov_base, given->iov_len < sizeof padded ? given->iov_len : sizeof padded);
        data = &whole;
    }
    const long result = syscall(SYS_ptrace, request, pid, address, peek ? &word : data);
    return peek && result == 0 ? word : result;
}
