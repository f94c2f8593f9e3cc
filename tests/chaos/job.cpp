#include "tests/chaos/job.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace chaos {

namespace {

constexpr std::uint64_t jobMark = 0x6a6f62206a6f6221;
constexpr std::uint64_t answerMark = 0x616e737765722121;

/// In front of every payload.
struct Head {
    std::uint64_t mark = 0;
    std::uint64_t totalBytes = 0;
    Job job;
};

/// Eight bytes that follow from a number and a place, and from nothing else.
std::uint64_t patternAt(std::uint64_t id, std::uint64_t place)
{
    std::uint64_t mixed = id * 0x9e3779b97f4a7c15 + place * 0xbf58476d1ce4e5b9;
    mixed ^= mixed >> 31;
    mixed *= 0x94d049bb133111eb;
    return mixed ^ (mixed >> 29);
}

void fill(char* bytes, std::size_t size, std::uint64_t id)
{
    for (std::size_t at = 0; at < size; at += sizeof(std::uint64_t)) {
        const std::uint64_t word = patternAt(id, at);
        std::memcpy(bytes + at, &word, std::min(sizeof word, size - at));
    }
}

std::uint64_t checksum(const char* bytes, std::size_t size)
{
    std::uint64_t sum = 0xcbf29ce484222325 ^ size;
    for (std::size_t at = 0; at < size; at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + at, std::min(sizeof word, size - at));
        sum = (sum ^ word) * 0x100000001b3;
        sum ^= sum >> 32;
    }
    return sum;
}

std::vector<char> build(std::uint64_t mark, const Job& job, std::uint64_t payloadBytes)
{
    Head head;
    head.mark = mark;
    head.totalBytes = sizeof(Head) + payloadBytes + sizeof(std::uint64_t);
    head.job = job;
    std::vector<char> bytes(head.totalBytes);
    std::memcpy(bytes.data(), &head, sizeof head);
    fill(bytes.data() + sizeof head, payloadBytes, job.id ^ mark);
    const std::size_t summed = sizeof head + payloadBytes;
    const std::uint64_t sum = checksum(bytes.data(), summed);
    std::memcpy(bytes.data() + summed, &sum, sizeof sum);
    return bytes;
}

std::optional<Job> take(std::uint64_t mark, const std::vector<char>& bytes)
{
    Head head;
    std::uint64_t sum = 0;
    if (bytes.size() < sizeof head + sizeof sum)
        return std::nullopt;
    std::memcpy(&head, bytes.data(), sizeof head);
    std::memcpy(&sum, bytes.data() + bytes.size() - sizeof sum, sizeof sum);
    if (head.mark != mark || head.totalBytes != bytes.size() ||
        static_cast<std::uint32_t>(head.job.behaviour) >= behaviourCount ||
        sum != checksum(bytes.data(), bytes.size() - sizeof sum))
        return std::nullopt;
    return head.job;
}

} // namespace

const char* nameOf(Behaviour behaviour)
{
    static constexpr const char* names[] = {
        "answer",
        "answer slowly",
        "read slowly",
        "dribble and die",
        "answer and die",
        "answer half and die",
        "crash",
        "abort",
        "exit",
        "throw",
        "fork a helper",
        "fork a helper and die",
        "close the pipe and linger",
        "grow and answer",
        "grow and wait",
        "hang"};
    static_assert(std::size(names) == behaviourCount);
    return names[static_cast<std::uint32_t>(behaviour)];
}

bool answers(Behaviour behaviour)
{
    switch (behaviour) {
    case Behaviour::answer:
    case Behaviour::answerSlowly:
    case Behaviour::readSlowly:
    case Behaviour::dribbleAndDie:
    case Behaviour::answerAndDie:
    case Behaviour::forkHelper:
    case Behaviour::growAndAnswer:
        return true;
    case Behaviour::answerHalfAndDie:
    case Behaviour::crash:
    case Behaviour::abort:
    case Behaviour::exit:
    case Behaviour::throwException:
    case Behaviour::forkHelperAndDie:
    case Behaviour::closePipeAndLinger:
    case Behaviour::growAndWait:
    case Behaviour::hang:
        return false;
    }
    return false;
}

bool diesUnanswered(Behaviour behaviour)
{
    return !answers(behaviour) && behaviour != Behaviour::growAndWait &&
           behaviour != Behaviour::hang;
}

std::vector<char> encode(const Job& job)
{
    return build(jobMark, job, job.payloadBytes);
}

std::optional<Job> decodeJob(const std::vector<char>& bytes)
{
    return take(jobMark, bytes);
}

std::vector<char> encodeAnswer(const Job& job)
{
    return build(answerMark, job, job.answerBytes);
}

std::optional<std::uint64_t> decodeAnswer(const std::vector<char>& bytes)
{
    const auto job = take(answerMark, bytes);
    if (!job)
        return std::nullopt;
    return job->id;
}

} // namespace chaos
