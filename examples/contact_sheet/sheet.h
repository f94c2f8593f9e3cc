#pragma once

#include "tile.h"

#include <string>
#include <vector>

namespace sheet {

/// One place on a sheet: a tile, or why there is none.
struct Cell {
    std::string caption; ///< bytes, as file names are
    Surface tile{nullptr, cairo_surface_destroy};
    std::string headline; ///< without a tile: what went wrong, in a few words
    std::string detail;   ///< and in more, which may be cut short
};

/// How cells are arranged.
struct Layout {
    Size tile;
    int columns = 0;
    int rows = 0; ///< at most
    std::string title;
};

/// The size of a sheet with so many rows.
Size sheetSize(const Layout& layout, int rows);

/// The sheet, as a PNG file, with `note` under its title.
std::string
drawSheet(const std::vector<Cell>& cells, const Layout& layout, const std::string& note);

/// Text for people: in UTF-8, on one line, without codes that steer a terminal.
std::string printable(const std::string& bytes);

} // namespace sheet
