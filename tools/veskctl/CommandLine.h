// The command line: a tree of subcommands made from the tables of commands.
#ifndef VESKCTL_COMMAND_LINE_H
#define VESKCTL_COMMAND_LINE_H

#include "Command.h"

#include <CLI/CLI.hpp>

class CommandLine {
public:
    CommandLine();

    int run(int argc, char** argv);

private:
    CLI::App* parentOf(const std::string& path);
    void add(const Command& command);
    void add(CLI::App& app, const Argument& argument);
    [[nodiscard]] std::string mistake(const CLI::ParseError& error) const;
    [[nodiscard]] Answer answer();
    [[nodiscard]] int logFrom(const Answer& answer) const;

    CLI::App root;
    std::vector<Command> commands;
    Arguments arguments;
    const Command* chosen    = nullptr;
    CLI::Option* chosenLevel = nullptr;
    int logLevel             = log_level_failure;
    bool json = false, dry = false, showKeys = false;
};

#endif
