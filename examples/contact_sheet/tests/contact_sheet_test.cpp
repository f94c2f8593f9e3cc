// What the host does with what comes back, on which real workers have no say.

#include "sheet.h"
#include "tile.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

using namespace sheet;

constexpr Size box{240, 180};

/// An answer as a worker would send it, gray all over.
std::vector<char> answerOf(Size size, std::size_t pixels)
{
    std::vector<char> answer(sizeof size + 4 * pixels, '\x80');
    std::memcpy(answer.data(), &size, sizeof size);
    return answer;
}

TEST(Answer, isRefusedWhenItMakesNoSense)
{
    EXPECT_FALSE(tileOf({}, box));
    EXPECT_FALSE(tileOf(std::vector<char>(7), box));
    EXPECT_FALSE(tileOf(answerOf({9, 3}, 26), box));
    EXPECT_FALSE(tileOf(answerOf({9, 3}, 28), box));
    EXPECT_FALSE(tileOf(answerOf({0, 3}, 0), box));
    EXPECT_FALSE(tileOf(answerOf({-9, -3}, 27), box));
    EXPECT_FALSE(tileOf(answerOf({241, 1}, 241), box));
    EXPECT_FALSE(tileOf(answerOf({1, 181}, 181), box));
}

/// The colour of a pixel in a sheet, as 0xRRGGBB.
std::uint32_t colourAt(std::string png, int x, int y)
{
    const auto read = [](void* from, unsigned char* to, unsigned length) {
        auto& left = *static_cast<std::string*>(from);
        std::memcpy(to, left.data(), length);
        left.erase(0, length);
        return CAIRO_STATUS_SUCCESS;
    };
    const Surface surface(
        cairo_image_surface_create_from_png_stream(read, &png), cairo_surface_destroy);
    std::uint32_t colour = 0;
    std::memcpy(
        &colour,
        cairo_image_surface_get_data(surface.get()) +
            std::ptrdiff_t{y} * cairo_image_surface_get_stride(surface.get()) +
            std::ptrdiff_t{4} * x,
        sizeof colour);
    return colour & 0xffffff;
}

TEST(Sheet, showsPicturesAndRedTilesInRows)
{
    constexpr std::size_t pixels = 240UL * 180;
    std::vector<Cell> cells(3);
    cells[0].tile = tileOf(answerOf(box, pixels), box);
    cells[1].headline = "crashed";
    cells[2].tile = tileOf(answerOf(box, pixels), box);
    const Layout layout{box, 2, 8, "Title"};
    const std::string sheet = drawSheet(cells, layout, "note");
    const int left = sheetSize(layout, 1).width / 4;
    const int top = sheetSize(layout, 1).height / 2;
    const int rowHeight = sheetSize(layout, 2).height - sheetSize(layout, 1).height;
    EXPECT_EQ(colourAt(sheet, left, top), 0x808080U);
    EXPECT_EQ(colourAt(sheet, left * 3, top + 50), 0xb8211cU);
    EXPECT_EQ(colourAt(sheet, left, top + rowHeight), 0x808080U);
    EXPECT_EQ(colourAt(sheet, left * 3, top + rowHeight), 0xf7f7f5U);
}

} // namespace
