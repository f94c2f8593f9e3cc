#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace chaos {

/// What a job makes its worker do.
enum class Behaviour : std::uint32_t {
    answer,             // at once
    answerSlowly,       // after a while
    readSlowly,         // answer, then take in the next jobs with pauses
    dribbleAndDie,      // the answer goes out in small pieces with pauses between them
    answerAndDie,       // the whole answer is out before the end
    answerHalfAndDie,   // the frame is never completed
    crash,              // SIGSEGV
    abort,              // SIGABRT
    exit,               // an orderly end without an answer
    throwException,     // out of the hook
    forkHelper,         // a child that never ends and holds copies of all descriptors, then answer
    forkHelperAndDie,   // the same, then an end without an answer
    closePipeAndLinger, // the process outlives its connection for a while
    growAndAnswer,      // keep memory
    growAndWait,        // keep memory, and wait for the end
    hang                // wait for the end
};

constexpr std::uint32_t behaviourCount = static_cast<std::uint32_t>(Behaviour::hang) + 1;

const char* nameOf(Behaviour behaviour);

/// Whether a worker that does this lives on and answers when nobody disturbs it and it stays within
/// its limits.
bool answers(Behaviour behaviour);

/// Whether a worker that does this ends by itself before it has answered.
bool diesUnanswered(Behaviour behaviour);

struct Job {
    std::uint64_t id = 0;
    Behaviour behaviour = Behaviour::answer;
    std::uint32_t milliseconds = 0; // how long what the behaviour does slowly takes
    std::uint64_t growBytes = 0;
    std::uint64_t payloadBytes = 0; // of the job, beyond what describes it
    std::uint64_t answerBytes = 0;  // of the answer, likewise
};

/// The job's bytes: description, a payload that follows from its number, checksum over both.
std::vector<char> encode(const Job& job);

/// Nothing when a single byte is not as encode made it.
std::optional<Job> decodeJob(const std::vector<char>& bytes);

std::vector<char> encodeAnswer(const Job& job);

/// The number of the job that this answers; nothing when the answer is damaged.
std::optional<std::uint64_t> decodeAnswer(const std::vector<char>& bytes);

} // namespace chaos
