// What a command answers: what it found, what became of it, and what to do next; as text or as JSON.
#ifndef VESKCTL_ANSWER_H
#define VESKCTL_ANSWER_H

#include <Decode.h>
#include <ScriptedKernel.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using Json = nlohmann::ordered_json;

// The exit status.
enum Status {
    Done       = 0,
    Refused    = 1, // by the library or the kernel; or it failed
    WrongUsage = 2, // nothing was sent
    NotAsAsked = 3, // nothing happened, or a part of what was asked, or something else
    Lost       = 4, // done, but the answer could not be written
};

// What cannot be meant, and what to write instead; thrown before anything is sent. Of a record it may be several lines.
struct Refusal : std::runtime_error {
    explicit Refusal(const std::string& line, Status with = WrongUsage) : Refusal(std::vector{line}, with) {}
    explicit Refusal(const std::vector<std::string>& all, Status with = WrongUsage)
        : std::runtime_error(Vesk::Messages::joined(all, "\n")), lines(all), status(with)
    {}
    std::vector<std::string> lines;
    Status status;
};

// The library's calls return 0, or -1 with errno set. Its log is kept by the scripted kernel that is linked.
struct Answer {
    bool called   = false; // whether the library was; not where the look before failed
    int result    = 0;     // the library's
    Status status = Done;
    Json findings = Json::object();
    std::string text; // the findings in words, where they are no lines of "name value"
    std::string note; // why nothing happened, or what to do next
    int error = 0;    // the reason of a failure, an errno
    std::vector<std::string> warnings;
    std::vector<Vesk::Testing::LogLine> log;

    // Nobody refused it, and yet.
    void notAsAsked(const std::string& why)
    {
        status = NotAsAsked;
        note   = why;
        error  = 0;
    }
    // The reason, if there is one, is that of the part that was not done.
    void inPart(const std::string& which)
    {
        status = NotAsAsked;
        note   = "done in part: " + which;
    }
    // What to do next, unless it is known already.
    void advise(int about, const std::string& what)
    {
        if (status == Refused && error == about && note.empty())
            note = what;
    }
    // Whether a line of this format was logged.
    [[nodiscard]] bool heard(const char* format) const;
};

// An operation, its arguments checked.
struct Operation {
    std::function<int(Answer&)> call; // the library's function; findings count when it returns 0

    // Makes the call, looks at the kernel before and after, and judges what came of it. Just the call, when empty.
    // Where a look fails, it throws a std::system_error.
    std::function<void(Answer&, const std::function<void()>& makeCall)> around = {};
};

Answer perform(const Operation& operation);

// Writes all of a text to standard output. Returns `status`, or Lost when what is done is not what can be read.
int put(const std::string& text, int status = Done);

// Prints the answer and returns the exit status. Log lines from a level on go to standard error.
int print(const Answer& answer, bool json, int logLevel);
int print(const Refusal& refusal, const std::vector<std::string>& warnings, bool json);

#endif
