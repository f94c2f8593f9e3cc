#include "tools/nqrun/items.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace nqrun {

namespace {

constexpr std::size_t chunkBytes = std::size_t{64} << 10;
constexpr std::size_t longestItem = std::size_t{1} << 30; // of two that a job could be

[[noreturn]] void refuse(const std::string& fileName)
{
    throw Error("items cannot be read from " + fileName + ": " + lastError());
}

// What is known beforehand is not found out in the middle of a run.
void checkReadable(const std::string& name)
{
    struct stat about {};
    if (::stat(name.c_str(), &about) != 0 || ::access(name.c_str(), R_OK) != 0)
        refuse(shown(name));
    if (S_ISDIR(about.st_mode)) {
        errno = EISDIR;
        refuse(shown(name));
    }
}

} // namespace

Items::Items(ItemOptions options)
    : mOptions(std::move(options))
{
    if (!mOptions.arguments && mOptions.files.empty())
        mOptions.files.emplace_back("-");
    for (const std::string& name : mOptions.files) {
        if (name != "-")
            checkReadable(name);
    }
}

Items::Next Items::next(Item& item)
{
    if (mOptions.arguments && !mOptions.asBlocks)
        return nextArgument(item);
    for (;;) {
        const bool isTaken = mOptions.asBlocks ? takeBlock(item.text) : takeItem(item.text);
        if (isTaken || (mDescriptor < 0 && takeRest(item.text))) {
            if (item.text.empty() && mOptions.separator == '\n')
                continue;
            item.index = ++mCount;
            return Next::Item;
        }
        if (mDescriptor < 0 && !openNextFile()) {
            mIsAtEnd = true;
            return Next::End;
        }
        if (!isReadable())
            return Next::Wait;
        readChunk();
    }
}

Items::Next Items::nextArgument(Item& item)
{
    if (mCount == mOptions.arguments->size())
        return Next::End;
    item.text = std::move((*mOptions.arguments)[mCount]);
    item.index = ++mCount;
    return Next::Item;
}

// What ends in a separator.
bool Items::takeItem(std::string& text)
{
    const std::size_t end = mBuffer.find(mOptions.separator, mScanned);
    if (end == mBuffer.npos) {
        mScanned = mBuffer.size();
        return false;
    }
    text.assign(mBuffer, mBegin, end - mBegin);
    mBegin = mScanned = end + 1;
    return true;
}

bool Items::takeBlock(std::string& text)
{
    std::size_t end = mBuffer.npos; // of the block
    if (mOptions.blockLines != 0) {
        for (std::size_t at = 0; end == mBuffer.npos;) {
            at = mBuffer.find(mOptions.separator, mScanned);
            if (at == mBuffer.npos) {
                mScanned = mBuffer.size();
                return false;
            }
            mScanned = at + 1;
            if (++mLines == mOptions.blockLines)
                end = at + 1;
        }
    } else {
        if (mBuffer.size() - mBegin < mOptions.blockBytes)
            return false;
        const std::size_t last =
            mBuffer.rfind(mOptions.separator, mBegin + mOptions.blockBytes - 1);
        if (last != mBuffer.npos && last >= mBegin)
            end = last + 1;
        else { // one line that is longer than a block
            const std::size_t from = std::max(mScanned, mBegin + mOptions.blockBytes);
            const std::size_t next = mBuffer.find(mOptions.separator, from);
            mScanned = mBuffer.size();
            if (next == mBuffer.npos)
                return false;
            end = next + 1;
        }
    }
    text.assign(mBuffer, mBegin, end - mBegin);
    mBegin = mScanned = end;
    mLines = 0;
    return true;
}

// The last one of a file may lack its separator.
bool Items::takeRest(std::string& text)
{
    if (mBegin == mBuffer.size())
        return false;
    text.assign(mBuffer, mBegin, mBuffer.npos);
    mBuffer.clear();
    mBegin = mScanned = 0;
    mLines = 0;
    return true;
}

bool Items::openNextFile()
{
    if (mNextFile == mOptions.files.size())
        return false;
    if (mNextFile == 0)
        measureFiles();
    const std::string& name = mOptions.files[mNextFile++];
    if (name == "-") {
        mFileName = "standard input";
        mDescriptor = STDIN_FILENO;
    } else {
        mFileName = shown(name);
        mOpened = Descriptor(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
        mDescriptor = mOpened.number();
        if (!mOpened.isOpen())
            refuse(mFileName);
    }
    struct stat about {};
    if (::fstat(mDescriptor, &about) != 0)
        refuse(mFileName);
    mIsRegular = S_ISREG(about.st_mode);
    return true;
}

bool Items::isReadable() const
{
    if (mIsRegular)
        return true;
    pollfd stream{mDescriptor, POLLIN, 0};
    return ::poll(&stream, 1, 0) > 0;
}

void Items::readChunk()
{
    if (mBegin > chunkBytes && mBegin > mBuffer.size() / 2) {
        mBuffer.erase(0, mBegin);
        mScanned -= mBegin;
        mBegin = 0;
    }
    if (mBuffer.size() - mBegin > longestItem)
        throw Error("an item of " + mFileName + " is longer than " + sizeText(longestItem));
    const std::size_t have = mBuffer.size();
    mBuffer.resize(have + chunkBytes);
    const ssize_t got =
        retryOnSignal([&] { return ::read(mDescriptor, mBuffer.data() + have, chunkBytes); });
    const int error = errno;
    mBuffer.resize(have + (got > 0 ? static_cast<std::size_t>(got) : 0));
    if (got < 0 && error == EAGAIN)
        return;
    errno = error;
    if (got < 0)
        refuse(mFileName);
    mBytesRead += static_cast<std::uint64_t>(got);
    if (got == 0) {
        mOpened.reset();
        mDescriptor = -1;
    }
}

void Items::measureFiles()
{
    std::uint64_t bytes = 0;
    for (const std::string& name : mOptions.files) {
        struct stat about {};
        const int result =
            name == "-" ? ::fstat(STDIN_FILENO, &about) : ::stat(name.c_str(), &about);
        if (result != 0 || !S_ISREG(about.st_mode))
            return;
        bytes += static_cast<std::uint64_t>(about.st_size);
    }
    mBytesInFiles = bytes;
}

int Items::descriptor() const
{
    return mDescriptor;
}

std::optional<std::uint64_t> Items::total() const
{
    if (mOptions.arguments && !mOptions.asBlocks)
        return mOptions.arguments->size();
    if (mIsAtEnd)
        return mCount;
    return std::nullopt;
}

std::optional<double> Items::estimatedTotal() const
{
    if (const auto known = total())
        return static_cast<double>(*known);
    const std::uint64_t unused = mBuffer.size() - mBegin;
    if (!mBytesInFiles || mBytesRead <= unused || mCount == 0)
        return std::nullopt;
    return static_cast<double>(mCount) * static_cast<double>(*mBytesInFiles) /
           static_cast<double>(mBytesRead - unused);
}

} // namespace nqrun
