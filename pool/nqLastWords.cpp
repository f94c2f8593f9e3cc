#include "pool/nqLastWords.h"

#include "pool/nqQuietWrites.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

constexpr std::size_t mostBytesOfOneRead = std::size_t{1} << 20;
constexpr std::size_t chunkBytes = std::size_t{16} << 10;

/// How long a full standard error of the host is waited for: long enough for a terminal to catch
/// up, short enough that the pool does not seem to hang.
constexpr std::chrono::milliseconds patience{1'000};

bool isWritable(int descriptor, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    pollfd stream{descriptor, POLLOUT, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        ready = ::poll(&stream, 1, static_cast<int>(std::max(left, left.zero()).count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool continuesCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// How many of the first bytes go, so that what was cut there begins with something whole.
std::size_t brokenBytes(std::string_view text)
{
    const std::size_t lineBreak = text.substr(0, text.size() / 4).find('\n');
    if (lineBreak != text.npos)
        return lineBreak + 1;
    constexpr std::size_t longestRest = 3;
    const std::size_t most = std::min(longestRest, text.size());
    std::size_t count = 0;
    while (count < most && continuesCharacter(text[count]))
        ++count;
    return count;
}

} // namespace

nqLastWords::nqLastWords(std::size_t limit, bool isForwarded)
    : mLimit(limit),
      mIsForwarded(isForwarded)
{
}

nqLastWords::~nqLastWords()
{
    watch(-1);
}

void nqLastWords::watch(int descriptor)
{
    const int former = std::exchange(mDescriptor, descriptor);
    if (former >= 0)
        ::close(former);
}

int nqLastWords::descriptor() const
{
    return mDescriptor;
}

void nqLastWords::read()
{
    std::array<char, chunkBytes> chunk;
    for (std::size_t total = 0; mDescriptor >= 0 && total < mostBytesOfOneRead;) {
        const ssize_t count = ::read(mDescriptor, chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno == EAGAIN)
            return;
        if (count <= 0) {
            watch(-1);
            return;
        }
        const std::string_view bytes(chunk.data(), static_cast<std::size_t>(count));
        total += bytes.size();
        keep(bytes);
        if (mIsForwarded)
            forward(bytes);
    }
}

void nqLastWords::forget()
{
    mRead.clear();
}

std::string nqLastWords::text() const
{
    if (mRead.size() <= mLimit)
        return mRead;
    const std::size_t cut = mRead.size() - mLimit;
    const std::string_view end = std::string_view(mRead).substr(cut);
    const bool beginsALine = mRead[cut - 1] == '\n';
    return std::string(end.substr(beginsALine ? 0 : brokenBytes(end)));
}

/// One byte more than the limit always stays, if there was one: it tells that something was cut.
void nqLastWords::keep(std::string_view bytes)
{
    mRead += bytes;
    if (mRead.size() > 2 * mLimit + 1)
        mRead.erase(0, mRead.size() - mLimit - 1);
}

void nqLastWords::forward(std::string_view bytes)
{
    const nqQuietWrites quiet;
    while (!bytes.empty()) {
        mIsStuck = !isWritable(STDERR_FILENO, mIsStuck ? patience.zero() : patience);
        if (mIsStuck)
            return;
        // A pipe that is writable takes so much at once, though it may be a blocking one.
        const std::size_t most = std::min<std::size_t>(bytes.size(), PIPE_BUF);
        const ssize_t count = ::write(STDERR_FILENO, bytes.data(), most);
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return;
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

} // namespace nq
