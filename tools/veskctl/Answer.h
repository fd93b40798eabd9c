// What a command answers: what it found, what became of it, and what to do next; as text or as JSON.
#ifndef VESKCTL_ANSWER_H
#define VESKCTL_ANSWER_H

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
    Refused    = 1, // by the library or the kernel
    WrongUsage = 2, // nothing was sent
    NotAsAsked = 3, // the library said 0, but nothing happened, or not all that was asked
};

// What cannot be meant, and what to write instead; thrown before anything is sent. Of a record it may be several lines.
struct Refusal : std::runtime_error {
    explicit Refusal(const std::string& what, Status with = WrongUsage) : std::runtime_error(what), status(with) {}
    Status status;
};

// The library's calls return 0 or -1. What the kernel said is in their log, which linking the scripted kernel keeps.
struct Answer {
    int result    = 0; // the library's
    Status status = Done;
    Json findings = Json::object();
    std::string text; // the findings in words, where they are no lines of "name value"
    std::string note; // why nothing happened, or what to do next
    int error = 0;    // the kernel's errno
    std::vector<Vesk::Testing::LogLine> log;

    // The library said 0, and yet.
    void notAsAsked(const std::string& why)
    {
        status = NotAsAsked;
        note   = why;
    }
    // Whether a line was logged whose format has this piece.
    [[nodiscard]] bool logged(const char* piece) const;
};

// An operation, its arguments checked.
struct Operation {
    std::function<int(Answer&)> call;        // the library's function; findings count when it returns 0
    std::function<void()> look         = {}; // at the kernel, before the call
    std::function<void(Answer&)> judge = {}; // what came of it, success or not
};

Answer perform(const Operation& operation);

// Adds to a list of the findings: to the JSON all fields, to the text a headline that has the first of them, then the
// rest.
void addEntry(Answer& answer, const char* list, const std::string& headline, const Json& fields,
              std::size_t inHeadline);

// Prints the answer and returns the exit status. Log lines from a level on go to standard error.
int print(const Answer& answer, bool json, int logLevel);
int print(const Refusal& refusal, bool json);

#endif
