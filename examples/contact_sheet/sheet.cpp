#include "sheet.h"

#include <stdexcept>

#include <pango/pangocairo.h>

namespace sheet {

namespace {

using Colour = unsigned; // 0xRRGGBB

constexpr Colour paper = 0xf7f7f5;
constexpr Colour mat = 0xe8e8e3; // around a picture that does not fill its tile
constexpr Colour ink = 0x212124;
constexpr Colour faintInk = 0x666669;
constexpr Colour failure = 0xb8211c;
constexpr Colour failureInk = 0xffffff;

// Lengths in hundredths of a tile's width, so that sheets look the same at every size.
constexpr double margin = 12;
constexpr double gap = 7;     // between tiles
constexpr double head = 47;   // title and note, with the margin above
constexpr double band = 13;   // for the caption under a tile
constexpr double padding = 7; // in a tile without a picture

struct Box {
    double x;
    double y;
    double width;
    double height; // 0: one line
};

struct Style {
    double size; // of the letters
    Colour colour;
    const char* font = "Sans";
    PangoEllipsizeMode shortened = PANGO_ELLIPSIZE_END;
};

void use(cairo_t* cairo, Colour colour)
{
    const auto part = [colour](int shift) { return (colour >> shift & 0xff) / 255.0; };
    cairo_set_source_rgb(cairo, part(16), part(8), part(0));
}

/// Draws text, cut short where its box ends, and returns the height that it took.
double drawText(cairo_t* cairo, const std::string& text, Box box, const Style& style)
{
    const std::unique_ptr<PangoLayout, decltype(&g_object_unref)> layout(
        pango_cairo_create_layout(cairo), g_object_unref);
    const std::unique_ptr<PangoFontDescription, decltype(&pango_font_description_free)> font(
        pango_font_description_from_string(style.font), pango_font_description_free);
    pango_font_description_set_absolute_size(font.get(), style.size * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_width(layout.get(), static_cast<int>(box.width * PANGO_SCALE));
    pango_layout_set_height(layout.get(), static_cast<int>(box.height * PANGO_SCALE));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    pango_layout_set_ellipsize(layout.get(), style.shortened);
    pango_layout_set_text(layout.get(), printable(text).c_str(), -1);
    use(cairo, style.colour);
    cairo_move_to(cairo, box.x, box.y);
    pango_cairo_show_layout(cairo, layout.get());
    int height = 0;
    pango_layout_get_pixel_size(layout.get(), nullptr, &height);
    return height;
}

void drawCell(cairo_t* cairo, const Cell& cell, Size tile, int x, int y)
{
    const double unit = tile.width / 100.0;
    cairo_rectangle(cairo, x, y, tile.width, tile.height);
    use(cairo, cell.tile ? mat : failure);
    cairo_fill(cairo);
    if (cell.tile) {
        // At whole pixels, or it would be blurred.
        const int left = x + (tile.width - cairo_image_surface_get_width(cell.tile.get())) / 2;
        const int top = y + (tile.height - cairo_image_surface_get_height(cell.tile.get())) / 2;
        cairo_set_source_surface(cairo, cell.tile.get(), left, top);
        cairo_paint(cairo);
    } else {
        const double inner = padding * unit;
        Box box{x + inner, y + inner, tile.width - 2 * inner, tile.height - 2 * inner};
        const Style headline{8.8 * unit, failureInk, "Sans Bold"};
        const Style detail{7.2 * unit, failureInk};
        std::string text = cell.headline; // a figure and its unit, in brackets, stay on one line
        for (std::size_t at = text.find('('); (at = text.find(' ', at)) != std::string::npos;)
            text.replace(at, 1, "\u00a0");
        const double used = drawText(cairo, text, box, headline) + inner / 2;
        box.y += used;
        box.height -= used;
        if (box.height > 2 * detail.size)
            drawText(cairo, cell.detail, box, detail);
    }
    const Box below{double(x), y + tile.height + 2 * unit, double(tile.width), 0};
    drawText(cairo, cell.caption, below, {7.6 * unit, ink, "Sans", PANGO_ELLIPSIZE_MIDDLE});
}

} // namespace

Size sheetSize(const Layout& layout, int rows)
{
    const double unit = layout.tile.width / 100.0;
    return {
        int(layout.columns * (layout.tile.width + gap * unit) + (2 * margin - gap) * unit),
        int(rows * (layout.tile.height + (band + gap) * unit) + (head + margin / 2 - gap) * unit)};
}

std::string drawSheet(const std::vector<Cell>& cells, const Layout& layout, const std::string& note)
{
    const double unit = layout.tile.width / 100.0;
    const int count = static_cast<int>(cells.size());
    const Size size = sheetSize(layout, (count + layout.columns - 1) / layout.columns);
    const Surface sheet = newSurface(size);
    const Context owner(cairo_create(sheet.get()), cairo_destroy);
    cairo_t* const cairo = owner.get();
    use(cairo, paper);
    cairo_paint(cairo);

    Box top{margin * unit, margin * unit, size.width - 2 * margin * unit, 0};
    top.y += drawText(cairo, layout.title, top, {15 * unit, ink, "Sans Bold"});
    drawText(cairo, note, top, {8 * unit, faintInk});
    for (int index = 0; index < count; ++index) {
        const int column = index % layout.columns;
        const int row = index / layout.columns;
        const double x = margin * unit + column * (layout.tile.width + gap * unit);
        const double y = head * unit + row * (layout.tile.height + (band + gap) * unit);
        drawCell(cairo, cells[static_cast<std::size_t>(index)], layout.tile, int(x), int(y));
    }

    std::string png;
    const auto append = [](void* to, const unsigned char* bytes, unsigned length) {
        static_cast<std::string*>(to)->append(reinterpret_cast<const char*>(bytes), length);
        return CAIRO_STATUS_SUCCESS;
    };
    if (cairo_surface_write_to_png_stream(sheet.get(), append, &png) != CAIRO_STATUS_SUCCESS)
        throw std::runtime_error("there is no memory for a sheet");
    return png;
}

std::string printable(const std::string& bytes)
{
    const std::unique_ptr<char, decltype(&g_free)> text(
        g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size())), g_free);
    std::string shown;
    for (const char* at = text.get(); *at != '\0'; at = g_utf8_next_char(at)) {
        const char* const next = g_utf8_next_char(at);
        shown += g_unichar_iscntrl(g_utf8_get_char(at)) != 0 ? "?" : std::string(at, next);
    }
    return shown;
}

} // namespace sheet
