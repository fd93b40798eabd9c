/**
 * @file
 * Any operation of the library with any arguments, made from bytes: for fuzzing, soaks and load.
 */
#ifndef VESK_ANY_OPERATION_H
#define VESK_ANY_OPERATION_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Vesk::Testing {

/// Makes values of bytes, from the front; when they are used up, of zeros.
class ByteSource {
public:
    ByteSource(const std::uint8_t* data, std::size_t size) : at(data), left(size) {}

    /// Fills an object of any trivial type.
    template <typename Value>
    Value any()
    {
        Value value;
        take(&value, sizeof value);
        return value;
    }
    std::uint32_t below(std::uint32_t limit) { return any<std::uint32_t>() % limit; }
    bool yes() { return (any<std::uint8_t>() & 1) != 0; }

    /// Bytes of any length up to a limit; their length comes first.
    std::vector<std::uint8_t> bytes(std::size_t limit);
    std::string text(std::size_t limit);

private:
    void take(void* to, std::size_t size);

    const std::uint8_t* at;
    std::size_t left;
};

/// How many kinds of calls there are.
constexpr std::uint32_t kOperations = 23;

/**
 * A call of an exported operation, of a kind below kOperations, to be called any number of times. Where the source has
 * nothing left, its arguments are what a daemon would pass: the device "wlan0", an IPv4 address, a valid record. So not
 * all are refused at once.
 */
std::function<void()> anyOperation(std::uint32_t kind, ByteSource& source);

} // namespace Vesk::Testing

#endif
