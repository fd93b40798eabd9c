// What the tests on a real kernel share. They run in a network of their own, thrown away with the process.
#ifndef KERNEL_TEST_H
#define KERNEL_TEST_H

#include <ScriptedKernel.h>
#include <vesk/netlink.h>

#include <string>

#include <gtest/gtest.h>

namespace kernel {

// What a command prints on standard output; a test fails when the command does. iproute2 is the independent witness.
std::string output(const std::string& command);

// Whether a command succeeds, for what a kernel may lack.
bool succeeds(const std::string& command);

// The texts of the captured lines of level 4, each with a line feed.
std::string failures(const Vesk::Testing::LogCapture& log);

} // namespace kernel

#endif
