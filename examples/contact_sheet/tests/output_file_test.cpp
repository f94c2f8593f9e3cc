#include "examples/contact_sheet/output_file.h"

#include "examples/contact_sheet/tests/sample_files.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace sheet;

TEST(OutputFile, appearsOnlyWhenItIsKept)
{
    const sample::Folder folder;
    sample::writeBytes(folder.path("out"), "old");
    OutputFile file(folder.path("out"));
    std::fputs("new", file.stream());
    EXPECT_EQ(sample::readBytes(folder.path("out")), "old");
    file.keep();
    EXPECT_EQ(sample::readBytes(folder.path("out")), "new");
}

TEST(OutputFile, leavesNothingBehindUnlessItIsKept)
{
    const sample::Folder folder;
    {
        OutputFile file(folder.path("out"));
        std::fputs("new", file.stream());
    }
    EXPECT_TRUE(folder.names().empty());
}

TEST(OutputFile, refusesAFolderAndAPlaceThatIsNotThere)
{
    const sample::Folder folder;
    EXPECT_THROW(OutputFile(folder.path("")), std::runtime_error);
    EXPECT_THROW(OutputFile(folder.path("missing/out")), std::runtime_error);
}

TEST(OutputFile, saysWhenTheDiskIsFull)
{
    const sample::Folder folder;
    std::filesystem::create_symlink("/dev/full", folder.path("out.part"));
    OutputFile file(folder.path("out"));
    std::fputs("new", file.stream());
    EXPECT_THROW(file.keep(), std::runtime_error);
}

} // namespace
