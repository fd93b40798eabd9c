// What is in the kernel: all of a kind.
#ifndef VESKCTL_KERNEL_H
#define VESKCTL_KERNEL_H

#include <Decode.h>

#include <cstdint>
#include <functional>
#include <span>

#include <linux/netlink.h>
#include <sys/socket.h>

using Vesk::Messages::Field;
using Vesk::Messages::Fields;
using Bytes = std::span<const unsigned char>;

// What can be asked for, and the messages that it is answered with.
struct Dump {
    int protocol;
    unsigned short request, reply;
    unsigned char family = AF_UNSPEC; // that the request names
    int payload          = 0;         // of the request, in bytes
    bool twice           = false;     // kernels do not tell of every interruption, so that two readings have to agree
};
extern const Dump kStates, kPolicies, kRules, kLabels, kRoutes, kQdiscs;

// Hands on all that the kernel has, decoded. Devices have their names, where they are there; what the kernel shows in
// no field of its own is added. A change on the way interrupts the kernel, and something may be missing: then it is
// asked again, up to three times, each time after `begin`. Returns what the last dump returned; with 0, errno is EINTR
// where that was interrupted, too.
int readAll(const Dump& what, const std::function<void()>& begin,
            const std::function<void(const Fields& fields, Bytes message)>& each);

// All that it may show, without values.
Fields mayShow(const Dump& what);

// One message of it.
Fields decoded(const Dump& what, const nlmsghdr* message);

#endif
