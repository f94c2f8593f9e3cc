#include "pool/nqEnvelope.h"

#include "pool/include/nqPool.h"
#include "pool/nqWorkFailure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sys/random.h>
#include <system_error>
#include <utility>

namespace nq {

namespace {

constexpr std::size_t tagBytes = 16; // two of them meet by chance never
constexpr std::size_t headBytes = tagBytes + 1;
constexpr std::size_t digitsOfAByte = 2;
constexpr std::string_view hexadecimalDigits = "0123456789abcdef";

// In front of an exception's text.
using TextSize = std::uint32_t;
constexpr TextSize longestText = TextSize{64} << 10; // more is no text for people

char byteOf(std::string_view digits)
{
    std::uint8_t byte = 0;
    std::from_chars(digits.data(), digits.data() + digitsOfAByte, byte, 16);
    return static_cast<char>(byte);
}

void append(std::vector<char>& bytes, std::string_view more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

template <typename Value>
std::string_view rawBytes(const Value& value)
{
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

void eraseFront(std::vector<char>& bytes, std::size_t count)
{
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
}

// Nothing when the text is cut short, or longer than any that a worker of runAsWorker() sends.
std::optional<std::string_view> textAt(std::string_view bytes)
{
    TextSize size = 0;
    if (bytes.size() < sizeof size)
        return std::nullopt;
    std::memcpy(&size, bytes.data(), sizeof size);
    bytes.remove_prefix(sizeof size);
    if (bytes.size() < size || size > longestText)
        return std::nullopt;
    return bytes.substr(0, size);
}

std::string_view view(const std::vector<char>& bytes)
{
    return {bytes.data(), bytes.size()};
}

// In front of the text of an exception that says more than its text. Worker and pool are on one
// machine, so numbers are as they are in memory.
struct Details {
    std::int32_t reason = static_cast<std::int32_t>(nqAttempt::Reason::Exception);
    std::uint32_t known = 0; // the sum of those below
    std::int32_t exitStatus = 0;
    std::int32_t signal = 0;
    std::uint64_t peakMemory = 0;
};
static_assert(sizeof(Details) == 24, "no byte of it is padding, which would be left unset");

constexpr std::uint32_t exitStatusIsKnown = 1;
constexpr std::uint32_t signalIsKnown = 2;
constexpr std::uint32_t coreIsDumped = 4;
constexpr std::uint32_t peakMemoryIsKnown = 8;

Details detailsOf(const nqAttempt& told)
{
    Details details;
    details.reason = static_cast<std::int32_t>(told.reason);
    details.known = (told.exitStatus ? exitStatusIsKnown : 0) + (told.signal ? signalIsKnown : 0) +
                    (told.dumpedCore ? coreIsDumped : 0) +
                    (told.peakMemory ? peakMemoryIsKnown : 0);
    details.exitStatus = told.exitStatus.value_or(0);
    details.signal = told.signal.value_or(0);
    details.peakMemory = told.peakMemory.value_or(0);
    return details;
}

nqAttempt attemptOf(const Details& details)
{
    nqAttempt told;
    told.toldByWorker = true;
    told.reason = reasonToTell(static_cast<nqAttempt::Reason>(details.reason));
    if ((details.known & exitStatusIsKnown) != 0)
        told.exitStatus = details.exitStatus;
    if ((details.known & signalIsKnown) != 0)
        told.signal = details.signal;
    told.dumpedCore = (details.known & coreIsDumped) != 0;
    if ((details.known & peakMemoryIsKnown) != 0)
        told.peakMemory = details.peakMemory;
    return told;
}

// An ordinary exception, which needs no more than its text.
bool isTextOnly(const Details& details)
{
    return details.reason == Details().reason && details.known == 0;
}

// Nothing when they are cut short.
std::optional<Details> detailsAt(std::string_view bytes)
{
    Details details;
    if (bytes.size() < sizeof details)
        return std::nullopt;
    std::memcpy(&details, bytes.data(), sizeof details);
    return details;
}

// The text begins behind `head` bytes, and the job behind the text.
nqEnvelope::Answer openException(
    std::vector<char>& answer,
    std::size_t head,
    const Details& details,
    nqEnvelope::Exception& exception)
{
    const std::optional<std::string_view> text = textAt(view(answer).substr(head));
    if (!text)
        return nqEnvelope::Answer::Unknown;
    exception.told = attemptOf(details);
    exception.told.message = *text;
    eraseFront(answer, head + sizeof(TextSize) + text->size());
    exception.job = std::exchange(answer, {});
    return nqEnvelope::Answer::Exception;
}

} // namespace

// Those of a worker are not those of the pool: a worker that is no worker of runAsWorker(), and
// only sends back what it gets, is found out.
enum class nqEnvelope::Kind : char {
    emptyJob = 1,
    escapedJob,
    initialise,
    leave,
    emptyResult,
    escapedResult,
    exception, // the size of its text, the text, the job
    initialised,
    left,
    failure, // details, and then as an exception
};

std::string nqEnvelope::freshTag()
{
    std::array<unsigned char, tagBytes> bytes{};
    while (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        if (errno != EINTR)
            throw nqPoolError(
                "A pool cannot be made, for the kernel gives no random bytes: " +
                std::generic_category().message(errno) +
                "; look at what forbids the system call getrandom, such as a seccomp filter");
    }
    std::string tag;
    for (const unsigned char byte : bytes) {
        tag += {hexadecimalDigits[byte >> 4], hexadecimalDigits[byte & 15]};
    }
    return tag;
}

bool nqEnvelope::isTag(std::string_view text)
{
    return text.size() == tagBytes * digitsOfAByte &&
           text.find_first_not_of(hexadecimalDigits) == std::string_view::npos;
}

nqEnvelope::nqEnvelope(const std::string& tag)
{
    if (!isTag(tag))
        throw nqPoolError("A tag of a pool has 32 hexadecimal digits");
    for (std::size_t digit = 0; digit < tag.size(); digit += digitsOfAByte)
        mTag += byteOf(std::string_view(tag).substr(digit));
}

void nqEnvelope::wrapJob(std::vector<char>& job) const
{
    wrap(job, Kind::emptyJob, Kind::escapedJob);
}

void nqEnvelope::unwrapJob(std::vector<char>& job) const
{
    if (isMarked(view(job)))
        eraseFront(job, headBytes);
}

std::vector<char> nqEnvelope::initialise() const
{
    return marked(Kind::initialise);
}

std::vector<char> nqEnvelope::leave() const
{
    return marked(Kind::leave);
}

nqEnvelope::Answer nqEnvelope::open(std::vector<char>& answer, Exception& exception) const
{
    const std::string_view all = view(answer);
    if (!isMarked(all))
        return Answer::Result;
    if (all.size() < headBytes)
        return Answer::Unknown;
    const std::string_view body = all.substr(headBytes);
    switch (static_cast<Kind>(all[tagBytes])) {
    case Kind::emptyResult:
        if (!body.empty())
            return Answer::Unknown;
        answer.clear();
        return Answer::Result;
    case Kind::escapedResult:
        if (!isMarked(body))
            return Answer::Unknown;
        eraseFront(answer, headBytes);
        return Answer::Result;
    case Kind::exception:
        return openException(answer, headBytes, Details(), exception);
    case Kind::failure: {
        const std::optional<Details> details = detailsAt(body);
        if (!details)
            return Answer::Unknown;
        return openException(answer, headBytes + sizeof *details, *details, exception);
    }
    case Kind::initialised:
        return body.empty() ? Answer::Initialised : Answer::Unknown;
    case Kind::left:
        return body.empty() ? Answer::Left : Answer::Unknown;
    case Kind::emptyJob:
    case Kind::escapedJob:
    case Kind::initialise:
    case Kind::leave:
        break;
    }
    return Answer::Unknown;
}

nqEnvelope::Message nqEnvelope::read(std::string_view message, std::string_view& job) const
{
    job = {};
    if (!isMarked(message)) {
        job = message;
        return Message::Job;
    }
    if (message.size() < headBytes)
        return Message::Unknown;
    switch (static_cast<Kind>(message[tagBytes])) {
    case Kind::emptyJob:
        return Message::Job;
    case Kind::escapedJob:
        job = message.substr(headBytes);
        return Message::Job;
    case Kind::initialise:
        return Message::Initialise;
    case Kind::leave:
        return Message::Leave;
    case Kind::emptyResult:
    case Kind::escapedResult:
    case Kind::exception:
    case Kind::failure:
    case Kind::initialised:
    case Kind::left:
        break;
    }
    return Message::Unknown;
}

void nqEnvelope::wrapResult(std::vector<char>& result) const
{
    wrap(result, Kind::emptyResult, Kind::escapedResult);
}

std::vector<char> nqEnvelope::exception(const nqAttempt& told, std::string_view job) const
{
    const std::string_view text = std::string_view(told.message).substr(0, longestText);
    const auto size = static_cast<TextSize>(text.size());
    const Details details = detailsOf(told);
    const bool hasDetails = !isTextOnly(details);

    std::vector<char> answer = marked(hasDetails ? Kind::failure : Kind::exception);
    answer.reserve(answer.size() + sizeof details + sizeof size + text.size() + job.size());
    if (hasDetails)
        append(answer, rawBytes(details));
    append(answer, rawBytes(size));
    append(answer, text);
    append(answer, job);
    return answer;
}

std::vector<char> nqEnvelope::initialised() const
{
    return marked(Kind::initialised);
}

std::vector<char> nqEnvelope::left() const
{
    return marked(Kind::left);
}

bool nqEnvelope::isMarked(std::string_view bytes) const
{
    return bytes.substr(0, tagBytes) == mTag;
}

std::vector<char> nqEnvelope::marked(Kind kind) const
{
    std::vector<char> bytes;
    bytes.reserve(headBytes);
    bytes.assign(mTag.begin(), mTag.end());
    bytes.push_back(static_cast<char>(kind));
    return bytes;
}

void nqEnvelope::wrap(std::vector<char>& bytes, Kind ofEmpty, Kind ofEscaped) const
{
    if (bytes.empty()) {
        bytes = marked(ofEmpty);
    } else if (isMarked(view(bytes))) {
        const std::vector<char> head = marked(ofEscaped);
        bytes.insert(bytes.begin(), head.begin(), head.end());
    }
}

} // namespace nq
