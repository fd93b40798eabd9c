// Every operation of the library, with the arguments of a daemon or with any others.
#ifndef ANY_OPERATION_H
#define ANY_OPERATION_H

#include "Operation.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Vesk::Testing {

// Makes values of bytes, from the front; when they are used up, of zeros.
class ByteSource {
public:
    ByteSource(const std::uint8_t* data, std::size_t size) : at(data), left(size) {}

    // Fills an object of any trivial type.
    template <typename Value>
    Value any()
    {
        Value value;
        take(&value, sizeof value);
        return value;
    }
    std::uint32_t below(std::size_t limit) { return any<std::uint32_t>() % static_cast<std::uint32_t>(limit); }
    bool yes() { return (any<std::uint8_t>() & 1) != 0; }

    // Bytes of any length up to a limit; their length comes first.
    std::vector<std::uint8_t> bytes(std::size_t limit);

private:
    void take(void* to, std::size_t size);

    const std::uint8_t* at;
    std::size_t left;
};

struct AnyOperation {
    std::string name;
    // The call with arguments from these bytes. Where there are none left, they are what a daemon would pass, so that
    // not all calls are refused at once.
    std::function<Operation(ByteSource&)> make;
};

// All that there are: what stands here is called with random replies and arguments, and each of its system calls and
// allocations fails once.
const std::vector<AnyOperation>& anyOperations();

} // namespace Vesk::Testing

#endif
