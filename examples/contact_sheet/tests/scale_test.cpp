#include "examples/contact_sheet/scale.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace sheet;

// The first channel of the scaled picture; `values` are the source's, in all channels.
std::vector<int> scaled(Size from, Size to, const std::vector<int>& values)
{
    AreaScaler scaler(from, to);
    for (std::size_t y = 0; y < from.height; ++y) {
        std::vector<std::uint8_t> row;
        for (std::size_t x = 0; x < from.width; ++x)
            row.insert(
                row.end(), bytesPerPixel, static_cast<std::uint8_t>(values[y * from.width + x]));
        scaler.addRow(row.data());
    }
    const Picture picture = scaler.take();
    std::vector<int> result;
    for (std::size_t at = 0; at < picture.pixels.size(); at += bytesPerPixel) {
        EXPECT_EQ(picture.pixels[at], picture.pixels[at + 1]);
        EXPECT_EQ(picture.pixels[at], picture.pixels[at + 2]);
        result.push_back(picture.pixels[at]);
    }
    return result;
}

TEST(AreaScaler, copiesAPictureOfTheSameSize)
{
    const std::vector<int> values{0, 1, 2, 253, 254, 255};
    EXPECT_EQ(scaled({3, 2}, {3, 2}, values), values);
}

TEST(AreaScaler, averagesWholePixels)
{
    EXPECT_EQ(
        scaled({4, 2}, {2, 1}, {0, 10, 100, 100, 20, 30, 200, 200}), (std::vector<int>{15, 150}));
}

TEST(AreaScaler, sharesAPixelOnABorderBetweenItsNeighbours)
{
    // 1.5 pixels each: (30 + 60 / 2) / 1.5 and (60 / 2 + 90) / 1.5.
    EXPECT_EQ(scaled({3, 1}, {2, 1}, {30, 60, 90}), (std::vector<int>{40, 80}));
    EXPECT_EQ(scaled({1, 3}, {1, 2}, {30, 60, 90}), (std::vector<int>{40, 80}));
}

TEST(AreaScaler, keepsAnEvenColourAtAnyRatio)
{
    for (std::uint32_t to = 1; to <= 17; ++to) {
        const std::vector<int> result = scaled(
            {17, 13}, {to, (to * 13 + 16) / 17}, std::vector<int>(std::size_t{17} * 13, 255));
        for (const int value : result)
            EXPECT_EQ(value, 255) << "scaled to a width of " << to;
    }
}

TEST(AreaScaler, reducesAWholePictureToItsAverage)
{
    EXPECT_EQ(scaled({2, 2}, {1, 1}, {0, 255, 255, 0}), std::vector<int>{128});
}

} // namespace
