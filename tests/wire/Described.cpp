#include "Described.h"

#include <Decode.h>

#include <algorithm>
#include <cstring>

using namespace Vesk::Messages;
using Vesk::Testing::Bytes;

namespace wire {

static bool isMadeUp(const Bytes& message)
{
    nlmsghdr header = {};
    std::memcpy(&header, message.data(), std::min(sizeof header, message.size()));
    return header.nlmsg_type == kMadeUp;
}

// Lengths follow from the rest.
static bool isLength(const Field& field)
{
    return field.kind == Kind::Header || field.name == "nlmsg_len";
}

static std::string difference(int protocol, const Bytes& expected, const Bytes& actual)
{
    const std::vector<Field> one = decode(protocol, expected), other = decode(protocol, actual);
    for (std::size_t i = 0; i < std::max(one.size(), other.size()); ++i) {
        const Field end, &wanted = i < one.size() ? one[i] : end, &found = i < other.size() ? other[i] : end;
        if (found.where() != wanted.where())
            return (i < other.size() ? found.where() : "the end") + ", not " +
                   (i < one.size() ? wanted.where() : "the end") + '\n';
        if (found.text != wanted.text && !isLength(found))
            return found.where() + ' ' + found.text + ", not " + wanted.text + '\n';
    }
    return "";
}

std::string undescribed(const std::vector<Vesk::Testing::Request>& requests)
{
    std::string text;
    for (const auto& request : requests)
        if (!isMadeUp(request.datagram))
            for (const Field& field : decode(request.protocol, request.datagram))
                if (field.kind == Kind::Unknown || field.unnamed)
                    text +=
                        "not described in tools/messages/Descriptions.cpp: " + field.where() + ' ' + field.text + '\n';
    return text;
}

std::string differingFields(const std::vector<Vesk::Testing::Request>& requests, const Vesk::Testing::Sends& expected)
{
    std::string text;
    for (std::size_t i = 0; i < std::min(requests.size(), expected.digits.size()); ++i) {
        const auto& [actual, wanted] = std::pair(requests[i].datagram, Vesk::Testing::hex(expected.digits[i]));
        if (const std::string found = difference(requests[i].protocol, wanted, actual); !found.empty())
            text += "request " + std::to_string(i + 1) + ": " + found;
    }
    return text;
}

} // namespace wire
