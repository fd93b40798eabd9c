// What the two targets share: one call on the scripted kernel, which must leave nothing behind. A deliberate abort is an
// answer like any other; whatever else ends the process is a fault.
#ifndef FUZZ_TARGET_H
#define FUZZ_TARGET_H

#include <ScriptedKernel.h>
#include <vesk/netlink.h>

#include <functional>

#include <fuzzer/FuzzedDataProvider.h>

// The operation that a number chooses, with arguments from the input.
std::function<void()> operationOf(FuzzedDataProvider& input);

void survive(Vesk::Testing::ScriptedKernel& kernel, const std::function<void()>& operation);

#endif
