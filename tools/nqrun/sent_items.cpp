#include "tools/nqrun/sent_items.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <random>

// Lines of the same length: a head with the name, then a slot for each item that may be in the
// queue at a time, which is written anew for the next one. The file stays small, and as no slot
// crosses a sector of a disk, none is ever torn.

namespace nqrun {

namespace {

constexpr std::size_t lineBytes = 64;
constexpr const char* head = "nqrun items in a queue 1 ";

std::string padded(std::string text)
{
    text.resize(lineBytes - 1, ' ');
    return text + '\n';
}

std::string uniqueName()
{
    std::random_device random;
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "nqrun-%08x%08x%08x", random(), random(), random());
    return text.data();
}

} // namespace

SentItems::SentItems(std::string path, bool resumes)
    : mPath(std::move(path)),
      mClient(uniqueName())
{
    if (resumes)
        load();
}

SentItems::~SentItems()
{
    if (mIsMade && mSlots.empty())
        ::unlink(mPath.c_str());
}

void SentItems::open(int flags)
{
    mFile = Descriptor(::open(mPath.c_str(), O_RDWR | O_CLOEXEC | flags, 0666));
    if (!mFile.isOpen()) {
        if (errno == ENOENT && (flags & O_CREAT) == 0)
            return;
        throw Error("the file " + shown(mPath) + " cannot be opened: " + lastError());
    }
    lockFile(mFile.number(), "the file " + shown(mPath));
}

void SentItems::load()
{
    open(0);
    if (!mFile.isOpen())
        return;
    const std::string first = readAt(mFile.number(), 0, lineBytes);
    // The run before was killed before it had sent anything, or lost what it had written there with
    // the power, and only its size is on disk.
    if (first.find_first_not_of('\0') == first.npos)
        return;
    const std::string beginning(head);
    const std::size_t end = first.find(' ', beginning.size());
    if (first.size() != lineBytes || first.compare(0, beginning.size(), beginning) != 0 ||
        end == first.npos)
        throw Error(
            "the file " + shown(mPath) +
            " is not what nqrun keeps there beside a joblog; move it away");
    mClient = first.substr(beginning.size(), end - beginning.size());
    for (;; ++mSlotCount) {
        const std::string line = readAt(mFile.number(), (mSlotCount + 1) * lineBytes, lineBytes);
        if (line.size() != lineBytes)
            break;
        std::uint64_t index = 0;
        Job job;
        if (std::sscanf(
                line.c_str(),
                "%" SCNx64 " %" SCNx64 " %" SCNx32 " %" SCNx64,
                &index,
                &job.id,
                &job.attempt,
                &job.check) == 4) {
            mSlots[index] = mSlotCount;
            mLeft[index] = job;
        } else {
            mFreeSlots.push_back(mSlotCount);
        }
    }
}

void SentItems::begin()
{
    if (!mFile.isOpen())
        open(O_CREAT);
    mIsMade = true;
    if (mSlotCount != 0)
        return;
    if (::ftruncate(mFile.number(), 0) != 0)
        throw Error("the file " + shown(mPath) + " cannot be written: " + lastError());
    const std::string line = padded(head + mClient + ' ');
    if (::pwrite(mFile.number(), line.data(), line.size(), 0) != ssize_t{lineBytes})
        throw Error("the file " + shown(mPath) + " cannot be written: " + lastError());
}

std::optional<SentItems::Job> SentItems::takeLeft(std::uint64_t index)
{
    const auto found = mLeft.extract(index);
    return found ? std::optional(found.mapped()) : std::nullopt;
}

void SentItems::note(std::uint64_t index, const Job& job)
{
    const auto [known, isNew] = mSlots.try_emplace(index, mSlotCount);
    if (isNew && !mFreeSlots.empty()) {
        known->second = mFreeSlots.back();
        mFreeSlots.pop_back();
    } else if (isNew) {
        ++mSlotCount;
    }
    std::array<char, lineBytes> text{};
    std::snprintf(
        text.data(),
        text.size(),
        "%" PRIx64 " %" PRIx64 " %" PRIx32 " %" PRIx64,
        index,
        job.id,
        job.attempt,
        job.check);
    write(known->second, padded(text.data()));
}

void SentItems::forget(std::uint64_t index)
{
    const auto found = mSlots.find(index);
    if (found == mSlots.end())
        return;
    write(found->second, padded({}));
    mFreeSlots.push_back(found->second);
    mSlots.erase(found);
    mLeft.erase(index);
}

void SentItems::write(std::uint64_t slot, const std::string& line)
{
    const auto offset = static_cast<off_t>((slot + 1) * lineBytes);
    if (::pwrite(mFile.number(), line.data(), line.size(), offset) != ssize_t{lineBytes})
        throw Error("the file " + shown(mPath) + " cannot be written: " + lastError());
}

} // namespace nqrun
