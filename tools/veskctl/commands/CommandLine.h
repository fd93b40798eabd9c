// The command line: which command it names, and its arguments.
#ifndef VESKCTL_COMMAND_LINE_H
#define VESKCTL_COMMAND_LINE_H

#include "Command.h"

// Options of all commands, which may stand anywhere.
const std::vector<Argument>& commonOptions();

const std::vector<Command>& allCommands();

// Commands and groups behind a path ("", "policy"): the next words of the paths that begin with it, and what they mean.
std::vector<std::pair<std::string, std::string>> nextWords(const std::string& path);

struct CommandLine {
    explicit CommandLine(std::vector<std::string> words) : given(std::move(words)) {}

    // As far as the words lead, whatever else is wrong: to a command, a group, or nowhere.
    [[nodiscard]] std::string path() const;
    // The command, whose arguments go to `arguments`. Throws a Refusal in words that name what there is.
    const Command& parse(Arguments& arguments) const;
    // Whether this option, which may have a short name, is among the words.
    [[nodiscard]] bool has(const std::string& option) const;

private:
    std::vector<std::string> given;
};

#endif
