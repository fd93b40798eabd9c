// What is in the kernel: lists for people, and looks before and after an operation.
#ifndef VESKCTL_KERNEL_H
#define VESKCTL_KERNEL_H

#include "Answer.h"
#include "RecordFile.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

// Lists, without keys. All return what the dump returned.
int listStates(Answer& answer);
int listPolicies(Answer& answer);
int listLabels(Answer& answer);
int listRules(Answer& answer);

// Which SAs of a record are installed, and whether one of them has other keys than the record.
struct InstalledStates {
    bool tx = false, rx = false, otherKeys = false;
};
InstalledStates installedStates(const Record& r);

struct Label {
    std::array<unsigned char, 16> address;
    unsigned int length, device, label;

    bool operator==(const Label& other) const = default;
    [[nodiscard]] std::string text() const; // "2001:db8::/32"
};
int readLabels(std::vector<Label>& labels);

// How many IPv4 routes there are of those that the library installs.
int installedRoutes(const std::string& destination, unsigned int table, unsigned int device);

// What the kernel would send packets for a destination to. Without a gateway, the destination itself is on the link.
struct NextHop {
    std::string gateway, device;
};
std::optional<NextHop> nextHop(const std::string& destination, unsigned char family, unsigned int mark);

// Whether this process has CAP_NET_ADMIN.
bool mayChangeNetworks();

#endif
