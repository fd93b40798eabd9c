#include "Messages.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <linux/netlink.h>

namespace Vesk::Testing {

namespace {

template <typename Number>
std::string number(Number value)
{
    return digitsOf(&value, sizeof value) + ' ';
}

// A value that does not fit is no other value.
template <typename Narrow>
Narrow fitting(int value)
{
    if (!std::in_range<Narrow>(value))
        throw std::out_of_range("a field cannot hold " + std::to_string(value));
    return static_cast<Narrow>(value);
}

std::string u8(int value)
{
    return number(fitting<std::uint8_t>(value));
}

std::string u16(int value)
{
    return number(fitting<std::uint16_t>(value));
}

std::string port(int value)
{
    return number(htons(fitting<std::uint16_t>(value)));
}

std::string address(const char* text)
{
    std::uint8_t bytes[16] = {};
    if (*text != '\0' && inet_pton(AF_INET, text, bytes) != 1 && inet_pton(AF_INET6, text, bytes) != 1)
        throw std::invalid_argument(std::string("no address: ") + text);
    return digitsOf(bytes, sizeof bytes) + ' ';
}

// An xfrm_id.
std::string xfrmId(const char* daddr, std::uint32_t spi, int proto)
{
    return address(daddr) + number(htonl(spi)) + u8(proto) + "3*00 ";
}

std::string lifetime(std::uint64_t limit)
{
    return number(limit) + number(limit) + number(limit) + number(limit) + "32*00 ";
}

// A text in 64 bytes.
std::string name(const char* text)
{
    char bytes[64] = {};
    std::strncpy(bytes, text, sizeof bytes - 1);
    return digitsOf(bytes, sizeof bytes) + ' ';
}

std::size_t sizeOf(const std::string& digits)
{
    return hex(digits).size();
}

std::string padding(std::size_t size)
{
    std::string zeros(2 * (NLA_ALIGN(size) - size), '0');
    return zeros;
}

// Blocks, divided by bars.
std::string behind(const std::string& head, Blocks blocks)
{
    std::string text = spelledOut(head);
    for (const std::string& block : blocks)
        text += '|' + spelledOut(block);
    return text;
}

std::string attributeHeader(int type, std::size_t valueSize)
{
    return u16(static_cast<int>(NLA_HDRLEN + valueSize)) + u16(type);
}

} // namespace

std::string spelledOut(const std::string& digits)
{
    std::string text;
    for (std::size_t at = 0; at < digits.size(); ++at) {
        if (digits[at] == '*') { // the digits before it, back to a space or a bar, are a count
            const std::size_t start = digits.find_last_of(" |", at) + 1;
            const std::string count = digits.substr(start, at - start);
            if (count.empty() || count.size() > 4 || count.find_first_not_of("0123456789") != std::string::npos)
                throw std::invalid_argument("no count: " + digits);
            text.resize(text.size() - count.size());
            for (int times = std::stoi(count); times > 0; --times)
                text += digits.substr(at + 1, 2);
            at += 2;
        } else if (digits[at] != ' ') {
            text += digits[at];
        }
    }
    return text;
}

Bytes hex(const std::string& digits)
{
    std::string text = spelledOut(digits);
    std::erase(text, '|');
    if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw std::invalid_argument("no hexadecimal bytes: " + digits);
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::string digitsOf(const void* data, std::size_t size)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const auto* byte = static_cast<const std::uint8_t*>(data); size > 0; --size, ++byte)
        text += {digits[*byte >> 4], digits[*byte & 15]};
    return text;
}

std::string message(int type, int flags, Blocks blocks)
{
    const auto length = static_cast<std::uint32_t>(NLMSG_HDRLEN + sizeOf(behind("", blocks)));
    return behind(number(length) + u16(type) + u16(flags) + "8*00", blocks) + padding(length);
}

std::string attr(int type, const std::string& value)
{
    const std::size_t size = sizeOf(value);
    return spelledOut(attributeHeader(type, size) + value) + padding(size);
}

std::string attr(int type, std::uint32_t value)
{
    return attr(type, number(value));
}

std::string nest(int type, Blocks attributes)
{
    return behind(attributeHeader(type | NLA_F_NESTED, sizeOf(behind("", attributes))), attributes);
}

XfrmSelector::operator std::string() const
{
    return address(daddr) + address(saddr) + "8*00 " + u16(family) + u8(prefixlen_d) + u8(prefixlen_s) + u8(proto) +
           "11*00 ";
}

XfrmUsersaInfo::operator std::string() const
{
    return std::string(XfrmSelector()) + xfrmId(daddr, spi, proto) + address(saddr) + lifetime(lft) + "52*00 " +
           u16(family) + u8(mode) + u8(0) + u8(flags) + "7*00 ";
}

XfrmUsersaId::operator std::string() const
{
    return address(daddr) + number(htonl(spi)) + u16(family) + u8(proto) + "00 ";
}

XfrmAlgo::operator std::string() const
{
    return name(alg_name) + number(static_cast<std::uint32_t>(8 * sizeOf(alg_key))) + alg_key;
}

XfrmAlgoAuth::operator std::string() const
{
    return name(alg_name) + number(static_cast<std::uint32_t>(8 * sizeOf(alg_key))) + number(alg_trunc_len) + alg_key;
}

XfrmEncapTmpl::operator std::string() const
{
    return u16(encap_type) + port(encap_sport) + port(encap_dport) + "18*00 ";
}

XfrmReplayState::operator std::string() const
{
    return number(oseq) + number(seq) + number(bitmap);
}

XfrmReplayStateEsn::operator std::string() const
{
    return number(bmp_len) + number(oseq) + number(seq) + number(oseq_hi) + number(seq_hi) + number(replay_window);
}

XfrmUserpolicyInfo::operator std::string() const
{
    return std::string(sel) + lifetime(lft) + "32*00 " + number(priority) + "4*00 " + u8(dir) + "7*00 ";
}

XfrmUserpolicyId::operator std::string() const
{
    return std::string(sel) + "4*00 " + u8(dir) + "3*00 ";
}

XfrmUserTmpl::operator std::string() const
{
    return xfrmId(daddr, spi, proto) + u16(family) + "2*00 " + address(saddr) + "4*00 " + u8(mode) + "3*00 " +
           number(algos) + number(algos) + number(algos);
}

XfrmUserMigrate::operator std::string() const
{
    return address(old_daddr) + address(old_saddr) + address(new_daddr) + address(new_saddr) + u8(proto) + u8(mode) +
           "6*00 " + u16(old_family) + u16(new_family);
}

} // namespace Vesk::Testing
