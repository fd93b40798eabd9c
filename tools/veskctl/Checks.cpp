#include "Checks.h"

#include "Answer.h"
#include "Text.h"

#include <charconv>

#include <arpa/inet.h>
#include <net/if.h>

Prefix prefixOf(const std::string& text)
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
        throw Refusal(text +
                      ": no address; write one such as 192.0.2.1 or 2001:db8::1, with or without a prefix length");
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

unsigned char familyOf(const std::string& text)
{
    if (text.find('/') != std::string::npos)
        throw Refusal(text + ": a prefix; write an address alone");
    return static_cast<unsigned char>(prefixOf(text).address.ss_family);
}

void checkSelectors(const std::string& source, const std::string& destination)
{
    if (source.empty() && destination.empty())
        throw Refusal("two empty selectors; write a prefix for at least one");
    if (source.empty() || destination.empty())
        static_cast<void>(prefixOf(source + destination));
    else if (prefixOf(source).address.ss_family != prefixOf(destination).address.ss_family)
        throw Refusal(source + " and " + destination +
                      " are of different families; write two IPv4 or two IPv6 prefixes");
}

unsigned int indexOf(const std::string& device)
{
    const unsigned int index = device.empty() ? 0 : if_nametoindex(device.c_str());
    if (index == 0 && !device.empty())
        throw Refusal("no such device: " + device + "; one of " + joined(devices()), Refused);
    return index;
}

std::vector<std::string> devices()
{
    std::vector<std::string> names;
    struct if_nameindex* const all = if_nameindex();
    for (struct if_nameindex* each = all; each != nullptr && each->if_index != 0; ++each)
        names.emplace_back(each->if_name);
    if_freenameindex(all);
    return names;
}
