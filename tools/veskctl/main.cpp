// veskctl: one command an operation of the library, for engineers who bring a device up.

#include "CommandLine.h"

#include <cstdlib>

int main(int argc, char** argv)
{
    unsetenv("VESK_RECORD_REPLIES"); // tests have answers written to files; here they may hold keys
    return CommandLine().run(argc, argv);
}
