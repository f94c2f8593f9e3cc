#include "examples/contact_sheet/exif_orientation.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using sheet::exifOrientation;
using Block = std::vector<std::uint8_t>;

Block littleEndian(std::uint8_t orientation)
{
    return {'E',  'x',  'i',  'f',  0, 0, 'I', 'I', 42,          0, 8,   0, 0, 0,
            2,    0,    0x0f, 0x01, 2, 0, 1,   0,   0,           0, 'X', 0, 0, 0,
            0x12, 0x01, 3,    0,    1, 0, 0,   0,   orientation, 0, 0,   0};
}

Block bigEndian(std::uint8_t orientation)
{
    return {'E', 'x', 'i',  'f',  0, 0, 'M', 'M', 0, 42, 0, 0,           0, 8,
            0,   1,   0x01, 0x12, 0, 3, 0,   0,   0, 1,  0, orientation, 0, 0};
}

int orientationOf(const Block& block)
{
    return exifOrientation(block.data(), block.size());
}

TEST(ExifOrientation, isReadInBothByteOrders)
{
    EXPECT_EQ(orientationOf(littleEndian(6)), 6);
    EXPECT_EQ(orientationOf(bigEndian(8)), 8);
}

TEST(ExifOrientation, outsideOfItsRangeIsUpright)
{
    EXPECT_EQ(orientationOf(littleEndian(0)), 1);
    EXPECT_EQ(orientationOf(littleEndian(9)), 1);
}

TEST(ExifOrientation, isUprightForEveryCutOfTheBlock)
{
    const Block whole = littleEndian(6);
    const std::size_t valueEnd = whole.size() - 2;
    for (std::size_t size = 0; size < valueEnd; ++size)
        EXPECT_EQ(orientationOf(Block(whole.begin(), whole.begin() + static_cast<long>(size))), 1)
            << "cut to " << size << " bytes";
}

TEST(ExifOrientation, survivesADirectoryFarOutside)
{
    Block block = littleEndian(6);
    block[10] = block[11] = block[12] = block[13] = 0xff;
    EXPECT_EQ(orientationOf(block), 1);
}

TEST(ExifOrientation, isUprightForABlockOfAnotherKind)
{
    const std::string other = "http://ns.adobe.com/xap/1.0/";
    EXPECT_EQ(orientationOf(Block(other.begin(), other.end())), 1);
}

} // namespace
