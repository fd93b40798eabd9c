// What is measured.
#ifndef VESK_BENCH_JOBS_H
#define VESK_BENCH_JOBS_H

#include "Ask.h"

namespace Bench {

using Command = std::vector<std::string>;

// What looks something up has one step; what changes the kernel has a second one, which takes the change back.
struct Step {
    std::function<void()> viaLibrary;
    std::vector<Ask> asks;         // the same for other libraries
    std::vector<Command> commands; // the same as processes
};

struct Job {
    std::string name;
    std::function<void()> prepare; // what it needs of the kernel; may be called again
    std::vector<Step> steps;
    std::string witness;                   // a command that succeeds between the steps, and not after them
    std::function<void()> begin   = [] {}; // before each time that the asks are put
    std::function<void()> check   = [] {}; // after it: whether the replies held what they should
    std::function<void()> alsoAsk = [] {}; // what a user of the other libraries has to ask the system too
};

// In an order in which each finds the kernel with no more than what the ones before it needed.
const std::vector<Job>& jobs();

} // namespace Bench

#endif
