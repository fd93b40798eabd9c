// The kernel's messages, field by field: what the library sends, and what is in the kernel's answers to a list.
// Descriptions.cpp says what there is; to know one more attribute, it takes one more line there.
#ifndef VESK_MESSAGES_DECODE_H
#define VESK_MESSAGES_DECODE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Vesk::Messages {

// How bytes are read. Nothing is "usual" where they are all 0, and for limits and masks where all bits are set.
enum class Kind {
    Number,
    Limit,   // a number, or none
    Hex,     // a number that is read in hexadecimal
    Mask,    // so are its bits; all are set when it leaves nothing out
    Big,     // a number in network order
    BigHex,  // and read in hexadecimal
    BigMask, // and read as a mask
    Word,    // a number whose values have names
    Flags,   // a number whose bits have names
    Family,  // that of the addresses beside it
    Device,  // the index of one
    Handle,  // of traffic control, 1:2
    Time,    // since 1970
    Prefix,  // the prefix length of the address that has the same name in lists
    Address,
    Text,
    Bytes,
    Bitmap, // of words of 32 bits, the lowest first; read as one number in hexadecimal
    Key,
    Header,  // of an attribute
    Padding, // between the fields, and behind an attribute
    Unknown, // what the description lacks
};

struct Field {
    std::string part;     // the structure or attribute that it is in
    std::string name;     // empty for an attribute that is one value
    std::string listed;   // its name in lists; empty where they have no use for it
    std::string group;    // in lists, the array of objects that it is in,
    std::size_t item = 0; // and in which of them
    Kind kind        = Kind::Unknown;
    std::size_t at = 0, size = 0;           // in the message; with header and padding of an attribute that is one value
    std::size_t valueAt = 0, valueSize = 0; // without them
    std::variant<std::monostate, std::uint64_t, std::string> value = {};
    std::vector<std::string> words                                 = {}; // names of the value, or of its bits
    std::string text                                               = {}; // the value as it is best read
    int prefix                                                     = -1; // the prefix length of an address that has one
    bool usual                                                     = false;
    bool unnamed = false; // there are names for such a value, but for this one, or one of its bits

    // "xfrm_usersa_info id.spi", "XFRMA_SET_MARK"
    [[nodiscard]] std::string where() const { return name.empty() ? part : part + ' ' + name; }
    // As lists have it: "esp", "10.0.0.0/16"
    [[nodiscard]] std::string inWords() const;
    // 0 where it is none
    [[nodiscard]] std::uint64_t number() const;
};

using Fields = std::vector<Field>;

// All fields of one message, in order; each of its bytes is in one of them. A key has neither value nor text.
Fields decode(int protocol, std::span<const unsigned char> message);

// The last one of this name in lists, or of this attribute; or null.
const Field* fieldOf(const Fields& fields, std::string_view name);

// What lists may show of a message, in the order of its description: no values, and no name twice.
Fields listed(int protocol, unsigned int type);

// "add, del, list": the texts of what there is.
template <typename Range, typename TextOf = std::identity>
std::string joined(const Range& all, const char* between = ", ", const TextOf& textOf = {})
{
    std::string text;
    for (const auto& each : all) {
        text += text.empty() ? "" : between;
        text += textOf(each);
    }
    return text;
}

// The numbers of IP protocols, by the words that lists have for them.
std::map<std::string, std::uint64_t> ipProtocols();

// "NETLINK_XFRM"
std::string protocolName(int protocol);

// "ENOENT"; the number where the kernel's networking has no use for that errno.
std::string errorName(int number);

// "0x1001"
std::string hexadecimal(std::uint64_t value);

// Two digits a byte, a space after every fourth.
std::string digits(const unsigned char* bytes, std::size_t size);

// Whether all bytes are 0.
bool isZero(std::span<const unsigned char> bytes);

// IPv4 of 4 bytes, IPv6 of 16; digits of any other number.
std::string addressText(const void* bytes, std::size_t size);

} // namespace Vesk::Messages

#endif
