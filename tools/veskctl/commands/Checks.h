// What the library takes as it is given, looked at before: addresses, prefixes, devices.
#ifndef VESKCTL_CHECKS_H
#define VESKCTL_CHECKS_H

#include <string>
#include <vector>

#include <linux/xfrm.h>
#include <sys/socket.h>

struct Prefix {
    sockaddr_storage address = {};
    unsigned int length      = 0;
};

// All throw a Refusal that says what to write instead.

// "address" or "address/length"; a whole address when nothing else is said.
Prefix prefixOf(const std::string& text, const char* form = ", with or without a prefix length");

// "4" or "6", and the bits of the address.
std::string bitsOf(const Prefix& prefix);

// Whether an address is in a prefix.
bool takesIn(const Prefix& prefix, const Prefix& address);

// An address without a prefix; AF_INET or AF_INET6.
unsigned char familyOf(const std::string& text);

// Two selectors of one policy, of which one may be empty. Returns what may not be meant.
std::vector<std::string> checkSelectors(const std::string& source, const std::string& destination);

// The same, as the kernel has them.
xfrm_selector selectorOf(const std::string& source, const std::string& destination, unsigned char protocol);

// 0 for no device. A device that is not there is what the library, too, would refuse.
unsigned int indexOf(const std::string& device);

// The same, or the number of one that may be gone.
unsigned int indexOrNumberOf(const std::string& device);

// The names of up to ten devices, for messages.
std::string devices();

#endif
