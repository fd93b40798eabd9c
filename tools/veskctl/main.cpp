// veskctl: one command an operation of the library, for engineers who bring a device up.

#include "commands/CommandLine.h"
#include "commands/Manual.h"
#include "kernel/Looks.h"
#include "print/DryRun.h"

#include <cerrno>

namespace {

constexpr int kNoLog = 5;

// What to do next, after a refusal or failure that the command itself has nothing to say about.
void advise(Answer& answer, const Command& command)
{
    for (const Advice& each : answer.called ? command.more.advice : std::vector<Advice>())
        answer.advise(each.error, each.text);
    if (command.more.mainlineRefusal != 0 && answer.status == Refused)
        answer.note +=
            answer.note.empty() ? "mainline kernels refuse this always" : "; mainline kernels refuse this in any case";
    if (answer.status == Refused && answer.error == EPERM && !mayChangeNetworks())
        answer.note = kNoRights;
    answer.advise(EPROTONOSUPPORT,
                  "this kernel lacks the protocol; for IPsec, its module xfrm_user may have to be loaded");
}

Answer answerOf(const Command& command, Arguments& arguments)
{
    if (arguments.showKeys && !arguments.dry)
        throw Refusal("--show-keys goes with --dry-run; keys are hidden everywhere else");
    const Operation operation = command.prepare(arguments);
    if (!arguments.showKeys && arguments.dry) { // what is not shown need not be copied into requests either
        arguments.record.forgetKeys();
        arguments.otherRecord.forgetKeys();
    }
    Answer answer = arguments.dry ? dryRun(operation, command.more.unanswered, arguments.showKeys) : perform(operation);
    answer.warnings.insert(answer.warnings.begin(), arguments.warnings.begin(), arguments.warnings.end());
    if (!arguments.dry)
        advise(answer, command);
    return answer;
}

// Unless it is said, JSON has the failures already, and those of a dry run mean nothing where requests are shown.
int logFrom(const Arguments& arguments, const Answer& answer)
{
    if (arguments.logLevel != 0)
        return arguments.logLevel;
    return arguments.json || (arguments.dry && answer.status == Done) ? kNoLog : log_level_failure;
}

} // namespace

int main(int argc, char** argv)
{
    const CommandLine line({argv + 1, argv + argc});
    if (line.has("--help"))
        return put(helpOn(line.path()));
    if (line.has("--version"))
        return put("veskctl " VESK_VERSION "\n");
    if (argc == 2 && line.has("--manual")) // for the build
        return put(manual());
    Arguments arguments;
    try {
        const Command& command = line.parse(arguments);
        const Answer answer    = answerOf(command, arguments);
        return print(answer, arguments.json, logFrom(arguments, answer));
    } catch (const Refusal& refusal) {
        return print(refusal, arguments.warnings, line.has("--json"));
    }
}
