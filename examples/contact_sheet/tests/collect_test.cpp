#include "examples/contact_sheet/collect.h"

#include "examples/contact_sheet/tests/sample_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

namespace {

using namespace sheet;

class CollectFiles : public testing::Test {
protected:
    std::string touch(const std::string& name)
    {
        std::string path = folder.path(name);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        sample::writeBytes(path, "x");
        return path;
    }

    sample::Folder folder;
};

TEST_F(CollectFiles, searchesFoldersForPicturesAndSortsThem)
{
    const std::string b = touch("b.PNG");
    const std::string a = touch("a.jpg");
    const std::string inside = touch("ab/c.jpeg");
    touch("notes.txt");
    EXPECT_EQ(collectFiles({folder.path("")}, "out.png"), (std::vector<std::string>{a, inside, b}));
}

TEST_F(CollectFiles, keepsTheOrderOfWhatIsNamedAndItsEnding)
{
    const std::string text = touch("z.txt");
    const std::string picture = touch("a.jpg");
    EXPECT_EQ(collectFiles({text, picture}, "out.png"), (std::vector<std::string>{text, picture}));
}

TEST_F(CollectFiles, leavesThePictureItselfOut)
{
    const std::string picture = touch("a.jpg");
    const std::string output = touch("out.png");
    EXPECT_EQ(collectFiles({folder.path("")}, output), std::vector<std::string>{picture});
}

TEST_F(CollectFiles, saysWhichPathIsNotThere)
{
    try {
        collectFiles({folder.path("missing.jpg")}, "out.png");
        FAIL() << "a missing file was accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), folder.path("missing.jpg") + ": No such file or directory");
    }
}

TEST_F(CollectFiles, refusesADevice)
{
    EXPECT_THROW(collectFiles({"/dev/null"}, "out.png"), std::runtime_error);
}

} // namespace
