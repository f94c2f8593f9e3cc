#include "pool/nqShownFile.h"

#include "pool/include/nqPool.h"
#include "tests/common/files.h"
#include "tests/scripted/scriptedMachine.h"
#include "tests/unit/testSupport.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

using common::contentOf;
using nq::nqGrowingFile;
using nq::nqShownFile;

class ShownFile : public testing::Test {
protected:
    static std::string refusalOf(const std::string& path)
    {
        try {
            nqShownFile file("The file", path);
            return "(none)";
        } catch (const nq::nqPoolError& error) {
            return error.what();
        }
    }

    scripted::Machine mMachine;
    support::Logger mLogger;
    common::TemporaryFolder mFolder;
    std::string mPath = mFolder.file("shown");
};

TEST_F(ShownFile, isNotThereBeforeItIsWritten)
{
    const nqShownFile file("The file", mPath);
    EXPECT_FALSE(std::filesystem::exists(mPath));
    EXPECT_TRUE(std::filesystem::is_empty(mFolder.path()));
}

TEST_F(ShownFile, isReplacedAsAWhole)
{
    nqShownFile file("The file", mPath);
    EXPECT_TRUE(file.replace("a long one"));
    EXPECT_TRUE(file.replace("short"));
    EXPECT_EQ(contentOf(mPath), "short");
}

TEST_F(ShownFile, isAnotherFileAfterEachWriteSoThatAReaderKeepsWhatItHasOpened)
{
    nqShownFile file("The file", mPath);
    file.replace("before");
    std::filesystem::create_hard_link(mPath, mFolder.file("kept"));
    file.replace("after");
    EXPECT_EQ(contentOf(mFolder.file("kept")), "before");
}

TEST_F(ShownFile, hasTheModeThatTheUmaskSays)
{
    const mode_t before = ::umask(0027);
    nqShownFile("The file", mPath).replace("text");
    ::umask(before);
    struct stat file {};
    ASSERT_EQ(::stat(mPath.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0640U);
}

TEST_F(ShownFile, staysWhereItWasWhenTheHostChangesItsFolder)
{
    const common::CurrentFolder inside(mFolder.path());
    nqShownFile file("The file", "shown");
    const common::CurrentFolder elsewhere("/");
    EXPECT_TRUE(file.replace("text"));
    EXPECT_EQ(contentOf(mPath), "text");
}

TEST_F(ShownFile, isTheFileThatALinkNames)
{
    mFolder.addFile("target", "old", 0644);
    std::filesystem::create_symlink(mFolder.file("target"), mPath);
    nqShownFile("The file", mPath).replace("new");
    EXPECT_TRUE(std::filesystem::is_symlink(mPath));
    EXPECT_EQ(contentOf(mFolder.file("target")), "new");
}

TEST_F(ShownFile, isRefusedInAFolderThatIsMissing)
{
    EXPECT_EQ(
        refusalOf(mFolder.file("none/shown")),
        "The file cannot be written: " + mFolder.file("none/shown") +
            ": No such file or directory");
}

TEST_F(ShownFile, isRefusedWhereAFolderIs)
{
    EXPECT_EQ(
        refusalOf(mFolder.path()),
        "The file cannot be written: " + mFolder.path() + ": Is a directory");
}

TEST_F(ShownFile, isRefusedWhereADeviceIsWhichItWouldReplace)
{
    EXPECT_EQ(
        refusalOf("/dev/null"), "The file cannot be written: /dev/null: it is not a regular file");
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(ShownFile, isRefusedWhereAFifoIs)
{
    EXPECT_NE(refusalOf(mFolder.addFifo("fifo")), "(none)");
}

TEST_F(ShownFile, warnsOnceOfFailuresInARow)
{
    std::filesystem::create_directory(mFolder.file("inner"));
    nqShownFile file("The file", mFolder.file("inner/shown"));
    std::filesystem::remove(mFolder.file("inner"));
    EXPECT_FALSE(file.replace("text"));
    EXPECT_FALSE(file.replace("text"));
    EXPECT_EQ(support::entries(mMachine).size(), 1U);
}

TEST_F(ShownFile, isWrittenAgainOnceThatIsPossible)
{
    std::filesystem::create_directory(mFolder.file("inner"));
    nqShownFile file("The file", mFolder.file("inner/shown"));
    std::filesystem::remove(mFolder.file("inner"));
    file.replace("lost");
    EXPECT_NE(file.problem(), "");
    std::filesystem::create_directory(mFolder.file("inner"));
    EXPECT_TRUE(file.replace("text"));
    EXPECT_EQ(file.problem(), "");
    EXPECT_EQ(contentOf(mFolder.file("inner/shown")), "text");
}

TEST_F(ShownFile, keepsWhatWasThereWhenThereIsNoRoom)
{
    nqShownFile file("The file", mPath);
    file.replace("before");
    {
        const common::FileSizeLimit full(3);
        EXPECT_FALSE(file.replace("after"));
    }
    EXPECT_EQ(contentOf(mPath), "before");
    EXPECT_FALSE(std::filesystem::exists(mPath + ".part"));
}

TEST_F(ShownFile, doesNotFollowALinkThatLiesInItsWay)
{
    nqShownFile file("The file", mPath);
    std::filesystem::create_symlink(mFolder.file("elsewhere"), mPath + ".part");
    EXPECT_TRUE(file.replace("text"));
    EXPECT_EQ(contentOf(mPath), "text");
    EXPECT_FALSE(std::filesystem::exists(mFolder.file("elsewhere")));
}

TEST_F(ShownFile, growsAtItsEnd)
{
    mFolder.addFile("shown", "of an earlier run", 0644);
    nqGrowingFile file("The file", mPath);
    EXPECT_EQ(contentOf(mPath), "");
    EXPECT_TRUE(file.append("one, "));
    EXPECT_TRUE(file.append("two"));
    EXPECT_EQ(contentOf(mPath), "one, two");
}

TEST_F(ShownFile, thatGrowsEndsWhereThereWasNoRoom)
{
    nqGrowingFile file("The file", mPath);
    {
        const common::FileSizeLimit full(8);
        EXPECT_TRUE(file.append("one, "));
        EXPECT_FALSE(file.append("two, "));
    }
    EXPECT_FALSE(file.append("three")) << "after a gap";
    EXPECT_EQ(contentOf(mPath), "one, ") << "nothing half written is left";
    EXPECT_EQ(file.problem(), "The file cannot be written: " + mPath + ": File too large");
    EXPECT_EQ(support::entries(mMachine).size(), 1U);
}

TEST_F(ShownFile, thatGrowsIsRefusedWhereADeviceIs)
{
    EXPECT_THROW(nqGrowingFile("The file", "/dev/full"), nq::nqPoolError);
}

} // namespace
