#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/items.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace nqrun {
namespace {

using Texts = std::vector<std::string>;

/// A file that lasts as long as the test.
class TextFile {
public:
    explicit TextFile(std::string_view content)
        : mFile(makeTemporaryFile())
    {
        writeAll(mFile.number(), content);
    }
    std::string path() const
    {
        return "/proc/self/fd/" + std::to_string(mFile.number());
    }

private:
    Descriptor mFile;
};

Texts allOf(Items& items)
{
    Texts texts;
    Item item;
    while (items.next(item) == Items::Next::Item) {
        texts.push_back(item.text);
        EXPECT_EQ(item.index, texts.size());
    }
    return texts;
}

Texts itemsIn(std::string_view content, ItemOptions options = {})
{
    const TextFile file(content);
    options.files = {file.path()};
    Items items(options);
    return allOf(items);
}

TEST(Items, areLines)
{
    EXPECT_EQ(itemsIn("a\nb c\n"), (Texts{"a", "b c"}));
}

TEST(Items, needNoLineBreakAtTheEnd)
{
    EXPECT_EQ(itemsIn("a\nb"), (Texts{"a", "b"}));
}

TEST(Items, areNotMadeOfEmptyLines)
{
    EXPECT_EQ(itemsIn("\na\n\n\nb\n\n"), (Texts{"a", "b"}));
    EXPECT_EQ(itemsIn(""), Texts{});
}

TEST(Items, mayBeEmptyBetweenNullBytes)
{
    ItemOptions options;
    options.separator = '\0';
    EXPECT_EQ(itemsIn(std::string_view("a\nb\0\0c\0", 7), options), (Texts{"a\nb", "", "c"}));
}

TEST(Items, areReadOfSeveralFiles)
{
    const TextFile one("a\nb");
    const TextFile two("c\n");
    ItemOptions options;
    options.files = {one.path(), two.path()};
    Items items(options);
    EXPECT_EQ(allOf(items), (Texts{"a", "b", "c"})) << "the end of a file ends its last line";
}

TEST(Items, mayBeLongerThanAChunk)
{
    const std::string line(300'000, 'x');
    EXPECT_EQ(itemsIn(line + "\ny\n"), (Texts{line, "y"}));
}

TEST(Items, areArguments)
{
    ItemOptions options;
    options.arguments = Texts{"a", "", "b\nc"};
    Items items(options);
    EXPECT_EQ(items.total(), 3U);
    EXPECT_EQ(allOf(items), (Texts{"a", "", "b\nc"}));
}

TEST(Items, waitForAPipeWithoutBlocking)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    ItemOptions options;
    options.files = {"/proc/self/fd/" + std::to_string(ends[0])};
    Items items(options);
    Item item;
    EXPECT_EQ(items.next(item), Items::Next::Wait);
    EXPECT_GE(items.descriptor(), 0);
    writeAll(ends[1], "half");
    EXPECT_EQ(items.next(item), Items::Next::Wait);
    writeAll(ends[1], " a line\nnext");
    ASSERT_EQ(items.next(item), Items::Next::Item);
    EXPECT_EQ(item.text, "half a line");
    EXPECT_FALSE(items.total());
    writer.reset();
    ASSERT_EQ(items.next(item), Items::Next::Item);
    EXPECT_EQ(item.text, "next");
    EXPECT_EQ(items.next(item), Items::Next::End);
    EXPECT_EQ(items.total(), 2U);
}

TEST(Items, sayBeforeTheFirstOneThatAFileCannotBeRead)
{
    for (const char* const path : {"/no/such/file", "/tmp"}) {
        ItemOptions options;
        options.files = {path};
        EXPECT_THROW(Items{options}, Error) << path;
    }
}

TEST(Items, estimateTheirNumberByTheBytesOfTheirFiles)
{
    const TextFile file(std::string(100'000, 'a') + '\n' + std::string(100'000, 'b') + '\n');
    ItemOptions options;
    options.files = {file.path()};
    Items items(options);
    Item item;
    items.next(item);
    ASSERT_TRUE(items.estimatedTotal());
    EXPECT_NEAR(*items.estimatedTotal(), 2, 0.01);
}

TEST(Blocks, endWithAWholeLine)
{
    ItemOptions options;
    options.asBlocks = true;
    options.blockBytes = 6;
    EXPECT_EQ(itemsIn("a\nbb\nccc\nd", options), (Texts{"a\nbb\n", "ccc\nd"}));
}

TEST(Blocks, areLongerThanAskedForOnlyWithALongLine)
{
    ItemOptions options;
    options.asBlocks = true;
    options.blockBytes = 3;
    EXPECT_EQ(itemsIn("a\nlonger\nb\n", options), (Texts{"a\n", "longer\n", "b\n"}));
}

TEST(Blocks, haveANumberOfLines)
{
    ItemOptions options;
    options.asBlocks = true;
    options.blockLines = 2;
    EXPECT_EQ(itemsIn("a\n\nb\nc\nd", options), (Texts{"a\n\n", "b\nc\n", "d"}));
}

TEST(Blocks, keepEveryByteOfALargeFile)
{
    std::string content;
    for (int line = 0; line < 50'000; ++line)
        content += "line " + std::to_string(line % 97) + '\n';
    ItemOptions options;
    options.asBlocks = true;
    options.blockBytes = 100'000;
    std::string joined;
    for (const std::string& block : itemsIn(content, options)) {
        EXPECT_LE(block.size(), 100'000U);
        joined += block;
    }
    EXPECT_EQ(joined, content);
}

} // namespace
} // namespace nqrun
