// Requests in the words of the description of the kernel's messages.
#ifndef DESCRIBED_H
#define DESCRIBED_H

#include <Expectations.h>

#include <string>

namespace wire {

// A message of this type is none of the kernel's, and nothing describes it.
constexpr unsigned short kMadeUp = 0x1234;

// What of these requests the description does not know, a line each: a message, an attribute, bytes, a value's name.
std::string undescribed(const std::vector<Vesk::Testing::Request>& requests);

// The first field of each request that differs: "request 1: IFAL_LABEL 7, not 8".
std::string differingFields(const std::vector<Vesk::Testing::Request>& requests, const Vesk::Testing::Sends& expected);

} // namespace wire

#endif
