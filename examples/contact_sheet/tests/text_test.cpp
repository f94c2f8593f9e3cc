#include "examples/contact_sheet/text.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace sheet;

// Every character is ten pixels wide.
std::uint32_t tenEach(const std::u32string& text)
{
    return static_cast<std::uint32_t>(text.size() * 10);
}

using Lines = std::vector<std::u32string>;

TEST(CodePoints, areReadFromUtf8OfEveryLength)
{
    EXPECT_EQ(codePoints("aö€😀"), U"aö€😀");
}

TEST(CodePoints, becomeAReplacementForEachByteThatIsNoUtf8)
{
    EXPECT_EQ(codePoints("a\xff\x80z"), U"a\uFFFD\uFFFDz");
    EXPECT_EQ(codePoints("cut \xe2\x82"), U"cut \uFFFD\uFFFD");
    EXPECT_EQ(codePoints("too long a form: \xc0\xaf"), U"too long a form: \uFFFD\uFFFD");
    EXPECT_EQ(codePoints("half a pair: \xed\xa0\x80"), U"half a pair: \uFFFD\uFFFD\uFFFD");
}

TEST(CodePoints, becomeAReplacementForAControlCharacter)
{
    EXPECT_EQ(codePoints("a\nb"), U"a\uFFFDb");
}

TEST(Elided, leavesATextThatFitsAlone)
{
    EXPECT_EQ(elided(U"a.jpg", 50, tenEach), U"a.jpg");
}

TEST(Elided, keepsBothEnds)
{
    EXPECT_EQ(elided(U"a long name.jpg", 90, tenEach), U"a lo….jpg");
}

TEST(Elided, isJustAnEllipsisWhenThereIsNoRoom)
{
    EXPECT_EQ(elided(U"a.jpg", 5, tenEach), U"…");
}

TEST(Wrapped, breaksAtBlanks)
{
    EXPECT_EQ(wrapped(U"one two three", 70, 3, tenEach), (Lines{U"one two", U"three"}));
}

TEST(Wrapped, breaksAWordThatIsLongerThanALine)
{
    EXPECT_EQ(wrapped(U"abcdefgh", 30, 3, tenEach), (Lines{U"abc", U"def", U"gh"}));
}

TEST(Wrapped, elidesTheLastLineItIsAllowed)
{
    EXPECT_EQ(wrapped(U"one two three four", 70, 2, tenEach), (Lines{U"one two", U"thr…our"}));
}

TEST(Wrapped, givesNoLineForNoText)
{
    EXPECT_TRUE(wrapped(U"", 70, 2, tenEach).empty());
}

TEST(Font, drawsInsideTheLineThatItMeasures)
{
    Font font("", 16);
    const std::u32string text = U"Âgjp|";
    const std::uint32_t width = font.width(text);
    const std::uint32_t height = font.lineHeight();
    constexpr std::uint32_t margin = 20;
    Picture page({width + 2 * margin, height + 2 * margin}, Colour{255, 255, 255});
    font.draw(page, margin, margin, text, Colour{0, 0, 0});

    std::size_t inked = 0;
    for (std::uint32_t y = 0; y < page.size.height; ++y) {
        for (std::uint32_t x = 0; x < page.size.width; ++x) {
            if (page.row(y)[x * bytesPerPixel] == 255)
                continue;
            ++inked;
            EXPECT_TRUE(x + 1 >= margin && x <= margin + width) << x;
            EXPECT_TRUE(y >= margin && y < margin + height) << y;
        }
    }
    EXPECT_GT(inked, 50u);
}

TEST(Font, leavesOutWhatLiesOutsideOfThePicture)
{
    Font font("", 16);
    Picture page({4, 4}, Colour{255, 255, 255});
    font.draw(page, 2, 0, U"MMMM", Colour{0, 0, 0});
    font.draw(page, 100, 100, U"MMMM", Colour{0, 0, 0});
    EXPECT_EQ(page.pixels.size(), bytesPerPixel * 4 * 4);
}

TEST(Font, saysWhichFileIsNoFont)
{
    try {
        const Font font("/dev/null", 16);
        FAIL() << "a device was taken for a font";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "no usable font in /dev/null");
    }
}

} // namespace
