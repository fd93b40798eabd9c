// What an operation costs beside other ways to say the same to the kernel:
//
//     floor      the same system calls, the request built beforehand (its pieces are gathered by sendmsg, as in this
//                library), the least check of the reply
//     library    this library
//     libmnl     a fresh socket each time, as this library does; "kept" keeps one
//     libnl      the same
//     ip         the program, a process for each request
//
// Run as root, in a network of its own. Each job checks that the kernel really did or answered what was asked. Ratios
// are taken pair by pair, the floor and the other in alternation. Beside the times stand this library's instructions in
// user space (callgrind), calls of operator new and system calls (strace) for one time.
//
//     bench [--benchmark_filter=…]    a line for each job and column: job, column, floor in us, the ratio's median
//                                     and quartiles, instructions, allocations, system calls
//     bench --times N JOB             only runs the library's part of a job, in the network as it is: what is counted

#include "Columns.h"
#include "Jobs.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

static std::atomic<long> allocations = 0;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    ++allocations;
    return std::malloc(size);
}

void* operator new(std::size_t size)
{
    void* block = operator new(size, std::nothrow);
    return block != nullptr ? block : throw std::bad_alloc();
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

using namespace Bench;

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kRound = 0.0005; // seconds, about

// The columns beside the floor, how many pairs of rounds each gets, and how it asks where it is a library of others.
struct Column {
    const char* name;
    int rounds;
    void (*via)(const Ask&);
};

constexpr Column kColumns[] = {{"library", 401, nullptr},         {"libmnl", 401, viaMnl},
                               {"libmnl, kept", 401, viaKeptMnl}, {"libnl", 401, viaNl},
                               {"libnl, kept", 401, viaKeptNl},   {"ip", 21, nullptr}};
constexpr Column kFloor     = {"floor", 0, viaFloor};

using Steps = std::vector<std::function<void()>>;

double seconds(const std::function<void()>& once, int times)
{
    const auto start = Clock::now();
    for (int i = 0; i < times; ++i)
        once();
    return std::chrono::duration<double>(Clock::now() - start).count() / times;
}

// What a column does of a job, step by step.
Steps stepsOf(const Job& job, const Column& column)
{
    Steps steps;
    for (const Step& step : job.steps)
        if (column.via != nullptr)
            steps.push_back([&step, via = column.via] { std::for_each(step.asks.begin(), step.asks.end(), via); });
        else if (std::strcmp(column.name, "library") == 0)
            steps.push_back(step.viaLibrary);
        else
            steps.push_back([&step] { std::for_each(step.commands.begin(), step.commands.end(), viaProcess); });
    if (column.via != nullptr) {
        steps.front() = [&job, first = steps.front()] { job.begin(), first(); };
        steps.back()  = [&job, last = steps.back()] { last(), job.check(); };
        if (column.via != viaFloor)
            steps.back() = [&job, last = steps.back()] { last(), job.alsoAsk(); };
    }
    return steps;
}

// All steps, seen once by the job's witness.
std::function<void()> onceOf(const Job& job, const Column& column)
{
    const Steps steps = stepsOf(job, column);
    for (std::size_t i = 0; i < steps.size(); ++i) {
        steps[i]();
        if (!job.witness.empty() && (std::system(job.witness.c_str()) == 0) != (i == 0))
            fail(std::string(column.name) + (i == 0 ? " changed nothing" : " left the change"));
    }
    return [steps] {
        for (const auto& step : steps)
            step();
    };
}

// The number that `program`, run over this program, prints, for each of `times` that a job is done: the difference
// between a run of many and one of few.
double countedBy(const std::string& program, const Job& job)
{
    const auto count = [&](int times) {
        const std::string command = "job='" + job.name + "' me=/proc/" + std::to_string(getpid()) +
                                    "/exe times=" + std::to_string(times) + "; " + program;
        FILE* pipe   = popen(command.c_str(), "r");
        double value = 0;
        if (pipe == nullptr || std::fscanf(pipe, "%lf", &value) != 1 || pclose(pipe) != 0)
            fail("cannot count: " + command);
        return value;
    };
    constexpr int few = 5, many = 25;
    return (count(many) - count(few)) / (many - few);
}

long allocationsOf(const Job& job)
{
    const long before = allocations;
    for (const Step& step : job.steps)
        step.viaLibrary();
    return allocations - before;
}

void measure(benchmark::State& state, const Job& job, const Column& column)
try {
    job.prepare();
    const std::function<void()> floor = onceOf(job, kFloor), other = onceOf(job, column);
    const auto roundOf = [](const std::function<void()>& once) {
        return std::max(1, static_cast<int>(kRound / seconds(once, 3)));
    };
    const int floorTimes = roundOf(floor), otherTimes = roundOf(other);
    std::vector<double> ratios, floors;
    for (auto _ : state) {
        double ofFloor = 0, ofOther = 0;
        if (ratios.size() % 2 == 0) {
            ofFloor = seconds(floor, floorTimes);
            ofOther = seconds(other, otherTimes);
        } else {
            ofOther = seconds(other, otherTimes);
            ofFloor = seconds(floor, floorTimes);
        }
        state.SetIterationTime(ofOther);
        ratios.push_back(ofOther / ofFloor);
        floors.push_back(ofFloor);
    }
    std::sort(ratios.begin(), ratios.end());
    std::sort(floors.begin(), floors.end());
    state.counters["floor"] = 1e6 * floors[floors.size() / 2];
    state.counters["ratio"] = ratios[ratios.size() / 2];
    state.counters["low"]   = ratios[ratios.size() / 4];
    state.counters["high"]  = ratios[ratios.size() * 3 / 4];
    if (std::strcmp(column.name, "library") == 0) {
        state.counters["allocations"]  = static_cast<double>(allocationsOf(job));
        state.counters["instructions"] = countedBy(
            R"(valgrind --tool=callgrind --callgrind-out-file=/dev/null "$me" --times $times "$job" 2>&1 |
               sed -n 's/.*Collected : //p')",
            job);
        state.counters["calls"] = countedBy(R"(strace -o '|wc -l' "$me" --times $times "$job")", job);
    }
} catch (const std::exception& error) {
    state.SkipWithError(error.what());
}

