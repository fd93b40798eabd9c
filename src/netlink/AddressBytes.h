// The bytes of a socket address that a netlink attribute carries.
#ifndef VESK_ADDRESS_BYTES_H
#define VESK_ADDRESS_BYTES_H

#include <netinet/in.h>

namespace Vesk {

struct AddressBytes {
    void* data;
    int size; // 0: the family is neither AF_INET nor AF_INET6
};

inline AddressBytes addressBytes(sockaddr_storage* address)
{
    switch (address->ss_family) {
    case AF_INET:
        return {&reinterpret_cast<sockaddr_in*>(address)->sin_addr, sizeof(in_addr)};
    case AF_INET6:
        return {&reinterpret_cast<sockaddr_in6*>(address)->sin6_addr, sizeof(in6_addr)};
    default:
        return {nullptr, 0};
    }
}

} // namespace Vesk

#endif
