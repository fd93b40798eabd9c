// Requests by name: the messages that the library sends, field by field.
#ifndef VESKCTL_DECODER_H
#define VESKCTL_DECODER_H

#include "Answer.h"

#include <string>
#include <vector>

// "NETLINK_XFRM"
std::string protocolName(int protocol);

// A field of a message.
struct DecodedField {
    std::string part; // the structure or attribute that it is in
    std::string name; // empty for an attribute that is one value
    Json value;
    std::string text;                 // the value in words, or the number as it is best read
    std::vector<unsigned char> bytes; // none of a key that is hidden
};

// All fields of a request, in order; bytes that are no known field too.
std::vector<DecodedField> decoded(int protocol, const std::vector<unsigned char>& datagram, bool showKeys);

#endif
