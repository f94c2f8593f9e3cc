#include "pool/nqEnvelope.h"

#include "pool/include/nqPool.h"

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
    case Kind::exception: {
        const std::optional<std::string_view> text = textAt(body);
        if (!text)
            return Answer::Unknown;
        exception.message = *text;
        eraseFront(answer, headBytes + sizeof(TextSize) + exception.message.size());
        exception.job = std::exchange(answer, {});
        return Answer::Exception;
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

std::vector<char> nqEnvelope::exception(std::string_view what, std::string_view job) const
{
    what = what.substr(0, longestText);
    const auto size = static_cast<TextSize>(what.size());
    char sizeBytes[sizeof size];
    std::memcpy(sizeBytes, &size, sizeof size);

    std::vector<char> answer = marked(Kind::exception);
    answer.reserve(answer.size() + sizeof size + what.size() + job.size());
    append(answer, {sizeBytes, sizeof size});
    append(answer, what);
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
