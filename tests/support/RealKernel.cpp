#include "RealKernel.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <sched.h>

namespace Vesk::Testing {

bool enterOwnNetwork()
{
    return unshare(CLONE_NEWNET) == 0 && succeeds("ip link set lo up");
}

std::string output(const std::string& command)
{
    std::FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    char piece[256];
    while (pipe != nullptr && std::fgets(piece, sizeof piece, pipe) != nullptr)
        text += piece;
    if (pipe == nullptr || pclose(pipe) != 0)
        throw std::runtime_error("failed: " + command);
    return text;
}

bool succeeds(const std::string& command)
{
    return std::system(("{ " + command + "\n} >/dev/null 2>&1").c_str()) == 0;
}

std::string lacking(const std::string& command, std::initializer_list<const char*> pieces)
{
    const std::string text = output(command);
    std::string missing;
    for (const char* piece : pieces)
        if (text.find(piece) == std::string::npos)
            missing += std::string("\"") + piece + "\" is not in the output of " + command + '\n';
    return missing.empty() ? missing : missing + text;
}

int reason(int result)
{
    return result == -1 ? errno : 0;
}

std::string failures(const LogCapture& log)
{
    std::string text;
    for (const LogLine& line : log.lines)
        if (line.level == log_level_failure)
            text += line.text + (line.text.back() == '\n' ? "" : "\n");
    return text;
}

} // namespace Vesk::Testing
