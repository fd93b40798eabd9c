// What is measured.
#ifndef VESK_BENCH_JOBS_H
#define VESK_BENCH_JOBS_H

#include "Ask.h"

namespace Bench {

struct Job {
    std::string name;
    std::function<void()> prepare; // what it needs of the kernel; may be called again
    std::function<void()> viaLibrary;
    std::vector<Ask> asks;
    std::vector<std::vector<std::string>> commands; // the same as processes
    std::function<void()> begin   = [] {};          // before each time
    std::function<void()> check   = [] {};          // after each time: whether the replies held what they should
    std::function<void()> alsoAsk = [] {};          // what a user of the other libraries has to ask the system too
};

// In an order in which each finds the kernel with no more than what the ones before it needed.
const std::vector<Job>& jobs();

} // namespace Bench

#endif
