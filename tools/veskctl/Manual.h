// The manual page, made from the command line.
#ifndef VESKCTL_MANUAL_H
#define VESKCTL_MANUAL_H

#include <CLI/CLI.hpp>

// Prints it for man, and returns the exit status.
int printManual(const CLI::App& root);

#endif
