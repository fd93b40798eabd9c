// Where the platform's C library is stricter than this machine's: part of the wire tests in the preset `libcxx`.
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

extern "C" {

// A stack is of whole pages.
int pthread_attr_setstack(pthread_attr_t* attributes, void* stack, std::size_t size)
{
    const auto next = reinterpret_cast<decltype(&pthread_attr_setstack)>(dlsym(RTLD_NEXT, "pthread_attr_setstack"));
    return (reinterpret_cast<std::uintptr_t>(stack) | size) % 4096 == 0 ? next(attributes, stack, size) : EINVAL;
}

// An allocator may call close() while it starts, and is not ready then.
void* __libc_malloc(std::size_t size); // NOLINT(bugprone-reserved-identifier,cert-*): the name is the C library's

void* malloc(std::size_t size)
{
    static pthread_once_t started = PTHREAD_ONCE_INIT;
    pthread_once(&started, [] { close(-1); });
    return __libc_malloc(size);
}

} // extern "C"
