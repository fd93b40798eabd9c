// The commands: what each is called, takes, does and says of itself. Sources by subject make the tables of them.
#ifndef VESKCTL_COMMAND_H
#define VESKCTL_COMMAND_H

#include "Checks.h"
#include "RecordFile.h"
#include "print/Answer.h"

#include <string>
#include <variant>
#include <vector>

// Arguments of any of the commands, and what is made of them. One is run a process, so they share them.
struct Arguments {
    bool help = false, version = false, json = false, dry = false, showKeys = false;
    unsigned char logLevel = 0; // not given

    std::string name, device, address, kind, file, otherFile, source, destination, direction;
    unsigned int mark = 0, mask = 0xffffffff, table = 254, parent = 0, handle = 0, label = 0, valid = 0, spi = 0;
    unsigned short size    = 0;
    unsigned char protocol = 0;
    int technology         = 0;
    bool enable = false, useDefault = false, inbound = false;

    Prefix prefix;
    unsigned char family = 0;
    unsigned int index   = 0;
    FileRecord record, otherRecord;
    std::vector<std::string> warnings;
};

// A name alone is a positional argument, one with dashes an option, or a flag when its field is a bool.
struct Argument {
    std::string name;
    std::string type; // for the help and for completion; "{in,out}" are all words that it may be
    std::string what;
    std::variant<std::string Arguments::*, unsigned int Arguments::*, unsigned short Arguments::*,
                 unsigned char Arguments::*, int Arguments::*, bool Arguments::*>
        field;
    bool required = name[0] != '-';
};

// What to do about an errno.
struct Advice {
    int error;
    std::string text;
};

struct More {
    std::string notes          = {}; // for the help
    std::vector<Advice> advice = {};
    int mainlineRefusal        = 0;  // the errno with which mainline kernels refuse it, if not with another before
    std::string unanswered     = {}; // what a dry run lacks of the kernel's answer
};

struct Command {
    Command(std::string is, std::string does, std::string such, std::vector<Argument> takes,
            Operation (*prepares)(Arguments&), More also = {})
        : path(std::move(is)), what(std::move(does)), example(std::move(such)), arguments(std::move(takes)),
          prepare(prepares), more(std::move(also))
    {}
    std::string path;          // "route add"
    std::string what, example; // the example is one of arguments
    std::vector<Argument> arguments;
    Operation (*prepare)(Arguments&); // checks arguments, and throws a Refusal when they cannot be meant
    More more;
};

// Arguments of several commands
inline const Argument kDevice = {"device", "DEVICE", "Name of the interface", &Arguments::device};
inline const Argument kPrefix = {"prefix", "PREFIX", "Address, with its prefix length after a slash",
                                 &Arguments::address};

std::vector<Command> linkCommands();
std::vector<Command> labelCommands();
std::vector<Command> ipsecCommands();
std::vector<Command> listCommands();

// What the lists may show, for the manual page.
std::string explainedLists();

#endif
