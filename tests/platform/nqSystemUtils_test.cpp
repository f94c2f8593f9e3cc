#include "system/nqSystemUtils.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <set>
#include <sys/random.h>
#include <sys/syscall.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

using nq::nqSystemUtils;

/// What the next calls of getrandom() do; the real kernel answers when nothing is scripted.
struct ScriptedAnswer {
    int mError;          // 0: none
    std::size_t mLength; // bytes to fill, if no error
};
std::deque<ScriptedAnswer> scriptedAnswers;

constexpr unsigned char scriptedByte = 0xff;

} // namespace

/// Stands in front of the C library's function, for the platform library too.
extern "C" ssize_t getrandom(void* buffer, size_t length, unsigned int flags)
{
    if (scriptedAnswers.empty())
        return ::syscall(SYS_getrandom, buffer, length, flags);

    const ScriptedAnswer answer = scriptedAnswers.front();
    scriptedAnswers.pop_front();
    if (answer.mError != 0) {
        errno = answer.mError;
        return -1;
    }
    const std::size_t filled = std::min(answer.mLength, length);
    std::memset(buffer, scriptedByte, filled);
    return static_cast<ssize_t>(filled);
}

namespace {

/// Whether `text` looks like `form`, in which x stands for a lower-case hexadecimal digit and v for
/// one of the four digits that mark the variant.
bool hasForm(const std::string& text, const std::string& form)
{
    const auto fits = [](char letter, char wanted) {
        if (wanted == 'x')
            return std::string("0123456789abcdef").find(letter) != std::string::npos;
        if (wanted == 'v')
            return std::string("89ab").find(letter) != std::string::npos;
        return letter == wanted;
    };
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), fits);
}

TEST(Uuid, isOfVersion4InLowerCaseWithHyphens)
{
    const std::string uuid = nqSystemUtils::CreateUuid(true);
    EXPECT_TRUE(hasForm(uuid, "xxxxxxxx-xxxx-4xxx-vxxx-xxxxxxxxxxxx")) << uuid;
}

TEST(Uuid, comesWithoutHyphensWhenAsked)
{
    const std::string uuid = nqSystemUtils::CreateUuid(false);
    EXPECT_TRUE(hasForm(uuid, "xxxxxxxxxxxx4xxxvxxxxxxxxxxxxxxx")) << uuid;
}

TEST(Uuid, isNeverTheSameTwice)
{
    constexpr std::size_t count = 1'000;
    std::set<std::string> uuids;
    for (std::size_t made = 0; made < count; ++made)
        uuids.insert(nqSystemUtils::CreateUuid(true));
    EXPECT_EQ(uuids.size(), count);
}

TEST(Uuid, isCompletedAfterSignalsAndShortReads)
{
    scriptedAnswers = {{EINTR, 0}, {0, 5}, {EINTR, 0}, {0, 1}, {0, 10}};
    EXPECT_EQ(nqSystemUtils::CreateUuid(true), "ffffffff-ffff-4fff-bfff-ffffffffffff");
    EXPECT_TRUE(scriptedAnswers.empty());
}

TEST(Uuid, isRefusedWithoutRandomBytes)
{
    scriptedAnswers = {{0, 8}, {ENOSYS, 0}};
    try {
        nqSystemUtils::CreateUuid(true);
        ADD_FAILURE() << "made a UUID without random bytes";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOSYS);
    }
    EXPECT_TRUE(scriptedAnswers.empty());
}

TEST(SystemUtils, idealThreadCountIsThatOfTheOnlineProcessors)
{
    EXPECT_GE(nqSystemUtils::GetIdealThreadCount(), 1);
    EXPECT_EQ(
        static_cast<unsigned>(nqSystemUtils::GetIdealThreadCount()),
        std::thread::hardware_concurrency());
}

TEST(SystemUtils, wallTimeIsInMillisecondsSinceTheEpoch)
{
    const auto now = [] {
        const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
        const auto inMs = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch);
        return static_cast<std::uint64_t>(inMs.count());
    };
    const std::uint64_t before = now();
    const std::uint64_t reported = nqSystemUtils::GetMSecElapsedSinceEpoch();
    EXPECT_GE(reported, before);
    EXPECT_LE(reported, now());
}

} // namespace
