#include "examples/contact_sheet/contact_sheet.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace sheet {

namespace {

constexpr Colour wall{0xf0, 0xf0, 0xee};
constexpr Colour captionInk{0x30, 0x30, 0x30};
constexpr Colour failureFill{0xb3, 0x26, 0x1e};
constexpr Colour failureInk{0xff, 0xff, 0xff};
constexpr std::uint32_t longestSide = 1'000'000; // what common PNG readers accept at most

void fill(Picture& onto, std::uint32_t x, std::uint32_t y, Size size, Colour colour)
{
    const Picture line({size.width, 1}, colour);
    for (std::uint32_t row = 0; row < size.height; ++row)
        std::copy(line.pixels.begin(), line.pixels.end(), onto.row(y + row) + x * bytesPerPixel);
}

void copyInto(Picture& onto, std::uint32_t x, std::uint32_t y, const Picture& picture)
{
    const std::size_t rowBytes = picture.size.width * bytesPerPixel;
    for (std::uint32_t row = 0; row < picture.size.height; ++row)
        std::copy_n(picture.row(row), rowBytes, onto.row(y + row) + x * bytesPerPixel);
}

// One cell of the sheet being drawn: (x, y) is the upper left corner of its square.
class Cell {
public:
    Cell(Picture& band, std::uint32_t x, std::uint32_t y, const Layout& layout, Font& font)
        : mBand(band),
          mX(x),
          mY(y),
          mLayout(layout),
          mFont(font),
          mMeasure([&font](const std::u32string& text) { return font.width(text); })
    {
    }

    void draw(const Entry& entry)
    {
        if (const auto* decoded = std::get_if<DecodedPicture>(&entry.outcome))
            drawPicture(decoded->picture);
        else if (const auto* failure = std::get_if<Failure>(&entry.outcome))
            drawFailure(*failure);
        drawCaption(std::filesystem::path(entry.path).filename().string());
    }

private:
    void drawPicture(const Picture& picture)
    {
        // A worker that answers with too large a tile must not draw over its neighbours.
        const Size size = picture.size;
        if (size.width > mLayout.edge || size.height > mLayout.edge)
            return;
        copyInto(
            mBand,
            mX + (mLayout.edge - size.width) / 2,
            mY + (mLayout.edge - size.height) / 2,
            picture);
    }

    void drawFailure(const Failure& failure)
    {
        fill(mBand, mX, mY, {mLayout.edge, mLayout.edge}, failureFill);
        const std::uint32_t padding = mLayout.edge / 16;
        const std::uint32_t width = mLayout.edge - 2 * padding;
        const std::uint32_t lineHeight = mFont.lineHeight();
        const std::size_t maxLines =
            std::max<std::size_t>((mLayout.edge - 2 * padding) / lineHeight, 1);

        std::vector<std::u32string> lines =
            wrapped(codePoints(headline(failure.kind)), width, 2, mMeasure);
        if (maxLines > lines.size() + 1 && !failure.message.empty()) {
            lines.emplace_back();
            const std::vector<std::u32string> reason =
                wrapped(codePoints(failure.message), width, maxLines - lines.size(), mMeasure);
            lines.insert(lines.end(), reason.begin(), reason.end());
        }
        lines.resize(std::min(lines.size(), maxLines));
        const auto height = static_cast<std::uint32_t>(lines.size()) * lineHeight;
        drawCentred(lines, mY + (mLayout.edge - std::min(height, mLayout.edge)) / 2, failureInk);
    }

    void drawCaption(const std::string& name)
    {
        drawCentred(
            {elided(codePoints(name), mLayout.edge, mMeasure)},
            mY + mLayout.edge +
                (mLayout.caption - std::min(mFont.lineHeight(), mLayout.caption)) / 2,
            captionInk);
    }

    void drawCentred(const std::vector<std::u32string>& lines, std::uint32_t y, Colour ink)
    {
        for (const std::u32string& line : lines) {
            const std::uint32_t width = std::min(mFont.width(line), mLayout.edge);
            mFont.draw(mBand, mX + (mLayout.edge - width) / 2, y, line, ink);
            y += mFont.lineHeight();
        }
    }

    Picture& mBand;
    std::uint32_t mX;
    std::uint32_t mY;
    const Layout& mLayout;
    Font& mFont;
    Measure mMeasure;
};

std::uint32_t widescreenColumns(std::size_t count)
{
    std::uint32_t columns = 1;
    while (columns * std::uint64_t{columns} * 9 < count * std::uint64_t{16})
        ++columns;
    return columns;
}

} // namespace

Size Layout::size() const
{
    return {columns * (edge + gap) + gap, rows * rowHeight() + gap};
}

Layout layOut(std::size_t count, std::uint32_t columns, std::uint32_t edge, const Font& font)
{
    const std::uint64_t wanted = columns != 0 ? columns : widescreenColumns(count);
    const std::uint64_t across = std::max<std::uint64_t>(std::min<std::uint64_t>(wanted, count), 1);
    const std::uint64_t down = (count + across - 1) / across;
    const std::uint32_t gap = std::max(edge / 16, 4u);
    const std::uint32_t caption = font.lineHeight() + gap / 2;
    if (across * (edge + gap) + gap > longestSide ||
        down * (edge + caption + gap) + gap > longestSide)
        throw std::runtime_error(
            "a sheet of " + std::to_string(count) +
            " tiles would be too large; use smaller tiles "
            "or other columns");
    return {
        static_cast<std::uint32_t>(across), static_cast<std::uint32_t>(down), edge, gap, caption};
}

std::uint32_t letterHeight(std::uint32_t edge)
{
    constexpr std::uint32_t smallest = 9; // below, letters cannot be told apart
    constexpr std::uint32_t largest = 24;
    return std::clamp(edge / 16, smallest, largest);
}

void drawSheet(
    const std::vector<Entry>& entries, const Layout& layout, Font& font, PngWriter& writer)
{
    const Size whole = layout.size();
    writer.write(Picture({whole.width, layout.gap}, wall));
    for (std::size_t row = 0; row < layout.rows; ++row) {
        Picture band({whole.width, layout.rowHeight()}, wall);
        const std::size_t first = row * layout.columns;
        const std::size_t count = std::min<std::size_t>(layout.columns, entries.size() - first);
        for (std::size_t column = 0; column < count; ++column) {
            const auto x =
                layout.gap + static_cast<std::uint32_t>(column) * (layout.edge + layout.gap);
            Cell(band, x, 0, layout, font).draw(entries[first + column]);
        }
        writer.write(band);
    }
    writer.finish();
}

} // namespace sheet
