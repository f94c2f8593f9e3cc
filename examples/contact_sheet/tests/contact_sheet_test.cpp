#include "examples/contact_sheet/contact_sheet.h"

#include "examples/contact_sheet/tests/sample_files.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

namespace {

using namespace sheet;

class ContactSheet : public testing::Test {
protected:
    // Draws the sheet and reads it back at its full size.
    Picture draw(const std::vector<Entry>& entries, const Layout& layout)
    {
        const std::string path = folder.path("sheet.png");
        {
            const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
                std::fopen(path.c_str(), "wbe"), std::fclose);
            PngWriter writer(file.get(), layout.size());
            drawSheet(entries, layout, font, writer);
        }
        return decodeToFit(path, 1'000'000).picture;
    }

    static Colour at(const Picture& picture, std::uint32_t x, std::uint32_t y)
    {
        const std::uint8_t* pixel = picture.row(y) + x * bytesPerPixel;
        return {pixel[0], pixel[1], pixel[2]};
    }

    static Entry green(const std::string& name)
    {
        return {name, DecodedPicture{{64, 64}, Picture({64, 64}, Colour{0, 200, 0})}};
    }

    sample::Folder folder;
    Font font{"", letterHeight(64)};
};

TEST_F(ContactSheet, hasTheColumnsAskedFor)
{
    const Layout layout = layOut(7, 3, 64, font);
    EXPECT_EQ(layout.columns, 3u);
    EXPECT_EQ(layout.rows, 3u);
}

TEST_F(ContactSheet, hasNoEmptyColumns)
{
    EXPECT_EQ(layOut(2, 6, 64, font).columns, 2u);
}

TEST_F(ContactSheet, choosesAScreensShapeByItself)
{
    const Layout layout = layOut(144, 0, 64, font);
    EXPECT_EQ(layout.columns, 16u);
    EXPECT_EQ(layout.rows, 9u);
}

TEST_F(ContactSheet, refusesToBecomeTooLarge)
{
    EXPECT_THROW(layOut(100'000, 1, 64, font), std::runtime_error);
}

TEST_F(ContactSheet, showsPicturesInTheirOrder)
{
    std::vector<Entry> entries;
    entries.push_back(green("a"));
    entries.push_back({"b", Failure{FailureKind::crash, ""}});
    entries.push_back(green("c"));
    const Layout layout = layOut(3, 2, 64, font);
    const Picture picture = draw(entries, layout);
    const std::uint32_t inside = layout.gap + 2;
    const std::uint32_t next = layout.edge + layout.gap;
    EXPECT_EQ(at(picture, inside, inside).green, 200);
    EXPECT_EQ(at(picture, inside + next, inside).red, 0xb3);
    EXPECT_EQ(at(picture, inside, inside + layout.rowHeight()).green, 200);
    EXPECT_EQ(at(picture, inside + next, inside + layout.rowHeight()).red, 0xf0);
}

TEST_F(ContactSheet, writesTheNameBelowItsPicture)
{
    const Layout layout = layOut(1, 1, 64, font);
    const Picture picture = draw({green("folder/MMMM.jpg")}, layout);
    bool isDark = false;
    for (std::uint32_t y = layout.gap + layout.edge; y < picture.size.height; ++y)
        for (std::uint32_t x = 0; x < picture.size.width; ++x)
            isDark = isDark || at(picture, x, y).green < 0x60;
    EXPECT_TRUE(isDark);
}

TEST_F(ContactSheet, keepsALongReasonInsideItsTile)
{
    std::string reason;
    for (int word = 0; word < 100; ++word)
        reason += "reasonable ";
    const Layout layout = layOut(1, 1, 64, font);
    const Picture picture = draw({{"", Failure{FailureKind::undecodable, reason}}}, layout);
    for (std::uint32_t x = 0; x < picture.size.width; ++x) {
        EXPECT_EQ(at(picture, x, layout.gap - 1).red, 0xf0);
        EXPECT_EQ(at(picture, x, layout.gap + layout.edge).red, 0xf0);
    }
}

TEST_F(ContactSheet, doesNotLetATileCoverItsNeighbours)
{
    const Layout layout = layOut(1, 1, 64, font);
    const Entry tooLarge{"", DecodedPicture{{99, 99}, Picture({99, 99}, Colour{0, 0, 0})}};
    EXPECT_EQ(at(draw({tooLarge}, layout), layout.gap + 5, layout.gap + 5).red, 0xf0);
}

} // namespace
