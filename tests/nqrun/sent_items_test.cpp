#include "tools/nqrun/sent_items.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

namespace nqrun {
namespace {

class SentItemsTest : public testing::Test {
protected:
    SentItemsTest()
    {
        std::string name = temporaryFolder() + "/sent-XXXXXX";
        mFolder = ::mkdtemp(name.data());
    }
    ~SentItemsTest() override
    {
        std::filesystem::remove_all(mFolder);
    }
    std::string path() const
    {
        return mFolder + "/run.log.queue";
    }
    bool isThere() const
    {
        return std::filesystem::exists(path());
    }
    std::unique_ptr<SentItems> begun(bool resumes = false) const
    {
        auto items = std::make_unique<SentItems>(path(), resumes);
        items->begin();
        return items;
    }

    std::string mFolder;
};

TEST_F(SentItemsTest, areLeftToTheNextRunWithTheirName)
{
    std::string client;
    {
        const auto items = begun();
        items->note(7, {0xffff'ffff'0000'0001, 3, 0xabc});
        client = items->client();
    }
    SentItems next(path(), true);
    EXPECT_EQ(next.client(), client);
    EXPECT_FALSE(next.takeLeft(8));
    const std::optional<SentItems::Job> job = next.takeLeft(7);
    ASSERT_TRUE(job);
    EXPECT_EQ(job->id, 0xffff'ffff'0000'0001);
    EXPECT_EQ(job->attempt, 3U);
    EXPECT_EQ(job->check, 0xabcU);
}

TEST_F(SentItemsTest, areTakenOnceAndThenNoneIsLeft)
{
    {
        const auto items = begun();
        items->note(1, {1, 1, 0});
        items->note(2, {2, 1, 0});
    }
    const auto next = begun(true);
    EXPECT_TRUE(next->takeLeft(1));
    EXPECT_FALSE(next->takeLeft(1));
    EXPECT_TRUE(next->hasLeft());
    next->forget(2);
    EXPECT_FALSE(next->hasLeft());
}

TEST_F(SentItemsTest, areLeftAsTheirLastJob)
{
    {
        const auto items = begun();
        items->note(7, {1, 1, 0});
        items->note(7, {2, 2, 0});
    }
    EXPECT_EQ(SentItems(path(), true).takeLeft(7)->id, 2U);
}

TEST_F(SentItemsTest, areForgottenOneByOne)
{
    {
        const auto items = begun();
        items->note(1, {1, 1, 0});
        items->note(2, {2, 1, 0});
        items->forget(1);
    }
    {
        const auto items = begun(true);
        EXPECT_FALSE(items->takeLeft(1));
        items->note(3, {3, 1, 0});
        items->forget(2);
        EXPECT_FALSE(items->takeLeft(2));
    }
    SentItems last(path(), true);
    EXPECT_FALSE(last.takeLeft(2));
    EXPECT_EQ(last.takeLeft(3)->id, 3U);
}

TEST_F(SentItemsTest, takeTheRoomOfThoseThatAreAtATime)
{
    const auto items = begun();
    for (std::uint64_t index = 1; index <= 1000; ++index) {
        items->note(index, {index, 1, 0});
        items->note(index + 1000, {index, 1, 0});
        items->forget(index);
        items->forget(index + 1000);
    }
    items->note(1, {1, 1, 0});
    EXPECT_EQ(std::filesystem::file_size(path()), 3U * 64U);
}

TEST_F(SentItemsTest, leaveNoFileWhenAllAreForgotten)
{
    {
        const auto items = begun();
        items->note(1, {1, 1, 0});
        items->forget(1);
        EXPECT_TRUE(isThere());
    }
    EXPECT_FALSE(isThere());
}

TEST_F(SentItemsTest, makeNoFileBeforeTheyBegin)
{
    {
        const SentItems items(path(), true);
        EXPECT_FALSE(isThere());
    }
    EXPECT_FALSE(isThere());
}

TEST_F(SentItemsTest, ofAnotherRunAreNotTakenUpByOneThatBegins)
{
    begun()->note(1, {1, 1, 0});
    begun();
    EXPECT_FALSE(isThere());
}

TEST_F(SentItemsTest, areThoseOfOneRunAtATime)
{
    const auto items = begun();
    items->note(1, {1, 1, 0});
    for (const bool resumes : {true, false})
        EXPECT_EXIT(
            try { begun(resumes); } catch (const Error& error) {
                std::fputs(error.what(), stderr);
                std::exit(0);
            },
            testing::ExitedWithCode(0),
            "in use by another nqrun");
    EXPECT_TRUE(isThere());
}

TEST_F(SentItemsTest, haveANameOfTheirOwn)
{
    EXPECT_NE(SentItems(path(), false).client(), SentItems(path(), false).client());
}

TEST_F(SentItemsTest, areNoneInAFileOfWhichAPowerLossHasLeftTheSize)
{
    writeWhole(path(), std::string(200, '\0'), 0600);
    begun(true)->note(1, {1, 1, 0});
    SentItems next(path(), true);
    EXPECT_TRUE(next.takeLeft(1));
    EXPECT_FALSE(next.hasLeft());
}

TEST_F(SentItemsTest, areNotReadFromAnythingElse)
{
    writeWhole(path(), "hello\n", 0600);
    EXPECT_THROW(SentItems(path(), true), Error);
}

} // namespace
} // namespace nqrun
