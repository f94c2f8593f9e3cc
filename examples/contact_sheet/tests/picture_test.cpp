#include "examples/contact_sheet/picture.h"

#include <gtest/gtest.h>

namespace {

using namespace sheet;

// One byte of each pixel names it: 1 2 3 over 4 5 6.
Picture sixPixels()
{
    Picture picture({3, 2}, Colour{});
    for (std::size_t at = 0; at < 6; ++at)
        picture.pixels[at * bytesPerPixel] = static_cast<std::uint8_t>(at + 1);
    return picture;
}

std::string names(const Picture& picture)
{
    std::string text;
    for (std::size_t y = 0; y < picture.size.height; ++y) {
        for (std::size_t x = 0; x < picture.size.width; ++x)
            text += std::to_string(picture.row(y)[x * bytesPerPixel]);
        text += ' ';
    }
    return text;
}

TEST(FitInto, keepsTheShapeOfALandscapePicture)
{
    const Size size = fitInto({4000, 3000}, 200);
    EXPECT_EQ(size.width, 200u);
    EXPECT_EQ(size.height, 150u);
}

TEST(FitInto, keepsTheShapeOfAPortraitPicture)
{
    const Size size = fitInto({3000, 4000}, 200);
    EXPECT_EQ(size.width, 150u);
    EXPECT_EQ(size.height, 200u);
}

TEST(FitInto, neverEnlarges)
{
    const Size size = fitInto({16, 9}, 200);
    EXPECT_EQ(size.width, 16u);
    EXPECT_EQ(size.height, 9u);
}

TEST(FitInto, leavesOnePixelOfAVeryThinPicture)
{
    const Size size = fitInto({1'000'000, 1}, 200);
    EXPECT_EQ(size.width, 200u);
    EXPECT_EQ(size.height, 1u);
}

TEST(Upright, turnsAndMirrorsAsEachMarkAsks)
{
    EXPECT_EQ(names(upright(sixPixels(), 1)), "123 456 ");
    EXPECT_EQ(names(upright(sixPixels(), 2)), "321 654 ");
    EXPECT_EQ(names(upright(sixPixels(), 3)), "654 321 ");
    EXPECT_EQ(names(upright(sixPixels(), 4)), "456 123 ");
    EXPECT_EQ(names(upright(sixPixels(), 5)), "14 25 36 ");
    EXPECT_EQ(names(upright(sixPixels(), 6)), "41 52 63 ");
    EXPECT_EQ(names(upright(sixPixels(), 7)), "63 52 41 ");
    EXPECT_EQ(names(upright(sixPixels(), 8)), "36 25 14 ");
}

TEST(Upright, leavesAPictureWithAnUnknownMarkAlone)
{
    EXPECT_EQ(names(upright(sixPixels(), 0)), "123 456 ");
    EXPECT_EQ(names(upright(sixPixels(), 9)), "123 456 ");
}

} // namespace
