#include "Checks.h"

#include "print/Answer.h"
#include "print/Text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include <arpa/inet.h>
#include <net/if.h>

Prefix prefixOf(const std::string& text, const char* form)
{
    const std::size_t slash = text.find('/');
    const std::string host  = text.substr(0, slash);
    Prefix prefix;
    if (inet_pton(AF_INET, host.c_str(), &reinterpret_cast<sockaddr_in&>(prefix.address).sin_addr) == 1) {
        prefix.address.ss_family = AF_INET;
        prefix.length            = 32;
    } else if (inet_pton(AF_INET6, host.c_str(), &reinterpret_cast<sockaddr_in6&>(prefix.address).sin6_addr) == 1) {
        prefix.address.ss_family = AF_INET6;
        prefix.length            = 128;
    } else {
        throw Refusal((text.empty() ? "\"\"" : text) + ": no address; write one such as 192.0.2.1 or 2001:db8::1" +
                      form);
    }
    if (slash == std::string::npos)
        return prefix;

    const unsigned int width = prefix.length;
    const char *const first = text.data() + slash + 1, *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(first, end, prefix.length);
    const bool octal         = end - first > 1 && *first == '0'; // to the library
    if (error != std::errc() || stop != end || octal || prefix.length > width)
        throw Refusal(text + ": no prefix length; write a decimal number from 0 to " + std::to_string(width) +
                      " after the slash, such as " + host + '/' + std::to_string(width / 2));
    return prefix;
}

std::string bitsOf(const Prefix& prefix)
{
    const bool is4    = prefix.address.ss_family == AF_INET;
    const auto* bytes = reinterpret_cast<const sockaddr_in6&>(prefix.address).sin6_addr.s6_addr;
    if (is4)
        bytes = reinterpret_cast<const unsigned char*>(&reinterpret_cast<const sockaddr_in&>(prefix.address).sin_addr);
    std::string bits = is4 ? "4" : "6";
    for (std::size_t i = 0; i < (is4 ? 32 : 128); ++i)
        bits += (bytes[i / 8] >> (7 - i % 8) & 1) != 0 ? '1' : '0';
    return bits;
}

bool takesIn(const Prefix& prefix, const Prefix& address)
{
    return bitsOf(address).starts_with(bitsOf(prefix).substr(0, 1 + prefix.length));
}

unsigned char familyOf(const std::string& text)
{
    if (text.find('/') != std::string::npos)
        throw Refusal(text + ": a prefix; write an address alone");
    return static_cast<unsigned char>(prefixOf(text, "").address.ss_family);
}

std::vector<std::string> checkSelectors(const std::string& source, const std::string& destination)
{
    if (source.empty() && destination.empty())
        throw Refusal("two empty selectors; write a prefix for at least one");
    if (!source.empty() && !destination.empty() &&
        prefixOf(source).address.ss_family != prefixOf(destination).address.ss_family)
        throw Refusal(source + " and " + destination +
                      " are of different families; write two IPv4 or two IPv6 prefixes");
    std::vector<std::string> warnings;
    for (const std::string& each : {source, destination})
        if (!each.empty() && bitsOf(prefixOf(each)).find('1', 1 + prefixOf(each).length) != std::string::npos)
            warnings.push_back(each + ": bits are set behind the prefix; the policy keeps them, and is found with them "
                                      "alone");
    return warnings;
}

unsigned int indexOf(const std::string& device)
{
    const bool cut           = device.find(':') != std::string::npos; // where the kernel would end the name
    const unsigned int index = device.empty() || cut ? 0 : if_nametoindex(device.c_str());
    if (index == 0 && !device.empty() && !cut && errno != ENODEV && errno != ENXIO)
        throw Refusal(device + ": could not be looked up: " + std::strerror(errno), Refused);
    if (index == 0 && !device.empty())
        throw Refusal("no such device: " + device + "; one of " + devices(), Refused);
    return index;
}

unsigned int indexOrNumberOf(const std::string& device)
{
    const auto number = numberOf(device);
    const bool gone   = number && *number > 0 && *number <= INT32_MAX && if_nametoindex(device.c_str()) == 0;
    return gone ? static_cast<unsigned int>(*number) : indexOf(device);
}

std::string devices()
{
    constexpr std::size_t most = 10;
    std::vector<std::string> names;
    struct if_nameindex* const all = if_nameindex();
    for (struct if_nameindex* each = all; each != nullptr && each->if_index != 0; ++each)
        names.emplace_back(each->if_name);
    if (all == nullptr)
        return "those that the kernel does not tell";
    if_freenameindex(all);
    const std::size_t more = names.size() - std::min(names.size(), most);
    names.resize(names.size() - more);
    return joined(names) + (more != 0 ? " and " + std::to_string(more) + " more" : "");
}

xfrm_selector selectorOf(const std::string& source, const std::string& destination, unsigned char protocol)
{
    xfrm_selector sel = {};
    sel.proto         = protocol;
    const auto set    = [&sel](const std::string& text, xfrm_address_t& address, __u8& length) {
        if (text.empty())
            return;
        const Prefix prefix = prefixOf(text);
        sel.family          = prefix.address.ss_family;
        length              = static_cast<__u8>(prefix.length);
        if (sel.family == AF_INET)
            address.a4 = reinterpret_cast<const sockaddr_in&>(prefix.address).sin_addr.s_addr;
        else
            std::memcpy(&address, &reinterpret_cast<const sockaddr_in6&>(prefix.address).sin6_addr, sizeof address);
    };
    set(source, sel.saddr, sel.prefixlen_s);
    set(destination, sel.daddr, sel.prefixlen_d);
    return sel;
}
