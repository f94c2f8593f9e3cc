#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sheet {

/// Width and height in pixels.
struct Size {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
};

/// An opaque colour, one byte each.
struct Colour {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;
};

/// Bytes of one pixel: red, green, blue.
constexpr std::size_t bytesPerPixel = 3;

/// An opaque picture: rows from top to bottom, pixels from left to right, no padding.
struct Picture {
    Picture() = default;
    Picture(Size pictureSize, Colour fill);

    /// The first byte of row `y`.
    std::uint8_t* row(std::size_t y);
    const std::uint8_t* row(std::size_t y) const;

    Size size;
    std::vector<std::uint8_t> pixels;
};

/// The largest size of the same shape that fits into a square of `edge` pixels. Never larger than
/// `size`, since enlarging invents pixels, and never less than one pixel.
Size fitInto(Size size, std::uint32_t edge);

/// Turns and mirrors a picture as a camera's orientation mark asks, 1 to 8; any other value returns
/// the picture as it is.
Picture upright(Picture picture, int orientation);

} // namespace sheet
