// Looks at the kernel before and after an operation: what was there, what is there now, what is in the way.
#ifndef VESKCTL_LOOKS_H
#define VESKCTL_LOOKS_H

#include "Record.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <linux/xfrm.h>

// Where the kernel cannot be read, looks find nothing.

// An SA that has the protocol, the SPI and the destination of one of a record's, which is all that the kernel compares.
struct InstalledState {
    bool tx;            // which of the two
    bool marked;        // the requests of a record name no mark, so they do not reach it
    bool own;           // it has the record's source too
    std::string source; //
    std::string kept;   // what it has otherwise than a request for it: "mode, cipher key"
    std::uint64_t packets;
    std::string firstUsed, lastUsed; // "never"; empty where the kernel does not tell
    bool hidden;                     // keys are all zeros
    bool larval;                     // it has none yet
    bool inUDP;
};
using Requests = std::vector<std::vector<unsigned char>>;
std::vector<InstalledState> installedStates(const Record& r, const Requests& wanted = {}, int* result = nullptr);

// What an operation would send, for comparing.
Requests requestsOf(const std::function<int()>& operation);

// How many SAs of a record's protocol and mode, and of its SPI if it has one, go from its local to its remote address,
// or come back.
int statesBetween(const Record& r, bool tx);

// Policies with a selector and direction. The requests of the library reach the one that is otherwise "".
std::vector<std::string> otherwiseOf(const xfrm_selector& sel, unsigned char direction);

// Removes one, as the library would. Returns 0, or an errno.
int removePolicy(const xfrm_selector& sel, unsigned char direction);

// The IPv4 routes to a host over a device, as "via 192.0.2.254 metric 100 ...", with all that a removal compares.
std::vector<std::string> routesTo(const std::string& destination, unsigned int table, unsigned int device);

// What the kernel would send packets for a destination to. Without a gateway, the destination itself is on the link.
struct NextHop {
    std::string gateway, device;
};
std::optional<NextHop> nextHop(const std::string& destination, unsigned char family, unsigned int mark);

// The queueing discipline of a device at a parent, as "fq_codel 1:"; empty for none that was asked for.
std::string qdiscAt(unsigned int device, unsigned int parent);

// Whether this process has CAP_NET_ADMIN; what to say when it has not.
inline constexpr const char* kNoRights = "this process has no CAP_NET_ADMIN; run it as root";
bool mayChangeNetworks();

#endif
