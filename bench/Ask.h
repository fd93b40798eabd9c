// What a job asks of the kernel, written once for all columns but the library's own.
#ifndef VESK_BENCH_ASK_H
#define VESK_BENCH_ASK_H

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <linux/netlink.h>
#include <sys/uio.h>

namespace Bench {

using Bytes = std::vector<unsigned char>;

constexpr unsigned int kMaxType = 31;
using Table                     = std::array<const nlattr*, kMaxType + 1>; // a message's attributes by type

// One request, and what its reply must hold.
struct Ask {
    int protocol;
    std::uint16_t type, flags;
    Bytes payload;
    std::vector<std::pair<int, Bytes>> attributes = {};
    std::size_t replyPayload                      = 0; // bytes ahead of a reply's attributes

    // Sees each message of the reply; null: an acknowledgement is awaited.
    std::function<void(const nlmsghdr*, const Table&)> consume = nullptr;

    // The request for the floor, and its pieces as this library hands them to the kernel.
    std::vector<Bytes> blocks    = {};
    std::vector<iovec> gathering = {};
};

[[noreturn]] inline void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

template <typename Value>
Bytes bytesOf(const Value& value)
{
    const auto* from = reinterpret_cast<const unsigned char*>(&value);
    return {from, from + sizeof value};
}

inline std::uint32_t u32Of(const nlattr* attribute)
{
    std::uint32_t value;
    std::memcpy(&value, reinterpret_cast<const char*>(attribute) + NLA_HDRLEN, sizeof value);
    return value;
}

} // namespace Bench

#endif
