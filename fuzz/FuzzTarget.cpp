// Calls any operation on the scripted kernel, which must leave nothing behind. A deliberate abort is an answer like any
// other; whatever else ends the process is a fault. Built twice: with replies of any bytes to the first requests, and
// on a kernel that is content with everything.
#include <AnyOperation.h>
#include <ScriptedKernel.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include <unistd.h>

using namespace Vesk::Testing;

static std::jmp_buf beforeTheCall;
static bool inTheCall = false;

// An exception that would leave an operation also ends in abort(), but is a fault.
static const auto usualTerminate = std::set_terminate([] { __builtin_trap(); });

// The library's: back to where the call began. Anybody else's: the end.
extern "C" void abort() noexcept
{
    if (inTheCall)
        std::longjmp(beforeTheCall, 1);
    _exit(134);
}

// Of each: the datagrams until an empty one.
static void scriptAnswers([[maybe_unused]] ScriptedKernel& kernel, [[maybe_unused]] ByteSource& source)
{
#ifdef FUZZ_REPLIES
    for (std::uint32_t requests = source.below(5); requests > 0; --requests) {
        std::vector<Reply> answer;
        for (Bytes datagram = source.bytes(4200); !datagram.empty(); datagram = source.bytes(4200))
            answer.emplace_back(datagram);
        kernel.answer(answer);
    }
#endif
}

static void fault(const char* what)
{
    std::fprintf(stderr, "%s\n", what);
    __builtin_trap();
}

// `fuzz_replies operations` prints how many there are to choose from by the first number of an input.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (*argc == 2 && std::strcmp((*argv)[1], "operations") == 0)
        std::exit(std::printf("%zu\n", anyOperations().size()) > 0 ? 0 : 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ByteSource source(data, size);
    ScriptedKernel kernel;
    kernel.addInterface("wlan0", 3);
    const std::uint32_t kind = source.below(anyOperations().size());
    scriptAnswers(kernel, source);
    const Operation operation = anyOperations()[kind].make(source);
    if (setjmp(beforeTheCall) != 0) {
        inTheCall = false;
        kernel.abandon(); // what the process would have taken with it
        return 0;
    }
    inTheCall = true;
    kernel.run([&] { return operation(); }); // without a copy, which a jump would leave
    inTheCall = false;
    for (const std::string& complaint : kernel.complaints())
        if (complaint != "a receive found no reply")
            fault(complaint.c_str());
    if (kernel.openSockets() + kernel.liveBlocks() != 0)
        fault("a socket or a block is left");
    return 0;
}
