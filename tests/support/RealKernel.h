// For tests on a real kernel: a network to throw away, and commands to compare with.
#ifndef REAL_KERNEL_H
#define REAL_KERNEL_H

#include <ScriptedKernel.h>

#include <initializer_list>
#include <string>

namespace Vesk::Testing {

// Moves the calling thread, and what it starts, into a network of its own with nothing but a loopback device, which
// is gone with the process. False without the right to do so, which root has.
bool enterOwnNetwork();

// What a shell command prints on standard output. Throws std::runtime_error when it does not succeed.
std::string output(const std::string& command);

// Whether a shell command succeeds; what it prints is dropped. For what a kernel may lack.
bool succeeds(const std::string& command);

// Which of these pieces the output of a command lacks, and the output; empty when it lacks none.
std::string lacking(const std::string& command, std::initializer_list<const char*> pieces);

// Why an operation failed: errno after a result of -1, or 0.
int reason(int result);

// The texts of the captured lines of level 4, each with a line feed at its end.
std::string failures(const LogCapture& log);

} // namespace Vesk::Testing

#endif
