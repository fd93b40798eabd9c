// Numbers in requests, also used to find routes, rules, labels and policies again. veskctl, which looks at the kernel
// before and after, compares with the same.
#ifndef VESK_NUMBERS_H
#define VESK_NUMBERS_H

#include <cstdint>

#include <linux/netlink.h>

namespace Vesk {

// Flags
constexpr unsigned short kAcknowledged = NLM_F_REQUEST | NLM_F_ACK;
constexpr unsigned short kCreate       = kAcknowledged | NLM_F_EXCL | NLM_F_CREATE;
constexpr unsigned short kDump         = NLM_F_REQUEST | NLM_F_DUMP;

// Routes and rules
constexpr std::uint32_t kRouteMetric   = 100;
constexpr std::uint32_t kAdvertisedMSS = 1140; // bytes
constexpr std::uint32_t kRulePriority  = 16000;
constexpr std::uint32_t kFirstTable    = 1000; // a device's table is this and its index

// Address labels. Those up to 20 are the system's own; those from 20 on are handed out and purged, and the default is
// purged, too.
constexpr std::uint32_t kDefaultLabel    = 1;
constexpr std::uint32_t kLastSystemLabel = 20;
constexpr std::uint32_t kFirstOwnLabel   = 20; // kept: a gap below 21 yields it

// IPsec
constexpr std::uint32_t kOutputMark     = 0x20000; // on all of TX, added to the caller's mark and mask
constexpr std::uint32_t kMarkedRx       = 0x20002;
constexpr std::uint32_t kPolicyPriority = 100;
constexpr std::uint32_t kBypassPriority = 10;
constexpr const char* kBypassSelector   = "fe80::/64"; // of ICMPv6, to any link-local address
constexpr std::uint16_t kNatTraversal   = 4500;        // the peer's UDP port

// The platform's options of the queueing discipline "prio": a tc_prio_qopt, and a switch behind it.
struct PrioOptions {
    std::int32_t bands;
    std::uint8_t priomap[16]; // the band of each packet priority
    std::uint8_t flowControl;
    std::uint8_t filler[3]; // differs between the two operations, and is sent so
};
static_assert(sizeof(PrioOptions) == 24);
constexpr int kPrioOptions = 2; // the attribute in TCA_OPTIONS that holds them

} // namespace Vesk

#endif
