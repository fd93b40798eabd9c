// errno says why an operation failed. It is set where the failure is found, and nothing on the way out may change it:
// neither a log line nor the close of a socket. free() leaves it alone, as POSIX asks of it.
#ifndef VESK_ERRNO_H
#define VESK_ERRNO_H

#include <cerrno>

namespace Vesk {

// Puts errno back when it goes out of scope, whatever was called meanwhile.
class KeptErrno {
public:
    KeptErrno() = default;
    ~KeptErrno() { restore(); }
    KeptErrno(const KeptErrno&)            = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

    void restore() const { errno = error; }

private:
    const int error = errno;
};

} // namespace Vesk

#endif
