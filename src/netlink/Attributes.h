// Reading attributes:
//
//     | nla_len (2) | nla_type (2) | value (nla_len - 4) | padding to a multiple of 4 | next attribute ...
#ifndef VESK_ATTRIBUTES_H
#define VESK_ATTRIBUTES_H

#include "Checked.h"

#include <linux/netlink.h>

#include <array>
#include <cstddef>
#include <cstring>

namespace Vesk {

// Shows `visit` the type, without flag bits, and the place of each attribute whose type is at most `maxType`. A length
// below the header's or beyond the run ends the walk; padding that is missing at the run's end ends the process.
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
    AttributeTable(nlattr* first, unsigned int len, const char* operation = __builtin_FUNCTION(),
                   int line = __builtin_LINE())
    {
        const auto keep = [this](unsigned int type, nlattr* attribute) { byType[type] = attribute; };
        forEachAttribute(first, len, maxType, keep, operation, line);
    }

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

} // namespace Vesk

#endif
