// The help and the manual page, made from the tables of commands.
#ifndef VESKCTL_MANUAL_H
#define VESKCTL_MANUAL_H

#include <string>

// On a command, a group of commands, or all ("").
std::string helpOn(const std::string& path);

// For man.
std::string manual();

#endif
