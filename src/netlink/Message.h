// Reading a message, as callbacks do. They are noexcept, like the exchanges that call them, so that the compiler keeps
// nothing to clean up between log lines.
//
//     header      | nlmsg_len (4) | nlmsg_type (2) | nlmsg_flags (2) | nlmsg_seq (4) | nlmsg_pid (4) |
//     payload     | fixed structure of the message's type |
//     attributes  | nla_len (2) | nla_type (2) | value (nla_len - 4), padded to a multiple of 4 | ...
#ifndef VESK_MESSAGE_H
#define VESK_MESSAGE_H

#include "Checked.h"

#include <linux/netlink.h>

#include <array>
#include <cstddef>
#include <cstring>

namespace Vesk {

// The length of a message that is a header and a payload.
template <typename Payload>
constexpr unsigned int kMessageSize = NLMSG_SPACE(sizeof(Payload));

// A copy, since messages are aligned to 4 bytes only. The message must be long enough.
template <typename Payload>
Payload payloadOf(const nlmsghdr* message)
{
    Payload payload;
    std::memcpy(&payload, reinterpret_cast<const unsigned char*>(message) + NLMSG_HDRLEN, sizeof payload);
    return payload;
}

// Calls `visit` with type (without flag bits) and place of each attribute up to `maxType`. A length that is too small
// or passes the end stops the walk. Missing padding at the end ends the process.
template <typename Visit>
void forEachAttribute(nlattr* first, unsigned int len, unsigned int maxType, Visit visit,
                      const char* operation = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    auto* at = reinterpret_cast<unsigned char*>(first);
    while (len >= NLA_HDRLEN) {
        nlattr header; // a copy: the run may begin anywhere
        std::memcpy(&header, at, sizeof header);
        if (header.nla_len < NLA_HDRLEN || header.nla_len > len)
            return;

        const unsigned int type = header.nla_type & NLA_TYPE_MASK;
        if (type <= maxType)
            visit(type, reinterpret_cast<nlattr*>(at));

        const unsigned int step = NLA_ALIGN(static_cast<unsigned int>(header.nla_len));
        len                     = subOrAbort<unsigned int>(len, step, operation, line);
        at += step;
    }
}

// The attributes of one message by type, the last one of a type winning. Lives on the stack of a callback.
template <unsigned int maxType>
class AttributeTable {
public:
    AttributeTable() = default;
    AttributeTable(nlattr* first, unsigned int len, const char* operation = __builtin_FUNCTION(),
                   int line = __builtin_LINE())
    {
        const auto keep = [this](unsigned int type, nlattr* attribute) { byType[type] = attribute; };
        forEachAttribute(first, len, maxType, keep, operation, line);
    }

    // Those that follow the payload of a message, which begin `start` bytes into it.
    AttributeTable(nlmsghdr* message, unsigned int start, const char* operation = __builtin_FUNCTION(),
                   int line = __builtin_LINE())
        : AttributeTable(reinterpret_cast<nlattr*>(reinterpret_cast<unsigned char*>(message) + start),
                         subOrAbort<unsigned int>(message->nlmsg_len, start, operation, line), operation, line)
    {}

    // Null when the message carries none.
    nlattr* operator[](unsigned int type) const { return byType[type]; }

private:
    std::array<nlattr*, maxType + 1> byType{};
};

inline void* attributeValue(nlattr* attribute)
{
    return reinterpret_cast<unsigned char*>(attribute) + NLA_HDRLEN;
}

// Bytes of the value.
inline std::size_t attributeLength(const nlattr* attribute)
{
    nlattr header;
    std::memcpy(&header, attribute, sizeof header);
    return static_cast<std::size_t>(header.nla_len - NLA_HDRLEN);
}

// Whether the value is one of 32 bits and nothing else.
inline bool holdsU32(const nlattr* attribute)
{
    return attributeLength(attribute) == sizeof(__u32);
}

// The value's first 32 bits. The caller has checked the length.
inline __u32 u32Of(nlattr* attribute)
{
    __u32 value;
    std::memcpy(&value, attributeValue(attribute), sizeof value);
    return value;
}

} // namespace Vesk

#endif
