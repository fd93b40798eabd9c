// Looks at the kernel before and after an operation: what was there, what is there now, what is in the way.
#ifndef VESKCTL_LOOKS_H
#define VESKCTL_LOOKS_H

#include "Record.h"

#include <array>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <linux/xfrm.h>

// Where the kernel cannot be read whole, looks throw a std::system_error: what is unknown is neither told nor acted on.

// An SA that has the protocol, the SPI and the destination of one of a record's, which is all that the kernel compares.
struct InstalledState {
    bool tx;            // which of the two
    bool marked;        // the requests of a record name no mark, so they do not reach it
    bool own;           // it has the record's source too
    std::string source; //
    std::string kept;   // what it has otherwise than a request for it: "mode, cipher key"
    std::uint64_t packets;
    std::string firstUsed, lastUsed; // "never"; empty where the kernel does not tell
    bool hidden;                     // keys are all zeros, so that nobody can tell whether they are the record's
    bool larval;                     // it has none yet
    bool inUDP;
};
using Requests = std::vector<std::vector<unsigned char>>;
std::vector<InstalledState> installedStates(const Record& r, const Requests& wanted = {});

// What an operation would send, for comparing.
Requests requestsOf(const std::function<int()>& operation);

// A policy with a selector and direction. The requests of the library reach the one that is otherwise "".
struct InstalledPolicy {
    std::string otherwise; // "mark 0x5/0xff, if_id 0x7"
    std::string action;
    std::vector<std::string> templates; // "esp tunnel 192.0.2.1 > 192.0.2.254"
};
std::vector<InstalledPolicy> installedPolicies(const xfrm_selector& sel, unsigned char direction);

// What a migration reaches: what is between a record's ends, by name. The record's are "TX", "RX" and "the out policy",
// in and fwd; but the kernel compares neither SPIs nor, on some versions, what policies have otherwise. `out` is the
// selector of the out policy, `in` that of the two others.
std::set<std::string> betweenEnds(const Record& r, const xfrm_selector& out, const xfrm_selector& in);

// Removes one, as the library would. Returns 0, or an errno.
int removePolicy(const xfrm_selector& sel, unsigned char direction);

// The IPv4 routes to a host over a device, as "via 192.0.2.254 metric 100 ...", with all that a removal compares.
std::vector<std::string> routesTo(const std::string& destination, unsigned int table, unsigned int device);

// What the kernel would send packets for a destination to; nothing where it would send none. Without a gateway, the
// destination itself is on the link, or is no unicast address of another host.
struct NextHop {
    std::string gateway, device, type;
};
std::optional<NextHop> nextHop(const std::string& destination, unsigned char family, unsigned int mark);

// The queueing discipline of a device at a parent, as "fq_codel 1:"; empty for none that was asked for.
std::string qdiscAt(unsigned int device, unsigned int parent);

// The prefixes that are this host itself.
std::vector<std::string> localPrefixes();

struct Label {
    std::array<unsigned char, 16> address;
    unsigned int length, device, label;

    bool operator==(const Label& other) const = default;
    [[nodiscard]] std::string text() const; // "2001:db8::/32"
};
std::vector<Label> installedLabels();

// Whether this process has CAP_NET_ADMIN; what to say when it has not.
inline constexpr const char* kNoRights = "this process has no CAP_NET_ADMIN; run it as root";
bool mayChangeNetworks();

#endif
