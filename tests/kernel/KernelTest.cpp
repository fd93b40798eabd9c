#include "KernelTest.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <sched.h>
#include <sys/wait.h>

namespace kernel {

std::string output(const std::string& command)
{
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("cannot run " + command);
    std::string text;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe))
        text += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return text;
}

bool succeeds(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

std::string failures(const Vesk::Testing::LogCapture& log)
{
    std::string text;
    for (const Vesk::Testing::LogLine& line : log.lines)
        if (line.level == log_level_failure)
            text += line.text + '\n';
    return text;
}

namespace {

struct ThrowAwayNetwork : testing::Environment {
    void SetUp() override
    {
        constexpr int skipped = 77;
        if (unshare(CLONE_NEWNET) != 0) {
            std::perror("SKIPPED: no network of our own, which root may have");
            std::exit(skipped);
        }
        output("ip link set lo up");
    }
};

const testing::Environment* const network = testing::AddGlobalTestEnvironment(new ThrowAwayNetwork);

} // namespace

} // namespace kernel