// A line for each job and column, as soon as it is measured: their names and the counters.
class Lines : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
                ++failures;
                continue;
            }
            std::string names      = run.run_name.function_name;
            names[names.find('/')] = '\t';
            std::printf("%s", names.c_str());
            for (const char* name : {"floor", "ratio", "low", "high", "instructions", "allocations", "calls"}) {
                const auto counter = run.counters.find(name);
                if (counter == run.counters.end())
                    std::printf("\t-");
                else
                    std::printf("\t%.6g", counter->second.value);
            }
            std::puts("");
        }
    }

    int failures = 0;
};

} // namespace

int main(int argc, char** argv)
try {
    setenv("VESK_LOG_LEVEL", "5", 1);
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc == 4 && std::strcmp(argv[1], "--times") == 0) {
        const auto& all = jobs();
        const auto job  = std::find_if(all.begin(), all.end(), [&](const Job& one) { return one.name == argv[3]; });
        if (job == all.end())
            fail(std::string("no such job: ") + argv[3]);
        for (int times = std::atoi(argv[2]); times > 0; --times)
            for (const Step& step : job->steps)
                step.viaLibrary();
        return 0;
    }

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    if (unshare(CLONE_NEWNET) != 0)
        fail("root alone may have a network of its own");
    if (std::system("ip link set lo up") != 0)
        fail("ip link set lo up");
    for (const Job& job : jobs())
        for (const Column& column : kColumns)
            benchmark::RegisterBenchmark((job.name + '/' + column.name).c_str(), measure, std::cref(job), column)
                ->UseManualTime()
                ->Iterations(column.rounds);
    Lines lines;
    benchmark::RunSpecifiedBenchmarks(&lines);
    return lines.failures == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
}
