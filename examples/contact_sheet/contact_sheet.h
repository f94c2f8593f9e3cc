#pragma once

#include "examples/contact_sheet/entry.h"
#include "examples/contact_sheet/png_writer.h"
#include "examples/contact_sheet/text.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sheet {

/// Where things stand on a contact sheet, in pixels.
struct Layout {
    std::uint32_t columns = 0;
    std::uint32_t rows = 0;
    std::uint32_t edge = 0;    ///< of the square that holds a picture
    std::uint32_t gap = 0;     ///< between cells, and around them all
    std::uint32_t caption = 0; ///< height of the strip below a square
    std::uint32_t rowHeight() const
    {
        return edge + caption + gap;
    }
    Size size() const;
};

/// A layout for `count` tiles; with `columns` 0 the sheet comes out about as wide as a screen is.
/// Throws std::runtime_error when the sheet would be larger than the PNG format's readers take.
Layout layOut(std::size_t count, std::uint32_t columns, std::uint32_t edge, const Font& font);

/// The height of the letters that go with tiles of that size, in pixels.
std::uint32_t letterHeight(std::uint32_t edge);

/// Draws the entries in their order, row by row, into `writer`, whose picture has the layout's
/// size.
void drawSheet(
    const std::vector<Entry>& entries, const Layout& layout, Font& font, PngWriter& writer);

} // namespace sheet
