#include "tools/nqrun/delivery.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/stop_signals.h"
#include "tools/nqrun/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace nqrun {

namespace {

constexpr std::size_t chunkBytes = std::size_t{64} << 10;

// A pipe that has room has room for so much, and a write of it does not block.
constexpr std::size_t pieceBytes = PIPE_BUF;

std::string tagged(std::string_view bytes, const std::string& tag, bool& isAtLineStart)
{
    std::string text;
    for (std::size_t begin = 0; begin < bytes.size();) {
        if (isAtLineStart)
            text += tag;
        const std::size_t end = std::min(bytes.find('\n', begin), bytes.size() - 1) + 1;
        text += bytes.substr(begin, end - begin);
        isAtLineStart = text.back() == '\n';
        begin = end;
    }
    return text;
}

// Reads `count` bytes of a file that has so many, in parts that take little memory.
template <typename Take>
void readParts(int from, std::uint64_t offset, std::uint64_t count, Take take)
{
    while (count > 0) {
        const std::string part = readAt(from, offset, std::min<std::uint64_t>(chunkBytes, count));
        if (part.empty())
            throw Error("what a command has printed cannot be read again: " + lastError());
        offset += part.size();
        count -= part.size();
        take(part);
    }
}

} // namespace

Delivery::Delivery(bool keepOrder, bool hasTags, BeforeWriting before, OnDelivered after)
    : mKeepOrder(keepOrder),
      mHasTags(hasTags),
      mBefore(std::move(before)),
      mAfter(std::move(after)),
      mIsOneTerminal(::isatty(STDOUT_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1)
{
}

void Delivery::take(Finished&& finished, const OutputSlot& slot)
{
    const Source source{slot.output.number(), 0, slot.error.number(), 0};
    if (mKeepOrder && finished.ordinal != mNext) {
        hold(std::move(finished), source);
        return;
    }
    deliver(std::move(finished), source);
    ++mNext;
    releaseInTurn();
}

void Delivery::take(Finished&& finished, std::string_view output)
{
    finished.outputBytes = output.size();
    finished.errorBytes = 0;
    if (mKeepOrder && finished.ordinal != mNext) {
        const std::uint64_t offset = mHeldBytes;
        keep(output);
        wait(std::move(finished), offset);
        return;
    }
    mBefore();
    bool isAtLineStart = true;
    write(
        STDOUT_FILENO,
        mHasTags ? tagged(output, shown(finished.name) + '\t', isAtLineStart)
                 : std::string(output));
    mAfter(std::move(finished));
    ++mNext;
    releaseInTurn();
}

void Delivery::skip(std::uint64_t ordinal)
{
    if (!mKeepOrder)
        return;
    mWaiting[ordinal].isSkipped = true;
    releaseInTurn();
}

void Delivery::flush()
{
    while (!mWaiting.empty()) {
        auto first = mWaiting.extract(mWaiting.begin());
        mNext = first.key() + 1;
        deliverHeld(std::move(first.mapped()));
    }
}

void Delivery::releaseInTurn()
{
    while (!mWaiting.empty() && mWaiting.begin()->first == mNext) {
        auto first = mWaiting.extract(mWaiting.begin());
        ++mNext;
        deliverHeld(std::move(first.mapped()));
    }
    if (mWaiting.empty() && mHeldBytes != 0 && ::ftruncate(mHeld.number(), 0) == 0)
        mHeldBytes = 0;
}

void Delivery::deliverHeld(Waiting&& waiting)
{
    if (waiting.isSkipped)
        return;
    const std::uint64_t bytes = waiting.finished.outputBytes + waiting.finished.errorBytes;
    const Source source{
        mHeld.number(),
        waiting.offset,
        mHeld.number(),
        waiting.offset + waiting.finished.outputBytes};
    deliver(std::move(waiting.finished), source);
    freeHeld(waiting.offset, bytes);
}

// While somebody waits, the file's beginning is given back to the disk as it is read.
void Delivery::freeHeld(std::uint64_t offset, std::uint64_t count)
{
    constexpr int mode = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
    if (count != 0) // where a file system cannot, the space is free at the end
        ::fallocate(mHeld.number(), mode, static_cast<off_t>(offset), static_cast<off_t>(count));
}

void Delivery::deliver(Finished&& finished, const Source& source)
{
    mBefore();
    const std::string tag = mHasTags ? shown(finished.name) + '\t' : std::string();
    copy(source.output, source.outputOffset, finished.outputBytes, STDOUT_FILENO, tag);
    copy(source.error, source.errorOffset, finished.errorBytes, STDERR_FILENO, tag);
    mAfter(std::move(finished));
}

void Delivery::hold(Finished&& finished, const Source& source)
{
    const std::uint64_t offset = mHeldBytes;
    const auto keepAll = [this](int from, std::uint64_t count) {
        readParts(from, 0, count, [this](const std::string& part) { keep(part); });
    };
    keepAll(source.output, finished.outputBytes);
    keepAll(source.error, finished.errorBytes);
    wait(std::move(finished), offset);
}

void Delivery::keep(std::string_view bytes)
{
    if (!bytes.empty() && !mHeld.isOpen())
        mHeld = makeTemporaryFile();
    while (!bytes.empty()) {
        const ssize_t count = retryOnSignal([&] {
            return ::pwrite(
                mHeld.number(), bytes.data(), bytes.size(), static_cast<off_t>(mHeldBytes));
        });
        if (count < 0)
            throw Error(
                "output that waits for its turn cannot be kept in " + temporaryFolder() + ": " +
                lastError());
        bytes.remove_prefix(static_cast<std::size_t>(count));
        mHeldBytes += static_cast<std::uint64_t>(count);
    }
}

void Delivery::wait(Finished&& finished, std::uint64_t offset)
{
    const std::uint64_t ordinal = finished.ordinal;
    mWaiting.emplace(ordinal, Waiting{std::move(finished), offset, false});
}

void Delivery::copy(
    int from, std::uint64_t offset, std::uint64_t count, int to, const std::string& tag)
{
    bool isAtLineStart = true;
    readParts(from, offset, count, [&](const std::string& part) {
        write(to, tag.empty() ? part : tagged(part, tag, isAtLineStart));
    });
}

void Delivery::write(int to, std::string_view bytes)
{
    if ((to == STDERR_FILENO || mIsOneTerminal) && !bytes.empty())
        mIsAtLineStart = bytes.back() == '\n';
    while (!bytes.empty()) {
        awaitRoom(to);
        const ssize_t count = ::write(to, bytes.data(), std::min(bytes.size(), pieceBytes));
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EINTR || errno == EAGAIN)
            continue;
        if (to == STDERR_FILENO)
            return; // there is nobody left to tell
        if (errno == EPIPE)
            throw OutputClosed("nobody reads standard output any more");
        throw Error("standard output cannot be written: " + lastError());
    }
}

// A reader may take its time, or all time: Ctrl-C is heard meanwhile. A file is always ready.
void Delivery::awaitRoom(int to)
{
    for (;;) {
        std::array<pollfd, 2> sources = {
            {{to, POLLOUT, 0}, {StopSignals::descriptor(), POLLIN, 0}}};
        const bool isEnding = StopSignals::wish() == StopSignals::Wish::End;
        const int found = ::poll(sources.data(), sources.size(), isEnding ? 0 : -1);
        if (sources[1].revents != 0)
            StopSignals::empty(); // the wish stays
        if ((found == 0 && isEnding) ||
            (sources[1].revents != 0 && StopSignals::wish() == StopSignals::Wish::End))
            throw OutputClosed("interrupted while it was written");
        if (sources[0].revents != 0)
            return;
    }
}

void Delivery::say(const std::string& line)
{
    mBefore();
    beginLine();
    write(STDERR_FILENO, line + '\n');
}

void Delivery::beginLine()
{
    if (!mIsAtLineStart)
        write(STDERR_FILENO, "\n");
}

} // namespace nqrun
