#include "Text.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <map>

#include <arpa/inet.h>
#include <unistd.h>

std::optional<std::int64_t> numberOf(std::string_view text)
{
    const bool hex           = text.starts_with("0x");
    const auto figures       = text.substr(hex ? 2 : 0);
    const char* const end    = figures.data() + figures.size();
    std::int64_t value       = 0;
    const auto [stop, error] = std::from_chars(figures.data(), end, value, hex ? 16 : 10);
    const bool octal         = !hex && figures.size() > 1 && figures[0] == '0';
    return error == std::errc() && stop == end && !octal ? std::optional(value) : std::nullopt;
}

std::string hexadecimal(std::uint64_t value)
{
    constexpr const char* figures = "0123456789abcdef";
    std::string text;
    do
        text.insert(text.begin(), figures[value % 16]);
    while ((value /= 16) != 0);
    return "0x" + text;
}

std::string digits(const unsigned char* bytes, std::size_t size)
{
    constexpr const char* figures = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0 && i % 4 == 0)
            text += ' ';
        text += {figures[bytes[i] / 16], figures[bytes[i] % 16]};
    }
    return text;
}

std::string addressText(const void* bytes, std::size_t size)
{
    char text[INET6_ADDRSTRLEN] = {};
    const int family            = size == sizeof(in_addr) ? AF_INET : size == sizeof(in6_addr) ? AF_INET6 : AF_UNSPEC;
    if (inet_ntop(family, bytes, text, sizeof text) == nullptr)
        return digits(static_cast<const unsigned char*>(bytes), size);
    return text;
}

namespace {

std::string painted(const char* code, const std::string& text)
{
    const char* const unwanted = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool plain           = isatty(STDOUT_FILENO) == 0 || (unwanted != nullptr && *unwanted != '\0') ||
                       (terminal != nullptr && std::strcmp(terminal, "dumb") == 0);
    return plain || text.empty() ? text : std::string("\x1b[") + code + 'm' + text + "\x1b[0m";
}

} // namespace

std::string bold(const std::string& text)
{
    return painted("1", text);
}

std::string faint(const std::string& text)
{
    return painted("2", text);
}

// strerrorname_np came to the platform's C library later than veskctl is for.
std::string errorName(int number)
{
#define NAMED(constant) std::pair(constant, #constant)
    static const std::map<int, const char*> names = {
        NAMED(EPERM),        NAMED(ENOENT),       NAMED(ESRCH),           NAMED(EINTR),           NAMED(EIO),
        NAMED(ENXIO),        NAMED(E2BIG),        NAMED(EBADF),           NAMED(EAGAIN),          NAMED(ENOMEM),
        NAMED(EACCES),       NAMED(EFAULT),       NAMED(EBUSY),           NAMED(EEXIST),          NAMED(ENODEV),
        NAMED(EINVAL),       NAMED(ENFILE),       NAMED(EMFILE),          NAMED(ENOSPC),          NAMED(EDOM),
        NAMED(ERANGE),       NAMED(ENOSYS),       NAMED(ENODATA),         NAMED(EPROTO),          NAMED(EBADMSG),
        NAMED(EOVERFLOW),    NAMED(EMSGSIZE),     NAMED(EPROTONOSUPPORT), NAMED(ESOCKTNOSUPPORT), NAMED(EOPNOTSUPP),
        NAMED(EPFNOSUPPORT), NAMED(EAFNOSUPPORT), NAMED(EADDRINUSE),      NAMED(EADDRNOTAVAIL),   NAMED(ENETDOWN),
        NAMED(ENETUNREACH),  NAMED(ECONNREFUSED), NAMED(ECONNRESET),      NAMED(ENOBUFS),         NAMED(ENOTCONN),
        NAMED(ETIMEDOUT),    NAMED(EHOSTUNREACH), NAMED(EALREADY),        NAMED(ECANCELED)};
#undef NAMED
    const auto found = names.find(number);
    return found != names.end() ? found->second : std::to_string(number);
}
