#include "system/nqDirUtils.h"
#include "tests/common/files.h"

#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using nq::nqDirUtils;

/// Runs each test in an empty directory of its own and goes back afterwards.
class DirUtils : public ::testing::Test {
protected:
    void SetUp() override
    {
        mDirectory = nqDirUtils::GetCurrentWorkingDirUtf8();
    }

    const common::TemporaryFolder mFolder;
    const common::CurrentFolder mHere{mFolder.path()};
    std::string mDirectory; // physical, as the kernel names it
};

TEST_F(DirUtils, anAbsolutePathStaysAsItIs)
{
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8("/a/../b//c/."), "/a/../b//c/.");
}

TEST_F(DirUtils, aRelativePathCountsFromTheCurrentDirectory)
{
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8("a/../b"), mDirectory + "/a/../b");
}

TEST_F(DirUtils, aRelativePathInTheRootDirectoryGetsOneSlash)
{
    ASSERT_EQ(::chdir("/"), 0);
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8("a"), "/a");
}

TEST_F(DirUtils, anEmptyPathStaysEmpty)
{
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8(""), "");
}

TEST_F(DirUtils, aSymbolicLinkIsNotResolved)
{
    ASSERT_EQ(::symlink("/", "link"), 0);
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8("link/usr"), mDirectory + "/link/usr");
    EXPECT_EQ(::unlink("link"), 0);
}

TEST_F(DirUtils, bytesOfUtf8PassThrough)
{
    ASSERT_EQ(::mkdir("\xc3\xa9t\xc3\xa9", 0700), 0);
    ASSERT_EQ(::chdir("\xc3\xa9t\xc3\xa9"), 0);
    EXPECT_EQ(
        nqDirUtils::GetAbsolutePathUtf8("\xe2\x82\xac"),
        mDirectory + "/\xc3\xa9t\xc3\xa9/\xe2\x82\xac");
    ASSERT_EQ(::chdir(".."), 0);
    EXPECT_EQ(::rmdir("\xc3\xa9t\xc3\xa9"), 0);
}

TEST_F(DirUtils, aRemovedCurrentDirectoryGivesEmptyTexts)
{
    ASSERT_EQ(::rmdir(mDirectory.c_str()), 0);
    EXPECT_EQ(nqDirUtils::GetCurrentWorkingDirUtf8(), "");
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8("a"), "");
    EXPECT_EQ(nqDirUtils::GetAbsolutePathUtf8("/a"), "/a");
}

TEST_F(DirUtils, aCurrentDirectoryLongerThanThePathLimitIsRead)
{
    const std::string name(NAME_MAX, 'd');
    const std::size_t depth = PATH_MAX / name.size() + 2;
    std::string expected = mDirectory;
    for (std::size_t level = 0; level < depth; ++level) {
        ASSERT_EQ(::mkdir(name.c_str(), 0700), 0);
        ASSERT_EQ(::chdir(name.c_str()), 0);
        expected += "/" + name;
    }

    EXPECT_GT(expected.size(), static_cast<std::size_t>(PATH_MAX));
    EXPECT_EQ(nqDirUtils::GetCurrentWorkingDirUtf8(), expected);

    for (std::size_t level = 0; level < depth; ++level) {
        ASSERT_EQ(::chdir(".."), 0);
        EXPECT_EQ(::rmdir(name.c_str()), 0);
    }
}

TEST(ExtractFolder, isWhatStandsBeforeTheLastSlash)
{
    EXPECT_EQ(nqDirUtils::ExtractFolder("/a/b"), "/a");
    EXPECT_EQ(nqDirUtils::ExtractFolder("a/b/c"), "a/b");
    EXPECT_EQ(nqDirUtils::ExtractFolder("/a/b/"), "/a/b");
}

TEST(ExtractFolder, isTheRootForAFileInTheRoot)
{
    EXPECT_EQ(nqDirUtils::ExtractFolder("/a"), "/");
    EXPECT_EQ(nqDirUtils::ExtractFolder("/"), "/");
}

TEST(ExtractFolder, isEmptyWithoutASlash)
{
    EXPECT_EQ(nqDirUtils::ExtractFolder("a"), "");
    EXPECT_EQ(nqDirUtils::ExtractFolder(""), "");
}

} // namespace
