#pragma once

#include "examples/contact_sheet/picture.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sheet {

/// The code points of a UTF-8 text. Bytes that are no UTF-8 become U+FFFD each, since file names
/// are free to hold any.
std::u32string codePoints(const std::string& utf8);

/// Measures a text, in pixels.
using Measure = std::function<std::uint32_t(const std::u32string&)>;

/// `text`, or as much of its start and end as `width` has room for, with an ellipsis between them:
/// the end of a file name tells its kind.
std::u32string elided(const std::u32string& text, std::uint32_t width, const Measure& measure);

/// `text` in lines that fit into `width`, broken at blanks where possible. At most `maxLines`
/// lines; the last one is elided when more would be needed.
std::vector<std::u32string> wrapped(
    const std::u32string& text, std::uint32_t width, std::size_t maxLines, const Measure& measure);

/// The fonts of this machine, at one size. What the first font does not have is taken from the next
/// best one that does.
class Font {
public:
    /// Takes the machine's sans-serif font, or the font in `file` unless that is empty. Throws
    /// std::runtime_error, saying what to do, when there is none.
    Font(const std::string& file, std::uint32_t pixelHeight);
    ~Font();

    Font(const Font&) = delete;
    Font& operator=(const Font&) = delete;

    std::uint32_t lineHeight() const;
    std::uint32_t width(const std::u32string& text);

    /// Draws one line whose upper left corner is (x, y). What lies outside of the picture is left
    /// out.
    void
    draw(Picture& onto, std::uint32_t x, std::uint32_t y, const std::u32string& text, Colour ink);

private:
    struct State;
    std::unique_ptr<State> mState;
};

} // namespace sheet
