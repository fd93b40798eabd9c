// Lists of what is in the kernel, for people.
#ifndef VESKCTL_KERNEL_H
#define VESKCTL_KERNEL_H

#include "Answer.h"

#include <array>
#include <string>
#include <vector>

// Lists, without keys. All return what the dump returned.
int listStates(Answer& answer);
int listPolicies(Answer& answer);
int listLabels(Answer& answer);
int listRules(Answer& answer);

struct Label {
    std::array<unsigned char, 16> address;
    unsigned int length, device, label;

    bool operator==(const Label& other) const = default;
    [[nodiscard]] std::string text() const; // "2001:db8::/32"
};
int readLabels(std::vector<Label>& labels);

#endif
