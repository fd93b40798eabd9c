// veskctl: one command an operation of the library, for engineers who bring a device up.

#include "CommandLine.h"

int main(int argc, char** argv)
{
    return CommandLine().run(argc, argv);
}
