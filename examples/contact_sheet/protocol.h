#pragma once

#include "examples/contact_sheet/decode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace sheet {

/// The host's own number of a job. The scheduler knows no identifiers: what ties a result or a
/// failure to its job are these bytes, which the host puts into the job and the worker repeats.
using JobId = std::uint32_t;

/// What the host asks of a worker. The worker reads the file itself, so that its bytes travel once.
struct Job {
    JobId id = 0;
    std::uint32_t edge = 0; ///< of the square that the tile fits into, in pixels
    std::string path;
};

/// A file that holds no picture to show: the reason, for people.
struct Refusal {
    std::string reason;
};

/// What a worker answers. A file that cannot be decoded is an answer too, and a cheap one: the
/// scheduler's failures are for workers that are gone.
struct Answer {
    JobId id = 0;
    std::variant<DecodedPicture, Refusal> outcome;
};

/// Host and worker run on one machine and come from one build, so numbers travel as they lie in
/// memory. Encoded messages are never empty, which the scheduler could not carry.
std::vector<char> encodeJob(const Job& job);
std::vector<char> encodeAnswer(const Answer& answer);

/// Nothing for bytes that are no such message: a worker gone wrong must not harm the host.
std::optional<Job> decodeJob(const std::vector<char>& bytes);
std::optional<Answer> decodeAnswer(const std::vector<char>& bytes);

} // namespace sheet
